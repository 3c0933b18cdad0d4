#include "platform/linux/engine/EnginePixels.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

namespace kestrelyn::engine {

namespace {

enum class Kind {
    I1,
    I4,
    I8,
    G16,
    R555,
    R565,
    A1555,
    RGB24,
    RGB32,
    ARGB32,
    PARGB32,
    RGB48,
    ARGB64,
    PARGB64,
    Bad
};

Kind KindOf(PixelFormat f) {
    switch (f) {
    case PixelFormat1bppIndexed:
        return Kind::I1;
    case PixelFormat4bppIndexed:
        return Kind::I4;
    case PixelFormat8bppIndexed:
        return Kind::I8;
    case PixelFormat16bppGrayScale:
        return Kind::G16;
    case PixelFormat16bppRGB555:
        return Kind::R555;
    case PixelFormat16bppRGB565:
        return Kind::R565;
    case PixelFormat16bppARGB1555:
        return Kind::A1555;
    case PixelFormat24bppRGB:
        return Kind::RGB24;
    case PixelFormat32bppRGB:
        return Kind::RGB32;
    case PixelFormat32bppARGB:
        return Kind::ARGB32;
    case PixelFormat32bppPARGB:
        return Kind::PARGB32;
    case PixelFormat48bppRGB:
        return Kind::RGB48;
    case PixelFormat64bppARGB:
        return Kind::ARGB64;
    case PixelFormat64bpppARGB:
        return Kind::PARGB64;
    default:
        return Kind::Bad;
    }
}

bool IsWide(Kind k) {
    return k == Kind::G16 || k == Kind::RGB48 || k == Kind::ARGB64 || k == Kind::PARGB64;
}

inline std::uint32_t Load32(const std::uint8_t* p) {
    std::uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}
inline void Store32(std::uint8_t* p, std::uint32_t v) {
    std::memcpy(p, &v, 4);
}
inline std::uint16_t Load16(const std::uint8_t* p) {
    std::uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}
inline void Store16(std::uint8_t* p, std::uint16_t v) {
    std::memcpy(p, &v, 2);
}

inline std::uint32_t Premul8(std::uint32_t c, std::uint32_t a) {
    std::uint32_t t = c * a + 128;
    return (t + (t >> 8)) >> 8;
}
inline std::uint32_t Unpremul8(std::uint32_t c, std::uint32_t a) {
    if (a == 0) return 0;
    return std::min<std::uint32_t>(255, (c * 255 + a / 2) / a);
}
inline std::uint32_t Premul16(std::uint64_t c, std::uint64_t a) {
    return static_cast<std::uint32_t>((c * a + 32767) / 65535);
}
inline std::uint32_t Unpremul16(std::uint64_t c, std::uint64_t a) {
    if (a == 0) return 0;
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(65535, (c * 65535 + a / 2) / a));
}
inline std::uint32_t To8(std::uint32_t v16) {
    return (v16 * 255 + 32895) >> 16;
}
inline std::uint32_t To16(std::uint32_t v8) {
    return v8 * 257;
}
inline std::uint32_t Luma(std::uint32_t r, std::uint32_t g, std::uint32_t b) {
    return (r * 77 + g * 150 + b * 29 + 128) >> 8;
}

// Wide (16-bit per channel) pixel.
struct Wide {
    std::uint16_t b, g, r, a;
};

// One pixel of a 16-bit channel format (RGB48, ARGB64, PARGB64) as straight
// channels, and a straight pixel stored in such a format.
inline Wide LoadWide(Kind k, const std::uint8_t* s) {
    std::uint32_t b = Load16(s), g = Load16(s + 2), r = Load16(s + 4);
    std::uint32_t a = k == Kind::RGB48 ? 65535u : Load16(s + 6);
    if (k == Kind::PARGB64) {
        r = Unpremul16(r, a);
        g = Unpremul16(g, a);
        b = Unpremul16(b, a);
    }
    return {static_cast<std::uint16_t>(b), static_cast<std::uint16_t>(g),
            static_cast<std::uint16_t>(r), static_cast<std::uint16_t>(a)};
}
inline void StoreWide(Kind k, std::uint8_t* d, Wide w) {
    std::uint32_t r = w.r, g = w.g, b = w.b, a = w.a;
    if (k == Kind::PARGB64) {
        r = Premul16(r, a);
        g = Premul16(g, a);
        b = Premul16(b, a);
    }
    Store16(d, static_cast<std::uint16_t>(b));
    Store16(d + 2, static_cast<std::uint16_t>(g));
    Store16(d + 4, static_cast<std::uint16_t>(r));
    if (k != Kind::RGB48) Store16(d + 6, static_cast<std::uint16_t>(a));
}

// Palette lookup table padded to 256 entries (unset entries: opaque black).
using Lut = std::array<ARGB, 256>;
Lut MakeLut(const ARGB* pal, UINT count) {
    Lut lut;
    lut.fill(0xFF000000u);
    for (UINT i = 0; i < count && i < 256; ++i)
        lut[i] = pal[i];
    return lut;
}

inline UINT GetIndex(Kind k, const std::uint8_t* row, INT x) {
    if (k == Kind::I1) return (row[x >> 3] >> (7 - (x & 7))) & 1u;
    if (k == Kind::I4) return (row[x >> 1] >> ((x & 1) ? 0 : 4)) & 0xFu;
    return row[x];
}
inline void SetIndex(Kind k, std::uint8_t* row, INT x, UINT v) {
    if (k == Kind::I1) {
        std::uint8_t m = static_cast<std::uint8_t>(0x80u >> (x & 7));
        row[x >> 3] = static_cast<std::uint8_t>(v & 1 ? (row[x >> 3] | m) : (row[x >> 3] & ~m));
    } else if (k == Kind::I4) {
        std::uint8_t& b = row[x >> 1];
        if (x & 1)
            b = static_cast<std::uint8_t>((b & 0xF0) | (v & 0x0F));
        else
            b = static_cast<std::uint8_t>((b & 0x0F) | ((v & 0x0F) << 4));
    } else {
        row[x] = static_cast<std::uint8_t>(v);
    }
}

// Nearest palette entry, with a small cache for the large palettes.
class Nearest {
  public:
    Nearest(const ARGB* pal, UINT count) : pal_(pal), count_(count) {
        if (count_ == 256) {
            grayRamp_ = true;
            for (UINT i = 0; i < 256 && grayRamp_; ++i)
                grayRamp_ = (pal_[i] & 0xFFFFFFu) == i * 0x010101u;
        }
    }
    UINT Map(ARGB c) {
        if (count_ <= 1) return 0;
        std::uint32_t rgb = c & 0xFFFFFFu;
        if (grayRamp_) {
            std::uint32_t s = (rgb & 0xFF) + ((rgb >> 8) & 0xFF) + (rgb >> 16);
            return (s + 1) / 3;
        }
        if (count_ <= 16) return NearestPaletteIndex(pal_, count_, c);
        if (!cache_) {
            cache_ = std::make_unique<std::uint32_t[]>(kCache);
            std::fill_n(cache_.get(), kCache, 0xFFFFFFFFu);
        }
        std::uint32_t h = (rgb * 2654435761u) >> 20; // 12 bits
        std::uint32_t e = cache_[h];
        if (e != 0xFFFFFFFFu && (e & 0xFFFFFFu) == rgb) return e >> 24;
        UINT idx = NearestPaletteIndex(pal_, count_, c);
        cache_[h] = rgb | (idx << 24);
        return idx;
    }

