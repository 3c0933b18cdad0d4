// Pixel setters shared by the readers of our own formats.
#pragma once
#include <cstdint>

#include "Bitmap.h"

namespace kyplug {

inline void Put24(Bitmap& bm, int x, int y, int r, int g, int b) {
    std::uint8_t* p = bm.row(y) + x * (bm.bpp / 8);
    p[0] = std::uint8_t(b);
    p[1] = std::uint8_t(g);
    p[2] = std::uint8_t(r);
}

inline void PutRGBF(Bitmap& bm, int x, int y, float r, float g, float b) {
    auto* p = reinterpret_cast<float*>(bm.row(y)) + x * 3;
    p[0] = r;
    p[1] = g;
    p[2] = b;
}

// Black-then-white palette for 1-bit pictures; writes bit x of row y as
// "white" (1) or "black" (0).
inline void SetBW(Bitmap& bm) {
    bm.setColor(0, 0, 0, 0);
    bm.setColor(1, 255, 255, 255);
}
inline void PutBit(Bitmap& bm, int x, int y, bool white) {
    std::uint8_t* r = bm.row(y);
    if (white)
        r[x >> 3] |= std::uint8_t(0x80 >> (x & 7));
    else
        r[x >> 3] &= std::uint8_t(~(0x80 >> (x & 7)));
}

inline int ScaleTo8(unsigned v, unsigned maxv) {
    return maxv ? int((v * 255u + maxv / 2) / maxv) : 0;
}

} // namespace kyplug
