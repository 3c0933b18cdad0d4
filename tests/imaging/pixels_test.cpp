// Pixel arrays, facts, resolutions, DIBs, device contexts, the clipboard and
// the host layer's memory, pictures, streams and versions.
#include <cstring>

#include "platform/modGdi32.h"
#include "platform/modWinapi.h"
#include "support/Checkers.h"
#include "support/ImagingTestUtil.h"

namespace kestrelyn::test {
namespace {

TEST(Pixels, ArgbArrayRoundTripOnARectangle) {
    Imaging img;
    img.CreateNewImage(6, 5, 32, 0xFF000000u);
    std::vector<std::int32_t> in = {
        static_cast<std::int32_t>(0xFF112233u), static_cast<std::int32_t>(0xFF445566u),
        static_cast<std::int32_t>(0x80778899u), static_cast<std::int32_t>(0xFFAABBCCu),
        static_cast<std::int32_t>(0xFFDDEEFFu), static_cast<std::int32_t>(0xFF010203u)};
    EXPECT_EQ(img.SetPixelArrayARGB(in, 2, 1, 3, 2), OK);
    EXPECT_EQ(img.PixelGetColor(2, 1), 0xFF112233u);
    EXPECT_EQ(img.PixelGetColor(4, 2), 0xFF010203u);
    EXPECT_EQ(img.PixelGetColor(1, 1), 0xFF000000u); // outside the rectangle

    std::vector<std::int32_t> out; // grows to fit
    EXPECT_EQ(img.GetPixelArrayARGB(out, 2, 1, 3, 2), OK);
    EXPECT_EQ(out, in);
    std::vector<std::int32_t> out1D(100, 7); // large enough: kept as it is
    EXPECT_EQ(img.GetPixelArray1D(out1D, 2, 1, 3, 2), OK);
    EXPECT_EQ(out1D.size(), 100u);
    EXPECT_TRUE(std::equal(in.begin(), in.end(), out1D.begin()));
    EXPECT_EQ(out1D[6], 7);
    EXPECT_EQ(img.GetPixelArrayARGB(out, 4, 4, 3, 2), InvalidParameter); // beyond the image
}

TEST(Pixels, TwoDimensionalArrayIsIndexedColumnFirst) {
    Imaging img;
    img.CreateNewImage(4, 3, 24);
    img.PixelSetColor(3, 0, 0xFFFF0000u);
    img.PixelSetColor(0, 2, 0xFF0000FFu);
    PixelArray2D ar;
    EXPECT_EQ(img.GetPixelArray2D(ar, 0, 0, 4, 3), OK);
    ASSERT_EQ(ar.nColumns, 4);
    ASSERT_EQ(ar.nRows, 3);
    EXPECT_EQ(static_cast<ARGB>(ar.at(3, 0)), 0xFFFF0000u);
    EXPECT_EQ(static_cast<ARGB>(ar.at(0, 2)), 0xFF0000FFu);
    ar.at(1, 1) = static_cast<std::int32_t>(0xFF00FF00u);
    EXPECT_EQ(img.SetPixelArray(ar, 0, 0, 4, 3), OK);
    EXPECT_EQ(img.PixelGetColor(1, 1), 0xFF00FF00u);
    PixelArray2D big(10, 10); // bounds cover the rectangle: kept
    EXPECT_EQ(img.GetPixelArray2D(big, 0, 0, 4, 3), OK);
    EXPECT_EQ(big.nColumns, 10);
    EXPECT_EQ(static_cast<ARGB>(big.at(1, 1)), 0xFF00FF00u);
    EXPECT_EQ(static_cast<ARGB>(big.at(3, 0)), 0xFFFF0000u);
}

TEST(Pixels, ByteArraysUseTheStrideOfTheirFormat) {
    Imaging img;
    img.CreateNewImage(3, 2, 24, 0xFFFFFFFFu);
    std::vector<std::uint8_t> rgb;
    EXPECT_EQ(img.GetPixelArrayBytesRGB(rgb, 0, 0, 3, 2), OK);
    ASSERT_EQ(rgb.size(), 2u * 12u); // 9 bytes padded to a 12-byte row
    rgb[12 + 3 * 2 + 0] = 0x10;      // row 1, pixel 2: blue, green, red
    rgb[12 + 3 * 2 + 1] = 0x20;
    rgb[12 + 3 * 2 + 2] = 0x30;
    EXPECT_EQ(img.SetPixelArrayBytesRGB(rgb, 0, 0, 3, 2), OK);
    EXPECT_EQ(img.PixelGetColor(2, 1), 0xFF302010u);

    std::vector<std::uint8_t> argb;
    EXPECT_EQ(img.GetPixelArrayBytesARGB(argb, 2, 1, 1, 1), OK);
    ASSERT_GE(argb.size(), 4u);
    EXPECT_EQ(argb[0], 0x10);
    EXPECT_EQ(argb[3], 0xFF);
    argb = {1, 2, 3, 255};
    EXPECT_EQ(img.SetPixelArrayBytesARGB(argb, 0, 0, 1, 1), OK);
    EXPECT_EQ(img.PixelGetColor(0, 0), 0xFF030201u);

    std::vector<std::uint8_t> idx;
    EXPECT_EQ(img.GetPixelArray8bpp1D(idx, 0, 0, 3, 2), UnsupportedPixelFormat);
    EXPECT_EQ(img.SetPixelArray8bpp1D(idx, 0, 0, 3, 2), UnsupportedPixelFormat);
}

TEST(Pixels, EightBitIndexArrays) {
    Imaging img;
    img.CreateNewImage(5, 2, 8);
    std::vector<std::uint8_t> idx(16, 0);
    idx[8 + 4] = 3; // row 1 starts at the 8-byte stride
    EXPECT_EQ(img.SetPixelArray8bpp1D(idx, 0, 0, 5, 2), OK);
    std::vector<std::uint8_t> back;
    EXPECT_EQ(img.GetPixelArray8bpp1D(back, 0, 0, 5, 2), OK);
    ASSERT_EQ(back.size(), 16u);
    EXPECT_EQ(back[12], 3);
    EXPECT_EQ(back[4], 0);
}

TEST(Pixels, WriteLocksMarkTheImageModified) {
    Imaging img;
    const std::int32_t id = img.CreateNewImage(2, 2);
    ClearImageModified(id);
    std::vector<std::int32_t> px;
    img.GetPixelArrayARGB(px, 0, 0, 2, 2);
    EXPECT_FALSE(FindImageRecord(id)->bModified);
    img.SetPixelArrayARGB(px, 0, 0, 2, 2);
    EXPECT_TRUE(FindImageRecord(id)->bModified);
    ClearImageModified(id);
    img.PixelSetColor(0, 0, 0);
    EXPECT_TRUE(FindImageRecord(id)->bModified);
}

TEST(Facts, SizesFormatsAndFlags) {
    Imaging img;
    const std::int32_t id = img.CreateNewImage(254, 127, 8);
    EXPECT_EQ(img.SetHorizontalResolution(254.0f), OK);
    EXPECT_EQ(img.SetVerticalResolution(127.0f), OK);
    EXPECT_NEAR(img.GetWidthMM(), 25.4f, 1e-4);
    EXPECT_NEAR(img.GetHeightMM(id), 25.4f, 1e-4);
    EXPECT_TRUE(img.IsPixelFormatIndexed());
    EXPECT_FALSE(img.IsPixelFormatHasAlpha());
    EXPECT_EQ(img.GetPixelFormatString(), "8bppIndexed");
    EXPECT_EQ(img.GetImageFormat(), "Memory BMP");
    EXPECT_EQ(img.GetImageStride(), 256);
    EXPECT_NE(img.GetImageBits(), nullptr);
    EXPECT_EQ(img.GetImageColorSpace(), ImageColorSpaceRGB);
    EXPECT_EQ(img.GetGdiplusImage(), ResolveGdiPlusImage(id));
    const std::int32_t argb = img.CreateNewImage(3, 3, 64);
    EXPECT_TRUE(img.IsPixelFormatHasAlpha(argb));
    EXPECT_EQ(img.GetPixelFormatString(argb), "64bppPARGB");
    EXPECT_EQ(img.GetImageStride(argb), 24);
    EXPECT_EQ(img.GetImageFormat(31337), "");
    EXPECT_EQ(img.GetStat(), InvalidParameter);
}

std::pair<std::uint32_t, std::uint32_t> RationalTag(GpImage* image, PROPID id) {
    UINT size = 0;
    if (GdipGetPropertyItemSize(image, id, &size) != OK) return {0, 0};
    std::vector<std::uint8_t> buffer(size);
    auto* item = reinterpret_cast<PropertyItem*>(buffer.data());
    if (GdipGetPropertyItem(image, id, size, item) != OK || item->length != 8 ||
        item->type != PropertyTagTypeRational)
        return {0, 0};
    std::uint32_t num = 0, den = 0;
    std::memcpy(&num, item->value, 4);
    std::memcpy(&den, static_cast<std::uint8_t*>(item->value) + 4, 4);
    return {num, den};
}

TEST(Facts, ResolutionIsWrittenAsDecimalRational) {
    Imaging img;
    const std::int32_t id = img.CreateNewImage(4, 4);
    EXPECT_EQ(img.SetHorizontalResolution(96.5f), OK);
    EXPECT_FLOAT_EQ(img.GetHorizontalResolution(), 96.5f);
    GpImage* image = img.GetGdiplusImage(id);
    EXPECT_EQ(RationalTag(image, 282), (std::pair<std::uint32_t, std::uint32_t>{965, 10}));
    EXPECT_EQ(RationalTag(image, 283), (std::pair<std::uint32_t, std::uint32_t>{96, 1}));
    EXPECT_EQ(img.SetVerticalResolution(300.25f), OK);
    EXPECT_EQ(RationalTag(image, 283), (std::pair<std::uint32_t, std::uint32_t>{30025, 100}));
    EXPECT_FLOAT_EQ(img.GetHorizontalResolution(), 96.5f);
    EXPECT_EQ(img.SetVerticalResolution(72.0f, 555), InvalidParameter);
}

TEST(Handles, DibRoundTripWithExactHeader) {
    Imaging img;
    const std::int32_t id = img.CreateNewImage(3, 2, 24);
    const ARGB colours[2][3] = {{0xFF102030u, 0xFF405060u, 0xFF708090u},
                                {0xFFA0B0C0u, 0xFFD0E0F0u, 0xFF0A0B0Cu}};
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x)
            img.PixelSetColor(x, y, colours[y][x]);
    img.SetHorizontalResolution(96.0f);
    img.SetVerticalResolution(300.0f);

