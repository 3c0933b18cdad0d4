// Property items, palettes, flags, frames, graphics contexts and host handles.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include "engine_test_util.h"
#include "platform/linux/engine/EngineGraphics.h"
#include "platform/modGdi32.h"

using namespace kestrelyn;
using namespace kestrelyn::enginetest;

namespace {

void SetProp(GpImage* img, PROPID id, std::uint16_t type, std::vector<std::uint8_t> bytes) {
    PropertyItem it{id, static_cast<std::uint32_t>(bytes.size()), type, bytes.data()};
    ASSERT_EQ(GdipSetPropertyItem(img, &it), OK);
}

std::vector<PROPID> Ids(GpImage* img) {
    UINT n = 0;
    GdipGetPropertyCount(img, &n);
    std::vector<PROPID> ids(n);
    if (n) {
        EXPECT_EQ(GdipGetPropertyIdList(img, n, ids.data()), OK);
    }
    return ids;
}

// cairo is reached through the engine's own copy of the library (the test
// program does not link it itself).
template <class F> F CairoFn(const char* name) {
    void* f = dlsym(RTLD_DEFAULT, name);
    EXPECT_NE(f, nullptr) << name;
    return reinterpret_cast<F>(f);
}

void FillRect(cairo_t* cr, double r, double g, double b, double x, double y, double w, double h) {
    CairoFn<void (*)(cairo_t*, double, double, double)>("cairo_set_source_rgb")(cr, r, g, b);
    CairoFn<void (*)(cairo_t*, double, double, double, double)>("cairo_rectangle")(cr, x, y, w, h);
    CairoFn<void (*)(cairo_t*)>("cairo_fill")(cr);
}

} // namespace

TEST(EngineProperties, InsertionOrderReplaceAndRemove) {
    Bmp b(1, 1, PixelFormat24bppRGB);
    SetProp(b, 0x010F, PropertyTagTypeASCII, {'a', 'b', 0});
    SetProp(b, 0x0110, PropertyTagTypeASCII, {'x', 0});
    SetProp(b, 0x0100, PropertyTagTypeLong, {1, 0, 0, 0});
    EXPECT_EQ(Ids(b), (std::vector<PROPID>{0x010F, 0x0110, 0x0100}));
    // Replacing keeps the position.
    SetProp(b, 0x0110, PropertyTagTypeByte, {9, 8, 7, 6, 5});
    EXPECT_EQ(Ids(b), (std::vector<PROPID>{0x010F, 0x0110, 0x0100}));
    UINT size = 0;
    ASSERT_EQ(GdipGetPropertyItemSize(b, 0x0110, &size), OK);
    EXPECT_EQ(size, sizeof(PropertyItem) + 5);
    std::vector<std::uint8_t> buf(size);
    auto* item = reinterpret_cast<PropertyItem*>(buf.data());
    EXPECT_EQ(GdipGetPropertyItem(b, 0x0110, size - 1, item), InvalidParameter);
    ASSERT_EQ(GdipGetPropertyItem(b, 0x0110, size, item), OK);
    EXPECT_EQ(item->id, 0x0110u);
    EXPECT_EQ(item->type, PropertyTagTypeByte);
    EXPECT_EQ(item->length, 5u);
    EXPECT_EQ(item->value, buf.data() + sizeof(PropertyItem));
    EXPECT_EQ(static_cast<std::uint8_t*>(item->value)[4], 5);
    UINT total = 0, count = 0;
    ASSERT_EQ(GdipGetPropertySize(b, &total, &count), OK);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(total, 3 * sizeof(PropertyItem) + 3 + 5 + 4);
    ASSERT_EQ(GdipRemovePropertyItem(b, 0x010F), OK);
    EXPECT_EQ(GdipRemovePropertyItem(b, 0x010F), PropertyNotFound);
    EXPECT_EQ(GdipGetPropertyItemSize(b, 0x010F, &size), PropertyNotFound);
    SetProp(b, 0x010F, PropertyTagTypeASCII, {0});
    EXPECT_EQ(Ids(b), (std::vector<PROPID>{0x0110, 0x0100, 0x010F}));
    PROPID two[2];
    EXPECT_EQ(GdipGetPropertyIdList(b, 2, two), InvalidParameter);
    // A clone carries the properties.
    GpImage* c = nullptr;
    ASSERT_EQ(GdipCloneImage(b, &c), OK);
    Bmp clone(c);
    EXPECT_EQ(Ids(clone), (std::vector<PROPID>{0x0110, 0x0100, 0x010F}));
}

