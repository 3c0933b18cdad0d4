// New images and ClearImage fill in the image's own pixel format: the same
// pixels (palette indices included) as a graphics clear gives, at every depth,
// with no 32-bit copy of the image beside it.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "core/modMain.h"
#include "kestrelyn/Imaging.h"
#include "platform/modGdiPlus.h"
#include "support/ProcessMemory.h"

namespace kestrelyn::test {
namespace {

const std::int32_t kDepths[] = {1, 4, 8, 16, 24, 32, 48, 64};
const ARGB kColours[] = {0xFFFFFFFFu, 0xFF000000u, 0x80FF4020u, 0x00000000u,
                         0xFF12A0E7u, 0xFF808080u, 0x40C0C0C0u, 0xFF7F0000u};

// The rows of an engine image in its own format, with its palette after them.
std::vector<std::uint8_t> OwnBytes(GpImage* img) {
    UINT w = 0, h = 0;
    PixelFormat f = 0;
    EXPECT_EQ(GdipGetImageWidth(img, &w), OK);
    EXPECT_EQ(GdipGetImageHeight(img, &h), OK);
    EXPECT_EQ(GdipGetImagePixelFormat(img, &f), OK);
    const int stride = ((static_cast<int>(w) * GetPixelFormatSize(f) + 31) / 32) * 4;
    std::vector<std::uint8_t> out(static_cast<std::size_t>(stride) * h);
    GpRect rect{0, 0, static_cast<INT>(w), static_cast<INT>(h)};
    BitmapData d;
    d.Width = w;
    d.Height = h;
    d.Stride = stride;
    d.PixelFormat = f;
    d.Scan0 = out.data();
    EXPECT_EQ(GdipBitmapLockBits(img, &rect, ImageLockModeRead | ImageLockModeUserInputBuf, f, &d),
              OK);
    EXPECT_EQ(GdipBitmapUnlockBits(img, &d), OK);
    INT size = 0;
    if (GdipGetImagePaletteSize(img, &size) == OK && size > 0) {
        std::vector<std::uint8_t> pal(static_cast<std::size_t>(size));
        EXPECT_EQ(GdipGetImagePalette(img, reinterpret_cast<ColorPalette*>(pal.data()), size), OK);
        out.insert(out.end(), pal.begin(), pal.end());
    }
    return out;
}

// The graphics clear that new images and ClearImage went through before.
void GraphicsClear(GpImage* img, ARGB colour) {
    GpGraphics* g = nullptr;
    ASSERT_EQ(GdipGetImageGraphicsContext(img, &g), OK);
    EXPECT_EQ(GdipGraphicsClear(g, colour), OK);
    EXPECT_EQ(GdipDeleteGraphics(g), OK);
}

using ::kestrelyn::test::StatusKb;
using ::kestrelyn::test::UnderSanitizer;

// Peak memory, in kB above the resident memory before, of one call.
template <class F> long PeakOf(F&& f) {
    {
        std::ofstream out("/proc/self/clear_refs");
        out << "5"; // resets VmHWM
    }
    const long before = StatusKb("VmRSS");
    f();
    return StatusKb("VmHWM") - before;
}

} // namespace

// Odd widths leave part of the last byte of a row (1 and 4 bits) unused.
TEST(Fill, NewImagesMatchTheGraphicsClearAtEveryDepth) {
    for (std::int32_t depth : kDepths)
        for (ARGB colour : kColours)
            for (int w : {1, 13, 64}) {
                Imaging im;
                const std::int32_t filled =
                    im.CreateNewImage(w, 5, depth, static_cast<std::int32_t>(colour));
                ASSERT_NE(filled, 0) << depth;
                const std::int32_t reference = im.CreateNewImage(w, 5, depth);
                ASSERT_NE(reference, 0);
                GraphicsClear(ResolveGdiPlusImage(reference), colour);
                EXPECT_EQ(OwnBytes(ResolveGdiPlusImage(filled)),
                          OwnBytes(ResolveGdiPlusImage(reference)))
                    << "depth " << depth << " colour " << std::hex << colour << " width "
                    << std::dec << w;
                // Only a fill marks the image (a fresh buffer is already black).
                EXPECT_EQ(FindImageRecord(filled)->bModified, colour != 0xFF000000u || depth >= 32);
                im.CloseImage(filled);
                im.CloseImage(reference);
            }
}

// ClearImage over pixels that are already there, on a clone that shares them
// (the clone must keep its pixels).
TEST(Fill, ClearImageMatchesTheGraphicsClearOverContent) {
    for (std::int32_t depth : kDepths)
        for (ARGB colour : kColours) {
            Imaging im;
            const std::int32_t id = im.CreateNewImage(11, 7, depth);
            ASSERT_NE(id, 0);
            for (int i = 0; i < 30; ++i)
                im.PixelSetColor(i % 11, i % 7, 0xFF000000u | (0x2F6B9Du * (i + 1)));
            const std::int32_t copy = im.CreateClonedImage(id);
            const std::int32_t reference = im.CreateClonedImage(id);
            const auto original = OwnBytes(ResolveGdiPlusImage(copy));
            GraphicsClear(ResolveGdiPlusImage(reference), colour);
            im.SetNativeImage(id);
            ClearImageModified(id);
            EXPECT_EQ(im.ClearImage(static_cast<std::int32_t>(colour)), OK);
            EXPECT_TRUE(FindImageRecord(id)->bModified);
            EXPECT_EQ(OwnBytes(ResolveGdiPlusImage(id)), OwnBytes(ResolveGdiPlusImage(reference)))
                << "depth " << depth << " colour " << std::hex << colour;
            EXPECT_EQ(OwnBytes(ResolveGdiPlusImage(copy)), original);
            for (std::int32_t x : {id, copy, reference})
                im.CloseImage(x);
        }
}

TEST(Fill, StatusesOfClearAndFill) {
    Imaging im;
    EXPECT_EQ(im.ClearImage(0), GenericError); // no native image
    EXPECT_EQ(GdipBitmapFillColor(nullptr, 0), InvalidParameter);
    const std::int32_t id = im.CreateNewImage(4, 4, 24);
    GpImage* img = ResolveGdiPlusImage(id);
    GpRect rect{0, 0, 4, 4};
    BitmapData d;
    ASSERT_EQ(GdipBitmapLockBits(img, &rect, ImageLockModeRead, PixelFormat24bppRGB, &d), OK);
    EXPECT_EQ(GdipBitmapFillColor(img, 0xFFFFFFFFu), WrongState);
    EXPECT_EQ(im.ClearImage(-1), WrongState);
    ASSERT_EQ(GdipBitmapUnlockBits(img, &d), OK);
    EXPECT_EQ(im.ClearImage(-1), OK);
    EXPECT_EQ(im.PixelGetColor(3, 3), 0xFFFFFFFFu);
}

// A white 24-bit image and a white 1-bit page cost their own pixels and
// little more (a graphics clear cost two 32-bit copies beside them).
TEST(Fill, NewImagesPeakNearTheirOwnSize) {
    if (UnderSanitizer()) GTEST_SKIP() << "a sanitizer's allocator keeps freed memory";
    Imaging im;
    std::int32_t rgb = 0, page = 0;
    const long rgbKb = PeakOf([&] { rgb = im.CreateNewImage(4000, 3000, 24, -1); });
    ASSERT_NE(rgb, 0);
    EXPECT_EQ(im.PixelGetColor(3999, 2999), 0xFFFFFFFFu);
    EXPECT_LT(rgbKb, 36000 + 4096) << "kB for 36000 kB of pixels";
    im.CloseImage(rgb);
    const long pageKb = PeakOf([&] { page = im.CreateNewImage(8000, 8000, 1, -1); });
    ASSERT_NE(page, 0);
    EXPECT_EQ(im.PixelGetColor(7999, 7999), 0xFFFFFFFFu);
    EXPECT_LT(pageKb, 7813 + 4096) << "kB for 7813 kB of pixels";
    im.CloseImage(page);
}

} // namespace kestrelyn::test
