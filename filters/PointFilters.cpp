// Point and colour filters: each output pixel depends on the pixel alone, or
// on the pixel and a statistic of the zone. They work on WorkPixels in place
// (colourise reads SourcePixels) and keep alpha unless they say otherwise.
// Tables are built once per call; rounding is half to even.
#if defined(__GNUC__) && !defined(__clang__)
// Still needed: GCC 12's AVX-512 headers start some intrinsics used here (the
// 64-byte table lookups) from a deliberately undefined vector, which
// -Wmaybe-uninitialized reports at every use.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "filters/modFilters.h"
#include "raster/modHSL.h"

namespace kestrelyn {

namespace {

inline std::uint32_t B_(std::uint32_t p) {
    return p & 0xFF;
}
inline std::uint32_t G_(std::uint32_t p) {
    return (p >> 8) & 0xFF;
}
inline std::uint32_t R_(std::uint32_t p) {
    return (p >> 16) & 0xFF;
}

inline std::uint8_t ClampByte(std::int32_t v) {
    return static_cast<std::uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
}

// Applies one byte table to blue, green and red of every pixel.
void ApplyRGBTable(FilterPixels& px, const std::uint8_t T[256]) {
    // Blue and green go through a 16-bit table of both bytes at once.
    std::vector<std::uint16_t> bg(65536);
    for (std::uint32_t g = 0; g < 256; ++g)
        for (std::uint32_t b = 0; b < 256; ++b)
            bg[(g << 8) | b] = static_cast<std::uint16_t>((std::uint32_t(T[g]) << 8) | T[b]);
    std::uint32_t* p = px.data();
    const std::size_t n = px.size();
    const std::uint16_t* lbg = bg.data();
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint32_t v = p[i];
        p[i] = (v & 0xFF000000u) | (std::uint32_t(T[(v >> 16) & 0xFF]) << 16) | lbg[v & 0xFFFF];
    }
}

// Gray3(s) = s / 3 truncated, for s = R + G + B.
struct Gray3Table {
    std::uint8_t t[766];
    Gray3Table() {
        for (int s = 0; s < 766; ++s)
            t[s] = static_cast<std::uint8_t>(s / 3);
    }
};

// Sum of Gray3 over all pixels. s / 3 truncated equals (s * 21846) >> 16 for
// every s of 0..765 (the error s / 98304 stays below the gap of 1/3), so the
// sum runs four pixels to a vector in blocks whose 32-bit totals cannot
// overflow.
// The same sum sixteen pixels at a time: one multiply-add of the bytes by
// 1, 1, 1, 0 and one of the pairs gives R + G + B in each 32-bit lane.
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) std::int64_t
SumGray3Avx512(const std::uint32_t* p, std::size_t n) {
    const __m512i w = _mm512_set1_epi32(0x00010101), one = _mm512_set1_epi16(1),
                  k = _mm512_set1_epi32(21846);
    std::int64_t sum = 0;
    std::size_t i = 0;
    while (n - i >= 16) {
        const std::size_t end = i + std::min<std::size_t>((n - i) & ~std::size_t(15), 1u << 20);
        __m512i acc = _mm512_setzero_si512();
        for (; i < end; i += 16) {
            const __m512i v = _mm512_loadu_si512(p + i);
            const __m512i t = _mm512_madd_epi16(_mm512_maddubs_epi16(v, w), one);
            acc = _mm512_add_epi32(acc, _mm512_mulhi_epu16(t, k));
        }
        sum += static_cast<std::uint32_t>(_mm512_reduce_add_epi32(acc));
    }
    for (; i < n; ++i)
        sum += (B_(p[i]) + G_(p[i]) + R_(p[i])) / 3;
    return sum;
}

std::int64_t SumGray3(const FilterPixels& px) {
    const std::uint32_t* p = px.data();
    const std::size_t n = px.size();
    if (FilterVectorLevel() >= kVectorsAvx512) return SumGray3Avx512(p, n);
    const __m128i m8 = _mm_set1_epi32(0xFF), k = _mm_set1_epi32(21846);
    std::int64_t sum = 0;
    std::size_t i = 0;
    while (n - i >= 4) {
        const std::size_t end = i + std::min<std::size_t>((n - i) & ~std::size_t(3), 1u << 20);
        __m128i acc = _mm_setzero_si128();
        for (; i < end; i += 4) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i));
            const __m128i t = _mm_add_epi32(
                _mm_add_epi32(_mm_and_si128(v, m8), _mm_and_si128(_mm_srli_epi32(v, 8), m8)),
                _mm_and_si128(_mm_srli_epi32(v, 16), m8));
            acc = _mm_add_epi32(acc, _mm_mulhi_epu16(t, k));
        }
        alignas(16) std::uint32_t lanes[4];
        _mm_store_si128(reinterpret_cast<__m128i*>(lanes), acc);
        sum += std::int64_t(lanes[0]) + lanes[1] + lanes[2] + lanes[3];
    }
    for (; i < n; ++i)
        sum += (B_(p[i]) + G_(p[i]) + R_(p[i])) / 3;
    return sum;
}

} // namespace

std::int32_t RoundI(double v) {
    const double r = std::nearbyint(v);
    if (!(r >= -2147483648.0 && r <= 2147483647.0)) throw std::range_error("integer overflow");
    return static_cast<std::int32_t>(r);
}

