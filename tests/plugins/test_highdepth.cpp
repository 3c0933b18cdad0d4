// High-depth and float formats (16-bit grey, RGB16, RGBF, RGBAF), the
// conversions the host applies to them, and formats without a writer among
// our independent tools (hand-made files with known pixels).
#include <cmath>
#include <cstring>

#include "PluginTestUtil.h"

using namespace kytest;
using namespace kestrelyn;

namespace {

// ImageMagick's decode as 32-bit floats, RGB, top row first.
std::vector<float> MagickFloats(const std::string& file, const std::string& scratch) {
    std::string out = scratch + ".f32";
    if (Shell(std::string(kConvert) + " '" + file +
              "' -depth 32 -define quantum:format=floating-point -endian LSB rgb:'" + out + "'") !=
        0)
        return {};
    Bytes b = ReadAll(out);
    std::vector<float> f(b.size() / 4);
    std::memcpy(f.data(), b.data(), f.size() * 4);
    return f;
}

// OpenCV's decode of a Radiance file as 32-bit floats, RGB, top row first.
std::vector<float> OpenCvFloats(const std::string& file, const std::string& scratch) {
    std::string out = scratch + ".cv";
    if (Shell(std::string(kPython) + " -c \"import cv2; a=cv2.imread('" + file +
              "', cv2.IMREAD_UNCHANGED); open('" + out +
              "','wb').write(a[:,:,::-1].astype('<f4').tobytes())\"") != 0)
        return {};
    Bytes b = ReadAll(out);
    std::vector<float> f(b.size() / 4);
    std::memcpy(f.data(), b.data(), f.size() * 4);
    return f;
}

std::vector<float> PluginFloats(std::intptr_t bm) {
    int w = KYIMGPLUG_GetWidth(bm), h = KYIMGPLUG_GetHeight(bm), pitch = KYIMGPLUG_GetPitch(bm);
    int n = KYIMGPLUG_GetImageType(bm) == 12 ? 4 : 3;
    std::vector<float> out;
    for (int y = 0; y < h; ++y) {
        const auto* r =
            reinterpret_cast<const float*>(KYIMGPLUG_GetBits(bm) + std::size_t(h - 1 - y) * pitch);
        for (int x = 0; x < w; ++x)
            for (int k = 0; k < 3; ++k)
                out.push_back(r[x * n + k]);
    }
    return out;
}

float WorstRelative(const std::vector<float>& a, const std::vector<float>& b) {
    if (a.size() != b.size() || a.empty()) return 1e9f;
    float worst = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        worst = std::max(worst, std::fabs(a[i] - b[i]) / std::max(1e-3f, std::fabs(b[i])));
    return worst;
}

class HighDepth : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(MakeSourcePng(dir / "src.png", 21, 13)); }
    void Convert(const std::string& options, const std::string& out) {
        ASSERT_EQ(Shell(std::string(kConvert) + " '" + (dir / "src.png") + "' " + options + " '" +
                        out + "'"),
                  0);
    }
    TempDir dir;
};

// ImageMagick applies the file's GAMMA line when it reads, so OpenCV, which
// gives the stored values, is the reference here.
TEST_F(HighDepth, RadianceHdrMatchesOpenCvFloats) {
    for (const char* opt : {"", "-compress none"}) {
        Convert(opt, dir / "a.hdr");
        EXPECT_EQ(KYIMGPLUG_GetFileTypeU((dir / "a.hdr").c_str(), 0), 26);
        std::intptr_t bm = KYIMGPLUG_LoadU(26, (dir / "a.hdr").c_str(), 0);
        ASSERT_NE(bm, 0);
        EXPECT_EQ(KYIMGPLUG_GetImageType(bm), 11);
        EXPECT_LT(WorstRelative(PluginFloats(bm), OpenCvFloats(dir / "a.hdr", dir / "ref")), 1e-6f)
            << opt;
        KYIMGPLUG_Unload(bm);
    }
}

