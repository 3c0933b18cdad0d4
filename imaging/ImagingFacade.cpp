// The facade family of Imaging: status, native image, options, regions and
// the small utilities.
#include "imaging/cImaging.h"

#include <cmath>
#include <cstdio>
#include <fstream>

#include "core/EngineState.h"
#include "core/ImageLoader.h"
#include "core/modMain.h"
#include "platform/SafeFile.h"
#include "platform/modGdi32.h"
#include "platform/modWinapi.h"

namespace kestrelyn {

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
                       bool bUseTransparentColor, std::int32_t nTransparentColor) {
    // Writes the picture as a one-image icon file: 32-bit colour rows and the
    // 1-bit transparency mask, both bottom-up.
    const HostBitmap* bmp = HostGetBitmap(PictureGetBitmap(oPicture));
    if (!bmp || bmp->nWidth < 1 || bmp->nHeight < 1 || bmp->nWidth > 256 || bmp->nHeight > 256 ||
        NormaliseFilePath(sIconPath).empty()) {
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
            if (bUseTransparentColor &&
                (px & 0x00FFFFFFu) == (static_cast<ARGB>(nTransparentColor) & 0x00FFFFFFu)) {
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
    // The icon replaces a file at the path only once written whole.
    nStatus = WriteBytesSafely(NormaliseFilePath(sIconPath), out.data(), out.size())
                  ? OK
                  : CanNotCreateFile;
    return nStatus == OK;
}

HWND cImaging::GetDesktopHwnd() {
    return GetHostServices().DesktopWindow();
}

} // namespace kestrelyn
