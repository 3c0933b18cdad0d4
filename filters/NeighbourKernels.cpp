// The vector kernels of the neighbourhood filters (see NeighbourKernels.h).
// Each kernel, the median selection networks included, is written once as a
// template over a vector traits class (load, sort a pair, keep a minimum or
// maximum, store keeping alpha) and instantiated for __m128i, __m256i and
// __m512i.
//
// A template cannot take its instruction set from its argument, and an AVX
// vector passed by value to or from code built without AVX changes the
// calling convention. So the traits' operations take their vectors by
// reference and carry their instruction set as a target attribute, and the
// OnAvx2 / OnAvx512 wrappers, which have that target, inline the whole kernel
// into themselves (flatten). The code runs on any x86-64 and picks its
// vectors at run time.
#include "filters/NeighbourKernels.h"

#include <immintrin.h>

#include <algorithm>
#include <cstddef>
#include <utility>

#include "filters/modFilters.h"

namespace kestrelyn {

namespace {

constexpr std::uint32_t kAlpha = 0xFF000000u;

#define KY_AVX2 __attribute__((target("avx2")))
#define KY_AVX512 __attribute__((target("avx512f,avx512bw")))

struct Sse2Vectors {
    using V = __m128i;
    static constexpr std::int32_t kPixels = 4;
    static void Load(V& v, const std::uint32_t* p) {
        v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    }
    // lo, hi = the per-byte minimum and maximum of the two.
    static void Sort(V& lo, V& hi) {
        const V t = _mm_min_epu8(lo, hi);
        hi = _mm_max_epu8(lo, hi);
        lo = t;
    }
    static void KeepMin(V& a, const V& b) { a = _mm_min_epu8(a, b); }
    static void KeepMax(V& a, const V& b) { a = _mm_max_epu8(a, b); }
    // Stores the colour bytes of v with the alpha bytes of alphaFrom.
    static void StoreKeepAlpha(std::uint32_t* p, const std::uint32_t* alphaFrom, const V& v) {
        const V am = _mm_set1_epi32(static_cast<int>(kAlpha));
        const V old = _mm_loadu_si128(reinterpret_cast<const __m128i*>(alphaFrom));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p),
                         _mm_or_si128(_mm_and_si128(old, am), _mm_andnot_si128(am, v)));
    }
};

struct Avx2Vectors {
    using V = __m256i;
    static constexpr std::int32_t kPixels = 8;
    KY_AVX2 static void Load(V& v, const std::uint32_t* p) {
        v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    }
    KY_AVX2 static void Sort(V& lo, V& hi) {
        const V t = _mm256_min_epu8(lo, hi);
        hi = _mm256_max_epu8(lo, hi);
        lo = t;
    }
    KY_AVX2 static void KeepMin(V& a, const V& b) { a = _mm256_min_epu8(a, b); }
    KY_AVX2 static void KeepMax(V& a, const V& b) { a = _mm256_max_epu8(a, b); }
    KY_AVX2 static void StoreKeepAlpha(std::uint32_t* p, const std::uint32_t* alphaFrom,
                                       const V& v) {
        const V am = _mm256_set1_epi32(static_cast<int>(kAlpha));
        const V old = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(alphaFrom));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(p),
                            _mm256_or_si256(_mm256_and_si256(old, am), _mm256_andnot_si256(am, v)));
    }
};

struct Avx512Vectors {
    using V = __m512i;
    static constexpr std::int32_t kPixels = 16;
    KY_AVX512 static void Load(V& v, const std::uint32_t* p) { v = _mm512_loadu_si512(p); }
    KY_AVX512 static void Sort(V& lo, V& hi) {
        const V t = _mm512_min_epu8(lo, hi);
        hi = _mm512_max_epu8(lo, hi);
        lo = t;
    }
    KY_AVX512 static void KeepMin(V& a, const V& b) { a = _mm512_min_epu8(a, b); }
    KY_AVX512 static void KeepMax(V& a, const V& b) { a = _mm512_max_epu8(a, b); }
    KY_AVX512 static void StoreKeepAlpha(std::uint32_t* p, const std::uint32_t* alphaFrom,
                                         const V& v) {
        _mm512_storeu_si512(
            p, _mm512_mask_blend_epi8(0x8888888888888888ull, v, _mm512_loadu_si512(alphaFrom)));
    }
};