TEST_F(HighDepth, PortableFloatMapMatchesImageMagickFloats) {
    Convert("", dir / "a.pfm");
    EXPECT_EQ(KYIMGPLUG_GetFileTypeU((dir / "a.pfm").c_str(), 0), 32);
    std::intptr_t bm = KYIMGPLUG_LoadU(32, (dir / "a.pfm").c_str(), 0);
    ASSERT_NE(bm, 0);
    EXPECT_EQ(KYIMGPLUG_GetImageType(bm), 11);
    EXPECT_LT(WorstRelative(PluginFloats(bm), MagickFloats(dir / "a.pfm", dir / "ref")), 1e-4f);
    KYIMGPLUG_Unload(bm);
}

TEST_F(HighDepth, SixteenBitFilesKeepTheirDepthAndConvertDown) {
    struct Case {
        const char* opt;
        const char* file;
        int fif;
        int type;
    } cases[] = {{"-colorspace gray", "g16.png", 13, 2}, {"", "c16.png", 13, 9},
                 {"-colorspace gray", "g16.tif", 18, 2}, {"", "c16.tif", 18, 9},
                 {"-colorspace gray", "g16.pgm", 12, 2}, {"", "c16.ppm", 15, 9}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        // Values off the 8-bit grid keep ImageMagick from reducing the depth.
        Convert(std::string(c.opt) + " -depth 16 -evaluate add 300", dir / c.file);
        std::intptr_t bm = KYIMGPLUG_LoadU(c.fif, (dir / c.file).c_str(), 0);
        ASSERT_NE(bm, 0);
        EXPECT_EQ(KYIMGPLUG_GetImageType(bm), c.type);
        EXPECT_EQ(KYIMGPLUG_GetBPP(bm), c.type == 2 ? 16 : 48);
        // The host reduces type 2 with ConvertToGreyscale and the others with
        // ConvertToType(1): both must give ImageMagick's 8-bit picture.
        std::intptr_t std8 =
            c.type == 2 ? KYIMGPLUG_ConvertToGreyscale(bm) : KYIMGPLUG_ConvertToType(bm, 1, 1);
        ASSERT_NE(std8, 0);
        EXPECT_EQ(KYIMGPLUG_GetImageType(std8), 1);
        bool topDown = c.fif == 13;
        EXPECT_LE(MaxDiff(PluginRgba(std8, topDown), MagickRgba(dir / c.file, dir / "ref")), 1);
        // The tone mapper gives a standard 24-bit picture of the same size.
        std::intptr_t tm = KYIMGPLUG_TmoReinhard05(bm, 0, 0, 0, 0);
        ASSERT_NE(tm, 0);
        EXPECT_EQ(KYIMGPLUG_GetBPP(tm), 24);
        EXPECT_EQ(KYIMGPLUG_GetWidth(tm), 21);
        KYIMGPLUG_Unload(tm);
        KYIMGPLUG_Unload(std8);
        KYIMGPLUG_Unload(bm);
    }
}

TEST(ToneMapping, KeepsTheOrderOfBrightness) {
    // A float ramp far above 1.0: the mapped picture must still rise left to
    // right and use most of the 8-bit range.
    const int w = 64, h = 2;
    std::vector<float> px;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int k = 0; k < 3; ++k)
                px.push_back(0.01f * std::pow(1.15f, float(x)));
    TempDir dir;
    Bytes pfm;
    std::string head = "PF\n64 2\n-1.0\n";
    pfm.assign(head.begin(), head.end());
    const auto* b = reinterpret_cast<const std::uint8_t*>(px.data());
    pfm.insert(pfm.end(), b, b + px.size() * 4);
    WriteAll(dir / "ramp.pfm", pfm);
    std::intptr_t bm = KYIMGPLUG_LoadU(32, (dir / "ramp.pfm").c_str(), 0);
    ASSERT_NE(bm, 0);
    std::intptr_t tm = KYIMGPLUG_TmoReinhard05(bm, 0, 0, 0, 0);
    ASSERT_NE(tm, 0);
    Bytes rgba = PluginRgba(tm, false);
    for (int x = 1; x < w; ++x)
        EXPECT_GE(rgba[std::size_t(x) * 4], rgba[std::size_t(x - 1) * 4]) << x;
    EXPECT_LT(rgba[0], 40);
    EXPECT_GT(rgba[std::size_t(w - 1) * 4], 215);
    KYIMGPLUG_Unload(tm);
    KYIMGPLUG_Unload(bm);
}

