// Conversion between pixel formats: lossless round trips, known values of the
// lossy pairs, sub-byte bit order and area clones at odd offsets.
#include <gtest/gtest.h>

#include <algorithm>

#include "engine_test_util.h"

using namespace kestrelyn;
using namespace kestrelyn::enginetest;

namespace {

const PixelFormat kAll[] = {
    PixelFormat1bppIndexed,    PixelFormat4bppIndexed, PixelFormat8bppIndexed,
    PixelFormat16bppGrayScale, PixelFormat16bppRGB555, PixelFormat16bppRGB565,
    PixelFormat16bppARGB1555,  PixelFormat24bppRGB,    PixelFormat32bppRGB,
    PixelFormat32bppARGB,      PixelFormat32bppPARGB,  PixelFormat48bppRGB,
    PixelFormat64bppARGB,      PixelFormat64bpppARGB};

// ARGB pixels that every format holds exactly: opaque, drawn from the
// default palette's colours shared by 1, 4 and 8 bits (black and white) for
// the indexed formats, and grey levels that survive 5-bit channels.
std::vector<std::uint32_t> ExactPixels(PixelFormat f) {
    if (f == PixelFormat1bppIndexed)
        return {0xFF000000, 0xFFFFFFFF, 0xFFFFFFFF, 0xFF000000, 0xFF000000, 0xFFFFFFFF};
    if (f == PixelFormat4bppIndexed || f == PixelFormat8bppIndexed)
        return {0xFF000000, 0xFF800000, 0xFF008080, 0xFFC0C0C0, 0xFFFFFF00, 0xFFFFFFFF};
    if (f == PixelFormat16bppGrayScale)
        return {0xFF000000, 0xFF010101, 0xFF7F7F7F, 0xFF808080, 0xFFFEFEFE, 0xFFFFFFFF};
    if (f == PixelFormat16bppRGB555 || f == PixelFormat16bppARGB1555)
        return {0xFF000000, 0xFF084210, 0xFFFF0000, 0xFF00FF00, 0xFF0000FF, 0xFFFFFFFF};
    if (f == PixelFormat16bppRGB565)
        return {0xFF000000, 0xFF084110, 0xFFFF0000, 0xFF00FF00, 0xFF0000FF, 0xFFFFFFFF};
    if (IsAlphaPixelFormat(f) && f != PixelFormat32bppPARGB && f != PixelFormat64bpppARGB)
        return {0x00000000, 0x01020304, 0x80FF7F01, 0xFF123456, 0x7FABCDEF, 0xFFFFFFFF};
    return {0xFF000000, 0xFF010203, 0xFF80FF7F, 0xFF123456, 0xFFABCDEF, 0xFFFFFFFF};
}

} // namespace

// ARGB -> format -> ARGB gives the same pixels for values the format holds.
TEST(EngineConvert, ArgbThroughEveryFormatIsExactForHeldValues) {
    for (PixelFormat f : kAll) {
        SCOPED_TRACE(f);
        Bmp img(3, 2, f);
        auto px = ExactPixels(f);
        SetArgb(img, px);
        EXPECT_EQ(ArgbOf(img), px);
    }
}

// Every pair: format A -> format B -> A is exact when B holds all of A's
// values (indexed pairs share black and white; wide pairs keep 16 bits).
TEST(EngineConvert, MatrixOfPairsRoundTripsRawPixels) {
    for (PixelFormat a : kAll) {
        for (PixelFormat b : kAll) {
            SCOPED_TRACE(::testing::Message() << a << " via " << b);
            auto px = ExactPixels(a);
            auto pxb = ExactPixels(b);
            // Use only the values that both formats hold.
            std::vector<std::uint32_t> both;
            for (auto v : px)
                if (std::find(pxb.begin(), pxb.end(), v) != pxb.end()) both.push_back(v);
            if (both.empty()) continue;
            while (both.size() < 6)
                both.push_back(both[both.size() % both.size()]);
            Bmp src(3, 2, a);
            SetArgb(src, both);
            auto raw = RawOf(src);
            GpBitmap* mid = nullptr;
            ASSERT_EQ(GdipCloneBitmapAreaI(0, 0, 3, 2, b, src, &mid), OK);
            Bmp m(mid);
            GpBitmap* back = nullptr;
            ASSERT_EQ(GdipCloneBitmapAreaI(0, 0, 3, 2, a, m, &back), OK);
            Bmp bk(back);
            EXPECT_EQ(ArgbOf(bk), both);
        }
    }
}

