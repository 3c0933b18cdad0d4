// The format changes the filter members need: to 8-bit gray with a ramp
// palette (gray modes 1, 2, 3) and to 32-bit ARGB. Each builds a new bitmap,
// carries resolution and tags over and puts it in place of the native image
// under the same id.
#pragma once
#include <cstdint>

#include "kestrelyn/KestrelynStatus.h"

namespace kestrelyn {

class cImaging;

// Mode 1: Round((222 R + 707 G + 71 B) / 1000); mode 2: Round((R + G + B) / 3);
// mode 3: the blue byte as it stands.
std::uint8_t GrayLevel(std::int32_t nMode, std::uint32_t nPixel);

KestrelynStatus ConvertNativeToGray8(cImaging& owner, std::int32_t nMode);
KestrelynStatus ConvertNativeToARGB32(cImaging& owner);

} // namespace kestrelyn
