#!/usr/bin/env bash
# Generates the seed inputs of the fuzz targets into fuzz/seeds/<target>/
# (or the directory given as $1) with ImageMagick and Python PIL; the formats
# neither writes are assembled byte by byte in Python. Every seed is small.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
out=${1:-$here/seeds}
IM=/usr/bin/convert
PY="/usr/bin/python3 -W ignore"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

mk() { mkdir -p "$out/$1"; }
# conv <target> <file name> <convert arguments...> <FORMAT:>: runs convert with
# the output format prefix joined to the seed's path; keeps going when one
# variant is not supported by the installed ImageMagick.
conv() {
    local target=$1 name=$2
    shift 2
    local fmt=${*: -1}
    mk "$target"
    "$IM" "${@:1:$#-1}" "$fmt$out/$target/$name" 2>/dev/null || echo "seed skipped: $target/$name" >&2
}

# A small colourful picture and a small two-level one as sources.
"$IM" -size 13x9 gradient:red-blue -fill green -draw 'rectangle 3,2 8,6' "$tmp/rgb.png"
"$IM" -size 11x7 xc:white -fill black -draw 'line 0,0 10,6' "$tmp/bw.png"
"$IM" "$tmp/rgb.png" -alpha set -channel A -fx 'i/w' "$tmp/rgba.png"
src=$tmp/rgb.png

# ---------------------------------------------------------------- BMP
conv engine_bmp rgb24.bmp "$src" -type truecolor BMP3:
conv engine_bmp pal8.bmp "$src" -colors 200 -type palette BMP3:
conv engine_bmp pal4.bmp "$src" -colors 12 -type palette -depth 4 BMP3:
conv engine_bmp bw1.bmp "$tmp/bw.png" -type bilevel BMP3:
conv engine_bmp rle8.bmp "$src" -colors 200 -type palette -compress RLE BMP3:
conv engine_bmp argb32.bmp "$tmp/rgba.png" -type truecoloralpha BMP:
conv engine_bmp rgb565.bmp "$src" -define bmp:subtype=RGB565 BMP:
conv engine_bmp v2.bmp "$src" -type truecolor BMP2:
$PY - "$out/engine_bmp" <<'PYEOF'
import struct, sys
d = sys.argv[1]
# 4-bit RLE, top-down 16-bit bitfields, OS/2 core header
w, h = 6, 3
rle = bytes([4, 0x12, 2, 0xff, 0, 0, 0, 4, 0x34, 0x56, 2, 0x77, 0, 0, 6, 0x21, 0, 1])
pal = b''.join(struct.pack('<BBBB', i * 16, 255 - i * 16, i * 8, 0) for i in range(16))
hdr = struct.pack('<IiiHHIIiiII', 40, w, h, 1, 4, 2, len(rle), 2835, 2835, 16, 0)
off = 14 + len(hdr) + len(pal)
open(d + '/rle4.bmp', 'wb').write(b'BM' + struct.pack('<IHHI', off + len(rle), 0, 0, off) + hdr + pal + rle)
w, h = 3, -2
px = b''.join(struct.pack('<H', v) for v in (0xf800, 0x07e0, 0x001f, 0)) * 2
masks = struct.pack('<III', 0xf800, 0x07e0, 0x001f)
hdr = struct.pack('<IiiHHIIiiII', 40, w, h, 1, 16, 3, len(px), 0, 0, 0, 0)
off = 14 + len(hdr) + len(masks)
open(d + '/bitfields_topdown.bmp', 'wb').write(b'BM' + struct.pack('<IHHI', off + len(px), 0, 0, off) + hdr + masks + px)
hdr = struct.pack('<IHHHH', 12, 2, 2, 1, 8)
pal = bytes([0, 0, 0, 255, 255, 255]) + bytes(3 * 254)
px = bytes([0, 1, 0, 0, 1, 0, 0, 0])
off = 14 + len(hdr) + len(pal)
open(d + '/os2.bmp', 'wb').write(b'BM' + struct.pack('<IHHI', off + len(px), 0, 0, off) + hdr + pal + px)
PYEOF

