// The bridge to the codec plug-in and the frame that finds and checks the
// closed plug-in libraries: version reads, format detection, plug-in loads,
// conversion of plug-in bitmaps to registry images and back.
#pragma once
#include <cstdint>
#include <string>

#include "core/EngineState.h"
#include "core/ImageLoader.h"
#include "kestrelyn/KestrelynStatus.h"

namespace kestrelyn {

// Format codes of the plug-in that the bridge names.
enum PluginFormat : int {
    PluginFormatUnknown = -1,
    PluginFormatBMP = 0,
    PluginFormatICO = 1,
    PluginFormatJPEG = 2,
    PluginFormatPBM = 7,
    PluginFormatPNG = 13,
    PluginFormatTARGA = 17,
    PluginFormatTIFF = 18,
    PluginFormatWBMP = 19,
    PluginFormatXPM = 23,
    PluginFormatGIF = 25,
    PluginFormatEXR = 29,
    PluginFormatJ2K = 30,
    PluginFormatJP2 = 31,
    PluginFormatJBIG = 35,
};

// --- the frame for closed libraries ---

// "a.b.c.d" of a library looked up the platform's way; "Unknown" when it has
// no version, "Undefined" on a run-time failure.
std::string GetFileVersionString(const std::string& sDll);
// True when the codec plug-in's version (read at engine start) has a value and
// the library can be bound now.
bool IsKyimgplugAvailable();

// What a library with a version export must satisfy.
struct PluginLibraryRequirement {
    const char* sLibrary;
    const char* sVersionExport;
    std::int32_t nMinimumVersion;
    const char* sMissingText;
    const char* sTooOldText;
};
extern const PluginLibraryRequirement kKyTwainLibrary;
extern const PluginLibraryRequirement kBarcodeDMReaderLibrary;
extern const PluginLibraryRequirement kBarcode1DReaderLibrary;
// Checks a library whose version export gave nVersion (bFound false: the
// library or its export is missing). A failure shows the requirement's text in
// a critical message box titled "Error" and gives false.
bool CheckPluginLibraryVersion(const PluginLibraryRequirement& req, bool bFound,
                               std::int32_t nVersion);

// --- formats ---

// Upper-case name of a plug-in format code ("UNKNOWN" for -1, "" above 35).
std::string PluginFormatName(int nFormat);
// The format of a file: by name and content, the name winning when both know it.
int DetectPluginFormat(const std::string& sFilePath);

// --- loads ---

// Decodes a file with the plug-in: a bitmap, or a multi-bitmap (bMultiPage
// set, hFile the open file handle) for TIFF and GIF files of several pages.
// 0 when nothing was decoded.
std::intptr_t LoadPluginFile(int& nFormat, const std::string& sFilePath, bool& bMultiPage,
                             bool bFlag, std::intptr_t& hFile);
// Loads a file through the plug-in into the registry. 9 without the plug-in,
// 13 for formats that belong to the engine, 3 when nothing was decoded.
// Of the options, bICM and the read-only flags count.
KestrelynStatus LoadByPlugin(std::int32_t& nImageID, const std::string& sFilePath,
                             const LoadOptions& oOptions);
// Makes a registry image from a plug-in bitmap. nBitmap may be replaced by a
// converted bitmap (the old one given back; bIsPage cleared when a locked page
// was given back). At 16 bits and more the image wraps the bitmap's memory:
// the bitmap must then outlive the image. bFailed tells that no image could be
// made of the (possibly converted) bitmap.
KestrelynStatus PluginBitmapToImage(std::intptr_t& nBitmap, std::int32_t& nImageID, bool& bFailed,
                                    bool& bIsPage, std::intptr_t nMulti, int nFormat);
// A new plug-in bitmap with the pixels, palette and resolution of an image.
KestrelynStatus ImageToPluginBitmap(std::intptr_t& nBitmap, std::int32_t nImageID);
bool SavePluginFile(int nFormat, std::intptr_t nBitmap, const std::string& sFilePath, int nFlags);

// Gives a plug-in bitmap back: unlocks it from its multi-bitmap when it is a
// locked page, else unloads it.
void ReturnPluginBitmap(std::intptr_t nBitmap, bool bIsPage, std::intptr_t nMulti);

// Moving tags across the plug-in boundary belongs to the tag store, which
// installs these; without them no tags travel and only the resolution does.
using ReadPluginMetadataFn = void (*)(std::int32_t nImageID, std::intptr_t nBitmap, float& nX,
                                      float& nY);
using WritePluginMetadataFn = void (*)(std::intptr_t nBitmap, std::int32_t nImageID);
void SetPluginMetadataHooks(ReadPluginMetadataFn pRead, WritePluginMetadataFn pWrite);

} // namespace kestrelyn