  private:
    static constexpr std::size_t kCache = 4096;
    const ARGB* pal_;
    UINT count_;
    bool grayRamp_ = false;
    std::unique_ptr<std::uint32_t[]> cache_;
};

// --- rows to ARGB (8-bit channels) ---
void UnpackRow(Kind k, const std::uint8_t* row, INT x0, INT n, std::uint32_t* out, const Lut& lut) {
    switch (k) {
    case Kind::I1:
    case Kind::I4:
        for (INT i = 0; i < n; ++i)
            out[i] = lut[GetIndex(k, row, x0 + i)];
        break;
    case Kind::I8: {
        const std::uint8_t* s = row + x0;
        for (INT i = 0; i < n; ++i)
            out[i] = lut[s[i]];
        break;
    }
    case Kind::G16: {
        const std::uint8_t* s = row + 2 * x0;
        for (INT i = 0; i < n; ++i) {
            std::uint32_t g = To8(Load16(s + 2 * i));
            out[i] = 0xFF000000u | g * 0x010101u;
        }
        break;
    }
    case Kind::R555:
    case Kind::A1555: {
        const std::uint8_t* s = row + 2 * x0;
        bool alpha = k == Kind::A1555;
        for (INT i = 0; i < n; ++i) {
            std::uint32_t v = Load16(s + 2 * i);
            std::uint32_t r = (v >> 10) & 31, g = (v >> 5) & 31, b = v & 31;
            r = (r << 3) | (r >> 2);
            g = (g << 3) | (g >> 2);
            b = (b << 3) | (b >> 2);
            std::uint32_t a = alpha ? ((v & 0x8000) ? 255u : 0u) : 255u;
            out[i] = (a << 24) | (r << 16) | (g << 8) | b;
        }
        break;
    }
    case Kind::R565: {
        const std::uint8_t* s = row + 2 * x0;
        for (INT i = 0; i < n; ++i) {
            std::uint32_t v = Load16(s + 2 * i);
            std::uint32_t r = (v >> 11) & 31, g = (v >> 5) & 63, b = v & 31;
            r = (r << 3) | (r >> 2);
            g = (g << 2) | (g >> 4);
            b = (b << 3) | (b >> 2);
            out[i] = 0xFF000000u | (r << 16) | (g << 8) | b;
        }
        break;
    }
    case Kind::RGB24: {
        const std::uint8_t* s = row + 3 * x0;
        for (INT i = 0; i < n; ++i, s += 3)
            out[i] = 0xFF000000u | s[0] | (std::uint32_t(s[1]) << 8) | (std::uint32_t(s[2]) << 16);
        break;
    }
    case Kind::RGB32: {
        const std::uint8_t* s = row + 4 * x0;
        for (INT i = 0; i < n; ++i)
            out[i] = Load32(s + 4 * i) | 0xFF000000u;
        break;
    }
    case Kind::ARGB32:
        std::memcpy(out, row + 4 * x0, static_cast<std::size_t>(n) * 4);
        break;
    case Kind::PARGB32: {
        const std::uint8_t* s = row + 4 * x0;
        for (INT i = 0; i < n; ++i) {
            std::uint32_t v = Load32(s + 4 * i);
            std::uint32_t a = v >> 24;
            if (a == 255) {
                out[i] = v;
            } else {
                out[i] = (a << 24) | (Unpremul8((v >> 16) & 255, a) << 16) |
                         (Unpremul8((v >> 8) & 255, a) << 8) | Unpremul8(v & 255, a);
            }
        }
        break;
    }
    case Kind::RGB48:
    case Kind::ARGB64:
    case Kind::PARGB64: {
        INT bpp = k == Kind::RGB48 ? 6 : 8;
        const std::uint8_t* s = row + bpp * x0;
        for (INT i = 0; i < n; ++i, s += bpp) {
            const Wide w = LoadWide(k, s);
            out[i] = (To8(w.a) << 24) | (To8(w.r) << 16) | (To8(w.g) << 8) | To8(w.b);
        }
        break;
    }
    case Kind::Bad:
        break;
    }
}

// --- ARGB (8-bit channels) to rows ---
void PackRow(Kind k, const std::uint32_t* in, INT n, std::uint8_t* row, INT x0, Nearest* nearest) {
    switch (k) {
    case Kind::I1:
    case Kind::I4:
        for (INT i = 0; i < n; ++i)
            SetIndex(k, row, x0 + i, nearest->Map(in[i]));
        break;
    case Kind::I8: {
        std::uint8_t* d = row + x0;
        for (INT i = 0; i < n; ++i)
            d[i] = static_cast<std::uint8_t>(nearest->Map(in[i]));
        break;
    }
    case Kind::G16: {
        std::uint8_t* d = row + 2 * x0;
        for (INT i = 0; i < n; ++i) {
            std::uint32_t c = in[i];
            Store16(d + 2 * i, static_cast<std::uint16_t>(
                                   To16(Luma((c >> 16) & 255, (c >> 8) & 255, c & 255))));
        }
        break;
    }
    case Kind::R555:
    case Kind::A1555: {
        std::uint8_t* d = row + 2 * x0;
        bool alpha = k == Kind::A1555;
        for (INT i = 0; i < n; ++i) {
            std::uint32_t c = in[i];
            std::uint32_t v = (((c >> 19) & 31) << 10) | (((c >> 11) & 31) << 5) | ((c >> 3) & 31);
            if (alpha && (c >> 24) >= 128) v |= 0x8000;
            Store16(d + 2 * i, static_cast<std::uint16_t>(v));
        }
        break;
    }
    case Kind::R565: {
        std::uint8_t* d = row + 2 * x0;
        for (INT i = 0; i < n; ++i) {
            std::uint32_t c = in[i];
            std::uint32_t v = (((c >> 19) & 31) << 11) | (((c >> 10) & 63) << 5) | ((c >> 3) & 31);
            Store16(d + 2 * i, static_cast<std::uint16_t>(v));
        }
        break;
    }
    case Kind::RGB24: {
        std::uint8_t* d = row + 3 * x0;
        for (INT i = 0; i < n; ++i, d += 3) {
            std::uint32_t c = in[i];
            d[0] = static_cast<std::uint8_t>(c);
            d[1] = static_cast<std::uint8_t>(c >> 8);
            d[2] = static_cast<std::uint8_t>(c >> 16);
        }
        break;
    }
    case Kind::RGB32: {
        std::uint8_t* d = row + 4 * x0;
        for (INT i = 0; i < n; ++i)
            Store32(d + 4 * i, in[i] | 0xFF000000u);
        break;
    }
    case Kind::ARGB32:
        std::memcpy(row + 4 * x0, in, static_cast<std::size_t>(n) * 4);
        break;
    case Kind::PARGB32: {
        std::uint8_t* d = row + 4 * x0;
        for (INT i = 0; i < n; ++i) {
            std::uint32_t c = in[i];
            std::uint32_t a = c >> 24;
            if (a != 255)
                c = (a << 24) | (Premul8((c >> 16) & 255, a) << 16) |
                    (Premul8((c >> 8) & 255, a) << 8) | Premul8(c & 255, a);
            Store32(d + 4 * i, c);
        }
        break;
    }
    case Kind::RGB48:
    case Kind::ARGB64:
    case Kind::PARGB64: {
        INT bpp = k == Kind::RGB48 ? 6 : 8;
        std::uint8_t* d = row + bpp * x0;
        for (INT i = 0; i < n; ++i, d += bpp) {
            const std::uint32_t c = in[i];
            StoreWide(k, d,
                      {static_cast<std::uint16_t>(To16(c & 255)),
                       static_cast<std::uint16_t>(To16((c >> 8) & 255)),
                       static_cast<std::uint16_t>(To16((c >> 16) & 255)),
                       static_cast<std::uint16_t>(To16(c >> 24))});
        }
        break;
    }
    case Kind::Bad:
        break;
    }
}

// --- wide rows (between two 16-bit channel formats) ---
void UnpackWide(Kind k, const std::uint8_t* row, INT x0, INT n, Wide* out) {
    if (k == Kind::G16) {
        const std::uint8_t* s = row + 2 * x0;
        for (INT i = 0; i < n; ++i) {
            std::uint16_t g = Load16(s + 2 * i);
            out[i] = {g, g, g, 65535};
        }
        return;
    }
    INT bpp = k == Kind::RGB48 ? 6 : 8;
    const std::uint8_t* s = row + bpp * x0;
    for (INT i = 0; i < n; ++i, s += bpp)
        out[i] = LoadWide(k, s);
}
void PackWide(Kind k, const Wide* in, INT n, std::uint8_t* row, INT x0) {
    if (k == Kind::G16) {
        std::uint8_t* d = row + 2 * x0;
        for (INT i = 0; i < n; ++i)
            Store16(d + 2 * i, static_cast<std::uint16_t>(Luma(in[i].r, in[i].g, in[i].b)));
        return;
    }
    INT bpp = k == Kind::RGB48 ? 6 : 8;
    std::uint8_t* d = row + bpp * x0;
    for (INT i = 0; i < n; ++i, d += bpp)
        StoreWide(k, d, in[i]);
}

// Same-format copy of a row of `n` pixels, bit-exact for the sub-byte formats.
void CopyRow(Kind k, INT bits, const std::uint8_t* s, INT sx, std::uint8_t* d, INT dx, INT n) {
    if (bits >= 8) {
        INT bpp = bits / 8;
        std::memcpy(d + static_cast<std::ptrdiff_t>(dx) * bpp,
                    s + static_cast<std::ptrdiff_t>(sx) * bpp, static_cast<std::size_t>(n) * bpp);
        return;
    }
    std::int64_t sbit = std::int64_t(sx) * bits, dbit = std::int64_t(dx) * bits;
    if (sbit % 8 == 0 && dbit % 8 == 0) {
        std::int64_t total = std::int64_t(n) * bits;
        std::size_t full = static_cast<std::size_t>(total / 8);
        const std::uint8_t* sp = s + sbit / 8;
        std::uint8_t* dp = d + dbit / 8;
        std::memcpy(dp, sp, full);
        INT rest = static_cast<INT>(total % 8);
        if (rest) {
            std::uint8_t mask = static_cast<std::uint8_t>(0xFF00u >> rest);
            dp[full] = static_cast<std::uint8_t>((dp[full] & ~mask) | (sp[full] & mask));
        }
        return;
    }
    for (INT i = 0; i < n; ++i)
        SetIndex(k, d, dx + i, GetIndex(k, s, sx + i));
}

inline std::uint8_t* RowOf(const PixelView& v, INT y) {
    return v.scan0 + static_cast<std::ptrdiff_t>(y) * v.stride;
}

} // namespace

