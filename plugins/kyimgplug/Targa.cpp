// Reader of Truevision Targa (TGA) pictures.
#include <cstring>
#include <vector>

#include "Codecs.h"
#include "DecodePixels.h"

namespace kyplug {

BitmapPtr DecodeTGA(const Bytes& d) {
    Reader r(d);
    int idLen = r.u8(), cmapType = r.u8(), type = r.u8();
    int cmFirst = r.le16(), cmLen = r.le16(), cmBits = r.u8();
    r.le16();
    r.le16();
    int w = r.le16(), h = r.le16(), bpp = r.u8(), desc = r.u8();
    int base = type & 7;
    bool rle = type & 8;
    if (cmapType > 1 || (base != 1 && base != 2 && base != 3) || type > 11)
        throw DecodeError("not tga");
    if (base == 1 && (bpp != 8 || cmapType != 1)) throw DecodeError("cmap");
    if (base == 2 && bpp != 15 && bpp != 16 && bpp != 24 && bpp != 32) throw DecodeError("bpp");
    if (base == 3 && bpp != 8) throw DecodeError("grey bpp");
    r.skip(std::size_t(idLen));
    std::vector<std::uint8_t> cmap;
    if (cmapType == 1) {
        int eb = (cmBits + 7) / 8;
        if (eb < 2 || eb > 4) throw DecodeError("cmap bits");
        const std::uint8_t* c = r.take(std::size_t(cmLen) * eb);
        cmap.assign(c, c + std::size_t(cmLen) * eb);
    }
    int outBpp = base == 2 ? (bpp == 32 ? 32 : 24) : 8;
    int pb = (bpp + 7) / 8;
    // Uncompressed pixels must all be in the file: a shorter one is refused
    // before the bitmap is made.
    if (!rle) r.need(std::size_t(w) * std::size_t(h) * std::size_t(pb));
    auto bm = NewBitmap(kStandard, w, h, outBpp);
    bm->alpha = bpp == 32 && (desc & 15) != 0;
    if (bpp == 32 && !(desc & 15)) bm->alpha = true;
    if (base == 1) {
        int eb = (cmBits + 7) / 8;
        for (int i = 0; i < cmLen && cmFirst + i < 256; ++i) {
            const std::uint8_t* e = &cmap[std::size_t(i) * eb];
            if (eb == 2) {
                int v = e[0] | e[1] << 8;
                bm->setColor(cmFirst + i, ScaleTo8((v >> 10) & 31, 31), ScaleTo8((v >> 5) & 31, 31),
                             ScaleTo8(v & 31, 31));
            } else {
                bm->setColor(cmFirst + i, e[2], e[1], e[0]);
            }
        }
    }
    std::vector<std::uint8_t> px(std::size_t(w) * h * pb);
    std::size_t i = 0;
    while (i < px.size()) {
        if (!rle) {
            const std::uint8_t* s = r.take(px.size());
            std::memcpy(px.data(), s, px.size());
            break;
        }
        int c = r.u8();
        int n = (c & 127) + 1;
        if (i + std::size_t(n) * pb > px.size()) throw DecodeError("rle");
        if (c & 128) {
            const std::uint8_t* s = r.take(std::size_t(pb));
            for (int k = 0; k < n; ++k, i += pb)
                std::memcpy(&px[i], s, std::size_t(pb));
        } else {
            const std::uint8_t* s = r.take(std::size_t(n) * pb);
            std::memcpy(&px[i], s, std::size_t(n) * pb);
            i += std::size_t(n) * pb;
        }
    }
    bool top = desc & 0x20, right = desc & 0x10;
    for (int y = 0; y < h; ++y) {
        int ty = top ? y : h - 1 - y;
        std::uint8_t* row = bm->row(ty);
        for (int x = 0; x < w; ++x) {
            int tx = right ? w - 1 - x : x;
            const std::uint8_t* s = &px[(std::size_t(y) * w + x) * pb];
            if (outBpp == 8) {
                row[tx] = s[0];
            } else if (bpp == 15 || bpp == 16) {
                int v = s[0] | s[1] << 8;
                Put24(*bm, tx, ty, ScaleTo8((v >> 10) & 31, 31), ScaleTo8((v >> 5) & 31, 31),
                      ScaleTo8(v & 31, 31));
            } else {
                std::memcpy(row + tx * pb, s, std::size_t(pb));
            }
        }
    }
    return bm;
}

} // namespace kyplug
