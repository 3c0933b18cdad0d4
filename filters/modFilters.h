// The filter engine: one frame (RunFilter) that brings a rectangle of a
// registry image into flat 32-bit buffers (bytes blue, green, red, alpha; rows
// packed), runs the pure function of a filter identifier over them and stores
// the result back in the image's own pixel format. It knows images by their
// registry id only; the caller says which rectangle.
//
// All state of one run lives in a FilterContext owned by that call, so two
// threads may filter two images at the same time.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "filters/FilterId.h"
#include "kestrelyn/KestrelynStatus.h"

namespace kestrelyn {

// A flat run of pixels (bytes blue, green, red, alpha; rows packed). It either
// owns an uninitialised block or borrows someone else's pixels (the frame
// lends an image's own rows this way). Owned blocks of up to one row band
// come from and return to a small per-thread pool, so repeated runs do not
// pay for fresh pages; larger blocks go back to the system when released.
class FilterPixels {
  public:
    FilterPixels() = default;
    FilterPixels(const std::vector<std::uint32_t>& v); // NOLINT: implicit by design
    FilterPixels(const FilterPixels& other);
    FilterPixels(FilterPixels&& other) noexcept;
    FilterPixels& operator=(const FilterPixels& other);
    FilterPixels& operator=(FilterPixels&& other) noexcept;
    ~FilterPixels();

    // Owns `n` pixels whose values are unspecified.
    void ResizeForOverwrite(std::size_t n);
    // Borrows `n` pixels at `p` (not copied; the owner keeps them alive). They
    // are written only when the owner handed them out for writing.
    void Borrow(const std::uint32_t* p, std::size_t n);
    void Release();

    std::uint32_t* data() { return p_; }
    const std::uint32_t* data() const { return p_; }
    std::size_t size() const { return n_; }
    bool empty() const { return n_ == 0; }
    std::uint32_t& operator[](std::size_t i) { return p_[i]; }
    const std::uint32_t& operator[](std::size_t i) const { return p_[i]; }
    std::uint32_t* begin() { return p_; }
    std::uint32_t* end() { return p_ + n_; }
    const std::uint32_t* begin() const { return p_; }
    const std::uint32_t* end() const { return p_ + n_; }
    operator std::vector<std::uint32_t>() const { return {p_, p_ + n_}; }

  private:
    std::uint32_t* p_ = nullptr;
    std::size_t n_ = 0;
    std::size_t cap_ = 0; // capacity of an owned block
    bool owned_ = false;
};

struct FilterContext {
    FilterPixels WorkPixels;
    FilterPixels SourcePixels; // only for the identifiers that read a copy
    std::int32_t ZoneWidth = 0;
    std::int32_t ZoneHeight = 0;
    std::int32_t PixelIndex = 0;
    std::int32_t ImageWidth = 0; // full image, for 55 and 56
    std::int32_t ImageHeight = 0;
    bool bZoneCoversImage = false; // the flag handed to 55 and 56
    double Param1 = 0, Param2 = 0, Param3 = 0, Param4 = 0;
    float Hue = 0.0f, Saturation = 0.5f, Luminosity = 1.0f;
    std::array<std::uint32_t, 9> MatrixIn{};
    std::array<std::uint32_t, 9> MatrixOut{};
    bool bAnswer = false; // yes/no statistics (36, 53, 59)
    double Result = 0.0;  // numeric statistics (60, 67, 68)