// Run a kernel instantiated for AVX2, AVX-512 or SSE2 with that instruction
// set: the kernel and the traits' operations are inlined into the wrapper.
template <auto Kernel, typename... Args>
KY_AVX2 __attribute__((flatten)) auto OnAvx2(Args... args) {
    return Kernel(args...);
}
template <auto Kernel, typename... Args>
KY_AVX512 __attribute__((flatten)) auto OnAvx512(Args... args) {
    return Kernel(args...);
}
template <auto Kernel, typename... Args> __attribute__((flatten)) auto OnSse2(Args... args) {
    return Kernel(args...);
}

// --- 3x3 extremes ---

// Row steps of the 3x3 maximum (bMax) or minimum from x on; returns the first
// x left for the narrower steps.
template <typename Vec, bool bMax>
std::int32_t ExtremeSteps(const std::uint32_t* a, const std::uint32_t* b, const std::uint32_t* c,
                          std::uint32_t* out, std::int32_t W, std::int32_t x) {
    for (; x + Vec::kPixels <= W - 1; x += Vec::kPixels) {
        typename Vec::V e, t;
        Vec::Load(e, a + x - 1);
        for (int j = 1; j < 9; ++j) {
            const std::uint32_t* row = j < 3 ? a : (j < 6 ? b : c);
            Vec::Load(t, row + x - 1 + j % 3);
            if constexpr (bMax)
                Vec::KeepMax(e, t);
            else
                Vec::KeepMin(e, t);
        }
        Vec::StoreKeepAlpha(out + x, b + x, e);
    }
    return x;
}

template <bool bMax>
void ExtremeRow3(const std::uint32_t* a, const std::uint32_t* b, const std::uint32_t* c,
                 std::uint32_t* out, std::int32_t W, int nVectors) {
    std::int32_t x = 1;
    if (nVectors >= kVectorsAvx512)
        x = OnAvx512<ExtremeSteps<Avx512Vectors, bMax>>(a, b, c, out, W, x);
    x = OnSse2<ExtremeSteps<Sse2Vectors, bMax>>(a, b, c, out, W, x);
    for (; x < W - 1; ++x) {
        std::uint32_t o = b[x] & kAlpha;
        for (int k = 0; k < 24; k += 8) {
            std::uint32_t m = bMax ? 0 : 255;
            for (int dx = -1; dx <= 1; ++dx)
                for (const std::uint32_t* r : {a, b, c}) {
                    const std::uint32_t v = (r[x + dx] >> k) & 0xFF;
                    m = bMax ? std::max(m, v) : std::min(m, v);
                }
            o |= m << k;
        }
        out[x] = o;
    }
}

// --- 3x3 median ---

// v[n * r + k] = the vector of pixels at x + k - n / 2 of rows[r], for the
// rows and columns of an n x n square. The indices are constants, so the
// vectors can live in registers.
template <typename Vec, std::size_t n, std::size_t... i>
void LoadSquare(typename Vec::V (&v)[n * n], const std::uint32_t* const (&rows)[n], std::int32_t x,
                std::index_sequence<i...>) {
    constexpr auto half = static_cast<std::int32_t>(n / 2);
    (Vec::Load(v[i], rows[i / n] + x + static_cast<std::int32_t>(i % n) - half), ...);
}