    HGLOBAL hDib = img.GetDib(id);
    ASSERT_NE(hDib, 0u);
    EXPECT_EQ(GlobalSize(hDib), 40u + 2u * 12u);
    auto* block = static_cast<std::uint8_t*>(GlobalLock(hDib));
    ASSERT_NE(block, nullptr);
    const std::uint8_t expectedHeader[40] = {
        40,   0,    0, 0, 3,    0,    0,  0,
        2,    0,    0, 0, 1,    0,    24, 0, // size, width, height, planes, bits
        0,    0,    0, 0, 24,   0,    0,  0, // BI_RGB, image bytes
        0xC4, 0x0E, 0, 0, 0x23, 0x2E, 0,  0, // 3780 and 11811 pixels per metre
        0,    0,    0, 0, 0,    0,    0,  0};
    EXPECT_EQ(std::memcmp(block, expectedHeader, 40), 0);
    // Bottom-up: the first stored row is the image's last.
    EXPECT_EQ(block[40 + 0], 0xC0);
    EXPECT_EQ(block[40 + 12 + 2], 0x10);

    GpBitmap* back = nullptr;
    ASSERT_EQ(GdipCreateBitmapFromGdiDib(block, block + 40, &back), OK);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x) {
            ARGB c = 0;
            GdipBitmapGetPixel(back, x, y, &c);
            EXPECT_EQ(c, colours[y][x]) << x << "," << y;
        }
    GdipDisposeImage(back);
    GlobalUnlock(hDib);
    EXPECT_TRUE(img.RemoveDib(hDib));
    EXPECT_FALSE(img.RemoveDib(hDib));
}