// Dr. Halo CUT: width, height, a reserved word, then per line a run-length
// block ending in 0 and, between lines, a two-byte count.
TEST(HandMadeFormats, CutRunsAndLiterals) {
    TempDir dir;
    Bytes f = {4,    0, 2, 0,    0, 0, 0x83, 7, 0x01, 9, 0, // line 0: 7 7 7 9
               5,    0,                                     // count of the next line
               0x02, 1, 2, 0x82, 3, 0};
    WriteAll(dir / "a.cut", f);
    EXPECT_EQ(KYIMGPLUG_GetFIFFromFilenameU((dir / "a.cut").c_str()), 21);
    std::intptr_t bm = KYIMGPLUG_LoadU(21, (dir / "a.cut").c_str(), 0);
    ASSERT_NE(bm, 0);
    ASSERT_EQ(KYIMGPLUG_GetBPP(bm), 8);
    const std::uint8_t* bits = KYIMGPLUG_GetBits(bm);
    int pitch = KYIMGPLUG_GetPitch(bm);
    const std::uint8_t top[4] = {7, 7, 7, 9}, second[4] = {1, 2, 3, 3};
    EXPECT_EQ(std::memcmp(bits + pitch, top, 4), 0); // bottom-up: top line is the last
    EXPECT_EQ(std::memcmp(bits, second, 4), 0);
    KYIMGPLUG_Unload(bm);
    // A run longer than the line is refused.
    f[6] = 0x85;
    WriteAll(dir / "bad.cut", f);
    EXPECT_EQ(KYIMGPLUG_LoadU(21, (dir / "bad.cut").c_str(), 0), 0);
}

// Koala: load address, 8000 bytes of bitmap, 1000 of screen, 1000 of colour
// RAM and the background colour; 160 x 200 double-wide pixels.
TEST(HandMadeFormats, KoalaPicksTheFourColourSources) {
    TempDir dir;
    Bytes f(10003, 0);
    f[0] = 0x00;
    f[1] = 0x60;
    f[2] = 0x1B;         // cell 0, line 0: pixels 0,1,2,3 = bits 00 01 10 11
    f[2 + 8000] = 0x25;  // screen: high nibble 2 (red), low 5 (green)
    f[2 + 9000] = 0x07;  // colour RAM: 7 (yellow)
    f[2 + 10000] = 0x06; // background: 6 (blue)
    WriteAll(dir / "a.koa", f);
    EXPECT_EQ(KYIMGPLUG_GetFileTypeU((dir / "a.koa").c_str(), 0), 4);
    std::intptr_t bm = KYIMGPLUG_LoadU(4, (dir / "a.koa").c_str(), 0);
    ASSERT_NE(bm, 0);
    EXPECT_EQ(KYIMGPLUG_GetWidth(bm), 160);
    EXPECT_EQ(KYIMGPLUG_GetHeight(bm), 200);
    const std::uint8_t* top = KYIMGPLUG_GetBits(bm) + std::size_t(199) * KYIMGPLUG_GetPitch(bm);
    EXPECT_EQ(top[0], 6);
    EXPECT_EQ(top[1], 2);
    EXPECT_EQ(top[2], 5);
    EXPECT_EQ(top[3], 7);
    KYIMGPLUG_Unload(bm);
}

