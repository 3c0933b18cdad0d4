// Pixel access and image facts: sizes, resolutions, formats, the pixel array
// copies, locks, and the conversions to host handles (bitmaps, icons, DIBs,
// pictures, device contexts, the clipboard).
#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/ImageSaver.h"
#include "core/modMain.h"
#include "imaging/cImaging.h"
#include "platform/modGdi32.h"
#include "platform/modWinapi.h"

namespace kestrelyn {

namespace {

// The engine image of a fact getter's target; an unknown id stores 2.
GpImage* FactImage(cImaging& self, std::int32_t nImageID) {
    GpImage* img = ResolveGdiPlusImage(self.TargetImage(nImageID));
    if (!img) self.nStatus = InvalidParameter;
    return img;
}

// One copy between a caller's buffer and the native image through a lock.
KestrelynStatus CopyThroughLock(cImaging& self, void* pBuffer, std::int32_t nStride,
                                PixelFormat nFormat, std::int32_t nLeft, std::int32_t nTop,
                                std::int32_t nWidth, std::int32_t nHeight, bool bSet) {
    BitmapData data;
    data.Width = static_cast<UINT>(nWidth);
    data.Height = static_cast<UINT>(nHeight);
    data.Stride = nStride;
    data.PixelFormat = nFormat;
    data.Scan0 = pBuffer;
    const GpRect rect{nLeft, nTop, nWidth, nHeight};
    const UINT mode = (bSet ? ImageLockModeWrite : ImageLockModeRead) | ImageLockModeUserInputBuf;
    KestrelynStatus status = self.LockBits(self.nNativeImage, rect, mode, nFormat, data);
    if (status == OK) status = self.UnlockBits(self.nNativeImage, data);
    return status;
}

// The common frame of the array forms: no native image gives 1, an empty
// rectangle or one outside the image 2; a failure inside is the copy's status (the operation guard
// turns anything thrown into 1, or 3 when memory ran out).
template <typename Fn>
KestrelynStatus ArrayOperation(cImaging& self, std::int32_t nLeft, std::int32_t nTop,
                               std::int32_t nWidth, std::int32_t nHeight, Fn&& fn) {
    if (self.nNativeImage == 0) {
        self.nStatus = GenericError;
        return self.nStatus;
    }
    if (nWidth < 1 || nHeight < 1) {
        self.nStatus = InvalidParameter;
        return self.nStatus;
    }
    // The rectangle is checked against the image before the caller's array
    // grows to it: a rectangle the lock would refuse costs no memory.
    UINT w = 0, h = 0;
    GpImage* img = ResolveGdiPlusImage(self.nNativeImage);
    if (img && GdipGetImageWidth(img, &w) == OK && GdipGetImageHeight(img, &h) == OK &&
        (nLeft < 0 || nTop < 0 || std::int64_t{nLeft} + nWidth > std::int64_t{w} ||
         std::int64_t{nTop} + nHeight > std::int64_t{h})) {
        self.nStatus = InvalidParameter;
        return self.nStatus;
    }
    self.nStatus = fn();
    return self.nStatus;
}

template <typename T> void GrowTo(std::vector<T>& ar, std::size_t n) {
    if (ar.size() < n) ar.resize(n);
}

std::size_t Area(std::int32_t w, std::int32_t h) {
    return static_cast<std::size_t>(w) * static_cast<std::size_t>(h);
}

// The two-dimensional form: the array grows to the rectangle; rows are its
// column count apart.
KestrelynStatus Array2DCopy(cImaging& self, PixelArray2D& arPixels, std::int32_t nLeft,
                            std::int32_t nTop, std::int32_t nWidth, std::int32_t nHeight,
                            bool bSet) {
    return ArrayOperation(self, nLeft, nTop, nWidth, nHeight, [&] {
        if (arPixels.nColumns < nWidth || arPixels.nRows < nHeight)
            arPixels.Reshape(nWidth, nHeight);
        return CopyThroughLock(self, arPixels.arData.data(), 4 * arPixels.nColumns,
                               PixelFormat32bppARGB, nLeft, nTop, nWidth, nHeight, bSet);
    });
}

// The ARGB value form: one value a pixel, rows of exactly the width.
KestrelynStatus ArgbArrayCopy(cImaging& self, std::vector<std::int32_t>& arPixels,
                              std::int32_t nLeft, std::int32_t nTop, std::int32_t nWidth,
                              std::int32_t nHeight, bool bSet) {
    return ArrayOperation(self, nLeft, nTop, nWidth, nHeight, [&] {
        GrowTo(arPixels, Area(nWidth, nHeight));
        return CopyThroughLock(self, arPixels.data(), 4 * nWidth, PixelFormat32bppARGB, nLeft, nTop,
                               nWidth, nHeight, bSet);
    });
}

// Byte forms: rows are ComputeStride bytes apart (for 24 and 8 bits a row can
// carry padding at its end), so the array holds stride x height bytes. The
// 8-bit form is for 8-bit indexed images only.
KestrelynStatus ByteArrayCopy(cImaging& self, std::vector<std::uint8_t>& arBytes,
                              PixelFormat nFormat, std::int32_t nLeft, std::int32_t nTop,
                              std::int32_t nWidth, std::int32_t nHeight, bool bSet) {
    return ArrayOperation(self, nLeft, nTop, nWidth, nHeight, [&]() -> KestrelynStatus {
        if (nFormat == PixelFormat8bppIndexed) {
            PixelFormat fmt = 0;
            GdipGetImagePixelFormat(ResolveGdiPlusImage(self.nNativeImage), &fmt);
            if (fmt != PixelFormat8bppIndexed) return UnsupportedPixelFormat;
        }
        const std::int32_t stride = ComputeStride(nWidth, PixelFormatDepth(nFormat));
        GrowTo(arBytes, Area(stride, nHeight));
        return CopyThroughLock(self, arBytes.data(), stride, nFormat, nLeft, nTop, nWidth, nHeight,
                               bSet);
    });
}

} // namespace

// ---------------------------------------------------------------------------
// Locks and graphics.

KestrelynStatus cImaging::LockBits(std::int32_t nImageID, const GpRect& rect, std::uint32_t nMode,
                                   PixelFormat& nFormat, BitmapData& data) {
    return kestrelyn::LockBits(nImageID, rect, nMode, nFormat, data);
}

KestrelynStatus cImaging::UnlockBits(std::int32_t nImageID, BitmapData& data) {
    return kestrelyn::UnlockBits(nImageID, data);
}

GpGraphics* cImaging::GetGraphics(std::int32_t nImageID) {
    GpGraphics* g = nullptr;
    nStatus = kestrelyn::GetGraphics(nImageID, g);
    return g;
}

// ---------------------------------------------------------------------------
// Facts.

std::int32_t cImaging::GetWidth(std::int32_t nImageID) {
    GpImage* img = FactImage(*this, nImageID);
    if (!img) return 0;
    UINT w = 0;
    nStatus = GdipGetImageWidth(img, &w);
    return static_cast<std::int32_t>(w);
}

std::int32_t cImaging::GetHeight(std::int32_t nImageID) {
    GpImage* img = FactImage(*this, nImageID);
    if (!img) return 0;
    UINT h = 0;
    nStatus = GdipGetImageHeight(img, &h);
    return static_cast<std::int32_t>(h);
}

float cImaging::GetWidthMM(std::int32_t nImageID) {
    const float dpi = GetHorizontalResolution(nImageID);
    if (nStatus != OK || !(dpi > 0)) return 0;
    const std::int32_t w = GetWidth(nImageID);
    return static_cast<float>(w / static_cast<double>(dpi) * 25.4);
}

float cImaging::GetHeightMM(std::int32_t nImageID) {
    const float dpi = GetVerticalResolution(nImageID);
    if (nStatus != OK || !(dpi > 0)) return 0;
    const std::int32_t h = GetHeight(nImageID);
    return static_cast<float>(h / static_cast<double>(dpi) * 25.4);
}

float cImaging::GetHorizontalResolution(std::int32_t nImageID) {
    GpImage* img = FactImage(*this, nImageID);
    if (!img) return 0;
    float dpi = 0;
    nStatus = GdipGetImageHorizontalResolution(img, &dpi);
    return dpi;
}

float cImaging::GetVerticalResolution(std::int32_t nImageID) {
    GpImage* img = FactImage(*this, nImageID);
    if (!img) return 0;
    float dpi = 0;
    nStatus = GdipGetImageVerticalResolution(img, &dpi);
    return dpi;
}

KestrelynStatus cImaging::SetResolution(std::int32_t nImageID, float nX, float nY, bool bNoMark) {
    GpImage* img = ResolveGdiPlusImage(nImageID);
    if (!img) return InvalidParameter;
    GdipImageForceValidation(img);
    const KestrelynStatus status = WriteImageResolution(nImageID, nX, nY);
    if (!bNoMark) MarkImageModified(nImageID);
    return status;
}

KestrelynStatus cImaging::SetHorizontalResolution(float nResolution, std::int32_t nImageID) {
    const std::int32_t id = TargetImage(nImageID);
    GpImage* img = ResolveGdiPlusImage(id);
    if (!img) {
        nStatus = InvalidParameter;
        return nStatus;
    }
    float dpiY = 0;
    GdipGetImageVerticalResolution(img, &dpiY);
    nStatus = SetResolution(id, nResolution, dpiY, false);
    return nStatus;
}

KestrelynStatus cImaging::SetVerticalResolution(float nResolution, std::int32_t nImageID) {
    const std::int32_t id = TargetImage(nImageID);
    GpImage* img = ResolveGdiPlusImage(id);
    if (!img) {
        nStatus = InvalidParameter;
        return nStatus;
    }
    float dpiX = 0;
    GdipGetImageHorizontalResolution(img, &dpiX);
    nStatus = SetResolution(id, dpiX, nResolution, false);
    return nStatus;
}

std::string cImaging::GetImageFormat(std::int32_t nImageID) {
    const ImageRecord* rec = FindImageRecord(TargetImage(nImageID));
    if (!rec) {
        nStatus = InvalidParameter;
        return "";
    }
    if (!rec->sFormatName.empty()) return rec->sFormatName;
    return EngineFormatName(ResolveGdiPlusImage(TargetImage(nImageID)));
}

PixelFormats cImaging::GetPixelFormat(std::int32_t nImageID) {
    GpImage* img = FactImage(*this, nImageID);
    if (!img) return PixelFormatUndefined;
    PixelFormat fmt = 0;
    nStatus = GdipGetImagePixelFormat(img, &fmt);
    return static_cast<PixelFormats>(fmt);
}

std::int32_t cImaging::GetPixelDepth(std::int32_t nImageID) {
    return PixelFormatDepth(GetPixelFormat(nImageID));
}

std::string cImaging::GetPixelFormatString(std::int32_t nImageID) {
    switch (GetPixelFormat(nImageID)) {
    case PixelFormat1bppIndexed:
        return "1bppIndexed";
    case PixelFormat4bppIndexed:
        return "4bppIndexed";
    case PixelFormat8bppIndexed:
        return "8bppIndexed";
    case PixelFormat16bppGrayScale:
        return "16bppGrayScale";
    case PixelFormat16bppRGB555:
        return "16bppRGB555";
    case PixelFormat16bppRGB565:
        return "16bppRGB565";
    case PixelFormat16bppARGB1555:
        return "16bppARGB1555";
    case PixelFormat24bppRGB:
        return "24bppRGB";
    case PixelFormat32bppRGB:
        return "32bppRGB";
    case PixelFormat32bppARGB:
        return "32bppARGB";
    case PixelFormat32bppPARGB:
        return "32bppPARGB";
    case PixelFormat48bppRGB:
        return "48bppRGB";
    case PixelFormat64bppARGB:
        return "64bppARGB";
    case PixelFormat64bpppARGB:
        return "64bppPARGB";
    default:
        return "Undefined";
    }
}

bool cImaging::IsPixelFormatIndexed(std::int32_t nImageID) {
    return IsIndexedPixelFormat(GetPixelFormat(nImageID));
}

bool cImaging::IsPixelFormatHasAlpha(std::int32_t nImageID) {
    return IsAlphaPixelFormat(GetPixelFormat(nImageID));
}

ImageColorSpaces cImaging::GetImageColorSpace(std::int32_t nImageID) {
    GpImage* img = FactImage(*this, nImageID);
    if (!img) return ImageColorSpaceUnknown;
    UINT flags = 0;
    nStatus = GdipGetImageFlags(img, &flags);
    if (flags & ImageFlagsColorSpaceYCCK) return ImageColorSpaceYCCK;
    if (flags & ImageFlagsColorSpaceCMYK) return ImageColorSpaceCMYK;
    if (flags & ImageFlagsColorSpaceYCBCR) return ImageColorSpaceYCBCR;
    if (flags & ImageFlagsColorSpaceGRAY) return ImageColorSpaceGRAY;
    if (flags & ImageFlagsColorSpaceRGB) return ImageColorSpaceRGB;
    return ImageColorSpaceUnknown;
}

namespace {
// A read lock of the whole image in its own format; fills data and unlocks.
KestrelynStatus PeekWholeImage(cImaging& self, std::int32_t nImageID, BitmapData& data) {
    GpImage* img = FactImage(self, nImageID);
    if (!img) return InvalidParameter;
    UINT w = 0, h = 0;
    GdipGetImageWidth(img, &w);
    GdipGetImageHeight(img, &h);
    PixelFormat fmt = 0;
    const std::int32_t id = self.TargetImage(nImageID);
    KestrelynStatus status = self.LockBits(
        id, GpRect{0, 0, static_cast<INT>(w), static_cast<INT>(h)}, ImageLockModeRead, fmt, data);
    if (status == OK) self.UnlockBits(id, data);
    self.nStatus = status;
    return status;
}
} // namespace

std::int32_t cImaging::GetImageStride(std::int32_t nImageID) {
    BitmapData data;
    return PeekWholeImage(*this, nImageID, data) == OK ? data.Stride : 0;
}

void* cImaging::GetImageBits(std::int32_t nImageID) {
    BitmapData data;
    return PeekWholeImage(*this, nImageID, data) == OK ? data.Scan0 : nullptr;
}

// ---------------------------------------------------------------------------
// Pixel arrays.

KestrelynStatus cImaging::GetPixelArray2D(PixelArray2D& arPixels, std::int32_t nSrcLeft,
                                          std::int32_t nSrcTop, std::int32_t nWidth,
                                          std::int32_t nHeight) {
    return Array2DCopy(*this, arPixels, nSrcLeft, nSrcTop, nWidth, nHeight, false);
}

KestrelynStatus cImaging::SetPixelArray(PixelArray2D& arPixels, std::int32_t nDstLeft,
                                        std::int32_t nDstTop, std::int32_t nWidth,
                                        std::int32_t nHeight) {
    return Array2DCopy(*this, arPixels, nDstLeft, nDstTop, nWidth, nHeight, true);
}

KestrelynStatus cImaging::GetPixelArray1D(std::vector<std::int32_t>& arPixels,
                                          std::int32_t nSrcLeft, std::int32_t nSrcTop,
                                          std::int32_t nWidth, std::int32_t nHeight) {
    return GetPixelArrayARGB(arPixels, nSrcLeft, nSrcTop, nWidth, nHeight);
}

KestrelynStatus cImaging::GetPixelArrayARGB(std::vector<std::int32_t>& arPixels,
                                            std::int32_t nSrcLeft, std::int32_t nSrcTop,
                                            std::int32_t nWidth, std::int32_t nHeight) {
    return ArgbArrayCopy(*this, arPixels, nSrcLeft, nSrcTop, nWidth, nHeight, false);
}

KestrelynStatus cImaging::SetPixelArrayARGB(std::vector<std::int32_t>& arPixels,
                                            std::int32_t nDstLeft, std::int32_t nDstTop,
                                            std::int32_t nWidth, std::int32_t nHeight) {
    return ArgbArrayCopy(*this, arPixels, nDstLeft, nDstTop, nWidth, nHeight, true);
}

KestrelynStatus cImaging::GetPixelArrayBytesARGB(std::vector<std::uint8_t>& arBytes,
                                                 std::int32_t nSrcLeft, std::int32_t nSrcTop,
                                                 std::int32_t nWidth, std::int32_t nHeight) {
    return ByteArrayCopy(*this, arBytes, PixelFormat32bppARGB, nSrcLeft, nSrcTop, nWidth, nHeight,
                         false);
}

KestrelynStatus cImaging::SetPixelArrayBytesARGB(std::vector<std::uint8_t>& arBytes,
                                                 std::int32_t nDstLeft, std::int32_t nDstTop,
                                                 std::int32_t nWidth, std::int32_t nHeight) {
    return ByteArrayCopy(*this, arBytes, PixelFormat32bppARGB, nDstLeft, nDstTop, nWidth, nHeight,
                         true);
}

KestrelynStatus cImaging::GetPixelArrayBytesRGB(std::vector<std::uint8_t>& arBytes,
                                                std::int32_t nSrcLeft, std::int32_t nSrcTop,
                                                std::int32_t nWidth, std::int32_t nHeight) {
    return ByteArrayCopy(*this, arBytes, PixelFormat24bppRGB, nSrcLeft, nSrcTop, nWidth, nHeight,
                         false);
}

KestrelynStatus cImaging::SetPixelArrayBytesRGB(std::vector<std::uint8_t>& arBytes,
                                                std::int32_t nDstLeft, std::int32_t nDstTop,
                                                std::int32_t nWidth, std::int32_t nHeight) {
    return ByteArrayCopy(*this, arBytes, PixelFormat24bppRGB, nDstLeft, nDstTop, nWidth, nHeight,
                         true);
}

KestrelynStatus cImaging::GetPixelArray8bpp1D(std::vector<std::uint8_t>& arBytes,
                                              std::int32_t nSrcLeft, std::int32_t nSrcTop,
                                              std::int32_t nWidth, std::int32_t nHeight) {
    return ByteArrayCopy(*this, arBytes, PixelFormat8bppIndexed, nSrcLeft, nSrcTop, nWidth, nHeight,
                         false);
}

KestrelynStatus cImaging::SetPixelArray8bpp1D(std::vector<std::uint8_t>& arBytes,
                                              std::int32_t nDstLeft, std::int32_t nDstTop,
                                              std::int32_t nWidth, std::int32_t nHeight) {
    return ByteArrayCopy(*this, arBytes, PixelFormat8bppIndexed, nDstLeft, nDstTop, nWidth, nHeight,
                         true);
}

std::int32_t cImaging::PixelGetColor(std::int32_t nSrcLeft, std::int32_t nSrcTop) {
    if (nNativeImage == 0) {
        nStatus = GenericError;
        return 0;
    }
    ARGB color = 0;
    nStatus = GdipBitmapGetPixel(ResolveGdiPlusImage(nNativeImage), nSrcLeft, nSrcTop, &color);
    return nStatus == OK ? static_cast<std::int32_t>(color) : 0;
}

KestrelynStatus cImaging::PixelSetColor(std::int32_t nDstLeft, std::int32_t nDstTop,
                                        std::int32_t nColorARGB) {
    if (nNativeImage == 0) {
        nStatus = GenericError;
        return nStatus;
    }
    nStatus = GdipBitmapSetPixel(ResolveGdiPlusImage(nNativeImage), nDstLeft, nDstTop,
                                 static_cast<ARGB>(nColorARGB));
    if (nStatus == OK) MarkImageModified(nNativeImage);
    return nStatus;
}

// ---------------------------------------------------------------------------
// Host handles.

HBITMAP cImaging::GetHBitmap(std::int32_t nImageID) {
    HBITMAP h = 0;
    nStatus = GdipCreateHBITMAPFromBitmap(ResolveGdiPlusImage(TargetImage(nImageID)), &h, 0);
    return nStatus == OK ? h : 0;
}

bool cImaging::DeleteHBitmap(HBITMAP hBitmap) {
    return DeleteObject(hBitmap);
}

HICON cImaging::GetHICON(std::int32_t nImageID) {
    HICON h = 0;
    nStatus = GdipCreateHICONFromBitmap(ResolveGdiPlusImage(TargetImage(nImageID)), &h);
    return nStatus == OK ? h : 0;
}

bool cImaging::DeleteHICON(HICON hIcon) {
    return DestroyIcon(hIcon);
}

HGLOBAL cImaging::GetDib(std::int32_t nImageID) {
    const std::int32_t id = TargetImage(nImageID);
    GpImage* img = ResolveGdiPlusImage(id);
    if (!img) {
        nStatus = InvalidParameter;
        return 0;
    }
    float dpiX = 0, dpiY = 0;
    UINT w = 0, h = 0;
    PixelFormat own = 0;
    GdipGetImageHorizontalResolution(img, &dpiX);
    GdipGetImageVerticalResolution(img, &dpiY);
    GdipGetImageWidth(img, &w);
    GdipGetImageHeight(img, &h);
    GdipGetImagePixelFormat(img, &own);
    if (w < 1 || h < 1) {
        nStatus = GenericError;
        return 0;
    }
    // The DIB's format: indexed formats keep their palette; 16 bits are
    // written as 5-5-5; the deep formats come down to 24 or 32 bits.
    PixelFormat format = PixelFormat32bppARGB;
    switch (PixelFormatDepth(own)) {
    case 1:
        format = PixelFormat1bppIndexed;
        break;
    case 4:
        format = PixelFormat4bppIndexed;
        break;
    case 8:
        format = PixelFormat8bppIndexed;
        break;
    case 16:
        format = PixelFormat16bppRGB555;
        break;
    case 24:
    case 48:
        format = PixelFormat24bppRGB;
        break;
    default:
        format = PixelFormat32bppARGB;
        break;
    }
    const std::int32_t bits = PixelFormatDepth(format);
    const std::int32_t stride = ((static_cast<std::int32_t>(w) * bits + 31) / 32) * 4;

    std::vector<ARGB> palette;
    if (bits <= 8) {
        INT size = 0;
        if (GdipGetImagePaletteSize(img, &size) == OK &&
            size >= static_cast<INT>(sizeof(ColorPalette))) {
            std::vector<std::uint8_t> buffer(static_cast<std::size_t>(size));
            auto* pal = reinterpret_cast<ColorPalette*>(buffer.data());
            if (GdipGetImagePalette(img, pal, size) == OK)
                palette.assign(pal->Entries, pal->Entries + std::min<UINT>(pal->Count, 1u << bits));
        }
    }

    std::vector<std::uint8_t> topDown(static_cast<std::size_t>(stride) * h);
    BitmapData data;
    data.Width = w;
    data.Height = h;
    data.Stride = stride;
    data.PixelFormat = format;
    data.Scan0 = topDown.data();
    PixelFormat lockFormat = format;
    nStatus = LockBits(id, GpRect{0, 0, static_cast<INT>(w), static_cast<INT>(h)},
                       ImageLockModeRead | ImageLockModeUserInputBuf, lockFormat, data);
    if (nStatus != OK) return 0;
    UnlockBits(id, data);

    BITMAPINFOHEADER header;
    header.biWidth = static_cast<std::int32_t>(w);
    header.biHeight = static_cast<std::int32_t>(h);
    header.biPlanes = 1;
    header.biBitCount = static_cast<std::uint16_t>(bits);
    header.biCompression = 0;
    header.biSizeImage = static_cast<std::uint32_t>(stride) * h;
    header.biXPelsPerMeter = static_cast<std::int32_t>(std::lround(dpiX / 0.0254));
    header.biYPelsPerMeter = static_cast<std::int32_t>(std::lround(dpiY / 0.0254));
    header.biClrUsed = static_cast<std::uint32_t>(palette.size());
    header.biClrImportant = 0;

    const std::size_t paletteBytes = palette.size() * sizeof(RGBQUAD);
    const std::size_t total = sizeof header + paletteBytes + topDown.size();
    HGLOBAL hMem = GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, total);
    auto* block = static_cast<std::uint8_t*>(GlobalLock(hMem));
    if (!block) {
        if (hMem) GlobalFree(hMem);
        nStatus = OutOfMemory;
        return 0;
    }
    std::memcpy(block, &header, sizeof header);
    std::uint8_t* p = block + sizeof header;
    for (ARGB c : palette) {
        const RGBQUAD q{static_cast<std::uint8_t>(c), static_cast<std::uint8_t>(c >> 8),
                        static_cast<std::uint8_t>(c >> 16), 0};
        std::memcpy(p, &q, sizeof q);
        p += sizeof q;
    }
    for (UINT row = 0; row < h; ++row)
        std::memcpy(p + static_cast<std::size_t>(row) * stride,
                    topDown.data() + static_cast<std::size_t>(h - 1 - row) * stride,
                    static_cast<std::size_t>(stride));
    GlobalUnlock(hMem);
    nStatus = OK;
    return hMem;
}