TEST(Handles, IndexedDibCarriesItsPalette) {
    Imaging img;
    img.CreateNewImage(2, 1, 1); // black
    std::vector<std::int32_t> white = {static_cast<std::int32_t>(0xFFFFFFFFu)};
    ASSERT_EQ(img.SetPixelArrayARGB(white, 0, 0, 1, 1), OK);
    HGLOBAL hDib = img.GetDib();
    ASSERT_NE(hDib, 0u);
    auto* block = static_cast<std::uint8_t*>(GlobalLock(hDib));
    BITMAPINFOHEADER header;
    std::memcpy(&header, block, 40);
    EXPECT_EQ(header.biBitCount, 1);
    EXPECT_EQ(header.biClrUsed, 2u);
    EXPECT_EQ(GlobalSize(hDib), 40u + 8u + 4u);
    GpBitmap* back = nullptr;
    ASSERT_EQ(GdipCreateBitmapFromGdiDib(block, block + 48, &back), OK);
    ARGB c0 = 0, c1 = 0;
    GdipBitmapGetPixel(back, 0, 0, &c0);
    GdipBitmapGetPixel(back, 1, 0, &c1);
    EXPECT_EQ(c0, 0xFFFFFFFFu);
    EXPECT_EQ(c1, 0xFF000000u);
    GdipDisposeImage(back);
    GlobalUnlock(hDib);
    img.RemoveDib(hDib);
}

