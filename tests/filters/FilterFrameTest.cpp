// The filter frame through Imaging: zones, the indexed and 1-bit ways back,
// palette mode, and two threads filtering at once.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "FilterTestSupport.h"
#include "core/modMain.h"
#include "kestrelyn/Imaging.h"
#include "platform/modGdiPlus.h"

using namespace kestrelyn;
using namespace kytest;

namespace {

std::vector<std::int32_t> Ramp5x4() {
    std::vector<std::int32_t> v(20);
    for (int i = 0; i < 20; ++i)
        v[i] = static_cast<std::int32_t>(Px(255, i * 10, i * 5, i));
    return v;
}

std::int32_t NewARGB(Imaging& im, std::vector<std::int32_t> px, int w, int h) {
    const std::int32_t id = im.CreateNewImage(w, h, 32);
    EXPECT_NE(id, 0);
    EXPECT_EQ(im.SetPixelArrayARGB(px, 0, 0, w, h), OK);
    return id;
}

std::vector<std::int32_t> Read(Imaging& im, int w, int h) {
    std::vector<std::int32_t> out;
    EXPECT_EQ(im.GetPixelArrayARGB(out, 0, 0, w, h), OK);
    out.resize(static_cast<std::size_t>(w) * h);
    return out;
}

// An indexed engine bitmap with the given palette and rows, registered and
// made the native image.
std::int32_t NewIndexed(Imaging& im, PixelFormat fmt, const std::vector<ARGB>& pal,
                        std::vector<std::uint8_t> rows, int w, int h, int stride) {
    GpBitmap* bmp = nullptr;
    EXPECT_EQ(GdipCreateBitmapFromScan0(w, h, 0, fmt, nullptr, &bmp), OK);
    std::vector<std::uint8_t> raw(sizeof(ColorPalette) + pal.size() * sizeof(ARGB));
    auto* p = reinterpret_cast<ColorPalette*>(raw.data());
    p->Flags = 0;
    p->Count = static_cast<UINT>(pal.size());
    std::memcpy(p->Entries, pal.data(), pal.size() * sizeof(ARGB));
    EXPECT_EQ(GdipSetImagePalette(bmp, p), OK);
    GpRect rect{0, 0, w, h};
    BitmapData d;
    d.Width = w;
    d.Height = h;
    d.Stride = stride;
    d.PixelFormat = fmt;
    d.Scan0 = rows.data();
    EXPECT_EQ(GdipBitmapLockBits(bmp, &rect, 6, fmt, &d), OK);
    EXPECT_EQ(GdipBitmapUnlockBits(bmp, &d), OK);
    std::int32_t id = 0;
    RegisterImage(id, bmp, "Memory BMP", "", KindEngine);
    im.SetNativeImage(id);
    return id;
}

std::vector<std::uint8_t> ReadRaw(Imaging& im, PixelFormat fmt, int w, int h, int stride) {
    std::vector<std::uint8_t> rows(static_cast<std::size_t>(stride) * h);
    GpImage* img = ResolveGdiPlusImage(im.GetNativeImage());
    GpRect rect{0, 0, w, h};
    BitmapData d;
    d.Width = w;
    d.Height = h;
    d.Stride = stride;
    d.PixelFormat = fmt;
    d.Scan0 = rows.data();
    EXPECT_EQ(GdipBitmapLockBits(img, &rect, 5, fmt, &d), OK);
    EXPECT_EQ(GdipBitmapUnlockBits(img, &d), OK);
    return rows;
}

std::vector<ARGB> ReadPalette(Imaging& im) {
    GpImage* img = ResolveGdiPlusImage(im.GetNativeImage());
    INT size = 0;
    EXPECT_EQ(GdipGetImagePaletteSize(img, &size), OK);
    std::vector<std::uint8_t> raw(size + 8);
    auto* p = reinterpret_cast<ColorPalette*>(raw.data());
    EXPECT_EQ(GdipGetImagePalette(img, p, size), OK);
    return std::vector<ARGB>(p->Entries, p->Entries + p->Count);
}

} // namespace

TEST(FilterFrame, NoNativeImageIsStatusOne) {
    Imaging im;
    EXPECT_EQ(im.FxNegative(), GenericError);
    EXPECT_EQ(im.GetStat(), GenericError);
}

TEST(FilterFrame, WholeImageAndZones) {
    Imaging im;
    auto px = Ramp5x4();
    NewARGB(im, px, 5, 4);
    ASSERT_EQ(im.FxNegative(), OK);
    auto out = Read(im, 5, 4);
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(static_cast<std::uint32_t>(out[i]),
                  static_cast<std::uint32_t>(px[i]) ^ 0x00FFFFFFu);

    // A zone wholly inside: only its pixels change.
    im.SetROI(1, 1, 2, 2);
    ASSERT_EQ(im.FxNegative(), OK);
    auto z = Read(im, 5, 4);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 5; ++x) {
            const bool inside = x >= 1 && x <= 2 && y >= 1 && y <= 2;
            EXPECT_EQ(z[y * 5 + x], inside ? px[y * 5 + x] : out[y * 5 + x]) << x << "," << y;
        }

    // Four zeros keep the zone: a second negation restores the zone.
    im.SetROI(0, 0, 0, 0);
    ASSERT_EQ(im.FxNegative(), OK);
    EXPECT_EQ(Read(im, 5, 4), out);

    // A zone reaching outside the image fails and changes nothing.
    im.SetROI(3, 2, 5, 5);
    EXPECT_EQ(im.FxNegative(), GenericError);
    EXPECT_EQ(Read(im, 5, 4), out);

    // Back to the whole image.
    im.ResetROI();
    ASSERT_EQ(im.FxNegative(), OK);
    EXPECT_EQ(Read(im, 5, 4), px);
}

