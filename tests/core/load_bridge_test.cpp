// The plug-in bridge: plug-in bitmaps to images and back, format names, the
// version read and the message frame of closed libraries.
#include "load_support.h"

#include "platform/modWinapi.h"

namespace kestrelyn::loadtest {
namespace {

class LoadBridge : public LoadFixture {};

TEST(LoadBridgeNames, PluginFormatCodesMapToTheirNames) {
    EXPECT_EQ(PluginFormatName(-1), "UNKNOWN");
    EXPECT_EQ(PluginFormatName(0), "BMP");
    EXPECT_EQ(PluginFormatName(2), "JPEG");
    EXPECT_EQ(PluginFormatName(12), "PGMRAW");
    EXPECT_EQ(PluginFormatName(17), "TARGA");
    EXPECT_EQ(PluginFormatName(18), "TIFF");
    EXPECT_EQ(PluginFormatName(27), "FAXG3");
    EXPECT_EQ(PluginFormatName(33), "PICT");
    EXPECT_EQ(PluginFormatName(35), "JBIG");
    EXPECT_EQ(PluginFormatName(36), "");
    EXPECT_EQ(PluginFormatName(-2), "");
}

TEST(LoadBridgeNames, EngineFormatNamesKeepTheWmfRowThatNeverMatches) {
    EXPECT_EQ(FormatNameFromRawFormat(ImageFormatWMF), "Undefined");
    EXPECT_EQ(FormatNameFromRawFormat(ImageFormatMemoryBMP), "Memory BMP");
    EXPECT_EQ(FormatNameFromRawFormat(ImageFormatIcon), "ICON");
}

TEST(LoadBridgeVersion, VersionStringsOfPresentAndMissingLibraries) {
    const std::string version = GetFileVersionString("kyimgplug");
    EXPECT_NE(VersionValue(version), 0) << version;
    EXPECT_EQ(std::count(version.begin(), version.end(), '.'), 3) << version;
    EXPECT_EQ(version.find(' '), std::string::npos);
    EXPECT_EQ(GetFileVersionString("no-such-library-here"), "Unknown");
    EXPECT_EQ(VersionValue(GetFileVersionString("no-such-library-here")), 0);
}

class BoxRecorder : public HostServices {
  public:
    void MessageBox(const std::string& sText, const std::string& sTitle,
                    MessageBoxStyle eStyle) override {
        boxes.push_back(sTitle + "|" + sText + "|" + std::to_string(eStyle));
    }
    bool ClipboardClear() override { return true; }
    bool ClipboardSetBitmap(HBITMAP) override { return false; }
    HBITMAP ClipboardGetBitmap() override { return 0; }
    HBITMAP GrabWindow(HWND) override { return 0; }
    bool OpenFileDialog(const std::string&, std::string&) override { return false; }
    std::vector<std::string> boxes;
};

TEST(LoadBridgeFrame, MissingOrOldLibrariesShowTheirBox) {
    auto rec = std::make_shared<BoxRecorder>();
    auto old = SetHostServices(rec);
    const bool missing = CheckPluginLibraryVersion(kKyTwainLibrary, false, 0);
    const bool tooOld = CheckPluginLibraryVersion(kBarcode1DReaderLibrary, true, 104);
    const bool fine = CheckPluginLibraryVersion(kBarcodeDMReaderLibrary, true, 100);
    const bool dmOld = CheckPluginLibraryVersion(kBarcodeDMReaderLibrary, true, 99);
    SetHostServices(old);
    EXPECT_FALSE(missing);
    EXPECT_FALSE(tooOld);
    EXPECT_TRUE(fine);
    EXPECT_FALSE(dmOld);
    ASSERT_EQ(rec->boxes.size(), 3u);
    EXPECT_EQ(rec->boxes[0], "Error|Can't found KYTWAIN.DLL file.|16");
    EXPECT_EQ(rec->boxes[1], "Error|Bad kybarcode.1dreader.dll version.|16");
    EXPECT_EQ(rec->boxes[2], "Error|Bad kybarcode.dmreader.dll version.|16");
}

// A top-down 24-bit plug-in bitmap of the pattern, w by h.
std::intptr_t PatternBitmap(int w, int h) {
    std::vector<std::uint8_t> raw(static_cast<std::size_t>(ComputeStride(w, 24) * h));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const ARGB c = PatternAt(x, y);
            std::uint8_t* p = raw.data() + y * ComputeStride(w, 24) + 3 * x;
            p[0] = static_cast<std::uint8_t>(c);
            p[1] = static_cast<std::uint8_t>(c >> 8);
            p[2] = static_cast<std::uint8_t>(c >> 16);
        }
    return KYIMGPLUG_ConvertFromRawBits(raw.data(), w, h, ComputeStride(w, 24), 24, 0, 0, 0, 1);
}

TEST_F(LoadBridge, BitmapRowsArriveTopDownWhateverTheFormat) {
    // Bottom-up formats are flipped by the plug-in, top-down ones (JPEG, PNG,
    // J2K, JP2) are taken as they stand.
    for (int format : {PluginFormatTIFF, PluginFormatTARGA}) {
        std::intptr_t bitmap = PatternBitmap(5, 4);
        bool bFailed = true, bIsPage = false;
        std::int32_t id = 0;
        ASSERT_EQ(PluginBitmapToImage(bitmap, id, bFailed, bIsPage, 0, format), OK);
        EXPECT_FALSE(bFailed);
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 5; ++x) {
                ARGB c = 0;
                GdipBitmapGetPixel(ResolveGdiPlusImage(id), x, y, &c);
                EXPECT_EQ(c, PatternAt(x, y)) << "format " << format << " at " << x << "," << y;
            }
        ReleaseImage(id);
        KYIMGPLUG_Unload(bitmap);
    }
}