void BuildNegativeTable(std::uint8_t T[256]) {
    for (int i = 0; i < 256; ++i)
        T[i] = static_cast<std::uint8_t>(255 - i);
}

void BuildBrightnessTable(double nBrightnessPct, std::uint8_t T[256]) {
    const float f = static_cast<float>((nBrightnessPct + 100.0) / 100.0);
    for (int i = 0; i < 256; ++i)
        T[i] = ClampByte(RoundI(static_cast<double>(f) * i));
}

// id 2: the negative table is the complement of R, G and B.
void FilterNegative(FilterContext& ctx) {
    std::uint32_t* p = ctx.WorkPixels.data();
    const std::size_t n = ctx.WorkPixels.size();
    for (std::size_t i = 0; i < n; ++i)
        p[i] ^= 0x00FFFFFFu;
}

// id 12: equal weights, Round(s / 3) for s = R + G + B. s / 3 is never
// halfway between two integers, so the rounding is (s + 1) / 3 truncated,
// which is ((s + 1) * 21846) >> 16 for every s of 0..765: one 16-bit high
// multiply per pixel, four pixels to a vector.
void FilterGrayscale(FilterContext& ctx) {
    std::uint32_t* p = ctx.WorkPixels.data();
    const std::size_t n = ctx.WorkPixels.size();
    const __m128i m8 = _mm_set1_epi32(0xFF), one = _mm_set1_epi32(1), k = _mm_set1_epi32(21846),
                  am = _mm_set1_epi32(static_cast<int>(0xFF000000u));
    std::size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i));
        const __m128i t = _mm_add_epi32(
            _mm_add_epi32(_mm_and_si128(v, m8), _mm_and_si128(_mm_srli_epi32(v, 8), m8)),
            _mm_add_epi32(_mm_and_si128(_mm_srli_epi32(v, 16), m8), one));
        const __m128i g = _mm_mulhi_epu16(t, k);
        const __m128i out = _mm_or_si128(
            _mm_and_si128(v, am),
            _mm_or_si128(g, _mm_or_si128(_mm_slli_epi32(g, 8), _mm_slli_epi32(g, 16))));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p + i), out);
    }
    for (; i < n; ++i) {
        const std::uint32_t v = p[i];
        const std::uint32_t g = (B_(v) + G_(v) + R_(v) + 1) / 3;
        p[i] = (v & 0xFF000000u) | (g * 0x010101u);
    }
}

// id 14
void FilterBrightness(FilterContext& ctx) {
    std::uint8_t T[256];
    BuildBrightnessTable(RoundI(ctx.Param1), T);
    ApplyRGBTable(ctx.WorkPixels, T);
}

// id 16: channel permutations by mode.
void FilterSwapChannels(FilterContext& ctx) {
    const std::int32_t mode = RoundI(ctx.Param1);
    if (mode < 1 || mode > 5) return;
    for (std::uint32_t& v : ctx.WorkPixels) {
        const std::uint32_t r = R_(v), g = G_(v), b = B_(v);
        std::uint32_t nr, ng, nb;
        switch (mode) {
        case 1:
            nr = g;
            ng = b;
            nb = r;
            break;
        case 2:
            nr = b;
            ng = r;
            nb = g;
            break;
        case 3:
            nr = g;
            ng = r;
            nb = b;
            break;
        case 4:
            nr = b;
            ng = g;
            nb = r;
            break;
        default:
            nr = r;
            ng = b;
            nb = g;
            break;
        }
        v = (v & 0xFF000000u) | (nr << 16) | (ng << 8) | nb;
    }
}

namespace {

// The balancing clip of the contrast filter: what one channel loses past 0
// or 255 goes to the other two by halves, until all three are bytes.
inline std::uint32_t BalanceClip(std::int32_t r, std::int32_t g, std::int32_t b) {
    while (static_cast<std::uint32_t>(r) > 255u || static_cast<std::uint32_t>(g) > 255u ||
           static_cast<std::uint32_t>(b) > 255u) {
        if (r < 1 && g <= 0 && b <= 0) {
            r = g = b = 0;
            break;
        }
        if (r >= 255 && g >= 255 && b >= 255) {
            r = g = b = 255;
            break;
        }
        std::int32_t h;
        if (r < 0) {
            h = r / 2;
            g += h;
            b += h;
            r = 0;
        }
        if (r > 255) {
            h = (r - 255) / 2;
            g += h;
            b += h;
            r = 255;
        }
        if (g < 0) {
            h = g / 2;
            r += h;
            b += h;
            g = 0;
        }
        if (g > 255) {
            h = (g - 255) / 2;
            r += h;
            b += h;
            g = 255;
        }
        if (b < 0) {
            h = b / 2;
            g += h;
            r += h;
            b = 0;
        }
        if (b > 255) {
            h = (b - 255) / 2;
            g += h;
            r += h;
            b = 255;
        }
    }
    return (std::uint32_t(r) << 16) | (std::uint32_t(g) << 8) | std::uint32_t(b);
}

// One step of the clip on sixteen lanes: channel x passes what it has below
// 0 or above 255 by halves to y and z (truncated as the scalar division).
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) inline void
ClipStep16(__m512i& x, __m512i& y, __m512i& z) {
    const __m512i zero = _mm512_setzero_si512(), k255 = _mm512_set1_epi32(255);
    const __mmask16 neg = _mm512_cmplt_epi32_mask(x, zero);
    __m512i h = _mm512_srai_epi32(_mm512_add_epi32(x, _mm512_srli_epi32(x, 31)), 1);
    y = _mm512_mask_add_epi32(y, neg, y, h);
    z = _mm512_mask_add_epi32(z, neg, z, h);
    x = _mm512_max_epi32(x, zero);
    const __mmask16 over = _mm512_cmpgt_epi32_mask(x, k255);
    h = _mm512_srai_epi32(_mm512_sub_epi32(x, k255), 1);
    y = _mm512_mask_add_epi32(y, over, y, h);
    z = _mm512_mask_add_epi32(z, over, z, h);
    x = _mm512_min_epi32(x, k255);
}

