// The loader, detection by name, bitmap facts and conversions, tags, and the
// compression services used by the PDF writer.
#include <cstring>

#include "PluginTestUtil.h"
#include "support/Checkers.h"

using namespace kytest;
using namespace kestrelyn;

namespace {

TEST(KyimgplugLoader, FoundBesideTheCoreLibraryAndReportsItsVersion) {
    ASSERT_TRUE(IsKyimgplugLoaded());
    EXPECT_NE(KyimgplugLibraryPath().find("libkyimgplug.so"), std::string::npos);
    // No search path is set for the tests: the build tree's copy is found
    // through libkestrelyn's own folder.
    std::error_code ec;
    EXPECT_TRUE(fs::equivalent(KyimgplugLibraryPath(),
                               std::string(KY_BINARY_DIR) + "/lib/libkyimgplug.so", ec))
        << KyimgplugLibraryPath();
    EXPECT_EQ(KYIMGPLUG_GetVersion(), 100);
    EXPECT_STREQ(KYIMGPLUG_GetVersionString(), "1.0.0.0");
}

TEST(KyimgplugLoader, AnEmptyFolderMeansAbsentAndEveryCallFailsCleanly) {
    TempDir empty;
    std::vector<std::string> only = {empty.path()};
    ReloadKyimgplug(&only);
    EXPECT_FALSE(IsKyimgplugLoaded());
    EXPECT_EQ(KyimgplugLibraryPath(), "");
    EXPECT_EQ(KYIMGPLUG_GetVersion(), 0);
    EXPECT_STREQ(KYIMGPLUG_GetVersionString(), "");
    EXPECT_EQ(KYIMGPLUG_GetFileTypeU("/etc/hostname", 0), -1);
    EXPECT_EQ(KYIMGPLUG_GetFIFFromFilenameU("a.png"), -1);
    EXPECT_EQ(KYIMGPLUG_LoadU(13, "/etc/hostname", 0), 0);
    EXPECT_EQ(KYIMGPLUG_GetBits(1), nullptr);
    KYIMGPLUG_Unload(1); // nothing to call: must simply return
    // A file of that name that is not the plug-in is refused as well.
    WriteAll(empty / "libkyimgplug.so", Bytes(100, 7));
    ReloadKyimgplug(&only);
    EXPECT_FALSE(IsKyimgplugLoaded());
    ReloadKyimgplug(); // back to the normal search
    EXPECT_TRUE(IsKyimgplugLoaded());
    EXPECT_EQ(KYIMGPLUG_GetVersion(), 100);
}

TEST(KyimgplugLoader, ThePluginPathComesAfterTheCoreLibrarysFolder) {
    // A decoy of that name on the search path is never reached while the
    // build tree's copy sits beside libkestrelyn.
    TempDir decoy;
    WriteAll(decoy / "libkyimgplug.so", Bytes(100, 7));
    const char* old = std::getenv("KESTRELYN_PLUGIN_PATH");
    const std::string keep = old ? old : "";
    ::setenv("KESTRELYN_PLUGIN_PATH", decoy.path().c_str(), 1);
    ReloadKyimgplug();
    const bool loaded = IsKyimgplugLoaded();
    const std::string path = KyimgplugLibraryPath();
    if (old)
        ::setenv("KESTRELYN_PLUGIN_PATH", keep.c_str(), 1);
    else
        ::unsetenv("KESTRELYN_PLUGIN_PATH");
    ReloadKyimgplug();
    EXPECT_TRUE(loaded);
    EXPECT_EQ(path.find(decoy.path()), std::string::npos) << path;
}

TEST(KyimgplugDetection, ByName) {
    struct {
        const char* name;
        int fif;
    } cases[] = {
        {"a.bmp", 0},  {"A.ICO", 1},   {"x/y.JPeG", 2}, {"a.jpg", 2},   {"a.jng", 3},
        {"a.koa", 4},  {"a.lbm", 5},   {"a.iff", 5},    {"a.mng", 6},   {"a.pbm", 7},
        {"a.pcd", 9},  {"a.pcx", 10},  {"a.pgm", 11},   {"a.png", 13},  {"a.ppm", 14},
        {"a.ras", 16}, {"a.tga", 17},  {"a.tif", 18},   {"a.tiff", 18}, {"a.wbmp", 19},
        {"a.psd", 20}, {"a.cut", 21},  {"a.xbm", 22},   {"a.xpm", 23},  {"a.dds", 24},
        {"a.gif", 25}, {"a.hdr", 26},  {"a.g3", 27},    {"a.sgi", 28},  {"a.rgb", 28},
        {"a.exr", 29}, {"a.j2k", 30},  {"a.j2c", 30},   {"a.jp2", 31},  {"a.pfm", 32},
        {"a.pct", 33}, {"a.pict", 33}, {"a.cr2", 34},   {"a.nef", 34},  {"a.dng", 34},
        {"a.jbg", 35}, {"a.jbig", 35}, {"noext", -1},   {"a.txt", -1},  {"dir.png/file", -1},
        {"", -1},      {"a.", -1}};
    for (const auto& c : cases)
        EXPECT_EQ(KYIMGPLUG_GetFIFFromFilenameU(c.name), c.fif) << c.name;
    EXPECT_STREQ(KYIMGPLUG_GetFormatName(17), "TARGA");
    EXPECT_STREQ(KYIMGPLUG_GetFormatName(35), "JBIG");
    EXPECT_STREQ(KYIMGPLUG_GetFormatName(36), "");
    EXPECT_STREQ(KYIMGPLUG_GetFormatName(-1), "");
}

TEST(KyimgplugDetection, ContentIgnoresTheName) {
    TempDir dir;
    ASSERT_TRUE(MakeSourcePng(dir / "src.png", 9, 9));
    ASSERT_EQ(Shell(std::string(kConvert) + " '" + (dir / "src.png") + "' jpg:'" +
                    (dir / "photo.tif") + "'"),
              0);
    EXPECT_EQ(KYIMGPLUG_GetFileTypeU((dir / "photo.tif").c_str(), 0), 2);
    EXPECT_EQ(KYIMGPLUG_GetFIFFromFilenameU((dir / "photo.tif").c_str()), 18);
    // Decoding by the name's format fails; by the content's it works.
    EXPECT_EQ(KYIMGPLUG_LoadU(18, (dir / "photo.tif").c_str(), 0), 0);
    std::intptr_t bm = KYIMGPLUG_LoadU(2, (dir / "photo.tif").c_str(), 0);
    EXPECT_NE(bm, 0);
    KYIMGPLUG_Unload(bm);
    WriteAll(dir / "text.png", Bytes{'h', 'e', 'l', 'l', 'o', '\n'});
    EXPECT_EQ(KYIMGPLUG_GetFileTypeU((dir / "text.png").c_str(), 0), -1);
}

TEST(KyimgplugBitmaps, RawBitsTopDownAndBottomUp) {
    // Two rows of 3 pixels at 24 bits, pitch 12 (padded).
    const std::uint8_t raw[24] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  0, 0, 0,
                                  10, 11, 12, 13, 14, 15, 16, 17, 18, 0, 0, 0};
    std::intptr_t td = KYIMGPLUG_ConvertFromRawBits(raw, 3, 2, 12, 24, 0, 0, 0, 1);
    std::intptr_t bu = KYIMGPLUG_ConvertFromRawBits(raw, 3, 2, 12, 24, 0, 0, 0, 0);
    ASSERT_NE(td, 0);
    ASSERT_NE(bu, 0);
    EXPECT_EQ(KYIMGPLUG_GetPitch(td), 12);
    // Our rows are bottom-up: the top-down input's first row is stored last.
    EXPECT_EQ(std::memcmp(KYIMGPLUG_GetBits(td) + 12, raw, 9), 0);
    EXPECT_EQ(std::memcmp(KYIMGPLUG_GetBits(bu), raw, 9), 0);
    EXPECT_EQ(KYIMGPLUG_FlipVertical(td), 1);
    EXPECT_EQ(std::memcmp(KYIMGPLUG_GetBits(td), raw, 9), 0);
    EXPECT_EQ(KYIMGPLUG_ConvertFromRawBits(nullptr, 3, 2, 12, 24, 0, 0, 0, 1), 0);
    EXPECT_EQ(KYIMGPLUG_ConvertFromRawBits(raw, 0, 2, 12, 24, 0, 0, 0, 1), 0);
    EXPECT_EQ(KYIMGPLUG_ConvertFromRawBits(raw, 3, 2, 12, 7, 0, 0, 0, 1), 0);
    KYIMGPLUG_Unload(td);
    KYIMGPLUG_Unload(bu);
}

