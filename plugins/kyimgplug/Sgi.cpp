// Reader of Silicon Graphics (SGI) images.
#include <vector>

#include "Codecs.h"

namespace kyplug {

BitmapPtr DecodeSGI(const Bytes& d) {
    Reader r(d);
    if (r.be16() != 474) throw DecodeError("not sgi");
    int storage = r.u8(), bpc = r.u8();
    r.be16();
    int w = r.be16(), h = r.be16(), z = r.be16();
    if ((bpc != 1 && bpc != 2) || storage > 1 || z < 1) throw DecodeError("sgi");
    if (z > 4) z = 4;
    auto bm = NewBitmap(kStandard, w, h, z == 1 ? 8 : z == 2 || z == 4 ? 32 : 24);
    bm->alpha = z == 2 || z == 4;
    std::vector<std::uint32_t> starts, lens;
    if (storage == 1) {
        r.seek(512);
        std::size_t tl = std::size_t(h) * z;
        for (std::size_t i = 0; i < tl; ++i)
            starts.push_back(r.be32());
        for (std::size_t i = 0; i < tl; ++i)
            lens.push_back(r.be32());
    }
    std::vector<unsigned> line(static_cast<std::size_t>(w));
    for (int c = 0; c < z; ++c)
        for (int y = 0; y < h; ++y) {
            if (storage == 0) {
                Reader q(d);
                q.seek(512 + (std::size_t(c) * h + y) * std::size_t(w) * bpc);
                for (int x = 0; x < w; ++x)
                    line[std::size_t(x)] = bpc == 1 ? q.u8() : q.be16() >> 8;
            } else {
                Reader q(d);
                q.seek(starts[std::size_t(c) * h + y]);
                int x = 0;
                while (true) {
                    unsigned cnt = bpc == 1 ? q.u8() : q.be16();
                    int n = int(cnt & 0x7f);
                    if (!n) break;
                    if (x + n > w) throw DecodeError("rle");
                    if (cnt & 0x80) {
                        while (n--)
                            line[std::size_t(x++)] = bpc == 1 ? q.u8() : q.be16() >> 8;
                    } else {
                        unsigned v = bpc == 1 ? q.u8() : q.be16() >> 8;
                        while (n--)
                            line[std::size_t(x++)] = v;
                    }
                }
            }
            std::uint8_t* row = bm->row(h - 1 - y);
            int stride = bm->bpp / 8;
            int dst = z == 1 ? 0 : (z == 2 ? (c == 0 ? -1 : 3) : (c < 3 ? 2 - c : 3));
            for (int x = 0; x < w; ++x) {
                auto v = std::uint8_t(line[std::size_t(x)]);
                if (dst < 0) {
                    row[x * stride] = row[x * stride + 1] = row[x * stride + 2] = v;
                } else {
                    row[x * stride + dst] = v;
                }
            }
        }
    return bm;
}

} // namespace kyplug
