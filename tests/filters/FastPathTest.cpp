// The fast paths of the filter engine against plain formulas: grayscale over
// every colour, contrast with its balancing clip, the table-driven in-place
// sharpen and edge enhance, and the frame (pixels filtered in the image's own
// rows, lent source rows, pooled buffers with only their border filled)
// against ApplyFilter on the same pixels, for odd sizes, zones and formats.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>

#include "FilterTestSupport.h"
#include "kestrelyn/Imaging.h"

using namespace kestrelyn;
using namespace kytest;

namespace {

std::vector<std::uint32_t> Noise(std::size_t n, std::uint32_t seed, bool bAlpha = true) {
    std::mt19937 rng(seed);
    std::vector<std::uint32_t> v(n);
    for (auto& p : v)
        p = bAlpha ? rng() : (rng() | 0xFF000000u);
    return v;
}

// Pixels crowded at both ends of each channel, where the contrast clip acts.
std::vector<std::uint32_t> Extremes(std::size_t n, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<std::uint32_t> v(n);
    auto ch = [&rng]() -> std::uint32_t {
        const std::uint32_t r = rng() % 40;
        return rng() & 1 ? r : 255 - r;
    };
    for (auto& p : v)
        p = (rng() & 0xFF000000u) | (ch() << 16) | (ch() << 8) | ch();
    return v;
}

std::uint32_t Clamp(std::int32_t v) {
    return static_cast<std::uint32_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
}

// The contrast filter written the long way: mean of the truncated thirds,
// the rounded table, then the clip step by step.
std::vector<std::uint32_t> ContrastByHand(std::vector<std::uint32_t> px, int pct) {
    std::int64_t sum = 0;
    for (std::uint32_t v : px)
        sum += (Red(v) + Green(v) + Blue(v)) / 3;
    const auto m = static_cast<std::int32_t>(
        std::floor(static_cast<double>(sum) / static_cast<double>(px.size())));
    const double f = (pct + 100.0) / 100.0;
    auto t = [&](std::uint32_t c) {
        return static_cast<std::int32_t>(std::nearbyint((static_cast<int>(c) - m) * f + m));
    };
    auto out = [](std::int32_t v) { return v < 0 || v > 255; };
    for (std::uint32_t& v : px) {
        std::int32_t c[3] = {t(Red(v)), t(Green(v)), t(Blue(v))};
        while (out(c[0]) || out(c[1]) || out(c[2])) {
            if (c[0] <= 0 && c[1] <= 0 && c[2] <= 0) {
                c[0] = c[1] = c[2] = 0;
                break;
            }
            if (c[0] >= 255 && c[1] >= 255 && c[2] >= 255) {
                c[0] = c[1] = c[2] = 255;
                break;
            }
            for (int k = 0; k < 3; ++k) {
                std::int32_t h = 0;
                if (c[k] < 0) {
                    h = c[k] / 2;
                    c[k] = 0;
                } else if (c[k] > 255) {
                    h = (c[k] - 255) / 2;
                    c[k] = 255;
                } else {
                    continue;
                }
                c[(k + 1) % 3] += h;
                c[(k + 2) % 3] += h;
            }
        }
        v = Px(v >> 24, c[0], c[1], c[2]);
    }
    return px;
}

// In-place 3x3 filter Clamp((c * k - mul * Sum8) / d), read from the buffer
// as it is being written.
std::vector<std::uint32_t> InPlaceByHand(std::vector<std::uint32_t> px, int w, int h, int k,
                                         int mul, int d) {
    for (int y = 1; y < h - 1; ++y)
        for (int x = 1; x < w - 1; ++x) {
            std::uint32_t out[3];
            for (int c = 0; c < 3; ++c) {
                const int sh = 8 * c;
                int s8 = 0;
                for (int dy = -1; dy <= 1; ++dy)
                    for (int dx = -1; dx <= 1; ++dx)
                        if (dx || dy) s8 += (px[(y + dy) * w + x + dx] >> sh) & 0xFF;
                const int v = static_cast<int>((px[y * w + x] >> sh) & 0xFF);
                out[c] = Clamp((v * k - mul * s8) / d);
            }
            std::uint32_t& p = px[y * w + x];
            p = (p & 0xFF000000u) | (out[2] << 16) | (out[1] << 8) | out[0];
        }
    return px;
}

} // namespace

