// The skew measure: edge points of the central rows vote into a Hough
// accumulator of (distance, angle); the ten strongest counters give the angle.
#include "analysis/cAutoDeskew.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>
#include <utility>

#include "core/modMain.h"
#include "platform/modGdiPlus.h"

namespace kestrelyn {

namespace {

constexpr std::int32_t kMinSide = 51;
constexpr double kAngleStep = 0.2;
// Written out as it has always been, not the nearer value of pi.
constexpr double kPi = 3.141592657;
constexpr double kDarkBelow = 140.0;

// Round to nearest, ties to even, in the default rounding mode.
inline std::int64_t RoundHalfEven(double v) {
    return std::llrint(v);
}

// The same for the votes' distances, which stay far below 2^51 in magnitude:
// adding and taking away 1.5 * 2^52 leaves v rounded by the FPU's own
// ties-to-even rounding, without a library call.
inline std::int64_t RoundSmallHalfEven(double v) {
    constexpr double kShift = 6755399441055744.0; // 1.5 * 2^52
    return static_cast<std::int64_t>((v + kShift) - kShift);
}

// Which pixels of a row count as ink: red 0 on a bitonal image, else a
// luminance below 140 (exactly 140 is not dark).
void MarkDark(const std::uint32_t* row, std::int32_t nWidth, bool bBitonal, std::uint8_t* dark) {
    for (std::int32_t x = 0; x < nWidth; ++x) {
        const std::uint32_t p = row[x];
        const std::uint32_t r = (p >> 16) & 0xFF;
        if (bBitonal) {
            dark[x] = r == 0;
        } else {
            const double lum = 0.299 * r + 0.587 * ((p >> 8) & 0xFF) + 0.114 * (p & 0xFF);
            dark[x] = lum < kDarkBelow;
        }
    }
}

template <class Fn> KestrelynStatus Trapped(Fn&& fn) {
    try {
        return fn();
    } catch (const std::bad_alloc&) {
        return OutOfMemory;
    } catch (...) {
        return GenericError;
    }
}

} // namespace

SkewPeaks FindSkewPeaks(const std::uint32_t* arCounters, std::size_t nCount) {
    SkewPeaks peaks{};
    constexpr std::size_t last = kSkewPeakCount - 1;
    for (std::size_t i = 0; i < nCount; ++i) {
        const auto count = static_cast<std::int32_t>(arCounters[i]);
        if (count <= peaks[last].Count) continue;
        peaks[last] = SkewPeak{count, static_cast<std::int32_t>(i), 0.0};
        for (std::size_t j = last; j > 0 && peaks[j - 1].Count < peaks[j].Count; --j)
            std::swap(peaks[j - 1], peaks[j]);
    }
    return peaks;
}

double SkewFromPeaks(const SkewPeaks& arPeaks) {
    double lo = arPeaks[0].Angle, hi = arPeaks[0].Angle, sum = 0;
    for (const SkewPeak& p : arPeaks) {
        lo = std::min(lo, p.Angle);
        hi = std::max(hi, p.Angle);
        sum += p.Angle;
    }
    const double mean = sum / static_cast<double>(kSkewPeakCount);
    const double spread = std::fabs(hi - lo);
    if (!(spread < 4)) return 0;
    // A spread wider than the angle itself is noise.
    return spread > std::fabs(mean) ? 0 : mean;
}

KestrelynStatus cAutoDeskew::Prepare(std::int32_t nWidth, std::int32_t nHeight) {
    SkewAngle = 0;
    ImageWidth = nWidth;
    ImageHeight = nHeight;
    if (nWidth < kMinSide || nHeight < kMinSide) return Aborted;
    const std::int64_t angles = RoundHalfEven(2 * MaxAngle / kAngleStep);
    const std::int64_t distances = 2 * (static_cast<std::int64_t>(nWidth) + nHeight);
    if (angles < 1 || angles > std::numeric_limits<std::int32_t>::max() ||
        distances > std::numeric_limits<std::int32_t>::max())
        return GenericError;
    AngleCount = static_cast<std::int32_t>(angles);
    DistanceCount = static_cast<std::int32_t>(distances);
    SinTable.assign(static_cast<std::size_t>(AngleCount), 0.0);
    CosTable.assign(static_cast<std::size_t>(AngleCount), 0.0);
    for (std::int32_t i = 0; i < AngleCount; ++i) {
        const double r = AngleOf(i) * kPi / 180;
        SinTable[static_cast<std::size_t>(i)] = std::sin(r);
        CosTable[static_cast<std::size_t>(i)] = std::cos(r);
    }
    return OK;
}

void cAutoDeskew::Analyse(const std::uint32_t* pPixels) {
    const std::size_t W = static_cast<std::size_t>(ImageWidth);
    const std::size_t A = static_cast<std::size_t>(AngleCount);
    const std::int64_t A64 = AngleCount;
    // Entries 0 to AngleCount * DistanceCount, both included.
    const std::size_t entries = A * static_cast<std::size_t>(DistanceCount) + 1;
    Accumulator.assign(entries, 0u);
    std::uint32_t* acc = Accumulator.data();
    const double* sinT = SinTable.data();
    const double width = ImageWidth;

    const auto y1 = static_cast<std::int32_t>(RoundHalfEven(ImageHeight / 4.0));
    const auto y2 = static_cast<std::int32_t>(RoundHalfEven(3.0 * ImageHeight / 4.0));
    std::vector<std::uint8_t> dark(W), below(W);
    std::vector<double> yCos(A); // y * cos of each angle, as the vote computes it
    MarkDark(pPixels + static_cast<std::size_t>(y1) * W, ImageWidth, IsBitonal, dark.data());
    for (std::int32_t y = y1; y <= y2; ++y) {
        MarkDark(pPixels + static_cast<std::size_t>(y + 1) * W, ImageWidth, IsBitonal,
                 below.data());
        for (std::size_t a = 0; a < A; ++a)
            yCos[a] = y * CosTable[a];
        for (std::int32_t x = 1; x <= ImageWidth - 2; ++x) {
            if (!dark[static_cast<std::size_t>(x)] || below[static_cast<std::size_t>(x)]) continue;
            const double xd = x;
            // d = Round(y cos a - x sin a + width), in that order of operations.
            for (std::size_t a = 0; a < A; ++a) {
                const std::int64_t d = RoundSmallHalfEven(yCos[a] - xd * sinT[a] + width);
                // A negative index turns huge and is skipped with those past the end.
                const auto index =
                    static_cast<std::uint64_t>(d * A64 + static_cast<std::int64_t>(a));
                if (index < entries) ++acc[index];
            }
        }
        std::swap(dark, below);
    }

    Peaks = FindSkewPeaks(acc, entries);
    for (SkewPeak& p : Peaks)
        p.Angle = AngleOf(static_cast<std::int32_t>(static_cast<std::size_t>(p.Index) % A));
    SkewAngle = SkewFromPeaks(Peaks);
    std::vector<std::uint32_t>().swap(Accumulator);
}

KestrelynStatus cAutoDeskew::Measure(std::int32_t nWidth, std::int32_t nHeight, bool bIsBitonal,
                                     const std::uint32_t* pPixels) {
    return Trapped([&]() -> KestrelynStatus {
        const KestrelynStatus st = Prepare(nWidth, nHeight);
        if (st != OK) return st;
        if (!pPixels) return GenericError;
        IsBitonal = bIsBitonal;
        Analyse(pPixels);
        return OK;
    });
}

KestrelynStatus cAutoDeskew::MeasureImage(std::int32_t nImageID) {
    SkewAngle = 0;
    const KestrelynStatus status = Trapped([&]() -> KestrelynStatus {
        GpImage* img = ResolveGdiPlusImage(nImageID);
        UINT w = 0, h = 0;
        KestrelynStatus st = GdipGetImageWidth(img, &w);
        if (st == OK) st = GdipGetImageHeight(img, &h);
        if (st != OK) return st;
        if (w > static_cast<UINT>(std::numeric_limits<std::int32_t>::max()) ||
            h > static_cast<UINT>(std::numeric_limits<std::int32_t>::max()))
            return GenericError;
        st = Prepare(static_cast<std::int32_t>(w), static_cast<std::int32_t>(h));
        if (st != OK) return st;
        PixelFormat format = 0;
        st = GdipGetImagePixelFormat(img, &format);
        if (st != OK) return st;
        IsBitonal = GetPixelFormatSize(format) == 1;

        // The whole image as 32-bit ARGB into the private copy (flag 5:
        // read into the caller's buffer).
        Pixels.assign(static_cast<std::size_t>(w) * h, 0u);
        BitmapData data;
        data.Width = w;
        data.Height = h;
        data.Stride = static_cast<INT>(4 * w);
        data.PixelFormat = PixelFormat32bppARGB;
        data.Scan0 = Pixels.data();
        PixelFormat locked = PixelFormat32bppARGB;
        const GpRect rect{0, 0, static_cast<INT>(w), static_cast<INT>(h)};
        st = LockBits(nImageID, rect, ImageLockModeRead | ImageLockModeUserInputBuf, locked, data);
        if (st != OK) return st;
        st = UnlockBits(nImageID, data);
        if (st != OK) return st;
        Analyse(Pixels.data());
        return OK;
    });
    std::vector<std::uint32_t>().swap(Pixels);
    std::vector<std::uint32_t>().swap(Accumulator);
    return status;
}

} // namespace kestrelyn