bool cImaging::RemoveDib(HGLOBAL hDib) {
    return hDib != 0 && GlobalFree(hDib) == 0;
}

PictureHandle cImaging::GetPicture() {
    if (nNativeImage == 0) {
        nStatus = GenericError;
        return 0;
    }
    return GetPictureFromKestrelynImage(nNativeImage);
}

PictureHandle cImaging::GetPictureFromKestrelynImage(std::int32_t nImageID) {
    HBITMAP h = 0;
    nStatus = GdipCreateHBITMAPFromBitmap(ResolveGdiPlusImage(nImageID), &h, 0);
    if (nStatus != OK) return 0;
    const PictureHandle picture = OleCreatePictureIndirect(h, true);
    if (!picture) {
        DeleteObject(h);
        nStatus = GenericError;
    }
    return picture;
}

GpImage* cImaging::GetGdiplusImage(std::int32_t nImageID) {
    return ResolveGdiPlusImage(TargetImage(nImageID));
}

HDC cImaging::GetKestrelynImageDC(std::int32_t nImageID) {
    const std::int32_t id = TargetImage(nImageID);
    ImageRecord* rec = FindImageRecord(ResolvePageImage(id));
    if (!rec) {
        nStatus = GenericError;
        return 0;
    }
    if (rec->nHDC != 0) {
        nStatus = OK;
        return rec->nHDC;
    }
    GpGraphics* g = nullptr;
    nStatus = kestrelyn::GetGraphics(id, g);
    if (nStatus != OK) return 0;
    HDC hdc = 0;
    nStatus = GdipGetDC(g, &hdc);
    if (nStatus != OK) {
        GdipDeleteGraphics(g);
        return 0;
    }
    rec = FindImageRecord(ResolvePageImage(id));
    rec->nGraphics = g;
    rec->nHDC = hdc;
    return hdc;
}

