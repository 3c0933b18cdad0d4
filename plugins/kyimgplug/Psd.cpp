// Reader of the composite image of Photoshop (PSD) documents.
#include <algorithm>
#include <cstring>
#include <vector>

#include "Codecs.h"
#include "DecodePixels.h"

namespace kyplug {

BitmapPtr DecodePSD(const Bytes& d) {
    Reader r(d);
    if (r.be32() != 0x38425053u || r.be16() != 1) throw DecodeError("not psd");
    r.skip(6);
    int channels = r.be16();
    int h = int(r.be32()), w = int(r.be32());
    int depth = r.be16(), mode = r.be16();
    if (depth != 1 && depth != 8 && depth != 16) throw DecodeError("depth");
    std::uint32_t cml = r.be32();
    const std::uint8_t* cmap = r.take(cml);
    r.skip(r.be32()); // image resources
    r.skip(r.be32()); // layers and masks
    int comp = r.be16();
    if (comp > 1) throw DecodeError("zip psd");
    if (w <= 0 || h <= 0 || w > 65535 || h > 65535 || channels < 1 || channels > 56)
        throw DecodeError("size");
    std::size_t rowBytes = depth == 1 ? (std::size_t(w) + 7) / 8 : std::size_t(w) * depth / 8;
    int used = std::min(channels, mode == 3                             ? 4
                                  : mode == 4                           ? 5
                                  : mode == 1 || mode == 2 || mode == 0 ? 1
                                                                        : 4);
    // The pixel data must be in the file: raw planes byte for byte, packed
    // ones at the run-length coding's best ratio of 128 to 2.
    const std::size_t need = rowBytes * std::size_t(h) * std::size_t(used);
    if (comp == 0 ? need > r.left() : need / 64 > r.left()) throw DecodeError("short psd");
    std::vector<std::vector<std::uint8_t>> planes(std::size_t(used),
                                                  std::vector<std::uint8_t>(rowBytes * h));
    std::vector<std::uint32_t> counts;
    if (comp == 1)
        for (int i = 0; i < channels * h; ++i)
            counts.push_back(r.be16());
    for (int c = 0; c < used; ++c)
        for (int y = 0; y < h; ++y) {
            std::uint8_t* dst = &planes[std::size_t(c)][rowBytes * y];
            if (comp == 0) {
                std::memcpy(dst, r.take(rowBytes), rowBytes);
                continue;
            }
            Reader q(r.take(counts[std::size_t(c) * h + y]), counts[std::size_t(c) * h + y]);
            std::size_t i = 0;
            while (i < rowBytes && q.left()) {
                int n = std::int8_t(q.u8());
                if (n >= 0) {
                    for (int k = 0; k <= n && i < rowBytes; ++k)
                        dst[i++] = q.u8();
                } else if (n != -128) {
                    std::uint8_t v = q.u8();
                    for (int k = 0; k <= -n && i < rowBytes; ++k)
                        dst[i++] = v;
                }
            }
        }
    auto at = [&](int c, int x, int y) -> int {
        const std::uint8_t* p = &planes[std::size_t(c)][rowBytes * y];
        return depth == 16 ? p[x * 2] : p[x];
    };
    BitmapPtr bm;
    if (mode == 0) {
        // Bitmap mode holds one bit a pixel; any other depth would overrun the rows.
        if (depth != 1) throw DecodeError("depth");
        bm = NewBitmap(kStandard, w, h, 1);
        SetBW(*bm);
        for (int y = 0; y < h; ++y)
            for (std::size_t i = 0; i < rowBytes; ++i)
                bm->row(y)[i] = std::uint8_t(~planes[0][rowBytes * y + i]);
    } else if (mode == 1 || mode == 2) {
        if (depth == 1) throw DecodeError("depth");
        bm = NewBitmap(kStandard, w, h, 8);
        if (mode == 2 && cml >= 768)
            for (int i = 0; i < 256; ++i)
                bm->setColor(i, cmap[i], cmap[256 + i], cmap[512 + i]);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                bm->row(y)[x] = std::uint8_t(at(0, x, y));
    } else if (mode == 3 || mode == 4) {
        if (depth == 1 || used < 3) throw DecodeError("channels");
        bool a = mode == 3 && used == 4;
        bm = NewBitmap(kStandard, w, h, a ? 32 : 24);
        bm->alpha = a;
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                std::uint8_t c[4];
                if (mode == 3) {
                    for (int k = 0; k < 3; ++k)
                        c[k] = std::uint8_t(at(k, x, y));
                    c[3] = a ? std::uint8_t(at(3, x, y)) : 255;
                } else {
                    int k = used > 3 ? at(3, x, y) : 255; // stored inverted
                    for (int j = 0; j < 3; ++j)
                        c[j] = std::uint8_t(at(j, x, y) * k / 255);
                    c[3] = 255;
                }
                SetPixelRGBA(*bm, x, y, c);
            }
    } else {
        throw DecodeError("mode");
    }
    return bm;
}

} // namespace kyplug
