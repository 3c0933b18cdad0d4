// Load sources other than plain files, path rules, and bad input: statuses,
// no leaked temporary files, no leaked descriptors.
#include <cstring>

#include "load_support.h"

#include "platform/Windows1252.h"
#include "platform/modGdi32.h"
#include "platform/modWinapi.h"

namespace kestrelyn::loadtest {
namespace {

TEST(LoadPath, NormalisationMirrorsTheSeparatorRules) {
    EXPECT_EQ(NormaliseFilePath("  /tmp//a\\\\b.png  "), "/tmp/a/b.png");
    EXPECT_EQ(NormaliseFilePath("\\\\server\\share\\x.tif"), "//server/share/x.tif");
    EXPECT_EQ(NormaliseFilePath("////server//share"), "//server/share");
    EXPECT_EQ(NormaliseFilePath("//server//share"), "//server/share");
    // The first two characters are never touched (a network prefix lives there).
    EXPECT_EQ(NormaliseFilePath("/a//b///c"), "/a/b/c");
    EXPECT_EQ(NormaliseFilePath("a//b///c"), "a//b/c");
    EXPECT_EQ(NormaliseFilePath(" a\\\\ "), "a//"); // three characters: only trimmed and slashed
    EXPECT_EQ(NormaliseFilePath("//"), "//");
    EXPECT_EQ(NormaliseFilePath("   "), "");
}

class LoadSources : public LoadFixture {};

TEST_F(LoadSources, UncleanPathsLoadLikeTheCleanOne) {
    const std::string png = WriteSample("clean.png", EncoderClsidPNG);
    std::string messy = sDir + "//clean.png";
    for (char& c : messy)
        if (c == '/') c = '\\';
    const std::int32_t id = img->CreateImageFromFile("  " + messy + " ");
    ASSERT_NE(id, 0) << img->GetStat();
    EXPECT_EQ(Record(id).sFilePath, sDir + "/clean.png");
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(3, 2)), PatternAt(3, 2));
}

TEST_F(LoadSources, MissingFilesGiveFileNotFoundAndKeepTheNativeImage) {
    const std::int32_t first = img->CreateImageFromFile(WriteSample("a.png", EncoderClsidPNG));
    ASSERT_NE(first, 0);
    for (const std::string& path :
         {std::string(""), std::string("   "), Path("absent.png"), sDir}) {
        EXPECT_EQ(img->CreateImageFromFile(path), 0) << path;
        EXPECT_EQ(img->GetStat(), FileNotFound) << path;
        EXPECT_EQ(img->GetNativeImage(), first);
    }
    std::int32_t id = 7;
    EXPECT_EQ(LoadImageFile(id, "", LoadOptions{}), FileNotFound);
    EXPECT_EQ(id, 0);
}

class ChoosingHost : public HostServices {
  public:
    void MessageBox(const std::string&, const std::string&, MessageBoxStyle) override {}
    bool ClipboardClear() override { return true; }
    bool ClipboardSetBitmap(HBITMAP) override { return false; }
    HBITMAP ClipboardGetBitmap() override { return 0; }
    HBITMAP GrabWindow(HWND) override { return 0; }
    bool OpenFileDialog(const std::string&, std::string& sChosen) override {
        ++asked;
        sChosen = choice;
        return !choice.empty();
    }
    std::string choice;
    int asked = 0;
};

TEST_F(LoadSources, AnEmptyPathAsksTheUserUnlessNoDialogIsWanted) {
    auto host = std::make_shared<ChoosingHost>();
    host->choice = WriteSample("chosen.png", EncoderClsidPNG);
    auto old = SetHostServices(host);
    const std::int32_t id = img->CreateImageFromFile(" ");
    std::int32_t quiet = 0;
    const KestrelynStatus quietStatus = LoadImageFile(quiet, "", LoadOptions{.bNoDialog = true});
    host->choice.clear(); // the user cancels
    const std::int32_t cancelled = img->CreateImageFromFile("");
    const KestrelynStatus cancelledStatus = img->GetStat();
    SetHostServices(old);
    EXPECT_NE(id, 0);
    EXPECT_EQ(Record(id).sFilePath, Path("chosen.png"));
    EXPECT_EQ(quietStatus, FileNotFound);
    EXPECT_EQ(cancelled, 0);
    EXPECT_EQ(cancelledStatus, FileNotFound);
    EXPECT_EQ(host->asked, 2);
}

