// The registry family of Imaging: new images, clones, closing.
#include <cstring>

#include "core/modMain.h"
#include "imaging/cImaging.h"

namespace kestrelyn {

namespace {

// Pixel format of a new image by bit depth; 0 for a depth with none.
PixelFormat FormatForDepth(std::int32_t nBitDepth) {
    switch (nBitDepth) {
    case 1:
        return PixelFormat1bppIndexed;
    case 4:
        return PixelFormat4bppIndexed;
    case 8:
        return PixelFormat8bppIndexed;
    case 16:
        return PixelFormat16bppRGB555;
    case 24:
        return PixelFormat24bppRGB;
    case 32:
        return PixelFormat32bppARGB;
    case 48:
        return PixelFormat48bppRGB;
    case 64:
        return PixelFormat64bpppARGB;
    default:
        return 0;
    }
}

// Copies every property item of one engine image to another, one by one;
// items that cannot be read or written are passed over.
void CopyTags(GpImage* from, GpImage* to) {
    UINT count = 0;
    if (GdipGetPropertyCount(from, &count) != OK || count == 0) return;
    std::vector<PROPID> ids(count);
    if (GdipGetPropertyIdList(from, count, ids.data()) != OK) return;
    for (PROPID id : ids) {
        UINT size = 0;
        if (GdipGetPropertyItemSize(from, id, &size) != OK || size < sizeof(PropertyItem)) continue;
        std::vector<std::uint8_t> buffer(size);
        auto* item = reinterpret_cast<PropertyItem*>(buffer.data());
        if (GdipGetPropertyItem(from, id, size, item) == OK) GdipSetPropertyItem(to, item);
    }
}

void CopyPalette(GpImage* from, GpImage* to) {
    INT size = 0;
    if (GdipGetImagePaletteSize(from, &size) != OK || size < static_cast<INT>(sizeof(ColorPalette)))
        return;
    std::vector<std::uint8_t> buffer(static_cast<std::size_t>(size));
    auto* palette = reinterpret_cast<ColorPalette*>(buffer.data());
    if (GdipGetImagePalette(from, palette, size) == OK) GdipSetImagePalette(to, palette);
}

} // namespace

std::int32_t cImaging::CreateNewImage(std::int32_t nWidth, std::int32_t nHeight,
                                      std::int32_t nBitDepth, std::int32_t nBackColor) {
    const PixelFormat format = FormatForDepth(nBitDepth);
    if (format == 0) {
        nStatus = InvalidParameter;
        return 0;
    }
    std::int32_t id = 0;
    nStatus = CreateBitmap(nWidth, nHeight, 0, format, nullptr, id, false);
    if (nStatus != OK) return 0;
    nNativeImage = id;
    // A fresh buffer is zero, which is already opaque black's place for the
    // formats below 32 bits; clear only when that would differ. The engine
    // fills every format in place, palettes included (nearest entry).
    if (static_cast<ARGB>(nBackColor) != 0xFF000000u || nBitDepth >= 32) {
        if (GdipBitmapFillColor(ResolveGdiPlusImage(id), static_cast<ARGB>(nBackColor)) == OK)
            MarkImageModified(id);
    }
    nStatus = OK;
    return id;
}

std::int32_t cImaging::CreateClonedImage(std::int32_t nImageID) {
    CaptureImageFacts(nImageID);
    GpImage* clone = nullptr;
    nStatus = GdipCloneImage(ResolveGdiPlusImage(nImageID), &clone);
    if (nStatus != OK || !clone) {
        arPropertyItems.clear();
        nPropertyItemCount = 0;
        if (nStatus == OK) nStatus = GenericError;
        return 0;
    }
    std::int32_t id = 0;
    RegisterImage(id, clone, "", "", KindEngine);
    RestoreImageFacts(id, false);
    return id;
}

std::int32_t cImaging::CloneIndependent(std::int32_t nImageID, PixelFormat nFormat,
                                        bool bCopyTags) {
    GpImage* source = ResolveGdiPlusImage(nImageID);
    if (!source) {
        nStatus = InvalidParameter;
        return 0;
    }
    UINT w = 0, h = 0;
    float dpiX = 0, dpiY = 0;
    PixelFormat own = 0;
    GdipGetImageWidth(source, &w);
    GdipGetImageHeight(source, &h);
    GdipGetImageHorizontalResolution(source, &dpiX);
    GdipGetImageVerticalResolution(source, &dpiY);
    GdipGetImagePixelFormat(source, &own);
    if (w < 1 || h < 1) {
        nStatus = GenericError;
        return 0;
    }
    const PixelFormat format = nFormat != 0 ? nFormat : own;
    const std::int32_t stride =
        ComputeStride(static_cast<std::int32_t>(w), PixelFormatDepth(format));
    if (stride == 0) {
        nStatus = UnsupportedPixelFormat;
        return 0;
    }
    void* bits = GdipAlloc(static_cast<std::size_t>(stride) * h);
    if (!bits) {
        nStatus = OutOfMemory;
        return 0;
    }
    BitmapData data;
    data.Width = w;
    data.Height = h;
    data.Stride = stride;
    data.PixelFormat = format;
    data.Scan0 = bits;
    const GpRect all{0, 0, static_cast<INT>(w), static_cast<INT>(h)};
    nStatus = GdipBitmapLockBits(source, &all, ImageLockModeRead | ImageLockModeUserInputBuf,
                                 format, &data);
    if (nStatus != OK) {
        GdipFree(bits);
        return 0;
    }
    GdipBitmapUnlockBits(source, &data);
    std::int32_t id = 0;
    nStatus = CreateBitmap(static_cast<std::int32_t>(w), static_cast<std::int32_t>(h), stride,
                           format, bits, id, true);
    if (nStatus != OK) {
        GdipFree(bits);
        return 0;
    }
    GpImage* copy = ResolveGdiPlusImage(id);
    if (IsIndexedPixelFormat(format)) CopyPalette(source, copy);
    if (dpiX > 0 && dpiY > 0) GdipBitmapSetResolution(copy, dpiX, dpiY);
    if (bCopyTags) CopyTags(source, copy);
    nStatus = OK;
    return id;
}

std::int32_t cImaging::CreateClonedImageI(std::int32_t nImageID) {
    return CloneIndependent(nImageID, 0, true);
}

std::int32_t cImaging::CreateClonedImageARGB(std::int32_t nImageID, bool bCopyTags) {
    return CloneIndependent(nImageID, PixelFormat32bppARGB, bCopyTags);
}

std::int32_t cImaging::CreateClonedImageArea(std::int32_t nImageID, std::int32_t nSrcLeft,
                                             std::int32_t nSrcTop, std::int32_t nWidth,
                                             std::int32_t nHeight) {
    if (nImageID == 0) {
        nStatus = GenericError;
        return 0;
    }
    GpImage* source = ResolveGdiPlusImage(nImageID);
    PixelFormat format = 0;
    GdipGetImagePixelFormat(source, &format);
    GpImage* area = nullptr;
    nStatus = GdipCloneBitmapAreaI(nSrcLeft, nSrcTop, nWidth, nHeight, format, source, &area);
    if (nStatus != OK || !area) {
        if (nStatus == OK) nStatus = GenericError;
        return 0;
    }
    std::int32_t id = 0;
    RegisterImage(id, area, "", "", KindEngine);
    return id;
}

KestrelynStatus cImaging::CloseImage(std::int32_t nImageID) {
    if (nImageID == 0) {
        nStatus = InvalidParameter;
        return nStatus;
    }
    if (nImageID == nNativeMultiPage) {
        nStatus = Aborted;
        return nStatus;
    }
    nStatus = ReleaseImage(nImageID);
    if (nStatus == OK && nNativeImage == nImageID) nNativeImage = 0;
    return nStatus;
}

KestrelynStatus cImaging::CloseNativeImage() {
    if (nNativeImage == 0) return nStatus;
    if (nNativeImage == nNativeMultiPage) {
        nStatus = Aborted;
        return nStatus;
    }
    CloseImage(nNativeImage);
    nNativeImage = 0;
    return nStatus;
}

void cImaging::RemoveAllImage() {
    // The native id is left as it was: it now names nothing.
    RemoveAllImages();
}

KestrelynStatus cImaging::ForceImageValidation(std::int32_t nImageID) {
    if (GpImage* image = ResolveGdiPlusImage(nImageID)) GdipImageForceValidation(image);
    return OK;
}

} // namespace kestrelyn