// The median of nine: each column of three is sorted; the median of nine is
// then the median of (largest of the column minima, median of the column
// medians, smallest of the column maxima). The nine values are the pixels at
// x - 1 .. x + 1 of rows a, b and c.
template <typename Vec>
void Median9(typename Vec::V& out, const std::uint32_t* a, const std::uint32_t* b,
             const std::uint32_t* c, std::int32_t x) {
    typename Vec::V v[9];
    const std::uint32_t* const rows[3] = {a, b, c};
    LoadSquare<Vec, 3>(v, rows, x, std::make_index_sequence<9>());
    // Columns v[k], v[3 + k], v[6 + k] sorted into minimum, median, maximum.
    Vec::Sort(v[0], v[3]);
    Vec::Sort(v[0], v[6]);
    Vec::Sort(v[3], v[6]);
    Vec::Sort(v[1], v[4]);
    Vec::Sort(v[1], v[7]);
    Vec::Sort(v[4], v[7]);
    Vec::Sort(v[2], v[5]);
    Vec::Sort(v[2], v[8]);
    Vec::Sort(v[5], v[8]);
    // top = v[0], the largest minimum; bottom = v[6], the smallest maximum.
    Vec::KeepMax(v[0], v[1]);
    Vec::KeepMax(v[0], v[2]);
    Vec::KeepMin(v[6], v[7]);
    Vec::KeepMin(v[6], v[8]);
    // v[3] = the median of the medians: max(min(m0, m1), min(max(m0, m1), m2)).
    Vec::Sort(v[3], v[4]);
    Vec::KeepMin(v[4], v[5]);
    Vec::KeepMax(v[3], v[4]);
    // The median of top, that median and bottom.
    Vec::Sort(v[0], v[3]);
    Vec::KeepMin(v[3], v[6]);
    Vec::KeepMax(v[0], v[3]);
    out = v[0];
}

template <typename Vec>
std::int32_t Median3Steps(const std::uint32_t* a, const std::uint32_t* b, const std::uint32_t* c,
                          std::uint32_t* out, std::int32_t W, std::int32_t x) {
    for (; x + Vec::kPixels <= W - 1; x += Vec::kPixels) {
        typename Vec::V m;
        Median9<Vec>(m, a, b, c, x);
        Vec::StoreKeepAlpha(out + x, b + x, m);
    }
    return x;
}

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

// --- 5x5 median ---

