// Readers of the portable anymap family (PBM, PGM, PPM, plain and raw) and
// of the portable float map (PFM).
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Codecs.h"
#include "DecodePixels.h"

namespace kyplug {

namespace {
struct PnmTokens {
    Reader& r;
    explicit PnmTokens(Reader& rr) : r(rr) {}
    void space() {
        while (r.pos < r.n) {
            char c = char(r.p[r.pos]);
            if (c == '#') {
                while (r.pos < r.n && r.p[r.pos] != '\n')
                    ++r.pos;
            } else if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
                ++r.pos;
            } else {
                break;
            }
        }
    }
    unsigned number() {
        space();
        if (r.pos >= r.n || r.p[r.pos] < '0' || r.p[r.pos] > '9') throw DecodeError("number");
        std::uint64_t v = 0;
        while (r.pos < r.n && r.p[r.pos] >= '0' && r.p[r.pos] <= '9') {
            v = v * 10 + (r.p[r.pos++] - '0');
            if (v > 0xffffffffu) throw DecodeError("number");
        }
        return unsigned(v);
    }
};
} // namespace

BitmapPtr DecodePNM(const Bytes& d) {
    Reader r(d);
    if (r.u8() != 'P') throw DecodeError("not pnm");
    int kind = r.u8() - '0';
    if (kind < 1 || kind > 6) throw DecodeError("not pnm");
    PnmTokens t(r);
    int w = int(std::min(t.number(), 100000u)), h = int(std::min(t.number(), 100000u));
    unsigned maxv = (kind == 1 || kind == 4) ? 1 : t.number();
    if (maxv == 0 || maxv > 65535) throw DecodeError("maxval");
    bool ascii = kind <= 3;
    if (!ascii) r.u8(); // the single whitespace before the raster
    // A binary raster must all be in the file: a shorter one is refused before
    // the bitmap is made.
    if (!ascii && w > 0 && h > 0) {
        const std::size_t row = kind == 4   ? std::size_t(w + 7) / 8
                                : kind == 5 ? std::size_t(w) * (maxv > 255 ? 2 : 1)
                                            : std::size_t(w) * 3 * (maxv > 255 ? 2 : 1);
        r.need(row * std::size_t(h));
    }
    if (kind == 1 || kind == 4) {
        auto bm = NewBitmap(kStandard, w, h, 1);
        SetBW(*bm);
        for (int y = 0; y < h; ++y) {
            if (kind == 4) {
                const std::uint8_t* s = r.take(std::size_t(w + 7) / 8);
                std::uint8_t* row = bm->row(y);
                for (int i = 0; i < (w + 7) / 8; ++i)
                    row[i] = std::uint8_t(~s[i]);
            } else {
                for (int x = 0; x < w; ++x) {
                    t.space();
                    std::uint8_t c = r.u8();
                    if (c != '0' && c != '1') throw DecodeError("pbm digit");
                    PutBit(*bm, x, y, c == '0');
                }
            }
        }
        return bm;
    }
    bool grey = kind == 2 || kind == 5;
    bool wide = maxv > 255;
    int comps = grey ? 1 : 3;
    auto bm = wide ? NewBitmap(grey ? kUInt16 : kRGB16, w, h, 0)
                   : NewBitmap(kStandard, w, h, grey ? 8 : 24);
    for (int y = 0; y < h; ++y) {
        std::uint8_t* row = bm->row(y);
        for (int x = 0; x < w; ++x) {
            unsigned v[3];
            for (int c = 0; c < comps; ++c) {
                if (ascii) {
                    v[c] = t.number();
                } else if (wide) {
                    v[c] = r.be16();
                } else {
                    v[c] = r.u8();
                }
                if (v[c] > maxv) v[c] = maxv;
            }
            if (wide) {
                for (int c = 0; c < comps; ++c) {
                    auto s = std::uint16_t((std::uint64_t(v[c]) * 65535 + maxv / 2) / maxv);
                    std::memcpy(row + (x * comps + c) * 2, &s, 2);
                }
            } else if (grey) {
                row[x] = std::uint8_t(ScaleTo8(v[0], maxv));
            } else {
                Put24(*bm, x, y, ScaleTo8(v[0], maxv), ScaleTo8(v[1], maxv), ScaleTo8(v[2], maxv));
            }
        }
    }
    return bm;
}

BitmapPtr DecodePFM(const Bytes& d) {
    Reader r(d);
    if (r.u8() != 'P') throw DecodeError("not pfm");
    char k = char(r.u8());
    if (k != 'F' && k != 'f') throw DecodeError("not pfm");
    PnmTokens t(r);
    int w = int(std::min(t.number(), 100000u)), h = int(std::min(t.number(), 100000u));
    t.space();
    std::string scale;
    while (r.pos < r.n && !std::isspace(r.p[r.pos]))
        scale += char(r.p[r.pos++]);
    r.u8();
    double s = std::strtod(scale.c_str(), nullptr);
    bool little = s < 0;
    int comps = k == 'F' ? 3 : 1;
    auto bm = NewBitmap(kRGBF, w, h, 96);
    for (int y = h - 1; y >= 0; --y)
        for (int x = 0; x < w; ++x) {
            float v[3];
            for (int c = 0; c < comps; ++c) {
                std::uint32_t u = little ? r.le32() : r.be32();
                std::memcpy(&v[c], &u, 4);
            }
            if (comps == 1) v[1] = v[2] = v[0];
            PutRGBF(*bm, x, y, v[0], v[1], v[2]);
        }
    return bm;
}

} // namespace kyplug
