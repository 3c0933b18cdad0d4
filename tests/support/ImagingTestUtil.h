// Helpers shared by the core tests.
#pragma once
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <sys/stat.h>

#include "core/EngineState.h"
#include "core/modMain.h"
#include "imaging/cImaging.h"
#include "kestrelyn/Imaging.h"

namespace kestrelyn::test {

inline bool FileExists(const std::string& sPath) {
    struct stat st {};
    return ::stat(sPath.c_str(), &st) == 0;
}

inline void WriteFile(const std::string& sPath, const std::string& sContent) {
    std::ofstream f(sPath, std::ios::binary);
    f << sContent;
}

// Records of the thread's registry that hold an image.
inline int LiveImages() {
    int n = 0;
    for (const ImageRecord& rec : ThreadRegistry().arRecords)
        n += rec.nImageID != 0;
    return n;
}

// Makes a bare engine bitmap and registers it as the registry would for a new
// empty bitmap; returns its id.
inline std::int32_t RegisterNewBitmap(std::int32_t w, std::int32_t h,
                                      PixelFormat fmt = PixelFormat32bppARGB) {
    std::int32_t id = 0;
    EXPECT_EQ(CreateBitmap(w, h, 0, fmt, nullptr, id, false), OK);
    return id;
}

// A fixture with one live inner object, so that the thread's engine runs and
// its registry is emptied when the test ends.
class CoreFixture : public ::testing::Test {
  protected:
    void SetUp() override { core = std::make_unique<cImaging>(); }
    void TearDown() override { core.reset(); }
    std::unique_ptr<cImaging> core;
};

} // namespace kestrelyn::test