// One pass of the clip's loop body on sixteen lanes (steps 1 to 8).
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) inline void
ClipBody16(__m512i& r, __m512i& g, __m512i& b) {
    const __m512i zero = _mm512_setzero_si512(), k255 = _mm512_set1_epi32(255);
    const __mmask16 low = _mm512_cmple_epi32_mask(r, zero) & _mm512_cmple_epi32_mask(g, zero) &
                          _mm512_cmple_epi32_mask(b, zero);
    r = _mm512_mask_mov_epi32(r, low, zero);
    g = _mm512_mask_mov_epi32(g, low, zero);
    b = _mm512_mask_mov_epi32(b, low, zero);
    const __mmask16 high = _mm512_cmpge_epi32_mask(r, k255) & _mm512_cmpge_epi32_mask(g, k255) &
                           _mm512_cmpge_epi32_mask(b, k255);
    r = _mm512_mask_mov_epi32(r, high, k255);
    g = _mm512_mask_mov_epi32(g, high, k255);
    b = _mm512_mask_mov_epi32(b, high, k255);
    ClipStep16(r, g, b);
    ClipStep16(g, r, b);
    ClipStep16(b, g, r);
}

// A 256-entry byte table held in four vectors, looked up for 64 bytes.
struct ByteTable64 {
    __m512i q0, q1, q2, q3;
};
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) inline ByteTable64
LoadByteTable(const std::uint8_t* t) {
    return {_mm512_loadu_si512(t), _mm512_loadu_si512(t + 64), _mm512_loadu_si512(t + 128),
            _mm512_loadu_si512(t + 192)};
}
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) inline __m512i LookUp64(const ByteTable64& t,
                                                                               __m512i v) {
    const __m512i a = _mm512_permutex2var_epi8(t.q0, v, t.q1);
    const __m512i b = _mm512_permutex2var_epi8(t.q2, v, t.q3);
    return _mm512_mask_blend_epi8(_mm512_movepi8_mask(v), a, b);
}

// Byte selector for _mm512_permutex2var_epi8: the low byte of channel k from
// the first source and its high byte from the second (bytes 64 and up) into
// the two low bytes of each lane.
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) inline __m512i PairSelector(int k) {
    alignas(64) std::uint8_t sel[64];
    for (int j = 0; j < 16; ++j) {
        sel[4 * j] = static_cast<std::uint8_t>(4 * j + k);
        sel[4 * j + 1] = static_cast<std::uint8_t>(64 + 4 * j + k);
        sel[4 * j + 2] = sel[4 * j + 3] = 0;
    }
    return _mm512_load_si512(sel);
}
// The signed 16-bit entry from its low and high byte, as 32 bits.
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) inline __m512i
ShortEntry(__m512i low, __m512i sel, __m512i high) {
    return _mm512_srai_epi32(_mm512_slli_epi32(_mm512_permutex2var_epi8(low, sel, high), 16), 16);
}

