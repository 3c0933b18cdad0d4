#!/usr/bin/env bash
# A 50-page bitonal 300-dpi group 4 TIFF to PDF: bench_pdf (Imaging's
# PdfCreateFromMultipageTIFF) beside img2pdf and ImageMagick's convert, on the
# same file in the same run. Prints the best wall time of 5 runs with its CPU
# time and peak resident memory, the output size, and the ratios to img2pdf.
#
#   bash bench/pdf_peer.sh BUILD_DIR        the comparison
#   bash bench/pdf_peer.sh make-data OUT    only make the test file
set -euo pipefail

DATA="${TMPDIR:-/tmp}/kestrelyn-bench-pdf"
CONVERT=/usr/bin/convert
PAGES=50

make_data() {
    local out="$1" dir i j
    command -v tiffcp >/dev/null || { echo "tiffcp is needed" >&2; return 1; }
    [ -x "$CONVERT" ] || { echo "$CONVERT is needed" >&2; return 1; }
    dir="$(mktemp -d)"
    # Five letter-size pages of text-like marks (lines of words of random
    # widths, a few rules and a box), each made bitonal and group 4 coded.
    for i in 0 1 2 3 4; do
        local draw="" y=300 x w
        RANDOM=$((i * 7919 + 17))
        while [ $y -lt 3000 ]; do
            x=250
            while [ $x -lt 2250 ]; do
                w=$((40 + RANDOM % 160))
                draw+="rectangle $x,$y $((x + w)),$((y + 22 + RANDOM % 8)) "
                x=$((x + w + 25 + RANDOM % 10))
            done
            y=$((y + 55 + RANDOM % 10))
        done
        draw+="rectangle 200,200 2350,210 rectangle 200,3090 2350,3100 "
        "$CONVERT" -size 2550x3300 xc:white -fill black -draw "$draw" \
            -fill none -stroke black -strokewidth 3 -draw "circle 1900,500 1900,$((420 + i * 10))" \
            -units PixelsPerInch -density 300 -monochrome -compress Group4 "$dir/p$i.tif"
    done
    local list=()
    for ((j = 0; j < PAGES; j++)); do list+=("$dir/p$((j % 5)).tif"); done
    mkdir -p "$(dirname "$out")"
    tiffcp -c g4 "${list[@]}" "$out"
    rm -rf "$dir"
}

if [ "${1:-}" = "make-data" ]; then
    make_data "$2"
    exit 0
fi

BUILD="${1:-build-bench}"
TIFF="$DATA/bitonal50.tif"
[ -f "$TIFF" ] || make_data "$TIFF"
OUT="$DATA/out"
mkdir -p "$OUT"

# run NAME COMMAND...: best of 5 wall times (ms), with the CPU time (user +
# system, ms) and the peak RSS (KB) of that run, by GNU time. A failed peer
# is reported and left out.
run() {
    local name="$1" best="" cpu="" rss="" t u s r c
    shift
    for _ in 1 2 3 4 5; do
        if ! /usr/bin/time -f "%e %U %S %M" -o "$OUT/$name.time" "$@" >/dev/null \
            2>"$OUT/$name.err"; then
            echo "pdf: $name failed: $(tail -n 2 "$OUT/$name.err" | tr '\n' ' ')" >&2
            return 0
        fi
        read -r t u s r <"$OUT/$name.time"
        t=$(/usr/bin/python3 -c "print(round($t * 1000))")
        c=$(/usr/bin/python3 -c "print(round(($u + $s) * 1000))")
        if [ -z "$best" ] || [ "$t" -lt "$best" ]; then best=$t cpu=$c rss=$r; fi
    done
    echo "$name $best $cpu $rss"
}

{
    run kestrelyn "$BUILD/bin/bench_pdf" --convert "$TIFF" "$OUT/kestrelyn.pdf"
    run img2pdf img2pdf -o "$OUT/img2pdf.pdf" "$TIFF"
    # ImageMagick holds every page at 16 bits per sample; the stock resource
    # policy (1 GiB of pixel cache on disk) may refuse 50 such pages.
    run convert "$CONVERT" "$TIFF" -compress Group4 "$OUT/convert.pdf"
} >"$OUT/results.txt"

/usr/bin/python3 - "$OUT" <<'PY'
import os, subprocess, sys
out = sys.argv[1]
rows = {}
for line in open(os.path.join(out, "results.txt")):
    name, ms, cpu, rss = line.split()
    size = os.path.getsize(os.path.join(out, name + ".pdf"))
    pages = subprocess.run(["pdfinfo", os.path.join(out, name + ".pdf")], capture_output=True,
                           text=True).stdout
    npages = next((l.split()[-1] for l in pages.splitlines() if l.startswith("Pages:")), "?")
    rows[name] = (int(ms), int(cpu), int(rss), size, npages)
ref = rows.get("img2pdf")
print("pdf: 50-page 300-dpi bitonal G4 TIFF to PDF (best of 5 runs by wall time)")
for name, (ms, cpu, rss, size, npages) in rows.items():
    line = (f"pdf: {name:10s} wall {ms:6d} ms  cpu {cpu:6d} ms  peak {rss / 1024:7.1f} MB"
            f"  {size:9d} bytes  {npages} pages")
    if ref:
        line += (f"  wall x{ms / max(ref[0], 1):.2f}  cpu x{cpu / max(ref[1], 1):.2f}"
                 f"  size x{size / ref[3]:.3f} of img2pdf")
    print(line)
PY
