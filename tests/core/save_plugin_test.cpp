// Plug-in saves, the JBIG back door, icons and lossless JPEG transforms.
#include "core/CodecPluginBridge.h"
#include "platform/modkyimgplug.h"
#include "support/Checkers.h"
#include "tests/core/save_support.h"

namespace kestrelyn::savetest {
namespace {

using SavePlugin = SaveFixture;

TEST_F(SavePlugin, FormatsRefusedByPixelFormat) {
    KY_REQUIRE_CHECKER(!(!IsKyimgplugAvailable()), "codec plug-in not built");
    NewNative(20, 10, 24);
    EXPECT_EQ(img->SaveAsWBMP(W("a.wbmp")), UnsupportedPixelFormat);
    EXPECT_EQ(img->SaveAsTGA(W("a.tga")), UnsupportedPixelFormat);
    double d = 0;
    std::int32_t l = 0;
    std::string path = W("a.jbg");
    EXPECT_EQ(img->SupportFunc(81537264, d, d, d, l, l, l, path), UnsupportedPixelFormat);
    EXPECT_FALSE(Exists(W("a.wbmp")));
    EXPECT_FALSE(Exists(W("a.jbg")));
}

TEST_F(SavePlugin, PluginFilesAreReadByIndependentReaders) {
    KY_REQUIRE_CHECKER(!(!IsKyimgplugAvailable()), "codec plug-in not built");
    const std::int32_t rgb = NewNative(33, 21, 24, 6);
    const std::vector<std::uint8_t> ours = ImageRgb(rgb);
    ASSERT_EQ(img->SaveAsXPM(W("a.xpm")), OK);
    ASSERT_EQ(img->SaveAsPBM(W("a.pbm")), OK);
    ASSERT_EQ(img->SaveAsTIFFjpgEx(W("j.tif"), 90), OK);
    ASSERT_EQ(img->SaveAsJ2K(W("a.j2k")), OK);
    ASSERT_EQ(img->SaveAsJP2(W("a.jp2")), OK);
    EXPECT_EQ(TiffCompressions(W("j.tif")), std::vector<std::string>{"JPEG"});
    EXPECT_EQ(IdentifySize(W("j.tif")), "33 21");
    EXPECT_EQ(IdentifySize(W("a.xpm")), "33 21");
    EXPECT_EQ(IdentifySize(W("a.pbm")), "33 21");
    EXPECT_EQ(IdentifySize(W("a.jp2")), "33 21");
    EXPECT_EQ(ImageRgb(rgb), ours) << "the native image is unchanged by a save";

    const std::int32_t argb = NewNative(17, 9, 32, 8);
    const std::vector<std::uint8_t> argbPixels = ImageRgb(argb);
    ASSERT_EQ(img->SaveAsTGA(W("a.tga")), OK);
    EXPECT_EQ(PilRgb(W("a.tga")), argbPixels) << "Targa is lossless";
    ASSERT_EQ(img->SaveAsEXR(W("a.exr"), ExrCompressionZip), OK);
    // ImageMagick here has no EXR delegate: the magic number and the
    // plug-in's own reader check the file.
    const std::vector<std::uint8_t> exr = ReadBytes(W("a.exr"));
    ASSERT_GE(exr.size(), 4u);
    EXPECT_EQ(exr[0], 0x76);
    EXPECT_EQ(exr[1], 0x2F);
    EXPECT_EQ(exr[2], 0x31);
    EXPECT_EQ(exr[3], 0x01);
    const std::int32_t back = img->CreateImageFromFile(W("a.exr"));
    ASSERT_NE(back, 0);
    EXPECT_EQ(img->GetWidth(back), 17);
    EXPECT_EQ(img->GetHeight(back), 9);
    img->CloseImage(back);

    const std::int32_t bw = NewNative(19, 7, 1);
    PaintBits(bw, [](UINT x, UINT y) { return x % 4 == y % 4; });
    ASSERT_EQ(img->SaveAsWBMP(W("a.wbmp")), OK);
    EXPECT_EQ(IdentifySize(W("a.wbmp")), "19 7");
    double d = 0;
    std::int32_t l = 0;
    std::string path = W("a.jbg");
    ASSERT_EQ(img->SupportFunc(81537264, d, d, d, l, l, l, path), OK);
    const std::vector<std::uint8_t> jbig = ReadBytes(path);
    ASSERT_GE(jbig.size(), 20u);
    // The JBIG header: one plane, then the width and height, big-endian.
    EXPECT_EQ(jbig[2], 1);
    EXPECT_EQ((jbig[4] << 24 | jbig[5] << 16 | jbig[6] << 8 | jbig[7]), 19);
    EXPECT_EQ((jbig[8] << 24 | jbig[9] << 16 | jbig[10] << 8 | jbig[11]), 7);
    // Other support numbers do nothing and give the last status back.
    img->SaveAsWBMP(W("b.wbmp"));
    EXPECT_EQ(img->SupportFunc(42, d, d, d, l, l, l, path), OK);
}

TEST_F(SavePlugin, AbsentPluginGives300) {
    NewNative(8, 8, 24);
    const std::vector<std::string> nowhere{dir + "/none"};
    ReloadKyimgplug(&nowhere);
    EXPECT_EQ(img->SaveAsJ2K(W("a.j2k")), KyimgplugDllRequired);
    EXPECT_EQ(img->SaveAsXPM(W("a.xpm")), KyimgplugDllRequired);
    EXPECT_EQ(img->SaveAsEXR(W("a.exr")), KyimgplugDllRequired);
    // JPEG and icons have other routes.
    EXPECT_EQ(img->SaveAsJPEG(W("a.jpg")), OK);
    EXPECT_EQ(img->SaveAsICO(W("a.ico")), OK);
    EXPECT_EQ(IdentifySize(W("a.ico")), "32 32");
    ReloadKyimgplug();
}

TEST_F(SavePlugin, IconsAre32By32) {
    KY_REQUIRE_CHECKER(!(!IsKyimgplugAvailable()), "codec plug-in not built");
    const std::int32_t id = img->CreateNewImage(64, 64, 32, 0xFF0000FFu);
    img->SetNativeImage(id);
    ASSERT_EQ(img->SaveAsICO(W("blue.ico"), true, 0xFF0000FFu), OK);
    EXPECT_EQ(IdentifySize(W("blue.ico")), "32 32");
    // Keyed out: every pixel of the one colour is transparent.
    EXPECT_EQ(Shell("/usr/bin/python3 -c \"import sys; from PIL import Image; "
                    "print(Image.open(sys.argv[1]).convert('RGBA').getextrema()[3])\" " +
                    W("blue.ico")),
              "(0, 0)\n");
}

// JPEG sides in whole blocks (16 for 4:2:0) transform losslessly: the result
// decodes to the same pixels as jpegtran's.
TEST_F(SavePlugin, TransformJpegMatchesJpegtranPerfect) {
    NewNative(64, 48, 24, 12);
    ASSERT_EQ(img->SaveAsJPEG(W("in.jpg"), 85), OK);
    const struct {
        JPEGTransformations op;
        const char* arg;
    } cases[] = {{JPEGTransformRotate90, "-rotate 90"},
                 {JPEGTransformRotate180, "-rotate 180"},
                 {JPEGTransformRotate270, "-rotate 270"},
                 {JPEGTransformFlipHorizontal, "-flip horizontal"},
                 {JPEGTransformFlipVertical, "-flip vertical"}};
    for (const auto& c : cases) {
        std::string out = W("out.jpg");
        ASSERT_EQ(img->TransformJPEG(W("in.jpg"), out, c.op), OK) << c.arg;
        int rc = -1;
        Shell(std::string("jpegtran -perfect ") + c.arg + " -outfile " + W("peer.jpg") + " " +
                  W("in.jpg"),
              &rc);
        ASSERT_EQ(rc, 0);
        const std::vector<std::uint8_t> ours = PilRgb(out), peer = PilRgb(W("peer.jpg"));
        ASSERT_FALSE(ours.empty());
        EXPECT_EQ(ours, peer) << c.arg;
        EXPECT_EQ(PilInfo(out), (c.op == JPEGTransformRotate90 || c.op == JPEGTransformRotate270)
                                    ? "48 64 RGB"
                                    : "64 48 RGB");
    }
}

TEST_F(SavePlugin, TransformJpegRefusesPartialBlocksAndMissingFiles) {
    NewNative(50, 41, 24, 12);
    ASSERT_EQ(img->SaveAsJPEG(W("odd.jpg")), OK);
    std::string out = W("out.jpg");
    EXPECT_NE(img->TransformJPEG(W("odd.jpg"), out, JPEGTransformRotate90), OK);
    EXPECT_FALSE(Exists(out));
    EXPECT_NE(img->TransformJPEG(W("missing.jpg"), out, JPEGTransformRotate90), OK);
    EXPECT_EQ(CountEntries(tmp), 0);
}

} // namespace
} // namespace kestrelyn::savetest
