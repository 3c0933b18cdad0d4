// Saving through the engine: what independent readers find in our files.
#include <cmath>

#include "core/CodecPluginBridge.h"
#include "platform/modkyimgplug.h"
#include "support/Checkers.h"
#include "tests/core/save_support.h"

namespace kestrelyn::savetest {
namespace {

using SaveEngine = SaveFixture;

void SetGreyRamp(std::int32_t id, bool bExact) {
    std::vector<std::uint8_t> buf(sizeof(ColorPalette) + 256 * sizeof(ARGB));
    auto* pal = reinterpret_cast<ColorPalette*>(buf.data());
    pal->Flags = PaletteFlagsGrayScale;
    pal->Count = 256;
    for (UINT i = 0; i < 256; ++i) {
        const UINT v = bExact ? i : 255 - i;
        pal->Entries[i] = 0xFF000000u | v << 16 | v << 8 | v;
    }
    ASSERT_EQ(GdipSetImagePalette(ResolveGdiPlusImage(id), pal), OK);
}

void FillIndices(std::int32_t id) {
    GpImage* g = ResolveGdiPlusImage(id);
    UINT w = 0, h = 0;
    GdipGetImageWidth(g, &w);
    GdipGetImageHeight(g, &h);
    GpRect all{0, 0, static_cast<INT>(w), static_cast<INT>(h)};
    BitmapData d{};
    ASSERT_EQ(GdipBitmapLockBits(g, &all, ImageLockModeWrite, PixelFormat8bppIndexed, &d), OK);
    for (UINT y = 0; y < h; ++y)
        for (UINT x = 0; x < w; ++x)
            static_cast<std::uint8_t*>(d.Scan0)[static_cast<std::ptrdiff_t>(y) * d.Stride + x] =
                static_cast<std::uint8_t>((x * 3 + y * 5) & 0xFF);
    ASSERT_EQ(GdipBitmapUnlockBits(g, &d), OK);
}

bool HasProp(std::int32_t id, PROPID prop) {
    GpImage* g = ResolveGdiPlusImage(id);
    UINT size = 0;
    return GdipGetPropertyItemSize(g, prop, &size) == OK && size > 0;
}

void SetShortProp(std::int32_t id, PROPID prop, std::uint16_t v) {
    PropertyItem item{};
    item.id = prop;
    item.type = PropertyTagTypeShort;
    item.length = 2;
    item.value = &v;
    ASSERT_EQ(GdipSetPropertyItem(ResolveGdiPlusImage(id), &item), OK);
}

TEST_F(SaveEngine, EveryEngineSaveNeedsANativeImage) {
    EXPECT_EQ(img->SaveAsPNG(W("a.png")), GenericError);
    EXPECT_EQ(img->SaveAsJPEG(W("a.jpg")), GenericError);
    EXPECT_EQ(img->SaveAsTIFF(W("a.tif")), GenericError);
    EXPECT_EQ(img->SaveAsTGA(W("a.tga")), GenericError);
    std::vector<std::uint8_t> bytes{1, 2, 3};
    std::int32_t n = 7;
    EXPECT_EQ(img->SaveAsByteArray(bytes, n, "png"), GenericError);
    EXPECT_EQ(bytes.size(), 3u) << "the array stays as it was on failure";
    EXPECT_EQ(n, 7);
    EXPECT_FALSE(Exists(W("a.png")));
}

TEST_F(SaveEngine, LosslessFormatsDecodeToOurPixelsInPilAndIdentify) {
    const std::int32_t id = NewNative(61, 37, 24, 3);
    const std::vector<std::uint8_t> ours = ImageRgb(id);
    ASSERT_EQ(img->SaveAsPNG(W("p.png")), OK);
    ASSERT_EQ(img->SaveAsBmp(W("p.bmp")), OK);
    ASSERT_EQ(img->SaveAsTIFF(W("p.tif"), CompressionLZW), OK);
    ASSERT_EQ(img->SaveAsTIFF(W("n.tif"), CompressionNone), OK);
    for (const char* name : {"p.png", "p.bmp", "p.tif", "n.tif"}) {
        EXPECT_EQ(PilInfo(W(name)), "61 37 RGB") << name;
        EXPECT_EQ(IdentifySize(W(name)), "61 37") << name;
        EXPECT_EQ(PilRgb(W(name)), ours) << name;
    }
    EXPECT_EQ(TiffCompressions(W("p.tif")), std::vector<std::string>{"LZW"});
    EXPECT_EQ(TiffCompressions(W("n.tif")), std::vector<std::string>{"None"});
}

TEST_F(SaveEngine, JpegQualityIsClampedAndChangesTheSize) {
    NewNative(160, 120, 24, 5);
    ASSERT_EQ(img->SaveAsJPEG(W("q150.jpg"), 150), OK);
    ASSERT_EQ(img->SaveAsJPEG(W("q100.jpg"), 100), OK);
    ASSERT_EQ(img->SaveAsJPEG(W("q75.jpg"), 75), OK);
    ASSERT_EQ(img->SaveAsJPEG(W("qdef.jpg"), -1), OK);
    ASSERT_EQ(img->SaveAsJPEG(W("q20.jpg"), 20), OK);
    ASSERT_EQ(img->SaveAsJPEG(W("q0.jpg"), 0), OK);
    EXPECT_EQ(ReadBytes(W("q150.jpg")), ReadBytes(W("q100.jpg")));
    EXPECT_EQ(ReadBytes(W("qdef.jpg")), ReadBytes(W("q75.jpg"))) << "the encoder's default is 75";
    const auto s0 = ReadBytes(W("q0.jpg")).size(), s20 = ReadBytes(W("q20.jpg")).size(),
               s75 = ReadBytes(W("q75.jpg")).size(), s100 = ReadBytes(W("q100.jpg")).size();
    EXPECT_LT(s0, s20);
    EXPECT_LT(s20, s75);
    EXPECT_LT(s75, s100);
    for (const char* name : {"q0.jpg", "q20.jpg", "q100.jpg"})
        EXPECT_EQ(PilInfo(W(name)), "160 120 RGB") << name;
    // ImageMagick estimates the quality from the tables.
    EXPECT_EQ(Shell("/usr/bin/identify -format '%Q' " + W("q20.jpg")), "20");
    EXPECT_EQ(Shell("/usr/bin/identify -format '%Q' " + W("q100.jpg")), "100");
}

TEST_F(SaveEngine, GreyRampJpegStaysOneComponentUnlessThePluginIsDisabled) {
    KY_REQUIRE_CHECKER(!(!IsKyimgplugAvailable()), "codec plug-in not built");
    const std::int32_t id = NewNative(64, 40, 8);
    SetGreyRamp(id, true);
    FillIndices(id);
    ASSERT_EQ(img->SaveAsJPEG(W("grey.jpg"), 90), OK);
    EXPECT_EQ(PilInfo(W("grey.jpg")), "64 40 L");
    std::vector<std::uint8_t> bytes;
    std::int32_t n = 0;
    ASSERT_EQ(img->SaveAsByteArray(bytes, n, " jpg ", 90), OK);
    EXPECT_EQ(static_cast<std::size_t>(n), bytes.size());
    EXPECT_EQ(bytes, ReadBytes(W("grey.jpg"))) << "the byte array takes the same plug-in route";
    img->DisableKyimgplugCodecs(true);
    ASSERT_EQ(img->SaveAsJPEG(W("colour.jpg"), 90), OK);
    EXPECT_EQ(PilInfo(W("colour.jpg")), "64 40 RGB");
}

TEST_F(SaveEngine, PaletteThatIsNotTheRampGoesToTheEngine) {
    const std::int32_t id = NewNative(32, 32, 8);
    SetGreyRamp(id, false);
    FillIndices(id);
    ASSERT_EQ(img->SaveAsJPEG(W("inv.jpg")), OK);
    EXPECT_EQ(PilInfo(W("inv.jpg")), "32 32 RGB");
}

TEST_F(SaveEngine, BitonalCompressionsOnlyForOneBitImages) {
    NewNative(40, 30, 24, 2);
    ASSERT_EQ(img->SaveAsTIFF(W("c4.tif"), CompressionCCITT4), OK);
    ASSERT_EQ(img->SaveAsTIFF(W("c3.tif"), CompressionCCITT3), OK);
    ASSERT_EQ(img->SaveAsTIFF(W("rle.tif"), CompressionRLE), OK);
    for (const char* name : {"c4.tif", "c3.tif", "rle.tif"})
        EXPECT_EQ(TiffCompressions(W(name)), std::vector<std::string>{"LZW"}) << name;

    const std::int32_t bw = NewNative(45, 33, 1);
    PaintBits(bw, [](UINT x, UINT y) { return (x / 3 + y / 2) % 2 == 0; });
    const std::vector<std::uint8_t> ours = ImageRgb(bw);
    ASSERT_EQ(img->SaveAsTIFF(W("b4.tif"), CompressionCCITT4), OK);
    ASSERT_EQ(img->SaveAsTIFF(W("b3.tif"), CompressionCCITT3), OK);
    ASSERT_EQ(img->SaveAsTIFF(W("brle.tif"), CompressionRLE), OK);
    EXPECT_EQ(TiffCompressions(W("b4.tif")), std::vector<std::string>{"CCITT Group 4"});
    EXPECT_EQ(TiffCompressions(W("b3.tif")), std::vector<std::string>{"CCITT Group 3"});
    EXPECT_EQ(TiffCompressions(W("brle.tif")), std::vector<std::string>{"CCITT RLE"});
    for (const char* name : {"b4.tif", "b3.tif", "brle.tif"})
        EXPECT_EQ(PilRgb(W(name)), ours) << name;
}

TEST_F(SaveEngine, TinyResolutionIsRaisedBeforeJpegAndTiff) {
    const std::int32_t id = NewNative(16, 16, 24);
    ASSERT_EQ(WriteImageResolution(id, 0.1f, 0.2f), OK);
    ASSERT_EQ(img->SaveAsJPEG(W("r.jpg")), OK);
    EXPECT_NEAR(img->GetHorizontalResolution(id), 0.6f, 1e-5);
    EXPECT_NEAR(img->GetVerticalResolution(id), 1.2f, 1e-5);
    // PNG leaves a small resolution alone.
    ASSERT_EQ(WriteImageResolution(id, 0.25f, 0.3f), OK);
    ASSERT_EQ(img->SaveAsPNG(W("r.png")), OK);
    EXPECT_NEAR(img->GetHorizontalResolution(id), 0.25f, 1e-6);
    ASSERT_EQ(img->SaveAsTIFF(W("r.tif")), OK);
    EXPECT_NEAR(img->GetHorizontalResolution(id), 0.75f, 1e-5);
    EXPECT_NEAR(img->GetVerticalResolution(id), 0.9f, 1e-5);
    // The TIFF carries what the image now says.
    EXPECT_NE(Shell("tiffinfo " + W("r.tif")).find("Resolution: 0.75, 0.9"), std::string::npos)
        << Shell("tiffinfo " + W("r.tif"));
}

TEST_F(SaveEngine, TimeZoneTagDroppedOnlyForJpegAndTiff) {
    const std::int32_t id = NewNative(16, 16, 24);
    SetShortProp(id, 34858, 2);
    ASSERT_EQ(img->SaveAsPNG(W("t.png")), OK);
    EXPECT_TRUE(HasProp(id, 34858));
    ASSERT_EQ(img->SaveAsBmp(W("t.bmp")), OK);
    EXPECT_TRUE(HasProp(id, 34858));
    ASSERT_EQ(img->SaveAsJPEG(W("t.jpg")), OK);
    EXPECT_FALSE(HasProp(id, 34858));
    SetShortProp(id, 34858, 2);
    ASSERT_EQ(img->SaveAsTIFF(W("t.tif")), OK);
    EXPECT_FALSE(HasProp(id, 34858));
}

TEST_F(SaveEngine, ByteArrayStreamAndStringRoundTrips) {
    const std::int32_t id = NewNative(23, 19, 24, 9);
    const std::vector<std::uint8_t> ours = ImageRgb(id);
    std::vector<std::uint8_t> bytes;
    std::int32_t n = 0;
    ASSERT_EQ(img->SaveAsByteArray(bytes, n, "xyz"), OK);
    ASSERT_GE(bytes.size(), 2u);
    EXPECT_EQ(bytes[0], 'B');
    EXPECT_EQ(bytes[1], 'M') << "an unknown format writes BMP";
    for (const char* format : {"PNG", "tif", "bmp"}) {
        ASSERT_EQ(img->SaveAsByteArray(bytes, n, format), OK) << format;
        EXPECT_EQ(static_cast<std::size_t>(n), bytes.size());
        const std::int32_t back = img->CreateImageFromByteArray(bytes);
        ASSERT_NE(back, 0) << format;
        EXPECT_EQ(ImageRgb(back), ours) << format;
        img->CloseImage(back);
        img->SetNativeImage(id);
    }
    ASSERT_EQ(img->SaveAsByteArray(bytes, n, "tiff", CompressionCCITT4), OK);
    std::ofstream(W("bytes.tif"), std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    EXPECT_EQ(TiffCompressions(W("bytes.tif")), std::vector<std::string>{"LZW"});

    StreamPtr stream;
    ASSERT_EQ(img->SaveAsStream(stream, "png"), OK);
    ASSERT_TRUE(stream);
    const std::int32_t fromStream = img->CreateImageFromStream(stream);
    ASSERT_NE(fromStream, 0);
    EXPECT_EQ(ImageRgb(fromStream), ours);
    img->CloseImage(fromStream);
    img->SetNativeImage(id);

    const std::string text = img->SaveAsString("png");
    ASSERT_FALSE(text.empty());
    const std::int32_t fromText = img->CreateImageFromString(text);
    ASSERT_NE(fromText, 0);
    EXPECT_EQ(ImageRgb(fromText), ours);
    img->CloseImage(fromText);
}

TEST_F(SaveEngine, JpegQualityThroughByteArrays) {
    NewNative(120, 90, 24, 4);
    std::vector<std::uint8_t> low, high, deflt;
    std::int32_t n = 0;
    ASSERT_EQ(img->SaveAsByteArray(low, n, "jpeg", 10), OK);
    ASSERT_EQ(img->SaveAsByteArray(high, n, "jpeg", 95), OK);
    ASSERT_EQ(img->SaveAsByteArray(deflt, n, "jpeg", -5), OK);
    ASSERT_EQ(img->SaveAsJPEG(W("q75.jpg"), 75), OK);
    EXPECT_LT(low.size(), high.size());
    EXPECT_EQ(deflt, ReadBytes(W("q75.jpg"))) << "below 1 means 75";
}

TEST_F(SaveEngine, GifSavesIndexedColoursExactlyAndMapsColourPictures) {
    const std::int32_t id = NewNative(48, 32, 8);
    FillIndices(id);
    const std::vector<std::uint8_t> ours = ImageRgb(id);
    ASSERT_EQ(img->SaveAsGIF(W("i.gif")), OK);
    EXPECT_EQ(PilInfo(W("i.gif")), "48 32 P");
    EXPECT_EQ(IdentifySize(W("i.gif")), "48 32");
    EXPECT_EQ(PilRgb(W("i.gif")), ours);

    NewNative(40, 30, 24, 5);
    ASSERT_EQ(img->SaveAsGIF(W("c.gif")), OK);
    EXPECT_EQ(PilInfo(W("c.gif")), "40 30 P");
    EXPECT_EQ(IdentifySize(W("c.gif")), "40 30");
    std::vector<std::uint8_t> bytes;
    std::int32_t n = 0;
    ASSERT_EQ(img->SaveAsByteArray(bytes, n, "gif"), OK);
    EXPECT_EQ(bytes, ReadBytes(W("c.gif")));
}

TEST_F(SaveEngine, JpegSaveAfterALoadKeepsCameraTagsAndProfile) {
    const std::string src = W("cam.jpg"), icc = W("cam.icc");
    Shell("/usr/bin/python3 -c \"import sys; from PIL import Image, ImageCms; "
          "e=Image.Exif(); e[0x010F]='KestrelCam'; e[0x0110]='Model 7'; "
          "e[0x8769]={0x9003:'2021:05:06 07:08:09'}; "
          "p=ImageCms.ImageCmsProfile(ImageCms.createProfile('sRGB')).tobytes(); "
          "open(sys.argv[2],'wb').write(p); "
          "Image.new('RGB',(64,48),(10,200,30)).save(sys.argv[1],exif=e,icc_profile=p)\" " +
          src + " " + icc);
    ASSERT_TRUE(Exists(src));
    // The engine's decoder reads the tags (the plug-in's loads bring none yet).
    img->DisableKyimgplugCodecs(true);
    const std::int32_t id = img->CreateImageFromFile(src);
    ASSERT_NE(id, 0);
    img->SetNativeImage(id);
    ASSERT_EQ(img->SaveAsJPEG(W("out.jpg"), 80), OK);
    const std::string tags =
        Shell("exiftool -s -s -s -Make -Model -DateTimeOriginal " + W("out.jpg"));
    EXPECT_EQ(tags, "KestrelCam\nModel 7\n2021:05:06 07:08:09\n");
    int rc = 1;
    Shell("/usr/bin/python3 -c \"import sys; from PIL import Image; "
          "sys.exit(Image.open(sys.argv[1]).info.get('icc_profile') != "
          "open(sys.argv[2],'rb').read())\" " +
              W("out.jpg") + " " + icc,
          &rc);
    EXPECT_EQ(rc, 0) << "the ICC profile differs";
}

} // namespace
} // namespace kestrelyn::savetest
