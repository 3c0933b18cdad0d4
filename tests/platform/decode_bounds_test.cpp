// Bounded, deterministic decoding: the decode pixel limit, cut files that
// decode to the same pixels whatever the allocator leaves in fresh memory, and
// headers that claim huge sizes in a few bytes.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>

#include "platform/DecodeLimits.h"
#include "platform/modkyimgplug.h"
#include "support/Checkers.h"
#include "tests/platform/codec_support.h"

namespace kestrelyn {
namespace {

using namespace codectest;

constexpr const char* kChildVariable = "KY_DECODE_DUMP";

#define KY_REQUIRE_PLUGIN()                                                                        \
    KY_REQUIRE_CHECKER(KYIMGPLUG_GetVersion() > 0, "the codec plug-in is not built")

std::uint64_t Fnv(std::uint64_t h, const void* data, std::size_t n) {
    const auto* p = static_cast<const std::uint8_t*>(data);
    for (std::size_t i = 0; i < n; ++i)
        h = (h ^ p[i]) * 1099511628211ull;
    return h;
}

// One decode, summed up as a line: the status and a hash of every pixel.
std::string DumpEngine(const std::string& path) {
    GpImage* img = nullptr;
    const GpStatus st = GdipLoadImageFromFile(path, &img);
    if (st != OK) return "status " + std::to_string(st);
    Pixels px = Ours(img);
    GdipDisposeImage(img);
    return "ok " + std::to_string(px.width) + "x" + std::to_string(px.height) + " " +
           std::to_string(Fnv(14695981039346656037ull, px.argb.data(), px.argb.size() * 4));
}

std::string DumpPlugin(int fif, const std::string& path) {
    const std::intptr_t bm = KYIMGPLUG_LoadU(fif, path.c_str(), 0);
    if (!bm) return "refused";
    const int h = KYIMGPLUG_GetHeight(bm), pitch = KYIMGPLUG_GetPitch(bm);
    std::uint64_t hash = Fnv(14695981039346656037ull, KYIMGPLUG_GetBits(bm),
                             static_cast<std::size_t>(pitch) * static_cast<std::size_t>(h));
    if (const std::uint8_t* pal = KYIMGPLUG_GetPalette(bm))
        hash = Fnv(hash, pal, static_cast<std::size_t>(KYIMGPLUG_GetColorsUsed(bm)) * 4);
    const std::string line = "ok " + std::to_string(KYIMGPLUG_GetWidth(bm)) + "x" +
                             std::to_string(h) + " " + std::to_string(hash);
    KYIMGPLUG_Unload(bm);
    return line;
}

// The child side: a re-executed test program with KY_DECODE_DUMP set to
// "engine:PATH" or "plugin:FIF:PATH" prints its dump and exits before any
// test runs (MALLOC_PERTURB_ only acts on a fresh process).
const bool kChild = [] {
    const char* what = std::getenv(kChildVariable);
    if (!what) return false;
    std::string s = what, line;
    if (s.rfind("engine:", 0) == 0) {
        line = DumpEngine(s.substr(7));
    } else if (s.rfind("plugin:", 0) == 0) {
        const std::size_t colon = s.find(':', 7);
        line = DumpPlugin(std::stoi(s.substr(7, colon - 7)), s.substr(colon + 1));
    }
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
    std::_Exit(0);
}();

std::string SelfPath() {
    char buf[4096];
    const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
}

// Runs the dump in a fresh process with the allocator filling new memory with
// `perturb`.
std::string DumpInChild(const std::string& what, int perturb) {
    const std::string cmd = "MALLOC_PERTURB_=" + std::to_string(perturb) + " " + kChildVariable +
                            "='" + what + "' '" + SelfPath() + "' 2>/dev/null";
    std::FILE* p = ::popen(cmd.c_str(), "r");
    if (!p) return "no child";
    char buf[256] = {};
    std::string out = std::fgets(buf, sizeof buf, p) ? buf : "";
    ::pclose(p);
    return out;
}

void Pattern(Image& img, int w, int h, PixelFormat fmt = PixelFormat24bppRGB) {
    ASSERT_EQ(GdipCreateBitmapFromScan0(w, h, 0, fmt, nullptr, img.out()), OK);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            GdipBitmapSetPixel(
                img, x, y,
                0xff000000u | static_cast<ARGB>((x * 4) << 16 | (y * 5) << 8 | ((x * y) & 255)));
}

bool Save(GpImage* img, const std::string& path, const GUID& clsid,
          const EncoderParameters* params = nullptr) {
    return GdipSaveImageToFile(img, path, &clsid, params) == OK;
}

EncoderParameters Compression(UINT* value) {
    EncoderParameters p;
    p.Count = 1;
    p.Parameter[0].Guid = EncoderCompression;
    p.Parameter[0].NumberOfValues = 1;
    p.Parameter[0].Type = EncoderParameterValueTypeLong;
    p.Parameter[0].Value = value;
    return p;
}

// A 16 x 16 32-bit icon, written by hand (the engine has no ICO encoder).
std::vector<std::uint8_t> Icon() {
    std::vector<std::uint8_t> d(6 + 16 + 40 + 16 * 16 * 4 + 16 * 4, 0);
    auto put32 = [&](std::size_t at, std::uint32_t v) {
        for (int i = 0; i < 4; ++i)
            d[at + i] = static_cast<std::uint8_t>(v >> (8 * i));
    };
    d[2] = 1, d[4] = 1;
    d[6] = 16, d[7] = 16, d[10] = 1, d[12] = 32;
    put32(14, static_cast<std::uint32_t>(d.size() - 22));
    put32(18, 22);
    put32(22, 40), put32(26, 16), put32(30, 32);
    d[34] = 1, d[36] = 32;
    for (std::size_t i = 62; i < 62 + 16 * 16 * 4; ++i)
        d[i] = static_cast<std::uint8_t>(i * 7);
    return d;
}

void Cut(const std::string& from, const std::string& to, double keep) {
    std::vector<std::uint8_t> bytes = ReadAll(from);
    bytes.resize(static_cast<std::size_t>(static_cast<double>(bytes.size()) * keep));
    WriteAll(to, bytes);
}

// Every decoder of the engine and the plug-in's readers of the same files: a
// file cut in its pixel data decodes to the same result under two different
// allocator fillings (what the file does not supply has a defined value).
TEST(DecodeDeterminism, CutFilesGiveTheSamePixelsWhateverFreshMemoryHolds) {
    KY_REQUIRE_PLUGIN();
    ASSERT_FALSE(SelfPath().empty());
    Image img;
    Pattern(img, 64, 48);
    struct Sample {
        std::string name;
        int fif;
    };
    std::vector<Sample> samples;
    ASSERT_TRUE(Save(img, Scratch("det.bmp"), EncoderClsidBMP));
    ASSERT_TRUE(Save(img, Scratch("det.png"), EncoderClsidPNG));
    ASSERT_TRUE(Save(img, Scratch("det.jpg"), EncoderClsidJPEG));
    ASSERT_TRUE(Save(img, Scratch("det.gif"), EncoderClsidGIF));
    ASSERT_TRUE(Save(img, Scratch("det.tif"), EncoderClsidTIFF));
    WriteAll(Scratch("det.ico"), Icon());
    samples = {{"det.bmp", 0},  {"det.ico", 1},  {"det.jpg", 2},
               {"det.png", 13}, {"det.tif", 18}, {"det.gif", 25}};
    int decoded = 0;
    for (const Sample& s : samples) {
        const std::string cut = Scratch("cut_" + s.name);
        Cut(Scratch(s.name), cut, 0.6);
        std::vector<std::string> whats = {"engine:" + cut};
        whats.push_back("plugin:" + std::to_string(s.fif) + ":" + cut);
        for (const std::string& what : whats) {
            const std::string a = DumpInChild(what, 0x55);
            const std::string b = DumpInChild(what, 0xaa);
            EXPECT_FALSE(a.empty()) << what;
            EXPECT_EQ(a, b) << what;
            decoded += a.rfind("ok", 0) == 0;
        }
    }
    // The plug-in's own formats, written by the plug-in from the same picture.
    const std::intptr_t source = KYIMGPLUG_LoadU(13, Scratch("det.png").c_str(), 0);
    ASSERT_NE(source, 0);
    int written = 0;
    for (const auto& [fif, ext] : std::vector<std::pair<int, std::string>>{{17, "tga"},
                                                                           {14, "ppm"},
                                                                           {15, "ppmraw"},
                                                                           {19, "wbmp"},
                                                                           {23, "xpm"},
                                                                           {26, "hdr"},
                                                                           {29, "exr"},
                                                                           {31, "jp2"},
                                                                           {30, "j2k"},
                                                                           {32, "pfm"},
                                                                           {35, "jbg"}}) {
        const std::string good = Scratch("det." + ext), cut = Scratch("cut_det." + ext);
        if (!KYIMGPLUG_SaveU(fif, source, good.c_str(), 0)) continue;
        ++written;
        Cut(good, cut, 0.6);
        const std::string what = "plugin:" + std::to_string(fif) + ":" + cut;
        const std::string a = DumpInChild(what, 0x55);
        EXPECT_FALSE(a.empty()) << what;
        EXPECT_EQ(a, DumpInChild(what, 0xaa)) << what;
    }
    KYIMGPLUG_Unload(source);
    EXPECT_GE(written, 8);
    // Cut JPEG and GIF files still give a picture (the rows that arrived) in
    // both decoders; the others are refused, the same way each time.
    EXPECT_GE(decoded, 4);
    EXPECT_EQ(DumpInChild("engine:" + Scratch("cut_det.gif"), 0x11).rfind("ok 64x48", 0), 0u);
}

// A GIF cut in its raster keeps the rows that arrived; the rest is
// transparent screen, never leftover memory.
TEST(DecodeDeterminism, CutGifKeepsArrivedRowsAndLeavesTheRestTransparent) {
    Image img;
    Pattern(img, 64, 48);
    ASSERT_TRUE(Save(img, Scratch("rows.gif"), EncoderClsidGIF));
    Image whole;
    ASSERT_EQ(GdipLoadImageFromFile(Scratch("rows.gif"), whole.out()), OK);
    const Pixels full = Ours(whole);
    Cut(Scratch("rows.gif"), Scratch("rows_cut.gif"), 0.5);
    Image cut;
    ASSERT_EQ(GdipLoadImageFromFile(Scratch("rows_cut.gif"), cut.out()), OK);
    const Pixels part = Ours(cut);
    ASSERT_EQ(part.argb.size(), full.argb.size());
    EXPECT_EQ(part.argb[0], full.argb[0]);
    EXPECT_EQ(part.argb.back(), 0u);
    int sameRows = 0;
    for (int y = 0; y < 48; ++y)
        sameRows += std::equal(part.argb.begin() + y * 64, part.argb.begin() + (y + 1) * 64,
                               full.argb.begin() + y * 64);
    EXPECT_GT(sameRows, 5);
    EXPECT_LT(sameRows, 48);
}

std::int64_t PeakKb() {
    std::ifstream f("/proc/self/status");
    std::string line;
    while (std::getline(f, line))
        if (line.rfind("VmHWM:", 0) == 0) return std::stoll(line.substr(6));
    return -1;
}
void ResetPeak() {
    std::ofstream("/proc/self/clear_refs") << "5";
}

struct LimitGuard {
    ~LimitGuard() { SetDecodePixelLimit(0); }
};

TEST(DecodePixelLimit, DefaultEnvironmentAndProcessWideSetting) {
    KY_REQUIRE_PLUGIN();
    LimitGuard restore;
    ::unsetenv(kDecodePixelLimitVariable);
    EXPECT_EQ(DecodePixelLimitFromEnvironment(), kDefaultDecodePixelLimit);
    EXPECT_GE(kDefaultDecodePixelLimit, std::int64_t{19843} * 28066);
    ::setenv(kDecodePixelLimitVariable, "1234", 1);
    EXPECT_EQ(DecodePixelLimitFromEnvironment(), 1234);
    for (const char* bad : {"", "-5", "12x", "0"}) {
        ::setenv(kDecodePixelLimitVariable, bad, 1);
        EXPECT_EQ(DecodePixelLimitFromEnvironment(), kDefaultDecodePixelLimit) << bad;
    }
    ::unsetenv(kDecodePixelLimitVariable);

    Image img;
    Pattern(img, 40, 30);
    ASSERT_TRUE(Save(img, Scratch("limit.png"), EncoderClsidPNG));
    ASSERT_TRUE(Save(img, Scratch("limit.tif"), EncoderClsidTIFF));
    SetDecodePixelLimit(1199);
    EXPECT_EQ(GetDecodePixelLimit(), 1199);
    EXPECT_FALSE(DecodeSizeAllowed(40, 30));
    EXPECT_TRUE(DecodeSizeAllowed(1199, 1));
    for (const char* name : {"limit.png", "limit.tif"}) {
        Image refused;
        EXPECT_EQ(GdipLoadImageFromFile(Scratch(name), refused.out()), OutOfMemory) << name;
    }
    // The plug-in follows the same limit.
    EXPECT_EQ(KYIMGPLUG_LoadU(18, Scratch("limit.tif").c_str(), 0), 0);
    SetDecodePixelLimit(1200);
    Image loaded;
    EXPECT_EQ(GdipLoadImageFromFile(Scratch("limit.png"), loaded.out()), OK);
    const std::intptr_t bm = KYIMGPLUG_LoadU(18, Scratch("limit.tif").c_str(), 0);
    EXPECT_NE(bm, 0);
    KYIMGPLUG_Unload(bm);
    SetDecodePixelLimit(0);
    EXPECT_EQ(GetDecodePixelLimit(), kDefaultDecodePixelLimit);
}

// A few bytes that claim a huge picture cost neither the claimed memory nor
// time: above the limit they are refused, below it only rows that arrived are
// paid for.
TEST(DecodePixelLimit, TinyFilesClaimingHugePicturesAreCheap) {
    KY_REQUIRE_PLUGIN();
    // 35 bytes of GIF: a 23000 x 23000 screen and frame, and a few bytes of
    // raster that cannot hold one row.
    std::vector<std::uint8_t> gif = {
        'G', 'I', 'F', '8', '9', 'a', 0xd8, 0x59, 0xd8, 0x59, 0x80, 0, 0, 0,    0,    0, 255, 255,
        255, ',', 0,   0,   0,   0,   0xd8, 0x59, 0xd8, 0x59, 0,    2, 2, 0x44, 0x01, 0, ';'};
    ASSERT_EQ(gif.size(), 35u);
    WriteAll(Scratch("huge.gif"), gif);
    // A JPEG of a few hundred bytes whose frame header claims 25000 x 25000.
    Image small;
    Pattern(small, 16, 16);
    ASSERT_TRUE(Save(small, Scratch("small.jpg"), EncoderClsidJPEG));
    std::vector<std::uint8_t> jpg = ReadAll(Scratch("small.jpg"));
    bool patched = false;
    for (std::size_t i = 2; i + 9 < jpg.size() && !patched; ++i)
        if (jpg[i] == 0xff && (jpg[i + 1] == 0xc0 || jpg[i + 1] == 0xc2)) {
            jpg[i + 5] = 25000 >> 8, jpg[i + 6] = 25000 & 255;
            jpg[i + 7] = 25000 >> 8, jpg[i + 8] = 25000 & 255;
            patched = true;
        }
    ASSERT_TRUE(patched);
    ASSERT_LT(jpg.size(), 1100u);
    WriteAll(Scratch("huge.jpg"), jpg);

    ResetPeak();
    const std::int64_t before = PeakKb();
    const auto t0 = std::chrono::steady_clock::now();
    Image g, j;
    EXPECT_NE(GdipLoadImageFromFile(Scratch("huge.gif"), g.out()), OK);
    EXPECT_EQ(GdipLoadImageFromFile(Scratch("huge.jpg"), j.out()), OutOfMemory);
    EXPECT_EQ(KYIMGPLUG_LoadU(25, Scratch("huge.gif").c_str(), 0), 0);
    EXPECT_EQ(KYIMGPLUG_LoadU(2, Scratch("huge.jpg").c_str(), 0), 0);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_LT(seconds, 2.0);
    if (before > 0) {
        EXPECT_LT(PeakKb() - before, 64 * 1024) << "kB above the peak before";
    }
}

// The fuzzer's slow unit: a small GIF whose frame descriptor claims about
// 18000 x 14000 inside a small screen decodes in milliseconds.
TEST(DecodePixelLimit, SmallGifWithAHugeFrameIsFast) {
    KY_REQUIRE_PLUGIN();
    std::vector<std::uint8_t> gif = {'G',  'I', 'F', '8', '9',  'a',  16,   0,    16,  0,
                                     0x80, 0,   0,   0,   0,    0,    255,  255,  255, ',',
                                     0,    0,   0,   0,   0x50, 0x46, 0xb0, 0x36, 0,   2};
    for (int i = 0; i < 6; ++i) {
        gif.push_back(20);
        for (int k = 0; k < 20; ++k)
            gif.push_back(static_cast<std::uint8_t>(k * 37 + i));
    }
    WriteAll(Scratch("wide.gif"), gif);
    const auto t0 = std::chrono::steady_clock::now();
    Image img;
    const GpStatus st = GdipLoadImageFromFile(Scratch("wide.gif"), img.out());
    const std::intptr_t bm = KYIMGPLUG_LoadU(25, Scratch("wide.gif").c_str(), 0);
    if (bm) KYIMGPLUG_Unload(bm);
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 1.0);
    if (st == OK) {
        const Pixels px = Ours(img);
        EXPECT_EQ(px.width, 16);
        // Rows the file never reached are transparent.
        EXPECT_EQ(px.argb.back(), 0u);
    }
}

// BIG (seconds and gigabytes; see the times in the test's output). The
// library reads back what it writes at every size up to the decode pixel
// limit: an A0 page at 600 dpi, bitonal, as G4, and a 20000 x 20000 RGB image
// as LZW TIFF, through the engine and through the plug-in.
void WriteAndReadBack(const char* label, int w, int h, PixelFormat fmt, UINT compression) {
    KY_REQUIRE_PLUGIN();
    const std::string path = Scratch(std::string(label) + ".tif");
    const auto t0 = std::chrono::steady_clock::now();
    {
        Image img;
        ASSERT_EQ(GdipCreateBitmapFromScan0(w, h, 0, fmt, nullptr, img.out()), OK);
        // A black frame one pixel wide, the rest white.
        GpRect all{0, 0, w, h};
        BitmapData d;
        ASSERT_EQ(GdipBitmapLockBits(img, &all, ImageLockModeWrite, fmt, &d), OK);
        const std::size_t rowBytes =
            static_cast<std::size_t>((w * GetPixelFormatSize(fmt) + 7) / 8);
        for (int y = 0; y < h; ++y) {
            auto* row =
                static_cast<std::uint8_t*>(d.Scan0) + static_cast<std::ptrdiff_t>(y) * d.Stride;
            std::memset(row, y == 0 || y == h - 1 ? 0 : 0xff, rowBytes);
            if (fmt == PixelFormat1bppIndexed) {
                row[0] &= 0x7f;
                row[(w - 1) / 8] &= static_cast<std::uint8_t>(~(0x80 >> ((w - 1) % 8)));
            } else {
                std::memset(row, 0, 3);
                std::memset(row + (w - 1) * 3, 0, 3);
            }
        }
        ASSERT_EQ(GdipBitmapUnlockBits(img, &d), OK);
        EncoderParameters p = Compression(&compression);
        ASSERT_TRUE(Save(img, path, EncoderClsidTIFF, &p));
    }
    const auto t1 = std::chrono::steady_clock::now();
    auto check = [&](ARGB corner, ARGB inside, ARGB edge) {
        EXPECT_EQ(corner & 0xffffff, 0u);
        EXPECT_EQ(inside & 0xffffff, 0xffffffu);
        EXPECT_EQ(edge & 0xffffff, 0u);
    };
    {
        Image back;
        ASSERT_EQ(GdipLoadImageFromFile(path, back.out()), OK);
        UINT bw = 0, bh = 0;
        GdipGetImageWidth(back, &bw);
        GdipGetImageHeight(back, &bh);
        EXPECT_EQ(static_cast<int>(bw), w);
        EXPECT_EQ(static_cast<int>(bh), h);
        ARGB a = 0, b = 0, c = 0;
        GdipBitmapGetPixel(back, w - 1, h - 1, &a);
        GdipBitmapGetPixel(back, w / 2, h / 2, &b);
        GdipBitmapGetPixel(back, 0, h / 3, &c);
        check(a, b, c);
    }
    const auto t2 = std::chrono::steady_clock::now();
    const std::intptr_t bm = KYIMGPLUG_LoadU(18, path.c_str(), 0);
    EXPECT_NE(bm, 0) << "the plug-in refused " << label;
    if (bm) {
        EXPECT_EQ(KYIMGPLUG_GetWidth(bm), w);
        EXPECT_EQ(KYIMGPLUG_GetHeight(bm), h);
        KYIMGPLUG_Unload(bm);
    }
    const auto t3 = std::chrono::steady_clock::now();
    auto s = [](auto a, auto b) { return std::chrono::duration<double>(b - a).count(); };
    std::printf("[big] %s: file %zu bytes; create+save %.2f s, engine load %.2f s, plug-in load "
                "%.2f s; peak %lld MB\n",
                label, ReadAll(path).size(), s(t0, t1), s(t1, t2), s(t2, t3),
                static_cast<long long>(PeakKb() / 1024));
    std::remove(path.c_str());
}

TEST(ReadBackBig, A0BitonalPageAsG4) {
    WriteAndReadBack("a0_g4", 19843, 28066, PixelFormat1bppIndexed, EncoderValueCompressionCCITT4);
}

TEST(ReadBackBig, SquareSide16384Plus1AsG4) {
    WriteAndReadBack("g4_16385", 16384, 16385, PixelFormat1bppIndexed,
                     EncoderValueCompressionCCITT4);
}

TEST(ReadBackBig, Rgb20000SquaredAsLzw) {
    WriteAndReadBack("rgb20000", 20000, 20000, PixelFormat24bppRGB, EncoderValueCompressionLZW);
}

} // namespace
} // namespace kestrelyn
