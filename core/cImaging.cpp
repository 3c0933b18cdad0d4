// cImaging: object life, engine start and stop per thread, the facts snapshot
// that lets an edit keep resolutions and tags, the frame of an edit of the
// native image, the option operations and the small utilities.
#include "core/cImaging.h"
#include "pdf/cPDF.h"

#include <cmath>
#include <cstdio>
#include <exception>
#include <fstream>
#include <mutex>
#include <new>

#include "core/modMain.h"
#include "platform/modGdi32.h"
#include "platform/modWinapi.h"

namespace kestrelyn {

// ---------------------------------------------------------------------------
// Engine start and stop, once per thread.

namespace {

thread_local EngineState tlEngine;

std::mutex& HookMutex() {
    static std::mutex m;
    return m;
}
std::vector<EngineStartHook>& StartHooks() {
    static std::vector<EngineStartHook> hooks;
    return hooks;
}

const char* const kMessageTitle = "Kestrelyn";

std::string EngineFailureText(const char* sPrefix, int nErr, const std::string& sDescription) {
    return std::string(sPrefix) + std::to_string(nErr) + ". Error: " + sDescription;
}

} // namespace

EngineState& ThreadEngineState() {
    return tlEngine;
}

void RegisterEngineStartHook(EngineStartHook pHook) {
    std::lock_guard<std::mutex> lock(HookMutex());
    StartHooks().push_back(pHook);
}

double VersionValue(const std::string& sVersion) {
    // Leading blanks, an optional sign, digits, at most one decimal point.
    std::size_t i = 0;
    while (i < sVersion.size() && (sVersion[i] == ' ' || sVersion[i] == '\t'))
        ++i;
    double sign = 1;
    if (i < sVersion.size() && (sVersion[i] == '-' || sVersion[i] == '+')) {
        if (sVersion[i] == '-') sign = -1;
        ++i;
    }
    double value = 0, scale = 0;
    for (; i < sVersion.size(); ++i) {
        const char c = sVersion[i];
        if (c >= '0' && c <= '9') {
            if (scale == 0)
                value = value * 10 + (c - '0');
            else {
                value += (c - '0') * scale;
                scale /= 10;
            }
        } else if (c == '.' && scale == 0) {
            scale = 0.1;
        } else {
            break;
        }
    }
    return sign * value;
}

bool StartEngine() {
    EngineState& st = tlEngine;
    int nErr = 0;
    std::string sDescription;
    bool bFailed = false;
    try {
        st.nEngineUsers += 1;
        if (!st.bEngineStarted) {
            st.bEngineStarted = true;
            // Does the engine answer already? A 1 by 1 bitmap tells.
            GpBitmap* probe = nullptr;
            KestrelynStatus status =
                GdipCreateBitmapFromScan0(1, 1, 0, PixelFormat24bppRGB, nullptr, &probe);
            bool bRunning = status == OK;
            if (bRunning) {
                GdipDisposeImage(probe);
            } else {
                GdiplusStartupInput input;
                input.GdiplusVersion = 1;
                GdiplusStartupOutput output;
                std::uintptr_t token = 0;
                status = GdiplusStartup(&token, &input, &output);
                if (status == OK) {
                    st.nEngineToken = token;
                    bRunning = true;
                }
            }
            if (bRunning) {
                std::vector<EngineStartHook> hooks;
                {
                    std::lock_guard<std::mutex> lock(HookMutex());
                    hooks = StartHooks();
                }
                for (EngineStartHook hook : hooks)
                    hook(st);
                const char* sVersion = GdipGetEngineVersion();
                st.sGdiplusVersion = sVersion ? sVersion : "";
            } else {
                st.bEngineStarted = false;
                bFailed = true;
                nErr = status;
                sDescription = "the raster engine did not start";
            }
        }
        if (VersionValue(st.sKyimgplugVersion) == 0)
            st.sKyimgplugVersion = GetLibraryFileVersion("kyimgplug");
    } catch (const std::exception& e) {
        bFailed = true;
        nErr = nErr ? nErr : GenericError;
        sDescription = e.what();
    } catch (...) {
        bFailed = true;
        nErr = nErr ? nErr : GenericError;
        sDescription = "unknown failure";
    }
    if (bFailed) {
        st.bEngineStarted = false;
        try {
            GetHostServices().MessageBox(
                EngineFailureText("Error starting GDI+. Err no: ", nErr, sDescription),
                kMessageTitle, MessageBoxCritical);
        } catch (...) {
        }
    }
    return st.bEngineStarted;
}

void StopEngine() {
    EngineState& st = tlEngine;
    try {
        st.nEngineUsers -= 1;
        if (st.bEngineStarted && st.nEngineUsers <= 0) {
            st.bEngineStarted = false;
            RemoveAllImages();
            if (st.nEngineToken != 0) {
                GdiplusShutdown(st.nEngineToken);
                st.nEngineToken = 0;
            }
        }
    } catch (const std::exception& e) {
        try {
            GetHostServices().MessageBox(
                EngineFailureText("Error shutting down GDI+. Err no: ", GenericError, e.what()),
                kMessageTitle, MessageBoxCritical);
        } catch (...) {
        }
    } catch (...) {
        try {
            GetHostServices().MessageBox(EngineFailureText("Error shutting down GDI+. Err no: ",
                                                           GenericError, "unknown failure"),
                                         kMessageTitle, MessageBoxCritical);
        } catch (...) {
        }
    }
}

// ---------------------------------------------------------------------------
// Object life.

cImaging::cImaging() {
    StartEngine();
}

cImaging::~cImaging() {
    try {
        StopEngine();
    } catch (...) {
    }
}

// ---------------------------------------------------------------------------
// Facts snapshot.

void cImaging::CaptureImageFacts(std::int32_t nImageID) {
    GpImage* img = ResolveGdiPlusImage(TargetImage(nImageID));
    GdipImageForceValidation(img);
    UINT w = 0, h = 0;
    float dpiX = 0, dpiY = 0;
    PixelFormat fmt = 0;
    GdipGetImageWidth(img, &w);
    GdipGetImageHeight(img, &h);
    GdipGetImageVerticalResolution(img, &dpiY);
    GdipGetImageHorizontalResolution(img, &dpiX);
    GdipGetImagePixelFormat(img, &fmt);
    nLastWidth = static_cast<std::int32_t>(w);
    nLastHeight = static_cast<std::int32_t>(h);
    nLastVerticalResolution = dpiY;
    nLastHorizontalResolution = dpiX;
    nLastPixelFormat = fmt;

    arPropertyItems.clear();
    nPropertyItemCount = 0;
    if (!bPreserveTags || !img) return;
    UINT count = 0;
    if (GdipGetPropertyCount(img, &count) != OK || count == 0) return;
    std::vector<PROPID> ids(count);
    if (GdipGetPropertyIdList(img, count, ids.data()) != OK) return;
    for (PROPID id : ids) {
        UINT size = 0;
        if (GdipGetPropertyItemSize(img, id, &size) != OK || size < sizeof(PropertyItem)) continue;
        std::vector<std::uint8_t> buffer(size);
        auto* item = reinterpret_cast<PropertyItem*>(buffer.data());
        if (GdipGetPropertyItem(img, id, size, item) != OK) continue;
        cGDIPPropertyItem copy;
        copy.nID = item->id;
        copy.nType = item->type;
        if (item->value && item->length > 0) {
            const auto* bytes = static_cast<const std::uint8_t*>(item->value);
            copy.arValue.assign(bytes, bytes + item->length);
        }
        arPropertyItems.push_back(std::move(copy));
    }
    nPropertyItemCount = static_cast<std::int32_t>(arPropertyItems.size());
}

void cImaging::RestoreImageFacts(std::int32_t nNewImageID, bool bSkipProfile) {
    const std::int32_t id = TargetImage(nNewImageID);
    GpImage* img = ResolveGdiPlusImage(id);
    if (img) {
        float dpiX = 0, dpiY = 0;
        GdipGetImageHorizontalResolution(img, &dpiX);
        GdipGetImageVerticalResolution(img, &dpiY);
        if (dpiX != nLastHorizontalResolution || dpiY != nLastVerticalResolution)
            SetResolution(id, nLastHorizontalResolution, nLastVerticalResolution, true);
        if (bPreserveTags) {
            for (const cGDIPPropertyItem& item : arPropertyItems) {
                if (bSkipProfile && item.nID == 34675) continue;
                try {
                    PropertyItem record{};
                    record.id = item.nID;
                    record.type = item.nType;
                    record.length = static_cast<std::uint32_t>(item.arValue.size());
                    record.value = const_cast<std::uint8_t*>(item.arValue.data());
                    GdipSetPropertyItem(img, &record);
                } catch (...) {
                    // A tag that cannot be written is passed over.
                }
            }
        }
    }
    arPropertyItems.clear();
    nPropertyItemCount = 0;
}

// ---------------------------------------------------------------------------
// The frame of an edit of the native image.

void cImaging::CommitNativeImage(std::int32_t nNewImageID) {
    nNativeImage = ReplaceImage(nNativeImage, nNewImageID);
}

KestrelynStatus cImaging::EditNativeImage(const MakeImageFn& fnMake, bool bSkipProfile) {
    if (nNativeImage == 0) {
        nStatus = GenericError;
        return nStatus;
    }
    CaptureImageFacts(0);
    std::int32_t nNewImage = 0;
    nStatus = fnMake(nNativeImage, nNewImage);
    if (nStatus != OK || nNewImage == 0) {
        if (nNewImage != 0) ReleaseImage(nNewImage);
        if (nStatus == OK) nStatus = GenericError;
        arPropertyItems.clear();
        nPropertyItemCount = 0;
        return nStatus;
    }
    RestoreImageFacts(nNewImage, bSkipProfile);
    CommitNativeImage(nNewImage);
    return nStatus;
}

KestrelynStatus cImaging::EditNativeEngineImage(const MakeEngineImageFn& fnMake,
                                                bool bSkipProfile) {
    return EditNativeImage(
        [&](std::int32_t nSourceID, std::int32_t& nNewImageID) -> KestrelynStatus {
            GpImage* source = ResolveGdiPlusImage(nSourceID);
            if (!source) return InvalidParameter;
            GpImage* result = nullptr;
            const KestrelynStatus status = fnMake(source, result);
            if (status != OK) {
                if (result) GdipDisposeImage(result);
                return status;
            }
            if (!result) return GenericError;
            RegisterImage(nNewImageID, result, "", "", KindEngine);
            return OK;
        },
        bSkipProfile);
}

// ---------------------------------------------------------------------------
// Status, native image, options.

KestrelynStatus cImaging::GetStat() {
    return nStatus;
}

std::int32_t cImaging::GetNativeImage() {
    return nNativeImage;
}

KestrelynStatus cImaging::SetNativeImage(std::int32_t nImageID) {
    if (nImageID != nNativeImage) nNativeImage = nImageID;
    nStatus = OK;
    return nStatus;
}

double cImaging::GetVersion() {
    return 5.9901309;
}

std::string cImaging::GetGdiplusVersion() {
    return ThreadEngineState().sGdiplusVersion;
}

void cImaging::SetROI(std::int32_t nLeft, std::int32_t nTop, std::int32_t nWidth,
                      std::int32_t nHeight) {
    if (nLeft == 0 && nTop == 0 && nWidth == 0 && nHeight == 0) return;
    ROILeft = nLeft;
    ROITop = nTop;
    ROIWidth = nWidth;
    ROIHeight = nHeight;
    ROIMode = 2;
}

void cImaging::FiltersToZone(std::int32_t nLeft, std::int32_t nTop, std::int32_t nWidth,
                             std::int32_t nHeight) {
    SetROI(nLeft, nTop, nWidth, nHeight);
}

void cImaging::ResetROI() {
    ROIMode = 1;
    ROILeft = 0;
    ROITop = 0;
    ROIWidth = 0;
    ROIHeight = 0;
}

void cImaging::FiltersToImage() {
    ResetROI();
}

void cImaging::TagsSetPreserve(bool bPreserve) {
    bPreserveTags = bPreserve;
}
void cImaging::TiffOpenMultiPageAsReadOnly(bool bReadOnly) {
    bTiffReadOnly = bReadOnly;
}
void cImaging::GifOpenMultiPageAsReadOnly(bool bReadOnly) {
    bGifReadOnly = bReadOnly;
}
void cImaging::DisableKyimgplugCodecs(bool bDisable) {
    bDisableKyimgplugCodecs = bDisable;
}
void cImaging::FontSetUnit(UnitMode nUnit) {
    nFontUnit = nUnit;
}
UnitMode cImaging::FontGetUnit() {
    return static_cast<UnitMode>(nFontUnit);
}

// ---------------------------------------------------------------------------
// Small utilities.

double cImaging::GetDistance(double nX1, double nY1, double nX2, double nY2) {
    return std::sqrt((nX2 - nX1) * (nX2 - nX1) + (nY2 - nY1) * (nY2 - nY1));
}

namespace {
const char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int Base64Value(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}
} // namespace

std::string cImaging::Encode64String(const std::string& sText) {
    std::string out;
    out.reserve((sText.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= sText.size(); i += 3) {
        const std::uint32_t v = (static_cast<std::uint8_t>(sText[i]) << 16) |
                                (static_cast<std::uint8_t>(sText[i + 1]) << 8) |
                                static_cast<std::uint8_t>(sText[i + 2]);
        out += kBase64Alphabet[(v >> 18) & 63];
        out += kBase64Alphabet[(v >> 12) & 63];
        out += kBase64Alphabet[(v >> 6) & 63];
        out += kBase64Alphabet[v & 63];
    }
    const std::size_t rest = sText.size() - i;
    if (rest > 0) {
        std::uint32_t v = static_cast<std::uint8_t>(sText[i]) << 16;
        if (rest == 2) v |= static_cast<std::uint8_t>(sText[i + 1]) << 8;
        out += kBase64Alphabet[(v >> 18) & 63];
        out += kBase64Alphabet[(v >> 12) & 63];
        out += rest == 2 ? kBase64Alphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::string cImaging::Decode64String(const std::string& sBase64) {
    // Characters outside the alphabet (line breaks, blanks) are skipped; the
    // first "=" ends the data.
    std::string out;
    std::uint32_t acc = 0;
    int bits = 0;
    for (char c : sBase64) {
        if (c == '=') break;
        const int v = Base64Value(c);
        if (v < 0) continue;
        acc = (acc << 6) | static_cast<std::uint32_t>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>((acc >> bits) & 0xFF);
        }
    }
    return out;
}

bool cImaging::GetIcon(PictureHandle oPicture, const std::string& sIconPath,
                       bool bUseTransparentColor, ARGB nTransparentColor) {
    // Writes the picture as a one-image icon file: 32-bit colour rows and the
    // 1-bit transparency mask, both bottom-up.
    const HostBitmap* bmp = HostGetBitmap(PictureGetBitmap(oPicture));
    if (!bmp || bmp->nWidth < 1 || bmp->nHeight < 1 || bmp->nWidth > 256 || bmp->nHeight > 256 ||
        sIconPath.empty()) {
        nStatus = InvalidParameter;
        return false;
    }
    const std::int32_t w = bmp->nWidth, h = bmp->nHeight;
    const std::uint32_t maskStride = static_cast<std::uint32_t>(((w + 31) / 32) * 4);
    const std::uint32_t xorSize = static_cast<std::uint32_t>(w * h * 4);
    const std::uint32_t andSize = maskStride * static_cast<std::uint32_t>(h);
    std::vector<std::uint8_t> out;
    auto put16 = [&](std::uint32_t v) {
        out.push_back(static_cast<std::uint8_t>(v));
        out.push_back(static_cast<std::uint8_t>(v >> 8));
    };
    auto put32 = [&](std::uint32_t v) {
        put16(v & 0xFFFF);
        put16(v >> 16);
    };
    put16(0);
    put16(1);
    put16(1);
    out.push_back(static_cast<std::uint8_t>(w == 256 ? 0 : w));
    out.push_back(static_cast<std::uint8_t>(h == 256 ? 0 : h));
    out.push_back(0);
    out.push_back(0);
    put16(1);
    put16(32);
    put32(40 + xorSize + andSize);
    put32(22);
    put32(40);
    put32(static_cast<std::uint32_t>(w));
    put32(static_cast<std::uint32_t>(h * 2));
    put16(1);
    put16(32);
    put32(0);
    put32(xorSize + andSize);
    put32(0);
    put32(0);
    put32(0);
    put32(0);
    std::vector<std::uint8_t> mask(andSize, 0);
    for (std::int32_t row = h - 1; row >= 0; --row) {
        const std::int32_t maskRow = h - 1 - row;
        for (std::int32_t x = 0; x < w; ++x) {
            std::uint32_t px = bmp->arPixels[static_cast<std::size_t>(row * w + x)];
            bool bClear = (px >> 24) == 0;
            if (bUseTransparentColor && (px & 0x00FFFFFFu) == (nTransparentColor & 0x00FFFFFFu)) {
                px &= 0x00FFFFFFu;
                bClear = true;
            }
            if (bClear)
                mask[static_cast<std::size_t>(maskRow) * maskStride +
                     static_cast<std::size_t>(x / 8)] |= static_cast<std::uint8_t>(0x80 >> (x % 8));
            put32(px);
        }
    }
    out.insert(out.end(), mask.begin(), mask.end());
    std::ofstream file(sIconPath, std::ios::binary | std::ios::trunc);
    if (!file) {
        nStatus = CanNotCreateFile;
        return false;
    }
    file.write(reinterpret_cast<const char*>(out.data()), static_cast<std::streamsize>(out.size()));
    nStatus = file.good() ? OK : CanNotCreateFile;
    return nStatus == OK;
}

HWND cImaging::GetDesktopHwnd() {
    return GetHostServices().DesktopWindow();
}

} // namespace kestrelyn