TEST(FastPaths, GrayscaleMatchesTheRoundedThirdForEveryColour) {
    std::vector<std::uint32_t> px(1u << 24);
    for (std::uint32_t i = 0; i < px.size(); ++i)
        px[i] = ((i * 37u) << 24) | i;
    const auto out = Apply({FilterId::Grayscale, 3}, px, 4096, 4096);
    std::size_t bad = 0;
    for (std::uint32_t i = 0; i < px.size(); ++i) {
        const auto g =
            static_cast<std::uint32_t>(std::nearbyint((Red(i) + Green(i) + Blue(i)) / 3.0));
        if (out[i] != (px[i] & 0xFF000000u) + g * 0x010101u) ++bad;
    }
    EXPECT_EQ(bad, 0u);
    // A run whose length is not a multiple of the vector width.
    const std::vector<std::uint32_t> odd = {Px(1, 255, 255, 254), Px(2, 0, 0, 1), Px(3, 0, 1, 1),
                                            Px(4, 200, 100, 50),  Px(5, 1, 2, 2), Px(6, 9, 9, 8),
                                            Px(7, 255, 255, 255)};
    EXPECT_EQ(Apply({FilterId::Grayscale, 3}, odd, 7, 1),
              (std::vector<std::uint32_t>{Gray(255, 1), Gray(0, 2), Gray(1, 3), Gray(117, 4),
                                          Gray(2, 5), Gray(9, 6), Gray(255, 7)}));
}

TEST(FastPaths, ContrastMatchesTheStepByStepClip) {
    const std::pair<int, int> sizes[] = {{37, 23}, {1, 9}, {64, 33}};
    for (const auto& [w, h] : sizes)
        for (int pct : {-80, -10, 0, 10, 45, 100, 300}) {
            const std::size_t n = static_cast<std::size_t>(w) * h;
            for (const auto& px : {Noise(n, 7u + pct), Extremes(n, 11u + pct)})
                EXPECT_EQ(Apply({FilterId::Contrast, static_cast<double>(pct)}, px, w, h),
                          ContrastByHand(px, pct))
                    << w << "x" << h << " at " << pct;
        }
}

TEST(FastPaths, SharpenAndEdgeEnhanceMatchTheDivision) {
    const std::pair<int, int> sizes[] = {{3, 3}, {41, 17}, {130, 5}};
    for (const auto& [w, h] : sizes) {
        const auto px = Noise(static_cast<std::size_t>(w) * h, w * 31u + h);
        for (int s : {2, 0, -5, -7, 9}) {
            EXPECT_EQ(Apply({FilterId::Sharpen, static_cast<double>(s)}, px, w, h),
                      InPlaceByHand(px, w, h, s + 24, 2, s + 8))
                << "sharpen " << s << " on " << w << "x" << h;
        }
        for (int s : {1, 0, 4, -3, -2}) {
            EXPECT_EQ(Apply({FilterId::EdgeEnhance, static_cast<double>(s)}, px, w, h),
                      InPlaceByHand(px, w, h, s + 9, 1, s + 1))
                << "edge enhance " << s << " on " << w << "x" << h;
        }
    }
    // Parameters too large for a table take the general way.
    const auto px = Noise(15 * 7, 5);
    EXPECT_EQ(Apply({FilterId::Sharpen, 1000.0}, px, 15, 7),
              InPlaceByHand(px, 15, 7, 1024, 2, 1008));
}

