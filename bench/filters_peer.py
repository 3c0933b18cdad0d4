"""OpenCV peers of the filter benchmarks, on the same 6000x4000 pixels,
single-threaded, printed beside the toolkit's times from bench_filters.json."""
import json
import os
import sys
import time

import cv2
import numpy as np

W, H = 6000, 4000


def pixels():
    i = np.arange(W * H, dtype=np.uint64)
    v = ((i * np.uint64(2654435761)) & np.uint64(0xFFFFFFFF)) >> np.uint64(8)
    v = (v | np.uint64(0xFF000000)).astype(np.uint32)
    return v.view(np.uint8).reshape(H, W, 4)  # bytes B, G, R, A


def best(fn, n=3, clock=time.perf_counter):
    t = []
    for _ in range(n):
        s = clock()
        fn()
        t.append((clock() - s) * 1000.0)
    return min(t)


def cpu_best(fn, n=3):
    # Processor time of this (single-threaded) process: on a busy machine it
    # compares with the toolkit's cpu_time where wall time does not.
    return best(fn, n, time.process_time)


def main():
    build = sys.argv[1] if len(sys.argv) > 1 else "build-bench"
    cv2.setNumThreads(1)
    img = pixels()
    out = np.empty_like(img)
    lut = np.clip(np.round(np.arange(256) * 1.1), 0, 255).astype(np.uint8)
    sharpen = np.full((3, 3), -0.2, np.float32)
    sharpen[1, 1] = 2.6
    peers = {
        "BM_FxGrayscale": ("cv2.cvtColor BGRA2GRAY", lambda: cv2.cvtColor(img, cv2.COLOR_BGRA2GRAY)),
        "BM_SetBrightness": ("cv2.LUT", lambda: cv2.LUT(img, lut, dst=out)),
        "BM_SetContrast": ("cv2.LUT", lambda: cv2.LUT(img, lut, dst=out)),
        "BM_FxNegative": ("cv2.bitwise_not", lambda: cv2.bitwise_not(img, dst=out)),
        "BM_FxBlur": ("cv2.blur 3x3", lambda: cv2.blur(img, (3, 3), dst=out)),
        "BM_FxSharpen": ("cv2.filter2D 3x3", lambda: cv2.filter2D(img, -1, sharpen, dst=out)),
        "BM_FxDespeckle": ("cv2.medianBlur 3", lambda: cv2.medianBlur(img, 3, dst=out)),
        "BM_FxDespeckleMore": ("cv2.medianBlur 5", lambda: cv2.medianBlur(img, 5, dst=out)),
        "BM_FxDilate": ("cv2.dilate 3x3", lambda: cv2.dilate(img, np.ones((3, 3), np.uint8), dst=out)),
    }
    path = os.path.join(build, "bench-results", "bench_filters.json")
    for kind, timer in (("real_time", best), ("cpu_time", cpu_best)):
        ours = {}
        if os.path.exists(path):
            for b in json.load(open(path))["benchmarks"]:
                unit = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[b["time_unit"]]
                ours[b["name"].split("/")[0]] = b[kind] * unit
        mem = timer(lambda: np.copyto(out, img), 5)
        print(f"[{kind}] memcpy of 96 MB (numpy copyto): {mem:.1f} ms; toolkit's own memcpy: {ours.get('BM_Memcpy', float('nan')):.1f} ms")
        print(f"{'filter':<20}{'toolkit ms':>12}  {'OpenCV peer':<24}{'peer ms':>9}{'ratio':>8}{'x memcpy':>10}")
        for name, (label, fn) in peers.items():
            peer = timer(fn)
            t = ours.get(name, float("nan"))
            print(f"{name[3:]:<20}{t:>12.1f}  {label:<24}{peer:>9.1f}{t / peer:>8.2f}{t / mem:>10.2f}")


if __name__ == "__main__":
    main()
