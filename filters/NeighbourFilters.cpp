// Neighbourhood filters. Each is a loop of its own with its own weights,
// divisor and rounding, in one of two read modes: in place (neighbours above
// and to the left are already filtered when read) or two-buffer (reads
// SourcePixels, writes WorkPixels). Pixels outside a filter's loop bounds keep
// their value; alpha is never touched.
// The vector row loops are in NeighbourKernels.cpp.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "filters/NeighbourKernels.h"
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

// --- 3x3 order filters (maximum, minimum, median), a row at a time through
// the vector kernels ---
namespace {

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

// A row function of NeighbourKernels.h bound to this thread's vector level.
template <auto Kernel> auto Rows() {
    return [n = FilterVectorLevel()](const std::uint32_t* a, const std::uint32_t* b,
                                     const std::uint32_t* c, std::uint32_t* out,
                                     std::int32_t W) { Kernel(a, b, c, out, W, n); };
}

} // namespace

// ids 25 and 26: 3x3 channel maximum and minimum.
void FilterDilate(FilterContext& ctx) {
    RowsTwoBuffer(ctx, Rows<MaximumRow3>());
}
void FilterErode(FilterContext& ctx) {
    RowsTwoBuffer(ctx, Rows<MinimumRow3>());
}
void FilterDilateInPlace(FilterContext& ctx) {
    RowsInPlace(ctx, Rows<MaximumRow3>());
}
void FilterErodeInPlace(FilterContext& ctx) {
    RowsInPlace(ctx, Rows<MinimumRow3>());
}

// id 61: 3x3 median per channel.
void FilterDespeckle(FilterContext& ctx) {
    RowsTwoBuffer(ctx, Rows<MedianRow3>());
}
void FilterDespeckleInPlace(FilterContext& ctx) {
    RowsInPlace(ctx, Rows<MedianRow3>());
}

// id 63: 5x5 median per channel (NeighbourKernels.cpp).
void FilterDespeckleMore(FilterContext& ctx) {
    const std::int32_t W = ctx.ZoneWidth, H = ctx.ZoneHeight;
    if (W < 5 || H < 5) return;
    MedianRows5(ctx.SourcePixels.data(), ctx.WorkPixels.data(), W, H, FilterVectorLevel());
}

} // namespace kestrelyn