TEST(KyimgplugBitmaps, InfoHeaderPaletteAndResolution) {
    Bytes rows(4 * 5, 0);
    std::intptr_t bm = KYIMGPLUG_ConvertFromRawBits(rows.data(), 3, 5, 4, 8, 0, 0, 0, 1);
    ASSERT_NE(bm, 0);
    EXPECT_EQ(KYIMGPLUG_GetColorsUsed(bm), 256);
    EXPECT_EQ(KYIMGPLUG_GetColorType(bm), 1); // grey ramp: black is zero
    EXPECT_EQ(KYIMGPLUG_GetPhotoMetric(bm), 1);
    KYIMGPLUG_SetDotsPerMeterX(bm, 11811); // 300 dpi
    KYIMGPLUG_SetDotsPerMeterY(bm, 3937);  // 100 dpi
    EXPECT_EQ(KYIMGPLUG_GetDotsPerMeterX(bm), 11811);
    const auto* info = static_cast<const std::uint8_t*>(KYIMGPLUG_GetInfo(bm));
    ASSERT_NE(info, nullptr);
    auto le32 = [&](int off) {
        return std::uint32_t(info[off] | info[off + 1] << 8 | info[off + 2] << 16 |
                             info[off + 3] << 24);
    };
    EXPECT_EQ(le32(0), 40u);
    EXPECT_EQ(le32(4), 3u);
    EXPECT_EQ(le32(8), 5u); // positive: bottom-up
    EXPECT_EQ(info[14], 8);
    EXPECT_EQ(le32(24), 11811u);
    EXPECT_EQ(le32(28), 3937u);
    EXPECT_EQ(le32(32), 256u);
    EXPECT_EQ(info[40 + 4 * 200], 200); // colour table follows the header
    // A palette that is not a ramp is a palette picture.
    KYIMGPLUG_GetPalette(bm)[4 * 7 + 2] = 255;
    EXPECT_EQ(KYIMGPLUG_GetColorType(bm), 3);
    EXPECT_EQ(KYIMGPLUG_IsTransparent(bm), 0);
    EXPECT_EQ(KYIMGPLUG_SetTransparentIndex(bm, 7), 1);
    EXPECT_EQ(KYIMGPLUG_SetTransparentIndex(bm, 256), 0);
    EXPECT_EQ(KYIMGPLUG_GetTransparencyCount(bm), 256);
    EXPECT_EQ(KYIMGPLUG_IsTransparent(bm), 1);
    KYIMGPLUG_Unload(bm);
}

