// Inputs the fuzz targets found to crash the plug-in's readers
// (fuzz/regressions/plug_<format>/). Each must now load to a bitmap or to a
// clean refusal (handle 0), and a loaded bitmap must convert to 32 bits.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "PluginTestUtil.h"

namespace {

using namespace kestrelyn;

namespace fs = std::filesystem;

const fs::path kRegressions = fs::path(KY_SOURCE_DIR) / "fuzz" / "regressions";

// Directory names of the fuzz targets and the plug-in's format codes.
const std::map<std::string, int> kFormats = {
    {"bmp", 0},    {"ico", 1},   {"jpeg", 2},  {"jng", 3},  {"koala", 4},  {"lbm", 5},
    {"mng", 6},    {"pnm", 8},   {"pcd", 9},   {"pcx", 10}, {"png", 13},   {"ras", 16},
    {"targa", 17}, {"tiff", 18}, {"wbmp", 19}, {"psd", 20}, {"cut", 21},   {"xbm", 22},
    {"xpm", 23},   {"dds", 24},  {"gif", 25},  {"hdr", 26}, {"faxg3", 27}, {"sgi", 28},
    {"exr", 29},   {"j2k", 30},  {"jp2", 31},  {"pfm", 32}, {"pict", 33},  {"raw", 34},
    {"jbig", 35}};

TEST(FuzzRegressionPlugin, EveryInputLoadsOrIsRefused) {
    int seen = 0;
    for (const auto& dir : fs::directory_iterator(kRegressions)) {
        std::string name = dir.path().filename().string();
        if (!dir.is_directory() || name.rfind("plug_", 0) != 0) continue;
        auto fif = kFormats.find(name.substr(5));
        ASSERT_NE(fif, kFormats.end()) << name;
        for (const auto& f : fs::directory_iterator(dir.path())) {
            SCOPED_TRACE(f.path().string());
            ++seen;
            std::intptr_t bm = KYIMGPLUG_LoadU(fif->second, f.path().c_str(), 0);
            if (!bm) continue;
            EXPECT_GT(KYIMGPLUG_GetWidth(bm), 0);
            EXPECT_GT(KYIMGPLUG_GetHeight(bm), 0);
            std::intptr_t c = KYIMGPLUG_ConvertTo32Bits(bm);
            EXPECT_NE(c, 0);
            KYIMGPLUG_Unload(c);
            KYIMGPLUG_Unload(bm);
        }
    }
    EXPECT_GT(seen, 0) << "no inputs under " << kRegressions;
}

// A chunky (PBM) ILBM of 24 planes with a colour map: the map has no palette
// to go to, and the picture still reads as 24 bits.
TEST(FuzzRegressionPlugin, TwentyFourPlaneIlbmIgnoresItsColourMap) {
    auto file = kRegressions / "plug_lbm" / "pbm-24-planes-with-cmap.lbm";
    std::intptr_t bm = KYIMGPLUG_LoadU(5, file.c_str(), 0);
    ASSERT_NE(bm, 0);
    EXPECT_EQ(KYIMGPLUG_GetBPP(bm), 24);
    EXPECT_EQ(KYIMGPLUG_GetWidth(bm), 10);
    EXPECT_EQ(KYIMGPLUG_GetHeight(bm), 3);
    EXPECT_EQ(KYIMGPLUG_GetColorsUsed(bm), 0);
    KYIMGPLUG_Unload(bm);
}

} // namespace