TEST(EnginePalette, SetGetAndFlags) {
    Bmp b(2, 1, PixelFormat8bppIndexed);
    SetPalette(b, {0xFF000000, 0xFF404040, 0xFF808080}, PaletteFlagsGrayScale);
    EXPECT_EQ(PaletteOf(b), (std::vector<ARGB>{0xFF000000, 0xFF404040, 0xFF808080}));
    INT size = 0;
    GdipGetImagePaletteSize(b, &size);
    EXPECT_EQ(size, 8 + 12);
    std::vector<std::uint8_t> small(8 + 8);
    EXPECT_EQ(GdipGetImagePalette(b, reinterpret_cast<ColorPalette*>(small.data()), 16),
              InvalidParameter);
    UINT flags = 0;
    GdipGetImageFlags(b, &flags);
    EXPECT_TRUE(flags & ImageFlagsColorSpaceGRAY);
    EXPECT_FALSE(flags & ImageFlagsHasAlpha);
    // Too many entries for 1 bit.
    Bmp one(1, 1, PixelFormat1bppIndexed);
    std::vector<std::uint8_t> buf(8 + 12);
    auto* pal = reinterpret_cast<ColorPalette*>(buf.data());
    pal->Flags = 0;
    pal->Count = 3;
    EXPECT_EQ(GdipSetImagePalette(one, pal), InvalidParameter);
    // A colour palette gives the RGB colour space; reading maps through it.
    SetPalette(one, {0xFFFF0000, 0x8000FF00}, PaletteFlagsHasAlpha);
    GdipGetImageFlags(one, &flags);
    EXPECT_TRUE(flags & ImageFlagsColorSpaceRGB);
    EXPECT_TRUE(flags & ImageFlagsHasAlpha);
    SetRaw(one, {0x80, 0, 0, 0});
    ARGB c = 0;
    GdipBitmapGetPixel(one, 0, 0, &c);
    EXPECT_EQ(c, 0x8000FF00u);
}

TEST(EngineFacts, FlagsPerFormatAndResolution) {
    UINT flags = 0;
    GdipGetImageFlags(Bmp(1, 1, PixelFormat32bppARGB), &flags);
    EXPECT_EQ(flags, UINT(ImageFlagsColorSpaceRGB | ImageFlagsHasAlpha));
    GdipGetImageFlags(Bmp(1, 1, PixelFormat24bppRGB), &flags);
    EXPECT_EQ(flags, UINT(ImageFlagsColorSpaceRGB));
    GdipGetImageFlags(Bmp(1, 1, PixelFormat16bppGrayScale), &flags);
    EXPECT_EQ(flags, UINT(ImageFlagsColorSpaceGRAY));
    GdipGetImageFlags(Bmp(1, 1, PixelFormat1bppIndexed), &flags);
    EXPECT_EQ(flags, UINT(ImageFlagsColorSpaceGRAY));
    Bmp b(1, 1, PixelFormat24bppRGB);
    ASSERT_EQ(GdipBitmapSetResolution(b, 300.5f, 72.0f), OK);
    float x = 0;
    GdipGetImageHorizontalResolution(b, &x);
    EXPECT_EQ(x, 300.5f);
    EXPECT_STREQ(GdipGetEngineVersion(), "6.2.0.1");
}

