// The banded frame: a point filter run band by band gives the same pixels as
// over the whole zone at once, in every format the frame writes back; and the
// frame's memory stays near one band and goes back to the system afterwards.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "FilterTestSupport.h"
#include "core/modMain.h"
#include "platform/modGdiPlus.h"
#include "support/ProcessMemory.h"
#include "support/RegistryImages.h"

using namespace kestrelyn;
using namespace kytest;

namespace {

struct PointRun {
    FilterId id;
    double p1, p2, p3, p4;
};

// Every point and colour identifier, with parameters that change pixels.
const PointRun kPointRuns[] = {
    {FilterId::Negative, 0, 0, 0, 0},
    {FilterId::Grayscale, 0, 0, 0, 0},
    {FilterId::Brightness, 35, 0, 0, 0},
    {FilterId::SwapChannels, 2, 0, 0, 0},
    {FilterId::Contrast, 40, 0, 0, 0},
    {FilterId::Threshold, 0x708090, 0, 0, 0},
    {FilterId::OrderedDither, 0, 0, 0, 0},
    {FilterId::StretchContrast, 0, 0, 0, 0},
    {FilterId::Saturation, 60, 0, 0, 0},
    {FilterId::Gamma, 170, 0, 0, 0},
    {FilterId::Colorize, 0, 0, 0, 0},
    {FilterId::Transparency, -70, 0, 0, 0},
    {FilterId::AdjustRGB, 0, 25, -40, 60},
    {FilterId::KeepRed, 0, 0, 0, 0},
    {FilterId::KeepGreen, 0, 0, 0, 0},
    {FilterId::KeepBlue, 0, 0, 0, 0},
    {FilterId::RemoveRed, 0, 0, 0, 0},
    {FilterId::RemoveGreen, 0, 0, 0, 0},
    {FilterId::RemoveBlue, 0, 0, 0, 0},
    {FilterId::ScaleRed, 1.7, 0, 0, 0},
    {FilterId::ScaleGreen, 0.4, 0, 0, 0},
    {FilterId::ScaleBlue, 1.2, 0, 0, 0},
    {FilterId::ColorKey, 80, static_cast<double>(static_cast<std::int32_t>(0xFF8040C0u)), 0, 0},
    {FilterId::ColorReplace, 75, static_cast<double>(static_cast<std::int32_t>(0xC0406080u)),
     0x20A0B0C0, 0},
    {FilterId::Equalize, 0, 0, 0, 0},
};

// Varied colours and alphas, the same for every run.
std::vector<std::uint32_t> Noise(int w, int h, std::uint32_t seed) {
    std::vector<std::uint32_t> v(static_cast<std::size_t>(w) * h);
    for (std::uint32_t& p : v) {
        seed = seed * 1664525u + 1013904223u;
        p = seed ^ (seed >> 13);
    }
    return v;
}

int StrideOf(PixelFormat f, int w) {
    return ((w * GetPixelFormatSize(f) + 31) / 32) * 4;
}

// Runs one identifier over a zone of a fresh image and returns its rows in
// the image's own format.
std::vector<std::uint8_t> Filtered(PixelFormat f, const PointRun& r, const FilterZone& zone, int w,
                                   int h) {
    const std::int32_t id = test::RegisterPixels(f, Noise(w, h, 7), w, h);
    FilterParams p;
    p.Param1 = r.p1;
    p.Param2 = r.p2;
    p.Param3 = r.p3;
    p.Param4 = r.p4;
    EXPECT_EQ(RunFilter(r.id, id, zone, p), OK) << FilterNumber(r.id);
    auto rows = test::ReadRows(id, f, w, h, StrideOf(f, w));
    ReleaseImage(id);
    return rows;
}

using ::kestrelyn::test::StatusKb;
using ::kestrelyn::test::UnderSanitizer;

// Resets the peak resident figure of the process (Linux 4.0 and later).
bool ResetPeak() {
    std::ofstream out("/proc/self/clear_refs");
    out << "5";
    out.flush();
    return static_cast<bool>(out);
}

// A 24-bit registry image of w x h whose pixels are all resident.
std::int32_t Resident24(int w, int h) {
    GpBitmap* bmp = nullptr;
    EXPECT_EQ(GdipCreateBitmapFromScan0(w, h, 0, PixelFormat24bppRGB, nullptr, &bmp), OK);
    EXPECT_EQ(GdipBitmapFillColor(bmp, 0xFF336699u), OK);
    std::int32_t id = 0;
    RegisterImage(id, bmp, "Memory BMP", "", KindEngine);
    return id;
}

class BandedFrame : public ::testing::Test {
  protected:
    void TearDown() override { SetFilterBandPixels(0); }
};

} // namespace