KestrelynStatus cImaging::ReleaseKestrelynImageDC(std::int32_t nImageID) {
    ImageRecord* rec = FindImageRecord(ResolvePageImage(TargetImage(nImageID)));
    if (!rec || !rec->nGraphics) {
        nStatus = OK;
        return nStatus;
    }
    nStatus = GdipReleaseDC(rec->nGraphics, rec->nHDC);
    GdipDeleteGraphics(rec->nGraphics);
    rec->nGraphics = nullptr;
    rec->nHDC = 0;
    return nStatus;
}

namespace {
// Hands a bitmap of the engine image to the host's clipboard, cleared first.
KestrelynStatus BitmapToClipboard(GpImage* img) {
    HBITMAP h = 0;
    KestrelynStatus status = GdipCreateHBITMAPFromBitmap(img, &h, 0);
    if (status != OK) return status;
    HostServices& host = GetHostServices();
    host.ClipboardClear();
    if (!host.ClipboardSetBitmap(h)) {
        DeleteObject(h);
        return GenericError;
    }
    return OK;
}
} // namespace

KestrelynStatus cImaging::CopyToClipboard() {
    if (nNativeImage == 0) {
        nStatus = GenericError;
        return nStatus;
    }
    nStatus = BitmapToClipboard(ResolveGdiPlusImage(nNativeImage));
    return nStatus;
}

