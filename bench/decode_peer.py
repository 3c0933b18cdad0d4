"""Decoding beside its peers, in one run, on the same files.

A 6000x4000 photo-like picture (gradients, soft waves and noise) is written
once with PIL as JPEG (q90, 4:2:0), PNG (level 6) and uncompressed TIFF into
BUILD/bench-data/decode. Each file is then decoded to pixels by

  ours     CreateImageFromFile + GetWidth + CloseImage (bench_decode, Google
           Benchmark, in-process), default route and engine-only route
  vips     libvips in-process through ctypes: new_from_file (sequential) +
           write_to_memory, i.e. the whole picture decoded into one buffer
  PIL      Image.open(f).load()
  cv2      cv2.imread(f, IMREAD_COLOR)

each the best of 7, wall time and process CPU time (all threads). Then the
same loads as whole processes (best of 3): `bench_decode --load`, `vips copy f out.v`,
`vips avg f` and one-line Python programs (whose interpreter and import
start-up is shown separately). Ratios are ours to the fastest peer.

Usage: decode_peer.py BUILD_DIR        the comparison
       decode_peer.py --make DIR       only writes the three files into DIR
"""
import ctypes
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time

FILES = {"jpeg": "photo.jpg", "png": "photo.png", "tiff": "photo.tif"}
W, H = 6000, 4000
RUNS = 7  # in-process loads
PROCESS_RUNS = 3  # whole processes (the cv2 import alone takes a second)


def make_files(out):
    import numpy as np
    from PIL import Image

    os.makedirs(out, exist_ok=True)
    rng = np.random.default_rng(2024)
    y, x = np.mgrid[0:H, 0:W].astype(np.float32)
    r = 40 + 170 * x / W + 25 * np.sin(x / 310.0) * np.cos(y / 170.0)
    g = 60 + 140 * y / H + 30 * np.sin((x + y) / 420.0)
    b = 200 - 120 * (x + y) / (W + H) + 20 * np.cos(np.hypot(x - 2500, y - 1800) / 90.0)
    rgb = np.stack([r, g, b], axis=-1) + rng.normal(0, 6, (H, W, 3)).astype(np.float32)
    pic = Image.fromarray(np.clip(rgb, 0, 255).astype(np.uint8), "RGB")
    for kind, name in FILES.items():
        path = os.path.join(out, name)
        tmp = path + ".part"
        if kind == "jpeg":
            pic.save(tmp, "JPEG", quality=90, subsampling=2)
        elif kind == "png":
            pic.save(tmp, "PNG", compress_level=6)
        else:
            pic.save(tmp, "TIFF", compression="raw")
        os.replace(tmp, path)


def best(fn):
    """Best of RUNS calls: (wall ms, process CPU ms), each the minimum."""
    fn()  # warm the page cache and the libraries
    walls, cpus = [], []
    for _ in range(RUNS):
        c0, t0 = time.process_time(), time.perf_counter()
        fn()
        walls.append((time.perf_counter() - t0) * 1000)
        cpus.append((time.process_time() - c0) * 1000)
    return min(walls), min(cpus)


def best_process(cmd, env=None):
    """Best of PROCESS_RUNS runs of a whole process: (wall ms, user+system CPU ms)."""
    subprocess.run(cmd, check=True, env=env, stdout=subprocess.DEVNULL)
    walls, cpus = [], []
    for _ in range(PROCESS_RUNS):
        t0 = time.perf_counter()
        p = subprocess.Popen(cmd, env=env, stdout=subprocess.DEVNULL)
        _, status, ru = os.wait4(p.pid, 0)
        walls.append((time.perf_counter() - t0) * 1000)
        if status != 0:
            raise RuntimeError(f"{cmd} failed")
        cpus.append((ru.ru_utime + ru.ru_stime) * 1000)
    return min(walls), min(cpus)


class Vips:
    """libvips in-process through ctypes (no pyvips here)."""

    def __init__(self):
        lib = ctypes.CDLL("libvips.so.42")
        glib = ctypes.CDLL("libglib-2.0.so.0")
        gobj = ctypes.CDLL("libgobject-2.0.so.0")
        if lib.vips_init(b"decode_peer") != 0:
            raise RuntimeError("vips_init")
        lib.vips_cache_set_max(0)
        lib.vips_image_new_from_file.restype = ctypes.c_void_p
        lib.vips_image_write_to_memory.restype = ctypes.c_void_p
        lib.vips_image_write_to_memory.argtypes = [ctypes.c_void_p, ctypes.POINTER(ctypes.c_size_t)]
        lib.vips_image_get_width.argtypes = [ctypes.c_void_p]
        gobj.g_object_unref.argtypes = [ctypes.c_void_p]
        glib.g_free.argtypes = [ctypes.c_void_p]
        self.lib, self.glib, self.gobj = lib, glib, gobj

    def load(self, path):
        img = self.lib.vips_image_new_from_file(path.encode(), b"access", ctypes.c_int(1), None)
        if not img:
            raise RuntimeError("vips load " + path)
        size = ctypes.c_size_t()
        mem = self.lib.vips_image_write_to_memory(img, ctypes.byref(size))
        ok = mem and size.value >= W * H * 3 and self.lib.vips_image_get_width(img) == W
        self.glib.g_free(mem)
        self.gobj.g_object_unref(img)
        if not ok:
            raise RuntimeError("vips decode " + path)


