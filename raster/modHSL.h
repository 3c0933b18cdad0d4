// HSL colour model: hue in sextants (-1..5), saturation and lightness 0..1,
// all in 32-bit floats.
#pragma once
#include <cstdint>

namespace kestrelyn {

// Round half to even of a value that must fit a byte; throws
// std::range_error outside 0..255 (a failed byte conversion).
std::uint8_t CheckedByte(double v);

void RGBtoHSL(std::int32_t nRed, std::int32_t nGreen, std::int32_t nBlue, float& H, float& S,
              float& L);
// Throws std::range_error when a channel falls outside a byte.
void HSLtoRGB(float H, float S, float L, std::uint8_t& nRed, std::uint8_t& nGreen,
              std::uint8_t& nBlue);
// The same without throwing: false when a channel falls outside a byte. The
// channels are converted red, green, blue; those before the failing one are
// written, the failing one and those after it are left as they were.
bool TryHSLtoRGB(float H, float S, float L, std::uint8_t& nRed, std::uint8_t& nGreen,
                 std::uint8_t& nBlue);

} // namespace kestrelyn
