// Bitmap creation, stride rule, caller memory, copy-on-write clones, locks.
#include <gtest/gtest.h>

#include "engine_test_util.h"

using namespace kestrelyn;
using namespace kestrelyn::enginetest;

namespace {

INT StrideOfNew(INT width, PixelFormat f) {
    Bmp b(width, 1, f);
    INT stride = 0;
    RawOf(b, &stride);
    return stride;
}

} // namespace

TEST(EngineStride, FollowsTheRuleForEveryDepth) {
    EXPECT_EQ(StrideOfNew(1, PixelFormat1bppIndexed), 4);
    EXPECT_EQ(StrideOfNew(32, PixelFormat1bppIndexed), 4);
    EXPECT_EQ(StrideOfNew(33, PixelFormat1bppIndexed), 8);
    EXPECT_EQ(StrideOfNew(1, PixelFormat4bppIndexed), 16);
    EXPECT_EQ(StrideOfNew(33, PixelFormat4bppIndexed), 32);
    EXPECT_EQ(StrideOfNew(5, PixelFormat8bppIndexed), 8);
    EXPECT_EQ(StrideOfNew(1, PixelFormat16bppRGB565), 4);
    EXPECT_EQ(StrideOfNew(2, PixelFormat16bppGrayScale), 4);
    EXPECT_EQ(StrideOfNew(3, PixelFormat16bppARGB1555), 8);
    EXPECT_EQ(StrideOfNew(1, PixelFormat24bppRGB), 4);
    EXPECT_EQ(StrideOfNew(5, PixelFormat24bppRGB), 16);
    EXPECT_EQ(StrideOfNew(3, PixelFormat32bppPARGB), 12);
    // 48 bits: bits 1 and 2 cleared, so width 2 gives 16 and not 12.
    EXPECT_EQ(StrideOfNew(1, PixelFormat48bppRGB), 8);
    EXPECT_EQ(StrideOfNew(2, PixelFormat48bppRGB), 16);
    EXPECT_EQ(StrideOfNew(3, PixelFormat48bppRGB), 24);
    EXPECT_EQ(StrideOfNew(3, PixelFormat64bpppARGB), 24);
}

