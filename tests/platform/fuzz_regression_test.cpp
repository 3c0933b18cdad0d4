// Inputs the fuzz targets found to crash, leak, hang or exhaust memory in the
// engine's decoders (fuzz/regressions/engine_<decoder>/). Each must now load
// to a status of the decoder's own, and a loaded image must lock every frame
// as 32bppARGB. Leaks show under the sanitizer build (make asan).
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/modGdiPlus.h"

namespace kestrelyn {
namespace {

namespace fs = std::filesystem;

const fs::path kRegressions = fs::path(KY_SOURCE_DIR) / "fuzz" / "regressions";

std::vector<std::uint8_t> ReadAll(const fs::path& path) {
    std::ifstream f(path, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(f), {});
}

std::vector<fs::path> EngineInputs() {
    std::vector<fs::path> files;
    if (!fs::is_directory(kRegressions)) return files;
    for (const auto& dir : fs::directory_iterator(kRegressions)) {
        if (!dir.is_directory() || dir.path().filename().string().rfind("engine_", 0) != 0)
            continue;
        for (const auto& f : fs::directory_iterator(dir.path()))
            if (f.is_regular_file()) files.push_back(f.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

struct Loaded {
    GpStatus status = GenericError;
    GpImage* image = nullptr;
    ~Loaded() {
        if (image) GdipDisposeImage(image);
    }
};

void Load(const fs::path& path, Loaded& out) {
    out.status = GdipLoadImageFromStream(CreateMemoryStream(ReadAll(path)), &out.image);
}

// Selects each frame of every dimension and locks it; the number of frames.
UINT LockEveryFrame(GpImage* image) {
    UINT dims = 0, total = 0;
    EXPECT_EQ(GdipImageGetFrameDimensionsCount(image, &dims), OK);
    std::vector<GUID> list(dims);
    if (dims) {
        EXPECT_EQ(GdipImageGetFrameDimensionsList(image, list.data(), dims), OK);
    }
    for (const GUID& dim : list) {
        UINT frames = 0;
        EXPECT_EQ(GdipImageGetFrameCount(image, &dim, &frames), OK);
        for (UINT i = 0; i < frames; ++i) {
            EXPECT_EQ(GdipImageSelectActiveFrame(image, &dim, i), OK) << "frame " << i;
            UINT w = 0, h = 0;
            GdipGetImageWidth(image, &w);
            GdipGetImageHeight(image, &h);
            GpRect r{0, 0, INT(w), INT(h)};
            BitmapData data;
            EXPECT_EQ(GdipBitmapLockBits(image, &r, ImageLockModeRead, PixelFormat32bppARGB, &data),
                      OK)
                << "frame " << i;
            GdipBitmapUnlockBits(image, &data);
        }
        total += frames;
    }
    return total;
}

TEST(FuzzRegressionEngine, EveryInputLoadsToAStatusOrLocksEveryFrame) {
    auto files = EngineInputs();
    ASSERT_FALSE(files.empty()) << "no inputs under " << kRegressions;
    const GpStatus allowed[] = {OK,          GenericError,       InvalidParameter,
                                OutOfMemory, UnknownImageFormat, ValueOverflow};
    for (const auto& path : files) {
        SCOPED_TRACE(path.string());
        Loaded img;
        Load(path, img);
        EXPECT_NE(std::find(std::begin(allowed), std::end(allowed), img.status), std::end(allowed))
            << "status " << img.status;
        if (img.status == OK) {
            ASSERT_NE(img.image, nullptr);
            LockEveryFrame(img.image);
        } else {
            EXPECT_EQ(img.image, nullptr);
        }
    }
}

// A GIF whose second frame (with a local colour table) has no width: the
// first frame is kept whole and the dropped frame's table is released.
TEST(FuzzRegressionEngine, GifKeepsTheFramesBeforeABrokenOne) {
    Loaded img;
    Load(kRegressions / "engine_gif" / "local-map-after-good-frame.gif", img);
    ASSERT_EQ(img.status, OK);
    EXPECT_EQ(LockEveryFrame(img.image), 1u);
    UINT w = 0, h = 0;
    GdipGetImageWidth(img.image, &w);
    GdipGetImageHeight(img.image, &h);
    EXPECT_EQ(w, 2u);
    EXPECT_EQ(h, 2u);
    ARGB c = 0;
    ASSERT_EQ(GdipBitmapGetPixel(img.image, 1, 1, &c), OK);
    EXPECT_EQ(c, 0xff000000u); // index 0 of the local table: opaque black
}

// RLE runs now go straight into the bitmap: a 4-bit file with runs, an
// absolute run, end-of-line and end-of-picture codes keeps every nibble.
TEST(FuzzRegressionEngine, Rle4RunsLandInTheirNibbles) {
    std::vector<std::uint8_t> rle = {4,    0x12, 2,    0xff, 0, 0, 0,    4, 0x34,
                                     0x56, 2,    0x77, 0,    0, 6, 0x21, 0, 1};
    std::vector<std::uint8_t> file = {'B', 'M'};
    auto le32 = [&](std::uint32_t v) {
        for (int i = 0; i < 4; ++i)
            file.push_back(std::uint8_t(v >> (8 * i)));
    };
    auto le16 = [&](std::uint16_t v) {
        file.push_back(std::uint8_t(v));
        file.push_back(std::uint8_t(v >> 8));
    };
    const std::uint32_t offset = 14 + 40 + 16 * 4;
    le32(offset + std::uint32_t(rle.size()));
    le32(0);
    le32(offset);
    le32(40);
    le32(6); // width
    le32(3); // height, bottom-up
    le16(1);
    le16(4);
    le32(2); // RLE4
    le32(std::uint32_t(rle.size()));
    le32(2835);
    le32(2835);
    le32(16);
    le32(0);
    for (std::uint32_t i = 0; i < 16; ++i)
        le32(0xff000000u | i * 0x100000u); // index i: red 16 * i
    file.insert(file.end(), rle.begin(), rle.end());

    Loaded img;
    img.status = GdipLoadImageFromStream(CreateMemoryStream(file), &img.image);
    ASSERT_EQ(img.status, OK);
    const int expected[3][6] = {{2, 1, 2, 1, 2, 1}, {3, 4, 5, 6, 7, 7}, {1, 2, 1, 2, 15, 15}};
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 6; ++x) {
            ARGB c = 0;
            ASSERT_EQ(GdipBitmapGetPixel(img.image, x, y, &c), OK);
            EXPECT_EQ((c >> 16) & 0xff, ARGB(16 * expected[y][x])) << x << "," << y;
        }
}

} // namespace
} // namespace kestrelyn