KestrelynStatus cImaging::CopyRegionToClipboard(std::int32_t nSrcLeft, std::int32_t nSrcTop,
                                                std::int32_t nWidth, std::int32_t nHeight) {
    if (nNativeImage == 0) {
        nStatus = GenericError;
        return nStatus;
    }
    GpImage* img = ResolveGdiPlusImage(nNativeImage);
    PixelFormat fmt = 0;
    GdipGetImagePixelFormat(img, &fmt);
    GpImage* area = nullptr;
    nStatus = GdipCloneBitmapAreaI(nSrcLeft, nSrcTop, nWidth, nHeight, fmt, img, &area);
    if (nStatus != OK) return nStatus;
    nStatus = BitmapToClipboard(area);
    GdipDisposeImage(area);
    return nStatus;
}

KestrelynStatus cImaging::DeleteClipboardData() {
    nStatus = GetHostServices().ClipboardClear() ? OK : GenericError;
    return nStatus;
}

KestrelynStatus cImaging::ClearImage(std::int32_t nColorARGB) {
    if (nNativeImage == 0) {
        nStatus = GenericError;
        return nStatus;
    }
    // In the image's own format: no 32-bit copy of the image.
    nStatus = GdipBitmapFillColor(ResolveGdiPlusImage(nNativeImage), static_cast<ARGB>(nColorARGB));
    if (nStatus == OK) MarkImageModified(nNativeImage);
    return nStatus;
}

} // namespace kestrelyn