INT FormatBits(PixelFormat format) {
    if (KindOf(format) == Kind::Bad) return 0;
    return GetPixelFormatSize(format);
}

bool IsValidFormat(PixelFormat format) {
    return KindOf(format) != Kind::Bad;
}

INT StrideFor(INT width, PixelFormat format) {
    if (width < 1) return 0;
    std::int64_t w = width;
    std::int64_t s = 0;
    switch (FormatBits(format)) {
    case 1:
        s = ((w + 31) / 32) * 4;
        break;
    case 4:
        s = ((w + 31) / 32) * 16;
        break;
    case 8:
        s = (w + 3) & ~std::int64_t(3);
        break;
    case 16:
        s = (2 * w + 2) & ~std::int64_t(2);
        break;
    case 24:
        s = (3 * w + 3) & ~std::int64_t(3);
        break;
    case 32:
        s = 4 * w;
        break;
    case 48:
        s = (6 * w + 6) & ~std::int64_t(6);
        break;
    case 64:
        s = 8 * w;
        break;
    default:
        return 0;
    }
    if (s > 0x7FFFFFFF) return 0;
    return static_cast<INT>(s);
}

std::vector<ARGB> DefaultPalette(PixelFormat format) {
    static const ARGB kVga[16] = {0xFF000000, 0xFF800000, 0xFF008000, 0xFF808000,
                                  0xFF000080, 0xFF800080, 0xFF008080, 0xFF808080,
                                  0xFFC0C0C0, 0xFFFF0000, 0xFF00FF00, 0xFFFFFF00,
                                  0xFF0000FF, 0xFFFF00FF, 0xFF00FFFF, 0xFFFFFFFF};
    switch (FormatBits(format)) {
    case 1:
        return {0xFF000000u, 0xFFFFFFFFu};
    case 4:
        return std::vector<ARGB>(kVga, kVga + 16);
    case 8: {
        std::vector<ARGB> p(kVga, kVga + 16);
        for (UINT r = 0; r < 6; ++r)
            for (UINT g = 0; g < 6; ++g)
                for (UINT b = 0; b < 6; ++b)
                    p.push_back(0xFF000000u | (r * 51) << 16 | (g * 51) << 8 | b * 51);
        for (UINT i = 1; i <= 24; ++i) {
            UINT v = i * 10;
            p.push_back(0xFF000000u | v * 0x010101u);
        }
        return p;
    }
    default:
        return {};
    }
}

