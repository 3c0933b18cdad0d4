"""Saving beside its peers, in one run, on the same pixels.

1. A 6000x4000 picture encoded as JPEG q75, PNG and LZW TIFF by bench_save,
   by vips (`vips copy in.v out.jpg[Q=75]`) and by PIL; ratio to the fastest peer.
2. A 200-page CCITT G4 TIFF opened editable, pages 1 and 2 swapped, saved as
   G4: time and peak resident memory of bench_save, tiffcp and ImageMagick's
   convert, each in its own process (/usr/bin/time -v).
Usage: save_peer.py BUILD_DIR
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

from PIL import Image, ImageDraw

build = sys.argv[1] if len(sys.argv) > 1 else "build-bench"
prog = os.path.join(build, "bin", "bench_save")
env = dict(os.environ, KESTRELYN_PLUGIN_PATH=os.path.join(build, "lib"))
work = tempfile.mkdtemp(prefix="kysavebench")


def best_of(n, fn):
    best = 1e30
    for _ in range(n):
        t0 = time.perf_counter()
        fn()
        best = min(best, (time.perf_counter() - t0) * 1000)
    return best


def timed(cmd):
    """Runs cmd under /usr/bin/time -v; gives (ms, peak kB)."""
    t0 = time.perf_counter()
    r = subprocess.run(["/usr/bin/time", "-v"] + cmd, capture_output=True, text=True, env=env)
    ms = (time.perf_counter() - t0) * 1000
    kb = int(re.search(r"Maximum resident set size \(kbytes\): (\d+)", r.stderr).group(1))
    if r.returncode != 0:
        first = r.stderr.strip().split("\n")[0][:160]
        print(f"  {cmd[0]} failed after {ms:.0f} ms, peak {kb / 1024:.1f} MB: {first}")
        return None, kb
    return ms, kb


try:
    # --- 1. encoders
    w, h = 6000, 4000
    grad = Image.linear_gradient("L").resize((w, h))
    pic = Image.merge("RGB", (grad, grad.rotate(90).resize((w, h)), Image.effect_noise((w, h), 40)))
    src = os.path.join(work, "in.png")
    pic.save(src, compress_level=1)
    vsrc = os.path.join(work, "in.v")
    subprocess.run(["vips", "copy", src, vsrc], check=True)

    out = subprocess.run([prog, "--encode", src, work], capture_output=True, text=True, env=env, check=True)
    ours = {k: float(v) for k, v in (line.split() for line in out.stdout.split("\n") if line)}
    vips_cmd = {
        "jpeg": ["vips", "copy", vsrc, os.path.join(work, "v.jpg[Q=75]")],
        "png": ["vips", "copy", vsrc, os.path.join(work, "v.png")],
        "tiff": ["vips", "copy", vsrc, os.path.join(work, "v.tif[compression=lzw]")],
    }
    vips, vips_cpu = {}, {}
    for k, cmd in vips_cmd.items():
        vips[k], vips_cpu[k] = 1e30, 1e30
        for _ in range(3):
            before = os.times()
            t0 = time.perf_counter()
            subprocess.run(cmd, check=True)
            vips[k] = min(vips[k], (time.perf_counter() - t0) * 1000)
            after = os.times()
            vips_cpu[k] = min(vips_cpu[k], (after.children_user + after.children_system
                                            - before.children_user - before.children_system) * 1000)
    pil_save = {
        "jpeg": lambda: pic.save(os.path.join(work, "p.jpg"), quality=75),
        "png": lambda: pic.save(os.path.join(work, "p.png")),
        "tiff": lambda: pic.save(os.path.join(work, "p.tif"), compression="tiff_lzw"),
    }
    pil, pil_cpu = {}, {}
    for k, fn in pil_save.items():
        pil[k], pil_cpu[k] = 1e30, 1e30
        for _ in range(3):
            c0 = time.process_time()
            t0 = time.perf_counter()
            fn()
            pil[k] = min(pil[k], (time.perf_counter() - t0) * 1000)
            pil_cpu[k] = min(pil_cpu[k], (time.process_time() - c0) * 1000)
    sizes = {"ours": "ky", "vips": "v", "PIL": "p"}
    for k in ("jpeg", "png", "tiff"):
        ext = {"jpeg": "jpg", "png": "png", "tiff": "tif"}[k]
        fastest = min(vips[k], pil[k])
        fastest_cpu = min(vips_cpu[k], pil_cpu[k])
        print(f"save {k:4s} 6000x4000: ours {ours[k]:8.1f} ms  vips {vips[k]:8.1f} ms  PIL {pil[k]:8.1f} ms"
              f"  ratio to fastest peer {ours[k] / fastest:.2f}")
        print(f"  processor time: ours {ours[k + '_cpu']:8.1f} ms  vips {vips_cpu[k]:8.1f} ms"
              f"  PIL {pil_cpu[k]:8.1f} ms  ratio to fastest peer {ours[k + '_cpu'] / fastest_cpu:.2f}")
        print("  size: " + "  ".join(
            f"{name} {os.path.getsize(os.path.join(work, stem + '.' + ext)) / 1e6:.1f} MB"
            for name, stem in sizes.items()))
    print("  (vips times include process start-up and reading the .v file)")

    # --- 2. the 200-page G4 document
    pages = []
    for i in range(200):
        page = Image.new("1", (2480, 3508), 1)
        d = ImageDraw.Draw(page)
        for line in range(60):
            y = 150 + line * 54
            d.rectangle([200, y, 200 + ((i * 37 + line * 91) % 2000), y + 30], fill=0)
        pages.append(page)
    doc = os.path.join(work, "doc.tif")
    pages[0].save(doc, compression="group4", save_all=True, append_images=pages[1:])
    del pages
    page_bytes = 2480 * 3508 // 8
    _, base_kb = timed([prog, "--baseline", os.path.join(work, "base.tif")])
    ms, kb = timed([prog, "--swap", doc, os.path.join(work, "ky.tif")])
    order = ",".join(["1", "0"] + [str(i) for i in range(2, 200)])
    tms, tkb = timed(["tiffcp", "-c", "g4", doc + "," + order, os.path.join(work, "tc.tif")])
    cms, ckb = timed(["convert", doc, "-swap", "0,1", "-compress", "Group4", os.path.join(work, "im.tif")])
    print(f"200-page G4 ({os.path.getsize(doc) // 1024} kB, one page {page_bytes // 1024} kB of pixels): "
          f"swap 1-2 and save")
    print(f"  ours    {ms:8.1f} ms  peak {kb / 1024:7.1f} MB")
    print(f"  tiffcp  {tms:8.1f} ms  peak {tkb / 1024:7.1f} MB")
    if cms is not None:
        print(f"  convert {cms:8.1f} ms  peak {ckb / 1024:7.1f} MB")
    print(f"  time ratio to tiffcp {ms / tms:.2f}; peak memory ratio to tiffcp {kb / tkb:.2f}")
    print(f"  our baseline (library and plug-in started, nothing done) peak {base_kb / 1024:.1f} MB;"
          f" the swap's peak above it {(kb - base_kb) / 1024:.1f} MB"
          f" = {(kb - base_kb) * 1024 / page_bytes:.1f} pages of pixels")
    check = subprocess.run(["tiffinfo", os.path.join(work, "ky.tif")], capture_output=True, text=True).stdout
    print(f"  our file: {check.count('Compression Scheme: CCITT Group 4')} G4 pages")
finally:
    shutil.rmtree(work, ignore_errors=True)