TEST(EngineBitmap, NewBitmapIsZeroedWithFactsAndDefaultPalette) {
    Bmp b(5, 3, PixelFormat24bppRGB);
    for (std::uint8_t v : RawOf(b))
        ASSERT_EQ(v, 0);
    UINT w = 0, h = 0;
    float dx = 0, dy = 0;
    GUID raw{};
    EXPECT_EQ(GdipGetImageWidth(b, &w), OK);
    EXPECT_EQ(GdipGetImageHeight(b, &h), OK);
    EXPECT_EQ(w, 5u);
    EXPECT_EQ(h, 3u);
    GdipGetImageHorizontalResolution(b, &dx);
    GdipGetImageVerticalResolution(b, &dy);
    EXPECT_EQ(dx, 96.0f);
    EXPECT_EQ(dy, 96.0f);
    EXPECT_EQ(GdipGetImageRawFormat(b, &raw), OK);
    const GUID memoryBmp = {
        0xb96b3caa, 0x0728, 0x11d3, {0x9d, 0x7b, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
    EXPECT_TRUE(raw == memoryBmp);

    Bmp one(2, 2, PixelFormat1bppIndexed);
    EXPECT_EQ(PaletteOf(one), (std::vector<ARGB>{0xFF000000u, 0xFFFFFFFFu}));
    INT size = 0;
    GdipGetImagePaletteSize(one, &size);
    EXPECT_EQ(size, 16);
    EXPECT_EQ(PaletteOf(Bmp(1, 1, PixelFormat4bppIndexed)).size(), 16u);
    auto p8 = PaletteOf(Bmp(1, 1, PixelFormat8bppIndexed));
    ASSERT_EQ(p8.size(), 256u);
    EXPECT_EQ(p8[59], 0xFF333333u); // colour cube entry (1, 1, 1)
}

TEST(EngineBitmap, BadArgumentsGiveInvalidParameter) {
    GpBitmap* b = nullptr;
    EXPECT_EQ(GdipCreateBitmapFromScan0(0, 1, 0, PixelFormat24bppRGB, nullptr, &b),
              InvalidParameter);
    EXPECT_EQ(GdipCreateBitmapFromScan0(1, -1, 0, PixelFormat24bppRGB, nullptr, &b),
              InvalidParameter);
    EXPECT_EQ(GdipCreateBitmapFromScan0(1, 1, 0, 12345, nullptr, &b), InvalidParameter);
    std::uint8_t mem[16];
    EXPECT_EQ(GdipCreateBitmapFromScan0(4, 1, 8, PixelFormat24bppRGB, mem, &b), InvalidParameter);
    EXPECT_EQ(GdipCreateBitmapFromScan0(1, 1, 0, PixelFormat24bppRGB, nullptr, nullptr),
              InvalidParameter);
    EXPECT_EQ(GdipDisposeImage(nullptr), InvalidParameter);
    Bmp ok(4, 4, PixelFormat32bppARGB);
    ARGB c = 0;
    EXPECT_EQ(GdipBitmapGetPixel(ok, 4, 0, &c), InvalidParameter);
    EXPECT_EQ(GdipBitmapSetPixel(ok, -1, 0, 0), InvalidParameter);
    EXPECT_EQ(GdipBitmapSetResolution(ok, 0.0f, 72.0f), InvalidParameter);
    EXPECT_EQ(GdipImageRotateFlip(ok, static_cast<RotateFlipType>(8)), InvalidParameter);
    GpBitmap* area = nullptr;
    EXPECT_EQ(GdipCloneBitmapAreaI(2, 2, 3, 1, PixelFormat32bppARGB, ok, &area), InvalidParameter);
    // SetPixel on an indexed bitmap is refused.
    Bmp idx(2, 2, PixelFormat8bppIndexed);
    EXPECT_EQ(GdipBitmapSetPixel(idx, 0, 0, 0xFFFFFFFF), InvalidParameter);
}

TEST(EngineBitmap, CallerMemoryIsWrappedWithoutCopy) {
    std::vector<std::uint8_t> mem(8 * 2, 0);
    GpBitmap* raw = nullptr;
    ASSERT_EQ(GdipCreateBitmapFromScan0(2, 2, 8, PixelFormat32bppARGB, mem.data(), &raw), OK);
    Bmp b(raw);
    ASSERT_EQ(GdipBitmapSetPixel(b, 1, 1, 0x11223344), OK);
    EXPECT_EQ(mem[12], 0x44);
    EXPECT_EQ(mem[15], 0x11);
    mem[0] = 0x55;
    mem[3] = 0xFF;
    ARGB c = 0;
    GdipBitmapGetPixel(b, 0, 0, &c);
    EXPECT_EQ(c, 0xFF000055u);
    // A read lock in the own format points into the caller's memory.
    BitmapData d;
    ASSERT_EQ(GdipBitmapLockBits(b, nullptr, 1, PixelFormat32bppARGB, &d), OK);
    EXPECT_EQ(d.Scan0, mem.data());
    EXPECT_EQ(d.Stride, 8);
    GdipBitmapUnlockBits(b, &d);
}

TEST(EngineClone, CopyOnWriteKeepsBothSidesIndependent) {
    Bmp src(3, 2, PixelFormat24bppRGB);
    GdipBitmapSetPixel(src, 0, 0, 0xFF102030);
    GpImage* c = nullptr;
    ASSERT_EQ(GdipCloneImage(src, &c), OK);
    Bmp clone(c);
    // Write the clone: the source keeps its pixel.
    GdipBitmapSetPixel(clone, 0, 0, 0xFFFFFFFF);
    ARGB v = 0;
    GdipBitmapGetPixel(src, 0, 0, &v);
    EXPECT_EQ(v, 0xFF102030u);
    GdipBitmapGetPixel(clone, 0, 0, &v);
    EXPECT_EQ(v, 0xFFFFFFFFu);

    // Write the source through a lock: a second clone keeps the old pixel.
    GpImage* c2 = nullptr;
    ASSERT_EQ(GdipCloneImage(src, &c2), OK);
    Bmp clone2(c2);
    WriteAs(src, PixelFormat32bppARGB, 4, GpRect{0, 0, 1, 1}, {0x01, 0x02, 0x03, 0xFF});
    GdipBitmapGetPixel(src, 0, 0, &v);
    EXPECT_EQ(v, 0xFF030201u);
    GdipBitmapGetPixel(clone2, 0, 0, &v);
    EXPECT_EQ(v, 0xFF102030u);
}

TEST(EngineClone, CloneSurvivesSourceAndCopiesCallerMemory) {
    std::vector<std::uint8_t> mem(4, 0);
    mem[0] = 7;
    GpBitmap* raw = nullptr;
    ASSERT_EQ(GdipCreateBitmapFromScan0(1, 1, 4, PixelFormat8bppIndexed, mem.data(), &raw), OK);
    GpImage* c = nullptr;
    ASSERT_EQ(GdipCloneImage(raw, &c), OK);
    Bmp clone(c);
    mem[0] = 9; // the caller's buffer changes after the clone was made
    GdipDisposeImage(raw);
    EXPECT_EQ(RawOf(clone)[0], 7);
}

TEST(EngineLock, StatesAndRegions) {
    Bmp b(4, 3, PixelFormat24bppRGB);
    BitmapData d, d2;
    GpRect outside{2, 1, 3, 2};
    EXPECT_EQ(GdipBitmapLockBits(b, &outside, 1, PixelFormat24bppRGB, &d), InvalidParameter);
    GpRect neg{-1, 0, 2, 2};
    EXPECT_EQ(GdipBitmapLockBits(b, &neg, 1, PixelFormat24bppRGB, &d), InvalidParameter);
    GpRect empty{0, 0, 0, 1};
    EXPECT_EQ(GdipBitmapLockBits(b, &empty, 1, PixelFormat24bppRGB, &d), InvalidParameter);
    EXPECT_EQ(GdipBitmapLockBits(b, nullptr, 0, PixelFormat24bppRGB, &d), InvalidParameter);
    EXPECT_EQ(GdipBitmapLockBits(b, nullptr, 1, 77, &d), InvalidParameter);
    EXPECT_EQ(GdipBitmapUnlockBits(b, &d), WrongState);
    ASSERT_EQ(GdipBitmapLockBits(b, nullptr, 3, PixelFormat32bppARGB, &d), OK);
    EXPECT_EQ(d.Width, 4u);
    EXPECT_EQ(d.Height, 3u);
    EXPECT_EQ(d.Stride, 16);
    EXPECT_EQ(d.PixelFormat, PixelFormat32bppARGB);
    EXPECT_EQ(GdipBitmapLockBits(b, nullptr, 1, PixelFormat32bppARGB, &d2), WrongState);
    ARGB c;
    EXPECT_EQ(GdipBitmapGetPixel(b, 0, 0, &c), WrongState);
    // A converted lock writes back at unlock.
    auto* px = static_cast<std::uint32_t*>(d.Scan0);
    px[1 * 4 + 2] = 0x80AABBCC; // alpha dropped by 24 bits
    ASSERT_EQ(GdipBitmapUnlockBits(b, &d), OK);
    GdipBitmapGetPixel(b, 2, 1, &c);
    EXPECT_EQ(c, 0xFFAABBCCu);
}

TEST(EngineLock, UserBufferWriteTakesEffectAtUnlock) {
    Bmp b(3, 2, PixelFormat32bppRGB);
    std::vector<std::uint32_t> buf(2 * 2, 0xFF0000FFu);
    BitmapData d;
    d.Width = 2;
    d.Height = 2;
    d.Stride = 8;
    d.PixelFormat = PixelFormat32bppARGB;
    d.Scan0 = buf.data();
    GpRect r{1, 0, 2, 2};
    ASSERT_EQ(GdipBitmapLockBits(b, &r, 6, PixelFormat32bppARGB, &d), OK);
    buf[3] = 0xFF00FF00u; // changed after the lock, before the unlock
    ASSERT_EQ(GdipBitmapUnlockBits(b, &d), OK);
    auto argb = ArgbOf(b);
    EXPECT_EQ(argb, (std::vector<std::uint32_t>{0xFF000000u, 0xFF0000FFu, 0xFF0000FFu, 0xFF000000u,
                                                0xFF0000FFu, 0xFF00FF00u}));
}

TEST(EngineLock, EightBitUserBufferWithUnpaddedStride) {
    // A 5-wide zone written as indices with a stride of 5 bytes.
    Bmp b(6, 2, PixelFormat8bppIndexed);
    std::vector<std::uint8_t> zone = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    WriteAs(b, PixelFormat8bppIndexed, 5, GpRect{1, 0, 5, 2}, zone);
    auto raw = RawOf(b);
    EXPECT_EQ(std::vector<std::uint8_t>(raw.begin(), raw.begin() + 6),
              (std::vector<std::uint8_t>{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(std::vector<std::uint8_t>(raw.begin() + 8, raw.begin() + 14),
              (std::vector<std::uint8_t>{0, 6, 7, 8, 9, 10}));
    EXPECT_EQ(ReadAs(b, PixelFormat8bppIndexed, 5, GpRect{1, 0, 5, 2}), zone);
}
