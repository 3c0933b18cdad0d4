// Rotation and flipping, all eight cases, in several formats.
#include <gtest/gtest.h>

#include "engine_test_util.h"

using namespace kestrelyn;
using namespace kestrelyn::enginetest;

namespace {

// The 3 x 2 image
//   a b c
//   d e f
// after each of the eight operations, read row by row.
struct Expect {
    RotateFlipType t;
    INT w, h;
    const char* layout;
};
const Expect kCases[] = {
    {RotateNoneFlipNone, 3, 2, "abcdef"}, {Rotate90FlipNone, 2, 3, "daebfc"},
    {Rotate180FlipNone, 3, 2, "fedcba"},  {Rotate270FlipNone, 2, 3, "cfbead"},
    {RotateNoneFlipX, 3, 2, "cbafed"},    {Rotate90FlipX, 2, 3, "adbecf"},
    {Rotate180FlipX, 3, 2, "defabc"},     {Rotate270FlipX, 2, 3, "fcebda"},
};

void CheckFormat(PixelFormat f, const std::vector<ARGB>& colours) {
    for (const Expect& e : kCases) {
        SCOPED_TRACE(::testing::Message() << "format " << f << " case " << e.t);
        Bmp b(3, 2, f);
        SetArgb(b, colours);
        ASSERT_EQ(GdipImageRotateFlip(b, e.t), OK);
        UINT w = 0, h = 0;
        GdipGetImageWidth(b, &w);
        GdipGetImageHeight(b, &h);
        ASSERT_EQ(INT(w), e.w);
        ASSERT_EQ(INT(h), e.h);
        std::vector<ARGB> want;
        for (const char* c = e.layout; *c; ++c)
            want.push_back(colours[*c - 'a']);
        EXPECT_EQ(ArgbOf(b), want);
    }
}

} // namespace

TEST(EngineRotateFlip, EightCasesInByteFormats) {
    CheckFormat(PixelFormat32bppARGB,
                {0x01020304, 0x11121314, 0x21222324, 0x31323334, 0x41424344, 0x51525354});
    CheckFormat(PixelFormat24bppRGB,
                {0xFF020304, 0xFF121314, 0xFF222324, 0xFF323334, 0xFF424344, 0xFF525354});
    CheckFormat(PixelFormat16bppRGB565,
                {0xFF000000, 0xFFFF0000, 0xFF00FF00, 0xFF0000FF, 0xFFFFFF00, 0xFFFFFFFF});
    CheckFormat(PixelFormat48bppRGB,
                {0xFF020304, 0xFF121314, 0xFF222324, 0xFF323334, 0xFF424344, 0xFF525354});
    CheckFormat(PixelFormat8bppIndexed,
                {0xFF000000, 0xFF800000, 0xFF008000, 0xFF808000, 0xFF000080, 0xFFFFFFFF});
}

TEST(EngineRotateFlip, EightCasesInSubByteFormats) {
    CheckFormat(PixelFormat4bppIndexed,
                {0xFF000000, 0xFF800000, 0xFF008000, 0xFF808000, 0xFF000080, 0xFFFFFFFF});
    const ARGB W = 0xFFFFFFFF, K = 0xFF000000;
    // An asymmetric black and white pattern tells all eight apart.
    CheckFormat(PixelFormat1bppIndexed, {W, W, K, W, K, K});
}

TEST(EngineRotateFlip, NewStrideAndResolutionSwap) {
    Bmp b(33, 1, PixelFormat1bppIndexed);
    GdipBitmapSetResolution(b, 100.0f, 200.0f);
    std::vector<std::uint8_t> raw(8, 0);
    raw[4] = 0x80; // pixel 32
    SetRaw(b, raw);
    ASSERT_EQ(GdipImageRotateFlip(b, Rotate90FlipNone), OK);
    INT stride = 0;
    auto r = RawOf(b, &stride);
    EXPECT_EQ(stride, 4);
    ASSERT_EQ(r.size(), 33u * 4);
    for (int y = 0; y < 33; ++y)
        EXPECT_EQ(r[y * 4], y == 32 ? 0x80 : 0x00) << y;
    float dx = 0, dy = 0;
    GdipGetImageHorizontalResolution(b, &dx);
    GdipGetImageVerticalResolution(b, &dy);
    EXPECT_EQ(dx, 200.0f);
    EXPECT_EQ(dy, 100.0f);
}