// The contrast table and clip sixteen pixels at a time. T is monotonic, so
// the bytes whose entry lies in 0..255 form one range [lo, hi] (empty when
// lo > hi): a pixel whose three colour bytes fall in it takes the table's
// low bytes and needs no clip. The others are collected per block with the
// low and the high bytes of their entries (when every entry fits 16 bits;
// otherwise the entries are gathered from T), and run through the clip's
// loop body sixteen at a time. A lane whose three values are already bytes
// is a fixed point of that body (every step is guarded by a value outside
// 0..255, and steps 1 and 2 then change nothing), so one pass is made over
// all collected pixels and the few lanes still outside 0..255 after it are
// collected again and run until they are done.
template <bool bShort>
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) void
ContrastAvx512(std::uint32_t* p, std::size_t n, const std::int32_t T[256], std::int32_t lo,
               std::int32_t hi) {
    alignas(64) std::uint8_t TL[256], TH[256];
    for (int i = 0; i < 256; ++i) {
        TL[i] = static_cast<std::uint8_t>(T[i] & 0xFF);
        TH[i] = static_cast<std::uint8_t>((T[i] >> 8) & 0xFF);
    }
    const ByteTable64 tl = LoadByteTable(TL), th = LoadByteTable(TH);
    const bool bEmpty = lo > hi;
    const __m512i vlo = _mm512_set1_epi8(static_cast<char>(bEmpty ? 0 : lo));
    const __m512i vhi = _mm512_set1_epi8(static_cast<char>(bEmpty ? 0 : hi));
    const __mmask64 kAlphaBytes = 0x8888888888888888ull;
    const __m512i ones = _mm512_set1_epi32(-1),
                  iota = _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    const __m512i m8 = _mm512_set1_epi32(0xFF),
                  am = _mm512_set1_epi32(static_cast<int>(0xFF000000u));
    const __m512i zero = _mm512_setzero_si512(), notByte = _mm512_set1_epi32(~0xFF);
    const __m512i selB = PairSelector(0), selG = PairSelector(1), selR = PairSelector(2);
    constexpr std::size_t kBlock = 2048;
    alignas(64) std::uint32_t was[kBlock + 16], wasHigh[kBlock + 16];
    alignas(64) std::int32_t where[kBlock + 16];
    alignas(64) std::int32_t leftR[kBlock + 16], leftG[kBlock + 16], leftB[kBlock + 16],
        leftI[kBlock + 16];
    alignas(64) std::uint32_t leftA[kBlock + 16];
    for (std::size_t start = 0; start < n; start += kBlock) {
        const std::size_t len = std::min(n - start, kBlock);
        std::uint32_t* q = p + start;
        std::size_t nMarked = 0;
        for (std::size_t i = 0; i < len; i += 16) {
            const __mmask16 live =
                len - i >= 16 ? __mmask16(0xFFFF) : static_cast<__mmask16>((1u << (len - i)) - 1u);
            const __m512i v = _mm512_maskz_loadu_epi32(live, q + i);
            const __m512i out = _mm512_mask_blend_epi8(kAlphaBytes, LookUp64(tl, v), v);
            _mm512_mask_storeu_epi32(q + i, live, out);
            __mmask64 in = kAlphaBytes;
            if (!bEmpty) in |= _mm512_cmpge_epu8_mask(v, vlo) & _mm512_cmple_epu8_mask(v, vhi);
            const __mmask16 bad = _mm512_cmpneq_epi32_mask(_mm512_movm_epi8(in), ones) & live;
            if (bad) {
                _mm512_storeu_si512(was + nMarked,
                                    _mm512_maskz_compress_epi32(bad, bShort ? out : v));
                if (bShort)
                    _mm512_storeu_si512(wasHigh + nMarked,
                                        _mm512_maskz_compress_epi32(bad, LookUp64(th, v)));
                _mm512_storeu_si512(
                    where + nMarked,
                    _mm512_maskz_compress_epi32(
                        bad, _mm512_add_epi32(iota, _mm512_set1_epi32(static_cast<int>(i)))));
                nMarked += static_cast<std::size_t>(_mm_popcnt_u32(bad));
            }
        }
        std::size_t nLeft = 0;
        for (std::size_t k = 0; k < nMarked; k += 16) {
            const __mmask16 live = nMarked - k >= 16
                                       ? __mmask16(0xFFFF)
                                       : static_cast<__mmask16>((1u << (nMarked - k)) - 1u);
            const __m512i v = _mm512_maskz_loadu_epi32(live, was + k);
            const __m512i idx = _mm512_loadu_si512(where + k);
            __m512i r, g, b;
            if (bShort) {
                const __m512i h = _mm512_maskz_loadu_epi32(live, wasHigh + k);
                r = ShortEntry(v, selR, h);
                g = ShortEntry(v, selG, h);
                b = ShortEntry(v, selB, h);
            } else {
                r = _mm512_mask_i32gather_epi32(
                    zero, live, _mm512_and_si512(_mm512_srli_epi32(v, 16), m8), T, 4);
                g = _mm512_mask_i32gather_epi32(
                    zero, live, _mm512_and_si512(_mm512_srli_epi32(v, 8), m8), T, 4);
                b = _mm512_mask_i32gather_epi32(zero, live, _mm512_and_si512(v, m8), T, 4);
            }
            ClipBody16(r, g, b);
            const __m512i out =
                _mm512_or_si512(_mm512_and_si512(v, am),
                                _mm512_or_si512(_mm512_slli_epi32(r, 16),
                                                _mm512_or_si512(_mm512_slli_epi32(g, 8), b)));
            _mm512_mask_i32scatter_epi32(q, live, idx, out, 4);
            const __mmask16 more =
                _mm512_test_epi32_mask(_mm512_or_si512(_mm512_or_si512(r, g), b), notByte);
            if (more) {
                _mm512_storeu_si512(leftR + nLeft, _mm512_maskz_compress_epi32(more, r));
                _mm512_storeu_si512(leftG + nLeft, _mm512_maskz_compress_epi32(more, g));
                _mm512_storeu_si512(leftB + nLeft, _mm512_maskz_compress_epi32(more, b));
                _mm512_storeu_si512(leftA + nLeft, _mm512_maskz_compress_epi32(more, v));
                _mm512_storeu_si512(leftI + nLeft, _mm512_maskz_compress_epi32(more, idx));
                nLeft += static_cast<std::size_t>(_mm_popcnt_u32(more));
            }
        }
        for (std::size_t k = 0; k < nLeft; k += 16) {
            const __mmask16 live = nLeft - k >= 16
                                       ? __mmask16(0xFFFF)
                                       : static_cast<__mmask16>((1u << (nLeft - k)) - 1u);
            __m512i r = _mm512_maskz_loadu_epi32(live, leftR + k);
            __m512i g = _mm512_maskz_loadu_epi32(live, leftG + k);
            __m512i b = _mm512_maskz_loadu_epi32(live, leftB + k);
            while (_mm512_test_epi32_mask(_mm512_or_si512(_mm512_or_si512(r, g), b), notByte))
                ClipBody16(r, g, b);
            const __m512i out =
                _mm512_or_si512(_mm512_and_si512(_mm512_loadu_si512(leftA + k), am),
                                _mm512_or_si512(_mm512_slli_epi32(r, 16),
                                                _mm512_or_si512(_mm512_slli_epi32(g, 8), b)));
            _mm512_mask_i32scatter_epi32(q, live, _mm512_loadu_si512(leftI + k), out, 4);
        }
    }
}