TEST_F(LoadBridge, EightBitsWithATransparentEntryBecomeArgb) {
    std::vector<std::uint8_t> raw(4 * 2, 1);
    raw[0] = 0;
    std::intptr_t bitmap = KYIMGPLUG_ConvertFromRawBits(raw.data(), 3, 2, 4, 8, 0, 0, 0, 1);
    ASSERT_NE(bitmap, 0);
    ASSERT_EQ(KYIMGPLUG_SetTransparentIndex(bitmap, 0), 1);
    const std::intptr_t original = bitmap;
    bool bFailed = true, bIsPage = false;
    std::int32_t id = 0;
    ASSERT_EQ(PluginBitmapToImage(bitmap, id, bFailed, bIsPage, 0, PluginFormatTIFF), OK);
    EXPECT_NE(bitmap, original); // the converted bitmap replaced the old one
    EXPECT_EQ(img->GetPixelFormat(id), PixelFormat32bppARGB);
    ARGB corner = 0xFFFFFFFFu, other = 0;
    GdipBitmapGetPixel(ResolveGdiPlusImage(id), 0, 0, &corner);
    GdipBitmapGetPixel(ResolveGdiPlusImage(id), 1, 0, &other);
    EXPECT_EQ(corner >> 24, 0u);
    EXPECT_EQ(other >> 24, 0xFFu);
    ReleaseImage(id);
    KYIMGPLUG_Unload(bitmap);
}

TEST_F(LoadBridge, OneBitWhiteIsZeroKeepsBlackOnWhite) {
    // Width 8, two rows: first row all ink (bit 1), second row paper (bit 0),
    // with a palette saying 0 is white.
    std::vector<std::uint8_t> raw = {0xFF, 0, 0, 0, 0x00, 0, 0, 0};
    std::intptr_t bitmap = KYIMGPLUG_ConvertFromRawBits(raw.data(), 8, 2, 4, 1, 0, 0, 0, 1);
    ASSERT_NE(bitmap, 0);
    std::uint8_t* pal = KYIMGPLUG_GetPalette(bitmap);
    ASSERT_NE(pal, nullptr);
    const std::uint8_t whiteFirst[8] = {255, 255, 255, 0, 0, 0, 0, 0};
    std::copy(std::begin(whiteFirst), std::end(whiteFirst), pal);
    ASSERT_EQ(KYIMGPLUG_GetPhotoMetric(bitmap), 0);
    bool bFailed = true, bIsPage = false;
    std::int32_t id = 0;
    ASSERT_EQ(PluginBitmapToImage(bitmap, id, bFailed, bIsPage, 0, PluginFormatTIFF), OK);
    EXPECT_EQ(img->GetPixelFormat(id), PixelFormat1bppIndexed);
    ARGB ink = 0, paper = 0;
    GdipBitmapGetPixel(ResolveGdiPlusImage(id), 3, 0, &ink);
    GdipBitmapGetPixel(ResolveGdiPlusImage(id), 3, 1, &paper);
    EXPECT_EQ(ink, 0xFF000000u);
    EXPECT_EQ(paper, 0xFFFFFFFFu);
    ReleaseImage(id);
    KYIMGPLUG_Unload(bitmap);
}

