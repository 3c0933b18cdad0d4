// Point and colour filters on hand-built pixels; expected values worked out
// from the formulas with round half to even.
#include <gtest/gtest.h>

#include <stdexcept>

#include "FilterTestSupport.h"

using namespace kytest;

TEST(PointFilters, GrayscaleRoundsTheEqualMean) {
    auto out = Apply({FilterId::Grayscale, 3},
                     {Px(0x80, 10, 20, 31), Px(255, 1, 1, 0), Px(7, 255, 255, 255)}, 3, 1);
    EXPECT_EQ(out[0], Gray(20, 0x80)); // 61 / 3 = 20.33
    EXPECT_EQ(out[1], Gray(1));        // 2 / 3 = 0.67
    EXPECT_EQ(out[2], Gray(255, 7));
}

TEST(PointFilters, NegativeKeepsAlpha) {
    auto out = Apply({FilterId::Negative}, {0x80102030u}, 1, 1);
    EXPECT_EQ(out[0], 0x80EFDFCFu);
}

TEST(PointFilters, BrightnessTableRoundsHalfToEven) {
    auto out = Apply({FilterId::Brightness, 50}, {Px(9, 3, 5, 200)}, 1, 1);
    EXPECT_EQ(out[0], Px(9, 4, 8, 255)); // 4.5 -> 4, 7.5 -> 8, 300 -> 255
    auto same = Apply({FilterId::Brightness, 0}, {Px(1, 2, 3, 4)}, 1, 1);
    EXPECT_EQ(same[0], Px(1, 2, 3, 4));
    auto black = Apply({FilterId::Brightness, -100}, {Px(200, 255, 128, 1)}, 1, 1);
    EXPECT_EQ(black[0], Px(200, 0, 0, 0));
}

TEST(PointFilters, ContrastUsesTheBalancingClip) {
    // Gray3 150 and 0: m = 75, f = 2. Red 250 -> 425, cut to 255 and 85 passed
    // to green and blue (125 + 85); the black pixel goes to -75 on all and
    // ends at 0.
    auto out = Apply({FilterId::Contrast, 100}, {Px(255, 250, 100, 100), Px(255, 0, 0, 0)}, 2, 1);
    EXPECT_EQ(out[0], Px(255, 255, 210, 210));
    EXPECT_EQ(out[1], Px(255, 0, 0, 0));
}

TEST(PointFilters, ContrastOnAUniformPageChangesNothing) {
    std::vector<std::uint32_t> page(6, Gray(77, 200));
    EXPECT_EQ(Apply({FilterId::Contrast, 80}, page, 3, 2), page);
}

TEST(PointFilters, FixedThresholdNeedsAllThreeBelow) {
    const double t = 180 * 0x010101;
    auto out =
        Apply({FilterId::Threshold, t}, {Gray(179, 9), Px(9, 180, 0, 0), Px(9, 0, 0, 180)}, 3, 1);
    EXPECT_EQ(out[0], Gray(0, 9));
    EXPECT_EQ(out[1], Gray(255, 9));
    EXPECT_EQ(out[2], Gray(255, 9));
}

TEST(PointFilters, OrderedDitherFollowsTheMatrix) {
    // Gray3 100: level 100 / 16 + 1 = 7 against 1, 13, 4, 16 and 9, 5, 12, 8.
    auto out = Apply({FilterId::OrderedDither}, std::vector<std::uint32_t>(8, Gray(100)), 4, 2);
    const std::uint32_t W = Gray(255), B = Gray(0);
    EXPECT_EQ(out, (std::vector<std::uint32_t>{W, B, W, B, B, W, B, B}));
}

TEST(PointFilters, ErrorDiffusionOnOneColumnReachesOnlyTheRowBelow) {
    // m = 100; first pixel white with error -155; below: -155 * 8 / 32 = -38,
    // -38 * 10 / 15 = -25, so 75 < 100: black.
    auto out = Apply({FilterId::ErrorDiffusion, 15}, {Gray(100), Gray(100)}, 1, 2);
    EXPECT_EQ(out, (std::vector<std::uint32_t>{Gray(255), Gray(0)}));
}

TEST(PointFilters, ErrorDiffusionAlongARow) {
    // x0 white (e -155: -38 right, -19 next but one); x1 75: black (e 75: +18
    // next); x2 acc -1 -> -10 / 15 = 0, 100: white.
    auto out = Apply({FilterId::ErrorDiffusion, 15}, {Gray(100), Gray(100), Gray(100)}, 3, 1);
    EXPECT_EQ(out, (std::vector<std::uint32_t>{Gray(255), Gray(0), Gray(255)}));
}

