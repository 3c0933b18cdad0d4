// Readers of our own for the small formats.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>

#include "Codecs.h"

namespace kyplug {

namespace {

void Put24(Bitmap& bm, int x, int y, int r, int g, int b) {
    std::uint8_t* p = bm.row(y) + x * (bm.bpp / 8);
    p[0] = std::uint8_t(b);
    p[1] = std::uint8_t(g);
    p[2] = std::uint8_t(r);
}

void PutRGBF(Bitmap& bm, int x, int y, float r, float g, float b) {
    auto* p = reinterpret_cast<float*>(bm.row(y)) + x * 3;
    p[0] = r;
    p[1] = g;
    p[2] = b;
}

// Black-then-white palette for 1-bit pictures; writes bit x of row y as
// "white" (1) or "black" (0).
void SetBW(Bitmap& bm) {
    bm.setColor(0, 0, 0, 0);
    bm.setColor(1, 255, 255, 255);
}
void PutBit(Bitmap& bm, int x, int y, bool white) {
    std::uint8_t* r = bm.row(y);
    if (white)
        r[x >> 3] |= std::uint8_t(0x80 >> (x & 7));
    else
        r[x >> 3] &= std::uint8_t(~(0x80 >> (x & 7)));
}

int ScaleTo8(unsigned v, unsigned maxv) {
    return maxv ? int((v * 255u + maxv / 2) / maxv) : 0;
}

} // namespace

// ---------------------------------------------------------------- BMP / ICO
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

// ---------------------------------------------------------------- PNM family
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

// ---------------------------------------------------------------- Radiance HDR
BitmapPtr DecodeHDR(const Bytes& d) {
    Reader r(d);
    std::string line;
    auto getline = [&] {
        line.clear();
        while (true) {
            char c = char(r.u8());
            if (c == '\n') break;
            line += c;
            if (line.size() > 4096) throw DecodeError("line");
        }
    };
    getline();
    if (line.rfind("#?", 0) != 0) throw DecodeError("not hdr");
    do
        getline();
    while (!line.empty());
    getline();
    int w = 0, h = 0;
    char a[3], b[3];
    if (std::sscanf(line.c_str(), "%2s %d %2s %d", a, &h, b, &w) != 4 || std::string(a) != "-Y" ||
        std::string(b) != "+X")
        throw DecodeError("orientation");
    auto bm = NewBitmap(kRGBF, w, h, 96);
    std::vector<std::uint8_t> scan(std::size_t(w) * 4);
    for (int y = 0; y < h; ++y) {
        const std::uint8_t* q = r.take(4);
        if (w >= 8 && w < 32768 && q[0] == 2 && q[1] == 2 && ((q[2] << 8) | q[3]) == w) {
            for (int c = 0; c < 4; ++c)
                for (int x = 0; x < w;) {
                    int n = r.u8();
                    if (n > 128) {
                        n -= 128;
                        std::uint8_t v = r.u8();
                        if (x + n > w) throw DecodeError("rle");
                        while (n--)
                            scan[std::size_t(x++) * 4 + c] = v;
                    } else {
                        if (n == 0 || x + n > w) throw DecodeError("rle");
                        while (n--)
                            scan[std::size_t(x++) * 4 + c] = r.u8();
                    }
                }
        } else {
            std::memcpy(scan.data(), q, 4);
            const std::uint8_t* rest = r.take(std::size_t(w - 1) * 4);
            std::memcpy(scan.data() + 4, rest, std::size_t(w - 1) * 4);
        }
        for (int x = 0; x < w; ++x) {
            const std::uint8_t* p = &scan[std::size_t(x) * 4];
            float f = p[3] ? std::ldexp(1.0f, p[3] - 136) : 0.0f;
            PutRGBF(*bm, x, y, p[0] * f, p[1] * f, p[2] * f);
        }
    }
    return bm;
}

// ---------------------------------------------------------------- TARGA
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
    int pb = (bpp + 7) / 8;
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

// ---------------------------------------------------------------- PCX
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

// ---------------------------------------------------------------- XPM / XBM
namespace {
bool ParseColor(const std::string& s, std::uint8_t rgb[3], bool& none) {
    none = false;
    std::string l;
    for (char c : s)
        l += char(std::tolower(static_cast<unsigned char>(c)));
    if (l == "none" || l == "transparent") {
        none = true;
        rgb[0] = rgb[1] = rgb[2] = 0;
        return true;
    }
    if (!l.empty() && l[0] == '#') {
        std::string hx = l.substr(1);
        std::size_t n = hx.size() / 3;
        if (n == 0 || n > 4 || hx.size() % 3) return false;
        for (int k = 0; k < 3; ++k) {
            unsigned v = unsigned(std::strtoul(hx.substr(k * n, n).c_str(), nullptr, 16));
            rgb[k] = std::uint8_t(n == 1 ? v * 17 : n == 2 ? v : v >> (4 * (n - 2)));
        }
        return true;
    }
    static const std::map<std::string, unsigned> named = {
        {"black", 0x000000}, {"white", 0xffffff},  {"red", 0xff0000},   {"green", 0x00ff00},
        {"blue", 0x0000ff},  {"yellow", 0xffff00}, {"cyan", 0x00ffff},  {"magenta", 0xff00ff},
        {"gray", 0xbebebe},  {"grey", 0xbebebe},   {"orange", 0xffa500}};
    auto it = named.find(l);
    if (it == named.end()) return false;
    rgb[0] = std::uint8_t(it->second >> 16);
    rgb[1] = std::uint8_t(it->second >> 8);
    rgb[2] = std::uint8_t(it->second);
    return true;
}
} // namespace

BitmapPtr DecodeXPM(const Bytes& d) {
    std::string text(d.begin(), d.end());
    if (text.find("XPM") == std::string::npos) throw DecodeError("not xpm");
    std::vector<std::string> strs;
    for (std::size_t i = text.find('{'); i != std::string::npos && i < text.size(); ++i) {
        if (text[i] == '/' && i + 1 < text.size() && text[i + 1] == '*') {
            std::size_t e = text.find("*/", i + 2);
            if (e == std::string::npos) break;
            i = e + 1;
        } else if (text[i] == '"') {
            std::size_t e = text.find('"', i + 1);
            if (e == std::string::npos) throw DecodeError("string");
            strs.push_back(text.substr(i + 1, e - i - 1));
            i = e;
        }
    }
    if (strs.empty()) throw DecodeError("no header");
    int w = 0, h = 0, nc = 0, cpp = 0;
    if (std::sscanf(strs[0].c_str(), "%d %d %d %d", &w, &h, &nc, &cpp) != 4 || nc <= 0 ||
        cpp <= 0 || cpp > 8 || nc > (1 << 24))
        throw DecodeError("xpm header");
    if (strs.size() < std::size_t(1) + nc + std::max(h, 0)) throw DecodeError("short");
    std::map<std::string, int> keys;
    std::vector<std::uint8_t> cols;
    int transparentIndex = -1;
    for (int i = 0; i < nc; ++i) {
        const std::string& s = strs[1 + std::size_t(i)];
        if (int(s.size()) < cpp) throw DecodeError("color");
        std::string key = s.substr(0, std::size_t(cpp));
        // Find the "c" visual among the keys that follow.
        std::vector<std::string> words;
        std::size_t p = std::size_t(cpp);
        while (p < s.size()) {
            while (p < s.size() && std::isspace(static_cast<unsigned char>(s[p])))
                ++p;
            std::size_t q = p;
            while (q < s.size() && !std::isspace(static_cast<unsigned char>(s[q])))
                ++q;
            if (q > p) words.push_back(s.substr(p, q - p));
            p = q;
        }
        std::string value;
        for (std::size_t k = 0; k + 1 < words.size(); ++k)
            if (words[k] == "c") {
                value = words[k + 1];
                for (std::size_t m = k + 2; m < words.size() && words[m].size() > 1; ++m)
                    value += " " + words[m];
                break;
            }
        if (value.empty() && words.size() >= 2) value = words[1];
        std::uint8_t rgb[3];
        bool none = false;
        if (!ParseColor(value, rgb, none)) rgb[0] = rgb[1] = rgb[2] = 0;
        if (none) transparentIndex = i;
        keys[key] = i;
        cols.insert(cols.end(), rgb, rgb + 3);
    }
    bool indexed = nc <= 256;
    auto bm = NewBitmap(kStandard, w, h, indexed ? 8 : (transparentIndex >= 0 ? 32 : 24));
    if (indexed) {
        bm->palette.assign(std::size_t(nc) * 4, 0);
        for (int i = 0; i < nc; ++i)
            bm->setColor(i, cols[i * 3], cols[i * 3 + 1], cols[i * 3 + 2]);
        if (transparentIndex >= 0) {
            bm->transparency.assign(std::size_t(nc), 255);
            bm->transparency[std::size_t(transparentIndex)] = 0;
        }
    }
    bm->alpha = !indexed && transparentIndex >= 0;
    for (int y = 0; y < h; ++y) {
        const std::string& s = strs[1 + std::size_t(nc) + y];
        if (s.size() < std::size_t(w) * cpp) throw DecodeError("row");
        for (int x = 0; x < w; ++x) {
            auto it = keys.find(s.substr(std::size_t(x) * cpp, std::size_t(cpp)));
            if (it == keys.end()) throw DecodeError("key");
            int i = it->second;
            if (indexed) {
                bm->row(y)[x] = std::uint8_t(i);
            } else {
                std::uint8_t c[4] = {cols[i * 3], cols[i * 3 + 1], cols[i * 3 + 2],
                                     std::uint8_t(i == transparentIndex ? 0 : 255)};
                SetPixelRGBA(*bm, x, y, c);
            }
        }
    }
    return bm;
}

BitmapPtr DecodeXBM(const Bytes& d) {
    std::string t(d.begin(), d.end());
    auto define = [&](const char* suffix) {
        std::size_t p = 0;
        while ((p = t.find("#define", p)) != std::string::npos) {
            std::size_t e = t.find('\n', p);
            std::string line = t.substr(p, e == std::string::npos ? std::string::npos : e - p);
            char name[256];
            int v;
            if (std::sscanf(line.c_str(), "#define %255s %d", name, &v) == 2) {
                std::string n(name);
                if (n.size() >= std::strlen(suffix) &&
                    n.compare(n.size() - std::strlen(suffix), std::string::npos, suffix) == 0)
                    return v;
            }
            p += 7;
        }
        return -1;
    };
    int w = define("_width"), h = define("_height");
    std::size_t p = t.find('{');
    if (w <= 0 || h <= 0 || p == std::string::npos) throw DecodeError("not xbm");
    auto bm = NewBitmap(kStandard, w, h, 1);
    SetBW(*bm);
    int bpr = (w + 7) / 8;
    for (int y = 0; y < h; ++y)
        for (int i = 0; i < bpr; ++i) {
            p = t.find("0x", p);
            if (p == std::string::npos) p = t.find("0X", p);
            if (p == std::string::npos) throw DecodeError("short");
            unsigned v = unsigned(std::strtoul(t.c_str() + p, nullptr, 16));
            p += 2;
            for (int b = 0; b < 8 && i * 8 + b < w; ++b)
                PutBit(*bm, i * 8 + b, y, !((v >> b) & 1));
        }
    return bm;
}

// ---------------------------------------------------------------- WBMP
BitmapPtr DecodeWBMP(const Bytes& d) {
    Reader r(d);
    if (r.u8() != 0) throw DecodeError("type");
    std::uint8_t fix = r.u8();
    if (fix & 0x9f) throw DecodeError("fix header");
    auto mb = [&] {
        unsigned v = 0;
        for (int k = 0; k < 5; ++k) {
            std::uint8_t c = r.u8();
            v = (v << 7) | (c & 0x7f);
            if (!(c & 0x80)) return v;
        }
        throw DecodeError("multibyte");
    };
    int w = int(std::min(mb(), 100000u)), h = int(std::min(mb(), 100000u));
    auto bm = NewBitmap(kStandard, w, h, 1);
    SetBW(*bm);
    int bpr = (w + 7) / 8;
    for (int y = 0; y < h; ++y)
        std::memcpy(bm->row(y), r.take(std::size_t(bpr)), std::size_t(bpr));
    return bm;
}

// ---------------------------------------------------------------- SGI
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

// ---------------------------------------------------------------- Sun raster
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

// ---------------------------------------------------------------- PSD composite
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

// ---------------------------------------------------------------- DDS
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

// ---------------------------------------------------------------- IFF ILBM / PBM
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

// ---------------------------------------------------------------- Dr. Halo CUT
BitmapPtr DecodeCUT(const Bytes& d) {
    Reader r(d);
    int w = r.le16(), h = r.le16();
    r.le16();
    auto bm = NewBitmap(kStandard, w, h, 8);
    for (int y = 0; y < h; ++y) {
        std::uint8_t* row = bm->row(y);
        int x = 0;
        while (true) {
            int c = r.u8();
            if (c == 0) {
                break;
            }
            int n = c & 0x7f;
            if (x + n > w) throw DecodeError("cut run");
            if (c & 0x80) {
                std::uint8_t v = r.u8();
                while (n--)
                    row[x++] = v;
            } else {
                while (n--)
                    row[x++] = r.u8();
            }
        }
        // Each line ends with a zero and a two-byte count of the next line.
        if (y + 1 < h) r.le16();
    }
    return bm;
}

// ---------------------------------------------------------------- C64 Koala
BitmapPtr DecodeKOALA(const Bytes& d) {
    if (d.size() < 10003) throw DecodeError("short koala");
    static const unsigned c64[16] = {0x000000, 0xffffff, 0x880000, 0xaaffee, 0xcc44cc, 0x00cc55,
                                     0x0000aa, 0xeeee77, 0xdd8855, 0x664400, 0xff7777, 0x333333,
                                     0x777777, 0xaaff66, 0x0088ff, 0xbbbbbb};
    const std::uint8_t* bitmap = d.data() + 2;
    const std::uint8_t* screen = bitmap + 8000;
    const std::uint8_t* colour = screen + 1000;
    int bg = colour[1000] & 15;
    auto bm = NewBitmap(kStandard, 160, 200, 8);
    bm->palette.assign(64, 0);
    for (int i = 0; i < 16; ++i)
        bm->setColor(i, std::uint8_t(c64[i] >> 16), std::uint8_t(c64[i] >> 8),
                     std::uint8_t(c64[i]));
    for (int y = 0; y < 200; ++y)
        for (int x = 0; x < 160; ++x) {
            int cell = (y / 8) * 40 + x / 4;
            std::uint8_t b = bitmap[cell * 8 + (y & 7)];
            int v = (b >> (6 - 2 * (x & 3))) & 3;
            int c = v == 0   ? bg
                    : v == 1 ? screen[cell] >> 4
                    : v == 2 ? screen[cell] & 15
                             : colour[cell] & 15;
            bm->row(y)[x] = std::uint8_t(c);
        }
    return bm;
}

// ---------------------------------------------------------------- Kodak Photo CD
// The base image (768 x 512) at sector 384: per pair of lines, two luma lines
// and one line of each chroma channel at half width.
BitmapPtr DecodePCD(const Bytes& d) {
    const std::size_t base = 0x30000;
    const int w = 768, h = 512;
    if (d.size() < base + std::size_t(w) * h * 3 / 2) throw DecodeError("short pcd");
    bool rotate = d.size() > 0x0e02 && (d[0x0e02] & 3) != 0;
    (void)rotate;
    auto bm = NewBitmap(kStandard, w, h, 24);
    const std::uint8_t* p = d.data() + base;
    for (int y = 0; y < h; y += 2) {
        const std::uint8_t* y1 = p;
        const std::uint8_t* y2 = p + w;
        const std::uint8_t* c1 = p + 2 * w;
        const std::uint8_t* c2 = c1 + w / 2;
        p += 3 * w;
        for (int yy = 0; yy < 2; ++yy)
            for (int x = 0; x < w; ++x) {
                double L = 1.3584 * (yy ? y2[x] : y1[x]);
                double C1 = 2.2179 * (c1[x / 2] - 156);
                double C2 = 1.8215 * (c2[x / 2] - 137);
                auto cl = [](double v) { return int(std::clamp(v, 0.0, 255.0) + 0.5); };
                Put24(*bm, x, y + yy, cl((L + C2) * 255 / 346),
                      cl((L - 0.194 * C1 - 0.509 * C2) * 255 / 346), cl((L + C1) * 255 / 346));
            }
    }
    return bm;
}

// ---------------------------------------------------------------- QuickDraw PICT
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