TEST(KyimgplugBitmaps, ThirtyTwoBitAlphaAndConversions) {
    std::uint8_t px[8] = {10, 20, 30, 255, 40, 50, 60, 255};
    std::intptr_t opaque = KYIMGPLUG_ConvertFromRawBits(px, 2, 1, 8, 32, 0, 0, 0, 1);
    EXPECT_EQ(KYIMGPLUG_IsTransparent(opaque), 0);
    EXPECT_EQ(KYIMGPLUG_GetColorType(opaque), 2);
    px[7] = 0;
    std::intptr_t alpha = KYIMGPLUG_ConvertFromRawBits(px, 2, 1, 8, 32, 0, 0, 0, 1);
    EXPECT_EQ(KYIMGPLUG_IsTransparent(alpha), 1);
    EXPECT_EQ(KYIMGPLUG_GetColorType(alpha), 4);
    std::intptr_t b24 = KYIMGPLUG_ConvertTo24Bits(alpha);
    ASSERT_NE(b24, 0);
    EXPECT_EQ(KYIMGPLUG_GetBPP(b24), 24);
    const std::uint8_t expect24[6] = {10, 20, 30, 40, 50, 60};
    EXPECT_EQ(std::memcmp(KYIMGPLUG_GetBits(b24), expect24, 6), 0);
    std::intptr_t grey = KYIMGPLUG_ConvertToGreyscale(b24);
    ASSERT_NE(grey, 0);
    EXPECT_EQ(KYIMGPLUG_GetBPP(grey), 8);
    // Luminance weights 0.30, 0.59, 0.11 (in 8-bit fixed point) of R=30 G=20 B=10.
    EXPECT_EQ(KYIMGPLUG_GetBits(grey)[0], (30 * 77 + 20 * 150 + 10 * 29 + 128) >> 8);
    ASSERT_EQ(KYIMGPLUG_Invert(b24), 1);
    EXPECT_EQ(KYIMGPLUG_GetBits(b24)[0], 245);
    std::intptr_t f = KYIMGPLUG_ConvertToRGBF(alpha);
    ASSERT_NE(f, 0);
    EXPECT_EQ(KYIMGPLUG_GetImageType(f), 11);
    EXPECT_FLOAT_EQ(reinterpret_cast<const float*>(KYIMGPLUG_GetBits(f))[0], 30.0f / 255.0f);
    std::intptr_t back = KYIMGPLUG_ConvertToType(f, 1, 1);
    ASSERT_NE(back, 0);
    EXPECT_EQ(KYIMGPLUG_GetBPP(back), 24);
    EXPECT_EQ(std::memcmp(KYIMGPLUG_GetBits(back), expect24, 6), 0);
    KYIMGPLUG_Unload(back);
    for (std::intptr_t h : {opaque, alpha, b24, grey, f})
        KYIMGPLUG_Unload(h);
}

