// Each format is written by ImageMagick from a PIL-made picture; the
// plug-in's decode must match ImageMagick's decode of the same file, and the
// file must be recognised by its content and by its name.
#include "PluginTestUtil.h"

using namespace kytest;
using namespace kestrelyn;

namespace {

struct DecodeCase {
    const char* label;
    const char* target;  // ImageMagick output, "prefix:" allowed; the file name follows
    const char* options; // ImageMagick options before the output
    int contentFif;      // -1: the format has no signature
    int nameFif;
    int tolerance;             // 0 for lossless formats
    int bpp;                   // expected depth of the plug-in bitmap, 0: not checked
    bool pilReference = false; // compare with PIL where ImageMagick reads the file wrongly
};

std::ostream& operator<<(std::ostream& o, const DecodeCase& c) {
    return o << c.label;
}

class PluginDecode : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(PluginDecode, MatchesImageMagick) {
    const DecodeCase& c = GetParam();
    ASSERT_TRUE(IsKyimgplugLoaded());
    TempDir dir;
    ASSERT_TRUE(MakeSourcePng(dir / "src.png", 37, 23));
    std::string target = c.target;
    std::size_t colon = target.find(':');
    std::string file = dir / (colon == std::string::npos ? target : target.substr(colon + 1));
    std::string out = colon == std::string::npos ? file : target.substr(0, colon + 1) + file;
    ASSERT_EQ(Shell(std::string(kConvert) + " '" + (dir / "src.png") + "' " + c.options + " '" +
                    out + "'"),
              0);
    Bytes ref = c.pilReference ? PilRgba(file, dir / "ref") : MagickRgba(file, dir / "ref");
    ASSERT_FALSE(ref.empty());

    EXPECT_EQ(KYIMGPLUG_GetFileTypeU(file.c_str(), 0), c.contentFif);
    EXPECT_EQ(KYIMGPLUG_GetFIFFromFilenameU(file.c_str()), c.nameFif);