TEST(EngineConvert, WidePairsKeepSixteenBits) {
    Bmp w48(2, 1, PixelFormat48bppRGB);
    std::vector<std::uint8_t> raw(16, 0);
    const std::uint16_t vals[6] = {0x1234, 0xFFFE, 0x0001, 0x8000, 0x7FFF, 0xABCD};
    std::memcpy(raw.data(), vals, 12);
    SetRaw(w48, raw);
    GpBitmap* mid = nullptr;
    ASSERT_EQ(GdipCloneBitmapAreaI(0, 0, 2, 1, PixelFormat64bppARGB, w48, &mid), OK);
    Bmp m(mid);
    auto r64 = RawOf(m);
    std::uint16_t a0 = 0;
    std::memcpy(&a0, r64.data() + 6, 2);
    EXPECT_EQ(a0, 0xFFFF);
    GpBitmap* back = nullptr;
    ASSERT_EQ(GdipCloneBitmapAreaI(0, 0, 2, 1, PixelFormat48bppRGB, m, &back), OK);
    Bmp bk(back);
    EXPECT_EQ(RawOf(bk), raw);
    // 16-bit to 8-bit rounds: 0x1234 = 4660 -> 18, 0xFFFE -> 255, 0x8000 -> 128.
    auto argb = ArgbOf(w48);
    EXPECT_EQ(argb[0], 0xFF00FF12u);
    EXPECT_EQ(argb[1], 0xFFAB7F80u); // 0x8000 -> 128, 0x7FFF -> 127, 0xABCD -> 171
}

TEST(EngineConvert, KnownValuesOfLossyPairs) {
    struct Case {
        PixelFormat f;
        ARGB in;
        ARGB out;
    };
    const Case cases[] = {
        {PixelFormat16bppRGB555, 0xFF123456, 0xFF103152},
        {PixelFormat16bppRGB565, 0xFF123456, 0xFF103452},
        {PixelFormat16bppARGB1555, 0x7F123456, 0x00103152},
        {PixelFormat16bppARGB1555, 0x80123456, 0xFF103152},
        {PixelFormat16bppGrayScale, 0xFF102030, 0xFF1D1D1D}, // luma 29
        {PixelFormat24bppRGB, 0x40ABCDEF, 0xFFABCDEF},
        {PixelFormat32bppRGB, 0x00ABCDEF, 0xFFABCDEF},
        {PixelFormat32bppPARGB, 0x80FF4020, 0x80FF4020},
        {PixelFormat32bppPARGB, 0x02FF0180, 0x02FF0080}, // premultiplied 2, 0, 1
        {PixelFormat32bppPARGB, 0x00FFFFFF, 0x00000000},
        {PixelFormat1bppIndexed, 0xFF808080, 0xFFFFFFFF},
        {PixelFormat1bppIndexed, 0xFF7F7F7F, 0xFF000000},
        {PixelFormat8bppIndexed, 0xFF343234, 0xFF333333},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.f << " " << std::hex << c.in);
        Bmp b(1, 1, c.f);
        SetArgb(b, {c.in});
        EXPECT_EQ(ArgbOf(b)[0], c.out);
    }
    // The stored bits themselves.
    Bmp p(1, 1, PixelFormat32bppPARGB);
    SetArgb(p, {0x80FF4020});
    EXPECT_EQ(RawOf(p), (std::vector<std::uint8_t>{0x10, 0x20, 0x80, 0x80}));
    Bmp g(1, 1, PixelFormat16bppGrayScale);
    SetArgb(g, {0xFF102030});
    auto gr = RawOf(g);
    EXPECT_EQ(gr[0] | (gr[1] << 8), 29 * 257);
    Bmp w(1, 1, PixelFormat48bppRGB);
    SetArgb(w, {0xFF010203});
    auto wr = RawOf(w);
    EXPECT_EQ(wr[0] | (wr[1] << 8), 3 * 257);
    EXPECT_EQ(wr[4] | (wr[5] << 8), 257);
    Bmp c565(1, 1, PixelFormat16bppRGB565);
    SetArgb(c565, {0xFF123456});
    auto cr = RawOf(c565);
    EXPECT_EQ(cr[0] | (cr[1] << 8), 4522);
}

TEST(EngineConvert, NearestPaletteEntryLowestIndexWinsTies) {
    Bmp b(3, 1, PixelFormat8bppIndexed);
    SetPalette(b, {0xFF0000FF, 0xFFFF0000, 0xFFFF0000, 0xFF00FF00});
    SetArgb(b, {0xFFF00000, 0xFF00FF00, 0xFF0000FE});
    auto raw = RawOf(b);
    EXPECT_EQ(raw[0], 1);
    EXPECT_EQ(raw[1], 3);
    EXPECT_EQ(raw[2], 0);
}

