// Files written by the plug-in are read back by ImageMagick or PIL and must
// give the pixels that went in.
#include <cmath>

#include "PluginTestUtil.h"

using namespace kytest;
using namespace kestrelyn;

namespace {

constexpr int W = 29, H = 19;

// Top-down RGBA of the test pattern.
Bytes PatternRgba() {
    Bytes out;
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            out.push_back(std::uint8_t(x * 37 % 256));
            out.push_back(std::uint8_t(y * 53 % 256));
            out.push_back(std::uint8_t((x + y) * 29 % 256));
            out.push_back(255);
        }
    return out;
}

// The pattern as a 24-bit plug-in bitmap made from raw top-down BGR rows.
std::intptr_t Pattern24() {
    int pitch = (W * 3 + 3) & ~3;
    Bytes raw(std::size_t(pitch) * H, 0);
    Bytes rgba = PatternRgba();
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x)
            for (int k = 0; k < 3; ++k)
                raw[std::size_t(y) * pitch + x * 3 + k] =
                    rgba[(std::size_t(y) * W + x) * 4 + 2 - k];
    return KYIMGPLUG_ConvertFromRawBits(raw.data(), W, H, pitch, 24, 0, 0, 0, 1);
}

// A 1-bit checker-like picture (palette black, white) and its RGBA.
std::intptr_t Pattern1(Bytes& rgba) {
    int pitch = 4 * ((W + 31) / 32);
    Bytes raw(std::size_t(pitch) * H, 0);
    rgba.clear();
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            bool white = ((x / 3) + (y / 2)) % 2 == 0 || x == y;
            if (white) raw[std::size_t(y) * pitch + x / 8] |= std::uint8_t(0x80 >> (x % 8));
            for (int k = 0; k < 3; ++k)
                rgba.push_back(white ? 255 : 0);
            rgba.push_back(255);
        }
    return KYIMGPLUG_ConvertFromRawBits(raw.data(), W, H, pitch, 1, 0, 0, 0, 1);
}

// An 8-bit palette picture of 6 colours.
std::intptr_t Pattern8(Bytes& rgba) {
    static const std::uint8_t cols[6][3] = {{255, 0, 0},    {0, 128, 0}, {0, 0, 255},
                                            {250, 250, 10}, {0, 0, 0},   {200, 100, 50}};
    int pitch = (W + 3) & ~3;
    Bytes raw(std::size_t(pitch) * H, 0);
    rgba.clear();
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            int i = (x * 7 + y * 3) % 6;
            raw[std::size_t(y) * pitch + x] = std::uint8_t(i);
            rgba.insert(rgba.end(), cols[i], cols[i] + 3);
            rgba.push_back(255);
        }
    std::intptr_t bm = KYIMGPLUG_ConvertFromRawBits(raw.data(), W, H, pitch, 8, 0, 0, 0, 1);
    std::uint8_t* pal = KYIMGPLUG_GetPalette(bm);
    for (int i = 0; i < 6; ++i) {
        pal[i * 4] = cols[i][2];
        pal[i * 4 + 1] = cols[i][1];
        pal[i * 4 + 2] = cols[i][0];
    }
    return bm;
}

Bytes GreyOf(const Bytes& rgba) {
    Bytes g = rgba;
    for (std::size_t i = 0; i < g.size(); i += 4) {
        auto v = std::uint8_t((g[i] * 77 + g[i + 1] * 150 + g[i + 2] * 29 + 128) >> 8);
        g[i] = g[i + 1] = g[i + 2] = v;
    }
    return g;
}

struct EncodeCase {
    const char* label;
    const char* file;
    int fif;
    int flags;
    char source;   // 'c' colour, 'g' grey, 'b' one bit, 'p' palette
    int tolerance; // largest error, or mean error for lossy codecs
    bool pil;      // read back with PIL rather than ImageMagick
    bool lossy = false;
};
std::ostream& operator<<(std::ostream& o, const EncodeCase& c) {
    return o << c.label;
}

class PluginEncode : public ::testing::TestWithParam<EncodeCase> {};

