// Reader of Sun raster (RAS) pictures.
#include <algorithm>
#include <cstring>
#include <vector>

#include "Codecs.h"
#include "DecodePixels.h"

namespace kyplug {

BitmapPtr DecodeRAS(const Bytes& d) {
    Reader r(d);
    if (r.be32() != 0x59a66a95u) throw DecodeError("not ras");
    int w = int(std::min(r.be32(), 100000u)), h = int(std::min(r.be32(), 100000u));
    int depth = int(r.be32());
    r.be32();
    std::uint32_t type = r.be32(), maptype = r.be32(), maplen = r.be32();
    if (depth != 1 && depth != 8 && depth != 24 && depth != 32) throw DecodeError("depth");
    if (type > 3) throw DecodeError("type");
    auto bm = NewBitmap(kStandard, w, h, depth == 32 ? 24 : depth);
    const std::uint8_t* map = r.take(maplen);
    if (depth == 1) {
        SetBW(*bm);
        bm->setColor(0, 255, 255, 255);
        bm->setColor(1, 0, 0, 0);
    }
    if (maptype == 1 && depth <= 8 && maplen >= 3) {
        int n = int(std::min<std::uint32_t>(maplen / 3, 1u << depth));
        for (int i = 0; i < n; ++i)
            bm->setColor(i, map[i], map[maplen / 3 + i], map[2 * maplen / 3 + i]);
    }
    std::size_t srcPitch = ((std::size_t(w) * depth + 15) / 16) * 2;
    std::vector<std::uint8_t> px(srcPitch * h);
    if (type == 2) {
        std::size_t i = 0;
        while (i < px.size()) {
            std::uint8_t c = r.u8();
            if (c == 0x80) {
                int n = r.u8();
                if (n == 0) {
                    px[i++] = 0x80;
                } else {
                    std::uint8_t v = r.u8();
                    for (int k = 0; k <= n && i < px.size(); ++k)
                        px[i++] = v;
                }
            } else {
                px[i++] = c;
            }
        }
    } else {
        std::memcpy(px.data(), r.take(px.size()), px.size());
    }
    for (int y = 0; y < h; ++y) {
        const std::uint8_t* s = &px[srcPitch * y];
        std::uint8_t* row = bm->row(y);
        if (depth <= 8) {
            std::memcpy(row, s, std::min<std::size_t>(bm->pitch, srcPitch));
        } else {
            int pb = depth / 8;
            for (int x = 0; x < w; ++x) {
                const std::uint8_t* p = s + x * pb + (depth == 32 ? 1 : 0);
                if (type == 3)
                    Put24(*bm, x, y, p[0], p[1], p[2]);
                else
                    Put24(*bm, x, y, p[2], p[1], p[0]);
            }
        }
    }
    return bm;
}

} // namespace kyplug
