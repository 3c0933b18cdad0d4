// The format changes behind the filter members: gray levels by mode, the new
// 8-bit and 32-bit images they register, and the facade putting them in
// place of the native image with its resolution kept.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "core/modMain.h"
#include "kestrelyn/Imaging.h"
#include "platform/modGdiPlus.h"
#include "raster/FormatConversion.h"
#include "support/RegistryImages.h"

using namespace kestrelyn;

namespace {

std::int32_t Register(PixelFormat fmt, const std::vector<std::uint32_t>& px, int w, int h,
                      const std::string& sFormatName) {
    return test::RegisterPixels(fmt, px, w, h, sFormatName);
}

std::vector<std::uint8_t> Rows(std::int32_t id, PixelFormat fmt, int w, int h, int stride) {
    return test::ReadRows(id, fmt, w, h, stride);
}

PixelFormat FormatOf(std::int32_t id) {
    PixelFormat fmt = 0;
    EXPECT_EQ(GdipGetImagePixelFormat(ResolveGdiPlusImage(id), &fmt), OK);
    return fmt;
}

} // namespace

TEST(GrayConversion, LevelsByMode) {
    const std::uint32_t red = 0xFFFF0000u, mixed = 0x80C86432u; // R 200, G 100, B 50
    EXPECT_EQ(GrayLevel(1, red), 57);                           // 56.61
    EXPECT_EQ(GrayLevel(2, red), 85);
    EXPECT_EQ(GrayLevel(3, red), 0);     // the blue byte
    EXPECT_EQ(GrayLevel(1, mixed), 119); // (44400 + 70700 + 3550) / 1000 = 118.65
    EXPECT_EQ(GrayLevel(2, mixed), 117); // 350 / 3 = 116.67
    EXPECT_EQ(GrayLevel(3, mixed), 50);
    EXPECT_EQ(GrayLevel(2, 0xFF000102u), 1); // 3 / 3
    EXPECT_EQ(GrayLevel(2, 0xFF000001u), 0); // 1 / 3 rounds down
}

TEST(GrayConversion, NewImageHasTheRampAndTheLevels) {
    const std::vector<std::uint32_t> px = {0xFFFF0000u, 0xFF00FF00u, 0xFF0000FFu,
                                           0x00FFFFFFu, 0xFF102030u, 0xFF000000u};
    const std::int32_t src = Register(PixelFormat32bppARGB, px, 3, 2, "PNG");
    std::int32_t gray = 0;
    ASSERT_EQ(MakeGray8Image(src, 2, gray), OK);
    ASSERT_NE(gray, 0);
    ASSERT_NE(gray, src);
    EXPECT_EQ(FormatOf(gray), PixelFormat8bppIndexed);
    EXPECT_EQ(FindImageRecord(gray)->sFormatName, "PNG");

    INT size = 0;
    GpImage* img = ResolveGdiPlusImage(gray);
    ASSERT_EQ(GdipGetImagePaletteSize(img, &size), OK);
    std::vector<std::uint8_t> raw(static_cast<std::size_t>(size));
    auto* pal = reinterpret_cast<ColorPalette*>(raw.data());
    ASSERT_EQ(GdipGetImagePalette(img, pal, size), OK);
    ASSERT_EQ(pal->Count, 256u);
    EXPECT_EQ(pal->Flags & PaletteFlagsGrayScale, static_cast<UINT>(PaletteFlagsGrayScale));
    for (std::uint32_t i = 0; i < 256; ++i)
        EXPECT_EQ(pal->Entries[i], 0xFF000000u | i * 0x010101u) << i;

    const auto rows = Rows(gray, PixelFormat8bppIndexed, 3, 2, 4);
    const std::uint8_t want[2][3] = {{85, 85, 85}, {255, 32, 0}}; // (16 + 32 + 48) / 3 = 32
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x)
            EXPECT_EQ(rows[y * 4 + x], want[y][x]) << x << "," << y;
    // The source is left as it was.
    EXPECT_EQ(FormatOf(src), PixelFormat32bppARGB);
    ReleaseImage(gray);
    ReleaseImage(src);
}

TEST(GrayConversion, ArgbCopyAndFailures) {
    const std::vector<std::uint32_t> px = {0xFF102030u, 0xFFA0B0C0u};
    const std::int32_t src = Register(PixelFormat24bppRGB, px, 2, 1, "JPEG");
    std::int32_t copy = 0;
    ASSERT_EQ(MakeARGB32Image(src, copy), OK);
    EXPECT_EQ(FormatOf(copy), PixelFormat32bppARGB);
    EXPECT_EQ(FindImageRecord(copy)->sFormatName, "JPEG");
    const auto rows = Rows(copy, PixelFormat32bppARGB, 2, 1, 8);
    std::uint32_t out[2];
    std::memcpy(out, rows.data(), 8);
    EXPECT_EQ(out[0], px[0]);
    EXPECT_EQ(out[1], px[1]);

    std::int32_t none = 0;
    EXPECT_EQ(MakeGray8Image(0, 1, none), InvalidParameter);
    EXPECT_EQ(MakeARGB32Image(987654321, none), InvalidParameter);
    EXPECT_EQ(none, 0);
    ReleaseImage(copy);
    ReleaseImage(src);
}

// The facade puts the new image under the native image's id and keeps its
// resolution: alpha is added for SetTransparency, a 1-bit image becomes gray
// for SetContrast.
TEST(GrayConversion, FacadeReplacesTheNativeImage) {
    Imaging im;
    const std::int32_t id = im.CreateNewImage(2, 1, 24);
    ASSERT_NE(id, 0);
    std::vector<std::int32_t> px = {static_cast<std::int32_t>(0xFF102030u),
                                    static_cast<std::int32_t>(0xFFA0B0C0u)};
    ASSERT_EQ(im.SetPixelArrayARGB(px, 0, 0, 2, 1), OK);
    ASSERT_EQ(im.SetHorizontalResolution(150.0f), OK);
    ASSERT_EQ(im.SetVerticalResolution(75.0f), OK);
    ASSERT_EQ(im.SetTransparency(-55), OK);
    EXPECT_EQ(im.GetNativeImage(), id);
    EXPECT_EQ(im.GetPixelFormat(), PixelFormat32bppARGB);
    EXPECT_FLOAT_EQ(im.GetHorizontalResolution(), 150.0f);
    EXPECT_FLOAT_EQ(im.GetVerticalResolution(), 75.0f);
    std::vector<std::int32_t> out;
    ASSERT_EQ(im.GetPixelArrayARGB(out, 0, 0, 2, 1), OK);
    EXPECT_EQ(static_cast<std::uint32_t>(out[0]), 0xC8102030u);
    EXPECT_EQ(static_cast<std::uint32_t>(out[1]), 0xC8A0B0C0u);

    const std::int32_t bits = im.CreateNewImage(3, 1, 1);
    ASSERT_NE(bits, 0);
    ASSERT_EQ(im.SetHorizontalResolution(300.0f), OK);
    ASSERT_EQ(im.SetContrast(0), OK);
    EXPECT_EQ(im.GetNativeImage(), bits);
    EXPECT_EQ(im.GetPixelFormat(), PixelFormat8bppIndexed);
    EXPECT_FLOAT_EQ(im.GetHorizontalResolution(), 300.0f);
}