TEST_F(LoadBridge, ImagesTravelToThePluginAndBack) {
    GpBitmap* bmp = MakeBitmap(7, 5, 0, PixelFormat32bppRGB);
    GdipBitmapSetResolution(bmp, 300, 150);
    std::int32_t id = 0;
    RegisterImage(id, bmp, "", "", KindEngine);
    std::intptr_t bitmap = 0;
    ASSERT_EQ(ImageToPluginBitmap(bitmap, id), OK);
    ASSERT_NE(bitmap, 0);
    EXPECT_EQ(KYIMGPLUG_GetBPP(bitmap), 24); // 32-bit RGB goes down to 24
    EXPECT_EQ(KYIMGPLUG_GetDotsPerMeterX(bitmap), static_cast<int>(300 / 0.0254 + 0.5));
    EXPECT_EQ(KYIMGPLUG_GetDotsPerMeterY(bitmap), static_cast<int>(150 / 0.0254 + 0.5));

    bool bFailed = true, bIsPage = false;
    std::int32_t back = 0;
    ASSERT_EQ(PluginBitmapToImage(bitmap, back, bFailed, bIsPage, 0, PluginFormatTIFF), OK);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 7; ++x) {
            ARGB c = 0;
            GdipBitmapGetPixel(ResolveGdiPlusImage(back), x, y, &c);
            ASSERT_EQ(c, PatternAt(x, y)) << x << "," << y;
        }
    // Through whole dots per metre: 11811 and 5906.
    EXPECT_NEAR(img->GetHorizontalResolution(back), 11811 * 0.0254, 1e-3);
    EXPECT_NEAR(img->GetVerticalResolution(back), 5906 * 0.0254, 1e-3);
    ReleaseImage(back);
    KYIMGPLUG_Unload(bitmap);
    ReleaseImage(id);
}

TEST_F(LoadBridge, PaletteAndTransparencyGoAcross) {
    GpBitmap* bmp = MakeBitmap(4, 4, 0, PixelFormat8bppIndexed);
    INT size = 0;
    ASSERT_EQ(GdipGetImagePaletteSize(bmp, &size), OK);
    std::vector<std::uint8_t> buffer(static_cast<std::size_t>(size));
    auto* palette = reinterpret_cast<ColorPalette*>(buffer.data());
    ASSERT_EQ(GdipGetImagePalette(bmp, palette, size), OK);
    palette->Entries[3] = 0x00123456u; // fully transparent
    palette->Entries[4] = 0xFF654321u;
    ASSERT_EQ(GdipSetImagePalette(bmp, palette), OK);
    std::int32_t id = 0;
    RegisterImage(id, bmp, "", "", KindEngine);
    std::intptr_t bitmap = 0;
    ASSERT_EQ(ImageToPluginBitmap(bitmap, id), OK);
    EXPECT_EQ(KYIMGPLUG_GetBPP(bitmap), 8);
    const std::uint8_t* pal = KYIMGPLUG_GetPalette(bitmap);
    ASSERT_NE(pal, nullptr);
    EXPECT_EQ(pal[4 * 4], 0x21);
    EXPECT_EQ(pal[4 * 4 + 1], 0x43);
    EXPECT_EQ(pal[4 * 4 + 2], 0x65);
    ASSERT_GT(KYIMGPLUG_GetTransparencyCount(bitmap), 3);
    EXPECT_EQ(KYIMGPLUG_GetTransparencyTable(bitmap)[3], 0);
    EXPECT_EQ(KYIMGPLUG_GetTransparencyTable(bitmap)[4], 255);
    KYIMGPLUG_Unload(bitmap);
    ReleaseImage(id);
}