TEST(FilterFrame, ColourPaletteModeChangesThePaletteOnly) {
    Imaging im;
    const std::vector<ARGB> pal = {0xFF102030u, 0xFF405060u, 0xFFFF0000u};
    std::vector<std::uint8_t> rows = {0, 1, 2, 0, 2, 1, 0, 0};
    NewIndexed(im, PixelFormat8bppIndexed, pal, rows, 3, 2, 4);
    ASSERT_EQ(im.FxNegative(), OK);
    EXPECT_EQ(ReadRaw(im, PixelFormat8bppIndexed, 3, 2, 4), rows);
    auto neg = ReadPalette(im);
    ASSERT_GE(neg.size(), 3u);
    EXPECT_EQ(neg[0], 0xFFEFDFCFu);
    EXPECT_EQ(neg[2], 0xFF00FFFFu);
    ASSERT_EQ(im.SetBrightness(-50), OK); // f = 0.5: 0xEF -> 119.5 -> 120
    auto dim = ReadPalette(im);
    EXPECT_EQ(dim[0], 0xFF787068u); // 111.5 -> 112
    EXPECT_EQ(ReadRaw(im, PixelFormat8bppIndexed, 3, 2, 4), rows);
}

TEST(FilterFrame, GrayPaletteGetsTheLevelAsIndex) {
    Imaging im;
    std::vector<ARGB> pal(256);
    for (std::uint32_t i = 0; i < 256; ++i)
        pal[i] = 0xFF000000u | ((255 - i) * 0x010101u); // inverted ramp
    std::vector<std::uint8_t> rows = {0, 255, 100, 0};  // levels 255, 0, 155
    NewIndexed(im, PixelFormat8bppIndexed, pal, rows, 3, 1, 4);
    ASSERT_EQ(im.FxGrayscale(), OK);
    auto out = ReadRaw(im, PixelFormat8bppIndexed, 3, 1, 4);
    EXPECT_EQ(out[0], 255); // the gray level written as index, no lookup
    EXPECT_EQ(out[1], 0);
    EXPECT_EQ(out[2], 155);
}

TEST(FilterFrame, BitonalNegationAndWriteBack) {
    Imaging im;
    const std::vector<ARGB> pal = {0xFF000000u, 0xFFFFFFFFu};
    std::vector<std::uint8_t> rows = {0xA0, 0, 0, 0, 0x40, 0, 0, 0}; // 3x2: 101 / 010
    NewIndexed(im, PixelFormat1bppIndexed, pal, rows, 3, 2, 4);
    ASSERT_EQ(im.FxNegative(), OK);
    auto neg = ReadRaw(im, PixelFormat1bppIndexed, 3, 2, 4);
    EXPECT_EQ(neg[0] & 0xE0, 0x40);
    EXPECT_EQ(neg[4] & 0xE0, 0xA0);
    EXPECT_EQ(ReadPalette(im), pal);
    // Any other filter comes back 1-bit: dilate leaves a 3x2 zone alone, and
    // the bit is set exactly where blue is 255.
    ASSERT_EQ(im.FxGrayscale(), OK);
    EXPECT_EQ(im.GetPixelFormat(), PixelFormat1bppIndexed);
    auto g = ReadRaw(im, PixelFormat1bppIndexed, 3, 2, 4);
    EXPECT_EQ(g[0] & 0xE0, 0x40);
    EXPECT_EQ(g[4] & 0xE0, 0xA0);
}

TEST(FilterFrame, BrightnessTurnsBitonalIntoGray) {
    Imaging im;
    const std::vector<ARGB> pal = {0xFF000000u, 0xFFFFFFFFu};
    std::vector<std::uint8_t> rows = {0x80, 0, 0, 0}; // 2x1: white, black
    NewIndexed(im, PixelFormat1bppIndexed, pal, rows, 2, 1, 4);
    ASSERT_EQ(im.SetBrightness(-50), OK);
    EXPECT_EQ(im.GetPixelFormat(), PixelFormat8bppIndexed);
    auto out = ReadRaw(im, PixelFormat8bppIndexed, 2, 1, 4);
    EXPECT_EQ(out[0], 128); // 255 * 0.5 = 127.5 -> 128
    EXPECT_EQ(out[1], 0);
}

TEST(FilterFrame, TwoThreadsFilterTheirOwnImages) {
    auto work = [](std::uint32_t seed, std::vector<std::int32_t>& result) {
        Imaging im;
        std::vector<std::int32_t> px(64 * 48);
        for (std::size_t i = 0; i < px.size(); ++i)
            px[i] = static_cast<std::int32_t>(
                0xFF000000u | ((static_cast<std::uint32_t>(i) * 2654435761u + seed) & 0xFFFFFF));
        NewARGB(im, px, 64, 48);
        for (int k = 0; k < 5; ++k) {
            im.FxBlur();
            im.FxDespeckle();
            im.SetContrast(20);
            im.FxSharpen();
        }
        result = Read(im, 64, 48);
    };
    std::vector<std::int32_t> a1, b1, a2, b2;
    work(1, a1);
    work(2, b1);
    std::thread t1(work, 1, std::ref(a2)), t2(work, 2, std::ref(b2));
    t1.join();
    t2.join();
    EXPECT_EQ(a1, a2);
    EXPECT_EQ(b1, b2);
    EXPECT_NE(a1, b1);
}
