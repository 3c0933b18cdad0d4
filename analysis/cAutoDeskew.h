// Skew measure of a scanned page: a Hough transform over the lower edges of
// the dark marks in the central half of the rows. Text lines give many such
// points on straight lines; the angle of the strongest lines is the skew.
// The measure reads pixels only; it changes nothing in an image.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "kestrelyn/KestrelynStatus.h"

namespace kestrelyn {

// One of the strongest accumulator entries.
struct SkewPeak {
    std::int32_t Count = 0;
    std::int32_t Index = 0; // accumulator index
    double Angle = 0;       // degrees
};

inline constexpr std::size_t kSkewPeakCount = 10;
using SkewPeaks = std::array<SkewPeak, kSkewPeakCount>;

// The ten strongest counters, by descending count. A counter enters when
// strictly above the weakest kept and rises past strictly smaller ones only,
// so among equal counts the one met first ranks higher; with no counter
// above 0 all ten stay at index 0. Angles are left at 0.
SkewPeaks FindSkewPeaks(const std::uint32_t* arCounters, std::size_t nCount);

// The skew from the peaks' angles: their mean when the spread (highest minus
// lowest) is below 4 degrees and not wider than the mean's magnitude, else 0.
double SkewFromPeaks(const SkewPeaks& arPeaks);

class cAutoDeskew {
  public:
    double MaxAngle = 20; // half the searched range, degrees
    double SkewAngle = 0; // the result, degrees
    std::int32_t AngleCount = 0;
    std::int32_t DistanceCount = 0;
    std::vector<double> SinTable;
    std::vector<double> CosTable;
    // Counters, angle index fastest: distance d, angle index a at d * AngleCount + a.
    std::vector<std::uint32_t> Accumulator;
    std::vector<std::uint32_t> Pixels; // the image as 32-bit ARGB, x fastest
    std::int32_t ImageWidth = 0;
    std::int32_t ImageHeight = 0;
    bool IsBitonal = false;
    SkewPeaks Peaks{}; // of the last measure

    // Degrees of angle index i (step 0.2, from -MaxAngle).
    double AngleOf(std::int32_t i) const { return i * 0.2 - MaxAngle; }

    // Measures nWidth x nHeight packed 32-bit ARGB pixels; bIsBitonal when
    // the image's depth is 1. Status 9 when a side is under 51 pixels, 3 when
    // memory runs out, 1 on any other failure.
    KestrelynStatus Measure(std::int32_t nWidth, std::int32_t nHeight, bool bIsBitonal,
                            const std::uint32_t* pPixels);
    // Measures a registry image, read whole as 32-bit ARGB; a failed lock
    // gives its status.
    KestrelynStatus MeasureImage(std::int32_t nImageID);

  private:
    KestrelynStatus Prepare(std::int32_t nWidth, std::int32_t nHeight);
    void Analyse(const std::uint32_t* pPixels);
};

} // namespace kestrelyn