namespace {

struct Member {
    const char* name;
    std::function<KestrelynStatus(Imaging&)> run;
    Run raw;
};

const Member kMembers[] = {
    {"FxSharpen", [](Imaging& im) { return im.FxSharpen(); }, {FilterId::Sharpen, 2}},
    {"FxNegative", [](Imaging& im) { return im.FxNegative(); }, {FilterId::Negative}},
    {"FxBlur", [](Imaging& im) { return im.FxBlur(); }, {FilterId::Blur}},
    {"FxSmooth", [](Imaging& im) { return im.FxSmooth(); }, {FilterId::Smooth}},
    {"FxEdgeEnhance", [](Imaging& im) { return im.FxEdgeEnhance(); }, {FilterId::EdgeEnhance, 1}},
    {"FxContour", [](Imaging& im) { return im.FxContour(); }, {FilterId::Contour, 0xFFFFFF}},
    {"FxEmboss",
     [](Imaging& im) { return im.FxEmboss(); },
     {FilterId::Emboss, (120 << 8) | (120 << 16)}},
    {"FxEmbossMore",
     [](Imaging& im) { return im.FxEmbossMore(); },
     {FilterId::EmbossMore, (120 << 8) | (120 << 16)}},
    {"FxGrayscale", [](Imaging& im) { return im.FxGrayscale(); }, {FilterId::Grayscale, 3}},
    {"FxRelief", [](Imaging& im) { return im.FxRelief(); }, {FilterId::Relief}},
    {"SetBrightness", [](Imaging& im) { return im.SetBrightness(20); }, {FilterId::Brightness, 20}},
    {"SetContrast", [](Imaging& im) { return im.SetContrast(30); }, {FilterId::Contrast, 30}},
    {"FxAqua", [](Imaging& im) { return im.FxAqua(); }, {FilterId::Aqua}},
    {"FxDilate", [](Imaging& im) { return im.FxDilate(); }, {FilterId::Dilate}},
    {"FxErode", [](Imaging& im) { return im.FxErode(); }, {FilterId::Erode}},
    {"FxConnectedContour",
     [](Imaging& im) { return im.FxConnectedContour(); },
     {FilterId::ConnectedContour}},
    {"FxStretchContrast",
     [](Imaging& im) { return im.FxStretchContrast(); },
     {FilterId::StretchContrast}},
    {"FxSoften", [](Imaging& im) { return im.FxSoften(30); }, {FilterId::Soften, 30}},
    {"FxSepia", [](Imaging& im) { return im.FxSepia(); }, {FilterId::Colorize}},
    {"FxEqualizeIntensity",
     [](Imaging& im) { return im.FxEqualizeIntensity(); },
     {FilterId::Equalize}},
    {"FxDespeckle", [](Imaging& im) { return im.FxDespeckle(); }, {FilterId::Despeckle}},
    {"FxDespeckleMore",
     [](Imaging& im) { return im.FxDespeckleMore(); },
     {FilterId::DespeckleMore}},
};

std::vector<std::uint32_t> Crop(const std::vector<std::uint32_t>& px, int w, int l, int t, int cw,
                                int ch) {
    std::vector<std::uint32_t> out;
    for (int y = t; y < t + ch; ++y)
        for (int x = l; x < l + cw; ++x)
            out.push_back(px[static_cast<std::size_t>(y) * w + x]);
    return out;
}

// Runs one member on a w x h image of the given depth over a zone and
// compares the whole image with ApplyFilter on the zone's pixels.
void CheckFrame(const Member& m, int depth, int w, int h, int l, int t, int zw, int zh) {
    Imaging im;
    ASSERT_NE(im.CreateNewImage(w, h, depth), 0);
    auto px = Noise(static_cast<std::size_t>(w) * h, w * 131u + h + depth, depth == 32);
    std::vector<std::int32_t> argb(px.begin(), px.end());
    ASSERT_EQ(im.SetPixelArrayARGB(argb, 0, 0, w, h), OK);
    if (depth != 32)
        for (auto& p : px)
            p |= 0xFF000000u;
    const bool bWhole = l == 0 && t == 0 && zw == w && zh == h;
    if (!bWhole) im.SetROI(l, t, zw, zh);
    ASSERT_EQ(m.run(im), OK) << m.name;
    std::vector<std::int32_t> got;
    ASSERT_EQ(im.GetPixelArrayARGB(got, 0, 0, w, h), OK);
    const auto zone = Apply(m.raw, Crop(px, w, l, t, zw, zh), zw, zh,
                            m.raw.id == FilterId::Colorize ? 0.5f : 0.0f,
                            m.raw.id == FilterId::Colorize ? 0.25f : 0.5f);
    auto want = px;
    for (int y = 0; y < zh; ++y)
        for (int x = 0; x < zw; ++x)
            want[static_cast<std::size_t>(y + t) * w + x + l] =
                zone[static_cast<std::size_t>(y) * zw + x];
    std::size_t bad = 0;
    for (std::size_t i = 0; i < want.size(); ++i)
        if (static_cast<std::uint32_t>(got[i]) != want[i]) ++bad;
    EXPECT_EQ(bad, 0u) << m.name << " depth " << depth << " image " << w << "x" << h << " zone "
                       << l << "," << t << " " << zw << "x" << zh;
}

} // namespace

