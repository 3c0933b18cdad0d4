// Readers of Windows bitmaps (BMP) and icons (ICO); the icon reader
// decodes each image through the bitmap reader's DIB part.
#include <algorithm>
#include <cstring>

#include "Codecs.h"
#include "DecodePixels.h"

namespace kyplug {

BitmapPtr DecodeDIB(Reader& r, bool inIcon) {
    std::size_t start = r.pos;
    std::uint32_t hsize = r.le32();
    if (hsize < 40 || hsize > 256) throw DecodeError("dib header");
    auto w = std::int32_t(r.le32());
    auto h = std::int32_t(r.le32());
    r.le16();
    int bpp = r.le16();
    std::uint32_t comp = r.le32();
    r.le32();
    auto xpm = std::int32_t(r.le32());
    auto ypm = std::int32_t(r.le32());
    std::uint32_t used = r.le32();
    r.le32();
    std::uint32_t masks[3] = {0, 0, 0};
    if (comp == 3) {
        r.seek(start + 40);
        for (auto& m : masks)
            m = r.le32();
    } else if (comp != 0) {
        throw DecodeError("compressed dib");
    }
    bool topDown = h < 0;
    if (inIcon) h /= 2;
    if (h < 0) h = -h;
    r.seek(start + hsize + (comp == 3 && hsize == 40 ? 12 : 0));
    int ncol = bpp <= 8 ? int(used ? std::min<std::uint32_t>(used, 1u << bpp) : 1u << bpp) : 0;
    int outBpp = bpp == 16 ? 24 : (bpp == 32 && comp == 3 ? 32 : bpp);
    auto bm = NewBitmap(kStandard, w, h, outBpp);
    if (xpm > 0) bm->dpmX = xpm;
    if (ypm > 0) bm->dpmY = ypm;
    for (int i = 0; i < ncol; ++i) {
        const std::uint8_t* q = r.take(4);
        bm->setColor(i, q[2], q[1], q[0]);
    }
    unsigned srcPitch = unsigned(((std::uint64_t(w) * bpp + 31) / 32) * 4);
    if (bpp == 16 && comp == 0) masks[0] = 0x7c00, masks[1] = 0x3e0, masks[2] = 0x1f;
    if (bpp == 32 && comp == 0) bm->alpha = false;
    for (int y = 0; y < h; ++y) {
        int ty = topDown ? y : h - 1 - y;
        const std::uint8_t* s = r.take(srcPitch);
        std::uint8_t* d = bm->row(ty);
        if (bpp == 16 || (bpp == 32 && comp == 3)) {
            for (int x = 0; x < w; ++x) {
                std::uint32_t v =
                    bpp == 16 ? std::uint32_t(s[x * 2] | s[x * 2 + 1] << 8)
                              : std::uint32_t(s[x * 4] | s[x * 4 + 1] << 8 | s[x * 4 + 2] << 16 |
                                              std::uint32_t(s[x * 4 + 3]) << 24);
                int c[3];
                for (int k = 0; k < 3; ++k) {
                    std::uint32_t m = masks[k];
                    if (!m) {
                        c[k] = 0;
                        continue;
                    }
                    int sh = 0;
                    while (!((m >> sh) & 1))
                        ++sh;
                    std::uint32_t mm = m >> sh;
                    c[k] = ScaleTo8((v & m) >> sh, mm);
                }
                Put24(*bm, x, ty, c[0], c[1], c[2]);
                if (bm->bpp == 32) d[x * 4 + 3] = 255;
            }
        } else {
            std::memcpy(d, s, std::min(srcPitch, bm->pitch));
        }
    }
    if (bpp == 32 && comp == 0) {
        // Alpha counts only if some pixel uses it.
        bool any = false;
        for (int y = 0; y < h && !any; ++y)
            for (int x = 0; x < w; ++x)
                if (bm->row(y)[x * 4 + 3]) {
                    any = true;
                    break;
                }
        bm->alpha = any;
    }
    if (inIcon && bpp < 32) {
        // AND mask: 1 means transparent; the result is 32-bit with alpha.
        unsigned mp = unsigned(((w + 31) / 32) * 4);
        auto out = ConvertTo32(*bm);
        if (!out) throw DecodeError("memory");
        out->alpha = true;
        for (int y = 0; y < h; ++y) {
            if (r.left() < mp) break;
            const std::uint8_t* m = r.take(mp);
            int ty = topDown ? y : h - 1 - y;
            for (int x = 0; x < w; ++x)
                out->row(ty)[x * 4 + 3] = (m[x >> 3] >> (7 - (x & 7)) & 1) ? 0 : 255;
        }
        return out;
    }
    return bm;
}

BitmapPtr DecodeBMP(const Bytes& d) {
    Reader r(d);
    if (r.u8() != 'B' || r.u8() != 'M') throw DecodeError("not bmp");
    r.skip(8);
    std::uint32_t off = r.le32();
    Reader dib(d);
    dib.seek(14);
    auto bm = DecodeDIB(dib, false);
    (void)off;
    return bm;
}

BitmapPtr DecodeICO(const Bytes& d) {
    Reader r(d);
    if (r.le16() != 0 || r.le16() != 1) throw DecodeError("not ico");
    int n = r.le16();
    if (n <= 0) throw DecodeError("no entries");
    std::size_t best = 0, bestArea = 0, bestSize = 0;
    for (int i = 0; i < n; ++i) {
        const std::uint8_t* e = r.take(16);
        std::size_t w = e[0] ? e[0] : 256, h = e[1] ? e[1] : 256;
        std::uint32_t size = e[8] | e[9] << 8 | e[10] << 16 | std::uint32_t(e[11]) << 24;
        std::uint32_t off = e[12] | e[13] << 8 | e[14] << 16 | std::uint32_t(e[15]) << 24;
        if (w * h > bestArea) bestArea = w * h, best = off, bestSize = size;
    }
    if (best >= d.size() || bestSize > d.size() - best) throw DecodeError("entry");
    if (bestSize >= 8 && d[best] == 0x89 && d[best + 1] == 'P')
        return DecodePNG(d.data() + best, bestSize);
    Reader dib(d.data() + best, bestSize);
    return DecodeDIB(dib, true);
}

} // namespace kyplug