TEST_F(LoadSources, BadFilesFailCleanly) {
    // Empty, garbage, truncated, a JPEG posing as TIFF and cut short, and
    // headers that promise far more pixels than follow.
    const std::string good = WriteSample("good.jpg", EncoderClsidJPEG, 0, 64, 48);
    std::vector<std::uint8_t> jpeg = ReadBytes(good);
    std::vector<std::pair<std::string, std::vector<std::uint8_t>>> cases;
    cases.push_back({"empty.png", {}});
    cases.push_back({"garbage.bin", std::vector<std::uint8_t>(300, 0xA5)});
    cases.push_back({"cut.jpg", std::vector<std::uint8_t>(jpeg.begin(), jpeg.begin() + 20)});
    cases.push_back({"cut.tif", std::vector<std::uint8_t>(jpeg.begin(), jpeg.begin() + 30)});
    std::vector<std::uint8_t> png = {0x89, 'P',  'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A, 0,    0,    0,
                                     13,   'I',  'H', 'D', 'R',  0x00, 0x01, 0x86, 0xA0, 0x00, 0x01,
                                     0x86, 0xA0, 8,   2,   0,    0,    0,    0,    0,    0,    0};
    cases.push_back({"huge.png", png});
    std::vector<std::uint8_t> bmp(54, 0);
    bmp[0] = 'B';
    bmp[1] = 'M';
    bmp[10] = 54;
    bmp[14] = 40;
    bmp[18] = 0x40, bmp[19] = 0x42, bmp[20] = 0x0F; // 1000000 wide
    bmp[22] = 0x40, bmp[23] = 0x42, bmp[24] = 0x0F; // 1000000 high
    bmp[26] = 1;
    bmp[28] = 24;
    cases.push_back({"huge.bmp", bmp});
    std::vector<std::uint8_t> tga = SmallTarga();
    tga[12] = 0xFF, tga[13] = 0xFF, tga[14] = 0xFF, tga[15] = 0xFF; // 65535 square
    cases.push_back({"huge.tga", tga});

    const int fds = OpenDescriptors();
    const int live = LiveImagesNow();
    for (const auto& [name, bytes] : cases) {
        const std::string path = Path(name);
        WriteBytes(path, bytes);
        EXPECT_EQ(img->CreateImageFromFile(path), 0) << name;
        EXPECT_NE(img->GetStat(), OK) << name;
        EXPECT_NE(img->GetStat(), FileNotFound) << name;
        EXPECT_EQ(img->CreateImageFromByteArray(bytes), 0) << name;
        img->DisableKyimgplugCodecs(true);
        EXPECT_EQ(img->CreateImageFromFile(path), 0) << name;
        img->DisableKyimgplugCodecs(false);
        EXPECT_EQ(img->CreateImageFromStream(CreateMemoryStream(bytes)), 0) << name;
    }
    EXPECT_EQ(LiveImagesNow(), live);
    EXPECT_EQ(TempFiles(), 0);
    EXPECT_EQ(OpenDescriptors(), fds);
    EXPECT_EQ(img->GetNativeImage(), 0);
}