TEST(FastPaths, FrameMatchesTheFilterOnTheZonesPixels) {
    for (const Member& m : kMembers) {
        for (int depth : {32, 24}) {
            CheckFrame(m, depth, 53, 31, 0, 0, 53, 31); // whole image
            CheckFrame(m, depth, 53, 31, 3, 2, 41, 27); // inner zone
            CheckFrame(m, depth, 53, 31, 0, 5, 53, 9);  // full-width band
            CheckFrame(m, depth, 9, 7, 2, 1, 4, 4);     // too small for a 5x5 inside
            CheckFrame(m, depth, 9, 7, 0, 3, 9, 1);     // one row
        }
    }
}

TEST(FastPaths, AFailingFilterLeavesTheImageAlone) {
    // Soften with 104 overflows a byte part-way through; it is not run in the
    // image's rows, so nothing is written.
    Imaging im;
    ASSERT_NE(im.CreateNewImage(6, 5, 32), 0);
    auto px = Noise(30, 3);
    std::vector<std::int32_t> before(px.begin(), px.end());
    ASSERT_EQ(im.SetPixelArrayARGB(before, 0, 0, 6, 5), OK);
    EXPECT_NE(im.FxSoften(104), OK);
    std::vector<std::int32_t> after;
    ASSERT_EQ(im.GetPixelArrayARGB(after, 0, 0, 6, 5), OK);
    after.resize(30);
    EXPECT_EQ(after, before);
}

namespace {

// Every colour once (alpha varying too), followed by `nPadRows` rows of
// `pad`, which steer the zone's mean gray.
std::vector<std::uint32_t> EveryColour(int nPadRows, std::uint32_t pad) {
    std::vector<std::uint32_t> px((4096u + nPadRows) * 4096u, pad);
    for (std::uint32_t i = 0; i < (1u << 24); ++i)
        px[i] = ((i * 2654435761u) & 0xFF000000u) | i;
    return px;
}

// Restores the widest vectors when a test ends.
struct VectorLimit {
    explicit VectorLimit(int n) { LimitFilterVectors(n); }
    ~VectorLimit() { LimitFilterVectors(kVectorsAvx512); }
};

} // namespace

TEST(FastPaths, ContrastMatchesTheFormulaOnEveryColour) {
    struct Case {
        int pct, nPadRows;
        std::uint32_t pad;
    };
    // Mean gray near 127, 84 and 170; raising, flattening and inverting
    // contrast; and a contrast whose table leaves 16 bits.
    for (const Case& c : {Case{10, 0, 0}, Case{100, 2048, Gray(0)}, Case{-150, 0, 0},
                          Case{45, 2048, Gray(255)}, Case{30000, 1024, Px(0, 250, 3, 128)}}) {
        const auto px = EveryColour(c.nPadRows, c.pad);
        const int h = 4096 + c.nPadRows;
        const auto want = ContrastByHand(px, c.pct);
        const auto got = Apply({FilterId::Contrast, static_cast<double>(c.pct)}, px, 4096, h);
        std::size_t bad = 0;
        for (std::size_t i = 0; i < px.size(); ++i)
            bad += got[i] != want[i];
        EXPECT_EQ(bad, 0u) << "contrast " << c.pct << " with " << c.nPadRows << " padding rows";
        if (c.pct == 100) {
            VectorLimit avx2(kVectorsAvx2);
            EXPECT_EQ(Apply({FilterId::Contrast, 100.0}, px, 4096, h), want) << "AVX2 clip";
        }
    }
}