// One step of the clip on eight lanes, as ClipStep16.
__attribute__((target("avx2"))) inline void ClipStep8(__m256i& x, __m256i& y, __m256i& z) {
    const __m256i zero = _mm256_setzero_si256(), k255 = _mm256_set1_epi32(255);
    const __m256i neg = _mm256_cmpgt_epi32(zero, x);
    __m256i h =
        _mm256_and_si256(neg, _mm256_srai_epi32(_mm256_add_epi32(x, _mm256_srli_epi32(x, 31)), 1));
    y = _mm256_add_epi32(y, h);
    z = _mm256_add_epi32(z, h);
    x = _mm256_max_epi32(x, zero);
    const __m256i over = _mm256_cmpgt_epi32(x, k255);
    h = _mm256_and_si256(over, _mm256_srai_epi32(_mm256_sub_epi32(x, k255), 1));
    y = _mm256_add_epi32(y, h);
    z = _mm256_add_epi32(z, h);
    x = _mm256_min_epi32(x, k255);
}

// The clip of the marked pixels eight at a time (whole groups of eight; the
// rest is left to the caller): the loop body runs until no lane is outside
// 0..255, lanes already inside being fixed points of it (see ContrastAvx512).
__attribute__((target("avx2"))) std::size_t
ClipMarkedAvx2(std::uint32_t* q, const std::uint32_t* was, const std::uint32_t* where,
               std::size_t nMarked, const std::int32_t T[256]) {
    const __m256i zero = _mm256_setzero_si256(), k255 = _mm256_set1_epi32(255),
                  k254 = _mm256_set1_epi32(254), notByte = _mm256_set1_epi32(~0xFF),
                  m8 = _mm256_set1_epi32(0xFF);
    std::size_t k = 0;
    for (; k + 8 <= nMarked; k += 8) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(was + k));
        __m256i r = _mm256_i32gather_epi32(T, _mm256_and_si256(_mm256_srli_epi32(v, 16), m8), 4);
        __m256i g = _mm256_i32gather_epi32(T, _mm256_and_si256(_mm256_srli_epi32(v, 8), m8), 4);
        __m256i b = _mm256_i32gather_epi32(T, _mm256_and_si256(v, m8), 4);
        while (!_mm256_testz_si256(_mm256_or_si256(_mm256_or_si256(r, g), b), notByte)) {
            // 1. all at or below 0: all 0.
            const __m256i keep = _mm256_or_si256(
                _mm256_or_si256(_mm256_cmpgt_epi32(r, zero), _mm256_cmpgt_epi32(g, zero)),
                _mm256_cmpgt_epi32(b, zero));
            r = _mm256_and_si256(r, keep);
            g = _mm256_and_si256(g, keep);
            b = _mm256_and_si256(b, keep);
            // 2. all at or above 255: all 255.
            const __m256i high = _mm256_and_si256(
                _mm256_and_si256(_mm256_cmpgt_epi32(r, k254), _mm256_cmpgt_epi32(g, k254)),
                _mm256_cmpgt_epi32(b, k254));
            r = _mm256_blendv_epi8(r, k255, high);
            g = _mm256_blendv_epi8(g, k255, high);
            b = _mm256_blendv_epi8(b, k255, high);
            ClipStep8(r, g, b);
            ClipStep8(g, r, b);
            ClipStep8(b, g, r);
        }
        alignas(32) std::uint32_t out[8];
        _mm256_store_si256(
            reinterpret_cast<__m256i*>(out),
            _mm256_or_si256(_mm256_and_si256(v, _mm256_set1_epi32(static_cast<int>(0xFF000000u))),
                            _mm256_or_si256(_mm256_slli_epi32(r, 16),
                                            _mm256_or_si256(_mm256_slli_epi32(g, 8), b))));
        for (int j = 0; j < 8; ++j)
            q[where[k + j]] = out[j];
    }
    return k;
}

} // namespace

