// Neighbourhood filters on 5x4 and 5x5 hand-built images. In-place filters see
// their already filtered left and upper neighbours; two-buffer ones do not.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <stdexcept>

#include "FilterTestSupport.h"

using namespace kytest;

namespace {
std::uint32_t At(const std::vector<std::uint32_t>& v, int x, int y, int w = 5) {
    return v[y * w + x];
}

void ExpectBordersKept(const std::vector<std::uint32_t>& in, const std::vector<std::uint32_t>& out,
                       int w, int h, int frame) {
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            if (x < frame || y < frame || x >= w - frame || y >= h - frame) {
                EXPECT_EQ(At(out, x, y, w), At(in, x, y, w)) << x << "," << y;
            }
}
} // namespace

TEST(InPlaceFilters, BlurSpreadsFromABorderPixelThroughFilteredNeighbours) {
    std::vector<std::uint32_t> in(20, Gray(0));
    in[1 * 5 + 0] = Gray(255);
    auto out = Apply({FilterId::Blur}, in, 5, 4);
    EXPECT_EQ(At(out, 1, 1), Gray(31)); // 255 / 8
    EXPECT_EQ(At(out, 2, 1), Gray(3));  // the blurred 31 / 8
    EXPECT_EQ(At(out, 3, 1), Gray(0));
    EXPECT_EQ(At(out, 1, 2), Gray(36)); // (255 + 31 + 3) / 8
    EXPECT_EQ(At(out, 2, 2), Gray(8));  // (31 + 3 + 36) / 8
    EXPECT_EQ(At(out, 3, 2), Gray(1));  // (3 + 8) / 8
    ExpectBordersKept(in, out, 5, 4, 1);
}

TEST(InPlaceFilters, SharpenReadsFilteredNeighbours) {
    auto in = Bump();
    auto out = Apply({FilterId::Sharpen, 2}, in, 5, 4);
    EXPECT_EQ(At(out, 1, 1), Gray(80));  // (2600 - 1800) / 10
    EXPECT_EQ(At(out, 2, 1), Gray(255)); // 364 clamped
    EXPECT_EQ(At(out, 3, 1), Gray(69));  // left is the clamped 255
    EXPECT_EQ(At(out, 1, 2), Gray(73));
    EXPECT_EQ(At(out, 2, 2), Gray(84)); // 84.6 truncated
    EXPECT_EQ(At(out, 3, 2), Gray(78));
    ExpectBordersKept(in, out, 5, 4, 1);
}

TEST(InPlaceFilters, SharpenKeepsAFlatArea) {
    std::vector<std::uint32_t> flat(20, Px(3, 100, 37, 250));
    EXPECT_EQ(Apply({FilterId::Sharpen, 2}, flat, 5, 4), flat);
    EXPECT_EQ(Apply({FilterId::Sharpen, 0}, flat, 5, 4), flat);
}

TEST(InPlaceFilters, SmoothFivePointMean) {
    auto out = Apply({FilterId::Smooth}, Bump(), 5, 4);
    EXPECT_EQ(At(out, 1, 1), Gray(120));
    EXPECT_EQ(At(out, 2, 1), Gray(124));
    EXPECT_EQ(At(out, 3, 1), Gray(104));
    EXPECT_EQ(At(out, 1, 2), Gray(104));
    EXPECT_EQ(At(out, 2, 2), Gray(105));
    EXPECT_EQ(At(out, 3, 2), Gray(101));
}

TEST(InPlaceFilters, EdgeEnhance) {
    auto out = Apply({FilterId::EdgeEnhance, 1}, Bump(), 5, 4);
    EXPECT_EQ(At(out, 1, 1), Gray(50));
    EXPECT_EQ(At(out, 2, 1), Gray(255));
    EXPECT_EQ(At(out, 3, 1), Gray(22)); // 22.5 truncated
}