TEST_F(BandedFrame, BandRowsAreWholeDitherPhases) {
    SetFilterBandPixels(1000);
    EXPECT_EQ(FilterBandRows(100), 8);
    EXPECT_EQ(FilterBandRows(90), 8); // 11 rows, down to a multiple of 4
    EXPECT_EQ(FilterBandRows(5000), 4);
    SetFilterBandPixels(0);
    EXPECT_EQ(FilterBandRows(20000), 52);
}

// Every point identifier, in every format the frame stores back, over a zone
// that leaves a margin on each side (so even 32-bit ARGB rows are copied) and
// over the whole image: bands of 8 rows give what one whole-zone pass gives.
TEST_F(BandedFrame, BandsGiveTheWholeZoneResult) {
    const int w = 37, h = 61;
    const PixelFormat formats[] = {PixelFormat24bppRGB, PixelFormat32bppARGB,
                                   PixelFormat8bppIndexed, PixelFormat1bppIndexed,
                                   PixelFormat16bppRGB555};
    const FilterZone zones[] = {{3, 5, 29, 51}, {0, 0, w, h}};
    for (PixelFormat f : formats)
        for (const FilterZone& zone : zones)
            for (const PointRun& r : kPointRuns) {
                SetFilterBandPixels(static_cast<std::size_t>(zone.Width) * 8);
                ASSERT_LT(FilterBandRows(zone.Width), zone.Height);
                const auto banded = Filtered(f, r, zone, w, h);
                SetFilterBandPixels(std::size_t(1) << 30);
                ASSERT_GE(FilterBandRows(zone.Width), zone.Height);
                const auto whole = Filtered(f, r, zone, w, h);
                EXPECT_EQ(banded, whole) << "id " << FilterNumber(r.id) << " format " << f
                                         << " zone " << zone.Width << "x" << zone.Height;
            }
}

// A failure found before the first write leaves a banded image as it was.
TEST_F(BandedFrame, AFailureBeforeWritingLeavesTheImage) {
    const int w = 16, h = 40;
    const auto px = Noise(w, h, 3);
    const std::int32_t id = test::RegisterPixels(PixelFormat24bppRGB, px, w, h);
    const auto before =
        test::ReadRows(id, PixelFormat24bppRGB, w, h, StrideOf(PixelFormat24bppRGB, w));
    SetFilterBandPixels(static_cast<std::size_t>(w) * 4);
    FilterParams p;
    p.Param1 = 1e300; // the brightness factor does not round to 32 bits
    EXPECT_ANY_THROW(RunFilter(FilterId::Brightness, id, FilterZone{0, 0, w, h}, p));
    EXPECT_EQ(test::ReadRows(id, PixelFormat24bppRGB, w, h, StrideOf(PixelFormat24bppRGB, w)),
              before);
    ReleaseImage(id);
}

// A point filter on a 24-bit image needs about one band beside the image, not
// a 32-bit copy of it (which would be 64 MB here).
TEST_F(BandedFrame, APointFilterPeaksAtAboutOneBand) {
    if (UnderSanitizer()) GTEST_SKIP() << "a sanitizer's allocator keeps freed memory";
    const int w = 4096, h = 4096;
    const std::int32_t id = Resident24(w, h);
    ASSERT_TRUE(ResetPeak());
    const long before = StatusKb("VmRSS");
    FilterParams p;
    p.Param1 = 20;
    ASSERT_EQ(RunFilter(FilterId::Brightness, id, FilterZone{0, 0, w, h}, p), OK);
    const long peak = StatusKb("VmHWM");
    EXPECT_LT(peak - before, 16 * 1024) << "kB above the image";
    ReleaseImage(id);
}

// After a whole-image filter on a large image is done and the image closed,
// the 32-bit working copy is not kept for the rest of the thread's life.
TEST_F(BandedFrame, LargeWorkBuffersGoBackToTheSystem) {
    if (UnderSanitizer()) GTEST_SKIP() << "a sanitizer's allocator keeps freed memory";
    ASSERT_TRUE(ResetPeak());
    const long start = StatusKb("VmRSS");
    const int w = 4096, h = 4096;
    const std::int32_t id = Resident24(w, h);
    FilterParams p;
    p.Param1 = 2;
    ASSERT_EQ(RunFilter(FilterId::Blur, id, FilterZone{0, 0, w, h}, p), OK);
    ASSERT_GT(StatusKb("VmHWM") - start, 64 * 1024); // the copy was there
    ReleaseImage(id);
    EXPECT_LT(StatusKb("VmRSS") - start, 16 * 1024) << "kB still resident";
}