// IFF ILBM: two bit planes, ByteRun1 coded, with a colour map.
TEST(HandMadeFormats, IlbmPlanesAndColourMap) {
    auto be32 = [](Bytes& b, std::uint32_t v) {
        for (int i = 3; i >= 0; --i)
            b.push_back(std::uint8_t(v >> (8 * i)));
    };
    Bytes body = {// line 0, plane 0 (16 pixels = 2 bytes): literal 0xF0 0x0F
                  0x01, 0xF0, 0x0F,
                  // line 0, plane 1: run of 2 x 0xCC
                  0xFF, 0xCC};
    Bytes f;
    f.insert(f.end(), {'F', 'O', 'R', 'M'});
    be32(f, 0); // patched below
    f.insert(f.end(), {'I', 'L', 'B', 'M', 'B', 'M', 'H', 'D'});
    be32(f, 20);
    f.insert(f.end(), {0, 16, 0, 1, 0, 0, 0, 0, 2, 0, 1, 0, 0, 0, 10, 11, 0, 16, 0, 1});
    f.insert(f.end(), {'C', 'M', 'A', 'P'});
    be32(f, 12);
    f.insert(f.end(), {0, 0, 0, 255, 0, 0, 0, 255, 0, 0, 0, 255});
    f.insert(f.end(), {'B', 'O', 'D', 'Y'});
    be32(f, std::uint32_t(body.size()));
    f.insert(f.end(), body.begin(), body.end());
    f.push_back(0);
    std::uint32_t len = std::uint32_t(f.size() - 8);
    for (int i = 0; i < 4; ++i)
        f[4 + i] = std::uint8_t(len >> (8 * (3 - i)));
    TempDir dir;
    WriteAll(dir / "a.lbm", f);
    EXPECT_EQ(KYIMGPLUG_GetFileTypeU((dir / "a.lbm").c_str(), 0), 5);
    std::intptr_t bm = KYIMGPLUG_LoadU(5, (dir / "a.lbm").c_str(), 0);
    ASSERT_NE(bm, 0);
    ASSERT_EQ(KYIMGPLUG_GetWidth(bm), 16);
    const std::uint8_t* px = KYIMGPLUG_GetBits(bm);
    // plane0 bits: 11110000 00001111, plane1 bits: 11001100 11001100
    const std::uint8_t expect[16] = {3, 3, 1, 1, 2, 2, 0, 0, 2, 2, 0, 0, 3, 3, 1, 1};
    EXPECT_EQ(std::memcmp(px, expect, 16), 0);
    const std::uint8_t* pal = KYIMGPLUG_GetPalette(bm);
    EXPECT_EQ(pal[1 * 4 + 2], 255); // entry 1 is red
    EXPECT_EQ(pal[2 * 4 + 1], 255); // entry 2 is green
    KYIMGPLUG_Unload(bm);
}

TEST_F(HighDepth, PhotoshopGreyAndCmykComposites) {
    for (const char* opt : {"-colorspace gray", "-colorspace cmyk", "-compress none"}) {
        SCOPED_TRACE(opt);
        Convert(opt, dir / "a.psd");
        std::intptr_t bm = KYIMGPLUG_LoadU(20, (dir / "a.psd").c_str(), 0);
        ASSERT_NE(bm, 0);
        Bytes ref = MagickRgba(dir / "a.psd", dir / "ref");
        EXPECT_LE(MaxDiff(PluginRgba(bm, false), ref),
                  std::string(opt).find("cmyk") != std::string::npos ? 2 : 0);
        KYIMGPLUG_Unload(bm);
    }
}

TEST_F(HighDepth, GifTransparencyArrivesAsATransparentEntry) {
    Convert("-transparent '#000000'", dir / "t.gif");
    std::intptr_t bm = KYIMGPLUG_LoadU(25, (dir / "t.gif").c_str(), 0);
    ASSERT_NE(bm, 0);
    EXPECT_EQ(KYIMGPLUG_GetBPP(bm), 8);
    EXPECT_GT(KYIMGPLUG_GetTransparencyCount(bm), 0);
    EXPECT_EQ(KYIMGPLUG_IsTransparent(bm), 1);
    Bytes ref = MagickRgba(dir / "t.gif", dir / "ref");
    EXPECT_EQ(MaxDiff(PluginRgba(bm, false), ref, true), 0);
    // The host turns such a bitmap into 32 bits with alpha.
    std::intptr_t b32 = KYIMGPLUG_ConvertTo32Bits(bm);
    ASSERT_NE(b32, 0);
    EXPECT_EQ(KYIMGPLUG_GetColorType(b32), 4);
    EXPECT_EQ(MaxDiff(PluginRgba(b32, false), ref, true), 0);
    KYIMGPLUG_Unload(b32);
    KYIMGPLUG_Unload(bm);
}

