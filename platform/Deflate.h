// Deflate of byte strings into a zlib stream, as zlib's compress2 codes them:
// the PDF writer's streams depend on these exact bytes.
#pragma once
#include <cstddef>
#include <string>

namespace kestrelyn {

// compress2 of sSource at nLevel (0..9) into a destination of nCapacity bytes.
// On success sDestination holds the zlib stream and the result is true; when
// the stream does not fit, or the level is not valid, it is empty and false.
bool DeflateCompress2(const std::string& sSource, int nLevel, std::size_t nCapacity,
                      std::string& sDestination);

} // namespace kestrelyn
