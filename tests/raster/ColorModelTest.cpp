// Colour models: the ARGB helpers, CMY, CMYK and HSL.
#include <gtest/gtest.h>

#include <stdexcept>

#include "kestrelyn/Colors.h"
#include "raster/cColor.h"
#include "raster/modHSL.h"

using namespace kestrelyn;

TEST(ColorValues, ColorClassPacksAndSplits) {
    cColor c;
    c.FromARGB(0x12, 0x34, 0x56, 0x78);
    EXPECT_EQ(c.GetValue(), 0x12345678);
    EXPECT_EQ(c.GetRed(), 0x34);
    c.FromRGBColor(0x00102030);
    EXPECT_EQ(static_cast<std::uint32_t>(c.GetValue()), 0xFF102030u);
    c.SetFromCOLORREF(0x00302010); // red in the low byte
    EXPECT_EQ(static_cast<std::uint32_t>(c.GetValue()), 0xFF102030u);
}

TEST(ColorValues, NamedColours) {
    EXPECT_EQ(static_cast<std::uint32_t>(Colors::Black), 0xFF000000u);
    EXPECT_EQ(static_cast<std::uint32_t>(Colors::CornflowerBlue), 0xFF6495EDu);
    EXPECT_EQ(static_cast<std::uint32_t>(Colors::YellowGreen), 0xFF9ACD32u);
    EXPECT_EQ(static_cast<std::uint32_t>(Colors::Transparent) >> 24, 0u);
}

TEST(ColorModels, CMYIsTheComplement) {
    cCMY c;
    c.RGB(0x00FF8001); // red 1, green 128, blue 255
    EXPECT_EQ(c.C(), 254);
    EXPECT_EQ(c.M(), 127);
    EXPECT_EQ(c.Y(), 0);
    c.FromCMY(0, 255, 10);
    EXPECT_EQ(c.RGB(), 255 | (0 << 8) | (245 << 16));
}

TEST(ColorModels, CMYKExtremesAndRounding) {
    cCMYK white;
    white.RGB(0xFFFFFF);
    EXPECT_EQ(white.C(), 0);
    EXPECT_EQ(white.K(), 0);
    cCMYK black;
    black.RGB(0);
    EXPECT_EQ(black.C(), 255);
    EXPECT_EQ(black.M(), 255);
    EXPECT_EQ(black.Y(), 255);
    EXPECT_EQ(black.K(), 255);
    // R 100, G 150, B 200: c 155, m 105, y 55, K 55; C = 100 * 255 / 200 = 127.5 -> 128.
    cCMYK k;
    k.RGB(100 | (150 << 8) | (200 << 16));
    EXPECT_EQ(k.K(), 55);
    EXPECT_EQ(k.C(), 128);
    EXPECT_EQ(k.M(), 64); // 63.75
    EXPECT_EQ(k.Y(), 0);
    // Back: (200 * 128 / 255 + 55) = 155.39 -> 155, R = 100.
    cCMYK back;
    back.FromCMYK(128, 64, 0, 55);
    EXPECT_EQ(back.R(), 100);
    EXPECT_EQ(back.G(), 150); // 200 * 64 / 255 + 55 = 105.2
    EXPECT_EQ(back.b(), 200);
}

TEST(ColorModels, HSLOfPrimaries) {
    float h, s, l;
    RGBtoHSL(255, 0, 0, h, s, l);
    EXPECT_FLOAT_EQ(h, 0.0f);
    EXPECT_FLOAT_EQ(s, 1.0f);
    EXPECT_FLOAT_EQ(l, 0.5f);
    RGBtoHSL(0, 0, 255, h, s, l);
    EXPECT_FLOAT_EQ(h, 4.0f);
    RGBtoHSL(255, 0, 128, h, s, l); // red is largest, blue above green: negative hue
    EXPECT_LT(h, 0.0f);
    RGBtoHSL(77, 77, 77, h, s, l);
    EXPECT_EQ(s, 0.0f);
    EXPECT_EQ(h, 0.0f);
}

TEST(ColorModels, HSLToRGBSextants) {
    std::uint8_t r, g, b;
    HSLtoRGB(0.0f, 1.0f, 0.5f, r, g, b);
    EXPECT_EQ(r, 255);
    EXPECT_EQ(g, 0);
    EXPECT_EQ(b, 0);
    HSLtoRGB(4.0f, 1.0f, 0.5f, r, g, b);
    EXPECT_EQ(b, 255);
    EXPECT_EQ(r, 0);
    HSLtoRGB(2.5f, 0.5f, 0.25f, r, g, b); // p 0.125, q 0.375, e 0.125: b = 0.25
    EXPECT_EQ(r, 32);                     // 31.875
    EXPECT_EQ(g, 96);                     // 95.625
    EXPECT_EQ(b, 64);                     // 63.75
    HSLtoRGB(1.0f, 0.0f, 0.2f, r, g, b);
    EXPECT_EQ(r, 51);
    EXPECT_THROW(HSLtoRGB(0.0f, 0.5f, 2.0f, r, g, b), std::range_error);
}

// The non-throwing form agrees with HSLtoRGB over a grid that crosses every
// sextant and leaves the byte range, and fails exactly where HSLtoRGB throws,
// having written the channels before the failing one.
TEST(ColorModels, TryHSLtoRGBAgreesWithTheThrowingForm) {
    int nFailures = 0;
    for (float H = -1.0f; H <= 5.0f; H += 0.25f)
        for (float S = -0.5f; S <= 1.5f; S += 0.25f)
            for (float L = -0.25f; L <= 1.5f; L += 0.125f) {
                std::uint8_t r1 = 1, g1 = 2, b1 = 3, r2 = 1, g2 = 2, b2 = 3;
                bool bThrew = false;
                try {
                    HSLtoRGB(H, S, L, r1, g1, b1);
                } catch (const std::range_error&) {
                    bThrew = true;
                }
                EXPECT_EQ(TryHSLtoRGB(H, S, L, r2, g2, b2), !bThrew) << H << " " << S << " " << L;
                EXPECT_EQ(r1, r2);
                EXPECT_EQ(g1, g2);
                EXPECT_EQ(b1, b2);
                nFailures += bThrew;
            }
    EXPECT_GT(nFailures, 0);
    // p = -0.25, q = 1.25: red = 0.5 fits, green = q does not, so red is
    // written and green and blue keep theirs.
    std::uint8_t r = 7, g = 8, b = 9;
    EXPECT_FALSE(TryHSLtoRGB(1.5f, 1.5f, 0.5f, r, g, b));
    EXPECT_EQ(r, 128); // 127.5
    EXPECT_EQ(g, 8);
    EXPECT_EQ(b, 9);
}
