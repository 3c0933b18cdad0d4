// The vector kernels of the neighbourhood filters: row loops over 32-bit
// pixels (bytes blue, green, red, alpha; rows packed) in SSE2, AVX2 and
// AVX-512 forms. A kernel takes the vector level to use (FilterVectorLevel)
// and finishes each row with plain code, so every level gives the same bytes.
// The colour bytes are independent, so per-byte minima and maxima of whole
// pixels are per-channel results; alpha always comes from the centre pixel.
#pragma once
#include <cstdint>

namespace kestrelyn {

// The 3x3 channel maximum (dilate) or minimum (erode) of row b, from the rows
// above (a), at (b) and below (c), into out[1..W-2].
void MaximumRow3(const std::uint32_t* a, const std::uint32_t* b, const std::uint32_t* c,
                 std::uint32_t* out, std::int32_t W, int nVectors);
void MinimumRow3(const std::uint32_t* a, const std::uint32_t* b, const std::uint32_t* c,
                 std::uint32_t* out, std::int32_t W, int nVectors);

// The 3x3 channel median of row b into out[1..W-2], rows as above.
void MedianRow3(const std::uint32_t* a, const std::uint32_t* b, const std::uint32_t* c,
                std::uint32_t* out, std::int32_t W, int nVectors);

// The 5x5 channel median of the zone's interior (rows and columns 2 .. size-3)
// from `source` into `work`; the frame of two pixels is not written.
void MedianRows5(const std::uint32_t* source, std::uint32_t* work, std::int32_t W, std::int32_t H,
                 int nVectors);

// For the linear in-place 3x3 filters, Clamp8((c * k - mul * Sum8) / d): the
// part of the numerator without the left neighbour, plus `bias`, for x = 1 ..
// W-2 of a row, sixteen pixels at a time in 16-bit lanes: P[4x + channel]
// (blue, green, red; the alpha lane is unused). The caller ensures that every
// value and partial sum fits 16 bits and that AVX-512 is there. Returns the
// first x left to the caller.
std::int32_t PartialRowAvx512(const std::uint32_t* up, const std::uint32_t* cur,
                              const std::uint32_t* dn, std::int32_t W, std::int32_t k,
                              std::int32_t mul, std::int32_t bias, std::uint16_t* P);

} // namespace kestrelyn
