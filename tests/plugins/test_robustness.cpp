// Damaged input: truncated, empty, garbage and lying files must give a 0
// handle (or a clean, complete bitmap) and never crash, for every format code.
#include <random>

#include "PluginTestUtil.h"

using namespace kytest;
using namespace kestrelyn;

namespace {

constexpr int kCodes = 36;

// Loads `file` under every format code; whatever comes back must be a
// bitmap whose facts hold together.
void LoadUnderEveryCode(const std::string& file) {
    for (int fif = -1; fif <= kCodes; ++fif) {
        std::intptr_t bm = KYIMGPLUG_LoadU(fif, file.c_str(), 0);
        if (!bm) continue;
        int w = KYIMGPLUG_GetWidth(bm), h = KYIMGPLUG_GetHeight(bm), bpp = KYIMGPLUG_GetBPP(bm);
        EXPECT_GT(w, 0) << fif;
        EXPECT_GT(h, 0) << fif;
        EXPECT_GE(KYIMGPLUG_GetPitch(bm), (w * bpp + 7) / 8) << fif;
        // Touch the last byte of the pixel buffer.
        const std::uint8_t* bits = KYIMGPLUG_GetBits(bm);
        ASSERT_NE(bits, nullptr);
        volatile std::uint8_t last = bits[std::size_t(KYIMGPLUG_GetPitch(bm)) * h - 1];
        (void)last;
        KYIMGPLUG_Unload(bm);
    }
}

TEST(Robustness, EmptyAndMissingFiles) {
    TempDir dir;
    WriteAll(dir / "empty.png", {});
    for (int fif = -1; fif <= kCodes; ++fif) {
        EXPECT_EQ(KYIMGPLUG_LoadU(fif, (dir / "empty.png").c_str(), 0), 0) << fif;
        EXPECT_EQ(KYIMGPLUG_LoadU(fif, (dir / "missing.png").c_str(), 0), 0) << fif;
    }
    EXPECT_EQ(KYIMGPLUG_LoadU(13, nullptr, 0), 0);
    EXPECT_EQ(KYIMGPLUG_LoadU(13, dir.path().c_str(), 0), 0); // a folder
    EXPECT_EQ(KYIMGPLUG_GetFileTypeU((dir / "empty.png").c_str(), 0), -1);
    EXPECT_EQ(KYIMGPLUG_GetFileTypeU((dir / "missing.png").c_str(), 0), -1);
    EXPECT_EQ(KYIMGPLUG_GetFileTypeU(nullptr, 0), -1);
}

TEST(Robustness, RandomGarbage) {
    TempDir dir;
    std::mt19937 rng(1234);
    for (int round = 0; round < 20; ++round) {
        Bytes junk(std::size_t(rng() % 5000), 0);
        for (auto& b : junk)
            b = std::uint8_t(rng());
        WriteAll(dir / "junk.bin", junk);
        LoadUnderEveryCode(dir / "junk.bin");
    }
}

// Real files of each format cut at many points, and with their headers
// overwritten with large numbers.
class Truncated : public ::testing::TestWithParam<const char*> {};

TEST_P(Truncated, CutAndLyingFilesFailCleanly) {
    TempDir dir;
    ASSERT_TRUE(MakeSourcePng(dir / "src.png", 40, 30));
    std::string caseText = GetParam();
    std::size_t space = caseText.find(' ');
    std::string file = dir / caseText.substr(0, space);
    std::string opts = space == std::string::npos ? "" : caseText.substr(space + 1);
    std::size_t colon = file.rfind(':');
    std::string target = file;
    if (caseText.find(':') != std::string::npos) {
        std::string prefix = caseText.substr(0, caseText.find(':') + 1);
        file = dir / caseText.substr(prefix.size(), space - prefix.size());
        target = prefix + file;
    }
    (void)colon;
    ASSERT_EQ(
        Shell(std::string(kConvert) + " '" + (dir / "src.png") + "' " + opts + " '" + target + "'"),
        0);
    Bytes whole = ReadAll(file);
    ASSERT_FALSE(whole.empty());
    int fif = KYIMGPLUG_GetFileTypeU(file.c_str(), 0);
    if (fif < 0) fif = KYIMGPLUG_GetFIFFromFilenameU(file.c_str());
    ASSERT_GE(fif, 0);
    std::intptr_t good = KYIMGPLUG_LoadU(fif, file.c_str(), 0);
    ASSERT_NE(good, 0); // the intact file loads
    KYIMGPLUG_Unload(good);
    std::string cut = dir / ("cut" + file.substr(file.rfind('.')));
    for (std::size_t n : {std::size_t(1), std::size_t(8), std::size_t(20), std::size_t(64),
                          whole.size() / 3, whole.size() / 2, whole.size() - 1}) {
        if (n >= whole.size()) continue;
        WriteAll(cut, Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(n)));
        LoadUnderEveryCode(cut);
    }
    std::mt19937 rng(99);
    for (int round = 0; round < 30; ++round) {
        Bytes bad = whole;
        // Lie in the header region: sizes, counts and offsets become huge
        // or odd.
        for (int k = 0; k < 4; ++k) {
            std::size_t at = rng() % std::min<std::size_t>(bad.size(), 140);
            bad[at] = std::uint8_t(round % 2 ? 0xff : rng());
        }
        WriteAll(cut, bad);
        LoadUnderEveryCode(cut);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Formats, Truncated,
    ::testing::Values("a.bmp", "a.ico", "a.jpg", "a.jng", "a.mng", "a.pbm -monochrome",
                      "a.pgm -colorspace gray -compress none", "a.ppm", "a.pcx", "a.png", "a.ras",
                      "a.tga -compress RLE", "a.tif -compress lzw", "a.wbmp", "a.psd", "a.xbm",
                      "a.xpm -colors 16", "a.dds", "a.gif", "a.hdr", "a.sgi -compress RLE", "a.j2k",
                      "a.jp2", "a.pfm", "a.pict", "a.jbg -monochrome", "a.exr", "a.pcd",
                      "fax:a.g3 -resize 1728x"),
    [](const auto& info) {
        std::string s = info.param;
        std::string out;
        for (char c : s.substr(0, s.find(' ')))
            out += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
        return out;
    });

TEST(Robustness, ForeignAndStaleHandlesAreRefused) {
    TempDir dir;
    ASSERT_TRUE(MakeSourcePng(dir / "src.png", 8, 8));
    std::intptr_t bm = KYIMGPLUG_LoadU(13, (dir / "src.png").c_str(), 0);
    ASSERT_NE(bm, 0);
    KYIMGPLUG_Unload(bm);
    // The handle is gone: every call fails without touching freed memory.
    EXPECT_EQ(KYIMGPLUG_GetWidth(bm), 0);
    EXPECT_EQ(KYIMGPLUG_GetBits(bm), nullptr);
    EXPECT_EQ(KYIMGPLUG_ConvertTo24Bits(bm), 0);
    EXPECT_EQ(KYIMGPLUG_SaveU(13, bm, (dir / "x.png").c_str(), 0), 0);
    KYIMGPLUG_Unload(bm); // a second unload is harmless
    int local = 0;
    auto foreign = reinterpret_cast<std::intptr_t>(&local);
    EXPECT_EQ(KYIMGPLUG_GetHeight(foreign), 0);
    EXPECT_EQ(KYIMGPLUG_GetPageCount(foreign), 0);
    EXPECT_EQ(KYIMGPLUG_LockPage(foreign, 0), 0);
    KYIMGPLUG_Unload(foreign);
}

} // namespace