    // A context over a caller's pixels (tests and benchmarks).
    static FilterContext Over(std::vector<std::uint32_t> pixels, std::int32_t nWidth,
                              std::int32_t nHeight);
};

// The rectangle a filter works on, in pixels of the image. It is not clipped:
// a rectangle reaching outside the image fails with status 1.
struct FilterZone {
    std::int32_t Left = 0, Top = 0, Width = 0, Height = 0;
};

// The parameters of one run. The defaults are what an ordinary member passes;
// Hue, Saturation and Luminosity mean something to Colorize only, and the two
// matrices to PatternReplace only.
struct FilterParams {
    double Param1 = 0, Param2 = 0, Param3 = 0, Param4 = 0;
    float Hue = 0.0f, Saturation = 0.5f, Luminosity = 1.0f;
    std::array<std::uint32_t, 9> MatrixIn{};
    std::array<std::uint32_t, 9> MatrixOut{};
};

// The answer of a statistic. The yes/no statistics (IsGrayscale, IsBlank,
// IsBitonal) set Value to 1.0 for a yes given with status 0 and otherwise
// leave it as the caller set it; CountColor, MarkTransparent and AverageColor
// store their number. Ordinary filters never touch it.
struct FilterResult {
    double Value = 0.0;
};

using FilterFunction = void (*)(FilterContext&);

// The function behind an identifier, or nullptr where none runs (free ids,
// ids out of 1..70, and rows whose function is not built yet).
FilterFunction FindFilterFunction(std::int32_t nFilterId);
// True for the identifiers that read an untouched copy (SourcePixels).
bool FilterReadsSource(std::int32_t nFilterId);
// For an identifier that reads SourcePixels: the width of the frame that its
// function leaves alone. Every pixel inside that frame (alpha included) is
// written from SourcePixels alone, so WorkPixels need only hold the frame's
// pixels beforehand (all of them when the zone is too small for an inside).
// -1 where WorkPixels must start as a full copy.
std::int32_t FilterSourceBorder(std::int32_t nFilterId);
// Fills WorkPixels (already sized) from SourcePixels where the function of
// the identifier does not write: the border, or everything.
void PrepareWorkFromSource(std::int32_t nFilterId, FilterContext& ctx);
// Fills SourcePixels from WorkPixels when the identifier needs it and runs the
// function. A failed byte conversion throws std::range_error.
void ApplyFilter(FilterId nFilter, FilterContext& ctx);

// Runs a filter over a rectangle of a registry image and returns the status:
// 0 with nothing done for an empty rectangle, 1 for a rectangle reaching
// outside the image, a lock's own status when a lock fails. A failure inside
// a filter function (a failed byte conversion, a division by zero, memory) is
// thrown to the caller, with the image left as it was.
KestrelynStatus RunFilter(FilterId nFilter, std::int32_t nImageID, const FilterZone& oZone,
                          const FilterParams& oParams, FilterResult* pResult = nullptr);

// The random source of the displacement filter: uniform on [0, 1), state kept
// per thread across calls; seeding makes runs repeatable.
void SeedFilterRandom(std::uint32_t nSeed);
float NextFilterRandom();

// Rounds half to even to a signed 32-bit integer (the filters' Round).
std::int32_t RoundI(double v);

// The widest vector instructions the filters use on this thread: 0 none
// beyond SSE2, 1 AVX2, 2 AVX-512 (F, BW and VBMI). It is what the processor
// has, lowered by LimitFilterVectors (tests compare the paths).
enum FilterVectors : int { kVectorsSse2 = 0, kVectorsAvx2 = 1, kVectorsAvx512 = 2 };
int FilterVectorLevel();
void LimitFilterVectors(int nLevel);

// The point filters (a pixel's result depends on that pixel alone) run over a
// zone in row bands of about this many pixels, so their 32-bit working copy is
// one band, not the zone; the result is the same. Per thread; 0 restores the
// default (4 MB of pixels). Tests set small bands to compare with whole zones.
void SetFilterBandPixels(std::size_t nPixels);
// Rows of one band for a zone of this width: a multiple of 4, at least 4.
std::int32_t FilterBandRows(std::int32_t nZoneWidth);

// Palette forms (8-bit images with a coloured palette): the table applied to
// each entry's blue, green and red.
void BuildNegativeTable(std::uint8_t T[256]);
void BuildBrightnessTable(double nBrightnessPct, std::uint8_t T[256]);

// --- filter functions by family (point and colour filters) ---
void FilterNegative(FilterContext& ctx);
void FilterGrayscale(FilterContext& ctx);
void FilterBrightness(FilterContext& ctx);
void FilterSwapChannels(FilterContext& ctx);
void FilterContrast(FilterContext& ctx);
void FilterThreshold(FilterContext& ctx);
void FilterOrderedDither(FilterContext& ctx);
void FilterErrorDiffusion(FilterContext& ctx);
void FilterStretchContrast(FilterContext& ctx);
void FilterSaturation(FilterContext& ctx);
void FilterGamma(FilterContext& ctx);
void FilterColorize(FilterContext& ctx);
void FilterTransparency(FilterContext& ctx);
void FilterAdjustRGB(FilterContext& ctx);
void FilterKeepRed(FilterContext& ctx);
void FilterKeepGreen(FilterContext& ctx);
void FilterKeepBlue(FilterContext& ctx);
void FilterRemoveRed(FilterContext& ctx);
void FilterRemoveGreen(FilterContext& ctx);
void FilterRemoveBlue(FilterContext& ctx);
void FilterScaleRed(FilterContext& ctx);
void FilterScaleGreen(FilterContext& ctx);
void FilterScaleBlue(FilterContext& ctx);
void FilterColorKey(FilterContext& ctx);
void FilterColorReplace(FilterContext& ctx);
void FilterEqualize(FilterContext& ctx);

// --- neighbourhood filters ---
void FilterSharpen(FilterContext& ctx);
void FilterBlur(FilterContext& ctx);
void FilterDiffuse(FilterContext& ctx);
void FilterSmooth(FilterContext& ctx);
void FilterEdgeEnhance(FilterContext& ctx);
void FilterContour(FilterContext& ctx);
void FilterEmboss(FilterContext& ctx);
void FilterEmbossMore(FilterContext& ctx);
void FilterEngrave(FilterContext& ctx);
void FilterEngraveMore(FilterContext& ctx);
void FilterRelief(FilterContext& ctx);
void FilterAqua(FilterContext& ctx);
void FilterDilate(FilterContext& ctx);
void FilterErode(FilterContext& ctx);
void FilterConnectedContour(FilterContext& ctx);
void FilterSoften(FilterContext& ctx);
void FilterDespeckle(FilterContext& ctx);
void FilterDespeckleMore(FilterContext& ctx);

// The same results as FilterDespeckle, FilterDilate and FilterErode
// computed in WorkPixels alone (SourcePixels unused): each row is kept as it
// came until the next row has read it. The frame runs them in an image's own
// rows.
void FilterDespeckleInPlace(FilterContext& ctx);
void FilterDilateInPlace(FilterContext& ctx);
void FilterErodeInPlace(FilterContext& ctx);

} // namespace kestrelyn