TEST(KyimgplugTags, MadeTagsAreStoredWalkedAndPrinted) {
    std::uint8_t px[4] = {0, 0, 0, 0};
    std::intptr_t bm = KYIMGPLUG_ConvertFromRawBits(px, 1, 1, 4, 32, 0, 0, 0, 1);
    std::intptr_t tag = KYIMGPLUG_CreateTag();
    ASSERT_NE(tag, 0);
    const char text[] = "Kestrel";
    KYIMGPLUG_SetTagKey(tag, "Artist");
    KYIMGPLUG_SetTagID(tag, 315);
    KYIMGPLUG_SetTagType(tag, 2);
    KYIMGPLUG_SetTagCount(tag, sizeof text);
    KYIMGPLUG_SetTagLength(tag, sizeof text);
    KYIMGPLUG_SetTagValue(tag, text);
    ASSERT_EQ(KYIMGPLUG_SetMetadata(1, bm, "Artist", tag), 1);
    std::intptr_t rational = KYIMGPLUG_CreateTag();
    const std::uint32_t r[2] = {300, 1};
    KYIMGPLUG_SetTagID(rational, 282);
    KYIMGPLUG_SetTagType(rational, 5);
    KYIMGPLUG_SetTagCount(rational, 1);
    KYIMGPLUG_SetTagLength(rational, 8);
    KYIMGPLUG_SetTagValue(rational, r);
    KYIMGPLUG_SetMetadata(1, bm, "XResolution", rational);
    KYIMGPLUG_DeleteTag(tag); // the bitmap keeps its own copy
    KYIMGPLUG_DeleteTag(rational);
    EXPECT_EQ(KYIMGPLUG_GetMetadataCount(1, bm), 2);
    EXPECT_EQ(KYIMGPLUG_GetMetadataCount(2, bm), 0);
    std::intptr_t found = 0;
    std::intptr_t walk = KYIMGPLUG_FindFirstMetadata(1, bm, &found);
    ASSERT_NE(walk, 0);
    EXPECT_STREQ(KYIMGPLUG_GetTagKey(found), "Artist");
    EXPECT_EQ(KYIMGPLUG_GetTagID(found), 315);
    EXPECT_STREQ(KYIMGPLUG_TagToString(1, found, nullptr), "Kestrel");
    ASSERT_EQ(KYIMGPLUG_FindNextMetadata(walk, &found), 1);
    EXPECT_STREQ(KYIMGPLUG_TagToString(1, found, nullptr), "300/1");
    EXPECT_EQ(KYIMGPLUG_FindNextMetadata(walk, &found), 0);
    KYIMGPLUG_FindCloseMetadata(walk);
    EXPECT_EQ(KYIMGPLUG_FindFirstMetadata(2, bm, &found), 0);
    // Setting a key without a tag removes it.
    KYIMGPLUG_SetMetadata(1, bm, "Artist", 0);
    EXPECT_EQ(KYIMGPLUG_GetMetadataCount(1, bm), 1);
    KYIMGPLUG_Unload(bm);
}

