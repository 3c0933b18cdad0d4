// Neighbourhood filters. Each is a loop of its own with its own weights,
// divisor and rounding, in one of two read modes: in place (neighbours above
// and to the left are already filtered when read) or two-buffer (reads
// SourcePixels, writes WorkPixels). Pixels outside a filter's loop bounds keep
// their value; alpha is never touched.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC optimize("O3")
// GCC 12's AVX-512 headers start some intrinsics from a deliberately
// undefined vector, which -Wmaybe-uninitialized reports at every use.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "filters/modFilters.h"

namespace kestrelyn {

namespace {

inline std::int32_t Ch(std::uint32_t p, int shift) {
    return static_cast<std::int32_t>((p >> shift) & 0xFF);
}
inline std::uint32_t Clamp8(std::int32_t v) {
    return static_cast<std::uint32_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
}
inline std::uint32_t Pack(std::uint32_t alphaFrom, std::uint32_t r, std::uint32_t g,
                          std::uint32_t b) {
    return (alphaFrom & 0xFF000000u) | (r << 16) | (g << 8) | b;
}
// Spreads the three colour bytes of a pixel into 16-bit lanes (B 0..15,
// G 16..31, R 32..47) so that sums of up to 256 pixels add lane by lane.
inline std::uint64_t Spread(std::uint32_t p) {
    return (std::uint64_t(p) & 0xFF) | ((std::uint64_t(p) & 0xFF00) << 8) |
           ((std::uint64_t(p) & 0xFF0000) << 16);
}
inline std::int32_t Lane(std::uint64_t s, int k) {
    return static_cast<std::int32_t>((s >> (16 * k)) & 0xFFFF);
}

std::uint32_t BaseColor(const FilterContext& ctx) {
    return static_cast<std::uint32_t>(RoundI(ctx.Param1));
}

const std::uint32_t kAlpha = 0xFF000000u;

// The in-place 8-neighbour family. For row y the part of Sum8 that does not
// involve the left neighbour (the three above, already filtered, the right one
// and the three below, not yet filtered) is summed lane-wise first; the serial
// pass adds the filtered left neighbour and applies fn(c, Sum8) per channel.
template <typename Fn> void InPlace8(FilterContext& ctx, Fn fn) {
    const std::int32_t W = ctx.ZoneWidth, H = ctx.ZoneHeight;
    if (W < 3 || H < 3) return;
    std::vector<std::uint64_t> col(W), part(W);
    std::uint32_t* w = ctx.WorkPixels.data();
    for (std::int32_t y = 1; y < H - 1; ++y) {
        const std::uint32_t* up = w + static_cast<std::size_t>(y - 1) * W;
        std::uint32_t* cur = w + static_cast<std::size_t>(y) * W;
        const std::uint32_t* dn = cur + W;
        for (std::int32_t x = 0; x < W; ++x)
            col[x] = Spread(up[x]) + Spread(dn[x]);
        for (std::int32_t x = 1; x < W - 1; ++x)
            part[x] = col[x - 1] + col[x] + col[x + 1] + Spread(cur[x + 1]);
        std::uint64_t left = Spread(cur[0]);
        for (std::int32_t x = 1; x < W - 1; ++x) {
            const std::uint64_t s = part[x] + left;
            const std::uint32_t c = cur[x];
            const std::uint32_t b = fn(Ch(c, 0), Lane(s, 0));
            const std::uint32_t g = fn(Ch(c, 8), Lane(s, 1));
            const std::uint32_t r = fn(Ch(c, 16), Lane(s, 2));
            cur[x] = Pack(c, r, g, b);
            left = std::uint64_t(b) | (std::uint64_t(g) << 16) | (std::uint64_t(r) << 32);
        }
    }
}

// Eight pixels' bytes as 16-bit lanes.
__attribute__((target("avx512f,avx512bw"))) inline __m512i Widen8(const std::uint32_t* p) {
    return _mm512_cvtepu8_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
}

// The part of the numerator of Clamp8((c * k - mul * Sum8) / d) without the
// left neighbour, plus `bias`, for x = 1..W-2 of a row, sixteen pixels at a
// time in 16-bit lanes: P[4x + channel] (blue, green, red; the alpha lane is
// unused). The caller ensures every value and partial sum fits 16 bits.
__attribute__((target("avx512f,avx512bw"))) std::int32_t
PartialRowAvx512(const std::uint32_t* up, const std::uint32_t* cur, const std::uint32_t* dn,
                 std::int32_t W, std::int32_t k, std::int32_t mul, std::int32_t bias,
                 std::uint16_t* P) {
    const __m512i vk = _mm512_set1_epi16(static_cast<short>(k));
    const __m512i vmul = _mm512_set1_epi16(static_cast<short>(mul));
    const __m512i vbias = _mm512_set1_epi16(static_cast<short>(bias));
    std::int32_t x = 1;
    for (; x + 8 <= W - 1; x += 8) {
        const __m512i sum = _mm512_add_epi16(
            _mm512_add_epi16(_mm512_add_epi16(Widen8(up + x - 1), Widen8(up + x)),
                             _mm512_add_epi16(Widen8(up + x + 1), Widen8(cur + x + 1))),
            _mm512_add_epi16(_mm512_add_epi16(Widen8(dn + x - 1), Widen8(dn + x)),
                             Widen8(dn + x + 1)));
        const __m512i n = _mm512_add_epi16(_mm512_sub_epi16(_mm512_mullo_epi16(Widen8(cur + x), vk),
                                                            _mm512_mullo_epi16(sum, vmul)),
                                           vbias);
        _mm512_storeu_si512(P + 4 * x, n);
    }
    return x;
}

// The linear members of the in-place 8-neighbour family: Clamp8((c * k -
// mul * Sum8) / d). The numerator spans a small range, so the division and
// the clamp become one byte table indexed by it. For row y the part of the
// numerator without the (already filtered) left neighbour is computed for
// the whole row first, lane by lane; the serial pass then has one table read
// per channel on its chain: the table holds 255 - out, and the index
// (numerator - mul * 255) + mul * (255 - left) is an address plus a scaled
// register, so no arithmetic stands between two reads.
template <int mul>
void InPlace8Serial(FilterContext& ctx, std::int32_t k, std::int32_t d, std::int64_t lo,
                    std::int64_t hi) {
    const std::int32_t W = ctx.ZoneWidth, H = ctx.ZoneHeight;
    const std::int32_t off = static_cast<std::int32_t>(-lo);
    std::vector<std::uint8_t> table(static_cast<std::size_t>(hi - lo + 1));
    for (std::int64_t n = lo; n <= hi; ++n)
        table[static_cast<std::size_t>(n - lo)] =
            static_cast<std::uint8_t>(255 - Clamp8(static_cast<std::int32_t>(n / d)));
    const std::uint8_t* T = table.data();
    // bias: the offset of the table, less mul * 255 for the complemented left
    // neighbour; every index stays at or above 0.
    const std::int32_t bias = off - mul * 255;
    const bool bVector =
        FilterVectorLevel() >= kVectorsAvx512 && hi - lo + 1 <= 32768 && 255LL * k + off < 32768;
    std::vector<std::uint16_t> P(4 * static_cast<std::size_t>(W) + 64);
    std::uint32_t* w = ctx.WorkPixels.data();
    for (std::int32_t y = 1; y < H - 1; ++y) {
        const std::uint32_t* up = w + static_cast<std::size_t>(y - 1) * W;
        std::uint32_t* cur = w + static_cast<std::size_t>(y) * W;
        const std::uint32_t* dn = cur + W;
        std::int32_t x = bVector ? PartialRowAvx512(up, cur, dn, W, k, mul, bias, P.data()) : 1;
        for (; x < W - 1; ++x) {
            const std::uint32_t a0 = up[x - 1], a1 = up[x], a2 = up[x + 1], c = cur[x],
                                c1 = cur[x + 1], b0 = dn[x - 1], b1 = dn[x], b2 = dn[x + 1];
            for (int ch = 0; ch < 3; ++ch) {
                const int sh = 8 * ch;
                const std::int32_t sum = Ch(a0, sh) + Ch(a1, sh) + Ch(a2, sh) + Ch(c1, sh) +
                                         Ch(b0, sh) + Ch(b1, sh) + Ch(b2, sh);
                P[4 * static_cast<std::size_t>(x) + ch] =
                    static_cast<std::uint16_t>(Ch(c, sh) * k - mul * sum + bias);
            }
        }
        // Pointer-wide so that mul * u is the scaled index of the read itself;
        // the empty asm keeps the compiler from moving the addition of the
        // row's part onto the chain.
        std::size_t ub = 255 - Ch(cur[0], 0), ug = 255 - Ch(cur[0], 8), ur = 255 - Ch(cur[0], 16);
        const std::uint16_t* q = P.data();
        for (x = 1; x < W - 1; ++x) {
            const std::uint8_t *tb = T + q[4 * x], *tg = T + q[4 * x + 1], *tr = T + q[4 * x + 2];
            asm("" : "+r"(tb), "+r"(tg), "+r"(tr));
            ub = tb[mul * ub];
            ug = tg[mul * ug];
            ur = tr[mul * ur];
            cur[x] = (cur[x] & kAlpha) |
                     (static_cast<std::uint32_t>((ur << 16) | (ug << 8) | ub) ^ 0x00FFFFFFu);
        }
    }
}

bool InPlace8Linear(FilterContext& ctx, std::int32_t k, std::int32_t mul, std::int32_t d) {
    const std::int32_t W = ctx.ZoneWidth, H = ctx.ZoneHeight;
    const std::int64_t lo = std::min<std::int64_t>(0, 255LL * k) - 2040LL * std::max(mul, 0) +
                            2040LL * std::min(mul, 0);
    const std::int64_t hi = std::max<std::int64_t>(0, 255LL * k) + 2040LL * std::max(-mul, 0);
    if (hi - lo + 1 > (1 << 16) || d == 0 || (mul != 1 && mul != 2)) return false;
    if (W < 3 || H < 3) return true;
    if (mul == 1)
        InPlace8Serial<1>(ctx, k, d, lo, hi);
    else
        InPlace8Serial<2>(ctx, k, d, lo, hi);
    return true;
}

// The in-place 4-neighbour (cross) family: fn(c, left + right + up + down).
template <typename Fn> void InPlaceCross(FilterContext& ctx, Fn fn) {
    const std::int32_t W = ctx.ZoneWidth, H = ctx.ZoneHeight;
    if (W < 3 || H < 3) return;
    std::uint32_t* w = ctx.WorkPixels.data();
    for (std::int32_t y = 1; y < H - 1; ++y) {
        std::uint32_t* cur = w + static_cast<std::size_t>(y) * W;
        const std::uint32_t* up = cur - W;
        const std::uint32_t* dn = cur + W;
        for (std::int32_t x = 1; x < W - 1; ++x) {
            const std::uint64_t s =
                Spread(cur[x - 1]) + Spread(cur[x + 1]) + Spread(up[x]) + Spread(dn[x]);
            const std::uint32_t c = cur[x];
            const std::uint32_t b = fn(Ch(c, 0), Lane(s, 0));
            const std::uint32_t g = fn(Ch(c, 8), Lane(s, 1));
            const std::uint32_t r = fn(Ch(c, 16), Lane(s, 2));
            cur[x] = Pack(c, r, g, b);
        }
    }
}

// Two-buffer 3x3 family over the interior: fn(src, index, shift) per channel.
template <typename Fn> void TwoBuffer3(FilterContext& ctx, Fn fn) {
    const std::int32_t W = ctx.ZoneWidth, H = ctx.ZoneHeight;
    if (W < 3 || H < 3) return;
    const std::uint32_t* s = ctx.SourcePixels.data();
    std::uint32_t* w = ctx.WorkPixels.data();
    for (std::int32_t y = 1; y < H - 1; ++y)
        for (std::int32_t x = 1; x < W - 1; ++x) {
            const std::size_t i = static_cast<std::size_t>(y) * W + x;
            w[i] = Pack(s[i], fn(s, i, W, 16), fn(s, i, W, 8), fn(s, i, W, 0));
        }
}

} // namespace

// id 1: sharpen, s = Param1 (2 or 0).
void FilterSharpen(FilterContext& ctx) {
    const std::int32_t s = RoundI(ctx.Param1);
    const std::int32_t k = s + 24, d = s + 8;
    if (d == 0) throw std::domain_error("division by zero");
    if (InPlace8Linear(ctx, k, 2, d)) return;
    InPlace8(ctx, [k, d](std::int32_t c, std::int32_t sum8) -> std::uint32_t {
        return Clamp8((c * k - 2 * sum8) / d);
    });
}

// id 3: mean of the eight neighbours; the centre does not count.
void FilterBlur(FilterContext& ctx) {
    const std::int32_t W = ctx.ZoneWidth, H = ctx.ZoneHeight;
    if (W < 3 || H < 3) return;
    std::vector<std::uint64_t> col(W), part(W);
    std::uint32_t* w = ctx.WorkPixels.data();
    const std::uint64_t mask = 0x000000FF00FF00FFull;
    for (std::int32_t y = 1; y < H - 1; ++y) {
        const std::uint32_t* up = w + static_cast<std::size_t>(y - 1) * W;
        std::uint32_t* cur = w + static_cast<std::size_t>(y) * W;
        const std::uint32_t* dn = cur + W;
        for (std::int32_t x = 0; x < W; ++x)
            col[x] = Spread(up[x]) + Spread(dn[x]);
        for (std::int32_t x = 1; x < W - 1; ++x)
            part[x] = col[x - 1] + col[x] + col[x + 1] + Spread(cur[x + 1]);
        // Every lane of the sum stays below 2048, so one shift and one mask
        // divide the three channels by 8 at once.
        std::uint64_t left = Spread(cur[0]);
        for (std::int32_t x = 1; x < W - 1; ++x) {
            left = ((part[x] + left) >> 3) & mask;
            part[x] = left;
        }
        for (std::int32_t x = 1; x < W - 1; ++x) {
            const std::uint64_t v = part[x];
            cur[x] = (cur[x] & kAlpha) | static_cast<std::uint32_t>(v & 0xFF) |
                     static_cast<std::uint32_t>((v >> 8) & 0xFF00) |
                     static_cast<std::uint32_t>((v >> 16) & 0xFF0000);
        }
    }
}

// id 5: five-point mean.
void FilterSmooth(FilterContext& ctx) {
    InPlaceCross(ctx, [](std::int32_t c, std::int32_t sum4) -> std::uint32_t {
        return static_cast<std::uint32_t>((c + sum4) / 5);
    });
}

// id 6: edge enhance, s = Param1.
void FilterEdgeEnhance(FilterContext& ctx) {
    const std::int32_t s = RoundI(ctx.Param1);
    const std::int32_t k = s + 9, d = s + 1;
    if (d == 0) throw std::domain_error("division by zero");
    if (InPlace8Linear(ctx, k, 1, d)) return;
    InPlace8(ctx, [k, d](std::int32_t c, std::int32_t sum8) -> std::uint32_t {
        return Clamp8((c * k - sum8) / d);
    });
}

// id 33: weighted cross mean without a clamp; v = 105 divides by zero.
void FilterSoften(FilterContext& ctx) {
    const std::int32_t v = RoundI(ctx.Param1);
    const std::int32_t k = 101 - v, d = 105 - v;
    if (ctx.ZoneWidth < 3 || ctx.ZoneHeight < 3) return;
    if (d == 0) throw std::domain_error("division by zero");
    InPlaceCross(ctx, [k, d](std::int32_t c, std::int32_t sum4) -> std::uint32_t {
        const std::int32_t r = (c * k + sum4) / d;
        if (r < 0 || r > 255) throw std::range_error("byte overflow");
        return static_cast<std::uint32_t>(r);
    });
}

// id 7: contour, 8c - Sum8 + base(c).
void FilterContour(FilterContext& ctx) {
    const std::uint32_t base = BaseColor(ctx);
    TwoBuffer3(ctx, [base](const std::uint32_t* s, std::size_t i, std::int32_t W, int sh) {
        const std::int32_t sum8 = Ch(s[i - W - 1], sh) + Ch(s[i - W], sh) + Ch(s[i - W + 1], sh) +
                                  Ch(s[i - 1], sh) + Ch(s[i + 1], sh) + Ch(s[i + W - 1], sh) +
                                  Ch(s[i + W], sh) + Ch(s[i + W + 1], sh);
        return Clamp8(8 * Ch(s[i], sh) - sum8 + Ch(base, sh));
    });
}

// id 13: relief.
void FilterRelief(FilterContext& ctx) {
    TwoBuffer3(ctx, [](const std::uint32_t* s, std::size_t i, std::int32_t W, int sh) {
        const std::int32_t v = Ch(s[i], sh) + 2 * Ch(s[i - W - 1], sh) + Ch(s[i - 1], sh) +
                               Ch(s[i - W], sh) - Ch(s[i + W], sh) - Ch(s[i + 1], sh) -
                               2 * Ch(s[i + W + 1], sh);
        return Clamp8(v / 2 + 50);
    });
}

// id 27: centre minus the 3x3 minimum, per channel.
void FilterConnectedContour(FilterContext& ctx) {
    TwoBuffer3(ctx, [](const std::uint32_t* s, std::size_t i, std::int32_t W, int sh) {
        std::int32_t m = 255;
        for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx)
                m = std::min(m, Ch(s[i + dy * W + dx], sh));
        return static_cast<std::uint32_t>(Ch(s[i], sh) - m);
    });
}