TEST(Handles, DeviceContextIsHandedOutOnceUntilReleased) {
    Imaging img;
    const std::int32_t id = img.CreateNewImage(4, 4);
    const HDC first = img.GetKestrelynImageDC();
    ASSERT_NE(first, 0u);
    EXPECT_EQ(img.GetKestrelynImageDC(id), first);
    EXPECT_EQ(FindImageRecord(id)->nHDC, first);
    EXPECT_EQ(img.ReleaseKestrelynImageDC(), OK);
    EXPECT_EQ(FindImageRecord(id)->nHDC, 0u);
    EXPECT_EQ(FindImageRecord(id)->nGraphics, nullptr);
    EXPECT_EQ(img.ReleaseKestrelynImageDC(), OK); // nothing open
    EXPECT_NE(img.GetKestrelynImageDC(), 0u);
    EXPECT_EQ(img.CloseImage(id), OK); // an open context goes with the image
}

TEST(Handles, BitmapsIconsPicturesAndClipboard) {
    Imaging img;
    img.CreateNewImage(5, 4, 24, 0xFF336699u);
    const HBITMAP hbm = img.GetHBitmap();
    ASSERT_NE(hbm, 0u);
    const HostBitmap* hb = HostGetBitmap(hbm);
    ASSERT_NE(hb, nullptr);
    EXPECT_EQ(hb->nWidth, 5);
    EXPECT_EQ(hb->arPixels.at(0) & 0xFFFFFFu, 0x336699u);
    EXPECT_TRUE(img.DeleteHBitmap(hbm));
    EXPECT_FALSE(img.DeleteHBitmap(hbm));
    const HICON hIcon = img.GetHICON();
    ASSERT_NE(hIcon, 0u);
    EXPECT_TRUE(img.DeleteHICON(hIcon));

    const PictureHandle pic = img.GetPicture();
    ASSERT_NE(pic, 0u);
    const HBITMAP inner = PictureGetBitmap(pic);
    EXPECT_NE(HostGetBitmap(inner), nullptr);
    const std::string icoPath = MakeTempFileName();
    EXPECT_TRUE(img.GetIcon(pic, icoPath, true, 0xFF336699u));
    std::ifstream ico(icoPath, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(ico)), {});
    ASSERT_EQ(bytes.size(), 6u + 16u + 40u + 5u * 4u * 4u + 4u * 4u);
    EXPECT_EQ(bytes[2], 1);                                     // icon resource type
    EXPECT_EQ(static_cast<std::uint8_t>(bytes[62 + 3]), 0);     // keyed colour: transparent
    EXPECT_EQ(static_cast<std::uint8_t>(bytes[62 + 80]), 0xF8); // mask bits of 5 pixels
    std::remove(icoPath.c_str());
    EXPECT_TRUE(PictureRelease(pic));
    EXPECT_EQ(HostGetBitmap(inner), nullptr); // the picture owned its bitmap

    EXPECT_EQ(img.CopyToClipboard(), OK);
    const HostBitmap* clip = HostGetBitmap(GetHostServices().ClipboardGetBitmap());
    ASSERT_NE(clip, nullptr);
    EXPECT_EQ(clip->nWidth, 5);
    EXPECT_EQ(img.CopyRegionToClipboard(1, 1, 2, 3), OK);
    clip = HostGetBitmap(GetHostServices().ClipboardGetBitmap());
    ASSERT_NE(clip, nullptr);
    EXPECT_EQ(clip->nWidth, 2);
    EXPECT_EQ(clip->nHeight, 3);
    EXPECT_EQ(img.DeleteClipboardData(), OK);
    EXPECT_EQ(GetHostServices().ClipboardGetBitmap(), 0u);
    EXPECT_EQ(img.ClearImage(0xFFFFFFFFu), OK);
    EXPECT_EQ(img.PixelGetColor(4, 3), 0xFFFFFFFFu);
}