TEST(KyimgplugServices, ZlibStreamInflatesBackWithPython) {
    Bytes src;
    for (int i = 0; i < 5000; ++i)
        src.push_back(std::uint8_t((i * i) % 7 + 'a'));
    Bytes dest(std::size_t(src.size() * 1.01 + 12));
    long n = KYIMGPLUG_ZLibCompress2(dest.data(), long(dest.size()), src.data(), long(src.size()));
    ASSERT_GT(n, 0);
    EXPECT_LT(n, long(src.size()));
    dest.resize(std::size_t(n));
    TempDir dir;
    WriteAll(dir / "z.bin", dest);
    ASSERT_EQ(Shell(std::string(kPython) + " -c \"import zlib; open('" + (dir / "plain.bin") +
                    "','wb').write(zlib.decompress(open('" + (dir / "z.bin") +
                    "','rb').read()))\""),
              0);
    EXPECT_EQ(ReadAll(dir / "plain.bin"), src);
    Bytes tiny(4);
    EXPECT_EQ(KYIMGPLUG_ZLibCompress2(tiny.data(), 4, src.data(), long(src.size())), 0); // no room
}

// A little-endian one-strip TIFF around a Group 4 stream, for PIL to decode.
Bytes WrapG4(const Bytes& strip, int w, int h) {
    Bytes f = {'I', 'I', 42, 0, 8, 0, 0, 0};
    auto p16 = [&](unsigned v) { f.push_back(std::uint8_t(v)), f.push_back(std::uint8_t(v >> 8)); };
    auto p32 = [&](std::uint32_t v) { p16(v & 0xffff), p16(v >> 16); };
    const std::uint32_t dataAt = 8 + 2 + 9 * 12 + 4;
    const std::uint32_t tags[9][3] = {{256, 4, std::uint32_t(w)},
                                      {257, 4, std::uint32_t(h)},
                                      {258, 3, 1},
                                      {259, 3, 4},
                                      {262, 3, 0},
                                      {273, 4, dataAt},
                                      {277, 3, 1},
                                      {278, 4, std::uint32_t(h)},
                                      {279, 4, std::uint32_t(strip.size())}};
    p16(9);
    for (const auto& t : tags) {
        p16(t[0]);
        p16(t[1]);
        p32(1);
        if (t[1] == 3) {
            p16(t[2]);
            p16(0);
        } else {
            p32(t[2]);
        }
    }
    p32(0);
    f.insert(f.end(), strip.begin(), strip.end());
    return f;
}

