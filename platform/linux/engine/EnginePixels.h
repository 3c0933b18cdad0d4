// Pixel formats of the engine: facts about each code, the row stride rule,
// default palettes, and the conversion of pixel rectangles between formats.
//
// Conversion rules (fixed for the whole engine):
// - 8-bit to 16-bit channels: v * 257. 16-bit to 8-bit: round(v / 257),
//   computed as (v * 255 + 32895) >> 16, so 8 -> 16 -> 8 is lossless.
// - Premultiplied formats: c' = round(c * a / 255) (exact rounding, ties up);
//   back: c = a ? min(255, (c' * 255 + a / 2) / a) : 0. 64-bit premultiplied
//   uses the same rules with 65535.
// - 16bpp grey holds 16-bit luma: (77 R + 150 G + 29 B + 128) >> 8 on the
//   channels (grey input stays exact); read back as R = G = B.
// - 555 / 565 / 1555 expand with bit replication; 1555 alpha is a >= 128.
// - Alpha-less formats read as opaque; writing them drops alpha (no blend).
// - Writing an indexed format maps each colour to the nearest palette entry
//   (minimum squared RGB distance; the lowest index wins a tie). Copies
//   between two rectangles of the same indexed format copy indices.
// - 1bpp: most significant bit is the leftmost pixel; 4bpp: high nibble.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/modGdiPlus.h"

namespace kestrelyn::engine {

// Bits per pixel of one of the 14 formats, 0 for anything else.
INT FormatBits(PixelFormat format);
bool IsValidFormat(PixelFormat format);
// Row stride of the stride rule for a width (0 if the width is below 1 or
// the format is unknown).
INT StrideFor(INT width, PixelFormat format);

// Default palette of a new indexed bitmap: 1bpp black, white; 4bpp the 16
// standard VGA colours; 8bpp those 16, a 6x6x6 colour cube (levels 0, 51, ..
// 255) and 24 evenly spread greys (10, 20, .. 240 without 0 and 255 repeats).
std::vector<ARGB> DefaultPalette(PixelFormat format);
UINT DefaultPaletteFlags(PixelFormat format);

// A rectangle of pixels in memory. `x0` is the first pixel's column in the
// row (needed by the sub-byte formats; bytes are addressed from `scan0`).
struct PixelView {
    std::uint8_t* scan0 = nullptr;
    std::ptrdiff_t stride = 0;
    PixelFormat format = 0;
    INT x0 = 0;
    const ARGB* palette = nullptr; // for indexed formats
    UINT paletteCount = 0;
};

// Converts `width` x `height` pixels from `src` into `dst`. Both views must
// be valid for that size. Returns InvalidParameter for an unknown format.
GpStatus ConvertPixels(const PixelView& src, const PixelView& dst, INT width, INT height);

// One pixel of a row as ARGB, and one ARGB written into a row (nearest
// palette entry for indexed formats).
ARGB ReadPixel(const PixelView& view, INT x, INT y);
void WritePixel(const PixelView& view, INT x, INT y, ARGB color);

// Index of the palette entry nearest to `color` by squared RGB distance.
UINT NearestPaletteIndex(const ARGB* palette, UINT count, ARGB color);

} // namespace kestrelyn::engine

namespace kestrelyn::engine {
// Writes `src` (srcWidth x srcHeight) rotated clockwise by 90 * (type & 3)
// degrees and then, when bit 2 of `type` is set, mirrored left to right,
// into `dst` (which has the swapped size for odd rotations). Both views have
// the same format; sub-byte formats are moved pixel by pixel.
void RotateFlipPixels(const PixelView& src, INT srcWidth, INT srcHeight, const PixelView& dst,
                      INT type);
} // namespace kestrelyn::engine
