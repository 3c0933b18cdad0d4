// Reader of DirectDraw surfaces (DDS).
#include <algorithm>

#include "Codecs.h"
#include "DecodePixels.h"

namespace kyplug {

namespace {
void Rgb565(unsigned v, int c[3]) {
    c[0] = ScaleTo8((v >> 11) & 31, 31);
    c[1] = ScaleTo8((v >> 5) & 63, 63);
    c[2] = ScaleTo8(v & 31, 31);
}
} // namespace

BitmapPtr DecodeDDS(const Bytes& d) {
    Reader r(d);
    if (r.le32() != 0x20534444u || r.le32() != 124) throw DecodeError("not dds");
    r.le32();
    int h = int(r.le32()), w = int(r.le32());
    r.seek(76 + 4);
    std::uint32_t pflags = r.le32(), fourcc = r.le32(), rgbBits = r.le32();
    std::uint32_t masks[4] = {r.le32(), r.le32(), r.le32(), r.le32()};
    r.seek(128);
    auto bm = NewBitmap(kStandard, w, h, 32);
    bm->alpha = true;
    if (pflags & 4) {
        int kind = fourcc == 0x31545844u   ? 1
                   : fourcc == 0x33545844u ? 3
                   : fourcc == 0x35545844u ? 5
                                           : 0;
        if (!kind) throw DecodeError("fourcc");
        for (int by = 0; by < (h + 3) / 4; ++by)
            for (int bx = 0; bx < (w + 3) / 4; ++bx) {
                std::uint8_t alpha[16];
                std::fill(alpha, alpha + 16, 255);
                if (kind == 3) {
                    const std::uint8_t* a = r.take(8);
                    for (int i = 0; i < 16; ++i)
                        alpha[i] = std::uint8_t(((a[i / 2] >> ((i & 1) * 4)) & 15) * 17);
                } else if (kind == 5) {
                    const std::uint8_t* a = r.take(8);
                    int a0 = a[0], a1 = a[1];
                    int lut[8] = {a0, a1};
                    for (int i = 2; i < 8; ++i)
                        lut[i] = a0 > a1 ? ((8 - i) * a0 + (i - 1) * a1) / 7
                                         : (i < 6 ? ((6 - i) * a0 + (i - 1) * a1) / 5
                                                  : (i == 6 ? 0 : 255));
                    std::uint64_t bitsA = 0;
                    for (int i = 0; i < 6; ++i)
                        bitsA |= std::uint64_t(a[2 + i]) << (8 * i);
                    for (int i = 0; i < 16; ++i)
                        alpha[i] = std::uint8_t(lut[(bitsA >> (3 * i)) & 7]);
                }
                const std::uint8_t* b = r.take(8);
                unsigned c0 = b[0] | b[1] << 8, c1 = b[2] | b[3] << 8;
                int col[4][4];
                Rgb565(c0, col[0]);
                Rgb565(c1, col[1]);
                bool four = kind != 1 || c0 > c1;
                for (int k = 0; k < 3; ++k) {
                    if (four) {
                        col[2][k] = (2 * col[0][k] + col[1][k]) / 3;
                        col[3][k] = (col[0][k] + 2 * col[1][k]) / 3;
                    } else {
                        col[2][k] = (col[0][k] + col[1][k]) / 2;
                        col[3][k] = 0;
                    }
                }
                for (int i = 0; i < 16; ++i) {
                    int x = bx * 4 + (i & 3), y = by * 4 + i / 4;
                    if (x >= w || y >= h) continue;
                    int idx = (b[4 + i / 4] >> ((i & 3) * 2)) & 3;
                    std::uint8_t px[4] = {std::uint8_t(col[idx][0]), std::uint8_t(col[idx][1]),
                                          std::uint8_t(col[idx][2]),
                                          std::uint8_t(!four && idx == 3 ? 0 : alpha[i])};
                    SetPixelRGBA(*bm, x, y, px);
                }
            }
        return bm;
    }
    if (!(pflags & 0x40) || (rgbBits != 24 && rgbBits != 32)) throw DecodeError("dds format");
    bool hasA = (pflags & 1) && masks[3];
    int pb = int(rgbBits / 8);
    for (int y = 0; y < h; ++y) {
        const std::uint8_t* s = r.take(std::size_t(w) * pb);
        for (int x = 0; x < w; ++x) {
            std::uint32_t v = 0;
            for (int k = 0; k < pb; ++k)
                v |= std::uint32_t(s[x * pb + k]) << (8 * k);
            std::uint8_t px[4];
            for (int k = 0; k < 4; ++k) {
                std::uint32_t m = masks[k];
                if (!m || (k == 3 && !hasA)) {
                    px[k] = 255;
                    continue;
                }
                int sh = 0;
                while (!((m >> sh) & 1))
                    ++sh;
                px[k] = std::uint8_t(ScaleTo8((v & m) >> sh, m >> sh));
            }
            SetPixelRGBA(*bm, x, y, px);
        }
    }
    bm->alpha = hasA;
    return bm;
}

} // namespace kyplug
