// Reader of QuickDraw PICT pictures.
#include <cstring>
#include <vector>

#include "Codecs.h"
#include "DecodePixels.h"

namespace kyplug {

// Version 2 pictures holding one pixel map: PackBitsRect (indexed, 1-8 bits)
// or DirectBitsRect (16 or 32 bits). Drawing opcodes are not interpreted; a
// picture that needs them is refused.
namespace {
std::vector<std::uint8_t> PictRow(Reader& r, unsigned rowBytes, int packType, bool words) {
    std::vector<std::uint8_t> out(rowBytes, 0);
    if (rowBytes < 8 || packType == 1 || packType == 2) {
        std::size_t n = packType == 2 ? rowBytes / 4 * 3 : rowBytes;
        out.resize(n);
        std::memcpy(out.data(), r.take(n), n);
        return out;
    }
    std::size_t count = rowBytes > 250 ? r.be16() : r.u8();
    Reader q(r.take(count), count);
    std::size_t i = 0;
    int unit = words ? 2 : 1;
    while (q.left() && i < out.size()) {
        int n = std::int8_t(q.u8());
        if (n >= 0) {
            std::size_t len = std::size_t(n + 1) * unit;
            const std::uint8_t* d = q.take(len);
            for (std::size_t k = 0; k < len && i < out.size(); ++k)
                out[i++] = d[k];
        } else if (n != -128) {
            const std::uint8_t* d = q.take(std::size_t(unit));
            for (int k = 0; k <= -n; ++k)
                for (int u = 0; u < unit && i < out.size(); ++u)
                    out[i++] = d[u];
        }
    }
    return out;
}
} // namespace

BitmapPtr DecodePICT(const Bytes& d) {
    Reader r(d);
    r.seek(512 + 10); // application header, picture size, frame
    if (r.be16() != 0x0011 || r.be16() != 0x02ff) throw DecodeError("not a version 2 picture");
    while (true) {
        if (r.pos & 1) r.u8();
        unsigned op = r.be16();
        switch (op) {
        case 0x0000:
        case 0x001e:
            continue;
        case 0x0c00:
            r.skip(24);
            continue;
        case 0x0001: { // clip region
            unsigned len = r.be16();
            if (len < 2) throw DecodeError("region");
            r.skip(len - 2);
            continue;
        }
        case 0x001f:
            r.skip(6);
            continue; // OpColor
        case 0x00a0:
            r.skip(2);
            continue;  // short comment
        case 0x00a1: { // long comment
            r.skip(2);
            r.skip(r.be16());
            continue;
        }
        case 0x0098:
        case 0x0099:
        case 0x009a:
        case 0x009b: {
            bool direct = op >= 0x009a;
            if (direct) r.skip(4); // base address
            unsigned rowBytes = r.be16() & 0x3fff;
            int top = std::int16_t(r.be16()), left = std::int16_t(r.be16());
            int bottom = std::int16_t(r.be16()), right = std::int16_t(r.be16());
            r.skip(2);
            int packType = r.be16();
            r.skip(4);
            std::uint32_t hres = r.be32(), vres = r.be32();
            r.skip(2);
            int pixelSize = r.be16(), cmpCount = r.be16();
            r.skip(2 + 12);
            int w = right - left, h = bottom - top;
            std::vector<std::uint8_t> ctab;
            int ncol = 0;
            if (!direct) {
                r.skip(6);
                ncol = r.be16() + 1;
                if (ncol < 1 || ncol > 256) throw DecodeError("colour table");
                const std::uint8_t* c = r.take(std::size_t(ncol) * 8);
                ctab.assign(c, c + std::size_t(ncol) * 8);
            }
            r.skip(18); // source and destination rectangles, transfer mode
            if (op == 0x0099 || op == 0x009b) {
                unsigned len = r.be16();
                if (len < 2) throw DecodeError("mask");
                r.skip(len - 2);
            }
            if (direct ? (pixelSize != 16 && pixelSize != 32)
                       : (pixelSize != 1 && pixelSize != 2 && pixelSize != 4 && pixelSize != 8))
                throw DecodeError("pixel size");
            if (rowBytes == 0 || rowBytes < unsigned((std::int64_t(w) * pixelSize + 7) / 8) *
                                                (direct && packType == 2 ? 3 : 4) / 4)
                throw DecodeError("row bytes");
            auto bm = NewBitmap(kStandard, w, h, direct ? (cmpCount == 4 ? 32 : 24) : 8);
            bm->alpha = direct && cmpCount == 4;
            if (hres >> 16 > 0 && vres >> 16 > 0) {
                bm->dpmX = int((hres >> 16) / 0.0254 + 0.5);
                bm->dpmY = int((vres >> 16) / 0.0254 + 0.5);
            }
            if (!direct) {
                bm->palette.assign(256 * 4, 0);
                for (int i = 0; i < ncol; ++i) {
                    const std::uint8_t* e = &ctab[std::size_t(i) * 8];
                    auto c16 = [&](int k) { return std::uint8_t((e[k] << 8 | e[k + 1]) / 257); };
                    bm->setColor(i, c16(2), c16(4), c16(6));
                }
            }
            for (int y = 0; y < h; ++y) {
                std::vector<std::uint8_t> row =
                    PictRow(r, rowBytes, direct ? packType : 0, direct && pixelSize == 16);
                for (int x = 0; x < w; ++x) {
                    if (!direct) {
                        int bitOff = x * pixelSize;
                        if (std::size_t(bitOff / 8) >= row.size()) throw DecodeError("short row");
                        int v = (row[std::size_t(bitOff / 8)] >> (8 - pixelSize - bitOff % 8)) &
                                ((1 << pixelSize) - 1);
                        bm->row(y)[x] = std::uint8_t(v);
                    } else if (pixelSize == 16) {
                        if (std::size_t(x) * 2 + 1 >= row.size()) throw DecodeError("short row");
                        unsigned v =
                            unsigned(row[std::size_t(x) * 2] << 8 | row[std::size_t(x) * 2 + 1]);
                        std::uint8_t c[4] = {std::uint8_t(ScaleTo8((v >> 10) & 31, 31)),
                                             std::uint8_t(ScaleTo8((v >> 5) & 31, 31)),
                                             std::uint8_t(ScaleTo8(v & 31, 31)), 255};
                        SetPixelRGBA(*bm, x, y, c);
                    } else {
                        std::uint8_t c[4] = {0, 0, 0, 255};
                        if (packType == 4 || (packType == 0 && rowBytes >= 8)) {
                            // planar components: [alpha,] red, green, blue
                            int n = cmpCount == 4 ? 4 : 3;
                            if (std::size_t(w) * n > row.size()) throw DecodeError("short row");
                            for (int k = 0; k < n; ++k) {
                                std::uint8_t v = row[std::size_t(k) * w + x];
                                if (n == 4)
                                    c[k == 0 ? 3 : k - 1] = v;
                                else
                                    c[k] = v;
                            }
                        } else {
                            std::size_t step = packType == 2 ? 3 : 4, off = packType == 2 ? 0 : 1;
                            if (std::size_t(x) * step + off + 2 >= row.size())
                                throw DecodeError("short row");
                            for (int k = 0; k < 3; ++k)
                                c[k] = row[std::size_t(x) * step + off + k];
                        }
                        SetPixelRGBA(*bm, x, y, c);
                    }
                }
            }
            return bm;
        }
        default:
            throw DecodeError("unsupported opcode");
        }
    }
}

} // namespace kyplug
