// The filter frame through Imaging: zones, the indexed and 1-bit ways back,
// palette mode, and two threads filtering at once; and RunFilter by itself on
// a registry image and a zone record.
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <thread>

#include "FilterTestSupport.h"
#include "core/modMain.h"
#include "kestrelyn/Imaging.h"
#include "platform/modGdiPlus.h"
#include "support/RegistryImages.h"

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

namespace {

// A 32-bit ARGB engine bitmap registered without any Imaging object.
std::int32_t RegisterARGB(const std::vector<std::uint32_t>& px, int w, int h) {
    return test::RegisterPixels(PixelFormat32bppARGB, px, w, h);
}

// The pixels of a registry image through the registry's lock, which fails
// while someone else still holds a lock on the image.
std::vector<std::uint32_t> ReadId(std::int32_t id, int w, int h) {
    const std::vector<std::uint8_t> rows = test::ReadRows(id, PixelFormat32bppARGB, w, h, 4 * w);
    std::vector<std::uint32_t> px(static_cast<std::size_t>(w) * static_cast<std::size_t>(h));
    std::memcpy(px.data(), rows.data(), rows.size());
    return px;
}

std::vector<std::uint32_t> Pixels(int n, std::uint32_t seed) {
    std::vector<std::uint32_t> px(n);
    for (int i = 0; i < n; ++i)
        px[i] = 0xFF000000u | ((static_cast<std::uint32_t>(i) * 2654435761u + seed) >> 8);
    return px;
}

} // namespace

TEST(FilterEngine, RunsOnARegistryImageAndAZoneRecord) {
    const auto px = Pixels(20, 1);
    const std::int32_t id = RegisterARGB(px, 5, 4);
    ClearImageModified(id);
    FilterResult result{7.5};
    EXPECT_EQ(RunFilter(FilterId::Negative, id, FilterZone{1, 1, 3, 2}, FilterParams{}, &result),
              OK);
    const auto out = ReadId(id, 5, 4);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 5; ++x) {
            const bool inside = x >= 1 && x <= 3 && y >= 1 && y <= 2;
            EXPECT_EQ(out[y * 5 + x], inside ? px[y * 5 + x] ^ 0x00FFFFFFu : px[y * 5 + x])
                << x << "," << y;
        }
    EXPECT_EQ(result.Value, 7.5); // an ordinary filter leaves the answer alone
    EXPECT_TRUE(FindImageRecord(id)->bModified);

    // An empty zone runs nothing and writes nothing.
    ClearImageModified(id);
    EXPECT_EQ(RunFilter(FilterId::Negative, id, FilterZone{0, 0, 0, 4}, FilterParams{}), OK);
    EXPECT_FALSE(FindImageRecord(id)->bModified);
    EXPECT_EQ(ReadId(id, 5, 4), out);
    // A zone reaching outside is status 1; an unknown image the engine's 2.
    EXPECT_EQ(RunFilter(FilterId::Negative, id, FilterZone{3, 2, 5, 5}, FilterParams{}),
              GenericError);
    EXPECT_EQ(ReadId(id, 5, 4), out);
    EXPECT_EQ(RunFilter(FilterId::Negative, 0, FilterZone{0, 0, 5, 4}, FilterParams{}),
              InvalidParameter);
    // A free identifier writes the zone back unchanged.
    EXPECT_EQ(RunFilter(static_cast<FilterId>(21), id, FilterZone{0, 0, 5, 4}, FilterParams{}), OK);
    EXPECT_EQ(ReadId(id, 5, 4), out);
    ReleaseImage(id);
}

// A failure inside a filter function reaches the caller as it was thrown,
// whichever way the frame lent the pixels: the image stays as it was and no
// lock is left on it (ReadId locks the image again).
TEST(FilterEngine, AFailingFilterThrowsAndGivesItsLockBack) {
    const auto px = Pixels(42, 3);
    const std::int32_t id = RegisterARGB(px, 7, 6);
    const FilterZone zone{0, 0, 7, 6};
    FilterParams p;
    // Sharpen runs in the image's own rows under a read-write lock; a
    // parameter of -8 makes its divisor 0.
    p.Param1 = -8;
    EXPECT_THROW(RunFilter(FilterId::Sharpen, id, zone, p), std::domain_error);
    EXPECT_EQ(ReadId(id, 7, 6), px);
    // Contour reads the image's rows as its source under a read lock; its
    // base colour does not fit 32 bits.
    p.Param1 = 1e300;
    EXPECT_THROW(RunFilter(FilterId::Contour, id, zone, p), std::range_error);
    EXPECT_EQ(ReadId(id, 7, 6), px);
    // Soften works on a copy and overflows a byte part-way through.
    p.Param1 = 104;
    EXPECT_THROW(RunFilter(FilterId::Soften, id, zone, p), std::range_error);
    EXPECT_EQ(ReadId(id, 7, 6), px);
    // The image still filters.
    p.Param1 = 2;
    EXPECT_EQ(RunFilter(FilterId::Sharpen, id, zone, p), OK);
    EXPECT_NE(ReadId(id, 7, 6), px);
    ReleaseImage(id);
}

// Through the public object the same failures are status 1, stored too.
TEST(FilterFrame, AFailureInsideAFilterIsStatusOne) {
    Imaging im;
    const auto bump = Bump();
    const std::vector<std::int32_t> px(bump.begin(), bump.end());
    NewARGB(im, px, 5, 4);
    EXPECT_EQ(im.FxSoften(105), GenericError); // divisor 0
    EXPECT_EQ(im.GetStat(), GenericError);
    ASSERT_EQ(im.FxNegative(), OK);
    ASSERT_EQ(im.FxNegative(), OK);
    EXPECT_EQ(im.FxSoften(104), GenericError); // -200 at the bump
    EXPECT_EQ(im.GetStat(), GenericError);
    EXPECT_EQ(Read(im, 5, 4), px);
}
