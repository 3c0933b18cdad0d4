// Reader of IFF pictures: ILBM and PBM forms (LBM).
#include <algorithm>
#include <vector>

#include "Codecs.h"
#include "DecodePixels.h"

namespace kyplug {

BitmapPtr DecodeLBM(const Bytes& d) {
    Reader r(d);
    if (r.be32() != 0x464f524du) throw DecodeError("not iff");
    std::size_t end = std::min<std::size_t>(d.size(), std::size_t(r.be32()) + 8);
    std::uint32_t kind = r.be32();
    bool pbm = kind == 0x50424d20u;
    if (kind != 0x494c424du && !pbm) throw DecodeError("not ilbm");
    int w = 0, h = 0, planes = 0, mask = 0, comp = 0;
    bool haveHeader = false;
    std::vector<std::uint8_t> cmap;
    while (r.pos + 8 <= end) {
        std::uint32_t id = r.be32(), len = r.be32();
        std::size_t next = r.pos + len + (len & 1);
        if (id == 0x424d4844u) { // BMHD
            w = r.be16();
            h = r.be16();
            r.skip(4);
            planes = r.u8();
            mask = r.u8();
            comp = r.u8();
            haveHeader = true;
        } else if (id == 0x434d4150u) { // CMAP
            const std::uint8_t* c = r.take(len);
            cmap.assign(c, c + len);
        } else if (id == 0x424f4459u) { // BODY
            if (!haveHeader || (planes != 24 && (planes < 1 || planes > 8)) || comp > 1)
                throw DecodeError("ilbm header");
            Reader body(d.data() + r.pos, std::min<std::size_t>(len, d.size() - r.pos));
            int rowBytes = pbm ? (w + 1) & ~1 : ((w + 15) / 16) * 2;
            int nPlanes = pbm ? 1 : planes + (mask == 1 ? 1 : 0);
            auto bm = NewBitmap(kStandard, w, h, planes == 24 ? 24 : 8);
            int ncol = int(cmap.size() / 3);
            // A 24-plane picture has no palette for the CMAP to fill.
            for (int i = 0; i < std::min(ncol, bm->colors()); ++i)
                bm->setColor(i, cmap[i * 3], cmap[i * 3 + 1], cmap[i * 3 + 2]);
            std::vector<std::uint8_t> line(std::size_t(rowBytes) * nPlanes);
            for (int y = 0; y < h; ++y) {
                std::size_t i = 0;
                while (i < line.size()) {
                    if (comp == 0) {
                        line[i++] = body.u8();
                        continue;
                    }
                    int n = std::int8_t(body.u8());
                    if (n >= 0) {
                        for (int k = 0; k <= n && i < line.size(); ++k)
                            line[i++] = body.u8();
                    } else if (n != -128) {
                        std::uint8_t v = body.u8();
                        for (int k = 0; k <= -n && i < line.size(); ++k)
                            line[i++] = v;
                    }
                }
                std::uint8_t* row = bm->row(y);
                for (int x = 0; x < w; ++x) {
                    if (pbm) {
                        row[x] = line[std::size_t(x)];
                        continue;
                    }
                    std::uint32_t v = 0;
                    for (int p = 0; p < planes; ++p)
                        v |= std::uint32_t(
                                 (line[std::size_t(p) * rowBytes + (x >> 3)] >> (7 - (x & 7))) & 1)
                             << p;
                    if (planes == 24)
                        Put24(*bm, x, y, int(v & 255), int((v >> 8) & 255), int(v >> 16));
                    else
                        row[x] = std::uint8_t(v);
                }
            }
            return bm;
        }
        r.seek(std::min(next, end));
    }
    throw DecodeError("no body");
}

} // namespace kyplug
