// Helpers of the loading tests: sample files made by the engine's encoders,
// a private temporary folder, descriptor counts.
#pragma once
#include <dirent.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/CodecPluginBridge.h"
#include "core/ImageLoader.h"
#include "core/modMain.h"
#include "file_support.h"
#include "imaging/cImaging.h"
#include "kestrelyn/Imaging.h"
#include "platform/modGdiPlus.h"
#include "platform/modkyimgplug.h"

namespace kestrelyn::loadtest {

using coretest::CountEntries;
using coretest::Exists;
using coretest::ReadBytes;

inline int OpenDescriptors() {
    return CountEntries("/proc/self/fd");
}

// Descriptors of this process open on the file at sPath (by the link each
// entry of /proc/self/fd holds).
inline int DescriptorsOn(const std::string& sPath) {
    char real[PATH_MAX];
    if (!::realpath(sPath.c_str(), real)) return 0;
    int n = 0;
    if (DIR* d = ::opendir("/proc/self/fd")) {
        while (dirent* e = ::readdir(d)) {
            const std::string entry = std::string("/proc/self/fd/") + e->d_name;
            char target[PATH_MAX];
            const ssize_t len = ::readlink(entry.c_str(), target, sizeof target - 1);
            if (len <= 0) continue;
            target[len] = '\0';
            n += std::strcmp(target, real) == 0;
        }
        ::closedir(d);
    }
    return n;
}

// Records of the thread's registry that hold an image.
inline int LiveImagesNow() {
    int n = 0;
    for (const ImageRecord& rec : ThreadRegistry().arRecords)
        n += rec.nImageID != 0;
    return n;
}

inline void WriteBytes(const std::string& sPath, const std::vector<std::uint8_t>& arBytes) {
    std::ofstream f(sPath, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(arBytes.data()),
            static_cast<std::streamsize>(arBytes.size()));
}

// An engine bitmap filled with one colour, or a pattern when nColour is 0:
// pixel (x, y) = 0xFF000000 | x * 16 << 16 | y * 16 << 8 | 0x40.
inline GpBitmap* MakeBitmap(INT w, INT h, ARGB nColour = 0, PixelFormat fmt = PixelFormat24bppRGB) {
    GpBitmap* bmp = nullptr;
    EXPECT_EQ(GdipCreateBitmapFromScan0(w, h, 0, PixelFormat32bppARGB, nullptr, &bmp), OK);
    for (INT y = 0; y < h; ++y)
        for (INT x = 0; x < w; ++x)
            GdipBitmapSetPixel(bmp, x, y,
                               nColour ? nColour
                                       : 0xFF000040u | (ARGB(x * 16 & 0xFF) << 16) |
                                             (ARGB(y * 16 & 0xFF) << 8));
    if (fmt == PixelFormat32bppARGB) return bmp;
    GpBitmap* out = nullptr;
    EXPECT_EQ(GdipCloneBitmapAreaI(0, 0, w, h, fmt, bmp, &out), OK);
    GdipDisposeImage(bmp);
    return out;
}

// Every property item of an image as (id, type, bytes), in the image's order.
struct PropertyValue {
    PROPID id;
    std::uint16_t type;
    std::vector<std::uint8_t> bytes;
    bool operator==(const PropertyValue&) const = default;
};
inline std::vector<PropertyValue> Properties(GpImage* img) {
    std::vector<PropertyValue> out;
    UINT count = 0;
    if (GdipGetPropertyCount(img, &count) != OK || count == 0) return out;
    std::vector<PROPID> ids(count);
    if (GdipGetPropertyIdList(img, count, ids.data()) != OK) return out;
    for (PROPID id : ids) {
        UINT size = 0;
        if (GdipGetPropertyItemSize(img, id, &size) != OK) continue;
        std::vector<std::uint8_t> buffer(size);
        auto* item = reinterpret_cast<PropertyItem*>(buffer.data());
        if (GdipGetPropertyItem(img, id, size, item) != OK) continue;
        const auto* v = static_cast<const std::uint8_t*>(item->value);
        out.push_back({id, item->type, std::vector<std::uint8_t>(v, v + item->length)});
    }
    return out;
}

inline ARGB PatternAt(INT x, INT y) {
    return 0xFF000040u | (ARGB(x * 16 & 0xFF) << 16) | (ARGB(y * 16 & 0xFF) << 8);
}

inline bool SaveAs(GpImage* img, const std::string& sPath, const GUID& clsid) {
    return GdipSaveImageToFile(img, sPath, &clsid, nullptr) == OK;
}

inline EncoderParameters SaveFlag(UINT* pValue) {
    EncoderParameters p{};
    p.Count = 1;
    p.Parameter[0].Guid = EncoderSaveFlag;
    p.Parameter[0].NumberOfValues = 1;
    p.Parameter[0].Type = EncoderParameterValueTypeLong;
    p.Parameter[0].Value = pValue;
    return p;
}

// A TIFF with one page per colour (each 6 by 4); a page with a description
// carries it as tag 270.
inline bool WriteMultiPageTiff(const std::string& sPath, const std::vector<ARGB>& arColours,
                               const std::vector<std::string>& arDescriptions = {}) {
    std::vector<GpBitmap*> pages;
    for (ARGB c : arColours) {
        pages.push_back(MakeBitmap(6, 4, c));
        if (pages.size() > arDescriptions.size()) continue;
        std::string text = arDescriptions[pages.size() - 1];
        PropertyItem item{270, static_cast<std::uint32_t>(text.size() + 1), PropertyTagTypeASCII,
                          text.data()};
        GdipSetPropertyItem(pages.back(), &item);
    }
    UINT flag = EncoderValueMultiFrame;
    EncoderParameters p = SaveFlag(&flag);
    bool ok = GdipSaveImageToFile(pages[0], sPath, &EncoderClsidTIFF, &p) == OK;
    flag = EncoderValueFrameDimensionPage;
    for (std::size_t i = 1; ok && i < pages.size(); ++i)
        ok = GdipSaveAddImage(pages[0], pages[i], &p) == OK;
    flag = EncoderValueFlush;
    ok = ok && GdipSaveAdd(pages[0], &p) == OK;
    for (GpBitmap* b : pages)
        GdipDisposeImage(b);
    return ok;
}

// A 2 by 2 true-colour Targa: blue, green over red, white.
inline std::vector<std::uint8_t> SmallTarga() {
    // Header (uncompressed true colour, 2 by 2, 24 bits), then the rows
    // bottom-up as B,G,R.
    return {0, 0,  2, 0, 0, 0,   0,   0,   0,   0,   0, 0, 2, 0,   2,
            0, 24, 0, 0, 0, 255, 255, 255, 255, 255, 0, 0, 0, 255, 0};
}

inline bool Shell(const std::string& sCommand) {
    return std::system(sCommand.c_str()) == 0;
}

// Every test runs with its own temporary folder (environment "tmp"), so that
// temporary files can be counted, and with one live object.
class LoadFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/ky_load_XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        sDir = pattern;
        sTempDir = sDir + "/tmp";
        ASSERT_EQ(::mkdir(sTempDir.c_str(), 0700), 0);
        if (const char* old = std::getenv("tmp")) sOldTmp = old, bHadTmp = true;
        ::setenv("tmp", sTempDir.c_str(), 1);
        img = std::make_unique<Imaging>();
        img->GetStat(); // the engine runs from here on
    }
    void TearDown() override {
        img.reset();
        if (bHadTmp)
            ::setenv("tmp", sOldTmp.c_str(), 1);
        else
            ::unsetenv("tmp");
        Shell("rm -rf '" + sDir + "'");
    }
    std::string Path(const std::string& sName) const { return sDir + "/" + sName; }
    int TempFiles() const { return CountEntries(sTempDir); }
    std::string WriteSample(const std::string& sName, const GUID& clsid, ARGB nColour = 0,
                            INT w = 8, INT h = 6) {
        GpBitmap* bmp = MakeBitmap(w, h, nColour);
        const std::string p = Path(sName);
        EXPECT_TRUE(SaveAs(bmp, p, clsid));
        GdipDisposeImage(bmp);
        return p;
    }
    const ImageRecord& Record(std::int32_t id) {
        static ImageRecord none;
        const ImageRecord* rec = FindImageRecord(id);
        EXPECT_NE(rec, nullptr) << "no record for id " << id;
        return rec ? *rec : none;
    }

    std::string sDir, sTempDir, sOldTmp;
    bool bHadTmp = false;
    std::unique_ptr<Imaging> img;
};

} // namespace kestrelyn::loadtest