# ---------------------------------------------------------------- ICO
mk engine_ico
$PY - "$tmp/rgba.png" "$out/engine_ico" <<'PYEOF'
import sys
from PIL import Image
im = Image.open(sys.argv[1]).convert('RGBA').resize((16, 16))
im.save(sys.argv[2] + '/multi.ico', sizes=[(16, 16), (8, 8)])
im.resize((4, 4)).save(sys.argv[2] + '/bmp4.ico', format='ICO', sizes=[(4, 4)], bitmap_format='bmp')
PYEOF
conv engine_ico pal.ico "$src" -resize 16x16! -colors 16 -type palette ICO:

# ---------------------------------------------------------------- JPEG
conv engine_jpeg base.jpg "$src" -quality 80 JPEG:
conv engine_jpeg grey.jpg "$src" -colorspace gray -quality 70 JPEG:
conv engine_jpeg prog.jpg "$src" -interlace plane JPEG:
conv engine_jpeg cmyk.jpg "$src" -colorspace cmyk JPEG:
conv engine_jpeg sub420.jpg "$src" -sampling-factor 2x2 -density 150 -units PixelsPerInch JPEG:
mk engine_jpeg
$PY - "$src" "$out/engine_jpeg" <<'PYEOF'
import sys
from PIL import Image
im = Image.open(sys.argv[1]).convert('RGB')
ex = Image.Exif()
ex[0x0112] = 6          # orientation
ex[0x010f] = 'Kestrel'  # make
ex[0x011a] = (300, 1)   # x resolution
im.save(sys.argv[2] + '/exif.jpg', exif=ex, quality=60)
im.save(sys.argv[2] + '/restart.jpg', quality=50, optimize=True)
PYEOF

# ---------------------------------------------------------------- PNG
conv engine_png rgb.png "$src" PNG24:
conv engine_png rgba.png "$tmp/rgba.png" PNG32:
conv engine_png pal.png "$src" -colors 20 PNG8:
conv engine_png grey16.png "$src" -colorspace gray -depth 16 PNG:
conv engine_png interlaced.png "$src" -interlace PNG PNG24:
conv engine_png rgb48.png "$src" -depth 16 PNG48:
conv engine_png bw.png "$tmp/bw.png" -type bilevel PNG:
mk engine_png
$PY - "$tmp/rgba.png" "$out/engine_png" <<'PYEOF'
import sys
from PIL import Image
im = Image.open(sys.argv[1])
p = im.convert('RGB').quantize(8)
p.info['transparency'] = 2
p.save(sys.argv[2] + '/trns.png', transparency=2, dpi=(96, 96))
im.convert('LA').save(sys.argv[2] + '/greyalpha.png')
PYEOF

# ---------------------------------------------------------------- GIF
conv engine_gif still.gif "$src" GIF:
conv engine_gif interlaced.gif "$src" -interlace GIF GIF:
conv engine_gif anim.gif -delay 10 "$src" \( "$src" -negate \) \( "$src" -flop -crop 6x5+2+2 \) -loop 0 GIF:
conv engine_gif gif87.gif "$tmp/bw.png" GIF87:
mk engine_gif
$PY - "$tmp/rgba.png" "$out/engine_gif" <<'PYEOF'
import sys
from PIL import Image
im = Image.open(sys.argv[1])
frames = [im.convert('RGB').quantize(16), im.rotate(90, expand=True).convert('RGB').quantize(4)]
frames[0].save(sys.argv[2] + '/trans_anim.gif', save_all=True, append_images=frames[1:],
               transparency=0, duration=[30, 40], disposal=2, loop=3)
PYEOF