// ids 9 and 11: the stronger relief pair; sign -1 for emboss, +1 for engrave.
// Red gets e(B), green e(G), blue e(R).
namespace {
void ReliefMore(FilterContext& ctx, std::int32_t sign) {
    const std::uint32_t base = BaseColor(ctx);
    const std::int32_t W = ctx.ZoneWidth, H = ctx.ZoneHeight;
    if (W < 3 || H < 3) return;
    const std::uint32_t* s = ctx.SourcePixels.data();
    std::uint32_t* w = ctx.WorkPixels.data();
    auto e = [&](std::size_t i, int sh) {
        const std::int32_t diff = (Ch(s[i - W + 1], sh) - Ch(s[i - W - 1], sh)) +
                                  (Ch(s[i + 1], sh) - Ch(s[i - 1], sh)) +
                                  (Ch(s[i + W + 1], sh) - Ch(s[i + W - 1], sh));
        return Clamp8(sign * diff + Ch(base, sh));
    };
    for (std::int32_t y = 1; y < H - 1; ++y)
        for (std::int32_t x = 1; x < W - 1; ++x) {
            const std::size_t i = static_cast<std::size_t>(y) * W + x;
            w[i] = Pack(s[i], e(i, 0), e(i, 8), e(i, 16));
        }
}

// ids 8 and 10: in place over 1..W-1, 1..H-1 against the pixel down-right.
void ReliefDiagonal(FilterContext& ctx, bool bEngrave) {
    const std::uint32_t base = BaseColor(ctx);
    const std::int32_t W = ctx.ZoneWidth, H = ctx.ZoneHeight;
    std::uint32_t* w = ctx.WorkPixels.data();
    for (std::int32_t y = 0; y < H - 1; ++y)
        for (std::int32_t x = 0; x < W - 1; ++x) {
            const std::size_t i = static_cast<std::size_t>(y) * W + x;
            const std::uint32_t c = w[i], d = w[i + W + 1];
            auto e = [&](int sh) {
                const std::int32_t diff = bEngrave ? Ch(d, sh) - Ch(c, sh) : Ch(c, sh) - Ch(d, sh);
                return Clamp8(std::abs(diff + Ch(base, sh)));
            };
            const std::uint32_t eb = e(0), eg = e(8);
            w[i] = bEngrave ? Pack(c, eb, eg, e(16)) : Pack(c, eb, eg, eg);
        }
}
} // namespace

