// CCITT group 4 (T.6) coding of one-bit rows, as the engine offers it to the
// PDF writer: the bare coded data of one image, no file wrapper around it.
#pragma once
#include <cstdint>
#include <vector>

namespace kestrelyn {

// Codes h rows of w one-bit pixels (most significant bit first), each row
// starting stride bytes after the one before. A 1 bit is black unless
// bBlackIsZero, in which case a 0 bit is black. On success the coded bytes
// are in arOut (a decoder of K -1 and Columns w with BlackIs1 false gives
// black pixels as 0) and the result is true; on failure arOut is empty.
bool GdipEncodeCcittG4(const std::uint8_t* pBits, int nWidth, int nHeight, int nStride,
                       bool bBlackIsZero, std::vector<std::uint8_t>& arOut);

} // namespace kestrelyn