TEST(FastPaths, ContrastVectorAndPlainPathsAgree) {
    const std::pair<int, int> sizes[] = {{37, 23}, {1, 9}, {15, 1}, {2049, 3}, {4097, 2}};
    for (const auto& [w, h] : sizes)
        for (int pct : {-300, -150, -100, -37, 0, 10, 45, 100, 300, 1000, 30000, 200000}) {
            const std::size_t n = static_cast<std::size_t>(w) * h;
            for (const auto& px : {Noise(n, 17u + pct), Extremes(n, 19u + pct),
                                   std::vector<std::uint32_t>(n, Px(7, 255, 0, 255))}) {
                const auto want = ContrastByHand(px, pct);
                for (int level : {kVectorsSse2, kVectorsAvx2, kVectorsAvx512}) {
                    VectorLimit limit(level);
                    EXPECT_EQ(Apply({FilterId::Contrast, static_cast<double>(pct)}, px, w, h), want)
                        << w << "x" << h << " at " << pct << ", vectors " << level;
                }
            }
        }
}

namespace {

// The (2r + 1) x (2r + 1) median the long way: sort each channel's values;
// the frame of r pixels stays as it came.
std::vector<std::uint32_t> MedianByHand(const std::vector<std::uint32_t>& in, int w, int h,
                                        int r = 1) {
    auto out = in;
    for (int y = r; y < h - r; ++y)
        for (int x = r; x < w - r; ++x) {
            std::uint32_t want = in[y * w + x] & 0xFF000000u;
            for (int sh = 0; sh < 24; sh += 8) {
                std::vector<std::uint32_t> v;
                for (int dy = -r; dy <= r; ++dy)
                    for (int dx = -r; dx <= r; ++dx)
                        v.push_back((in[(y + dy) * w + x + dx] >> sh) & 0xFF);
                std::sort(v.begin(), v.end());
                want |= v[v.size() / 2] << sh;
            }
            out[y * w + x] = want;
        }
    return out;
}

} // namespace

TEST(FastPaths, DespeckleVectorWidthsAndInPlaceFormMatchAPlainSort) {
    const std::pair<int, int> sizes[] = {{3, 3},  {4, 5},  {17, 4}, {18, 3}, {19, 7}, {33, 5},
                                         {35, 6}, {65, 9}, {1, 5},  {5, 1},  {2, 2},  {131, 4}};
    for (const auto& [w, h] : sizes) {
        const std::size_t n = static_cast<std::size_t>(w) * h;
        std::vector<std::uint32_t> stripes(n);
        for (std::size_t i = 0; i < n; ++i)
            stripes[i] = (i % 3 ? 0xFFFFFFFFu : 0u) ^ (i % 7 ? 0x00FF00FFu : 0u);
        for (const auto& px : {Noise(n, 23u + w * h), Extremes(n, 29u + w), stripes}) {
            const auto want = MedianByHand(px, w, h);
            for (int level : {kVectorsSse2, kVectorsAvx2, kVectorsAvx512}) {
                VectorLimit limit(level);
                EXPECT_EQ(Apply({FilterId::Despeckle}, px, w, h), want)
                    << w << "x" << h << ", vectors " << level;
                FilterContext ctx = FilterContext::Over(px, w, h);
                FilterDespeckleInPlace(ctx);
                EXPECT_EQ(std::vector<std::uint32_t>(ctx.WorkPixels), want)
                    << "in place, " << w << "x" << h << ", vectors " << level;
            }
        }
    }
}

// The 5x5 median's one selection network in its SSE2 and AVX2 forms and the
// plain tail: widths around the eight- and four-pixel steps, values crowded
// at the ends of a channel and runs of equal values (where a network that
// drops a comparator would still pick the wrong one).
TEST(FastPaths, DespeckleMoreVectorWidthsMatchAPlainSort) {
    const std::pair<int, int> sizes[] = {{5, 5},  {6, 7},  {8, 5},  {9, 6},  {12, 5},
                                         {13, 8}, {14, 5}, {17, 6}, {21, 7}, {37, 9},
                                         {4, 9},  {9, 4},  {2, 2},  {70, 6}};
    for (const auto& [w, h] : sizes) {
        const std::size_t n = static_cast<std::size_t>(w) * h;
        std::vector<std::uint32_t> runs(n);
        for (std::size_t i = 0; i < n; ++i)
            runs[i] = (i / 3) % 2 ? 0xFF808080u : ((i % 5) ? 0x00FF00FFu : 0x12345678u);
        for (const auto& px : {Noise(n, 47u + w * h), Extremes(n, 53u + w), runs}) {
            const auto want = MedianByHand(px, w, h, 2);
            for (int level : {kVectorsSse2, kVectorsAvx2, kVectorsAvx512}) {
                VectorLimit limit(level);
                EXPECT_EQ(Apply({FilterId::DespeckleMore}, px, w, h), want)
                    << w << "x" << h << ", vectors " << level;
            }
        }
    }
}