TEST(PointFilters, StretchPerChannelAndConstantChannel) {
    auto out = Apply({FilterId::StretchContrast},
                     {Px(1, 0, 7, 50), Px(2, 255, 7, 100), Px(3, 128, 7, 150)}, 3, 1);
    EXPECT_EQ(out[0], Px(1, 0, 7, 0));
    EXPECT_EQ(out[1], Px(2, 255, 7, 128)); // 127.5 -> 128
    EXPECT_EQ(out[2], Px(3, 128, 7, 255));
}

TEST(PointFilters, SaturationAroundGray3) {
    auto out = Apply({FilterId::Saturation, 50}, {Px(255, 200, 100, 0)}, 1, 1);
    EXPECT_EQ(out[0], Px(255, 250, 100, 0)); // blue -50 clamps to 0
}

TEST(PointFilters, GammaTableAndZeroFactor) {
    auto out = Apply({FilterId::Gamma, 200}, {Px(255, 64, 0, 255)}, 1, 1);
    EXPECT_EQ(out[0], Px(255, 128, 0, 255)); // 255 * sqrt(64/255) = 127.75
    auto zero = Apply({FilterId::Gamma, 0}, {Px(255, 254, 255, 0)}, 1, 1);
    EXPECT_EQ(zero[0], Px(255, 172, 255, 0)); // factor 1: exponent 100
}

TEST(PointFilters, SepiaFromTheLightness) {
    auto out =
        Apply({FilterId::Colorize}, {Px(5, 127, 127, 127), Px(6, 0, 0, 0), Px(7, 255, 255, 255)}, 3,
              1, 0.5f, 0.25f, 1.0f);
    EXPECT_EQ(out[0], Px(5, 159, 127, 95));
    EXPECT_EQ(out[1], Px(6, 0, 0, 0));
    EXPECT_EQ(out[2], Px(7, 255, 255, 255));
}

TEST(PointFilters, ColorizeOutOfRangeFails) {
    EXPECT_THROW(Apply({FilterId::Colorize}, {Gray(255)}, 1, 1, 0.0f, 0.5f, 2.0f),
                 std::range_error);
}

TEST(PointFilters, TransparencyOffsetClamps) {
    EXPECT_EQ(Apply({FilterId::Transparency, 100}, {Px(200, 1, 2, 3)}, 1, 1)[0], Px(255, 1, 2, 3));
    EXPECT_EQ(Apply({FilterId::Transparency, -50}, {Px(30, 1, 2, 3)}, 1, 1)[0], Px(0, 1, 2, 3));
}

TEST(PointFilters, ChannelOffsetsClamp) {
    EXPECT_EQ(Apply({FilterId::AdjustRGB, 0, 10, -20, 300}, {Px(4, 250, 10, 0)}, 1, 1)[0],
              Px(4, 255, 0, 255));
}

TEST(PointFilters, KeepAndRemoveChannels) {
    const std::uint32_t p = 0x80112233u;
    EXPECT_EQ(Apply({FilterId::KeepRed}, {p}, 1, 1)[0], 0x80110000u);
    EXPECT_EQ(Apply({FilterId::KeepGreen}, {p}, 1, 1)[0], 0x80002200u);
    EXPECT_EQ(Apply({FilterId::KeepBlue}, {p}, 1, 1)[0], 0x80000033u);
    EXPECT_EQ(Apply({FilterId::RemoveRed}, {p}, 1, 1)[0], 0x80002233u);
    EXPECT_EQ(Apply({FilterId::RemoveGreen}, {p}, 1, 1)[0], 0x80110033u);
    EXPECT_EQ(Apply({FilterId::RemoveBlue}, {p}, 1, 1)[0], 0x80112200u);
}

TEST(PointFilters, ScaleChannelRoundsAndLimits) {
    auto out =
        Apply({FilterId::ScaleRed, 1.5}, {Px(1, 5, 9, 9), Px(1, 3, 9, 9), Px(1, 200, 9, 9)}, 3, 1);
    EXPECT_EQ(out, (std::vector<std::uint32_t>{Px(1, 8, 9, 9), Px(1, 4, 9, 9), Px(1, 255, 9, 9)}));
    EXPECT_EQ(Apply({FilterId::ScaleBlue, 0.5}, {Px(1, 9, 9, 5)}, 1, 1)[0],
              Px(1, 9, 9, 2)); // 2.5 -> 2
    EXPECT_EQ(Apply({FilterId::ScaleGreen, -1}, {Px(1, 9, 0, 9)}, 1, 1)[0], Px(1, 9, 0, 9));
    EXPECT_THROW(Apply({FilterId::ScaleGreen, -1}, {Px(1, 9, 0, 9), Px(1, 9, 1, 9)}, 2, 1),
                 std::range_error);
}