void FilterEmboss(FilterContext& ctx) {
    ReliefDiagonal(ctx, false);
}
void FilterEngrave(FilterContext& ctx) {
    ReliefDiagonal(ctx, true);
}
void FilterEmbossMore(FilterContext& ctx) {
    ReliefMore(ctx, -1);
}
void FilterEngraveMore(FilterContext& ctx) {
    ReliefMore(ctx, 1);
}

// id 4: random displacement in place; a step that leaves the zone becomes 0.
void FilterDiffuse(FilterContext& ctx) {
    std::int32_t n = RoundI(ctx.Param1);
    if (n <= 0) n = 6;
    const std::int32_t h = RoundI(n / 2.0);
    const std::int32_t W = ctx.ZoneWidth, H = ctx.ZoneHeight;
    std::uint32_t* w = ctx.WorkPixels.data();
    for (std::int32_t y = 0; y < H; ++y)
        for (std::int32_t x = 0; x < W; ++x) {
            const float r1 = NextFilterRandom();
            std::int32_t dx = RoundI(static_cast<double>(r1) * n - h);
            const float r2 = NextFilterRandom();
            std::int32_t dy = RoundI(static_cast<double>(r2) * n - h);
            if (x + dx < 0 || x + dx >= W) dx = 0;
            if (y + dy < 0 || y + dy >= H) dy = 0;
            const std::size_t i = static_cast<std::size_t>(y) * W + x;
            const std::uint32_t from = w[static_cast<std::size_t>(y + dy) * W + x + dx];
            w[i] = (w[i] & kAlpha) | (from & 0x00FFFFFFu);
        }
}

// id 24: Kuwahara filter on four overlapping 3x3 squares, per channel.
void FilterAqua(FilterContext& ctx) {
    const std::int32_t W = ctx.ZoneWidth, H = ctx.ZoneHeight;
    if (W < 5 || H < 5) return;
    const std::uint32_t* s = ctx.SourcePixels.data();
    std::uint32_t* w = ctx.WorkPixels.data();
    static const int ox[4] = {-2, 0, -2, 0}, oy[4] = {-2, -2, 0, 0};
    for (std::int32_t y = 2; y < H - 2; ++y)
        for (std::int32_t x = 2; x < W - 2; ++x) {
            std::uint32_t out[3];
            for (int k = 0; k < 3; ++k) {
                const int sh = 16 - 8 * k; // red, green, blue
                std::int32_t best = 0, lowest = 99999;
                for (int q = 0; q < 4; ++q) {
                    std::int32_t sum = 0;
                    for (int dy = 0; dy < 3; ++dy)
                        for (int dx = 0; dx < 3; ++dx)
                            sum +=
                                Ch(s[static_cast<std::size_t>(y + oy[q] + dy) * W + x + ox[q] + dx],
                                   sh);
                    const std::int32_t mean = sum / 9;
                    std::int32_t spread = 0;
                    for (int dy = 0; dy < 3; ++dy)
                        for (int dx = 0; dx < 3; ++dx)
                            spread += std::abs(
                                Ch(s[static_cast<std::size_t>(y + oy[q] + dy) * W + x + ox[q] + dx],
                                   sh) -
                                mean);
                    if (spread < lowest) {
                        lowest = spread;
                        best = mean;
                    }
                }
                out[k] = static_cast<std::uint32_t>(best);
            }
            const std::size_t i = static_cast<std::size_t>(y) * W + x;
            w[i] = Pack(s[i], out[0], out[1], out[2]);
        }
}

// --- byte-wise min/max filters: four pixels per 16-byte vector; the channels
// are independent bytes, so a per-byte minimum or maximum is the per-channel
// result. Alpha is restored from the pixel afterwards. ---
namespace {

inline __m128i Load(const std::uint32_t* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}
// Stores the colour bytes of `v` with the alpha bytes of the source pixels.
inline void StoreKeepAlpha(std::uint32_t* p, const std::uint32_t* alphaFrom, __m128i v) {
    const __m128i am = _mm_set1_epi32(static_cast<int>(kAlpha));
    const __m128i old = Load(alphaFrom);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p),
                     _mm_or_si128(_mm_and_si128(old, am), _mm_andnot_si128(am, v)));
}