// id 17: a signed table around the zone's mean gray, then the balancing clip.
// The clip couples the three channels, so it cannot live in per-channel
// tables; it only acts where some channel leaves 0..255. Each row is mapped
// through pre-shifted tables without branches (an entry outside the range
// carries a mark bit), and the marked pixels are clipped afterwards.
void FilterContrast(FilterContext& ctx) {
    if (ctx.WorkPixels.empty()) return;
    const double mean =
        static_cast<double>(SumGray3(ctx.WorkPixels)) / static_cast<double>(ctx.WorkPixels.size());
    const std::int32_t m = static_cast<std::int32_t>(std::floor(mean));
    const double f = (RoundI(ctx.Param1) + 100.0) / 100.0;
    std::int32_t T[256];
    std::uint32_t TR[256], TG[256], TB[256];
    constexpr std::uint32_t kOut = 0x80000000u;
    for (int i = 0; i < 256; ++i) {
        T[i] = RoundI((i - m) * f + m);
        const bool in = static_cast<std::uint32_t>(T[i]) <= 255u;
        const std::uint32_t t = in ? static_cast<std::uint32_t>(T[i]) : 0u;
        TR[i] = (t << 16) | (in ? 0u : kOut);
        TG[i] = (t << 8) | (in ? 0u : kOut);
        TB[i] = t | (in ? 0u : kOut);
    }
    const std::size_t n = ctx.WorkPixels.size();
    std::uint32_t* p = ctx.WorkPixels.data();
    if (FilterVectorLevel() >= kVectorsAvx512) {
        // The bytes whose entry is in 0..255, when they form one range.
        std::int32_t lo = 256, hi = -1;
        for (int i = 0; i < 256; ++i)
            if (static_cast<std::uint32_t>(T[i]) <= 255u) {
                lo = std::min(lo, i);
                hi = i;
            }
        bool bRange = true;
        for (int i = lo; i <= hi; ++i)
            bRange = bRange && static_cast<std::uint32_t>(T[i]) <= 255u;
        if (bRange) {
            bool bShort = true;
            for (int i = 0; i < 256; ++i)
                bShort = bShort && T[i] >= -32768 && T[i] <= 32767;
            if (bShort)
                ContrastAvx512<true>(p, n, T, lo, hi);
            else
                ContrastAvx512<false>(p, n, T, lo, hi);
            return;
        }
    }
    constexpr std::size_t kBlock = 2048;
    std::uint32_t where[kBlock], was[kBlock];
    const bool bAvx2 = FilterVectorLevel() >= kVectorsAvx2;
    for (std::size_t start = 0; start < n; start += kBlock) {
        const std::size_t end = std::min(n, start + kBlock);
        std::size_t nMarked = 0;
        for (std::size_t i = start; i < end; ++i) {
            const std::uint32_t v = p[i];
            const std::uint32_t t = TR[R_(v)] | TG[G_(v)] | TB[B_(v)];
            p[i] = (v & 0xFF000000u) | (t & 0x00FFFFFFu);
            where[nMarked] = static_cast<std::uint32_t>(i - start);
            was[nMarked] = v;
            nMarked += t >> 31;
        }
        std::size_t k = bAvx2 ? ClipMarkedAvx2(p + start, was, where, nMarked, T) : 0;
        for (; k < nMarked; ++k) {
            const std::uint32_t v = was[k];
            p[start + where[k]] = (v & 0xFF000000u) | BalanceClip(T[R_(v)], T[G_(v)], T[B_(v)]);
        }
    }
}

// id 18: black when every channel is below its own threshold.
void FilterThreshold(FilterContext& ctx) {
    const std::uint32_t t = static_cast<std::uint32_t>(RoundI(ctx.Param1));
    const std::uint32_t t1 = t & 0xFF, t2 = (t >> 8) & 0xFF, t3 = (t >> 16) & 0xFF;
    for (std::uint32_t& v : ctx.WorkPixels) {
        const bool black = B_(v) < t1 && G_(v) < t2 && R_(v) < t3;
        v = (v & 0xFF000000u) | (black ? 0u : 0x00FFFFFFu);
    }
}

// id 19: 4x4 ordered dither on Gray3 / 16 + 1.
void FilterOrderedDither(FilterContext& ctx) {
    static const std::uint8_t M[4][4] = {
        {1, 13, 4, 16}, {9, 5, 12, 8}, {3, 15, 2, 14}, {11, 7, 10, 6}};
    const Gray3Table g3;
    const std::int32_t W = ctx.ZoneWidth, H = ctx.ZoneHeight;
    for (std::int32_t y = 0; y < H; ++y) {
        std::uint32_t* row = ctx.WorkPixels.data() + static_cast<std::size_t>(y) * W;
        for (std::int32_t x = 0; x < W; ++x) {
            const std::uint32_t v = row[x];
            const std::uint32_t level = g3.t[B_(v) + G_(v) + R_(v)] / 16u + 1u;
            row[x] = (v & 0xFF000000u) | (level < M[y & 3][x & 3] ? 0u : 0x00FFFFFFu);
        }
    }
}

// id 20: Burkes error diffusion with a damped error and a threshold at the
// zone's mean gray.
void FilterErrorDiffusion(FilterContext& ctx) {
    const std::int32_t W = ctx.ZoneWidth, H = ctx.ZoneHeight;
    if (W <= 0 || H <= 0) return;
    const Gray3Table g3;
    const std::int32_t m =
        static_cast<std::int32_t>(std::floor(static_cast<double>(SumGray3(ctx.WorkPixels)) /
                                             static_cast<double>(ctx.WorkPixels.size())));
    const std::int32_t damp = RoundI(ctx.Param1);
    if (damp == 0) throw std::domain_error("division by zero");
    std::int32_t e8[511], e4[511], e2[511];
    for (int e = -255; e <= 255; ++e) {
        e8[e + 255] = e * 8 / 32;
        e4[e + 255] = e * 4 / 32;
        e2[e + 255] = e * 2 / 32;
    }
    std::vector<std::int32_t> cur(W, 0), next(W, 0);
    for (std::int32_t y = 0; y < H; ++y) {
        std::uint32_t* row = ctx.WorkPixels.data() + static_cast<std::size_t>(y) * W;
        const bool hasNext = y + 1 < H;
        for (std::int32_t x = 0; x < W; ++x) {
            const std::uint32_t px = row[x];
            std::int32_t v = cur[x] * 10 / damp + g3.t[B_(px) + G_(px) + R_(px)];
            v = v < 0 ? 0 : (v > 255 ? 255 : v);
            const std::int32_t out = v >= m ? 255 : 0;
            row[x] = (px & 0xFF000000u) | (out ? 0x00FFFFFFu : 0u);
            const std::int32_t e = v - out + 255;
            if (x + 1 < W) cur[x + 1] += e8[e];
            if (x + 2 < W) cur[x + 2] += e4[e];
            if (hasNext) {
                if (x - 2 >= 0) next[x - 2] += e2[e];
                if (x - 1 >= 0) next[x - 1] += e4[e];
                next[x] += e8[e];
                if (x + 1 < W) next[x + 1] += e4[e];
                if (x + 2 < W) next[x + 2] += e2[e];
            }
        }
        cur.swap(next);
        std::fill(next.begin(), next.end(), 0);
    }
}

