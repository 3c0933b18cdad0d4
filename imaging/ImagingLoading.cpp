// The loading family of Imaging: every CreateImageFrom* operation ends by
// storing the status and making the new image the native one.
#include "imaging/cImaging.h"

#include <vector>

#include "core/ImageLoader.h"
#include "core/modMain.h"
#include "platform/Windows1252.h"
#include "platform/modGdi32.h"
#include "platform/modWinapi.h"

namespace kestrelyn {

namespace {
// The end of every creating operation: the outcome to nStatus, the new image
// becomes the native one on success.
std::int32_t FinishCreate(cImaging& self, KestrelynStatus status, std::int32_t nImageID) {
    self.nStatus = status;
    if (status != OK || nImageID == 0) {
        if (status == OK) self.nStatus = GenericError;
        return 0;
    }
    self.nNativeImage = nImageID;
    return nImageID;
}

// The object's load settings; an empty path opens the file dialog, owned by
// window 0. (Byte arrays ignore the plug-in switch and never ask.)
LoadOptions FileLoadOptions(const cImaging& self, bool bICM) {
    LoadOptions oOptions;
    oOptions.bICM = bICM;
    oOptions.bDisableKyimgplug = self.bDisableKyimgplugCodecs;
    oOptions.bTiffReadOnly = self.bTiffReadOnly;
    oOptions.bGifReadOnly = self.bGifReadOnly;
    oOptions.bNoDialog = false;
    return oOptions;
}

std::int32_t RegisterHandleImage(cImaging& self, KestrelynStatus status, GpBitmap* bitmap,
                                 std::int32_t nKind) {
    if (status != OK) {
        if (bitmap) GdipDisposeImage(bitmap);
        return FinishCreate(self, status, 0);
    }
    std::int32_t id = 0;
    RegisterImage(id, bitmap, "", "", nKind);
    return FinishCreate(self, OK, id);
}
} // namespace

std::int32_t cImaging::CreateImageFromFile(const std::string& sFilePath) {
    std::int32_t id = 0;
    const KestrelynStatus status = LoadImageFile(id, sFilePath, FileLoadOptions(*this, false));
    return FinishCreate(*this, status, id);
}

std::int32_t cImaging::CreateImageFromFileICM(const std::string& sFilePath) {
    std::int32_t id = 0;
    const KestrelynStatus status = LoadImageFile(id, sFilePath, FileLoadOptions(*this, true));
    return FinishCreate(*this, status, id);
}

std::int32_t cImaging::CreateImageFromByteArray(const std::vector<std::uint8_t>& arBytes) {
    std::int32_t id = 0;
    const KestrelynStatus status = LoadImageFromBytes(id, arBytes, FileLoadOptions(*this, false));
    return FinishCreate(*this, status, id);
}

std::int32_t cImaging::CreateImageFromByteArrayICM(const std::vector<std::uint8_t>& arBytes) {
    std::int32_t id = 0;
    const KestrelynStatus status = LoadImageFromBytes(id, arBytes, FileLoadOptions(*this, true));
    return FinishCreate(*this, status, id);
}

std::int32_t cImaging::CreateImageFromMemory(const void* hMem, std::int32_t& nLength) {
    if (nLength <= 0 || !hMem) return FinishCreate(*this, InvalidParameter, 0);
    const auto* bytes = static_cast<const std::uint8_t*>(hMem);
    return CreateImageFromByteArray(std::vector<std::uint8_t>(bytes, bytes + nLength));
}

std::int32_t cImaging::CreateImageFromString(const std::string& sImageString) {
    if (sImageString.empty()) return FinishCreate(*this, GenericError, 0);
    const std::string sBytes = Utf8ToAnsi(sImageString);
    return CreateImageFromByteArray(std::vector<std::uint8_t>(sBytes.begin(), sBytes.end()));
}

std::int32_t cImaging::CreateImageFromStringICM(const std::string& sImageString) {
    if (sImageString.empty()) return FinishCreate(*this, GenericError, 0);
    const std::string sBytes = Utf8ToAnsi(sImageString);
    return CreateImageFromByteArrayICM(std::vector<std::uint8_t>(sBytes.begin(), sBytes.end()));
}

std::int32_t cImaging::CreateImageFromStream(StreamPtr oStream) {
    std::int32_t id = 0;
    const KestrelynStatus status = LoadImageFromStream(id, oStream, false);
    return FinishCreate(*this, status, id);
}

std::int32_t cImaging::CreateImageFromStreamICM(StreamPtr oStream) {
    std::int32_t id = 0;
    const KestrelynStatus status = LoadImageFromStream(id, oStream, true);
    return FinishCreate(*this, status, id);
}

std::int32_t cImaging::CreateImageFromPicture(PictureHandle oPicture) {
    std::int32_t id = 0;
    const KestrelynStatus status = LoadImageFromPicture(id, oPicture);
    return FinishCreate(*this, status, id);
}

std::int32_t cImaging::CreateImageFromDIB(HGLOBAL nDib) {
    std::int32_t id = 0;
    const KestrelynStatus status = LoadImageFromDIB(id, nDib, false);
    return FinishCreate(*this, status, id);
}

std::int32_t cImaging::CreateImageFromHBitmap(HBITMAP hBitmap) {
    GpBitmap* bitmap = nullptr;
    const KestrelynStatus status = GdipCreateBitmapFromHBITMAP(hBitmap, 0, &bitmap);
    return RegisterHandleImage(*this, status, bitmap, KindHBitmap);
}

std::int32_t cImaging::CreateImageFromHICON(HICON hicon) {
    GpBitmap* bitmap = nullptr;
    const KestrelynStatus status = GdipCreateBitmapFromHICON(hicon, &bitmap);
    return RegisterHandleImage(*this, status, bitmap, KindHIcon);
}

std::int32_t cImaging::CreateImageFromHwnd(HWND hwnd) {
    // The window system's grab goes through the host services; without a
    // GUI adapter there is no screen to take pixels from.
    const HBITMAP hGrab = GetHostServices().GrabWindow(hwnd);
    if (!hGrab) return FinishCreate(*this, Win32Error, 0);
    GpBitmap* bitmap = nullptr;
    const KestrelynStatus status = GdipCreateBitmapFromHBITMAP(hGrab, 0, &bitmap);
    DeleteObject(hGrab);
    return RegisterHandleImage(*this, status, bitmap, KindHBitmap);
}

std::int32_t cImaging::CreateImageFromClipboard() {
    std::int32_t id = 0;
    const KestrelynStatus status = LoadImageFromClipboard(id);
    return FinishCreate(*this, status, id);
}

std::int32_t cImaging::CreateImageFromRawBits(std::int32_t nWidth, std::int32_t nHeight,
                                              std::int32_t nStride, std::int32_t nPixelFormat,
                                              void* nBits) {
    std::int32_t id = 0;
    const KestrelynStatus status =
        CreateBitmap(nWidth, nHeight, nStride, nPixelFormat, nBits, id, false);
    return FinishCreate(*this, status, id);
}

std::int32_t cImaging::CreateImageFromGdiPlusImage(GpImage* nGdiPlusImage) {
    if (!nGdiPlusImage) return FinishCreate(*this, InvalidParameter, 0);
    GdipImageForceValidation(nGdiPlusImage);
    std::int32_t id = 0;
    RegisterImage(id, nGdiPlusImage, "", "", KindEngine);
    return FinishCreate(*this, OK, id);
}

} // namespace kestrelyn
