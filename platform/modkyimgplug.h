// The codec plug-in libkyimgplug, as the core calls it. The library is looked
// up when first needed along the plug-in search order (platform/PluginLoader.h).
// When it is missing every call fails cleanly with its "unavailable" value (0,
// -1, "" or a null pointer) and IsKyimgplugLoaded() is false.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace kestrelyn {

#define KYP_FN(R, N, P, A, F) R N P;
#include "platform/kyimgplug_exports.inc"
#undef KYP_FN

// Image type codes of plug-in bitmaps.
enum KyimgplugImageType : int {
    KyimgplugTypeStandard = 1,
    KyimgplugTypeUInt16 = 2,
    KyimgplugTypeRGB16 = 9,
    KyimgplugTypeRGBF = 11,
    KyimgplugTypeRGBAF = 12,
};

// Load flags and save flags understood by the plug-in.
constexpr int KyimgplugTiffKeepCmyk = 1;    // LoadU, TIFF
constexpr int KyimgplugGifFullPages = 2;    // OpenMultiBitmapU, GIF
constexpr int KyimgplugTiffLzw = 0x4000;    // SaveU, TIFF
constexpr int KyimgplugTiffJpeg = 0x8000;   // SaveU, TIFF (-32768 as a 16-bit value)
constexpr int KyimgplugTiffCcitt4 = 0x0800; // SaveU, TIFF, 1-bit pages
constexpr int KyimgplugTiffNoCompression = 0x0001;

bool IsKyimgplugLoaded();
// Full path of the library in use, "" when none is loaded.
std::string KyimgplugLibraryPath();
// Forgets the library in use and searches again on the next call: in
// `folders` only when given, else along the usual search order. Handles
// obtained before stay valid only if the same file is found again.
void ReloadKyimgplug(const std::vector<std::string>* folders = nullptr);

} // namespace kestrelyn