// Eight pixels to a 32-byte vector on processors with AVX2, chosen at run
// time (the code runs on any x86-64).
__attribute__((target("avx2"))) inline __m256i Load256(const std::uint32_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

bool HaveAvx2() {
    static const bool b = __builtin_cpu_supports("avx2");
    return b;
}

// The 3x3 channel maximum (bMax) or minimum of one row from the rows above
// (a), at (b) and below (c), into out[1..W-2]; alpha comes from b.
template <bool bMax>
__attribute__((target("avx512f,avx512bw"))) std::int32_t
ExtremeRow3Avx512(const std::uint32_t* a, const std::uint32_t* b, const std::uint32_t* c,
                  std::uint32_t* out, std::int32_t W) {
    std::int32_t x = 1;
    for (; x + 16 <= W - 1; x += 16) {
        __m512i v[3];
        for (int j = 0; j < 3; ++j) {
            const __m512i p = _mm512_loadu_si512(a + x - 1 + j),
                          q = _mm512_loadu_si512(b + x - 1 + j),
                          r = _mm512_loadu_si512(c + x - 1 + j);
            v[j] = bMax ? _mm512_max_epu8(_mm512_max_epu8(p, q), r)
                        : _mm512_min_epu8(_mm512_min_epu8(p, q), r);
        }
        const __m512i e = bMax ? _mm512_max_epu8(_mm512_max_epu8(v[0], v[1]), v[2])
                               : _mm512_min_epu8(_mm512_min_epu8(v[0], v[1]), v[2]);
        _mm512_storeu_si512(
            out + x, _mm512_mask_blend_epi8(0x8888888888888888ull, e, _mm512_loadu_si512(b + x)));
    }
    return x;
}

template <bool bMax>
void ExtremeRow3(const std::uint32_t* a, const std::uint32_t* b, const std::uint32_t* c,
                 std::uint32_t* out, std::int32_t W, int nVectors) {
    std::int32_t x = nVectors >= kVectorsAvx512 ? ExtremeRow3Avx512<bMax>(a, b, c, out, W) : 1;
    auto op = [](__m128i p, __m128i q) { return bMax ? _mm_max_epu8(p, q) : _mm_min_epu8(p, q); };
    for (; x + 4 <= W - 1; x += 4) {
        __m128i v = op(op(Load(a + x - 1), Load(a + x)), Load(a + x + 1));
        v = op(v, op(op(Load(b + x - 1), Load(b + x)), Load(b + x + 1)));
        v = op(v, op(op(Load(c + x - 1), Load(c + x)), Load(c + x + 1)));
        StoreKeepAlpha(out + x, b + x, v);
    }
    for (; x < W - 1; ++x) {
        std::uint32_t o[3];
        for (int k = 0; k < 3; ++k) {
            std::int32_t m = bMax ? 0 : 255;
            for (int dx = -1; dx <= 1; ++dx)
                for (const std::uint32_t* r : {a, b, c}) {
                    const std::int32_t v = Ch(r[x + dx], 8 * k);
                    m = bMax ? std::max(m, v) : std::min(m, v);
                }
            o[k] = static_cast<std::uint32_t>(m);
        }
        out[x] = Pack(b[x], o[2], o[1], o[0]);
    }
}

// A 3x3 two-buffer filter row by row: row(above, at, below, out, W).
template <typename Row> void RowsTwoBuffer(FilterContext& ctx, Row row) {
    const std::int32_t W = ctx.ZoneWidth, H = ctx.ZoneHeight;
    if (W < 3 || H < 3) return;
    const std::uint32_t* s = ctx.SourcePixels.data();
    std::uint32_t* w = ctx.WorkPixels.data();
    for (std::int32_t y = 1; y < H - 1; ++y) {
        const std::size_t i = static_cast<std::size_t>(y) * W;
        row(s + i - W, s + i, s + i + W, w + i, W);
    }
}

// The same in WorkPixels alone: each row is kept as it came before it is
// overwritten, since the next row reads it; the row below is still untouched
// when it is read. The result equals the two-buffer form.
template <typename Row> void RowsInPlace(FilterContext& ctx, Row row) {
    const std::int32_t W = ctx.ZoneWidth, H = ctx.ZoneHeight;
    if (W < 3 || H < 3) return;
    std::uint32_t* w = ctx.WorkPixels.data();
    std::vector<std::uint32_t> ring(2 * static_cast<std::size_t>(W));
    std::uint32_t* above = ring.data();
    std::uint32_t* cur = ring.data() + W;
    const std::size_t rowBytes = static_cast<std::size_t>(W) * sizeof(std::uint32_t);
    std::memcpy(above, w, rowBytes);
    for (std::int32_t y = 1; y < H - 1; ++y) {
        std::uint32_t* at = w + static_cast<std::size_t>(y) * W;
        std::memcpy(cur, at, rowBytes);
        row(above, cur, at + W, at, W);
        std::swap(above, cur);
    }
}

template <bool bMax> auto ExtremeRows() {
    return [n = FilterVectorLevel()](const std::uint32_t* a, const std::uint32_t* b,
                                     const std::uint32_t* c, std::uint32_t* out,
                                     std::int32_t W) { ExtremeRow3<bMax>(a, b, c, out, W, n); };
}

std::uint32_t MedianScalar(const std::uint32_t* s, std::size_t i, std::int32_t W, int r) {
    std::uint32_t out[3];
    std::int32_t v[25];
    for (int k = 0; k < 3; ++k) {
        int n = 0;
        for (int dy = -r; dy <= r; ++dy)
            for (int dx = -r; dx <= r; ++dx)
                v[n++] = Ch(s[i + static_cast<std::ptrdiff_t>(dy) * W + dx], 8 * k);
        std::nth_element(v, v + n / 2, v + n);
        out[k] = static_cast<std::uint32_t>(v[n / 2]);
    }
    return Pack(s[i], out[2], out[1], out[0]);
}

} // namespace

void FilterDilate(FilterContext& ctx) {
    RowsTwoBuffer(ctx, ExtremeRows<true>());
}
void FilterErode(FilterContext& ctx) {
    RowsTwoBuffer(ctx, ExtremeRows<false>());
}
void FilterDilateInPlace(FilterContext& ctx) {
    RowsInPlace(ctx, ExtremeRows<true>());
}
void FilterErodeInPlace(FilterContext& ctx) {
    RowsInPlace(ctx, ExtremeRows<false>());
}

namespace {
// The 3x3 median of one row, from the row above (a), the row itself (b) and
// the row below (c), into out[1..W-2]; alpha comes from b. Each column of
// three is sorted, and the median of nine is the median of (largest of the
// column minima, median of the column medians, smallest of the column
// maxima). Bytes are independent, so whole pixels go through per-byte
// minima and maxima.
#define KY_MEDIAN9(NAME, ATTR, V, MN, MX)                                                          \
    ATTR inline V NAME(const V* a, const V* b, const V* c) {                                       \
        V lo[3], mid[3], hi[3];                                                                    \
        for (int j = 0; j < 3; ++j) {                                                              \
            const V l1 = MN(a[j], b[j]), h1 = MX(a[j], b[j]);                                      \
            lo[j] = MN(l1, c[j]);                                                                  \
            const V t = MX(l1, c[j]);                                                              \
            mid[j] = MN(h1, t);                                                                    \
            hi[j] = MX(h1, t);                                                                     \
        }                                                                                          \
        const V top = MX(MX(lo[0], lo[1]), lo[2]);                                                 \
        const V bottom = MN(MN(hi[0], hi[1]), hi[2]);                                              \
        const V m = MX(MN(mid[0], mid[1]), MN(MX(mid[0], mid[1]), mid[2]));                        \
        return MX(MN(top, m), MN(MX(top, m), bottom));                                             \
    }
KY_MEDIAN9(Median9x16, __attribute__((target("avx512f,avx512bw"))), __m512i, _mm512_min_epu8,
           _mm512_max_epu8)
KY_MEDIAN9(Median9x8, __attribute__((target("avx2"))), __m256i, _mm256_min_epu8, _mm256_max_epu8)
KY_MEDIAN9(Median9x4, , __m128i, _mm_min_epu8, _mm_max_epu8)
#undef KY_MEDIAN9

std::uint32_t Median9Scalar(const std::uint32_t* a, const std::uint32_t* b, const std::uint32_t* c,
                            std::int32_t x) {
    std::uint32_t out = b[x] & kAlpha;
    for (int k = 0; k < 24; k += 8) {
        std::uint32_t v[9];
        for (int j = 0; j < 3; ++j) {
            v[j] = (a[x - 1 + j] >> k) & 0xFF;
            v[3 + j] = (b[x - 1 + j] >> k) & 0xFF;
            v[6 + j] = (c[x - 1 + j] >> k) & 0xFF;
        }
        std::nth_element(v, v + 4, v + 9);
        out |= v[4] << k;
    }
    return out;
}

__attribute__((target("avx512f,avx512bw"))) std::int32_t
MedianRow3Avx512(const std::uint32_t* a, const std::uint32_t* b, const std::uint32_t* c,
                 std::uint32_t* out, std::int32_t W) {
    std::int32_t x = 1;
    for (; x + 16 <= W - 1; x += 16) {
        const __m512i va[3] = {_mm512_loadu_si512(a + x - 1), _mm512_loadu_si512(a + x),
                               _mm512_loadu_si512(a + x + 1)};
        const __m512i vb[3] = {_mm512_loadu_si512(b + x - 1), _mm512_loadu_si512(b + x),
                               _mm512_loadu_si512(b + x + 1)};
        const __m512i vc[3] = {_mm512_loadu_si512(c + x - 1), _mm512_loadu_si512(c + x),
                               _mm512_loadu_si512(c + x + 1)};
        const __m512i v = Median9x16(va, vb, vc);
        _mm512_storeu_si512(out + x, _mm512_mask_blend_epi8(0x8888888888888888ull, v, vb[1]));
    }
    return x;
}

__attribute__((target("avx2"))) std::int32_t
MedianRow3Avx2(const std::uint32_t* a, const std::uint32_t* b, const std::uint32_t* c,
               std::uint32_t* out, std::int32_t W, std::int32_t x) {
    const __m256i am = _mm256_set1_epi32(static_cast<int>(kAlpha));
    for (; x + 8 <= W - 1; x += 8) {
        const __m256i va[3] = {Load256(a + x - 1), Load256(a + x), Load256(a + x + 1)};
        const __m256i vb[3] = {Load256(b + x - 1), Load256(b + x), Load256(b + x + 1)};
        const __m256i vc[3] = {Load256(c + x - 1), Load256(c + x), Load256(c + x + 1)};
        const __m256i v = Median9x8(va, vb, vc);
        _mm256_storeu_si256(
            reinterpret_cast<__m256i*>(out + x),
            _mm256_or_si256(_mm256_and_si256(vb[1], am), _mm256_andnot_si256(am, v)));
    }
    return x;
}

void MedianRow3(const std::uint32_t* a, const std::uint32_t* b, const std::uint32_t* c,
                std::uint32_t* out, std::int32_t W, int nVectors) {
    std::int32_t x = 1;
    if (nVectors >= kVectorsAvx512) x = MedianRow3Avx512(a, b, c, out, W);
    if (nVectors >= kVectorsAvx2) x = MedianRow3Avx2(a, b, c, out, W, x);
    for (; x + 4 <= W - 1; x += 4) {
        const __m128i va[3] = {Load(a + x - 1), Load(a + x), Load(a + x + 1)};
        const __m128i vb[3] = {Load(b + x - 1), Load(b + x), Load(b + x + 1)};
        const __m128i vc[3] = {Load(c + x - 1), Load(c + x), Load(c + x + 1)};
        StoreKeepAlpha(out + x, b + x, Median9x4(va, vb, vc));
    }
    for (; x < W - 1; ++x)
        out[x] = Median9Scalar(a, b, c, x);
}
} // namespace