// id 28: per-channel stretch of min..max to 0..255.
void FilterStretchContrast(FilterContext& ctx) {
    if (ctx.WorkPixels.empty()) return;
    std::uint32_t mn[3] = {255, 255, 255}, mx[3] = {0, 0, 0};
    for (std::uint32_t v : ctx.WorkPixels)
        for (int c = 0; c < 3; ++c) {
            const std::uint32_t k = (v >> (8 * c)) & 0xFF;
            mn[c] = std::min(mn[c], k);
            mx[c] = std::max(mx[c], k);
        }
    std::uint8_t T[3][256];
    for (int c = 0; c < 3; ++c) {
        if (mn[c] == mx[c]) {
            mn[c] = 0;
            mx[c] = 255;
        }
        const double span = static_cast<double>(mx[c] - mn[c]);
        for (int i = 0; i < 256; ++i)
            T[c][i] = ClampByte(RoundI((static_cast<double>(i) - mn[c]) * 255.0 / span));
    }
    for (std::uint32_t& v : ctx.WorkPixels)
        v = (v & 0xFF000000u) | (std::uint32_t(T[2][R_(v)]) << 16) |
            (std::uint32_t(T[1][G_(v)]) << 8) | T[0][B_(v)];
}

// id 30: each channel pushed away from the pixel's Gray3 by the factor.
void FilterSaturation(FilterContext& ctx) {
    const double f = RoundI(ctx.Param1) / 100.0;
    const Gray3Table g3;
    for (std::uint32_t& v : ctx.WorkPixels) {
        const std::int32_t r = R_(v), g = G_(v), b = B_(v);
        const std::int32_t gray = g3.t[r + g + b];
        auto sat = [&](std::int32_t c) {
            return static_cast<std::uint32_t>(ClampByte(RoundI(c + f * (c - gray))));
        };
        v = (v & 0xFF000000u) | (sat(r) << 16) | (sat(g) << 8) | sat(b);
    }
}

// id 31: out = Round(255 * (c / 255) ^ (1 / g)). The power depends on the
// channel value only, so it is evaluated once per value.
void FilterGamma(FilterContext& ctx) {
    std::int32_t factor = RoundI(ctx.Param1);
    if (factor == 0) factor = 1;
    const double g = factor / 100.0;
    const double e = 1.0 / g;
    std::uint8_t T[256];
    for (int i = 0; i < 256; ++i) {
        const double u = i / 255.0;
        T[i] = CheckedByte(255.0 * std::pow(u, e));
    }
    ApplyRGBTable(ctx.WorkPixels, T);
}

// id 34: lightness of the source pixel through HSLtoRGB with the given hue and
// saturation. The colour depends on R + G + B only; each sum is converted once
// and a conversion that fails does so when a pixel needs it.
void FilterColorize(FilterContext& ctx) {
    std::uint32_t T[766];
    bool ok[766];
    for (int s = 0; s < 766; ++s) {
        float l = static_cast<float>(s / 765.0);
        l = static_cast<float>(static_cast<double>(l) * ctx.Luminosity);
        std::uint8_t r = 0, g = 0, b = 0;
        ok[s] = TryHSLtoRGB(ctx.Hue, ctx.Saturation, l, r, g, b);
        T[s] = (std::uint32_t(r) << 16) | (std::uint32_t(g) << 8) | b;
    }
    const std::size_t n = ctx.WorkPixels.size();
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint32_t v = ctx.SourcePixels[i];
        const std::uint32_t s = B_(v) + G_(v) + R_(v);
        if (!ok[s]) throw std::range_error("byte overflow");
        ctx.WorkPixels[i] = (v & 0xFF000000u) | T[s];
    }
}

// id 35: alpha offset, clamped.
void FilterTransparency(FilterContext& ctx) {
    const std::int32_t d = RoundI(ctx.Param1);
    for (std::uint32_t& v : ctx.WorkPixels) {
        const std::int32_t a = static_cast<std::int32_t>(v >> 24) + d;
        v = (v & 0x00FFFFFFu) | (std::uint32_t(ClampByte(a)) << 24);
    }
}

// id 39: channel offsets, clamped.
void FilterAdjustRGB(FilterContext& ctx) {
    const std::int32_t dr = RoundI(ctx.Param2), dg = RoundI(ctx.Param3), db = RoundI(ctx.Param4);
    std::uint8_t TR[256], TG[256], TB[256];
    for (int i = 0; i < 256; ++i) {
        TR[i] = ClampByte(i + dr);
        TG[i] = ClampByte(i + dg);
        TB[i] = ClampByte(i + db);
    }
    for (std::uint32_t& v : ctx.WorkPixels)
        v = (v & 0xFF000000u) | (std::uint32_t(TR[R_(v)]) << 16) | (std::uint32_t(TG[G_(v)]) << 8) |
            TB[B_(v)];
}

