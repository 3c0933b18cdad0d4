#!/usr/bin/env bash
# Runs every benchmark program of a build directory, then every Python peer
# benchmark in bench/, and prints ratios. Usage: bash bench/run.sh build-bench
#
# Adding a benchmark: a bench/bench_<name>.cpp is built into
# <build>/bin/bench_<name> and run here automatically; its JSON result lands in
# <build>/bench-results/bench_<name>.json. A bench/<name>.py peer is run with
# /usr/bin/python3 and gets the build directory as its first argument.
# Ratio reports for a program go in the report_<name> function below (one per
# program, optional).
set -uo pipefail

BUILD="${1:-build-bench}"
HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
OUT="$BUILD/bench-results"
mkdir -p "$OUT"
status=0

# Mean time in ms of one benchmark from a JSON result file: bench_ms FILE NAME
# [real_time|cpu_time].
bench_ms() {
    /usr/bin/python3 - "$1" "$2" "${3:-real_time}" <<'PY'
import json, sys
data = json.load(open(sys.argv[1]))
for b in data["benchmarks"]:
    if b["name"].split("/")[0] == sys.argv[2] and b.get("run_type", "iteration") == "iteration":
        unit = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[b["time_unit"]]
        print(b[sys.argv[3]] * unit)
        break
PY
}

report_bench_engine() {
    local json="$1" kind
    for kind in real_time cpu_time; do
        /usr/bin/python3 - "$kind" "$(bench_ms "$json" BM_Memcpy32 $kind)" \
            "$(bench_ms "$json" BM_Lock24To32ARGB $kind)" "$(bench_ms "$json" BM_Lock32ARGBTo24 $kind)" <<'PY'
import sys
kind = sys.argv[1]
mem, a, b = map(float, sys.argv[2:])
print(f"engine ({kind}): memcpy of 96 MB {mem:.1f} ms")
print(f"engine ({kind}): LockBits 24bppRGB -> 32bppARGB (mode 5) {a:.1f} ms, ratio to memcpy {a / mem:.2f}")
print(f"engine ({kind}): LockBits 32bppARGB -> 24bppRGB (mode 6) {b:.1f} ms, ratio to memcpy {b / mem:.2f}")
PY
    done
}

# Peak resident size of each memory job and its ratio to the image's pixels.
report_bench_memory() {
    /usr/bin/python3 - "$1" <<'PY'
import json, sys
for b in json.load(open(sys.argv[1]))["benchmarks"]:
    if "ratio" in b:
        print(f"memory: {b['name']}: peak {b['peak_kb'] / 1024:.0f} MB for "
              f"{b['image_kb'] / 1024:.0f} MB of pixels, ratio {b['ratio']:.2f}, "
              f"{b['real_time'] / 1000:.1f} s, {b['after_close_kb'] / 1024:.0f} MB resident "
              "after CloseImage")
PY
}

for prog in "$BUILD"/bin/bench_*; do
    [ -x "$prog" ] || continue
    name="$(basename "$prog")"
    echo "=== $name"
    if ! "$prog" --benchmark_out="$OUT/$name.json" --benchmark_out_format=json; then
        status=1
        continue
    fi
    if declare -F "report_$name" >/dev/null; then
        "report_$name" "$OUT/$name.json" || status=1
    fi
done

for peer in "$HERE"/*.py; do
    [ -f "$peer" ] || continue
    echo "=== $(basename "$peer")"
    /usr/bin/python3 "$peer" "$BUILD" || status=1
done

exit $status