def ours_in_process(build, data, prog):
    """Our Google Benchmark minima from this run of make bench, else a new run."""
    json_path = os.path.join(build, "bench-results", "bench_decode.json")
    newest_input = max(os.path.getmtime(prog), *(os.path.getmtime(os.path.join(data, f)) for f in FILES.values()))
    if not os.path.exists(json_path) or os.path.getmtime(json_path) < newest_input:
        os.makedirs(os.path.dirname(json_path), exist_ok=True)
        subprocess.run([prog, f"--benchmark_out={json_path}", "--benchmark_out_format=json"],
                       check=True, stdout=subprocess.DEVNULL, env=dict(os.environ, KY_DECODE_DIR=data))
    res = {}
    for b in json.load(open(json_path))["benchmarks"]:
        if b.get("aggregate_name") != "min":
            continue
        unit = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[b["time_unit"]]
        res[b["run_name"].split("/")[0]] = (b["real_time"] * unit, b["cpu_time"] * unit)
    return res


def row(label, ours, peers):
    fastest_wall = min(v[0] for v in peers.values())
    fastest_cpu = min(v[1] for v in peers.values())
    cells = "  ".join(f"{k} {v[0]:7.1f} / {v[1]:7.1f}" for k, v in peers.items())
    return (f"{label:14s} ours {ours[0]:7.1f} / {ours[1]:7.1f}  {cells}  "
            f"ratio to fastest peer: wall {ours[0] / fastest_wall:.2f}, CPU {ours[1] / fastest_cpu:.2f}")


def main():
    if len(sys.argv) == 3 and sys.argv[1] == "--make":
        make_files(sys.argv[2])
        return 0
    build = sys.argv[1] if len(sys.argv) > 1 else "build-bench"
    prog = os.path.join(build, "bin", "bench_decode")
    data = os.path.join(build, "bench-data", "decode")
    if not all(os.path.exists(os.path.join(data, f)) for f in FILES.values()):
        make_files(data)
    env = dict(os.environ, KESTRELYN_PLUGIN_PATH=os.path.join(build, "lib"), KY_DECODE_DIR=data)
    os.environ.update(env)

    import cv2
    from PIL import Image

    ours = ours_in_process(build, data, prog)
    vips = Vips()
    work = tempfile.mkdtemp(prefix="kydecodebench")
    try:
        print(f"decode 6000x4000, files in {data}: "
              + ", ".join(f"{k} {os.path.getsize(os.path.join(data, f)) / 1e6:.1f} MB" for k, f in FILES.items()))
        print(f"milliseconds as wall / process CPU (all threads); best of {RUNS} in-process, "
              f"{PROCESS_RUNS} as processes")
        print("in-process:")
        for kind, name in FILES.items():
            path = os.path.join(data, name)
            peers = {
                "vips": best(lambda: vips.load(path)),
                "PIL": best(lambda: Image.open(path).load()),
                "cv2": best(lambda: cv2.imread(path, cv2.IMREAD_COLOR)),
            }
            tag = {"jpeg": "Jpeg", "png": "Png", "tiff": "Tiff"}[kind]
            print(row(f"  {kind}", ours[f"BM_Decode{tag}"], peers))
            print(row(f"  {kind} engine", ours[f"BM_Decode{tag}Engine"], peers))

        print("whole process (start-up included):")
        py = "/usr/bin/python3"
        base_pil = best_process([py, "-c", "from PIL import Image"])
        base_cv2 = best_process([py, "-c", "import cv2"])
        print(f"  start-up alone: python+PIL {base_pil[0]:.1f} / {base_pil[1]:.1f}, "
              f"python+cv2 {base_cv2[0]:.1f} / {base_cv2[1]:.1f}, "
              f"vips --version {best_process(['vips', '--version'])[0]:.1f}")
        for kind, name in FILES.items():
            path = os.path.join(data, name)
            peers = {
                "vips copy": best_process(["vips", "copy", path, os.path.join(work, "out.v")]),
                "vips avg": best_process(["vips", "avg", path]),
                "PIL": best_process([py, "-c", f"from PIL import Image; Image.open({path!r}).load()"]),
                "cv2": best_process([py, "-c", f"import cv2; cv2.imread({path!r}, cv2.IMREAD_COLOR)"]),
            }
            print(row(f"  {kind}", best_process([prog, "--load", path], env), peers))
            print(row(f"  {kind} engine", best_process([prog, "--load", path, "engine"], env), peers))
    finally:
        shutil.rmtree(work, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
