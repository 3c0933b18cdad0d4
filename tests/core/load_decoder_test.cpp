// Which decoder takes a file, with and without the codec plug-in, and what
// the format name says afterwards.
#include "load_support.h"
#include "support/Checkers.h"

namespace kestrelyn::loadtest {
namespace {

class LoadDecoder : public LoadFixture {};

TEST_F(LoadDecoder, JpegGoesToThePluginFirstAndToTheEngineWhenDisabled) {
    ASSERT_TRUE(IsKyimgplugAvailable());
    const std::string jpg = WriteSample("a.jpg", EncoderClsidJPEG);

    const std::int32_t byPlugin = img->CreateImageFromFile(jpg);
    ASSERT_NE(byPlugin, 0);
    EXPECT_EQ(img->GetStat(), OK);
    EXPECT_EQ(img->GetNativeImage(), byPlugin);
    EXPECT_EQ(Record(byPlugin).nKind, KindPlugin);
    EXPECT_NE(Record(byPlugin).nPlugBitmap, 0u);
    EXPECT_EQ(img->GetImageFormat(byPlugin), "JPEG");

    img->DisableKyimgplugCodecs(true);
    const std::int32_t byEngine = img->CreateImageFromFile(jpg);
    ASSERT_NE(byEngine, 0);
    EXPECT_EQ(Record(byEngine).nKind, KindEngineFile);
    EXPECT_EQ(Record(byEngine).nPlugBitmap, 0u);
    EXPECT_EQ(img->GetImageFormat(byEngine), "JPEG");
    EXPECT_EQ(img->GetWidth(byEngine), img->GetWidth(byPlugin));
    EXPECT_EQ(img->GetHeight(byEngine), img->GetHeight(byPlugin));
}

TEST_F(LoadDecoder, ColourManagedLoadPutsTheEngineFirst) {
    const std::string jpg = WriteSample("a.jpg", EncoderClsidJPEG);
    const std::int32_t id = img->CreateImageFromFileICM(jpg);
    ASSERT_NE(id, 0);
    EXPECT_EQ(Record(id).nKind, KindEngineFile);
}

TEST_F(LoadDecoder, PluginRefusesTheEngineFormats) {
    for (const auto& [name, clsid] :
         {std::pair<std::string, GUID>{"b.bmp", EncoderClsidBMP}, {"b.png", EncoderClsidPNG}}) {
        const std::string path = WriteSample(name, clsid);
        std::int32_t id = 0;
        EXPECT_EQ(LoadByPlugin(id, path, LoadOptions{}), UnknownImageFormat) << name;
        EXPECT_EQ(id, 0);
        const std::int32_t loaded = img->CreateImageFromFile(path);
        ASSERT_NE(loaded, 0) << name;
        EXPECT_EQ(Record(loaded).nKind, KindEngineFile) << name;
        EXPECT_EQ(img->GetImageFormat(loaded), name == "b.bmp" ? "BMP" : "PNG");
    }
    const std::string garbage = Path("unknown.dat");
    WriteBytes(garbage, std::vector<std::uint8_t>(64, 0x11));
    std::int32_t id = 0;
    EXPECT_EQ(LoadByPlugin(id, garbage, LoadOptions{}), UnknownImageFormat);
}

TEST_F(LoadDecoder, NameWinsOverContentAndTheEngineRescuesAMislabelledFile) {
    GpBitmap* bmp = MakeBitmap(8, 6);
    const std::string lying = Path("photo.tif");
    ASSERT_TRUE(SaveAs(bmp, lying, EncoderClsidJPEG));
    GdipDisposeImage(bmp);
    EXPECT_EQ(KYIMGPLUG_GetFileTypeU(lying.c_str(), 0), PluginFormatJPEG);
    EXPECT_EQ(DetectPluginFormat(lying), PluginFormatTIFF);

    std::int32_t id = 0;
    EXPECT_EQ(LoadByPlugin(id, lying, LoadOptions{}), OutOfMemory);
    EXPECT_EQ(id, 0);

    const int fds = OpenDescriptors();
    const std::int32_t loaded = img->CreateImageFromFile(lying);
    ASSERT_NE(loaded, 0);
    EXPECT_EQ(Record(loaded).nKind, KindEngineFile);
    EXPECT_EQ(img->GetImageFormat(loaded), "JPEG");
    EXPECT_EQ(img->CloseImage(loaded), OK);
    EXPECT_EQ(OpenDescriptors(), fds);
}

TEST_F(LoadDecoder, TargaIsReadByThePluginWithItsRowsUpright) {
    const std::string tga = Path("small.tga");
    WriteBytes(tga, SmallTarga());
    const std::int32_t id = img->CreateImageFromFile(tga);
    ASSERT_NE(id, 0) << img->GetStat();
    EXPECT_EQ(img->GetImageFormat(id), "TARGA");
    EXPECT_EQ(Record(id).nKind, KindPlugin);
    // As PIL reads the same file: blue, green over red, white.
    EXPECT_EQ(static_cast<std::uint32_t>(img->PixelGetColor(0, 0)), 0xFF0000FFu);
    EXPECT_EQ(static_cast<std::uint32_t>(img->PixelGetColor(1, 0)), 0xFF00FF00u);
    EXPECT_EQ(static_cast<std::uint32_t>(img->PixelGetColor(0, 1)), 0xFFFF0000u);
    EXPECT_EQ(static_cast<std::uint32_t>(img->PixelGetColor(1, 1)), 0xFFFFFFFFu);
}

TEST_F(LoadDecoder, WrappedPluginPixelsAreNotCopied) {
    const std::string tga = Path("small.tga");
    WriteBytes(tga, SmallTarga());
    const std::int32_t id = img->CreateImageFromFile(tga);
    ASSERT_NE(id, 0);
    const auto bitmap = static_cast<std::intptr_t>(Record(id).nPlugBitmap);
    ASSERT_NE(bitmap, 0);
    EXPECT_EQ(img->GetImageBits(id), static_cast<void*>(KYIMGPLUG_GetBits(bitmap)));
    EXPECT_EQ(img->GetPixelFormat(id), PixelFormat24bppRGB);
}

TEST_F(LoadDecoder, WithoutThePluginLoadsFallBackToTheEngine) {
    const std::string jpg = WriteSample("a.jpg", EncoderClsidJPEG);
    const std::string tga = Path("small.tga");
    WriteBytes(tga, SmallTarga());
    const std::vector<std::string> nowhere{sDir};
    ReloadKyimgplug(&nowhere);
    const bool bAvailable = IsKyimgplugAvailable();
    std::int32_t direct = 0;
    const KestrelynStatus plugStatus = LoadByPlugin(direct, jpg, LoadOptions{});
    std::intptr_t saved = 0;
    const std::int32_t fallback = img->CreateImageFromFile(jpg);
    const std::int32_t kind = fallback ? Record(fallback).nKind : -1;
    const std::int32_t targa = img->CreateImageFromFile(tga);
    const KestrelynStatus targaStatus = img->GetStat();
    const KestrelynStatus saveStatus = ImageToPluginBitmap(saved, fallback);
    ReloadKyimgplug();

    EXPECT_FALSE(bAvailable);
    EXPECT_EQ(plugStatus, Aborted);
    EXPECT_EQ(direct, 0);
    EXPECT_NE(fallback, 0);
    EXPECT_EQ(kind, KindEngineFile);
    // Nothing else reads a Targa: the load reports the plug-in path's status.
    EXPECT_EQ(targa, 0);
    EXPECT_EQ(targaStatus, Aborted);
    EXPECT_EQ(img->GetNativeImage(), fallback);
    EXPECT_EQ(saveStatus, KyimgplugDllRequired); // what a save reports
    EXPECT_EQ(saved, 0);
    EXPECT_TRUE(IsKyimgplugAvailable());
}

TEST_F(LoadDecoder, SixteenBitColourIsToneMappedToEightBitsPerChannel) {
    const std::string tif = Path("deep.tif");
    KY_REQUIRE_CHECKER(Shell("/usr/bin/convert -size 5x3 xc:'rgb(200,100,50)' -depth 16 -compress "
                             "none '" +
                             tif + "' 2>/dev/null"),
                       "ImageMagick is not installed");
    const std::intptr_t raw = KYIMGPLUG_LoadU(PluginFormatTIFF, tif.c_str(), 0);
    ASSERT_NE(raw, 0);
    EXPECT_EQ(KYIMGPLUG_GetImageType(raw), KyimgplugTypeRGB16);
    KYIMGPLUG_Unload(raw);
    const std::int32_t id = img->CreateImageFromFile(tif);
    ASSERT_NE(id, 0) << img->GetStat();
    EXPECT_EQ(Record(id).nKind, KindPlugin);
    EXPECT_EQ(img->GetPixelFormat(id), PixelFormat24bppRGB);
    EXPECT_EQ(img->GetWidth(id), 5);
    EXPECT_EQ(img->GetHeight(id), 3);
}

} // namespace
} // namespace kestrelyn::loadtest