TEST(InPlaceFilters, SoftenAndItsFailures) {
    auto out = Apply({FilterId::Soften, 1}, Bump(), 5, 4);
    EXPECT_EQ(At(out, 1, 1), Gray(100)); // 10500 / 104
    EXPECT_EQ(At(out, 2, 1), Gray(196)); // 20400 / 104
    EXPECT_THROW(Apply({FilterId::Soften, 105}, Bump(), 5, 4), std::exception);
    EXPECT_THROW(Apply({FilterId::Soften, 104}, Bump(), 5, 4),
                 std::range_error); // -200 at the bump
}

TEST(InPlaceFilters, NarrowZonesAreLeftAlone) {
    std::vector<std::uint32_t> two(10);
    for (int i = 0; i < 10; ++i)
        two[i] = Gray(static_cast<std::uint32_t>(i * 20));
    for (FilterId id : {FilterId::Sharpen, FilterId::Blur, FilterId::Smooth, FilterId::EdgeEnhance,
                        FilterId::Contour, FilterId::Relief, FilterId::Dilate, FilterId::Erode,
                        FilterId::ConnectedContour, FilterId::Soften, FilterId::Despeckle,
                        FilterId::Aqua, FilterId::DespeckleMore}) {
        EXPECT_EQ(Apply({id, 2}, two, 5, 2), two) << FilterNumber(id);
        EXPECT_EQ(Apply({id, 2}, two, 2, 5), two) << FilterNumber(id);
    }
}

TEST(ReliefFilters, EmbossDropsRedAndDoublesGreen) {
    auto in = Bump();
    auto out = Apply({FilterId::Emboss, 0 | (120 << 8) | (120 << 16)}, in, 5, 4);
    EXPECT_EQ(At(out, 0, 0), Px(255, 0, 120, 120));
    EXPECT_EQ(At(out, 1, 0), Px(255, 100, 20, 20));
    EXPECT_EQ(At(out, 1, 1), Px(255, 0, 120, 120));
    EXPECT_EQ(At(out, 2, 1), Px(255, 100, 220, 220));
    for (int y = 0; y < 4; ++y)
        EXPECT_EQ(At(out, 4, y), Gray(100));
    for (int x = 0; x < 5; ++x)
        EXPECT_EQ(At(out, x, 3), Gray(100));
}

TEST(ReliefFilters, EngraveSwapsRedAndBlue) {
    auto out =
        Apply({FilterId::Engrave, 0 | (120 << 8) | (120 << 16)}, Bump(Px(255, 200, 150, 50)), 5, 4);
    EXPECT_EQ(At(out, 0, 0), Px(255, 0, 120, 120));
    EXPECT_EQ(At(out, 1, 0), Px(255, 50, 170, 220));
    EXPECT_EQ(At(out, 2, 1), Px(255, 50, 70, 20));
}

TEST(ReliefFilters, EmbossMoreAndEngraveMore) {
    const double base = 0 | (120 << 8) | (120 << 16);
    auto in = Bump(Px(255, 200, 150, 50));
    auto em = Apply({FilterId::EmbossMore, base}, in, 5, 4);
    EXPECT_EQ(At(em, 1, 1), Px(255, 50, 70, 20));
    EXPECT_EQ(At(em, 2, 1), Px(255, 0, 120, 120));
    EXPECT_EQ(At(em, 3, 1), Px(255, 0, 170, 220));
    auto en = Apply({FilterId::EngraveMore, base}, in, 5, 4);
    EXPECT_EQ(At(en, 1, 1), Px(255, 0, 170, 220));
    ExpectBordersKept(in, em, 5, 4, 1);
}

TEST(TwoBufferFilters, ContourWithWhiteBase) {
    auto out = Apply({FilterId::Contour, 0xFFFFFF}, Bump(), 5, 4);
    EXPECT_EQ(At(out, 1, 1), Gray(155));
    EXPECT_EQ(At(out, 2, 1), Gray(255));
    EXPECT_EQ(At(out, 3, 2), Gray(155));
}