TEST(PointFilters, ColorKeyThresholds) {
    const double key = static_cast<std::int32_t>(0xFF102030u);
    const std::vector<std::uint32_t> px = {Px(255, 0x10, 0x20, 0x30), Px(255, 0x10, 0x20, 0x31),
                                           Px(255, 255, 255, 255)};
    auto exact = Apply({FilterId::ColorKey, 100, key}, px, 3, 1);
    EXPECT_EQ(exact, (std::vector<std::uint32_t>{Px(0, 0x10, 0x20, 0x30), px[1], px[2]}));
    auto all = Apply({FilterId::ColorKey, 0, key}, px, 3, 1);
    for (std::uint32_t p : all)
        EXPECT_EQ(p >> 24, 0u);
    // 50: d = 384; white is 0xEF + 0xDF + 0xCF = 669 away.
    auto half = Apply({FilterId::ColorKey, 50, key}, px, 3, 1);
    EXPECT_EQ(half[1] >> 24, 0u);
    EXPECT_EQ(half[2] >> 24, 255u);
}

TEST(PointFilters, ColorReplaceComparesAlpha) {
    const double src = static_cast<std::int32_t>(0xFF102030u),
                 dst = static_cast<std::int32_t>(0x40ABCDEFu);
    auto out = Apply({FilterId::ColorReplace, 100, src, dst}, {0xFF102030u, 0x80102030u}, 2, 1);
    EXPECT_EQ(out[0], 0x40ABCDEFu);
    EXPECT_EQ(out[1], 0x80102030u);
    // 90: d = floor(1024 - 921.6) = 102; alpha difference 127 is too far, 100 is not.
    auto near = Apply({FilterId::ColorReplace, 90, src, dst}, {0x80102030u, 0x9B102030u}, 2, 1);
    EXPECT_EQ(near[0], 0x80102030u);
    EXPECT_EQ(near[1], 0x40ABCDEFu);
}

TEST(PointFilters, EqualizeThroughTheCumulativeTable) {
    auto out = Apply({FilterId::Equalize}, {Gray(0), Gray(0), Gray(100), Gray(200)}, 4, 1);
    // C = 2, 3, 4 of 4: 127.5 -> 128, 191.25 -> 191, 255.
    EXPECT_EQ(out, (std::vector<std::uint32_t>{Gray(128), Gray(128), Gray(191), Gray(255)}));
}

TEST(PointFilters, ChannelPermutationsAsNamed) {
    const std::uint32_t p = Px(9, 1, 2, 3);
    EXPECT_EQ(Apply({FilterId::SwapChannels, 1}, {p}, 1, 1)[0], Px(9, 2, 3, 1));
    EXPECT_EQ(Apply({FilterId::SwapChannels, 2}, {p}, 1, 1)[0], Px(9, 3, 1, 2));
    EXPECT_EQ(Apply({FilterId::SwapChannels, 3}, {p}, 1, 1)[0], Px(9, 2, 1, 3));
    EXPECT_EQ(Apply({FilterId::SwapChannels, 4}, {p}, 1, 1)[0], Px(9, 3, 2, 1));
    EXPECT_EQ(Apply({FilterId::SwapChannels, 5}, {p}, 1, 1)[0], Px(9, 1, 3, 2));
}

TEST(FilterTable, FreeAndOutOfRangeIdentifiersRunNothing) {
    const std::vector<std::uint32_t> px = {Px(1, 2, 3, 4), Px(5, 6, 7, 8)};
    for (std::int32_t id : {0, 21, 22, 23, 71, -3})
        EXPECT_EQ(Apply({static_cast<FilterId>(id), 5}, px, 2, 1), px) << id;
    EXPECT_EQ(kestrelyn::FindFilterFunction(21), nullptr);
    EXPECT_TRUE(kestrelyn::FilterReadsSource(FilterNumber(FilterId::Despeckle)));
    EXPECT_FALSE(kestrelyn::FilterReadsSource(FilterNumber(FilterId::Blur)));
}
