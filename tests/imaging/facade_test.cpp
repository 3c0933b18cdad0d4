// The facade: defaults, guards and their statuses, options, the edit frame,
// new images and clones, utilities.
#include <cmath>
#include <stdexcept>
#include <thread>

#include "platform/modWinapi.h"

#include "support/ImagingTestUtil.h"

namespace kestrelyn::test {
namespace {

TEST(Facade, DefaultsOfANewObject) {
    cImaging c;
    EXPECT_EQ(c.GetStat(), OK);
    EXPECT_EQ(c.GetNativeImage(), 0);
    EXPECT_EQ(c.nPdfCompressionLevel, 9);
    EXPECT_EQ(c.nPdfJpegQuality, 75);
    EXPECT_EQ(c.nHttpBufferSize, 4096);
    EXPECT_TRUE(c.bFtpPassive);
    EXPECT_TRUE(c.bPreserveTags);
    EXPECT_FALSE(c.bDisableKyimgplugCodecs);
    EXPECT_EQ(c.FontGetUnit(), UnitPoint);
    EXPECT_EQ(c.ROIMode, 1);
    EXPECT_DOUBLE_EQ(c.GetVersion(), 5.9901309);
    EXPECT_TRUE(ThreadEngineState().bEngineStarted);
    EXPECT_GE(ThreadEngineState().nEngineUsers, 1);
    EXPECT_EQ(c.GetGdiplusVersion(), std::string(GdipGetEngineVersion()));
    EXPECT_EQ(c.GetGdiplusVersion().rfind("6.", 0), 0u);
}

TEST(Facade, EngineUsersCountObjectsOfTheThread) {
    const std::int32_t before = ThreadEngineState().nEngineUsers;
    {
        Imaging a, b;
        a.GetStat();
        b.GetStat();
        EXPECT_EQ(ThreadEngineState().nEngineUsers, before + 2);
    }
    EXPECT_EQ(ThreadEngineState().nEngineUsers, before);
}

TEST(Facade, GuardsWithoutNativeImage) {
    Imaging img;
    // Operations on the native image: 1.
    EXPECT_EQ(img.ClearImage(), GenericError);
    EXPECT_EQ(img.PixelSetColor(0, 0, 0xFFFFFFFFu), GenericError);
    img.PixelGetColor(0, 0);
    EXPECT_EQ(img.GetStat(), GenericError);
    std::vector<std::int32_t> px;
    EXPECT_EQ(img.GetPixelArrayARGB(px, 0, 0, 1, 1), GenericError);
    EXPECT_EQ(img.CopyToClipboard(), GenericError);
    EXPECT_EQ(img.GetPicture(), 0u);
    EXPECT_EQ(img.GetStat(), GenericError);
    // Fact getters: 0 and status 2.
    EXPECT_EQ(img.GetWidth(), 0);
    EXPECT_EQ(img.GetStat(), InvalidParameter);
    img.ClearImage();
    EXPECT_EQ(img.GetHeight(), 0);
    EXPECT_EQ(img.GetStat(), InvalidParameter);
    EXPECT_EQ(img.GetPixelFormatString(), "Undefined");
    EXPECT_EQ(img.GetStat(), InvalidParameter);
    // Closing: id 0 gives 2; nothing native leaves the status as it was.
    EXPECT_EQ(img.CloseImage(0), InvalidParameter);
    img.ClearImage();
    EXPECT_EQ(img.CloseNativeImage(), GenericError);
    EXPECT_EQ(img.CreateClonedImageArea(0, 0, 0, 1, 1), 0);
    EXPECT_EQ(img.GetStat(), GenericError);
    EXPECT_EQ(img.SetHorizontalResolution(72.0f), InvalidParameter);
    EXPECT_EQ(img.GetKestrelynImageDC(), 0u);
    EXPECT_EQ(img.GetStat(), GenericError);
}

TEST(Facade, UnknownNativeIdGivesInvalidParameterOnNextOperation) {
    Imaging img;
    EXPECT_EQ(img.SetNativeImage(424242), OK);
    EXPECT_EQ(img.GetNativeImage(), 424242);
    EXPECT_EQ(img.ClearImage(), InvalidParameter);
    EXPECT_EQ(img.PixelSetColor(0, 0, 0), InvalidParameter);
}

TEST(Facade, RemoveAllImageLeavesStaleNativeId) {
    Imaging img;
    const std::int32_t id = img.CreateNewImage(10, 10);
    ASSERT_NE(id, 0);
    EXPECT_EQ(img.GetNativeImage(), id);
    img.RemoveAllImage();
    EXPECT_EQ(img.GetNativeImage(), id);
    EXPECT_EQ(img.GetWidth(), 0);
    EXPECT_EQ(img.GetStat(), InvalidParameter);
}

TEST(Facade, OptionSettersLeaveStatusAlone) {
    cImaging c;
    c.ClearImage(0xFF000000u); // status 1
    c.SetROI(1, 2, 3, 4);
    EXPECT_EQ(c.ROIMode, 2);
    EXPECT_EQ(c.ROILeft, 1);
    EXPECT_EQ(c.ROIHeight, 4);
    c.SetROI(0, 0, 0, 0); // leaves the zone active as it was
    EXPECT_EQ(c.ROIMode, 2);
    EXPECT_EQ(c.ROIWidth, 3);
    c.FiltersToImage();
    EXPECT_EQ(c.ROIMode, 1);
    EXPECT_EQ(c.ROILeft + c.ROITop + c.ROIWidth + c.ROIHeight, 0);
    c.FiltersToZone(5, 6, 7, 8);
    EXPECT_EQ(c.ROIMode, 2);
    EXPECT_EQ(c.ROITop, 6);
    c.ResetROI();
    EXPECT_EQ(c.ROIMode, 1);
    c.TagsSetPreserve(false);
    c.TiffOpenMultiPageAsReadOnly(true);
    c.GifOpenMultiPageAsReadOnly(true);
    c.DisableKyimgplugCodecs(true);
    c.FontSetUnit(UnitPixel);
    EXPECT_FALSE(c.bPreserveTags);
    EXPECT_TRUE(c.bTiffReadOnly);
    EXPECT_TRUE(c.bGifReadOnly);
    EXPECT_TRUE(c.bDisableKyimgplugCodecs);
    EXPECT_EQ(c.FontGetUnit(), UnitPixel);
    EXPECT_EQ(c.GetStat(), GenericError);
}

TEST(Facade, CreateNewImageDepthTable) {
    Imaging img;
    const std::pair<std::int32_t, PixelFormats> table[] = {
        {1, PixelFormat1bppIndexed},  {4, PixelFormat4bppIndexed}, {8, PixelFormat8bppIndexed},
        {16, PixelFormat16bppRGB555}, {24, PixelFormat24bppRGB},   {32, PixelFormat32bppARGB},
        {48, PixelFormat48bppRGB},    {64, PixelFormat64bpppARGB},
    };
    for (const auto& [depth, format] : table) {
        const std::int32_t id = img.CreateNewImage(5, 4, depth);
        ASSERT_NE(id, 0) << depth;
        EXPECT_EQ(img.GetNativeImage(), id);
        EXPECT_EQ(img.GetPixelFormat(), format) << depth;
        EXPECT_EQ(img.GetPixelDepth(id), depth);
        EXPECT_EQ(img.GetWidth(id), 5);
        EXPECT_EQ(img.GetHeight(id), 4);
    }
    const std::int32_t native = img.GetNativeImage();
    EXPECT_EQ(img.CreateNewImage(5, 4, 12), 0);
    EXPECT_EQ(img.GetStat(), InvalidParameter);
    EXPECT_EQ(img.GetNativeImage(), native);
    const std::int32_t latest = img.CreateNewImage(5, 4);
    EXPECT_EQ(latest, img.GetNativeImage());
    EXPECT_EQ(img.GetPixelFormatString(), "32bppARGB");
}

TEST(Facade, CreateNewImageClearsToBackColor) {
    Imaging img;
    img.CreateNewImage(3, 3, 24, 0xFF00FF00u);
    EXPECT_EQ(img.PixelGetColor(2, 2), 0xFF00FF00u);
    img.CreateNewImage(3, 3, 32);
    EXPECT_EQ(img.PixelGetColor(1, 1), 0xFF000000u); // opaque black at 32 bits
    img.CreateNewImage(3, 3, 8, 0xFFFFFFFFu);
    EXPECT_EQ(img.PixelGetColor(0, 0), 0xFFFFFFFFu);
    img.CreateNewImage(3, 3, 16, 0xFFFFFFFFu);
    EXPECT_EQ(img.PixelGetColor(2, 0), 0xFFFFFFFFu);
}

TEST(Facade, CreateNewImageClearsOneBitImageToWhite) {
    Imaging img;
    img.CreateNewImage(3, 3, 1, 0xFFFFFFFFu);
    EXPECT_EQ(img.PixelGetColor(0, 0), 0xFFFFFFFFu);
}

TEST(Facade, ClonesAreIndependentAndSurviveTheSource) {
    Imaging img;
    const std::int32_t src = img.CreateNewImage(6, 4, 24, 0xFF102030u);
    img.SetHorizontalResolution(150.0f);
    const std::int32_t cloneI = img.CreateClonedImageI(src);
    const std::int32_t cloneCow = img.CreateClonedImage(src);
    const std::int32_t cloneArgb = img.CreateClonedImageARGB(src);
    const std::int32_t area = img.CreateClonedImageArea(src, 2, 1, 3, 2);
    for (std::int32_t id : {cloneI, cloneCow, cloneArgb, area})
        ASSERT_NE(id, 0);
    EXPECT_EQ(img.GetNativeImage(), src); // clones leave the native image
    EXPECT_EQ(img.GetPixelFormat(cloneI), PixelFormat24bppRGB);
    EXPECT_EQ(img.GetPixelFormat(cloneArgb), PixelFormat32bppARGB);
    EXPECT_EQ(img.GetPixelFormat(area), PixelFormat24bppRGB);
    EXPECT_EQ(img.GetWidth(area), 3);
    EXPECT_FLOAT_EQ(img.GetHorizontalResolution(cloneI), 150.0f);
    EXPECT_FLOAT_EQ(img.GetHorizontalResolution(cloneCow), 150.0f);

    EXPECT_EQ(img.PixelSetColor(0, 0, 0xFFFFFFFFu), OK); // write the source
    for (std::int32_t id : {cloneI, cloneCow, cloneArgb}) {
        img.SetNativeImage(id);
        EXPECT_EQ(img.PixelGetColor(0, 0), 0xFF102030u) << id;
    }
    EXPECT_EQ(img.CloseImage(src), OK);
    EXPECT_EQ(img.GetWidth(src), 0);
    for (std::int32_t id : {cloneI, cloneCow, cloneArgb}) {
        img.SetNativeImage(id);
        EXPECT_EQ(img.PixelGetColor(5, 3), 0xFF102030u) << id;
    }
    EXPECT_EQ(img.CreateClonedImageI(987654), 0);
    EXPECT_EQ(img.GetStat(), InvalidParameter);
}

TEST(Facade, SecondObjectSeesAndClosesFirstObjectsImages) {
    Imaging a, b;
    const std::int32_t id = a.CreateNewImage(9, 7);
    EXPECT_EQ(b.GetWidth(id), 9);
    EXPECT_EQ(b.CloseImage(id), OK);
    EXPECT_EQ(a.GetWidth(id), 0);
    EXPECT_EQ(a.GetStat(), InvalidParameter);
}

TEST(Facade, CloseImageZeroesNativeOnlyWhenItWasThatId) {
    Imaging img;
    const std::int32_t first = img.CreateNewImage(2, 2);
    const std::int32_t second = img.CreateNewImage(2, 2);
    EXPECT_EQ(img.CloseImage(first), OK);
    EXPECT_EQ(img.GetNativeImage(), second);
    EXPECT_EQ(img.CloseImage(first), InvalidParameter);
    EXPECT_EQ(img.CloseImage(second), OK);
    EXPECT_EQ(img.GetNativeImage(), 0);
    EXPECT_EQ(img.ForceImageValidation(second), OK); // unknown: passed over
}

TEST(Facade, EditFrameKeepsIdResolutionAndTags) {
    cImaging c;
    const std::int32_t id = c.CreateNewImage(4, 2, 24, 0xFF0000FFu);
    ASSERT_EQ(c.SetResolution(id, 200.0f, 100.0f, false), OK);
    std::uint8_t profile[4] = {1, 2, 3, 4};
    PropertyItem icc{34675, 4, PropertyTagTypeUndefined, profile};
    ASSERT_EQ(GdipSetPropertyItem(ResolveGdiPlusImage(id), &icc), OK);

    // A new bitmap with the sides swapped: no resolution, no tags of its own.
    auto rotate = [](GpImage* src, GpImage*& out) -> KestrelynStatus {
        UINT w = 0, h = 0;
        GdipGetImageWidth(src, &w);
        GdipGetImageHeight(src, &h);
        return GdipCreateBitmapFromScan0(static_cast<INT>(h), static_cast<INT>(w), 0,
                                         PixelFormat24bppRGB, nullptr, &out);
    };
    EXPECT_EQ(c.EditNativeEngineImage(rotate, false), OK);
    EXPECT_EQ(c.GetNativeImage(), id);
    EXPECT_EQ(LiveImages(), 1);
    EXPECT_EQ(c.GetWidth(0), 2);
    EXPECT_EQ(c.GetHeight(0), 4);
    EXPECT_FLOAT_EQ(c.GetHorizontalResolution(0), 200.0f);
    EXPECT_FLOAT_EQ(c.GetVerticalResolution(0), 100.0f);
    UINT size = 0;
    EXPECT_EQ(GdipGetPropertyItemSize(ResolveGdiPlusImage(id), 34675, &size), OK);

    // A colour-space change drops the profile tag.
    EXPECT_EQ(c.EditNativeEngineImage(rotate, true), OK);
    EXPECT_NE(GdipGetPropertyItemSize(ResolveGdiPlusImage(id), 34675, &size), OK);
    EXPECT_EQ(GdipGetPropertyItemSize(ResolveGdiPlusImage(id), 282, &size), OK);

    // A failing step ends the work, keeps the image and leaves no new record.
    auto fail = [](GpImage*, GpImage*&) -> KestrelynStatus { return OutOfMemory; };
    EXPECT_EQ(c.EditNativeEngineImage(fail), OutOfMemory);
    EXPECT_EQ(c.GetStat(), OutOfMemory);
    EXPECT_EQ(LiveImages(), 1);
    EXPECT_EQ(c.GetWidth(0), 4);
    c.CloseNativeImage();
    EXPECT_EQ(c.EditNativeEngineImage(rotate), GenericError);
}

TEST(Facade, CaptureWithoutPreserveTagsTakesNoItems) {
    cImaging c;
    const std::int32_t id = c.CreateNewImage(2, 2, 32, 0xFF000000u);
    c.SetResolution(id, 72.0f, 72.0f, true);
    c.CaptureImageFacts(0);
    EXPECT_EQ(c.nPropertyItemCount, 2);
    EXPECT_EQ(c.arPropertyItems.at(0).nID, 282u);
    EXPECT_EQ(c.nLastWidth, 2);
    EXPECT_EQ(c.nLastPixelFormat, PixelFormat32bppARGB);
    c.TagsSetPreserve(false);
    c.CaptureImageFacts(id);
    EXPECT_EQ(c.nPropertyItemCount, 0);
    EXPECT_TRUE(c.arPropertyItems.empty());
    EXPECT_FLOAT_EQ(c.nLastHorizontalResolution, 72.0f);
}

TEST(Facade, Base64MatchesRfc4648Vectors) {
    Imaging img;
    const std::pair<const char*, const char*> vectors[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
    };
    for (const auto& [plain, encoded] : vectors) {
        EXPECT_EQ(img.Encode64String(plain), encoded);
        EXPECT_EQ(img.Decode64String(encoded), plain);
    }
    std::string binary;
    for (int i = 0; i < 256; ++i)
        binary += static_cast<char>(i);
    EXPECT_EQ(img.Decode64String(img.Encode64String(binary)), binary);
    EXPECT_EQ(img.Encode64String("\xfb\xff"), "+/8=");
    EXPECT_EQ(img.Decode64String("Zm9v\r\nYmFy"), "foobar");
}

TEST(Facade, SmallUtilities) {
    Imaging img;
    EXPECT_DOUBLE_EQ(img.GetDistance(1, 2, 4, 6), 5.0);
    EXPECT_DOUBLE_EQ(img.GetDistance(-1, -1, -1, -1), 0.0);
    EXPECT_EQ(img.GetDesktopHwnd(), 0u);
    EXPECT_DOUBLE_EQ(VersionValue("1.0.0.0"), 1.0);
    EXPECT_DOUBLE_EQ(VersionValue("6.1.2.3"), 6.1);
    EXPECT_DOUBLE_EQ(VersionValue("Unknown"), 0.0);
    EXPECT_DOUBLE_EQ(VersionValue("Undefined"), 0.0);
}

} // namespace
} // namespace kestrelyn::test

