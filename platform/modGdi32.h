// Host drawing handles: HBITMAP, HICON and device contexts, kept in handle
// tables of the host layer, and the DIB header records.
#pragma once
#include <cstdint>
#include <vector>

#include "kestrelyn/Types.h"

namespace kestrelyn {

#pragma pack(push, 1)
struct BITMAPINFOHEADER {
    std::uint32_t biSize = 40;
    std::int32_t biWidth = 0;
    std::int32_t biHeight = 0;
    std::uint16_t biPlanes = 1;
    std::uint16_t biBitCount = 0;
    std::uint32_t biCompression = 0; // BI_RGB
    std::uint32_t biSizeImage = 0;
    std::int32_t biXPelsPerMeter = 0;
    std::int32_t biYPelsPerMeter = 0;
    std::uint32_t biClrUsed = 0;
    std::uint32_t biClrImportant = 0;
};
struct RGBQUAD {
    std::uint8_t rgbBlue, rgbGreen, rgbRed, rgbReserved;
};
#pragma pack(pop)
static_assert(sizeof(BITMAPINFOHEADER) == 40);

// A host bitmap: a top-down 32-bit BGRA copy of the pixels (what a window
// system would blit), or an icon: a bitmap plus its alpha mask.
struct HostBitmap {
    std::int32_t nWidth = 0;
    std::int32_t nHeight = 0;
    std::vector<std::uint32_t> arPixels; // BGRA, top-down, width * height
    bool bIsIcon = false;
};

HBITMAP HostCreateBitmap(HostBitmap bitmap);
// The bitmap behind a handle, or nullptr.
const HostBitmap* HostGetBitmap(HANDLE h);
// Frees an HBITMAP or HICON; false if the handle is unknown.
bool DeleteObject(HANDLE h);
bool DestroyIcon(HICON h);

} // namespace kestrelyn