TEST(KyimgplugServices, Ccitt4RowsDecodeBackWithOneAsBlack) {
    const int w = 50, h = 20, stride = 8;
    Bytes rows(std::size_t(stride) * h, 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            if ((x > 10 && x < 30 && y > 3 && y < 15) || x == y)
                rows[std::size_t(y) * stride + x / 8] |= std::uint8_t(0x80 >> (x % 8));
    long need = KYIMGPLUG_VB_CompressCCITT4(rows.data(), w, h, stride, nullptr, 0);
    ASSERT_GT(need, 0);
    Bytes coded(static_cast<std::size_t>(need));
    ASSERT_EQ(KYIMGPLUG_VB_CompressCCITT4(rows.data(), w, h, stride, coded.data(), need), need);
    EXPECT_LT(need, long(rows.size()));
    TempDir dir;
    WriteAll(dir / "g4.tif", WrapG4(coded, w, h));
    Bytes rgba = PilRgba(dir / "g4.tif", dir / "back");
    ASSERT_EQ(rgba.size(), std::size_t(w) * h * 4);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            bool black = rows[std::size_t(y) * stride + x / 8] & (0x80 >> (x % 8));
            ASSERT_EQ(rgba[(std::size_t(y) * w + x) * 4], black ? 0 : 255) << x << "," << y;
        }
    EXPECT_EQ(KYIMGPLUG_VB_CompressCCITT4(rows.data(), w, h, 2, nullptr, 0), 0); // stride too small
    EXPECT_EQ(KYIMGPLUG_VB_CompressCCITT4(nullptr, w, h, stride, nullptr, 0), 0);
}

// Colour profiles travel from TIFF and PNG files into the bitmap and back,
// and can be removed or attached before a save (the host's ICC operations).
TEST(KyimgplugProfiles, EmbeddedProfilesAreReadRemovedAndWritten) {
    const std::string icm = "/usr/share/color/argyll/ref/sRGB.icm";
    KY_REQUIRE_CHECKER(!(!fs::exists(icm)), "no ICC profile on this system");
    Bytes profile = ReadAll(icm);
    TempDir dir;
    ASSERT_TRUE(MakeSourcePng(dir / "src.png", 12, 9));
    for (const char* name : {"a.tif", "a.png"}) {
        SCOPED_TRACE(name);
        std::string file = dir / name;
        ASSERT_EQ(Shell(std::string(kConvert) + " '" + (dir / "src.png") + "' -profile '" + icm +
                        "' '" + file + "'"),
                  0);
        int fif = KYIMGPLUG_GetFileTypeU(file.c_str(), 0);
        std::intptr_t bm = KYIMGPLUG_LoadU(fif, file.c_str(), 1);
        ASSERT_NE(bm, 0);
        struct Icc {
            std::uint16_t flags;
            std::uint32_t size;
            void* data;
        };
        auto* p = reinterpret_cast<const Icc*>(KYIMGPLUG_GetICCProfile(bm));
        ASSERT_NE(p, nullptr);
        ASSERT_EQ(p->size, profile.size());
        EXPECT_EQ(std::memcmp(p->data, profile.data(), profile.size()), 0);
        // Removed, then saved over the same file: no profile is left.
        KYIMGPLUG_DestroyICCProfile(bm);
        EXPECT_EQ(KYIMGPLUG_GetICCProfile(bm), 0);
        ASSERT_EQ(KYIMGPLUG_SaveU(fif, bm, file.c_str(), 1), 1);
        EXPECT_EQ(PilField(file, "im.info.get('icc_profile') is None"), "True");
        // Attached from a file and saved: PIL finds the same bytes.
        ASSERT_NE(KYIMGPLUG_CreateICCProfileFromFile(bm, icm.c_str()), 0);
        ASSERT_EQ(KYIMGPLUG_SaveU(fif, bm, file.c_str(), 1), 1);
        EXPECT_EQ(PilField(file, "len(im.info.get('icc_profile') or b'')"),
                  std::to_string(profile.size()));
        KYIMGPLUG_Unload(bm);
    }
}

} // namespace
