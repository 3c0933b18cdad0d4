// Skew measure: text-like pages drawn at a known angle in 1-bit, 8-bit gray
// and 24-bit, the edge rules, the rows and columns visited, the peak order,
// the spread rules, the statuses, and GetSkewAngle through Imaging.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <numbers>
#include <random>
#include <vector>

#include "analysis/cAutoDeskew.h"
#include "kestrelyn/Imaging.h"
#include "raster/FormatConversion.h"
#include "support/ImagingTestUtil.h"
#include "support/RegistryImages.h"

namespace kestrelyn::test {
namespace {

constexpr std::uint32_t kWhite = 0xFFFFFFFFu;
constexpr std::uint32_t kBlack = 0xFF000000u;

std::uint32_t Rgb(std::uint32_t r, std::uint32_t g, std::uint32_t b) {
    return 0xFF000000u | (r << 16) | (g << 8) | b;
}
std::uint32_t Grey(std::uint32_t v) {
    return Rgb(v, v, v);
}

struct Page {
    std::int32_t w = 0, h = 0;
    std::vector<std::uint32_t> px;
    std::uint32_t& at(std::int32_t x, std::int32_t y) {
        return px[static_cast<std::size_t>(y) * static_cast<std::size_t>(w) +
                  static_cast<std::size_t>(x)];
    }
};

Page Blank(std::int32_t w, std::int32_t h, std::uint32_t paper = kWhite) {
    return Page{w, h, std::vector<std::uint32_t>(static_cast<std::size_t>(w) * h, paper)};
}

struct TextLayout {
    std::int32_t pitch = 24;    // distance between baselines
    std::int32_t barHeight = 7; // height of a word
    std::int32_t minWord = 15, maxWord = 70;
    std::int32_t minGap = 8, maxGap = 14;
};

// Rows of words (dark bars of varying length, one baseline a row) on paper,
// turned by fDegrees about the page's centre: positive turns the page
// clockwise as seen on screen (y down), so the lines fall to the right. Each
// pixel whose centre maps back into a bar takes the ink; inkOf gives the ink
// of the n-th word, so gray pages can vary it.
template <class InkFn>
Page TextPage(std::int32_t w, std::int32_t h, double fDegrees, InkFn inkOf, unsigned seed = 7,
              TextLayout t = {}, std::uint32_t paper = kWhite) {
    Page p = Blank(w, h, paper);
    std::mt19937 rng(seed);
    auto pick = [&](std::int32_t lo, std::int32_t hi) {
        return lo + static_cast<std::int32_t>(rng() % static_cast<unsigned>(hi - lo + 1));
    };
    const double r = fDegrees * std::numbers::pi / 180, c = std::cos(r), s = std::sin(r);
    const double cx = w / 2.0, cy = h / 2.0;
    const std::int32_t margin = w / 12;
    int word = 0;
    for (std::int32_t base = margin + t.barHeight; base < h - margin; base += t.pitch) {
        for (std::int32_t u = margin + pick(0, 3 * t.minGap); u < w - margin;) {
            const std::int32_t len = std::min(pick(t.minWord, t.maxWord), w - margin - u);
            const double u0 = u, u1 = u + len, v0 = base - t.barHeight, v1 = base;
            const std::uint32_t ink = inkOf(word++);
            // The turned bar's bounding box, then each pixel mapped back.
            double xs[4], ys[4];
            const double us[4] = {u0, u1, u0, u1}, vs[4] = {v0, v0, v1, v1};
            for (int k = 0; k < 4; ++k) {
                xs[k] = cx + (us[k] - cx) * c - (vs[k] - cy) * s;
                ys[k] = cy + (us[k] - cx) * s + (vs[k] - cy) * c;
            }
            const auto x0 =
                std::max(0, static_cast<int>(std::floor(*std::min_element(xs, xs + 4))));
            const auto x1 =
                std::min(w - 1, static_cast<int>(std::ceil(*std::max_element(xs, xs + 4))));
            const auto y0 =
                std::max(0, static_cast<int>(std::floor(*std::min_element(ys, ys + 4))));
            const auto y1 =
                std::min(h - 1, static_cast<int>(std::ceil(*std::max_element(ys, ys + 4))));
            for (int y = y0; y <= y1; ++y)
                for (int x = x0; x <= x1; ++x) {
                    const double dx = x + 0.5 - cx, dy = y + 0.5 - cy;
                    const double pu = cx + dx * c + dy * s, pv = cy - dx * s + dy * c;
                    if (pu >= u0 && pu < u1 && pv >= v0 && pv < v1) p.at(x, y) = ink;
                }
            u += len + pick(t.minGap, t.maxGap);
        }
    }
    return p;
}

Page TextPage(std::int32_t w, std::int32_t h, double fDegrees, std::uint32_t ink = kBlack) {
    return TextPage(w, h, fDegrees, [ink](int) { return ink; });
}

struct Result {
    KestrelynStatus status;
    double angle;
};

Result Measure(const Page& p, bool bBitonal, double fMaxAngle = 20) {
    cAutoDeskew m;
    m.MaxAngle = fMaxAngle;
    const KestrelynStatus st = m.Measure(p.w, p.h, bBitonal, p.px.data());
    return {st, m.SkewAngle};
}

Result MeasureRegistered(PixelFormat nFormat, const Page& p, bool bGrayPalette = false) {
    std::int32_t id = RegisterPixels(nFormat, p.px, p.w, p.h);
    if (bGrayPalette) {
        std::int32_t gray = 0;
        EXPECT_EQ(MakeGray8Image(id, 1, gray), OK);
        ReleaseImage(id);
        id = gray;
    }
    cAutoDeskew m;
    const KestrelynStatus st = m.MeasureImage(id);
    ReleaseImage(id);
    return {st, m.SkewAngle};
}

// Within the 0.2 degree grid of the truth.
constexpr double kGrid = 0.2 + 1e-9;

// --- the angle of drawn pages ----------------------------------------------------

// The lines of a page turned clockwise fall to the right: y grows with x, and
// y cos a - x sin a is constant along them at a = the turn. So a clockwise
// turn measures positive, a counter-clockwise one negative.
TEST(SkewMeasure, TurnedPagesMeasureTheirAngleWithItsSign) {
    for (double deg : {1.5, 2.3, 4.5, 7.1, 9.6}) {
        for (double sign : {1.0, -1.0}) {
            const double truth = sign * deg;
            const Page p = TextPage(640, 820, truth);
            const Result r = Measure(p, false);
            EXPECT_EQ(r.status, OK);
            EXPECT_NEAR(r.angle, truth, kGrid) << "drawn at " << truth;
            EXPECT_GT(r.angle * sign, 0) << "drawn at " << truth;
        }
    }
}

TEST(SkewMeasure, RegisteredPagesOfEachDepth) {
    struct Case {
        PixelFormat format;
        bool grayPalette;
        const char* name;
    };
    const Case cases[] = {{PixelFormat1bppIndexed, false, "1-bit"},
                          {PixelFormat8bppIndexed, true, "8-bit gray"},
                          {PixelFormat24bppRGB, false, "24-bit"}};
    cImaging engine; // keeps the thread's engine running
    for (const Case& k : cases)
        for (double truth : {3.7, -3.7, 8.3, -8.3}) {
            const Result r = MeasureRegistered(k.format, TextPage(600, 780, truth), k.grayPalette);
            EXPECT_EQ(r.status, OK) << k.name;
            EXPECT_NEAR(r.angle, truth, kGrid) << k.name << " drawn at " << truth;
        }
}

// Gray pages with ink and paper of varying levels: only the luminance
// threshold decides.
TEST(SkewMeasure, GrayInkOfVaryingLevels) {
    const double truth = -6.1;
    const Page p = TextPage(
        620, 800, truth, [](int n) { return Grey(static_cast<std::uint32_t>(n * 37 % 139)); }, 11,
        TextLayout{}, Grey(200));
    const Result r = Measure(p, false);
    EXPECT_EQ(r.status, OK);
    EXPECT_NEAR(r.angle, truth, kGrid);
}

TEST(SkewMeasure, StraightPagePeaksAtAngleIndex100) {
    cAutoDeskew m;
    const Page p = TextPage(600, 800, 0.0);
    ASSERT_EQ(m.Measure(p.w, p.h, false, p.px.data()), OK);
    EXPECT_EQ(m.SkewAngle, 0.0);
    for (const SkewPeak& k : m.Peaks) {
        EXPECT_GT(k.Count, 0);
        EXPECT_EQ(k.Index % m.AngleCount, 100);
        EXPECT_EQ(k.Angle, 0.0);
    }
    // The measure gives its working arrays back.
    EXPECT_TRUE(m.Accumulator.empty());
}

// A page with nothing on it has no votes: all ten peaks stay at index 0,
// whose angle is -20, and the spread of 0 lets the mean -20 stand.
TEST(SkewMeasure, BlankPageGivesMinus20) {
    EXPECT_EQ(Measure(Blank(300, 400), false).angle, -20.0);
    EXPECT_EQ(Measure(Blank(300, 400, kBlack), false).angle, -20.0); // no lower edge
    cImaging engine;
    for (PixelFormat f : {PixelFormat1bppIndexed, PixelFormat8bppIndexed, PixelFormat24bppRGB}) {
        const Result r = MeasureRegistered(f, Blank(120, 90));
        EXPECT_EQ(r.status, OK);
        EXPECT_EQ(r.angle, -20.0);
    }
}

TEST(SkewMeasure, ColourNoiseGivesZero) {
    for (unsigned seed : {1u, 2u, 3u}) {
        std::mt19937 rng(seed);
        Page p = Blank(320, 320);
        for (std::uint32_t& px : p.px)
            px = 0xFF000000u | (rng() & 0xFFFFFFu);
        cAutoDeskew m;
        ASSERT_EQ(m.Measure(p.w, p.h, false, p.px.data()), OK);
        EXPECT_EQ(m.SkewAngle, 0.0) << "seed " << seed;
        EXPECT_GT(m.Peaks[9].Count, 0); // it did vote
    }
}

TEST(SkewMeasure, SmallerRangeHasFewerAngles) {
    cAutoDeskew m;
    m.MaxAngle = 10;
    const Page p = TextPage(600, 780, 4.1);
    ASSERT_EQ(m.Measure(p.w, p.h, false, p.px.data()), OK);
    EXPECT_EQ(m.AngleCount, 100);
    EXPECT_NEAR(m.SkewAngle, 4.1, kGrid);
    // A turn beyond the range is not found.
    EXPECT_GT(std::fabs(Measure(TextPage(600, 780, 15.0), false, 10).angle - 15.0), 1.0);
}

// --- fields, tables, sizes -------------------------------------------------------

TEST(SkewFields, DefaultsTablesAndCounts) {
    cAutoDeskew m;
    EXPECT_EQ(m.MaxAngle, 20.0);
    EXPECT_EQ(m.SkewAngle, 0.0);
    EXPECT_EQ(m.AngleOf(0), -20.0);
    EXPECT_DOUBLE_EQ(m.AngleOf(199), 19.8);
    EXPECT_EQ(m.AngleOf(100), 0.0);
    const Page p = Blank(80, 70);
    ASSERT_EQ(m.Measure(p.w, p.h, false, p.px.data()), OK);
    EXPECT_EQ(m.AngleCount, 200);
    EXPECT_EQ(m.DistanceCount, 2 * (80 + 70));
    ASSERT_EQ(m.SinTable.size(), 200u);
    ASSERT_EQ(m.CosTable.size(), 200u);
    // The tables use 3.141592657 for pi, as the angle has always been turned.
    EXPECT_EQ(m.SinTable[0], std::sin(-20 * 3.141592657 / 180));
    EXPECT_NE(m.SinTable[0], std::sin(-20 * std::numbers::pi / 180));
    EXPECT_EQ(m.CosTable[37], std::cos(m.AngleOf(37) * 3.141592657 / 180));
    EXPECT_EQ(m.SinTable[100], 0.0);
    EXPECT_EQ(m.CosTable[100], 1.0);
}

TEST(SkewFields, SidesUnder51AreRefused) {
    const Result tall = Measure(Blank(50, 60), false);
    EXPECT_EQ(tall.status, Aborted);
    EXPECT_EQ(tall.angle, 0.0);
    EXPECT_EQ(Measure(Blank(60, 50), false).status, Aborted);
    const Result least = Measure(Blank(51, 51), false);
    EXPECT_EQ(least.status, OK);
    EXPECT_EQ(least.angle, -20.0); // measured: blank
    // A refused measure starts from 0 again.
    cAutoDeskew m;
    m.SkewAngle = 3;
    EXPECT_EQ(m.Measure(40, 40, false, Blank(40, 40).px.data()), Aborted);
    EXPECT_EQ(m.SkewAngle, 0.0);
}

// --- the edge rules --------------------------------------------------------------

TEST(SkewEdges, LuminanceThresholdAndWeights) {
    // Below 140 is ink; gray 140 computes to exactly 140.0 and is paper.
    EXPECT_NEAR(Measure(TextPage(500, 640, 5.3, Grey(139)), false).angle, 5.3, kGrid);
    EXPECT_EQ(Measure(TextPage(500, 640, 5.3, Grey(140)), false).angle, -20.0);
    // Blue weighs 0.114 and red 0.299, read from their own bytes:
    // (0, 150, 255) is 117 and dark; (255, 150, 0) is 164 and not.
    EXPECT_NEAR(Measure(TextPage(500, 640, -5.3, Rgb(0, 150, 255)), false).angle, -5.3, kGrid);
    EXPECT_EQ(Measure(TextPage(500, 640, -5.3, Rgb(255, 150, 0)), false).angle, -20.0);
}

TEST(SkewEdges, BitonalReadsRedZeroOnly) {
    // Cyan ink: red 0, luminance 179.
    const Page cyan = TextPage(500, 640, 4.9, Rgb(0, 255, 255));
    EXPECT_NEAR(Measure(cyan, true).angle, 4.9, kGrid);
    EXPECT_EQ(Measure(cyan, false).angle, -20.0);
    // Red 1 is not ink on a bitonal page, though dark.
    EXPECT_EQ(Measure(TextPage(500, 640, 4.9, Rgb(1, 0, 0)), true).angle, -20.0);
}

// With height 98 the rows visited are Round(24.5) = 24 to Round(73.5) = 74
// (ties to even); a lower edge is a dark pixel over a light one.
TEST(SkewEdges, RowsOfTheCentralHalf) {
    auto withLine = [](std::int32_t row) {
        Page p = Blank(90, 98);
        for (std::int32_t x = 0; x < p.w; ++x)
            p.at(x, row) = kBlack;
        return Measure(p, false).angle;
    };
    EXPECT_NE(withLine(24), -20.0);
    EXPECT_EQ(withLine(23), -20.0);
    EXPECT_NE(withLine(74), -20.0);
    EXPECT_EQ(withLine(75), -20.0);
}

TEST(SkewEdges, ColumnsOneToWidthLessTwo) {
    auto withDot = [](std::int32_t x) {
        Page p = Blank(70, 70);
        p.at(x, 35) = kBlack;
        return Measure(p, false).angle;
    };
    EXPECT_EQ(withDot(0), -20.0);
    EXPECT_EQ(withDot(69), -20.0);
    EXPECT_NE(withDot(1), -20.0);
    EXPECT_NE(withDot(68), -20.0);
}

// One edge point votes once for every angle, at the distance
// y cos a - x sin a + width rounded to nearest; the ten peaks are then the
// ten lowest of those accumulator indices.
TEST(SkewEdges, OnePointVotesAtTheRoundedDistance) {
    Page p = Blank(90, 98);
    const std::int32_t x = 61, y = 40;
    p.at(x, y) = kBlack;
    cAutoDeskew m;
    ASSERT_EQ(m.Measure(p.w, p.h, false, p.px.data()), OK);
    std::vector<std::int32_t> indices;
    for (std::int32_t a = 0; a < m.AngleCount; ++a) {
        const auto ua = static_cast<std::size_t>(a);
        const double d = std::nearbyint(y * m.CosTable[ua] - x * m.SinTable[ua] + p.w);
        indices.push_back(static_cast<std::int32_t>(d) * m.AngleCount + a);
    }
    std::sort(indices.begin(), indices.end());
    for (std::size_t k = 0; k < kSkewPeakCount; ++k) {
        EXPECT_EQ(m.Peaks[k].Count, 1);
        EXPECT_EQ(m.Peaks[k].Index, indices[k]) << "place " << k;
    }
}

// --- peaks and the conclusion ----------------------------------------------------

TEST(SkewPeaks, OrderAndTies) {
    // Twelve counters of 4 compete for the nine places behind the 9: the
    // first nine met keep them, an equal one met later does not displace them.
    std::vector<std::uint32_t> acc(30, 0);
    acc[1] = 9;
    for (std::size_t i = 2; i < 14; ++i)
        acc[i] = 4;
    acc[25] = 3; // never strictly above the last kept 4
    const SkewPeaks p = FindSkewPeaks(acc.data(), acc.size());
    EXPECT_EQ(p[0].Count, 9);
    EXPECT_EQ(p[0].Index, 1);
    for (std::size_t k = 1; k < 10; ++k) {
        EXPECT_EQ(p[k].Count, 4);
        EXPECT_EQ(p[k].Index, static_cast<std::int32_t>(k + 1)) << "place " << k;
    }
    // A later stronger counter bubbles past weaker ones only.
    acc[28] = 5;
    const SkewPeaks q = FindSkewPeaks(acc.data(), acc.size());
    EXPECT_EQ(q[0].Index, 1);
    EXPECT_EQ(q[1].Index, 28);
    EXPECT_EQ(q[1].Count, 5);
    EXPECT_EQ(q[2].Index, 2);
    EXPECT_EQ(q[9].Index, 9);
}

TEST(SkewPeaks, FewVotesLeaveZeroRecords) {
    std::vector<std::uint32_t> acc(12, 0);
    acc[7] = 2;
    acc[3] = 2;
    acc[11] = 6;
    const SkewPeaks p = FindSkewPeaks(acc.data(), acc.size());
    EXPECT_EQ(p[0].Index, 11);
    EXPECT_EQ(p[1].Index, 3);
    EXPECT_EQ(p[2].Index, 7);
    for (std::size_t k = 3; k < 10; ++k) {
        EXPECT_EQ(p[k].Count, 0);
        EXPECT_EQ(p[k].Index, 0);
    }
}

SkewPeaks WithAngles(std::initializer_list<double> angles) {
    SkewPeaks p{};
    std::size_t k = 0;
    for (double a : angles)
        p[k++].Angle = a;
    return p;
}

TEST(SkewPeaks, SpreadRules) {
    // Mixed peaks with a small spread: the fractional mean.
    EXPECT_DOUBLE_EQ(SkewFromPeaks(WithAngles({2, 2, 2, 2, 2, 2.2, 2.2, 2.2, 2.2, 2.2})), 2.1);
    EXPECT_DOUBLE_EQ(
        SkewFromPeaks(WithAngles({-7.2, -7.4, -7.4, -7.2, -7.2, -7.2, -7, -7.2, -7.2, -7.2})),
        -7.22);
    // Spread 3.8 under 4 and under the mean 5.02.
    EXPECT_DOUBLE_EQ(SkewFromPeaks(WithAngles({3.2, 7, 5, 5, 5, 5, 5, 5, 5, 5})), 5.02);
    // Spread of exactly 4: not below 4.
    EXPECT_EQ(SkewFromPeaks(WithAngles({8, 12, 10, 10, 10, 10, 10, 10, 10, 10})), 0.0);
    // Spread wider than the mean's magnitude: noise.
    EXPECT_EQ(SkewFromPeaks(WithAngles({-0.2, 0.4, 0, 0, 0, 0, 0, 0, 0, 0})), 0.0);
    // Spread equal to the mean's magnitude stands (2.5 both).
    const SkewPeaks even = WithAngles({2.75, 2.75, 2.75, 2.75, 2.75, 2.75, 2.75, 2.75, 2.75, 0.25});
    EXPECT_EQ(SkewFromPeaks(even), 2.5);
    EXPECT_EQ(SkewFromPeaks(WithAngles(
                  {-2.75, -2.75, -2.75, -2.75, -2.75, -2.75, -2.75, -2.75, -2.75, -0.25})),
              -2.5);
}

// --- through the registry and Imaging -------------------------------------------

TEST(SkewImaging, GetSkewAngleOnTheNativeImage) {
    Imaging img;
    EXPECT_EQ(img.GetSkewAngle(), 0.0);
    EXPECT_EQ(img.GetStat(), GenericError);

    const double truth = 6.5;
    const Page p = TextPage(560, 720, truth);
    const std::int32_t id = RegisterPixels(PixelFormat1bppIndexed, p.px, p.w, p.h);
    ASSERT_EQ(img.SetNativeImage(id), OK);
    const double angle = img.GetSkewAngle();
    EXPECT_EQ(img.GetStat(), OK);
    EXPECT_NEAR(angle, truth, kGrid);
    // The measure changes nothing in the image.
    const Page back = [&] {
        const std::vector<std::uint8_t> rows =
            ReadRows(id, PixelFormat32bppARGB, p.w, p.h, 4 * p.w);
        Page b = Blank(p.w, p.h);
        std::memcpy(b.px.data(), rows.data(), rows.size());
        return b;
    }();
    EXPECT_EQ(back.px, p.px);

    const Page small = Blank(50, 60);
    const std::int32_t tiny = RegisterPixels(PixelFormat24bppRGB, small.px, small.w, small.h);
    ASSERT_EQ(img.SetNativeImage(tiny), OK);
    EXPECT_EQ(img.GetSkewAngle(), 0.0);
    EXPECT_EQ(img.GetStat(), Aborted);
}

// The lock's status ends the measure: an id of no image.
TEST(SkewImaging, UnknownImageGivesThePlatformsStatus) {
    cImaging engine;
    cAutoDeskew m;
    m.SkewAngle = 1;
    EXPECT_NE(m.MeasureImage(987654), OK);
    EXPECT_EQ(m.SkewAngle, 0.0);
}

// 300-dpi A4 pages, one of long words and one of dense small print: the
// angle, and the time each takes (printed, not asserted, since sanitizer
// builds run several times slower).
TEST(SkewMeasure, A4PagesAt300Dpi) {
    struct Case {
        double truth;
        TextLayout layout;
        const char* name;
    };
    const Case cases[] = {{-2.9, TextLayout{50, 22, 40, 260, 22, 40}, "words"},
                          {3.3, TextLayout{}, "dense"}};
    for (const Case& k : cases) {
        const Page p = TextPage(
            2480, 3508, k.truth, [](int) { return kBlack; }, 5, k.layout);
        cAutoDeskew m;
        const auto t0 = std::chrono::steady_clock::now();
        ASSERT_EQ(m.Measure(p.w, p.h, true, p.px.data()), OK);
        const double ms =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0)
                .count();
        EXPECT_NEAR(m.SkewAngle, k.truth, kGrid) << k.name;
        std::printf("A4 300 dpi, %s: %.1f ms\n", k.name, ms);
    }
}

} // namespace
} // namespace kestrelyn::test