UINT DefaultPaletteFlags(PixelFormat format) {
    switch (FormatBits(format)) {
    case 1:
        return PaletteFlagsGrayScale;
    case 4:
    case 8:
        return PaletteFlagsHalftone;
    default:
        return 0;
    }
}

UINT NearestPaletteIndex(const ARGB* palette, UINT count, ARGB color) {
    int r = (color >> 16) & 255, g = (color >> 8) & 255, b = color & 255;
    UINT best = 0;
    std::uint32_t bestD = 0xFFFFFFFFu;
    for (UINT i = 0; i < count; ++i) {
        ARGB p = palette[i];
        int dr = r - int((p >> 16) & 255), dg = g - int((p >> 8) & 255), db = b - int(p & 255);
        std::uint32_t d = static_cast<std::uint32_t>(dr * dr + dg * dg + db * db);
        if (d < bestD) {
            bestD = d;
            best = i;
            if (d == 0) break;
        }
    }
    return best;
}

GpStatus ConvertPixels(const PixelView& src, const PixelView& dst, INT width, INT height) {
    Kind sk = KindOf(src.format), dk = KindOf(dst.format);
    if (sk == Kind::Bad || dk == Kind::Bad || width < 0 || height < 0) return InvalidParameter;
    if (width == 0 || height == 0) return OK;

    if (sk == dk) {
        INT bits = FormatBits(src.format);
        for (INT y = 0; y < height; ++y)
            CopyRow(sk, bits, RowOf(src, y), src.x0, RowOf(dst, y), dst.x0, width);
        return OK;
    }

    // Fast pairs between the byte formats most in use.
    bool dst32 = dk == Kind::ARGB32 || dk == Kind::RGB32 || dk == Kind::PARGB32;
    if (sk == Kind::RGB24 && dst32) {
        for (INT y = 0; y < height; ++y) {
            const std::uint8_t* s = RowOf(src, y) + 3 * static_cast<std::ptrdiff_t>(src.x0);
            std::uint8_t* d = RowOf(dst, y) + 4 * static_cast<std::ptrdiff_t>(dst.x0);
            INT x = 0;
            for (; x + 4 <= width; x += 4, s += 12, d += 16) {
                std::uint32_t w0 = Load32(s), w1 = Load32(s + 4), w2 = Load32(s + 8);
                Store32(d, 0xFF000000u | w0);
                Store32(d + 4, 0xFF000000u | (w0 >> 24) | (w1 << 8));
                Store32(d + 8, 0xFF000000u | (w1 >> 16) | (w2 << 16));
                Store32(d + 12, 0xFF000000u | (w2 >> 8));
            }
            for (; x < width; ++x, s += 3, d += 4)
                Store32(d, 0xFF000000u | s[0] | (std::uint32_t(s[1]) << 8) |
                               (std::uint32_t(s[2]) << 16));
        }
        return OK;
    }
    if ((sk == Kind::ARGB32 || sk == Kind::RGB32) && dk == Kind::RGB24) {
        for (INT y = 0; y < height; ++y) {
            const std::uint8_t* s = RowOf(src, y) + 4 * static_cast<std::ptrdiff_t>(src.x0);
            std::uint8_t* d = RowOf(dst, y) + 3 * static_cast<std::ptrdiff_t>(dst.x0);
            INT x = 0;
            for (; x + 4 <= width; x += 4, s += 16, d += 12) {
                std::uint32_t p0 = Load32(s) & 0xFFFFFFu, p1 = Load32(s + 4) & 0xFFFFFFu,
                              p2 = Load32(s + 8) & 0xFFFFFFu, p3 = Load32(s + 12) & 0xFFFFFFu;
                Store32(d, p0 | (p1 << 24));
                Store32(d + 4, (p1 >> 8) | (p2 << 16));
                Store32(d + 8, (p2 >> 16) | (p3 << 8));
            }
            for (; x < width; ++x, s += 4, d += 3) {
                d[0] = s[0];
                d[1] = s[1];
                d[2] = s[2];
            }
        }
        return OK;
    }
    if ((sk == Kind::RGB32 && (dk == Kind::ARGB32 || dk == Kind::PARGB32)) ||
        (sk == Kind::ARGB32 && dk == Kind::RGB32)) {
        for (INT y = 0; y < height; ++y) {
            const std::uint8_t* s = RowOf(src, y) + 4 * static_cast<std::ptrdiff_t>(src.x0);
            std::uint8_t* d = RowOf(dst, y) + 4 * static_cast<std::ptrdiff_t>(dst.x0);
            for (INT x = 0; x < width; ++x)
                Store32(d + 4 * x, Load32(s + 4 * x) | 0xFF000000u);
        }
        return OK;
    }

    if (IsWide(sk) && IsWide(dk)) {
        std::vector<Wide> tmp(static_cast<std::size_t>(width));
        for (INT y = 0; y < height; ++y) {
            UnpackWide(sk, RowOf(src, y), src.x0, width, tmp.data());
            PackWide(dk, tmp.data(), width, RowOf(dst, y), dst.x0);
        }
        return OK;
    }

    Lut lut = MakeLut(src.palette, src.palette ? src.paletteCount : 0);
    Nearest nearest(dst.palette, dst.palette ? dst.paletteCount : 0);
    std::vector<std::uint32_t> tmp(static_cast<std::size_t>(width));
    for (INT y = 0; y < height; ++y) {
        UnpackRow(sk, RowOf(src, y), src.x0, width, tmp.data(), lut);
        PackRow(dk, tmp.data(), width, RowOf(dst, y), dst.x0, &nearest);
    }
    return OK;
}