TEST(FastPaths, SharpenAndEdgeEnhanceVectorAndPlainPathsAgree) {
    const std::pair<int, int> sizes[] = {{3, 3},  {9, 4},  {10, 3}, {11, 5},
                                         {17, 6}, {26, 3}, {67, 7}, {2, 9}};
    for (const auto& [w, h] : sizes) {
        const std::size_t n = static_cast<std::size_t>(w) * h;
        std::vector<std::uint32_t> checker(n);
        for (std::size_t i = 0; i < n; ++i)
            checker[i] = ((i + i / w) & 1) ? 0xFFFFFFFFu : 0xFF000000u;
        for (const auto& px : {Noise(n, 31u * w + h), Extremes(n, 37u + w), checker}) {
            for (int level : {kVectorsSse2, kVectorsAvx2, kVectorsAvx512}) {
                VectorLimit limit(level);
                for (int s : {2, 0, -5, -24, 9, 100})
                    EXPECT_EQ(Apply({FilterId::Sharpen, static_cast<double>(s)}, px, w, h),
                              InPlaceByHand(px, w, h, s + 24, 2, s + 8))
                        << "sharpen " << s << " on " << w << "x" << h << ", vectors " << level;
                for (int s : {1, 0, 4, -3, -9, 50})
                    EXPECT_EQ(Apply({FilterId::EdgeEnhance, static_cast<double>(s)}, px, w, h),
                              InPlaceByHand(px, w, h, s + 9, 1, s + 1))
                        << "edge enhance " << s << " on " << w << "x" << h << ", vectors " << level;
            }
        }
    }
}

TEST(FastPaths, DilateAndErodeVectorWidthsAndInPlaceFormsMatchWindowExtremes) {
    const std::pair<int, int> sizes[] = {{3, 3},  {4, 5},  {17, 4}, {18, 3}, {19, 7},
                                         {33, 5}, {35, 6}, {1, 5},  {5, 1},  {131, 4}};
    for (const auto& [w, h] : sizes) {
        const std::size_t n = static_cast<std::size_t>(w) * h;
        for (const auto& px : {Noise(n, 41u + w * h), Extremes(n, 43u + w)}) {
            for (bool bMax : {true, false}) {
                auto want = px;
                for (int y = 1; y < h - 1; ++y)
                    for (int x = 1; x < w - 1; ++x) {
                        std::uint32_t out = px[y * w + x] & 0xFF000000u;
                        for (int sh = 0; sh < 24; sh += 8) {
                            std::uint32_t m = bMax ? 0 : 255;
                            for (int dy = -1; dy <= 1; ++dy)
                                for (int dx = -1; dx <= 1; ++dx) {
                                    const std::uint32_t v =
                                        (px[(y + dy) * w + x + dx] >> sh) & 0xFF;
                                    m = bMax ? std::max(m, v) : std::min(m, v);
                                }
                            out |= m << sh;
                        }
                        want[y * w + x] = out;
                    }
                for (int level : {kVectorsSse2, kVectorsAvx2, kVectorsAvx512}) {
                    VectorLimit limit(level);
                    EXPECT_EQ(Apply({bMax ? FilterId::Dilate : FilterId::Erode}, px, w, h), want)
                        << (bMax ? "dilate " : "erode ") << w << "x" << h << ", vectors " << level;
                    FilterContext ctx = FilterContext::Over(px, w, h);
                    (bMax ? FilterDilateInPlace : FilterErodeInPlace)(ctx);
                    EXPECT_EQ(std::vector<std::uint32_t>(ctx.WorkPixels), want)
                        << (bMax ? "dilate " : "erode ") << "in place, " << w << "x" << h
                        << ", vectors " << level;
                }
            }
        }
    }
}