TEST_F(LoadSources, ByteArrayLivesInATemporaryFileAsLongAsTheImage) {
    const std::vector<std::uint8_t> bytes = ReadBytes(WriteSample("a.png", EncoderClsidPNG));
    const std::int32_t id = img->CreateImageFromByteArray(bytes);
    ASSERT_NE(id, 0);
    EXPECT_EQ(TempFiles(), 1);
    const std::string temp = Record(id).sFilePath;
    EXPECT_TRUE(Record(id).bDeleteFile);
    EXPECT_TRUE(Exists(temp));
    EXPECT_EQ(temp.rfind(sTempDir, 0), 0u);
    EXPECT_EQ(img->GetImageFormat(), "PNG");
    EXPECT_EQ(img->CloseImage(id), OK);
    EXPECT_FALSE(Exists(temp));
    EXPECT_EQ(TempFiles(), 0);

    // No bytes: the status of an empty file, which no decoder takes.
    EXPECT_EQ(img->CreateImageFromByteArray({}), 0);
    EXPECT_EQ(img->GetStat(), UnknownImageFormat);
    EXPECT_EQ(TempFiles(), 0);
    const std::string empty = Path("empty.png");
    WriteBytes(empty, {});
    EXPECT_EQ(img->CreateImageFromFile(empty), 0);
    EXPECT_EQ(img->GetStat(), UnknownImageFormat);
    EXPECT_EQ(img->CreateImageFromByteArrayICM({}), 0);
    EXPECT_EQ(img->GetStat(), UnknownImageFormat);
    EXPECT_EQ(TempFiles(), 0);
}

TEST_F(LoadSources, ByteArrayJpegGoesThroughThePlugin) {
    // Byte arrays ignore DisableKyimgplugCodecs.
    img->DisableKyimgplugCodecs(true);
    const std::vector<std::uint8_t> bytes = ReadBytes(WriteSample("a.jpg", EncoderClsidJPEG));
    const std::int32_t id = img->CreateImageFromByteArray(bytes);
    ASSERT_NE(id, 0);
    EXPECT_EQ(Record(id).nKind, KindPlugin);
    EXPECT_EQ(img->GetImageFormat(), "JPEG");
}

TEST_F(LoadSources, MemoryBlocksAreCopiedAndChecked) {
    const std::vector<std::uint8_t> bytes = ReadBytes(WriteSample("a.png", EncoderClsidPNG));
    std::int32_t length = 0;
    EXPECT_EQ(img->CreateImageFromMemory(bytes.data(), length), 0);
    EXPECT_EQ(img->GetStat(), InvalidParameter);
    length = -5;
    EXPECT_EQ(img->CreateImageFromMemory(bytes.data(), length), 0);
    EXPECT_EQ(img->GetStat(), InvalidParameter);
    length = static_cast<std::int32_t>(bytes.size());
    const std::int32_t id = img->CreateImageFromMemory(bytes.data(), length);
    ASSERT_NE(id, 0);
    EXPECT_EQ(img->GetWidth(id), 8);
    img->CloseImage(id);
    EXPECT_EQ(TempFiles(), 0);
}

TEST_F(LoadSources, StringsAreTheFileBytesInTheAnsiCodePage) {
    const std::vector<std::uint8_t> bytes = ReadBytes(WriteSample("a.png", EncoderClsidPNG));
    // Every byte, 0x80 to 0x9F included, is one character of the code page.
    const std::string text = AnsiToUtf8(std::string(bytes.begin(), bytes.end()));
    ASSERT_NE(text.size(), bytes.size()); // the PNG signature holds 0x89
    const std::int32_t id = img->CreateImageFromString(text);
    ASSERT_NE(id, 0) << img->GetStat();
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(5, 4)), PatternAt(5, 4));
    EXPECT_EQ(TempFiles(), 1);
    img->CloseImage(id);
    EXPECT_EQ(TempFiles(), 0);
    EXPECT_NE(img->CreateImageFromStringICM(text), 0);

    EXPECT_EQ(img->CreateImageFromString(""), 0);
    EXPECT_EQ(img->GetStat(), GenericError);
}

TEST_F(LoadSources, StreamsAreDecodedByTheEngine) {
    const std::vector<std::uint8_t> bytes = ReadBytes(WriteSample("a.jpg", EncoderClsidJPEG));
    const std::int32_t id = img->CreateImageFromStream(CreateMemoryStream(bytes));
    ASSERT_NE(id, 0);
    EXPECT_EQ(Record(id).nKind, KindEngine);
    EXPECT_EQ(img->GetImageFormat(), "JPEG");
    EXPECT_NE(img->CreateImageFromStreamICM(CreateMemoryStream(bytes)), 0);
    EXPECT_EQ(img->CreateImageFromStream(nullptr), 0);
    EXPECT_EQ(img->GetStat(), InvalidParameter);
    EXPECT_EQ(TempFiles(), 0);
}