TEST(EngineFrames, SingleImageHasOnePage) {
    Bmp b(1, 1, PixelFormat24bppRGB);
    UINT n = 0;
    ASSERT_EQ(GdipImageGetFrameDimensionsCount(b, &n), OK);
    EXPECT_EQ(n, 1u);
    GUID dim{};
    ASSERT_EQ(GdipImageGetFrameDimensionsList(b, &dim, 1), OK);
    const GUID page = {
        0x7462dc86, 0x6180, 0x4c7e, {0x8e, 0x3f, 0xee, 0x73, 0x33, 0xa7, 0xa4, 0x83}};
    EXPECT_TRUE(dim == page);
    ASSERT_EQ(GdipImageGetFrameCount(b, &page, &n), OK);
    EXPECT_EQ(n, 1u);
    EXPECT_EQ(GdipImageSelectActiveFrame(b, &page, 0), OK);
    EXPECT_EQ(GdipImageSelectActiveFrame(b, &page, 1), InvalidParameter);
}

TEST(EngineGraphics, ClearIsExactOn32BitAndNearestOnIndexed) {
    Bmp argb(3, 2, PixelFormat32bppARGB);
    GpGraphics* g = nullptr;
    ASSERT_EQ(GdipGetImageGraphicsContext(argb, &g), OK);
    ASSERT_EQ(GdipGraphicsClear(g, 0x01020304), OK);
    ASSERT_EQ(GdipDeleteGraphics(g), OK);
    EXPECT_EQ(ArgbOf(argb), std::vector<std::uint32_t>(6, 0x01020304u));

    Bmp idx(3, 2, PixelFormat8bppIndexed);
    SetPalette(idx, {0xFF000000, 0xFFFF0000, 0xFF0000FF});
    SetRaw(idx, {2, 2, 2, 0, 2, 2, 2, 0});
    ASSERT_EQ(GdipGetImageGraphicsContext(idx, &g), OK);
    ASSERT_EQ(GdipGraphicsClear(g, 0xFFE01010), OK);
    ASSERT_EQ(GdipDeleteGraphics(g), OK);
    auto raw = RawOf(idx);
    EXPECT_EQ(raw[0], 1);
    EXPECT_EQ(raw[5], 1);
}

TEST(EngineGraphics, DrawingThroughTheDeviceContextReachesTheImage) {
    Bmp idx(4, 4, PixelFormat1bppIndexed);
    GpGraphics* g = nullptr;
    ASSERT_EQ(GdipGetImageGraphicsContext(idx, &g), OK);
    HDC dc = 0, dc2 = 0;
    ASSERT_EQ(GdipGetDC(g, &dc), OK);
    EXPECT_EQ(GdipGetDC(g, &dc2), ObjectBusy);
    cairo_t* cr = engine::CairoFromHDC(dc);
    ASSERT_NE(cr, nullptr);
    FillRect(cr, 1, 1, 1, 2, 0, 2, 4);
    ASSERT_EQ(GdipReleaseDC(g, dc), OK);
    EXPECT_EQ(engine::CairoFromHDC(dc), nullptr);
    ASSERT_EQ(GdipDeleteGraphics(g), OK);
    auto raw = RawOf(idx);
    for (int y = 0; y < 4; ++y)
        EXPECT_EQ(raw[y * 4], 0x30) << y;

    // Direct drawing on a premultiplied bitmap.
    Bmp p(2, 1, PixelFormat32bppPARGB);
    ASSERT_EQ(GdipGetImageGraphicsContext(p, &g), OK);
    FillRect(g->cr, 1, 0, 0, 1, 0, 1, 1);
    ASSERT_EQ(GdipDeleteGraphics(g), OK);
    EXPECT_EQ(ArgbOf(p), (std::vector<std::uint32_t>{0, 0xFFFF0000}));
}