class RecordingHost : public HostServices {
  public:
    void MessageBox(const std::string& sText, const std::string&, MessageBoxStyle) override {
        messages.push_back(sText);
    }
    bool ClipboardClear() override { return true; }
    bool ClipboardSetBitmap(HBITMAP h) override {
        clip = h;
        return true;
    }
    HBITMAP ClipboardGetBitmap() override { return clip; }
    HBITMAP GrabWindow(HWND) override { return 0; }
    bool OpenFileDialog(const std::string&, std::string&) override { return false; }
    HWND DesktopWindow() override { return 77; }
    std::vector<std::string> messages;
    HBITMAP clip = 0;
};

TEST(Host, AdapterReplacesTheDefaultServices) {
    auto host = std::make_shared<RecordingHost>();
    auto old = SetHostServices(host);
    Imaging img;
    img.CreateNewImage(2, 2);
    EXPECT_EQ(img.GetDesktopHwnd(), 77u);
    EXPECT_EQ(img.CopyToClipboard(), OK);
    EXPECT_NE(host->clip, 0u);
    DeleteObject(host->clip);
    SetHostServices(old);
    EXPECT_EQ(img.GetDesktopHwnd(), 0u);
}

TEST(Host, GlobalMemoryBlocks) {
    const HGLOBAL h = GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, 10);
    ASSERT_NE(h, 0u);
    EXPECT_EQ(GlobalSize(h), 10u);
    auto* p = static_cast<std::uint8_t*>(GlobalLock(h));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p[9], 0);
    p[9] = 42;
    EXPECT_FALSE(GlobalUnlock(h)); // lock count back to 0
    EXPECT_EQ(static_cast<std::uint8_t*>(GlobalLock(h))[9], 42);
    GlobalUnlock(h);
    EXPECT_EQ(GlobalFree(h), 0u);
    EXPECT_EQ(GlobalFree(h), h);
    EXPECT_EQ(GlobalLock(h), nullptr);
    EXPECT_EQ(GlobalSize(h), 0u);
}