class ThrowingStream : public Stream {
  public:
    std::size_t Read(void*, std::size_t) override { throw std::runtime_error("device gone"); }
    std::size_t Write(const void*, std::size_t) override { return 0; }
    std::int64_t Seek(std::int64_t, SeekOrigin) override { throw std::runtime_error("gone"); }
    std::int64_t Stat() override { throw std::runtime_error("gone"); }
    bool SetSize(std::int64_t) override { return false; }
};

TEST_F(LoadSources, AFailingStreamGivesTheBareStatus23) {
    EXPECT_EQ(img->CreateImageFromStream(std::make_shared<ThrowingStream>()), 0);
    EXPECT_EQ(static_cast<int>(img->GetStat()), 23);
}

TEST_F(LoadSources, DibsRoundTrip) {
    const std::int32_t source = img->CreateImageFromFile(WriteSample("a.png", EncoderClsidPNG));
    ASSERT_NE(source, 0);
    img->SetHorizontalResolution(200);
    img->SetVerticalResolution(300);
    const HGLOBAL dib = img->GetDib(source);
    ASSERT_NE(dib, 0u);
    const std::int32_t id = img->CreateImageFromDIB(dib);
    ASSERT_NE(id, 0) << img->GetStat();
    EXPECT_EQ(Record(id).nKind, KindDib);
    EXPECT_EQ(Record(id).hMemory, 0u); // the caller keeps the block
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 8; ++x)
            EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(x, y)), PatternAt(x, y));
    EXPECT_NEAR(img->GetHorizontalResolution(), 200.0f, 0.01f);
    EXPECT_NEAR(img->GetVerticalResolution(), 300.0f, 0.01f);
    img->RemoveDib(dib);

    EXPECT_EQ(img->CreateImageFromDIB(0), 0);
    EXPECT_EQ(img->GetStat(), GenericError);
}

TEST_F(LoadSources, OneBitDibWithAnInvertedTableKeepsBlackBlack) {
    // 8 by 2, bottom-up: the lower row is bit 1, the upper row bit 0; the
    // table says 0 is white and 1 is black.
    const HGLOBAL dib = GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, 48 + 8);
    auto* p = static_cast<std::uint8_t*>(GlobalLock(dib));
    BITMAPINFOHEADER h;
    h.biWidth = 8;
    h.biHeight = 2;
    h.biBitCount = 1;
    h.biXPelsPerMeter = 3937;
    h.biYPelsPerMeter = 3937;
    std::memcpy(p, &h, 40);
    const std::uint8_t table[8] = {255, 255, 255, 0, 0, 0, 0, 0};
    std::memcpy(p + 40, table, 8);
    p[48] = 0xFF; // bottom row: black
    p[52] = 0x00; // top row: white
    GlobalUnlock(dib);
    const std::int32_t id = img->CreateImageFromDIB(dib);
    ASSERT_NE(id, 0) << img->GetStat();
    EXPECT_EQ(img->GetPixelFormat(), PixelFormat1bppIndexed);
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(2, 1)), 0xFF000000u);
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(2, 0)), 0xFFFFFFFFu);
    EXPECT_NEAR(img->GetHorizontalResolution(), 99.9998f, 0.001f);
    GlobalFree(dib);
}

TEST_F(LoadSources, ShortDibBlocksAreRefused) {
    const HGLOBAL dib = GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, 60);
    auto* p = static_cast<std::uint8_t*>(GlobalLock(dib));
    BITMAPINFOHEADER h;
    h.biWidth = 1000;
    h.biHeight = 1000;
    h.biBitCount = 24;
    std::memcpy(p, &h, 40);
    GlobalUnlock(dib);
    EXPECT_EQ(img->CreateImageFromDIB(dib), 0);
    EXPECT_EQ(img->GetStat(), InvalidParameter);
    GlobalFree(dib);
}