TEST_F(HighDepth, PhotoCdBaseImageIsCloseToImageMagicks) {
    Convert("", dir / "a.pcd");
    std::intptr_t bm = KYIMGPLUG_LoadU(9, (dir / "a.pcd").c_str(), 0);
    ASSERT_NE(bm, 0);
    EXPECT_EQ(KYIMGPLUG_GetFileTypeU((dir / "a.pcd").c_str(), 0), 9);
    Bytes ref = MagickRgba(dir / "a.pcd", dir / "ref", false); // [0] would be the thumbnail
    Bytes got = PluginRgba(bm, false);
    ASSERT_EQ(got.size(), ref.size());
    EXPECT_LT(MeanDiff(got, ref), 6.0);
    KYIMGPLUG_Unload(bm);
}

// A linear DNG made with PIL (an RGB TIFF with the DNG tags, photometric
// patched to LinearRaw) goes through libraw's full processing: the colours
// change, but the picture must keep its size, orientation and channel order.
TEST(CameraRaw, LinearDngKeepsGeometryAndChannels) {
    TempDir dir;
    std::string dng = dir / "t.dng";
    std::string py = std::string(kPython) + R"( -c "
from PIL import Image, TiffImagePlugin
import struct
im = Image.new('RGB', (64, 48))
im.putdata([((x*4)%256, (y*5)%256, 60) for y in range(48) for x in range(64)])
ifd = TiffImagePlugin.ImageFileDirectory_v2()
ifd[50706] = b'\x01\x04\x00\x00'; ifd.tagtype[50706] = 1
ifd[50708] = 'Kestrel Test'; ifd.tagtype[50708] = 2
ifd[50721] = (1.0,0.0,0.0, 0.0,1.0,0.0, 0.0,0.0,1.0); ifd.tagtype[50721] = 10
ifd[50778] = 21; ifd.tagtype[50778] = 3
ifd[50728] = (1.0,1.0,1.0); ifd.tagtype[50728] = 5
im.save(')" + dng + R"(', format='TIFF', tiffinfo=ifd)
d = bytearray(open(')" +
                     dng + R"(','rb').read())
off = struct.unpack('<I', d[4:8])[0]; n = struct.unpack('<H', d[off:off+2])[0]
for i in range(n):
    e = off+2+12*i
    if struct.unpack('<H', d[e:e+2])[0] == 262: d[e+8:e+10] = struct.pack('<H', 34892)
open(')" + dng + R"(','wb').write(d)
")";
    ASSERT_EQ(Shell(py), 0);
    EXPECT_EQ(KYIMGPLUG_GetFIFFromFilenameU(dng.c_str()), 34);
    std::intptr_t bm = KYIMGPLUG_LoadU(34, dng.c_str(), 0);
    ASSERT_NE(bm, 0);
    ASSERT_EQ(KYIMGPLUG_GetWidth(bm), 64);
    ASSERT_EQ(KYIMGPLUG_GetHeight(bm), 48);
    EXPECT_EQ(KYIMGPLUG_GetBPP(bm), 24);
    Bytes rgba = PluginRgba(bm, false);
    auto at = [&](int x, int y, int c) { return int(rgba[(std::size_t(y) * 64 + x) * 4 + c]); };
    // Red grows along x on the top row, green grows down the left column.
    EXPECT_GT(at(60, 0, 0), at(2, 0, 0) + 60);
    EXPECT_GT(at(0, 45, 1), at(0, 2, 1) + 60);
    EXPECT_LT(std::abs(at(60, 0, 1) - at(2, 0, 1)), 30);
    KYIMGPLUG_Unload(bm);
    // A TIFF that is not a raw file gives nothing.
    EXPECT_EQ(KYIMGPLUG_LoadU(34, "/nonexistent.dng", 0), 0);
}

} // namespace