namespace {
void MaskPixels(FilterContext& ctx, std::uint32_t keep) {
    for (std::uint32_t& v : ctx.WorkPixels)
        v &= keep;
}

// red = Round(red * f), at most 255; a value below 0 is a failed conversion.
void ScaleChannel(FilterContext& ctx, int shift) {
    const double f = ctx.Param1;
    std::int32_t T[256];
    for (int i = 0; i < 256; ++i) {
        const double r = std::nearbyint(i * f);
        T[i] = r > 255.0 ? 255 : (r < 0.0 ? -1 : static_cast<std::int32_t>(r));
    }
    for (std::uint32_t& v : ctx.WorkPixels) {
        const std::int32_t t = T[(v >> shift) & 0xFF];
        if (t < 0) throw std::range_error("byte overflow");
        v = (v & ~(0xFFu << shift)) | (std::uint32_t(t) << shift);
    }
}
} // namespace

void FilterKeepRed(FilterContext& ctx) {
    MaskPixels(ctx, 0xFFFF0000u);
}
void FilterKeepGreen(FilterContext& ctx) {
    MaskPixels(ctx, 0xFF00FF00u);
}
void FilterKeepBlue(FilterContext& ctx) {
    MaskPixels(ctx, 0xFF0000FFu);
}
void FilterRemoveRed(FilterContext& ctx) {
    MaskPixels(ctx, 0xFF00FFFFu);
}
void FilterRemoveGreen(FilterContext& ctx) {
    MaskPixels(ctx, 0xFFFF00FFu);
}
void FilterRemoveBlue(FilterContext& ctx) {
    MaskPixels(ctx, 0xFFFFFF00u);
}
void FilterScaleRed(FilterContext& ctx) {
    ScaleChannel(ctx, 16);
}
void FilterScaleGreen(FilterContext& ctx) {
    ScaleChannel(ctx, 8);
}
void FilterScaleBlue(FilterContext& ctx) {
    ScaleChannel(ctx, 0);
}

// id 50: alpha 0 for pixels near the key colour (alpha of the key unused).
void FilterColorKey(FilterContext& ctx) {
    const std::int32_t t = RoundI(ctx.Param1);
    const std::int32_t d = static_cast<std::int32_t>(std::floor(768.0 - (768.0 / 100.0) * t));
    const std::uint32_t key = static_cast<std::uint32_t>(RoundI(ctx.Param2));
    const std::int32_t kb = key & 0xFF, kg = (key >> 8) & 0xFF, kr = (key >> 16) & 0xFF;
    for (std::uint32_t& v : ctx.WorkPixels) {
        bool hit;
        if (d != 0) {
            hit = std::abs(static_cast<std::int32_t>(G_(v)) - kg) +
                      std::abs(static_cast<std::int32_t>(B_(v)) - kb) +
                      std::abs(static_cast<std::int32_t>(R_(v)) - kr) <=
                  d;
        } else {
            hit = (v & 0x00FFFFFFu) == (key & 0x00FFFFFFu);
        }
        if (hit) v &= 0x00FFFFFFu;
    }
}

// id 51: pixels near the source colour (alpha included) become the
// destination colour, alpha included.
void FilterColorReplace(FilterContext& ctx) {
    const std::int32_t t = RoundI(ctx.Param1);
    const std::int32_t d = static_cast<std::int32_t>(std::floor(1024.0 - 10.24 * t));
    const std::uint32_t src = static_cast<std::uint32_t>(RoundI(ctx.Param2));
    const std::uint32_t dst = static_cast<std::uint32_t>(RoundI(ctx.Param3));
    for (std::uint32_t& v : ctx.WorkPixels) {
        bool hit;
        if (d != 0) {
            std::int32_t sum = 0;
            for (int c = 0; c < 32; c += 8)
                sum += std::abs(static_cast<std::int32_t>((v >> c) & 0xFF) -
                                static_cast<std::int32_t>((src >> c) & 0xFF));
            hit = sum <= d;
        } else {
            hit = v == src;
        }
        if (hit) v = dst;
    }
}

// id 58: histogram equalisation of the mean intensity, one table for all
// three channels.
void FilterEqualize(FilterContext& ctx) {
    if (ctx.WorkPixels.empty()) return;
    std::uint8_t bin[766];
    for (int s = 0; s < 766; ++s)
        bin[s] = static_cast<std::uint8_t>(RoundI(s / 3.0));
    std::int64_t hist[256] = {};
    for (std::uint32_t v : ctx.WorkPixels)
        ++hist[bin[B_(v) + G_(v) + R_(v)]];
    const double N = static_cast<double>(ctx.WorkPixels.size());
    std::uint8_t L[256];
    double C = 0.0;
    for (int i = 0; i < 256; ++i) {
        C += static_cast<double>(hist[i]);
        L[i] = static_cast<std::uint8_t>(RoundI(std::min(std::max(C * 255.0 / N, 0.0), 255.0)));
    }
    ApplyRGBTable(ctx.WorkPixels, L);
}

} // namespace kestrelyn