TEST_F(LoadSources, HostHandlesBecomeImages) {
    const std::int32_t source = img->CreateImageFromFile(WriteSample("a.png", EncoderClsidPNG));
    ASSERT_NE(source, 0);
    const HBITMAP hbm = img->GetHBitmap(source);
    ASSERT_NE(hbm, 0u);
    const std::int32_t fromBitmap = img->CreateImageFromHBitmap(hbm);
    ASSERT_NE(fromBitmap, 0);
    EXPECT_EQ(Record(fromBitmap).nKind, KindHBitmap);
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(7, 5)), PatternAt(7, 5));
    img->DeleteHBitmap(hbm);

    const HICON icon = img->GetHICON(source);
    ASSERT_NE(icon, 0u);
    const std::int32_t fromIcon = img->CreateImageFromHICON(icon);
    ASSERT_NE(fromIcon, 0);
    EXPECT_EQ(Record(fromIcon).nKind, KindHIcon);
    EXPECT_EQ(img->GetPixelFormat(), PixelFormat32bppARGB);
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(1, 2)), PatternAt(1, 2));
    img->DeleteHICON(icon);

    const PictureHandle picture = img->GetPictureFromKestrelynImage(source);
    ASSERT_NE(picture, 0u);
    const std::int32_t fromPicture = img->CreateImageFromPicture(picture);
    ASSERT_NE(fromPicture, 0);
    EXPECT_EQ(Record(fromPicture).nKind, KindHBitmap);
    PictureRelease(picture);

    EXPECT_EQ(img->CreateImageFromHBitmap(0), 0);
    EXPECT_EQ(img->GetStat(), InvalidParameter);
    EXPECT_EQ(img->CreateImageFromPicture(987654), 0);
    EXPECT_EQ(img->GetStat(), InvalidParameter);
}

TEST_F(LoadSources, ClipboardAndScreen) {
    EXPECT_EQ(GetHostServices().ClipboardClear(), true);
    EXPECT_EQ(img->CreateImageFromClipboard(), 0);
    EXPECT_EQ(img->GetStat(), GenericError);
    ASSERT_NE(img->CreateImageFromFile(WriteSample("a.png", EncoderClsidPNG)), 0);
    ASSERT_EQ(img->CopyToClipboard(), OK);
    const std::int32_t pasted = img->CreateImageFromClipboard();
    ASSERT_NE(pasted, 0);
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(4, 4)), PatternAt(4, 4));
    img->DeleteClipboardData();

    // No window system adapter: nothing to grab.
    EXPECT_EQ(img->CreateImageFromHwnd(), 0);
    EXPECT_EQ(img->GetStat(), Win32Error);
    EXPECT_EQ(img->GetNativeImage(), pasted);
}

TEST_F(LoadSources, RawBitsAndEngineImagesAreAdopted) {
    std::vector<std::uint32_t> pixels(4 * 3, 0xFF204060u);
    const std::int32_t id =
        img->CreateImageFromRawBits(4, 3, 16, PixelFormat32bppARGB, pixels.data());
    ASSERT_NE(id, 0);
    EXPECT_EQ(Record(id).nKind, KindRawBits);
    pixels[5] = 0xFF010203u; // the image sees the caller's memory
    EXPECT_EQ(static_cast<ARGB>(img->PixelGetColor(1, 1)), 0xFF010203u);
    img->CloseImage(id);

    EXPECT_EQ(img->CreateImageFromGdiPlusImage(nullptr), 0);
    EXPECT_EQ(img->GetStat(), InvalidParameter);
    GpBitmap* bmp = MakeBitmap(3, 2, 0xFF0000FFu);
    const std::int32_t adopted = img->CreateImageFromGdiPlusImage(bmp);
    ASSERT_NE(adopted, 0);
    EXPECT_EQ(Record(adopted).nKind, KindEngine);
    EXPECT_EQ(img->GetGdiplusImage(), bmp);
}

} // namespace
} // namespace kestrelyn::loadtest
