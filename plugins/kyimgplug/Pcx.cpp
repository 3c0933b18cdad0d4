// Reader of ZSoft PCX pictures.
#include <algorithm>
#include <cstring>
#include <vector>

#include "Codecs.h"

namespace kyplug {

BitmapPtr DecodePCX(const Bytes& d) {
    Reader r(d);
    if (r.u8() != 10) throw DecodeError("not pcx");
    int version = r.u8(), enc = r.u8(), bits = r.u8();
    if (version > 5 || enc > 1) throw DecodeError("pcx header");
    int x0 = r.le16(), y0 = r.le16(), x1 = r.le16(), y1 = r.le16();
    int hdpi = r.le16(), vdpi = r.le16();
    const std::uint8_t* egaPal = r.take(48);
    r.u8();
    int planes = r.u8(), bpl = r.le16();
    int w = x1 - x0 + 1, h = y1 - y0 + 1;
    r.seek(128);
    int kind = bits * planes;
    if (!((bits == 1 && (planes == 1 || planes == 4)) ||
          (bits == 8 && (planes == 1 || planes == 3 || planes == 4))))
        throw DecodeError("pcx depth");
    if (bpl < (w * bits + 7) / 8) throw DecodeError("pcx bpl");
    auto bm = NewBitmap(kStandard, w, h,
                        kind == 1    ? 1
                        : kind == 4  ? 4
                        : kind == 8  ? 8
                        : kind == 24 ? 24
                                     : 32);
    bm->alpha = kind == 32;
    if (hdpi > 0) bm->dpmX = int(hdpi / 0.0254 + 0.5);
    if (vdpi > 0) bm->dpmY = int(vdpi / 0.0254 + 0.5);
    std::size_t lineLen = std::size_t(bpl) * planes;
    std::vector<std::uint8_t> line(lineLen);
    for (int y = 0; y < h; ++y) {
        for (std::size_t i = 0; i < lineLen;) {
            std::uint8_t c = r.u8();
            if (enc && (c & 0xC0) == 0xC0) {
                int n = c & 0x3F;
                std::uint8_t v = r.u8();
                while (n-- && i < lineLen)
                    line[i++] = v;
            } else {
                line[i++] = c;
            }
        }
        std::uint8_t* row = bm->row(y);
        if (kind == 1 || kind == 8) {
            std::memcpy(row, line.data(), std::min<std::size_t>(bm->pitch, std::size_t(bpl)));
        } else if (kind == 4) {
            for (int x = 0; x < w; ++x) {
                int v = 0;
                for (int p = 0; p < 4; ++p)
                    v |= ((line[std::size_t(p) * bpl + (x >> 3)] >> (7 - (x & 7))) & 1) << p;
                row[x >> 1] |= std::uint8_t((x & 1) ? v : v << 4);
            }
        } else {
            int n = planes;
            for (int x = 0; x < w; ++x)
                for (int p = 0; p < n; ++p) {
                    int dst = p < 3 ? 2 - p : 3;
                    row[x * n + dst] = line[std::size_t(p) * bpl + x];
                }
        }
    }
    if (kind == 1) {
        bm->setColor(0, 0, 0, 0);
        bm->setColor(1, 255, 255, 255);
    } else if (kind == 4) {
        for (int i = 0; i < 16; ++i)
            bm->setColor(i, egaPal[i * 3], egaPal[i * 3 + 1], egaPal[i * 3 + 2]);
    } else if (kind == 8 && d.size() >= 769 && d[d.size() - 769] == 12) {
        const std::uint8_t* p = d.data() + d.size() - 768;
        for (int i = 0; i < 256; ++i)
            bm->setColor(i, p[i * 3], p[i * 3 + 1], p[i * 3 + 2]);
    }
    return bm;
}

} // namespace kyplug
