// The format changes the filter members need: to 8-bit gray with a ramp
// palette (gray modes 1, 2, 3) and to 32-bit ARGB. Each reads a registry image
// and registers a new one beside it; putting the new image in place of the
// old (with resolution and tags) is the caller's step.
#pragma once
#include <cstdint>

#include "kestrelyn/KestrelynStatus.h"

namespace kestrelyn {

// Mode 1: Round((222 R + 707 G + 71 B) / 1000); mode 2: Round((R + G + B) / 3);
// mode 3: the blue byte as it stands.
std::uint8_t GrayLevel(std::int32_t nMode, std::uint32_t nPixel);

// An 8-bit image whose palette is the gray ramp (entry i is opaque gray i,
// flagged gray) and whose indices are the gray levels of the source's pixels
// by the mode. The new image keeps the source's format name. Status 2 for an
// image of no pixels or an unknown id; a lock's or the engine's status as it
// is.
KestrelynStatus MakeGray8Image(std::int32_t nSourceID, std::int32_t nMode,
                               std::int32_t& nNewImageID);
// The source's pixels as a new 32-bit ARGB image, under the source's format name.
KestrelynStatus MakeARGB32Image(std::int32_t nSourceID, std::int32_t& nNewImageID);

} // namespace kestrelyn
