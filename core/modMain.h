// The image registry: one table of records per thread; images are known to
// callers only by integer ids. The registry owns every image and what must
// live with it (memory, temporary files, plug-in bitmaps, page lists).
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "platform/modGdiPlus.h"

namespace kestrelyn {

// Where an image's pixels came from; decides what its release frees.
enum ImageKind : std::int32_t {
    KindEngine = 0, // clone, stream, metafile, adopted engine image, multi-page head
    KindDib = 2,    // made from a DIB; hMemory freed after the image
    KindPlugin = 3, // plug-in bitmap or multi-bitmap
    KindHBitmap = 4,
    KindHIcon = 5,
    KindEngineFile = 6, // decoded by the engine from a file it keeps open
    KindRawBits = 7,    // raw bits the record does not own; every new empty bitmap
    KindPluginPage = 8, // locked page of a plug-in multi-bitmap
    KindOwnedBits = 9,  // raw bits the record owns (freed with GdipFree)
};

struct ImageRecord {
    std::int32_t nImageID = 0;
    std::int32_t nKind = 0;
    HGLOBAL hMemory = 0;
    void* nBits = nullptr;
    GpImage* nGdiPlusImage = nullptr;
    std::int32_t nTifCompression = 0;
    std::uintptr_t nPlugBitmap = 0;
    std::uintptr_t nPlugPage = 0; // the locked page's handle (pointer-sized)
    std::string sFilePath;
    bool bDeleteFile = false;
    bool bOwnsBits = false;
    std::string sFormatName;
    bool bMultiPageTiff = false;
    bool bMultiPageGif = false;
    std::int32_t nPixelDepth = 0;
    std::int32_t nPageCount = 0;
    std::vector<std::string> arPageFiles;
    std::vector<std::int32_t> arPageImages;
    std::vector<std::int32_t> arPageDelays;
    std::vector<std::int32_t> arPageDisposals;
    std::vector<std::int32_t> arPageDepths;
    std::int32_t nCurrentPage = -1;
    bool bReadOnly = false;
    std::int32_t nLoopCount = 0;
    std::string sGifComment;
    std::vector<std::vector<std::uint8_t>> arIPTCTags; // raw IPTC records (tag metadata)
    std::int32_t nIPTCTagCount = 0;
    bool bModified = false;
    GpGraphics* nGraphics = nullptr;
    HDC nHDC = 0;
    std::uintptr_t nPlugFile = 0;
};

struct ImageRegistry {
    std::vector<ImageRecord> arRecords; // exactly nImageCount records
    std::int32_t nImageCount = 0;
};

// The registry of the calling thread.
ImageRegistry& ThreadRegistry();

// Registers an image; writes its new id to nImageID; returns the record index.
std::int32_t RegisterImage(std::int32_t& nImageID, GpImage* nGdiPlusImage,
                           const std::string& sFormatName, const std::string& sFilePath,
                           std::int32_t nKind);
std::int32_t FindImageIndex(std::int32_t nImageID);
// The record of an id, or nullptr. The pointer is valid until the next registration.
ImageRecord* FindImageRecord(std::int32_t nImageID);
GpImage* ResolveGdiPlusImage(std::int32_t nImageID);
std::int32_t ResolvePageImage(std::int32_t nImageID);
KestrelynStatus ReleaseImage(std::int32_t nImageID);
void RemoveAllImages();
// Keeps an id across an edit: the new image answers to the old id; in an
// editable multi-page image it becomes the current page (stored at once).
std::int32_t ReplaceImage(std::int32_t nImageID, std::int32_t nNewImageID);
void MarkImageModified(std::int32_t nImageID);
void ClearImageModified(std::int32_t nImageID);
void MarkTempFile(std::int32_t nImageID, const std::string& sFilePath);
KestrelynStatus CreateBitmap(std::int32_t nWidth, std::int32_t nHeight, std::int32_t nStride,
                             std::int32_t nPixelFormat, void* nBits, std::int32_t& nImageID,
                             bool bOwnsBits);
// A new, empty temporary file, created exclusively in the temporary directory
// and named "kestrelyn-<decimal>"; its path is returned, and the caller owns
// the file (writes over it and removes it). Empty when no file can be made.
std::string MakeTempFileName();
inline constexpr char kTempFilePrefix[] = "kestrelyn-";

// A new image id from the thread's clock-seeded generator: 1 .. 100000000.
std::int32_t NewImageId();
// The format name of an engine image by its raw format ("Memory BMP", "JPEG",
// ...; "Undefined" for an unknown one).
std::string FormatNameFromRawFormat(const GUID& rawFormat);
std::string EngineFormatName(GpImage* pImage);

// Row stride in bytes of a width at a depth (0 for an unknown depth or a width
// below 1); the 48-bit mask yields a multiple of 8.
std::int32_t ComputeStride(std::int32_t nWidth, std::int32_t nDepth);
// Bits per pixel of a pixel format code, 0 for an unknown one.
std::int32_t PixelFormatDepth(std::int32_t nPixelFormat);

// GdipBitmapLockBits on a registry image. A format of 0 asks for the image's
// own; on success nFormat is the format locked, and a lock for writing marks
// the image modified.
KestrelynStatus LockBits(std::int32_t nImageID, const GpRect& rect, std::uint32_t nMode,
                         PixelFormat& nFormat, BitmapData& data);
KestrelynStatus UnlockBits(std::int32_t nImageID, BitmapData& data);
// A graphics context on a registry image, which is then marked modified; g is
// nullptr on failure (status 1 when the engine gives none without a status).
KestrelynStatus GetGraphics(std::int32_t nImageID, GpGraphics*& g);

} // namespace kestrelyn