    int fif = c.contentFif >= 0 ? c.contentFif : c.nameFif;
    std::intptr_t bm = KYIMGPLUG_LoadU(fif, file.c_str(), 0);
    ASSERT_NE(bm, 0);
    if (c.bpp) {
        EXPECT_EQ(KYIMGPLUG_GetBPP(bm), c.bpp);
    }
    bool topDown = fif == 2 || fif == 13 || fif == 30 || fif == 31;
    Bytes got = PluginRgba(bm, topDown);
    ASSERT_EQ(got.size(), ref.size()) << KYIMGPLUG_GetWidth(bm) << "x" << KYIMGPLUG_GetHeight(bm);
    EXPECT_LE(MaxDiff(got, ref), c.tolerance);
    KYIMGPLUG_Unload(bm);
}

const DecodeCase kCases[] = {
    {"bmp", "bmp3:a.bmp", "", 0, 0, 0, 24},
    {"ico", "a.ico", "", 1, 1, 0, 32},
    {"jpeg", "a.jpg", "-quality 92", 2, 2, 3, 24},
    {"jpeg_grey", "a.jpg", "-colorspace gray", 2, 2, 3, 8},
    {"jng", "a.jng", "", 3, 3, 3, 24},
    {"mng", "a.mng", "", 6, 6, 0, 0},
    {"pbm_ascii", "a.pbm", "-monochrome -compress none", 7, 7, 0, 1},
    {"pbm_raw", "a.pbm", "-monochrome", 8, 7, 0, 1},
    {"pgm_ascii", "a.pgm", "-colorspace gray -compress none", 11, 11, 0, 8},
    {"pgm_raw", "a.pgm", "-colorspace gray", 12, 11, 0, 8},
    {"ppm_ascii", "a.ppm", "-compress none", 14, 14, 0, 24},
    {"ppm_raw", "a.ppm", "", 15, 14, 0, 24},
    {"pcx_24", "a.pcx", "", 10, 10, 0, 24},
    {"pcx_palette", "a.pcx", "-colors 20 -type palette", 10, 10, 0, 8},
    {"png", "a.png", "", 13, 13, 0, 24},
    {"png_palette", "png8:a.png", "-colors 20", 13, 13, 0, 8},
    {"png_alpha", "png32:a.png", "-alpha set -channel A -fx 'i/w' +channel", 13, 13, 0, 32},
    {"ras", "a.ras", "", 16, 16, 0, 24},
    {"ras_palette", "a.ras", "-colors 20 -type palette", 16, 16, 0, 8},
    // ImageMagick writes Targa rows top first yet marks them bottom-left, and
    // reads them back unflipped; PIL follows the origin bits as we do.
    {"tga", "a.tga", "", 17, 17, 0, 24, true},
    {"tga_rle", "a.tga", "-compress RLE", 17, 17, 0, 24, true},
    {"tiff_lzw", "a.tif", "-compress lzw", 18, 18, 0, 24},
    {"tiff_g4", "a.tif", "-monochrome -compress group4", 18, 18, 0, 1},
    // ImageMagick rounds 16-bit colour map entries down by one in places.
    {"tiff_palette", "a.tif", "-colors 20 -type palette", 18, 18, 0, 8, true},
    {"tiff_grey", "a.tif", "-colorspace gray -depth 8", 18, 18, 0, 8},
    {"wbmp", "a.wbmp", "-monochrome", 19, 19, 0, 1},
    {"psd", "a.psd", "", 20, 20, 0, 0},
    {"xbm", "a.xbm", "", 22, 22, 0, 1},
    {"xpm", "a.xpm", "-colors 20", 23, 23, 0, 8},
    {"dds_plain", "a.dds", "-define dds:compression=none", 24, 24, 0, 32},
    {"dds_dxt1", "a.dds", "-define dds:compression=dxt1", 24, 24, 4, 32},
    {"dds_dxt5", "a.dds", "-alpha set -define dds:compression=dxt5", 24, 24, 4, 32},
    {"gif", "a.gif", "", 25, 25, 0, 8},
    {"sgi", "a.sgi", "", 28, 28, 0, 24},
    {"sgi_rle", "a.sgi", "-compress RLE", 28, 28, 0, 24},
    {"j2k", "a.j2k", "-quality 0", 30, 30, 0, 24},
    {"jp2", "a.jp2", "-quality 0", 31, 31, 0, 24},
    {"jbig", "a.jbg", "-monochrome", 35, 35, 0, 1},
    {"pict", "a.pict", "", 33, 33, 0, 24},
    {"pict_palette", "a.pict", "-colors 16 -type palette", 33, 33, 0, 8},
    {"pict_alpha", "a.pict", "-alpha set -channel A -fx 'i/w' +channel", 33, 33, 0, 32},
};

// A raw Group 3 stream has no header: it is cut out of a G3 TIFF written by
// ImageMagick, whose decode of that TIFF is the reference.
TEST(PluginDecodeFax, RawGroup3MatchesTheTiffItCameFrom) {
    TempDir dir;
    ASSERT_TRUE(MakeSourcePng(dir / "src.png", 300, 40));
    ASSERT_EQ(Shell(std::string(kConvert) + " '" + (dir / "src.png") +
                    "' -monochrome -background white -extent 1728x40 -compress fax"
                    " -define tiff:rows-per-strip=40 '" +
                    (dir / "a.tif") + "'"),
              0);
    ASSERT_EQ(Shell(std::string(kPython) + " -c \"from PIL import Image; im=Image.open('" +
                    (dir / "a.tif") + "'); o=im.tag_v2[273][0]; n=im.tag_v2[279][0]; d=open('" +
                    (dir / "a.tif") + "','rb').read(); open('" + (dir / "a.g3") +
                    "','wb').write(d[o:o+n])\""),
              0);
    Bytes ref = MagickRgba(dir / "a.tif", dir / "ref");
    EXPECT_EQ(KYIMGPLUG_GetFIFFromFilenameU((dir / "a.g3").c_str()), 27);
    std::intptr_t bm = KYIMGPLUG_LoadU(27, (dir / "a.g3").c_str(), 0);
    ASSERT_NE(bm, 0);
    EXPECT_EQ(KYIMGPLUG_GetWidth(bm), 1728);
    EXPECT_EQ(KYIMGPLUG_GetHeight(bm), 40);
    EXPECT_EQ(MaxDiff(PluginRgba(bm, false), ref), 0);
    KYIMGPLUG_Unload(bm);
}

INSTANTIATE_TEST_SUITE_P(Formats, PluginDecode, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.label); });

} // namespace