# ---------------------------------------------------------------- TIFF
conv engine_tiff lzw.tif "$src" -compress lzw TIFF:
conv engine_tiff packbits_be.tif "$src" -endian MSB -compress rle TIFF:
conv engine_tiff g4.tif "$tmp/bw.png" -type bilevel -compress group4 TIFF:
conv engine_tiff g3.tif "$tmp/bw.png" -type bilevel -compress fax TIFF:
conv engine_tiff pal.tif "$src" -colors 16 -type palette TIFF:
conv engine_tiff grey16.tif "$src" -colorspace gray -depth 16 TIFF:
conv engine_tiff rgba_zip.tif "$tmp/rgba.png" -compress zip TIFF:
conv engine_tiff tiled.tif "$src" -define tiff:tile-geometry=16x16 TIFF:
conv engine_tiff jpeg.tif "$src" -compress jpeg TIFF:
conv engine_tiff cmyk.tif "$src" -colorspace cmyk TIFF:
conv engine_tiff pages.tif "$src" \( "$tmp/bw.png" -type bilevel \) \( "$src" -colors 4 \) TIFF:
conv engine_tiff planar.tif "$src" -interlace plane TIFF:

# ---------------------------------------------------------------- plug-in
# The formats both sides read share their seeds.
for f in bmp ico jpeg png gif tiff; do
    mk "plug_$f"
    cp "$out/engine_$f"/* "$out/plug_$f/"
done
conv plug_pnm p1.pbm "$tmp/bw.png" -compress none PBM:
conv plug_pnm p4.pbm "$tmp/bw.png" PBM:
conv plug_pnm p2.pgm "$src" -compress none PGM:
conv plug_pnm p5.pgm "$src" PGM:
conv plug_pnm p5_16.pgm "$src" -depth 16 PGM:
conv plug_pnm p3.ppm "$src" -compress none PPM:
conv plug_pnm p6.ppm "$src" PPM:
conv plug_pfm rgb.pfm "$src" PFM:
conv plug_pfm grey.pfm "$src" -colorspace gray PFM:
conv plug_hdr rle.hdr "$src" HDR:
conv plug_pcx rgb.pcx "$src" PCX:
conv plug_pcx pal.pcx "$src" -colors 16 -type palette PCX:
conv plug_pcx bw.pcx "$tmp/bw.png" -type bilevel PCX:
conv plug_ras rgb.ras "$src" SUN:
conv plug_ras pal.ras "$src" -colors 16 -type palette SUN:
conv plug_ras bw.ras "$tmp/bw.png" -type bilevel SUN:
conv plug_targa rgb.tga "$src" TGA:
conv plug_targa rle.tga "$src" -compress rle TGA:
conv plug_targa pal.tga "$src" -colors 16 -type palette TGA:
conv plug_targa rgba.tga "$tmp/rgba.png" TGA:
conv plug_wbmp bw.wbmp "$tmp/bw.png" WBMP:
conv plug_psd rgb.psd "$src" PSD:
conv plug_psd rgba.psd "$tmp/rgba.png" PSD:
conv plug_psd grey.psd "$src" -colorspace gray PSD:
conv plug_psd pal.psd "$src" -colors 8 -type palette PSD:
conv plug_xbm bw.xbm "$tmp/bw.png" XBM:
conv plug_xpm pal.xpm "$src" -colors 12 XPM:
conv plug_xpm trans.xpm "$tmp/rgba.png" -colors 12 XPM:
conv plug_dds dxt1.dds "$src" -resize 8x8! -define dds:compression=dxt1 -define dds:mipmaps=0 DDS:
conv plug_dds dxt5.dds "$tmp/rgba.png" -resize 8x8! -define dds:compression=dxt5 -define dds:mipmaps=0 DDS:
conv plug_dds raw.dds "$tmp/rgba.png" -resize 8x4! -define dds:compression=none -define dds:mipmaps=0 DDS:
conv plug_sgi rgb.sgi "$src" SGI:
conv plug_sgi rle.sgi "$src" -compress rle SGI:
conv plug_sgi grey.sgi "$src" -colorspace gray SGI:
conv plug_faxg3 bw.g3 "$tmp/bw.png" -type bilevel G3:
conv plug_j2k rgb.j2k "$src" J2K:
conv plug_j2k grey.j2k "$src" -colorspace gray J2K:
conv plug_jp2 rgb.jp2 "$src" JP2:
conv plug_jp2 rgba.jp2 "$tmp/rgba.png" JP2:
conv plug_jbig bw.jbg "$tmp/bw.png" -type bilevel JBIG:
conv plug_mng two.mng "$src" \( "$src" -negate \) MNG:
conv plug_jng rgb.jng "$src" JNG:
conv plug_jng rgba.jng "$tmp/rgba.png" JNG:
mk plug_exr
mk plug_lbm
mk plug_cut
mk plug_koala
mk plug_pcd
mk plug_raw
$PY - "$out" <<'PYEOF'
import struct, sys, zlib
out = sys.argv[1]

def chunk(cid, data):
    return cid + struct.pack('>I', len(data)) + data + (b'\0' if len(data) & 1 else b'')

# ILBM: 3 planes, uncompressed and ByteRun1; PBM (chunky) variant.
def ilbm(kind, w, h, planes, comp, body, cmap):
    bmhd = struct.pack('>HHhhBBBBHBBhh', w, h, 0, 0, planes, 0, comp, 0, 0, 10, 11, w, h)
    form = kind + chunk(b'BMHD', bmhd) + chunk(b'CMAP', cmap) + chunk(b'BODY', body)
    return b'FORM' + struct.pack('>I', len(form)) + form
cmap = bytes(i * 30 % 256 for i in range(24))
w, h = 10, 3
raw = bytes((y * 7 + p * 3 + x * 5) & 0xff for y in range(h) for p in range(3) for x in range(2))
open(out + '/plug_lbm/planes.lbm', 'wb').write(ilbm(b'ILBM', w, h, 3, 0, raw, cmap))
rle = b''
for y in range(h):
    for p in range(3):
        rle += bytes([0xff, (y + p) * 17 & 0xff])   # repeat 2
open(out + '/plug_lbm/byterun.lbm', 'wb').write(ilbm(b'ILBM', w, h, 3, 1, rle, cmap))
chunky = bytes((x + y) & 7 for y in range(h) for x in range(w))
open(out + '/plug_lbm/chunky.lbm', 'wb').write(ilbm(b'PBM ', w, h, 8, 0, chunky, cmap))

# Dr. Halo CUT: per line runs (bit 7: repeat), a zero, then the next line's count.
w, h = 8, 3
lines = [bytes([0x84, 5, 0x04, 1, 2, 3, 4, 0]), bytes([0x88, 9, 0]), bytes([0x02, 7, 8, 0x86, 2, 0])]
cut = struct.pack('<HHH', w, h, 0)
for i, ln in enumerate(lines):
    cut += ln
    if i + 1 < h:
        cut += struct.pack('<H', len(lines[i + 1]))
open(out + '/plug_cut/runs.cut', 'wb').write(cut)

# Commodore Koala: load address, 8000 bitmap, 1000 screen, 1000 colour, background.
koala = b'\x00\x60' + bytes((i * 37) & 0xff for i in range(8000)) + \
        bytes((i * 11) & 0xff for i in range(1000)) + bytes(i & 15 for i in range(1000)) + b'\x06'
open(out + '/plug_koala/pic.koa', 'wb').write(koala)

# OpenEXR: uncompressed and ZIP scan lines, R,G,B as half and float.
def attr(name, typ, data):
    return name + b'\0' + typ + b'\0' + struct.pack('<i', len(data)) + data
def exr(w, h, ptype, compression, alpha=False):
    size = 2 if ptype == 1 else 4
    names = [b'A', b'B', b'G', b'R'] if alpha else [b'B', b'G', b'R']
    chl = b''.join(n + b'\0' + struct.pack('<iBBBBii', ptype, 0, 0, 0, 0, 1, 1) for n in names) + b'\0'
    box = struct.pack('<iiii', 0, 0, w - 1, h - 1)
    hdr = (attr(b'channels', b'chlist', chl) + attr(b'compression', b'compression', bytes([compression])) +
           attr(b'dataWindow', b'box2i', box) + attr(b'displayWindow', b'box2i', box) +
           attr(b'lineOrder', b'lineOrder', b'\0') + attr(b'pixelAspectRatio', b'float', struct.pack('<f', 1)) +
           attr(b'screenWindowCenter', b'v2f', struct.pack('<ff', 0, 0)) +
           attr(b'screenWindowWidth', b'float', struct.pack('<f', 1)) + b'\0')
    head = struct.pack('<ii', 20000630, 2) + hdr
    lpb = 16 if compression == 3 else 1
    blocks = []
    for y0 in range(0, h, lpb):
        data = b''
        for y in range(y0, min(h, y0 + lpb)):
            for c in range(len(names)):
                for x in range(w):
                    v = ((x + y + c) % 4) / 4.0
                    data += struct.pack('<e', v) if ptype == 1 else struct.pack('<f', v)
        if compression == 3:
            # predictor and interleave as the format's ZIP scheme defines them
            t = bytearray(len(data))
            t[0::1][:(len(data) + 1) // 2] = data[0::2]
            t[(len(data) + 1) // 2:] = data[1::2]
            p = t[0]
            for i in range(1, len(t)):
                d = (t[i] - p + 128 + 256) & 0xff
                p = t[i]
                t[i] = d
            data = zlib.compress(bytes(t))
        blocks.append(struct.pack('<ii', y0, len(data)) + data)
    table_end = len(head) + 8 * len(blocks)
    offs, pos = [], table_end
    for b in blocks:
        offs.append(pos)
        pos += len(b)
    return head + b''.join(struct.pack('<Q', o) for o in offs) + b''.join(blocks)
open(out + '/plug_exr/half.exr', 'wb').write(exr(5, 3, 1, 0))
open(out + '/plug_exr/float_alpha.exr', 'wb').write(exr(4, 2, 2, 0, alpha=True))
open(out + '/plug_exr/zip.exr', 'wb').write(exr(6, 4, 1, 3))

# Photo CD: only the header sectors; the reader refuses anything shorter
# than the base image, which the fuzz inputs never reach.
pcd = bytearray(0x0e10)
pcd[0x800:0x807] = b'PCD_IPI'
open(out + '/plug_pcd/header.pcd', 'wb').write(bytes(pcd))
PYEOF
$PY - "$out/plug_raw" <<'PYEOF'
import sys
from PIL import Image, TiffImagePlugin
# A tiny DNG-like file: a 16-bit CFA picture with the DNG tags.
im = Image.new('I;16', (8, 8))
im.putdata([(x * 4000 + y * 300) & 0xffff for y in range(8) for x in range(8)])
info = TiffImagePlugin.ImageFileDirectory_v2()
info[50706] = bytes([1, 4, 0, 0])          # DNGVersion
info.tagtype[50706] = 1
info[50708] = 'Kestrel Test'                # UniqueCameraModel
info[33421] = (2, 2)                        # CFARepeatPatternDim
info[33422] = bytes([0, 1, 1, 2])           # CFAPattern
info.tagtype[33422] = 1
info[271] = 'Kestrel'
info[272] = 'Test'
im.save(sys.argv[1] + '/cfa.dng', format='TIFF', tiffinfo=info)
PYEOF

# Nothing above 64 KiB is useful to a -max_len=65536 run.
find "$out" -type f -size +64k -print -delete >&2
echo "seeds in $out: $(find "$out" -type f | wc -l) files in $(find "$out" -mindepth 1 -type d | wc -l) directories"