// A tag reader standing in for the tag store: the tags say 300 by 300.
void TagsSay300(std::int32_t, std::intptr_t, float& nX, float& nY) {
    nX = 300;
    nY = 300;
}

TEST_F(LoadBridge, TagResolutionWinsOnlyOverThePluginDefault) {
    SetPluginMetadataHooks(&TagsSay300, nullptr);
    float dpi[2] = {0, 0};
    for (int i = 0; i < 2; ++i) {
        std::intptr_t bitmap = PatternBitmap(3, 3);
        if (i == 1) {
            KYIMGPLUG_SetDotsPerMeterX(bitmap, 3780); // 96 dpi: the file said so
            KYIMGPLUG_SetDotsPerMeterY(bitmap, 3780);
        }
        ASSERT_EQ(KYIMGPLUG_GetDotsPerMeterX(bitmap), i == 0 ? 2835 : 3780);
        bool bFailed = true, bIsPage = false;
        std::int32_t id = 0;
        ASSERT_EQ(PluginBitmapToImage(bitmap, id, bFailed, bIsPage, 0, PluginFormatTIFF), OK);
        dpi[i] = img->GetHorizontalResolution(id);
        ReleaseImage(id);
        KYIMGPLUG_Unload(bitmap);
    }
    SetPluginMetadataHooks(nullptr, nullptr);
    EXPECT_FLOAT_EQ(dpi[0], 300.0f);
    EXPECT_NEAR(dpi[1], 3780 * 0.0254, 1e-3);
}

TEST_F(LoadBridge, DeepImagesAreRefusedOnTheWayToThePlugin) {
    std::int32_t id = 0;
    ASSERT_EQ(CreateBitmap(3, 3, 0, PixelFormat64bppARGB, nullptr, id, false), OK);
    std::intptr_t bitmap = 123;
    EXPECT_EQ(ImageToPluginBitmap(bitmap, id), UnsupportedImageFormat);
    EXPECT_EQ(bitmap, 0);
    ReleaseImage(id);
    EXPECT_EQ(ImageToPluginBitmap(bitmap, 4242), InvalidParameter);
}

TEST_F(LoadBridge, SavedPluginFilesLoadAgain) {
    std::intptr_t bitmap = PatternBitmap(6, 3);
    const std::string tga = Path("saved.tga");
    EXPECT_TRUE(SavePluginFile(PluginFormatTARGA, bitmap, tga, 0));
    EXPECT_FALSE(SavePluginFile(PluginFormatTARGA, 0, Path("none.tga"), 0));
    KYIMGPLUG_Unload(bitmap);
    const std::int32_t id = img->CreateImageFromFile(tga);
    ASSERT_NE(id, 0);
    EXPECT_EQ(img->GetImageFormat(id), "TARGA");
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 6; ++x)
            EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(x, y)), PatternAt(x, y));
}

TEST_F(LoadBridge, LoadPluginFileOpensMultiBitmapsOnlyForSeveralPages) {
    const std::string one = Path("one.tif"), three = Path("three.tif");
    ASSERT_TRUE(WriteMultiPageTiff(one, {0xFFFF0000u}));
    ASSERT_TRUE(WriteMultiPageTiff(three, {0xFFFF0000u, 0xFF00FF00u, 0xFF0000FFu}));
    int format = PluginFormatTIFF;
    bool bMulti = true;
    std::intptr_t hFile = 1;
    std::intptr_t h = LoadPluginFile(format, one, bMulti, false, hFile);
    ASSERT_NE(h, 0);
    EXPECT_FALSE(bMulti);
    EXPECT_EQ(hFile, 0);
    KYIMGPLUG_Unload(h);

    h = LoadPluginFile(format, three, bMulti, false, hFile);
    ASSERT_NE(h, 0);
    EXPECT_TRUE(bMulti);
    EXPECT_NE(hFile, 0);
    EXPECT_EQ(KYIMGPLUG_GetPageCount(h), 3);
    KYIMGPLUG_CloseMultiBitmap(h, 0);
    KYIMGPLUG_CloseFileHandle(hFile);

    format = -1;
    EXPECT_EQ(LoadPluginFile(format, three, bMulti, false, hFile), 0);
}

} // namespace
} // namespace kestrelyn::loadtest
