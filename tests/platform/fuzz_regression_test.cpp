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

} // namespace
} // namespace kestrelyn