TEST(TwoBufferFilters, Relief) {
    auto out = Apply({FilterId::Relief}, Bump(), 5, 4);
    EXPECT_EQ(At(out, 1, 1), Gray(50));
    EXPECT_EQ(At(out, 2, 1), Gray(150));
    EXPECT_EQ(At(out, 3, 1), Gray(150));
    EXPECT_EQ(At(out, 1, 2), Gray(100));
    EXPECT_EQ(At(out, 2, 2), Gray(150));
    EXPECT_EQ(At(out, 3, 2), Gray(200));
}

namespace {
std::vector<std::uint32_t> TwoSpots() {
    std::vector<std::uint32_t> v(20, Px(0x33, 10, 20, 30));
    v[1 * 5 + 1] = Px(0x44, 200, 5, 30);
    v[2 * 5 + 3] = Px(0x55, 0, 90, 0);
    return v;
}
} // namespace

TEST(TwoBufferFilters, DilateTakesEachChannelsMaximum) {
    auto out = Apply({FilterId::Dilate}, TwoSpots(), 5, 4);
    EXPECT_EQ(At(out, 1, 1), Px(0x44, 200, 20, 30));
    EXPECT_EQ(At(out, 2, 1), Px(0x33, 200, 90, 30));
    EXPECT_EQ(At(out, 3, 1), Px(0x33, 10, 90, 30));
    EXPECT_EQ(At(out, 1, 2), Px(0x33, 200, 20, 30));
    EXPECT_EQ(At(out, 2, 2), Px(0x33, 200, 90, 30));
    EXPECT_EQ(At(out, 3, 2), Px(0x55, 10, 90, 30));
}

TEST(TwoBufferFilters, ErodeTakesEachChannelsMinimum) {
    auto out = Apply({FilterId::Erode}, TwoSpots(), 5, 4);
    EXPECT_EQ(At(out, 1, 1), Px(0x44, 10, 5, 30));
    EXPECT_EQ(At(out, 2, 1), Px(0x33, 0, 5, 0));
    EXPECT_EQ(At(out, 3, 1), Px(0x33, 0, 20, 0));
    EXPECT_EQ(At(out, 3, 2), Px(0x55, 0, 20, 0));
}

TEST(TwoBufferFilters, ConnectedContour) {
    auto out = Apply({FilterId::ConnectedContour}, TwoSpots(), 5, 4);
    EXPECT_EQ(At(out, 1, 1), Px(0x44, 190, 0, 0));
    EXPECT_EQ(At(out, 2, 1), Px(0x33, 10, 15, 30));
    EXPECT_EQ(At(out, 3, 1), Px(0x33, 10, 0, 30));
    EXPECT_EQ(At(out, 1, 2), Px(0x33, 0, 15, 0));
    EXPECT_EQ(At(out, 3, 2), Px(0x55, 0, 70, 0));
}

TEST(MedianFilters, ThreeByThreeOnAHandPattern) {
    const std::uint32_t R[4][5] = {
        {9, 1, 8, 2, 7}, {3, 6, 4, 5, 0}, {200, 100, 150, 50, 250}, {0, 0, 0, 0, 0}};
    std::vector<std::uint32_t> in(20);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 5; ++x)
            in[y * 5 + x] = Px(0x40, R[y][x], 255 - R[y][x], R[y][x]);
    auto out = Apply({FilterId::Despeckle}, in, 5, 4);
    const std::uint32_t want[2][3] = {{8, 6, 7}, {4, 5, 4}};
    for (int y = 1; y <= 2; ++y)
        for (int x = 1; x <= 3; ++x) {
            const std::uint32_t m = want[y - 1][x - 1];
            EXPECT_EQ(At(out, x, y), Px(0x40, m, 255 - m, m)) << x << "," << y;
        }
    ExpectBordersKept(in, out, 5, 4, 1);
}

TEST(MedianFilters, FiveByFiveCentre) {
    std::vector<std::uint32_t> in(25);
    for (int i = 0; i < 25; ++i) {
        const std::uint32_t v = static_cast<std::uint32_t>((7 * i) % 25) * 10;
        in[i] = Px(0x11, v, 240 - v, v / 2);
    }
    auto out = Apply({FilterId::DespeckleMore}, in, 5, 5);
    EXPECT_EQ(out[12], Px(0x11, 120, 120, 60));
    ExpectBordersKept(in, out, 5, 5, 2);
}