TEST(Host, MemoryAndFileStreams) {
    StreamPtr mem = CreateMemoryStream({1, 2, 3});
    EXPECT_EQ(mem->Stat(), 3);
    EXPECT_EQ(mem->Seek(0, Stream::End), 3);
    const std::uint8_t more[2] = {4, 5};
    EXPECT_EQ(mem->Write(more, 2), 2u);
    EXPECT_EQ(mem->Seek(1, Stream::Begin), 1);
    std::uint8_t buf[8] = {};
    EXPECT_EQ(mem->Read(buf, 8), 4u);
    EXPECT_EQ(buf[0], 2);
    EXPECT_EQ(buf[3], 5);
    EXPECT_EQ(mem->Read(buf, 8), 0u);
    EXPECT_EQ(mem->Seek(-10, Stream::Current), -1);
    EXPECT_TRUE(mem->SetSize(2));
    EXPECT_EQ(mem->Stat(), 2);

    const std::string path = MakeTempFileName();
    std::remove(path.c_str()); // a name with no file behind it
    EXPECT_EQ(CreateFileStream(path, false), nullptr);
    {
        StreamPtr out = CreateFileStream(path, true);
        ASSERT_NE(out, nullptr);
        EXPECT_EQ(out->Write("hello", 5), 5u);
        EXPECT_EQ(out->Stat(), 5);
        EXPECT_TRUE(out->SetSize(3));
    }
    StreamPtr in = CreateFileStream(path, false);
    ASSERT_NE(in, nullptr);
    char text[8] = {};
    EXPECT_EQ(in->Read(text, 8), 3u);
    EXPECT_STREQ(text, "hel");
    EXPECT_EQ(in->Seek(-2, Stream::End), 1);
    in.reset();
    std::remove(path.c_str());
}

TEST(Host, LibraryVersionsAndTempDirectory) {
    EXPECT_EQ(GetLibraryFileVersion("no_such_library_kestrelyn"), "Unknown");
    EXPECT_EQ(GetLibraryFileVersion(""), "Unknown");
    // A library without a version export has no version.
    EXPECT_EQ(GetLibraryFileVersion("libm.so.6"), "Unknown");
    const char* saved = std::getenv("tmp");
    const std::string keep = saved ? saved : "";
    ::setenv("tmp", "/var/tmp/", 1);
    EXPECT_EQ(GetTempDirectory(), "/var/tmp");
    ::unsetenv("tmp");
    const char* savedTemp = std::getenv("temp");
    const std::string keepTemp = savedTemp ? savedTemp : "";
    ::setenv("temp", "/srv/t", 1);
    EXPECT_EQ(GetTempDirectory(), "/srv/t");
    if (savedTemp)
        ::setenv("temp", keepTemp.c_str(), 1);
    else
        ::unsetenv("temp");
    if (saved) ::setenv("tmp", keep.c_str(), 1);
}

} // namespace
} // namespace kestrelyn::test

namespace kestrelyn::test {
namespace {

TEST(Host, CodecPluginReportsItsVersionWhenBuilt) {
    const std::string plugin = std::string(KY_BINARY_DIR) + "/lib/libkyimgplug.so";
    KY_REQUIRE_CHECKER(!(!FileExists(plugin)), "the codec plug-in is not built");
    // Found beside libkestrelyn, with or without the search path.
    EXPECT_EQ(GetLibraryFileVersion("kyimgplug"), "1.0.0.0");
    Imaging img;
    img.GetStat();
    EXPECT_EQ(ThreadEngineState().sKyimgplugVersion, "1.0.0.0");
    EXPECT_DOUBLE_EQ(VersionValue(ThreadEngineState().sKyimgplugVersion), 1.0);
}

} // namespace
} // namespace kestrelyn::test