ARGB ReadPixel(const PixelView& view, INT x, INT y) {
    Kind k = KindOf(view.format);
    std::uint32_t out = 0;
    if (k == Kind::I1 || k == Kind::I4 || k == Kind::I8) {
        UINT idx = GetIndex(k, RowOf(view, y), view.x0 + x);
        return view.palette && idx < view.paletteCount ? view.palette[idx] : 0xFF000000u;
    }
    static const Lut kEmpty = MakeLut(nullptr, 0);
    UnpackRow(k, RowOf(view, y), view.x0 + x, 1, &out, kEmpty);
    return out;
}

void WritePixel(const PixelView& view, INT x, INT y, ARGB color) {
    Kind k = KindOf(view.format);
    if (k == Kind::I1 || k == Kind::I4 || k == Kind::I8) {
        SetIndex(k, RowOf(view, y), view.x0 + x,
                 NearestPaletteIndex(view.palette, view.palette ? view.paletteCount : 0, color));
        return;
    }
    PackRow(k, &color, 1, RowOf(view, y), view.x0 + x, nullptr);
}

void RotateFlipPixels(const PixelView& src, INT W, INT H, const PixelView& dst, INT type) {
    Kind k = KindOf(src.format);
    INT bits = FormatBits(src.format);
    INT r = type & 3;
    bool flip = (type & 4) != 0;
    INT dw = (r & 1) ? H : W, dh = (r & 1) ? W : H;
    // Source coordinate of destination pixel (x, y): sx = cx + x * axx + y * ayx,
    // sy = cy + x * axy + y * ayy.
    INT cx = 0, cy = 0, axx = 0, ayx = 0, axy = 0, ayy = 0;
    switch (r) {
    case 0:
        axx = 1;
        ayy = 1;
        break;
    case 1:
        ayx = 1;
        cy = H - 1;
        axy = -1;
        break;
    case 2:
        cx = W - 1;
        axx = -1;
        cy = H - 1;
        ayy = -1;
        break;
    default:
        cx = W - 1;
        ayx = -1;
        axy = 1;
        break;
    }
    if (flip) {
        // x -> dw - 1 - x
        cx += (dw - 1) * axx;
        cy += (dw - 1) * axy;
        axx = -axx;
        axy = -axy;
    }
    INT bpp = bits / 8;
    for (INT y = 0; y < dh; ++y) {
        std::uint8_t* drow = RowOf(dst, y);
        INT sx = cx + y * ayx, sy = cy + y * ayy;
        if (bits >= 8) {
            std::uint8_t* d = drow + static_cast<std::ptrdiff_t>(dst.x0) * bpp;
            if (axy == 0) {
                // Along a source row.
                const std::uint8_t* srow =
                    RowOf(src, sy) + static_cast<std::ptrdiff_t>(src.x0) * bpp;
                if (axx == 1) {
                    std::memcpy(d, srow + static_cast<std::ptrdiff_t>(sx) * bpp,
                                static_cast<std::size_t>(dw) * bpp);
                } else {
                    for (INT x = 0; x < dw; ++x, d += bpp)
                        std::memcpy(d, srow + static_cast<std::ptrdiff_t>(sx - x) * bpp, bpp);
                }
            } else {
                // Down a source column.
                const std::uint8_t* s =
                    RowOf(src, sy) + static_cast<std::ptrdiff_t>(src.x0 + sx) * bpp;
                std::ptrdiff_t step = src.stride * axy;
                for (INT x = 0; x < dw; ++x, d += bpp, s += step)
                    std::memcpy(d, s, bpp);
            }
        } else {
            for (INT x = 0; x < dw; ++x) {
                INT px = sx + x * axx, py = sy + x * axy;
                SetIndex(k, drow, dst.x0 + x, GetIndex(k, RowOf(src, py), src.x0 + px));
            }
        }
    }
}

} // namespace kestrelyn::engine
