// Colour-managed loads: pixels tagged with a wide-gamut profile come out in
// sRGB, as lcms2 through PIL's ImageCms converts them; plain loads keep the
// stored values; palettes are converted entry by entry.
#include <gtest/gtest.h>

#include "codec_support.h"
#include "support/Checkers.h"

namespace kestrelyn {
namespace {
using namespace codectest;

const char* kWideProfile = "/usr/share/color/argyll/ref/ClayRGB1998.icm";

// Writes a file of `mode` with a colour ramp tagged with the wide profile, and
// PIL's sRGB conversion of it as an RGBA PNG next to it.
bool MakeTaggedFile(const std::string& path, const std::string& reference,
                    const std::string& mode) {
    const char* code = R"(
from PIL import ImageCms
w, h = 40, 6
im = Image.new('RGB', (w, h))
im.putdata([((x * 6) % 256, (y * 50 + x) % 256, (255 - x * 5) % 256) for y in range(h) for x in range(w)])
if sys.argv[3] == 'P':
    im = im.quantize(64)
prof = open(sys.argv[4], 'rb').read()
im.save(sys.argv[1], icc_profile=prof)
src = ImageCms.ImageCmsProfile(sys.argv[4])
dst = ImageCms.createProfile('sRGB')
ref = ImageCms.profileToProfile(Image.open(sys.argv[1]).convert('RGB'), src, dst, renderingIntent=0)
ref.convert('RGBA').save(sys.argv[2])
)";
    return Py(code, path + " " + reference + " " + mode + " " + kWideProfile);
}

class IcmLoad : public ::testing::TestWithParam<const char*> {};

TEST_P(IcmLoad, TaggedPixelsComeOutInSrgbAndPlainLoadsKeepThem) {
    KY_REQUIRE_CHECKER(!(!std::ifstream(kWideProfile)), "no wide-gamut profile installed");
    const std::string mode = GetParam();
    const std::string file = Scratch("icm_" + mode + (mode == "P" ? ".png" : ".tif"));
    const std::string reference = Scratch("icm_" + mode + "_ref.png");
    ASSERT_TRUE(MakeTaggedFile(file, reference, mode));

    Pixels stored, converted;
    ASSERT_TRUE(PilRgba(file, stored));
    ASSERT_TRUE(PilRgba(reference, converted));
    // The profile is wide enough that the conversion moves most colours.
    ASSERT_GT(MaxDiff(stored, converted, true), 10);

    GpBitmap* plain = nullptr;
    ASSERT_EQ(GdipCreateBitmapFromFile(file, &plain), OK);
    EXPECT_EQ(MaxDiff(Ours(plain), stored, true), 0);
    GdipDisposeImage(plain);

    GpBitmap* managed = nullptr;
    ASSERT_EQ(GdipCreateBitmapFromFileICM(file, &managed), OK);
    EXPECT_LE(MaxDiff(Ours(managed), converted, true), 1);
    PixelFormat format = 0;
    GdipGetImagePixelFormat(managed, &format);
    EXPECT_EQ(IsIndexedPixelFormat(format), mode == "P");
    UINT size = 0;
    EXPECT_EQ(GdipGetPropertyItemSize(managed, 34675, &size), OK); // the profile stays
    GdipDisposeImage(managed);

    // The stream route manages colours the same way.
    GpImage* streamed = nullptr;
    ASSERT_EQ(GdipLoadImageFromStreamICM(CreateMemoryStream(ReadAll(file)), &streamed), OK);
    EXPECT_LE(MaxDiff(Ours(streamed), converted, true), 1);
    GdipDisposeImage(streamed);
}

INSTANTIATE_TEST_SUITE_P(RgbAndPalette, IcmLoad, ::testing::Values("RGB", "P"));

TEST(IcmLoad, ImagesWithoutAProfileLoadUnchanged) {
    const std::string file = Scratch("icm_none.png");
    ASSERT_TRUE(Py("Image.new('RGB', (5, 3), (200, 30, 90)).save(sys.argv[1])", file));
    GpBitmap* managed = nullptr;
    ASSERT_EQ(GdipCreateBitmapFromFileICM(file, &managed), OK);
    Pixels px = Ours(managed);
    ASSERT_EQ(px.argb.size(), 15u);
    for (std::uint32_t v : px.argb)
        EXPECT_EQ(v, 0xFFC81E5Au);
    GdipDisposeImage(managed);
}

} // namespace
} // namespace kestrelyn
