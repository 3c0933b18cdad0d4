"""vips beside bench_memory: the same 20000x20000 JPEG (made by bench_memory in
BUILD/bench-data/memory), brightened by 20 % and saved as LZW TIFF and PNG
(vips writes no PDF), each step a vips process; its peak resident size is the
largest of the steps' (GNU time's %M). Printed beside our ratio from
bench_memory.json. vips streams the picture, so its peak is far below the
picture's size; ours holds the whole image, as the library's images do."""
import json
import os
import shutil
import subprocess
import sys
import time


def peak_kb(args):
    """Runs a command under /usr/bin/time and returns its peak in kB and seconds."""
    t0 = time.monotonic()
    out = subprocess.run(["/usr/bin/time", "-f", "%M"] + args, capture_output=True, text=True)
    if out.returncode != 0:
        raise RuntimeError(out.stderr)
    return int(out.stderr.strip().splitlines()[-1]), time.monotonic() - t0


def main():
    build = sys.argv[1]
    data = os.path.join(build, "bench-data", "memory")
    jpg = os.path.join(data, "big.jpg")
    ours = os.path.join(build, "bench-results", "bench_memory.json")
    if not shutil.which("vips") or not os.path.exists(jpg) or not os.path.exists(ours):
        print("memory peer: vips, the picture or bench_memory's result is missing; skipped")
        return 0
    mine = {b["name"].split("/")[1]: b for b in json.load(open(ours))["benchmarks"]
            if b["name"].startswith("BM_JpegBrightnessSaves/") and "ratio" in b}
    image_kb = next(iter(mine.values()))["image_kb"] if mine else 20000 * 20000 * 3 / 1024
    peaks, seconds = [], 0.0
    for fmt in ("peer.tif[compression=lzw]", "peer.png"):
        kb, s = peak_kb(["vips", "linear", jpg, os.path.join(data, fmt), "1.2", "0", "--uchar"])
        peaks.append(kb)
        seconds += s
    for name in ("peer.tif", "peer.png"):
        os.remove(os.path.join(data, name))
    print(f"memory: vips load + linear + TIFF, PNG: peak {max(peaks) / 1024:.0f} MB, "
          f"ratio {max(peaks) / image_kb:.2f} to the pixels, {seconds:.1f} s")
    for name, b in sorted(mine.items()):
        print(f"memory: ours ({name}): ratio {b['ratio']:.2f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