// The median of the 25 pixels around c (row stride W) by a selection network:
// the part of an odd-even merge sort of the 25 values that decides the middle
// element, with the comparators whose result cannot reach it left out or
// halved. The median ends in v[7].
template <typename Vec>
void Median25(typename Vec::V& out, const std::uint32_t* c, std::ptrdiff_t W) {
    typename Vec::V v[25];
    const std::uint32_t* const rows[5] = {c - 2 * W, c - W, c, c + W, c + 2 * W};
    LoadSquare<Vec, 5>(v, rows, 0, std::make_index_sequence<25>());
    Vec::Sort(v[0], v[1]);
    Vec::Sort(v[2], v[3]);
    Vec::Sort(v[4], v[5]);
    Vec::Sort(v[6], v[7]);
    Vec::Sort(v[8], v[9]);
    Vec::Sort(v[10], v[11]);
    Vec::Sort(v[12], v[13]);
    Vec::Sort(v[14], v[15]);
    Vec::Sort(v[16], v[17]);
    Vec::Sort(v[18], v[19]);
    Vec::Sort(v[20], v[21]);
    Vec::Sort(v[22], v[23]);
    Vec::Sort(v[0], v[2]);
    Vec::Sort(v[1], v[3]);
    Vec::Sort(v[4], v[6]);
    Vec::Sort(v[5], v[7]);
    Vec::Sort(v[8], v[10]);
    Vec::Sort(v[9], v[11]);
    Vec::Sort(v[12], v[14]);
    Vec::Sort(v[13], v[15]);
    Vec::Sort(v[16], v[18]);
    Vec::Sort(v[17], v[19]);
    Vec::Sort(v[20], v[22]);
    Vec::Sort(v[21], v[23]);
    Vec::Sort(v[1], v[2]);
    Vec::Sort(v[5], v[6]);
    Vec::Sort(v[9], v[10]);
    Vec::Sort(v[13], v[14]);
    Vec::Sort(v[17], v[18]);
    Vec::Sort(v[21], v[22]);
    Vec::Sort(v[0], v[4]);
    Vec::Sort(v[1], v[5]);
    Vec::Sort(v[2], v[6]);
    Vec::Sort(v[3], v[7]);
    Vec::Sort(v[8], v[12]);
    Vec::Sort(v[9], v[13]);
    Vec::Sort(v[10], v[14]);
    Vec::Sort(v[11], v[15]);
    Vec::Sort(v[16], v[20]);
    Vec::Sort(v[17], v[21]);
    Vec::Sort(v[18], v[22]);
    Vec::Sort(v[19], v[23]);
    Vec::Sort(v[2], v[4]);
    Vec::Sort(v[3], v[5]);
    Vec::Sort(v[10], v[12]);
    Vec::Sort(v[11], v[13]);
    Vec::Sort(v[18], v[20]);
    Vec::Sort(v[19], v[21]);
    Vec::Sort(v[1], v[2]);
    Vec::Sort(v[3], v[4]);
    Vec::Sort(v[5], v[6]);
    Vec::Sort(v[9], v[10]);
    Vec::Sort(v[11], v[12]);
    Vec::Sort(v[13], v[14]);
    Vec::Sort(v[17], v[18]);
    Vec::Sort(v[19], v[20]);
    Vec::Sort(v[21], v[22]);
    Vec::Sort(v[0], v[8]);
    Vec::Sort(v[1], v[9]);
    Vec::Sort(v[2], v[10]);
    Vec::Sort(v[3], v[11]);
    Vec::Sort(v[4], v[12]);
    Vec::Sort(v[5], v[13]);
    Vec::Sort(v[6], v[14]);
    Vec::KeepMin(v[7], v[15]);
    Vec::Sort(v[16], v[24]);
    Vec::Sort(v[4], v[8]);
    Vec::Sort(v[5], v[9]);
    Vec::Sort(v[6], v[10]);
    Vec::Sort(v[7], v[11]);
    Vec::Sort(v[20], v[24]);
    Vec::Sort(v[2], v[4]);
    Vec::Sort(v[3], v[5]);
    Vec::Sort(v[6], v[8]);
    Vec::Sort(v[7], v[9]);
    Vec::Sort(v[10], v[12]);
    Vec::Sort(v[11], v[13]);
    Vec::Sort(v[18], v[20]);
    Vec::Sort(v[19], v[21]);
    Vec::Sort(v[22], v[24]);
    Vec::Sort(v[1], v[2]);
    Vec::Sort(v[3], v[4]);
    Vec::Sort(v[5], v[6]);
    Vec::Sort(v[7], v[8]);
    Vec::Sort(v[9], v[10]);
    Vec::Sort(v[11], v[12]);
    Vec::KeepMin(v[13], v[14]);
    Vec::Sort(v[17], v[18]);
    Vec::Sort(v[19], v[20]);
    Vec::Sort(v[21], v[22]);
    Vec::Sort(v[23], v[24]);
    Vec::KeepMax(v[0], v[16]);
    Vec::KeepMax(v[1], v[17]);
    Vec::KeepMax(v[2], v[18]);
    Vec::KeepMax(v[3], v[19]);
    Vec::KeepMax(v[4], v[20]);
    Vec::KeepMax(v[5], v[21]);
    Vec::KeepMin(v[6], v[22]);
    Vec::KeepMin(v[7], v[23]);
    Vec::KeepMin(v[8], v[24]);
    Vec::KeepMax(v[8], v[0]);
    Vec::KeepMax(v[9], v[1]);
    Vec::KeepMin(v[10], v[2]);
    Vec::KeepMin(v[11], v[3]);
    Vec::KeepMin(v[12], v[4]);
    Vec::KeepMin(v[13], v[5]);
    Vec::KeepMax(v[6], v[10]);
    Vec::KeepMax(v[7], v[11]);
    Vec::KeepMin(v[12], v[8]);
    Vec::KeepMin(v[13], v[9]);
    Vec::KeepMax(v[6], v[12]);
    Vec::KeepMin(v[7], v[13]);
    Vec::KeepMax(v[7], v[6]);
    out = v[7];
}

