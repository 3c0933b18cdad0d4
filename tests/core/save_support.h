// Helpers of the saving and multi-page tests: a private temporary folder
// (also the registry's), images with known pixels, and the independent
// readers (tiffinfo, PIL, ImageMagick) run as programs.
#pragma once
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "core/ImageSaver.h"
#include "core/modMain.h"
#include "file_support.h"
#include "imaging/cImaging.h"
#include "kestrelyn/Imaging.h"
#include "platform/modGdiPlus.h"

namespace kestrelyn::savetest {

using coretest::CountEntries;
using coretest::Exists;
using coretest::ReadBytes;

// Output of a shell command (stderr folded in) and its exit code.
inline std::string Shell(const std::string& sCommand, int* pExit = nullptr) {
    std::string out;
    std::FILE* p = ::popen((sCommand + " 2>&1").c_str(), "r");
    if (!p) return out;
    std::array<char, 4096> buf{};
    std::size_t n;
    while ((n = std::fread(buf.data(), 1, buf.size(), p)) > 0)
        out.append(buf.data(), n);
    const int rc = ::pclose(p);
    if (pExit) *pExit = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return out;
}

// Number of pages tiffinfo finds, and the compression scheme of each.
inline std::vector<std::string> TiffCompressions(const std::string& sPath) {
    std::vector<std::string> schemes;
    std::istringstream in(Shell("tiffinfo " + sPath));
    std::string line;
    while (std::getline(in, line)) {
        const auto at = line.find("Compression Scheme: ");
        if (at != std::string::npos) schemes.push_back(line.substr(at + 20));
    }
    return schemes;
}

// "W H MODE" as PIL reads the file; "" if PIL fails.
inline std::string PilInfo(const std::string& sPath) {
    int rc = 0;
    std::string out = Shell(
        "/usr/bin/python3 -c \"import sys; from PIL import Image; im=Image.open(sys.argv[1]); "
        "print(im.size[0], im.size[1], im.mode)\" " +
            sPath,
        &rc);
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r'))
        out.pop_back();
    return rc == 0 ? out : "";
}

// The RGB bytes of a file's frame as PIL decodes them (top-down rows).
inline std::vector<std::uint8_t> PilRgb(const std::string& sPath, int nFrame = 0) {
    const std::string raw = sPath + ".pilrgb";
    Shell(
        "/usr/bin/python3 -c \"import sys; from PIL import Image; im=Image.open(sys.argv[1]); "
        "im.seek(int(sys.argv[3])); open(sys.argv[2],'wb').write(im.convert('RGB').tobytes())\" " +
        sPath + " " + raw + " " + std::to_string(nFrame));
    std::vector<std::uint8_t> bytes = ReadBytes(raw);
    std::remove(raw.c_str());
    return bytes;
}

// "W H" as ImageMagick's identify reads the first frame; "" when it fails.
inline std::string IdentifySize(const std::string& sPath) {
    int rc = 0;
    std::string out = Shell("/usr/bin/identify -format '%w %h\\n' '" + sPath + "[0]'", &rc);
    const auto nl = out.find('\n');
    if (nl != std::string::npos) out.resize(nl);
    return rc == 0 ? out : "";
}

// The RGB bytes of a registry image (top-down rows, no padding).
inline std::vector<std::uint8_t> ImageRgb(std::int32_t nImageID) {
    GpImage* img = ResolveGdiPlusImage(nImageID);
    UINT w = 0, h = 0;
    GdipGetImageWidth(img, &w);
    GdipGetImageHeight(img, &h);
    GpRect all{0, 0, static_cast<INT>(w), static_cast<INT>(h)};
    BitmapData d{};
    std::vector<std::uint8_t> rgb;
    if (GdipBitmapLockBits(img, &all, ImageLockModeRead, PixelFormat32bppARGB, &d) != OK)
        return rgb;
    rgb.reserve(static_cast<std::size_t>(w) * h * 3);
    for (UINT y = 0; y < h; ++y) {
        const auto* row =
            static_cast<const std::uint8_t*>(d.Scan0) + static_cast<std::ptrdiff_t>(y) * d.Stride;
        for (UINT x = 0; x < w; ++x) {
            rgb.push_back(row[4 * x + 2]);
            rgb.push_back(row[4 * x + 1]);
            rgb.push_back(row[4 * x + 0]);
        }
    }
    GdipBitmapUnlockBits(img, &d);
    return rgb;
}

// Sets every pixel of a registry image to colour(x, y), an ARGB value.
template <typename Fn> void PaintPixels(std::int32_t nImageID, Fn&& colour) {
    GpImage* img = ResolveGdiPlusImage(nImageID);
    UINT w = 0, h = 0;
    GdipGetImageWidth(img, &w);
    GdipGetImageHeight(img, &h);
    GpRect all{0, 0, static_cast<INT>(w), static_cast<INT>(h)};
    BitmapData d{};
    ASSERT_EQ(GdipBitmapLockBits(img, &all, ImageLockModeRead | ImageLockModeWrite,
                                 PixelFormat32bppARGB, &d),
              OK);
    for (UINT y = 0; y < h; ++y) {
        auto* row = static_cast<std::uint32_t*>(static_cast<void*>(
            static_cast<std::uint8_t*>(d.Scan0) + static_cast<std::ptrdiff_t>(y) * d.Stride));
        for (UINT x = 0; x < w; ++x)
            row[x] = colour(x, y);
    }
    ASSERT_EQ(GdipBitmapUnlockBits(img, &d), OK);
}

// Fills a registry image with a pattern that varies per pixel and per seed.
inline void PaintPattern(std::int32_t nImageID, int nSeed) {
    PaintPixels(nImageID, [nSeed](UINT x, UINT y) {
        return 0xFF000000u | ((x * 7 + static_cast<UINT>(nSeed) * 31) & 0xFF) << 16 |
               ((y * 5 + static_cast<UINT>(nSeed) * 17) & 0xFF) << 8 | ((x ^ y) & 0xFF);
    });
}

// Sets every pixel of a 1-bit image from a function of (x, y).
template <typename Fn> void PaintBits(std::int32_t nImageID, Fn&& black) {
    PaintPixels(nImageID,
                [&black](UINT x, UINT y) { return black(x, y) ? 0xFF000000u : 0xFFFFFFFFu; });
}

// A fixture with its own temporary folder, which is also where the registry
// puts its temporary files; the folder must be empty of them at the end.
class SaveFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/kysaveXXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        dir = tmpl;
        work = dir + "/work";
        tmp = dir + "/tmp";
        ::mkdir(work.c_str(), 0700);
        ::mkdir(tmp.c_str(), 0700);
        ::setenv("tmp", tmp.c_str(), 1);
        img = std::make_unique<Imaging>();
        img->GetStat(); // the engine starts with the inner object
    }
    void TearDown() override {
        img.reset();
        EXPECT_EQ(CountEntries(tmp), 0) << "temporary files left behind";
        Shell("rm -rf " + dir);
        ::unsetenv("tmp");
    }
    std::string W(const std::string& name) const { return work + "/" + name; }
    // A new image that becomes the native image.
    std::int32_t NewNative(int w, int h, int depth, int seed = 1) {
        const std::int32_t id = img->CreateNewImage(w, h, depth, 0xFFFFFFFFu);
        EXPECT_NE(id, 0);
        if (depth >= 24) PaintPattern(id, seed);
        img->SetNativeImage(id);
        return id;
    }
    std::string dir, work, tmp;
    std::unique_ptr<Imaging> img;
};

} // namespace kestrelyn::savetest