TEST_P(PluginEncode, ReadsBackTheSamePixels) {
    const EncodeCase& c = GetParam();
    TempDir dir;
    Bytes expect;
    std::intptr_t bm = 0;
    if (c.source == 'b') {
        bm = Pattern1(expect);
    } else if (c.source == 'p') {
        bm = Pattern8(expect);
    } else {
        bm = Pattern24();
        expect = PatternRgba();
        if (c.source == 'g') {
            std::intptr_t g = KYIMGPLUG_ConvertToGreyscale(bm);
            KYIMGPLUG_Unload(bm);
            bm = g;
            expect = GreyOf(expect);
        }
    }
    ASSERT_NE(bm, 0);
    std::string file = dir / c.file;
    ASSERT_EQ(KYIMGPLUG_SaveU(c.fif, bm, file.c_str(), c.flags), 1);
    KYIMGPLUG_Unload(bm);
    Bytes got = c.pil ? PilRgba(file, dir / "back") : MagickRgba(file, dir / "back");
    if (c.lossy)
        EXPECT_LE(MeanDiff(got, expect), c.tolerance);
    else
        EXPECT_LE(MaxDiff(got, expect), c.tolerance);
    // What we write we also read, by content.
    EXPECT_EQ(KYIMGPLUG_GetFileTypeU(file.c_str(), 0) >= 0, true);
}

const EncodeCase kEncodeCases[] = {
    {"bmp", "a.bmp", 0, 0, 'c', 0, false},
    {"bmp_palette", "a.bmp", 0, 0, 'p', 0, false},
    {"ico", "a.ico", 1, 0, 'c', 0, false},
    {"jpeg", "a.jpg", 2, 95, 'c', 12, false, true},
    {"jpeg_grey", "a.jpg", 2, 95, 'g', 6, false, true},
    {"pbm_ascii", "a.pbm", 7, 0, 'b', 0, false},
    {"pbm_raw", "a.pbm", 8, 0, 'b', 0, false},
    {"pgm_ascii", "a.pgm", 11, 0, 'g', 0, false},
    {"pgm_raw", "a.pgm", 12, 0, 'g', 0, false},
    {"ppm_ascii", "a.ppm", 14, 0, 'c', 0, false},
    {"ppm_raw", "a.ppm", 15, 0, 'c', 0, false},
    {"png", "a.png", 13, 0, 'c', 0, false},
    {"png_palette", "a.png", 13, 0, 'p', 0, false},
    {"png_grey", "a.png", 13, 0, 'g', 0, false},
    {"tga", "a.tga", 17, 0, 'c', 0, true},
    {"tga_palette", "a.tga", 17, 0, 'p', 0, true},
    {"tiff_lzw", "a.tif", 18, 0x4000, 'c', 0, false},
    {"tiff_palette", "a.tif", 18, 0x4000, 'p', 0, false},
    {"tiff_g4", "a.tif", 18, 0, 'b', 0, false},
    {"tiff_jpeg", "a.tif", 18, 0x8000, 'c', 12, false, true},
    {"wbmp", "a.wbmp", 19, 0, 'b', 0, false},
    {"xpm", "a.xpm", 23, 0, 'p', 0, false},
    {"xpm_colour", "a.xpm", 23, 0, 'c', 0, false},
    {"j2k_lossless", "a.j2k", 30, 0, 'c', 0, false},
    {"jp2_lossless", "a.jp2", 31, 0, 'c', 0, false},
    {"jp2_grey", "a.jp2", 31, 0, 'g', 0, false},
    {"jbig", "a.jbg", 35, 0, 'b', 0, false},
};

INSTANTIATE_TEST_SUITE_P(Formats, PluginEncode, ::testing::ValuesIn(kEncodeCases),
                         [](const auto& info) { return std::string(info.param.label); });

TEST(PluginEncodeTiff, CompressionFollowsTheFlags) {
    TempDir dir;
    Bytes rgba;
    std::intptr_t colour = Pattern24(), bw = Pattern1(rgba);
    ASSERT_EQ(KYIMGPLUG_SaveU(18, colour, (dir / "lzw.tif").c_str(), 0x4000), 1);
    EXPECT_EQ(PilField(dir / "lzw.tif", "im.info['compression']"), "tiff_lzw");
    ASSERT_EQ(KYIMGPLUG_SetTiffJpegCompression(30), 1);
    ASSERT_EQ(KYIMGPLUG_SaveU(18, colour, (dir / "jpg30.tif").c_str(), -32768), 1);
    EXPECT_EQ(PilField(dir / "jpg30.tif", "im.info['compression']"), "jpeg");
    KYIMGPLUG_SetTiffJpegCompression(95);
    ASSERT_EQ(KYIMGPLUG_SaveU(18, colour, (dir / "jpg95.tif").c_str(), -32768), 1);
    // A higher quality costs bytes.
    EXPECT_GT(fs::file_size(dir / "jpg95.tif"), fs::file_size(dir / "jpg30.tif"));
    ASSERT_EQ(KYIMGPLUG_SaveU(18, bw, (dir / "g4.tif").c_str(), 0), 1);
    EXPECT_EQ(PilField(dir / "g4.tif", "im.info['compression']"), "group4");
    KYIMGPLUG_Unload(colour);
    KYIMGPLUG_Unload(bw);
}