// Steps of the 5x5 median along one row (s and w at the row's pixel 0) from x
// on; returns the first x left for the narrower steps.
template <typename Vec>
std::int32_t Median5Steps(const std::uint32_t* s, std::uint32_t* w, std::int32_t W,
                          std::int32_t x) {
    for (; x + Vec::kPixels <= W - 2; x += Vec::kPixels) {
        typename Vec::V m;
        Median25<Vec>(m, s + x, W);
        Vec::StoreKeepAlpha(w + x, s + x, m);
    }
    return x;
}

// The per-channel median of the (2r + 1)^2 pixels around i.
std::uint32_t MedianScalar(const std::uint32_t* s, std::size_t i, std::int32_t W, int r) {
    std::uint32_t out = s[i] & kAlpha;
    std::uint32_t v[25];
    for (int k = 0; k < 24; k += 8) {
        int n = 0;
        for (int dy = -r; dy <= r; ++dy)
            for (int dx = -r; dx <= r; ++dx)
                v[n++] = (s[i + static_cast<std::ptrdiff_t>(dy) * W + dx] >> k) & 0xFF;
        std::nth_element(v, v + n / 2, v + n);
        out |= v[n / 2] << k;
    }
    return out;
}

// Eight pixels' bytes as 16-bit lanes.
KY_AVX512 inline __m512i Widen8(const std::uint32_t* p) {
    return _mm512_cvtepu8_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
}

} // namespace

void MaximumRow3(const std::uint32_t* a, const std::uint32_t* b, const std::uint32_t* c,
                 std::uint32_t* out, std::int32_t W, int nVectors) {
    ExtremeRow3<true>(a, b, c, out, W, nVectors);
}

void MinimumRow3(const std::uint32_t* a, const std::uint32_t* b, const std::uint32_t* c,
                 std::uint32_t* out, std::int32_t W, int nVectors) {
    ExtremeRow3<false>(a, b, c, out, W, nVectors);
}

void MedianRow3(const std::uint32_t* a, const std::uint32_t* b, const std::uint32_t* c,
                std::uint32_t* out, std::int32_t W, int nVectors) {
    std::int32_t x = 1;
    if (nVectors >= kVectorsAvx512) x = OnAvx512<Median3Steps<Avx512Vectors>>(a, b, c, out, W, x);
    if (nVectors >= kVectorsAvx2) x = OnAvx2<Median3Steps<Avx2Vectors>>(a, b, c, out, W, x);
    x = OnSse2<Median3Steps<Sse2Vectors>>(a, b, c, out, W, x);
    for (; x < W - 1; ++x)
        out[x] = Median9Scalar(a, b, c, x);
}

void MedianRows5(const std::uint32_t* source, std::uint32_t* work, std::int32_t W, std::int32_t H,
                 int nVectors) {
    for (std::int32_t y = 2; y < H - 2; ++y) {
        const std::size_t row = static_cast<std::size_t>(y) * W;
        const std::uint32_t* s = source + row;
        std::uint32_t* w = work + row;
        std::int32_t x = 2;
        if (nVectors >= kVectorsAvx2) x = OnAvx2<Median5Steps<Avx2Vectors>>(s, w, W, x);
        x = OnSse2<Median5Steps<Sse2Vectors>>(s, w, W, x);
        for (; x < W - 2; ++x)
            w[x] = MedianScalar(source, row + x, W, 2);
    }
}

KY_AVX512 std::int32_t PartialRowAvx512(const std::uint32_t* up, const std::uint32_t* cur,
                                        const std::uint32_t* dn, std::int32_t W, std::int32_t k,
                                        std::int32_t mul, std::int32_t bias, std::uint16_t* P) {
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

} // namespace kestrelyn