TEST(EngineConvert, SubByteBitOrder) {
    Bmp one(10, 1, PixelFormat1bppIndexed);
    SetRaw(one, {0xA0, 0x40, 0x00, 0x00});
    auto px = ArgbOf(one);
    const ARGB W = 0xFFFFFFFF, K = 0xFF000000;
    EXPECT_EQ(px, (std::vector<std::uint32_t>{W, K, W, K, K, K, K, K, K, W}));

    Bmp four(3, 1, PixelFormat4bppIndexed);
    std::vector<std::uint8_t> raw(16, 0);
    raw[0] = 0x1F;
    raw[1] = 0x90;
    SetRaw(four, raw);
    EXPECT_EQ(ArgbOf(four), (std::vector<std::uint32_t>{0xFF800000, 0xFFFFFFFF, 0xFFFF0000}));
    // Packing: write white at pixel 9 of a 1bpp row through ARGB.
    Bmp one2(10, 1, PixelFormat1bppIndexed);
    std::vector<std::uint32_t> argb(10, K);
    argb[0] = W;
    argb[9] = W;
    SetArgb(one2, argb);
    auto r = RawOf(one2);
    EXPECT_EQ(r[0], 0x80);
    EXPECT_EQ(r[1], 0x40);
}

TEST(EngineConvert, CloneAreaAtOddOffsetsIsBitExact) {
    // 1 bit: a 21 x 2 pattern, clone columns 3..15.
    Bmp one(21, 2, PixelFormat1bppIndexed);
    SetRaw(one, {0b10110011, 0b10001111, 0b01010000, 0, 0b01101100, 0b00110101, 0b11111000, 0});
    GpBitmap* a = nullptr;
    ASSERT_EQ(GdipCloneBitmapAreaI(3, 0, 13, 2, PixelFormat1bppIndexed, one, &a), OK);
    Bmp area(a);
    // Row 0 bits from 3: 1 0 0 1 1 1 0 0 0 1 1 1 1 ; row 1: 0 1 1 0 0 0 0 1 1 0 1 0 1
    EXPECT_EQ(RawOf(area), (std::vector<std::uint8_t>{0b10011100, 0b01111000, 0, 0, 0b01100001,
                                                      0b10101000, 0, 0}));
    // The same rectangle read through an unaligned lock of the own format.
    EXPECT_EQ(ReadAs(one, PixelFormat1bppIndexed, 4, GpRect{3, 1, 13, 1}),
              (std::vector<std::uint8_t>{0b01100001, 0b10101000, 0, 0}));
    // Writing back at an odd offset leaves the neighbouring bits alone.
    WriteAs(one, PixelFormat1bppIndexed, 4, GpRect{5, 0, 3, 1}, {0b01000000, 0, 0, 0});
    EXPECT_EQ(RawOf(one)[0], 0b10110010);

    // 4 bit: odd start column.
    Bmp four(5, 1, PixelFormat4bppIndexed);
    std::vector<std::uint8_t> raw(16, 0);
    raw[0] = 0x12;
    raw[1] = 0x34;
    raw[2] = 0x50;
    SetRaw(four, raw);
    GpBitmap* f = nullptr;
    ASSERT_EQ(GdipCloneBitmapAreaI(1, 0, 3, 1, PixelFormat4bppIndexed, four, &f), OK);
    Bmp farea(f);
    auto fr = RawOf(farea);
    EXPECT_EQ(fr[0], 0x23);
    EXPECT_EQ(fr[1], 0x40);
    EXPECT_EQ(PaletteOf(farea), PaletteOf(four));
}

TEST(EngineConvert, CloneAreaIntoAnotherFormat) {
    Bmp b(4, 2, PixelFormat8bppIndexed);
    SetRaw(b, {0, 9, 12, 15, 0, 0, 0, 0});
    GpBitmap* c = nullptr;
    ASSERT_EQ(GdipCloneBitmapAreaI(1, 0, 3, 1, PixelFormat24bppRGB, b, &c), OK);
    Bmp clone(c);
    PixelFormat f = 0;
    GdipGetImagePixelFormat(clone, &f);
    EXPECT_EQ(f, PixelFormat24bppRGB);
    EXPECT_EQ(ArgbOf(clone), (std::vector<std::uint32_t>{0xFFFF0000, 0xFF0000FF, 0xFFFFFFFF}));
}