TEST(EngineHost, HbitmapAndIconRoundTrips) {
    Bmp b(2, 1, PixelFormat32bppARGB);
    SetArgb(b, {0xFF102030, 0x80FF0000});
    HBITMAP hb = 0;
    ASSERT_EQ(GdipCreateHBITMAPFromBitmap(b, &hb, 0xFF0000FF), OK);
    const HostBitmap* host = HostGetBitmap(hb);
    ASSERT_NE(host, nullptr);
    // Half-transparent red over opaque blue.
    EXPECT_EQ(host->arPixels[0], 0xFF102030u);
    EXPECT_EQ(host->arPixels[1], 0xFF80007Fu);
    GpBitmap* back = nullptr;
    ASSERT_EQ(GdipCreateBitmapFromHBITMAP(hb, 0, &back), OK);
    Bmp bk(back);
    PixelFormat f = 0;
    GdipGetImagePixelFormat(bk, &f);
    EXPECT_EQ(f, PixelFormat32bppRGB);
    EXPECT_EQ(ArgbOf(bk), (std::vector<std::uint32_t>{0xFF102030, 0xFF80007F}));
    EXPECT_FALSE(DestroyIcon(hb));
    EXPECT_TRUE(DeleteObject(hb));
    EXPECT_FALSE(DeleteObject(hb));
    GpBitmap* none = nullptr;
    EXPECT_EQ(GdipCreateBitmapFromHBITMAP(hb, 0, &none), InvalidParameter);

    HICON hi = 0;
    ASSERT_EQ(GdipCreateHICONFromBitmap(b, &hi), OK);
    GpBitmap* ib = nullptr;
    ASSERT_EQ(GdipCreateBitmapFromHICON(hi, &ib), OK);
    Bmp icon(ib);
    EXPECT_EQ(ArgbOf(icon), (std::vector<std::uint32_t>{0xFF102030, 0x80FF0000}));
    EXPECT_TRUE(DestroyIcon(hi));
}

TEST(EngineHost, DibImport) {
    // 8 bits, bottom-up, 3 x 2, two colours in the table.
    std::vector<std::uint8_t> info(40 + 8, 0);
    BITMAPINFOHEADER h;
    h.biWidth = 3;
    h.biHeight = 2;
    h.biBitCount = 8;
    h.biClrUsed = 2;
    h.biXPelsPerMeter = 3780;
    h.biYPelsPerMeter = 3780;
    std::memcpy(info.data(), &h, 40);
    const RGBQUAD q[2] = {{0x30, 0x20, 0x10, 0}, {0xFF, 0x00, 0x00, 0}};
    std::memcpy(info.data() + 40, q, 8);
    std::vector<std::uint8_t> rows = {1, 1, 0, 0, /* bottom row */ 0, 1, 0, 0 /* top row */};
    GpBitmap* raw = nullptr;
    ASSERT_EQ(GdipCreateBitmapFromGdiDib(info.data(), rows.data(), &raw), OK);
    Bmp b(raw);
    EXPECT_EQ(PaletteOf(b), (std::vector<ARGB>{0xFF102030, 0xFF0000FF}));
    EXPECT_EQ(ArgbOf(b), (std::vector<std::uint32_t>{0xFF102030, 0xFF0000FF, 0xFF102030, 0xFF0000FF,
                                                     0xFF0000FF, 0xFF102030}));
    float dpi = 0;
    GdipGetImageHorizontalResolution(b, &dpi);
    EXPECT_NEAR(dpi, 3780 * 0.0254f, 0.001f);

    // 24 bits, top-down (negative height), 1 x 2.
    h.biBitCount = 24;
    h.biWidth = 1;
    h.biHeight = -2;
    h.biClrUsed = 0;
    std::memcpy(info.data(), &h, 40);
    std::vector<std::uint8_t> rgb = {1, 2, 3, 0, 4, 5, 6, 0};
    ASSERT_EQ(GdipCreateBitmapFromGdiDib(info.data(), rgb.data(), &raw), OK);
    Bmp c(raw);
    EXPECT_EQ(ArgbOf(c), (std::vector<std::uint32_t>{0xFF030201, 0xFF060504}));
    h.biBitCount = 7;
    std::memcpy(info.data(), &h, 40);
    EXPECT_EQ(GdipCreateBitmapFromGdiDib(info.data(), rgb.data(), &raw), InvalidParameter);
}