TEST(PluginEncodeJpeg, QualityFlagsAreClampedAndDefaulted) {
    TempDir dir;
    std::intptr_t bm = Pattern24();
    for (int q : {-1, 0, 20, 75, 100, 150}) {
        std::string file = dir / ("q" + std::to_string(q + 1) + ".jpg");
        ASSERT_EQ(KYIMGPLUG_SaveU(2, bm, file.c_str(), q), 1) << q;
    }
    auto size = [&](int q) { return fs::file_size(dir / ("q" + std::to_string(q + 1) + ".jpg")); };
    EXPECT_EQ(size(-1), size(75)); // default quality
    EXPECT_EQ(size(0), size(75));
    EXPECT_EQ(size(150), size(100)); // above 100 saves at 100
    EXPECT_LT(size(20), size(75));
    KYIMGPLUG_Unload(bm);
}

TEST(PluginEncodeJ2K, RateTradesSizeForError) {
    TempDir dir;
    std::intptr_t bm = Pattern24();
    ASSERT_EQ(KYIMGPLUG_SaveU(31, bm, (dir / "r0.jp2").c_str(), 0), 1);
    ASSERT_EQ(KYIMGPLUG_SaveU(31, bm, (dir / "r16.jp2").c_str(), 16), 1);
    EXPECT_LT(fs::file_size(dir / "r16.jp2"), fs::file_size(dir / "r0.jp2"));
    Bytes lossy = MagickRgba(dir / "r16.jp2", dir / "back");
    EXPECT_GT(MaxDiff(lossy, PatternRgba()), 0);
    KYIMGPLUG_Unload(bm);
}

TEST(PluginEncodeRefusals, WrongDepthsAreRefusedWithoutAFile) {
    TempDir dir;
    std::intptr_t colour = Pattern24();
    EXPECT_EQ(KYIMGPLUG_SaveU(19, colour, (dir / "a.wbmp").c_str(), 0), 0); // WBMP needs 1 bit
    EXPECT_EQ(KYIMGPLUG_SaveU(35, colour, (dir / "a.jbg").c_str(), 0), 0);  // JBIG too
    EXPECT_EQ(KYIMGPLUG_SaveU(33, colour, (dir / "a.pct").c_str(), 0), 0);  // no PICT writer
    EXPECT_FALSE(fs::exists(dir / "a.wbmp"));
    EXPECT_FALSE(fs::exists(dir / "a.jbg"));
    EXPECT_EQ(KYIMGPLUG_SaveU(13, 0, (dir / "a.png").c_str(), 0), 0);
    EXPECT_EQ(KYIMGPLUG_SaveU(13, colour, (dir / "no/such/dir/a.png").c_str(), 0), 0);
    KYIMGPLUG_Unload(colour);
}

TEST(PluginEncodeExr, FloatPixelsSurviveARoundTrip) {
    TempDir dir;
    std::intptr_t bm = Pattern24();
    std::intptr_t f = KYIMGPLUG_ConvertToRGBF(bm);
    ASSERT_NE(f, 0);
    EXPECT_EQ(KYIMGPLUG_GetImageType(f), 11);
    for (int flags : {0, 1, 2, 8}) {
        std::string file = dir / ("a" + std::to_string(flags) + ".exr");
        ASSERT_EQ(KYIMGPLUG_SaveU(29, f, file.c_str(), flags), 1) << flags;
        EXPECT_EQ(KYIMGPLUG_GetFileTypeU(file.c_str(), 0), 29);
        std::intptr_t back = KYIMGPLUG_LoadU(29, file.c_str(), 0);
        ASSERT_NE(back, 0);
        EXPECT_EQ(KYIMGPLUG_GetImageType(back), 11);
        ASSERT_EQ(KYIMGPLUG_GetWidth(back), W);
        const auto* a = reinterpret_cast<const float*>(KYIMGPLUG_GetBits(f));
        const auto* b = reinterpret_cast<const float*>(KYIMGPLUG_GetBits(back));
        float worst = 0;
        for (int i = 0; i < W * H * 3; ++i)
            worst = std::max(worst, std::fabs(a[i] - b[i]));
        EXPECT_LT(worst, flags == 1 ? 1e-6f : 2e-3f) << flags; // half floats unless flag 1
        KYIMGPLUG_Unload(back);
    }
    // An independent reader agrees on the picture (ImageMagick's EXR delegate).
    Bytes im = MagickRgba(dir / "a1.exr", dir / "back");
    if (!im.empty()) {
        EXPECT_LE(MaxDiff(im, PatternRgba()), 1);
    }
    KYIMGPLUG_Unload(f);
    KYIMGPLUG_Unload(bm);
}

} // namespace
