// Types shared by the public operations: pixel formats, colour spaces, handles
// and the stream interface.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kestrelyn/KestrelynStatus.h"

namespace kestrelyn {

using ARGB = std::uint32_t;

// Opaque handles of the host layer (bitmaps, icons, device contexts, global
// memory blocks, picture objects, windows). 0 is "none".
using HANDLE = std::uintptr_t;
using HBITMAP = HANDLE;
using HICON = HANDLE;
using HDC = HANDLE;
using HGLOBAL = HANDLE;
using HWND = HANDLE;
using HPALETTE = HANDLE;
using PictureHandle = HANDLE;

// The engine's pixel format codes.
enum PixelFormats : std::int32_t {
    PixelFormatUndefined = 0,
    PixelFormat1bppIndexed = 196865,
    PixelFormat4bppIndexed = 197634,
    PixelFormat8bppIndexed = 198659,
    PixelFormat16bppGreyScale = 1052676,
    PixelFormat16bppGrayScale = 1052676,
    PixelFormat16bppRGB555 = 135173,
    PixelFormat16bppRGB565 = 135174,
    PixelFormat16bppARGB1555 = 397319,
    PixelFormat24bppRGB = 137224,
    PixelFormat32bppRGB = 139273,
    PixelFormat32bppARGB = 2498570,
    PixelFormat32bppPARGB = 925707,
    PixelFormat48bppRGB = 1060876,
    PixelFormat64bppARGB = 3424269,
    PixelFormat64bpppARGB = 1851406,
};

enum ImageColorSpaces : std::int32_t {
    ImageColorSpaceUnknown = 0,
    ImageColorSpaceRGB = 1,
    ImageColorSpaceCMYK = 2,
    ImageColorSpaceGRAY = 3,
    ImageColorSpaceYCBCR = 4,
    ImageColorSpaceYCCK = 5,
};

enum UnitMode : std::int32_t {
    UnitWorld = 0,
    UnitDisplay = 1,
    UnitPixel = 2,
    UnitPoint = 3,
    UnitInch = 4,
    UnitDocument = 5,
    UnitMillimeter = 6,
};

// Compression of a TIFF save.
enum TifCompression : std::int32_t {
    CompressionLZW = 2,
    CompressionCCITT3 = 3,
    CompressionCCITT4 = 4,
    CompressionRLE = 5,
    CompressionNone = 6,
};

// Lossless transformations of a JPEG file.
enum JPEGTransformations : std::int32_t {
    JPEGTransformRotate90 = 13,
    JPEGTransformRotate180 = 14,
    JPEGTransformRotate270 = 15,
    JPEGTransformFlipHorizontal = 16,
    JPEGTransformFlipVertical = 17,
};

// Compression of an EXR save (given to the plug-in as save flags).
enum ExrCompression : std::int32_t {
    ExrCompressionDefault = 0,
    ExrCompressionFloat = 1,
    ExrCompressionNone = 2,
    ExrCompressionZip = 4,
    ExrCompressionPiz = 8,
    ExrCompressionPxr24 = 16,
    ExrCompressionB44 = 32,
    ExrCompressionLC = 64,
};

// An engine image as the host layer hands it out (GetGdiplusImage); opaque to
// applications.
struct GpImage;

// A two-dimensional array of 32-bit pixels whose first index is the column:
// at(x, y). The first index runs fastest in memory, so the storage is the
// image's rows one after another (a row holds nColumns elements).
struct PixelArray2D {
    std::int32_t nColumns = 0;
    std::int32_t nRows = 0;
    std::vector<std::int32_t> arData; // nColumns * nRows, row after row

    PixelArray2D() = default;
    PixelArray2D(std::int32_t nCols, std::int32_t nRowCount)
        : nColumns(nCols), nRows(nRowCount),
          arData(static_cast<std::size_t>(nCols) * static_cast<std::size_t>(nRowCount)) {}
    std::int32_t& at(std::int32_t x, std::int32_t y) {
        return arData[static_cast<std::size_t>(y) * static_cast<std::size_t>(nColumns) +
                      static_cast<std::size_t>(x)];
    }
    std::int32_t at(std::int32_t x, std::int32_t y) const {
        return arData[static_cast<std::size_t>(y) * static_cast<std::size_t>(nColumns) +
                      static_cast<std::size_t>(x)];
    }
    // Gives the array exactly these bounds (contents are not kept).
    void Reshape(std::int32_t nCols, std::int32_t nRowCount) {
        nColumns = nCols;
        nRows = nRowCount;
        arData.assign(static_cast<std::size_t>(nCols) * static_cast<std::size_t>(nRowCount), 0);
    }
};

// A byte stream with shared ownership (reading, writing, seeking, size).
// Memory and file implementations come with the library; an application may
// supply its own.
class Stream {
  public:
    enum SeekOrigin { Begin = 0, Current = 1, End = 2 };
    virtual ~Stream() = default;
    // Reads up to nCount bytes; returns the number read (0 at the end).
    virtual std::size_t Read(void* pBuffer, std::size_t nCount) = 0;
    // Writes nCount bytes; returns the number written.
    virtual std::size_t Write(const void* pBuffer, std::size_t nCount) = 0;
    // Moves the position; returns the new position, or -1 on failure.
    virtual std::int64_t Seek(std::int64_t nOffset, SeekOrigin eOrigin) = 0;
    // The stream's size in bytes.
    virtual std::int64_t Stat() = 0;
    // Sets the size; false when the stream cannot.
    virtual bool SetSize(std::int64_t nSize) = 0;
};
using StreamPtr = std::shared_ptr<Stream>;

// A stream over a growable block of memory.
StreamPtr CreateMemoryStream(std::vector<std::uint8_t> arInitial = {});
// A stream over a file; nullptr when the file cannot be opened.
StreamPtr CreateFileStream(const std::string& sFilePath, bool bWrite);

} // namespace kestrelyn