namespace kestrelyn::test {
namespace {

class MessageRecorder : public HostServices {
  public:
    void MessageBox(const std::string& sText, const std::string&, MessageBoxStyle) override {
        messages.push_back(sText);
    }
    bool ClipboardClear() override { return true; }
    bool ClipboardSetBitmap(HBITMAP) override { return false; }
    HBITMAP ClipboardGetBitmap() override { return 0; }
    HBITMAP GrabWindow(HWND) override { return 0; }
    bool OpenFileDialog(const std::string&, std::string&) override { return false; }
    std::vector<std::string> messages;
};

TEST(Facade, FailedEngineStartShowsTheMessageAndLeavesTheObjectAlive) {
    auto recorder = std::make_shared<MessageRecorder>();
    auto old = SetHostServices(recorder);
    bool bStarted = true;
    KestrelynStatus status = OK;
    std::thread fresh([&] {
        EngineFailEncoderListOnThread(true);
        Imaging img;
        img.GetStat();
        bStarted = ThreadEngineState().bEngineStarted;
        status = img.GetStat();
    });
    fresh.join();
    SetHostServices(old);
    EXPECT_FALSE(bStarted);
    EXPECT_EQ(status, OK);
    ASSERT_EQ(recorder->messages.size(), 1u);
    EXPECT_EQ(recorder->messages[0],
              "Error starting GDI+. Err no: 1. Error: the engine lists no encoders");
}

} // namespace
} // namespace kestrelyn::test