// The vector paths work four pixels at a time; wide random images check them
// against a plain sort of every window.
TEST(MedianFilters, WideImagesMatchAPlainSort) {
    std::mt19937 gen(7);
    const int w = 23, h = 9;
    std::vector<std::uint32_t> in(w * h);
    for (auto& p : in)
        p = gen();
    for (int r : {1, 2}) {
        auto out = Apply({r == 1 ? FilterId::Despeckle : FilterId::DespeckleMore}, in, w, h);
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
                ASSERT_EQ(out[y * w + x], want) << r << ":" << x << "," << y;
            }
        ExpectBordersKept(in, out, w, h, r);
    }
}

TEST(TwoBufferFilters, WideDilateAndErodeMatchWindowExtremes) {
    std::mt19937 gen(11);
    const int w = 19, h = 6;
    std::vector<std::uint32_t> in(w * h);
    for (auto& p : in)
        p = gen();
    auto dil = Apply({FilterId::Dilate}, in, w, h), ero = Apply({FilterId::Erode}, in, w, h);
    for (int y = 1; y < h - 1; ++y)
        for (int x = 1; x < w - 1; ++x) {
            std::uint32_t mx = in[y * w + x] & 0xFF000000u, mn = mx;
            for (int sh = 0; sh < 24; sh += 8) {
                std::uint32_t hi = 0, lo = 255;
                for (int dy = -1; dy <= 1; ++dy)
                    for (int dx = -1; dx <= 1; ++dx) {
                        hi = std::max(hi, (in[(y + dy) * w + x + dx] >> sh) & 0xFF);
                        lo = std::min(lo, (in[(y + dy) * w + x + dx] >> sh) & 0xFF);
                    }
                mx |= hi << sh;
                mn |= lo << sh;
            }
            ASSERT_EQ(dil[y * w + x], mx);
            ASSERT_EQ(ero[y * w + x], mn);
        }
}

TEST(TwoBufferFilters, AquaPicksTheCalmestSquare) {
    std::vector<std::uint32_t> in(25);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 5; ++x) {
            const std::uint32_t b = (x <= 2 && y <= 2) ? 30 : 0;
            const std::uint32_t r = (x == 0 && y == 0) ? 0 : 77;
            in[y * 5 + x] = Px(0x22, r, 40, b);
        }
    in[24] = Px(0x22, 77, 76, 90);
    auto out = Apply({FilterId::Aqua}, in, 5, 5);
    EXPECT_EQ(out[12], Px(0x22, 77, 40, 30));
    ExpectBordersKept(in, out, 5, 5, 2);
}

TEST(Diffuse, SmallParameterStepsOnlyRightAndDown) {
    std::vector<std::uint32_t> in(20);
    for (int i = 0; i < 20; ++i)
        in[i] = Px(static_cast<std::uint32_t>(i), static_cast<std::uint32_t>(i), 0, 0);
    kestrelyn::SeedFilterRandom(1234);
    auto a = Apply({FilterId::Diffuse, 1}, in, 5, 4);
    kestrelyn::SeedFilterRandom(1234);
    auto b = Apply({FilterId::Diffuse, 1}, in, 5, 4);
    EXPECT_EQ(a, b);
    bool moved = false;
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 5; ++x) {
            const std::uint32_t p = a[y * 5 + x];
            EXPECT_EQ(p >> 24, static_cast<std::uint32_t>(y * 5 + x)); // alpha stays
            const int src = static_cast<int>(Red(p)); // original index it came from
            const int sx = src % 5, sy = src / 5;
            // A copy of a copy can only travel further right and down.
            EXPECT_GE(sx, x);
            EXPECT_GE(sy, y);
            if (src != y * 5 + x) moved = true;
        }
    EXPECT_TRUE(moved);
    // The last pixel has nowhere to go.
    EXPECT_EQ(a[19], in[19]);
}