namespace {
auto MedianRows() {
    return [n = FilterVectorLevel()](const std::uint32_t* a, const std::uint32_t* b,
                                     const std::uint32_t* c, std::uint32_t* out,
                                     std::int32_t W) { MedianRow3(a, b, c, out, W, n); };
}
} // namespace

// id 61: 3x3 median per channel.
void FilterDespeckle(FilterContext& ctx) {
    RowsTwoBuffer(ctx, MedianRows());
}
void FilterDespeckleInPlace(FilterContext& ctx) {
    RowsInPlace(ctx, MedianRows());
}

namespace {
inline __m128i Median25(const std::uint32_t* c, std::int32_t W) {
    const __m128i v0 = Load(c + (-2) * static_cast<std::ptrdiff_t>(W) + (-2));
    const __m128i v1 = Load(c + (-2) * static_cast<std::ptrdiff_t>(W) + (-1));
    const __m128i v2 = Load(c + (-2) * static_cast<std::ptrdiff_t>(W) + (0));
    const __m128i v3 = Load(c + (-2) * static_cast<std::ptrdiff_t>(W) + (1));
    const __m128i v4 = Load(c + (-2) * static_cast<std::ptrdiff_t>(W) + (2));
    const __m128i v5 = Load(c + (-1) * static_cast<std::ptrdiff_t>(W) + (-2));
    const __m128i v6 = Load(c + (-1) * static_cast<std::ptrdiff_t>(W) + (-1));
    const __m128i v7 = Load(c + (-1) * static_cast<std::ptrdiff_t>(W) + (0));
    const __m128i v8 = Load(c + (-1) * static_cast<std::ptrdiff_t>(W) + (1));
    const __m128i v9 = Load(c + (-1) * static_cast<std::ptrdiff_t>(W) + (2));
    const __m128i v10 = Load(c + (0) * static_cast<std::ptrdiff_t>(W) + (-2));
    const __m128i v11 = Load(c + (0) * static_cast<std::ptrdiff_t>(W) + (-1));
    const __m128i v12 = Load(c + (0) * static_cast<std::ptrdiff_t>(W) + (0));
    const __m128i v13 = Load(c + (0) * static_cast<std::ptrdiff_t>(W) + (1));
    const __m128i v14 = Load(c + (0) * static_cast<std::ptrdiff_t>(W) + (2));
    const __m128i v15 = Load(c + (1) * static_cast<std::ptrdiff_t>(W) + (-2));
    const __m128i v16 = Load(c + (1) * static_cast<std::ptrdiff_t>(W) + (-1));
    const __m128i v17 = Load(c + (1) * static_cast<std::ptrdiff_t>(W) + (0));
    const __m128i v18 = Load(c + (1) * static_cast<std::ptrdiff_t>(W) + (1));
    const __m128i v19 = Load(c + (1) * static_cast<std::ptrdiff_t>(W) + (2));
    const __m128i v20 = Load(c + (2) * static_cast<std::ptrdiff_t>(W) + (-2));
    const __m128i v21 = Load(c + (2) * static_cast<std::ptrdiff_t>(W) + (-1));
    const __m128i v22 = Load(c + (2) * static_cast<std::ptrdiff_t>(W) + (0));
    const __m128i v23 = Load(c + (2) * static_cast<std::ptrdiff_t>(W) + (1));
    const __m128i v24 = Load(c + (2) * static_cast<std::ptrdiff_t>(W) + (2));
    const __m128i v25 = _mm_min_epu8(v0, v1), v26 = _mm_max_epu8(v0, v1);
    const __m128i v27 = _mm_min_epu8(v2, v3), v28 = _mm_max_epu8(v2, v3);
    const __m128i v29 = _mm_min_epu8(v4, v5), v30 = _mm_max_epu8(v4, v5);
    const __m128i v31 = _mm_min_epu8(v6, v7), v32 = _mm_max_epu8(v6, v7);
    const __m128i v33 = _mm_min_epu8(v8, v9), v34 = _mm_max_epu8(v8, v9);
    const __m128i v35 = _mm_min_epu8(v10, v11), v36 = _mm_max_epu8(v10, v11);
    const __m128i v37 = _mm_min_epu8(v12, v13), v38 = _mm_max_epu8(v12, v13);
    const __m128i v39 = _mm_min_epu8(v14, v15), v40 = _mm_max_epu8(v14, v15);
    const __m128i v41 = _mm_min_epu8(v16, v17), v42 = _mm_max_epu8(v16, v17);
    const __m128i v43 = _mm_min_epu8(v18, v19), v44 = _mm_max_epu8(v18, v19);
    const __m128i v45 = _mm_min_epu8(v20, v21), v46 = _mm_max_epu8(v20, v21);
    const __m128i v47 = _mm_min_epu8(v22, v23), v48 = _mm_max_epu8(v22, v23);
    const __m128i v49 = _mm_min_epu8(v25, v27), v50 = _mm_max_epu8(v25, v27);
    const __m128i v51 = _mm_min_epu8(v26, v28), v52 = _mm_max_epu8(v26, v28);
    const __m128i v53 = _mm_min_epu8(v29, v31), v54 = _mm_max_epu8(v29, v31);
    const __m128i v55 = _mm_min_epu8(v30, v32), v56 = _mm_max_epu8(v30, v32);
    const __m128i v57 = _mm_min_epu8(v33, v35), v58 = _mm_max_epu8(v33, v35);
    const __m128i v59 = _mm_min_epu8(v34, v36), v60 = _mm_max_epu8(v34, v36);
    const __m128i v61 = _mm_min_epu8(v37, v39), v62 = _mm_max_epu8(v37, v39);
    const __m128i v63 = _mm_min_epu8(v38, v40), v64 = _mm_max_epu8(v38, v40);
    const __m128i v65 = _mm_min_epu8(v41, v43), v66 = _mm_max_epu8(v41, v43);
    const __m128i v67 = _mm_min_epu8(v42, v44), v68 = _mm_max_epu8(v42, v44);
    const __m128i v69 = _mm_min_epu8(v45, v47), v70 = _mm_max_epu8(v45, v47);
    const __m128i v71 = _mm_min_epu8(v46, v48), v72 = _mm_max_epu8(v46, v48);
    const __m128i v73 = _mm_min_epu8(v51, v50), v74 = _mm_max_epu8(v51, v50);
    const __m128i v75 = _mm_min_epu8(v55, v54), v76 = _mm_max_epu8(v55, v54);
    const __m128i v77 = _mm_min_epu8(v59, v58), v78 = _mm_max_epu8(v59, v58);
    const __m128i v79 = _mm_min_epu8(v63, v62), v80 = _mm_max_epu8(v63, v62);
    const __m128i v81 = _mm_min_epu8(v67, v66), v82 = _mm_max_epu8(v67, v66);
    const __m128i v83 = _mm_min_epu8(v71, v70), v84 = _mm_max_epu8(v71, v70);
    const __m128i v85 = _mm_min_epu8(v49, v53), v86 = _mm_max_epu8(v49, v53);
    const __m128i v87 = _mm_min_epu8(v73, v75), v88 = _mm_max_epu8(v73, v75);
    const __m128i v89 = _mm_min_epu8(v74, v76), v90 = _mm_max_epu8(v74, v76);
    const __m128i v91 = _mm_min_epu8(v52, v56), v92 = _mm_max_epu8(v52, v56);
    const __m128i v93 = _mm_min_epu8(v57, v61), v94 = _mm_max_epu8(v57, v61);
    const __m128i v95 = _mm_min_epu8(v77, v79), v96 = _mm_max_epu8(v77, v79);
    const __m128i v97 = _mm_min_epu8(v78, v80), v98 = _mm_max_epu8(v78, v80);
    const __m128i v99 = _mm_min_epu8(v60, v64), v100 = _mm_max_epu8(v60, v64);
    const __m128i v101 = _mm_min_epu8(v65, v69), v102 = _mm_max_epu8(v65, v69);
    const __m128i v103 = _mm_min_epu8(v81, v83), v104 = _mm_max_epu8(v81, v83);
    const __m128i v105 = _mm_min_epu8(v82, v84), v106 = _mm_max_epu8(v82, v84);
    const __m128i v107 = _mm_min_epu8(v68, v72), v108 = _mm_max_epu8(v68, v72);
    const __m128i v109 = _mm_min_epu8(v89, v86), v110 = _mm_max_epu8(v89, v86);
    const __m128i v111 = _mm_min_epu8(v91, v88), v112 = _mm_max_epu8(v91, v88);
    const __m128i v113 = _mm_min_epu8(v97, v94), v114 = _mm_max_epu8(v97, v94);
    const __m128i v115 = _mm_min_epu8(v99, v96), v116 = _mm_max_epu8(v99, v96);
    const __m128i v117 = _mm_min_epu8(v105, v102), v118 = _mm_max_epu8(v105, v102);
    const __m128i v119 = _mm_min_epu8(v107, v104), v120 = _mm_max_epu8(v107, v104);
    const __m128i v121 = _mm_min_epu8(v87, v109), v122 = _mm_max_epu8(v87, v109);
    const __m128i v123 = _mm_min_epu8(v111, v110), v124 = _mm_max_epu8(v111, v110);
    const __m128i v125 = _mm_min_epu8(v112, v90), v126 = _mm_max_epu8(v112, v90);
    const __m128i v127 = _mm_min_epu8(v95, v113), v128 = _mm_max_epu8(v95, v113);
    const __m128i v129 = _mm_min_epu8(v115, v114), v130 = _mm_max_epu8(v115, v114);
    const __m128i v131 = _mm_min_epu8(v116, v98), v132 = _mm_max_epu8(v116, v98);
    const __m128i v133 = _mm_min_epu8(v103, v117), v134 = _mm_max_epu8(v103, v117);
    const __m128i v135 = _mm_min_epu8(v119, v118), v136 = _mm_max_epu8(v119, v118);
    const __m128i v137 = _mm_min_epu8(v120, v106), v138 = _mm_max_epu8(v120, v106);
    const __m128i v139 = _mm_min_epu8(v85, v93), v140 = _mm_max_epu8(v85, v93);
    const __m128i v141 = _mm_min_epu8(v121, v127), v142 = _mm_max_epu8(v121, v127);
    const __m128i v143 = _mm_min_epu8(v122, v128), v144 = _mm_max_epu8(v122, v128);
    const __m128i v145 = _mm_min_epu8(v123, v129), v146 = _mm_max_epu8(v123, v129);
    const __m128i v147 = _mm_min_epu8(v124, v130), v148 = _mm_max_epu8(v124, v130);
    const __m128i v149 = _mm_min_epu8(v125, v131), v150 = _mm_max_epu8(v125, v131);
    const __m128i v151 = _mm_min_epu8(v126, v132), v152 = _mm_max_epu8(v126, v132);
    const __m128i v153 = _mm_min_epu8(v92, v100);
    const __m128i v155 = _mm_min_epu8(v101, v24), v156 = _mm_max_epu8(v101, v24);
    const __m128i v157 = _mm_min_epu8(v147, v140), v158 = _mm_max_epu8(v147, v140);
    const __m128i v159 = _mm_min_epu8(v149, v142), v160 = _mm_max_epu8(v149, v142);
    const __m128i v161 = _mm_min_epu8(v151, v144), v162 = _mm_max_epu8(v151, v144);
    const __m128i v163 = _mm_min_epu8(v153, v146), v164 = _mm_max_epu8(v153, v146);
    const __m128i v165 = _mm_min_epu8(v136, v156), v166 = _mm_max_epu8(v136, v156);
    const __m128i v167 = _mm_min_epu8(v143, v157), v168 = _mm_max_epu8(v143, v157);
    const __m128i v169 = _mm_min_epu8(v145, v159), v170 = _mm_max_epu8(v145, v159);
    const __m128i v171 = _mm_min_epu8(v161, v158), v172 = _mm_max_epu8(v161, v158);
    const __m128i v173 = _mm_min_epu8(v163, v160), v174 = _mm_max_epu8(v163, v160);
    const __m128i v175 = _mm_min_epu8(v162, v148), v176 = _mm_max_epu8(v162, v148);
    const __m128i v177 = _mm_min_epu8(v164, v150), v178 = _mm_max_epu8(v164, v150);
    const __m128i v179 = _mm_min_epu8(v134, v165), v180 = _mm_max_epu8(v134, v165);
    const __m128i v181 = _mm_min_epu8(v135, v137), v182 = _mm_max_epu8(v135, v137);
    const __m128i v183 = _mm_min_epu8(v138, v166), v184 = _mm_max_epu8(v138, v166);
    const __m128i v185 = _mm_min_epu8(v141, v167), v186 = _mm_max_epu8(v141, v167);
    const __m128i v187 = _mm_min_epu8(v169, v168), v188 = _mm_max_epu8(v169, v168);
    const __m128i v189 = _mm_min_epu8(v170, v171), v190 = _mm_max_epu8(v170, v171);
    const __m128i v191 = _mm_min_epu8(v173, v172), v192 = _mm_max_epu8(v173, v172);
    const __m128i v193 = _mm_min_epu8(v174, v175), v194 = _mm_max_epu8(v174, v175);
    const __m128i v195 = _mm_min_epu8(v177, v176), v196 = _mm_max_epu8(v177, v176);
    const __m128i v197 = _mm_min_epu8(v178, v152);
    const __m128i v199 = _mm_min_epu8(v133, v179), v200 = _mm_max_epu8(v133, v179);
    const __m128i v201 = _mm_min_epu8(v181, v180), v202 = _mm_max_epu8(v181, v180);
    const __m128i v203 = _mm_min_epu8(v182, v183), v204 = _mm_max_epu8(v182, v183);
    const __m128i v205 = _mm_min_epu8(v108, v184), v206 = _mm_max_epu8(v108, v184);
    const __m128i v208 = _mm_max_epu8(v139, v155);
    const __m128i v210 = _mm_max_epu8(v185, v199);
    const __m128i v212 = _mm_max_epu8(v186, v200);
    const __m128i v214 = _mm_max_epu8(v187, v201);
    const __m128i v216 = _mm_max_epu8(v188, v202);
    const __m128i v218 = _mm_max_epu8(v189, v203);
    const __m128i v219 = _mm_min_epu8(v190, v204);
    const __m128i v221 = _mm_min_epu8(v191, v205);
    const __m128i v223 = _mm_min_epu8(v192, v206);
    const __m128i v226 = _mm_max_epu8(v223, v208);
    const __m128i v228 = _mm_max_epu8(v193, v210);
    const __m128i v229 = _mm_min_epu8(v194, v212);
    const __m128i v231 = _mm_min_epu8(v195, v214);
    const __m128i v233 = _mm_min_epu8(v196, v216);
    const __m128i v235 = _mm_min_epu8(v197, v218);
    const __m128i v246 = _mm_max_epu8(v219, v229);
    const __m128i v248 = _mm_max_epu8(v221, v231);
    const __m128i v249 = _mm_min_epu8(v233, v226);
    const __m128i v251 = _mm_min_epu8(v235, v228);
    const __m128i v268 = _mm_max_epu8(v246, v249);
    const __m128i v269 = _mm_min_epu8(v248, v251);
    const __m128i v292 = _mm_max_epu8(v269, v268);
    return v292;
}

// The same selection network eight pixels at a time.
__attribute__((target("avx2"))) inline __m256i Median25Avx2(const std::uint32_t* c,
                                                            std::int32_t W) {
    const __m256i v0 = Load256(c + (-2) * static_cast<std::ptrdiff_t>(W) + (-2));
    const __m256i v1 = Load256(c + (-2) * static_cast<std::ptrdiff_t>(W) + (-1));
    const __m256i v2 = Load256(c + (-2) * static_cast<std::ptrdiff_t>(W) + (0));
    const __m256i v3 = Load256(c + (-2) * static_cast<std::ptrdiff_t>(W) + (1));
    const __m256i v4 = Load256(c + (-2) * static_cast<std::ptrdiff_t>(W) + (2));
    const __m256i v5 = Load256(c + (-1) * static_cast<std::ptrdiff_t>(W) + (-2));
    const __m256i v6 = Load256(c + (-1) * static_cast<std::ptrdiff_t>(W) + (-1));
    const __m256i v7 = Load256(c + (-1) * static_cast<std::ptrdiff_t>(W) + (0));
    const __m256i v8 = Load256(c + (-1) * static_cast<std::ptrdiff_t>(W) + (1));
    const __m256i v9 = Load256(c + (-1) * static_cast<std::ptrdiff_t>(W) + (2));
    const __m256i v10 = Load256(c + (0) * static_cast<std::ptrdiff_t>(W) + (-2));
    const __m256i v11 = Load256(c + (0) * static_cast<std::ptrdiff_t>(W) + (-1));
    const __m256i v12 = Load256(c + (0) * static_cast<std::ptrdiff_t>(W) + (0));
    const __m256i v13 = Load256(c + (0) * static_cast<std::ptrdiff_t>(W) + (1));
    const __m256i v14 = Load256(c + (0) * static_cast<std::ptrdiff_t>(W) + (2));
    const __m256i v15 = Load256(c + (1) * static_cast<std::ptrdiff_t>(W) + (-2));
    const __m256i v16 = Load256(c + (1) * static_cast<std::ptrdiff_t>(W) + (-1));
    const __m256i v17 = Load256(c + (1) * static_cast<std::ptrdiff_t>(W) + (0));
    const __m256i v18 = Load256(c + (1) * static_cast<std::ptrdiff_t>(W) + (1));
    const __m256i v19 = Load256(c + (1) * static_cast<std::ptrdiff_t>(W) + (2));
    const __m256i v20 = Load256(c + (2) * static_cast<std::ptrdiff_t>(W) + (-2));
    const __m256i v21 = Load256(c + (2) * static_cast<std::ptrdiff_t>(W) + (-1));
    const __m256i v22 = Load256(c + (2) * static_cast<std::ptrdiff_t>(W) + (0));
    const __m256i v23 = Load256(c + (2) * static_cast<std::ptrdiff_t>(W) + (1));
    const __m256i v24 = Load256(c + (2) * static_cast<std::ptrdiff_t>(W) + (2));
    const __m256i v25 = _mm256_min_epu8(v0, v1), v26 = _mm256_max_epu8(v0, v1);
    const __m256i v27 = _mm256_min_epu8(v2, v3), v28 = _mm256_max_epu8(v2, v3);
    const __m256i v29 = _mm256_min_epu8(v4, v5), v30 = _mm256_max_epu8(v4, v5);
    const __m256i v31 = _mm256_min_epu8(v6, v7), v32 = _mm256_max_epu8(v6, v7);
    const __m256i v33 = _mm256_min_epu8(v8, v9), v34 = _mm256_max_epu8(v8, v9);
    const __m256i v35 = _mm256_min_epu8(v10, v11), v36 = _mm256_max_epu8(v10, v11);
    const __m256i v37 = _mm256_min_epu8(v12, v13), v38 = _mm256_max_epu8(v12, v13);
    const __m256i v39 = _mm256_min_epu8(v14, v15), v40 = _mm256_max_epu8(v14, v15);
    const __m256i v41 = _mm256_min_epu8(v16, v17), v42 = _mm256_max_epu8(v16, v17);
    const __m256i v43 = _mm256_min_epu8(v18, v19), v44 = _mm256_max_epu8(v18, v19);
    const __m256i v45 = _mm256_min_epu8(v20, v21), v46 = _mm256_max_epu8(v20, v21);
    const __m256i v47 = _mm256_min_epu8(v22, v23), v48 = _mm256_max_epu8(v22, v23);
    const __m256i v49 = _mm256_min_epu8(v25, v27), v50 = _mm256_max_epu8(v25, v27);
    const __m256i v51 = _mm256_min_epu8(v26, v28), v52 = _mm256_max_epu8(v26, v28);
    const __m256i v53 = _mm256_min_epu8(v29, v31), v54 = _mm256_max_epu8(v29, v31);
    const __m256i v55 = _mm256_min_epu8(v30, v32), v56 = _mm256_max_epu8(v30, v32);
    const __m256i v57 = _mm256_min_epu8(v33, v35), v58 = _mm256_max_epu8(v33, v35);
    const __m256i v59 = _mm256_min_epu8(v34, v36), v60 = _mm256_max_epu8(v34, v36);
    const __m256i v61 = _mm256_min_epu8(v37, v39), v62 = _mm256_max_epu8(v37, v39);
    const __m256i v63 = _mm256_min_epu8(v38, v40), v64 = _mm256_max_epu8(v38, v40);
    const __m256i v65 = _mm256_min_epu8(v41, v43), v66 = _mm256_max_epu8(v41, v43);
    const __m256i v67 = _mm256_min_epu8(v42, v44), v68 = _mm256_max_epu8(v42, v44);
    const __m256i v69 = _mm256_min_epu8(v45, v47), v70 = _mm256_max_epu8(v45, v47);
    const __m256i v71 = _mm256_min_epu8(v46, v48), v72 = _mm256_max_epu8(v46, v48);
    const __m256i v73 = _mm256_min_epu8(v51, v50), v74 = _mm256_max_epu8(v51, v50);
    const __m256i v75 = _mm256_min_epu8(v55, v54), v76 = _mm256_max_epu8(v55, v54);
    const __m256i v77 = _mm256_min_epu8(v59, v58), v78 = _mm256_max_epu8(v59, v58);
    const __m256i v79 = _mm256_min_epu8(v63, v62), v80 = _mm256_max_epu8(v63, v62);
    const __m256i v81 = _mm256_min_epu8(v67, v66), v82 = _mm256_max_epu8(v67, v66);
    const __m256i v83 = _mm256_min_epu8(v71, v70), v84 = _mm256_max_epu8(v71, v70);
    const __m256i v85 = _mm256_min_epu8(v49, v53), v86 = _mm256_max_epu8(v49, v53);
    const __m256i v87 = _mm256_min_epu8(v73, v75), v88 = _mm256_max_epu8(v73, v75);
    const __m256i v89 = _mm256_min_epu8(v74, v76), v90 = _mm256_max_epu8(v74, v76);
    const __m256i v91 = _mm256_min_epu8(v52, v56), v92 = _mm256_max_epu8(v52, v56);
    const __m256i v93 = _mm256_min_epu8(v57, v61), v94 = _mm256_max_epu8(v57, v61);
    const __m256i v95 = _mm256_min_epu8(v77, v79), v96 = _mm256_max_epu8(v77, v79);
    const __m256i v97 = _mm256_min_epu8(v78, v80), v98 = _mm256_max_epu8(v78, v80);
    const __m256i v99 = _mm256_min_epu8(v60, v64), v100 = _mm256_max_epu8(v60, v64);
    const __m256i v101 = _mm256_min_epu8(v65, v69), v102 = _mm256_max_epu8(v65, v69);
    const __m256i v103 = _mm256_min_epu8(v81, v83), v104 = _mm256_max_epu8(v81, v83);
    const __m256i v105 = _mm256_min_epu8(v82, v84), v106 = _mm256_max_epu8(v82, v84);
    const __m256i v107 = _mm256_min_epu8(v68, v72), v108 = _mm256_max_epu8(v68, v72);
    const __m256i v109 = _mm256_min_epu8(v89, v86), v110 = _mm256_max_epu8(v89, v86);
    const __m256i v111 = _mm256_min_epu8(v91, v88), v112 = _mm256_max_epu8(v91, v88);
    const __m256i v113 = _mm256_min_epu8(v97, v94), v114 = _mm256_max_epu8(v97, v94);
    const __m256i v115 = _mm256_min_epu8(v99, v96), v116 = _mm256_max_epu8(v99, v96);
    const __m256i v117 = _mm256_min_epu8(v105, v102), v118 = _mm256_max_epu8(v105, v102);
    const __m256i v119 = _mm256_min_epu8(v107, v104), v120 = _mm256_max_epu8(v107, v104);
    const __m256i v121 = _mm256_min_epu8(v87, v109), v122 = _mm256_max_epu8(v87, v109);
    const __m256i v123 = _mm256_min_epu8(v111, v110), v124 = _mm256_max_epu8(v111, v110);
    const __m256i v125 = _mm256_min_epu8(v112, v90), v126 = _mm256_max_epu8(v112, v90);
    const __m256i v127 = _mm256_min_epu8(v95, v113), v128 = _mm256_max_epu8(v95, v113);
    const __m256i v129 = _mm256_min_epu8(v115, v114), v130 = _mm256_max_epu8(v115, v114);
    const __m256i v131 = _mm256_min_epu8(v116, v98), v132 = _mm256_max_epu8(v116, v98);
    const __m256i v133 = _mm256_min_epu8(v103, v117), v134 = _mm256_max_epu8(v103, v117);
    const __m256i v135 = _mm256_min_epu8(v119, v118), v136 = _mm256_max_epu8(v119, v118);
    const __m256i v137 = _mm256_min_epu8(v120, v106), v138 = _mm256_max_epu8(v120, v106);
    const __m256i v139 = _mm256_min_epu8(v85, v93), v140 = _mm256_max_epu8(v85, v93);
    const __m256i v141 = _mm256_min_epu8(v121, v127), v142 = _mm256_max_epu8(v121, v127);
    const __m256i v143 = _mm256_min_epu8(v122, v128), v144 = _mm256_max_epu8(v122, v128);
    const __m256i v145 = _mm256_min_epu8(v123, v129), v146 = _mm256_max_epu8(v123, v129);
    const __m256i v147 = _mm256_min_epu8(v124, v130), v148 = _mm256_max_epu8(v124, v130);
    const __m256i v149 = _mm256_min_epu8(v125, v131), v150 = _mm256_max_epu8(v125, v131);
    const __m256i v151 = _mm256_min_epu8(v126, v132), v152 = _mm256_max_epu8(v126, v132);
    const __m256i v153 = _mm256_min_epu8(v92, v100);
    const __m256i v155 = _mm256_min_epu8(v101, v24), v156 = _mm256_max_epu8(v101, v24);
    const __m256i v157 = _mm256_min_epu8(v147, v140), v158 = _mm256_max_epu8(v147, v140);
    const __m256i v159 = _mm256_min_epu8(v149, v142), v160 = _mm256_max_epu8(v149, v142);
    const __m256i v161 = _mm256_min_epu8(v151, v144), v162 = _mm256_max_epu8(v151, v144);
    const __m256i v163 = _mm256_min_epu8(v153, v146), v164 = _mm256_max_epu8(v153, v146);
    const __m256i v165 = _mm256_min_epu8(v136, v156), v166 = _mm256_max_epu8(v136, v156);
    const __m256i v167 = _mm256_min_epu8(v143, v157), v168 = _mm256_max_epu8(v143, v157);
    const __m256i v169 = _mm256_min_epu8(v145, v159), v170 = _mm256_max_epu8(v145, v159);
    const __m256i v171 = _mm256_min_epu8(v161, v158), v172 = _mm256_max_epu8(v161, v158);
    const __m256i v173 = _mm256_min_epu8(v163, v160), v174 = _mm256_max_epu8(v163, v160);
    const __m256i v175 = _mm256_min_epu8(v162, v148), v176 = _mm256_max_epu8(v162, v148);
    const __m256i v177 = _mm256_min_epu8(v164, v150), v178 = _mm256_max_epu8(v164, v150);
    const __m256i v179 = _mm256_min_epu8(v134, v165), v180 = _mm256_max_epu8(v134, v165);
    const __m256i v181 = _mm256_min_epu8(v135, v137), v182 = _mm256_max_epu8(v135, v137);
    const __m256i v183 = _mm256_min_epu8(v138, v166), v184 = _mm256_max_epu8(v138, v166);
    const __m256i v185 = _mm256_min_epu8(v141, v167), v186 = _mm256_max_epu8(v141, v167);
    const __m256i v187 = _mm256_min_epu8(v169, v168), v188 = _mm256_max_epu8(v169, v168);
    const __m256i v189 = _mm256_min_epu8(v170, v171), v190 = _mm256_max_epu8(v170, v171);
    const __m256i v191 = _mm256_min_epu8(v173, v172), v192 = _mm256_max_epu8(v173, v172);
    const __m256i v193 = _mm256_min_epu8(v174, v175), v194 = _mm256_max_epu8(v174, v175);
    const __m256i v195 = _mm256_min_epu8(v177, v176), v196 = _mm256_max_epu8(v177, v176);
    const __m256i v197 = _mm256_min_epu8(v178, v152);
    const __m256i v199 = _mm256_min_epu8(v133, v179), v200 = _mm256_max_epu8(v133, v179);
    const __m256i v201 = _mm256_min_epu8(v181, v180), v202 = _mm256_max_epu8(v181, v180);
    const __m256i v203 = _mm256_min_epu8(v182, v183), v204 = _mm256_max_epu8(v182, v183);
    const __m256i v205 = _mm256_min_epu8(v108, v184), v206 = _mm256_max_epu8(v108, v184);
    const __m256i v208 = _mm256_max_epu8(v139, v155);
    const __m256i v210 = _mm256_max_epu8(v185, v199);
    const __m256i v212 = _mm256_max_epu8(v186, v200);
    const __m256i v214 = _mm256_max_epu8(v187, v201);
    const __m256i v216 = _mm256_max_epu8(v188, v202);
    const __m256i v218 = _mm256_max_epu8(v189, v203);
    const __m256i v219 = _mm256_min_epu8(v190, v204);
    const __m256i v221 = _mm256_min_epu8(v191, v205);
    const __m256i v223 = _mm256_min_epu8(v192, v206);
    const __m256i v226 = _mm256_max_epu8(v223, v208);
    const __m256i v228 = _mm256_max_epu8(v193, v210);
    const __m256i v229 = _mm256_min_epu8(v194, v212);
    const __m256i v231 = _mm256_min_epu8(v195, v214);
    const __m256i v233 = _mm256_min_epu8(v196, v216);
    const __m256i v235 = _mm256_min_epu8(v197, v218);
    const __m256i v246 = _mm256_max_epu8(v219, v229);
    const __m256i v248 = _mm256_max_epu8(v221, v231);
    const __m256i v249 = _mm256_min_epu8(v233, v226);
    const __m256i v251 = _mm256_min_epu8(v235, v228);
    const __m256i v268 = _mm256_max_epu8(v246, v249);
    const __m256i v269 = _mm256_min_epu8(v248, v251);
    const __m256i v292 = _mm256_max_epu8(v269, v268);
    return v292;
}

// Rows 2..H-3 of the 5x5 median, eight pixels to a step; returns the first x
// of each row left for the four-pixel and scalar steps.
__attribute__((target("avx2"))) std::int32_t
DespeckleMoreAvx2(const std::uint32_t* s, std::uint32_t* w, std::int32_t W, std::int32_t H) {
    const __m256i am = _mm256_set1_epi32(static_cast<int>(kAlpha));
    std::int32_t xEnd = 2;
    for (std::int32_t y = 2; y < H - 2; ++y) {
        const std::size_t row = static_cast<std::size_t>(y) * W;
        std::int32_t x = 2;
        for (; x + 8 <= W - 2; x += 8) {
            const __m256i v = Median25Avx2(s + row + x, W);
            const __m256i a = Load256(s + row + x);
            _mm256_storeu_si256(
                reinterpret_cast<__m256i*>(w + row + x),
                _mm256_or_si256(_mm256_and_si256(a, am), _mm256_andnot_si256(am, v)));
        }
        xEnd = x;
    }
    return xEnd;
}

} // namespace

// id 63: 5x5 median per channel, by a selection network that is the part of
// an odd-even merge sort of the 25 values that decides the middle element.
void FilterDespeckleMore(FilterContext& ctx) {
    const std::int32_t W = ctx.ZoneWidth, H = ctx.ZoneHeight;
    if (W < 5 || H < 5) return;
    const std::uint32_t* s = ctx.SourcePixels.data();
    std::uint32_t* w = ctx.WorkPixels.data();
    const std::int32_t x0 = HaveAvx2() ? DespeckleMoreAvx2(s, w, W, H) : 2;
    for (std::int32_t y = 2; y < H - 2; ++y) {
        const std::size_t row = static_cast<std::size_t>(y) * W;
        std::int32_t x = x0;
        for (; x + 4 <= W - 2; x += 4)
            StoreKeepAlpha(w + row + x, s + row + x, Median25(s + row + x, W));
        for (; x < W - 2; ++x)
            w[row + x] = MedianScalar(s, row + x, W, 2);
    }
}

} // namespace kestrelyn
