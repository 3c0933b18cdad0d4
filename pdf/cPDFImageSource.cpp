// cPDF: images of the registry, or of files loaded for the occasion, turned
// into image XObjects. The filter follows the depth: group 4 for one bit,
// Flate for palettes, JPEG for everything deeper; the pixels are read once,
// coded into one buffer and written.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "core/ImageLoader.h"
#include "core/ImageSaver.h"
#include "core/modMain.h"
#include "core/CodecPluginBridge.h"
#include "pdf/cPDF.h"
#include "platform/modGdiPlus.h"

namespace kestrelyn {

namespace {

// The image's JPEG bytes at a quality, by the byte-array route of saving:
// an 8-bit grey image goes through the codec plug-in (one component kept),
// everything else through the engine's encoder.
bool EncodeJpeg(std::int32_t nImageID, std::int32_t nQuality, std::string& sOut) {
    sOut.clear();
    if (IsGreyRampImage(nImageID) && IsKyimgplugAvailable()) {
        const std::string sTemp = MakeTempFileName();
        if (!sTemp.empty() && SaveAsJpegFile(nImageID, sTemp, nQuality, false) == OK) {
            std::ifstream oIn(sTemp, std::ios::binary);
            sOut.assign(std::istreambuf_iterator<char>(oIn), std::istreambuf_iterator<char>());
        }
        if (!sTemp.empty()) std::remove(sTemp.c_str());
        if (!sOut.empty()) return true;
    }
    StreamPtr oStream;
    if (SaveToStream(nImageID, oStream, "JPG", nQuality) != OK || !oStream) return false;
    const std::int64_t nSize = oStream->Stat();
    if (nSize <= 0) return false;
    sOut.resize(static_cast<std::size_t>(nSize));
    oStream->Seek(0, Stream::Begin);
    if (oStream->Read(&sOut[0], sOut.size()) != sOut.size()) {
        sOut.clear();
        return false;
    }
    return true;
}

// Reads every row of an image into a packed buffer in the given format.
bool ReadPixels(GpImage* pImage, std::int32_t nWidth, std::int32_t nHeight, PixelFormat nFormat,
                std::int32_t nStride, std::string& sOut) {
    sOut.assign(static_cast<std::size_t>(nStride) * static_cast<std::size_t>(nHeight), '\0');
    BitmapData oData;
    oData.Width = static_cast<UINT>(nWidth);
    oData.Height = static_cast<UINT>(nHeight);
    oData.Stride = nStride;
    oData.PixelFormat = nFormat;
    oData.Scan0 = &sOut[0];
    const GpRect oAll{0, 0, nWidth, nHeight};
    if (GdipBitmapLockBits(pImage, &oAll, ImageLockModeRead | ImageLockModeUserInputBuf, nFormat,
                           &oData) != OK) {
        sOut.clear();
        return false;
    }
    GdipBitmapUnlockBits(pImage, &oData);
    return true;
}

// 3 * 2^depth bytes of red, green, blue; entries the image lacks are black.
std::string ReadPalette(GpImage* pImage, std::int32_t nDepth) {
    const std::size_t nEntries = static_cast<std::size_t>(1) << nDepth;
    std::string sPalette(nEntries * 3, '\0');
    INT nSize = 0;
    if (GdipGetImagePaletteSize(pImage, &nSize) != OK ||
        nSize < static_cast<INT>(sizeof(ColorPalette)))
        return sPalette;
    std::vector<std::uint8_t> arBuffer(static_cast<std::size_t>(nSize));
    auto* pPalette = reinterpret_cast<ColorPalette*>(arBuffer.data());
    if (GdipGetImagePalette(pImage, pPalette, nSize) != OK) return sPalette;
    const std::size_t nRoom =
        (static_cast<std::size_t>(nSize) - sizeof(ColorPalette)) / sizeof(pPalette->Entries[0]) + 1;
    const std::size_t nCount =
        std::min<std::size_t>({static_cast<std::size_t>(pPalette->Count), nEntries, nRoom});
    for (std::size_t i = 0; i < nCount; ++i) {
        const ARGB c = pPalette->Entries[i];
        sPalette[i * 3] = static_cast<char>((c >> 16) & 0xFF);
        sPalette[i * 3 + 1] = static_cast<char>((c >> 8) & 0xFF);
        sPalette[i * 3 + 2] = static_cast<char>(c & 0xFF);
    }
    return sPalette;
}

} // namespace

std::int32_t cPDF::PdfAddImage(const std::string& sFilePath) {
    if (!pFile) return 0;
    std::int32_t nImageID = 0;
    if (LoadImageFile(nImageID, sFilePath, false, false, true, 0, true, true) != OK ||
        nImageID == 0)
        return 0;
    std::int32_t nResult = 0;
    try {
        nResult = PdfAddImage(nImageID);
    } catch (...) {
        ReleaseImage(nImageID);
        throw;
    }
    ReleaseImage(nImageID);
    return nResult;
}

std::int32_t cPDF::PdfAddImage(std::int32_t nImageID) {
    if (!pFile) return 0;
    GpImage* pImage = ResolveGdiPlusImage(nImageID);
    if (!pImage) return 0;
    UINT nW = 0, nH = 0;
    float nResX = 0, nResY = 0;
    PixelFormat nFormat = 0;
    if (GdipGetImageWidth(pImage, &nW) != OK || GdipGetImageHeight(pImage, &nH) != OK ||
        GdipGetImagePixelFormat(pImage, &nFormat) != OK)
        return 0;
    GdipGetImageHorizontalResolution(pImage, &nResX);
    GdipGetImageVerticalResolution(pImage, &nResY);
    const auto nWidth = static_cast<std::int32_t>(nW);
    const auto nHeight = static_cast<std::int32_t>(nH);
    std::int32_t nDepth = PixelFormatDepth(nFormat);
    if (nWidth <= 0 || nHeight <= 0 || nDepth <= 0) return 0;

    std::int32_t nMode = PdfImageFilterNone;
    if (bCompressData) {
        if (nDepth == 1)
            nMode = PdfImageFilterCcittG4;
        else if (nDepth == 4)
            nMode = PdfImageFilterFlate;
        else if (nDepth == 8 && !IsGreyRampImage(nImageID))
            nMode = PdfImageFilterFlate;
        else if (nDepth == 8)
            nMode = IsKyimgplugAvailable() ? PdfImageFilterJpeg : PdfImageFilterNone;
        else
            nMode = PdfImageFilterJpeg;
    }

    std::string sData;
    std::int32_t nStride = 0;
    if (nMode == PdfImageFilterJpeg) {
        if (!EncodeJpeg(nImageID, nJpegQuality, sData)) return 0;
    } else {
        PixelFormat nRead = PixelFormat24bppRGB;
        if (nDepth == 1) {
            nStride = (nWidth + 7) / 8;
            nRead = PixelFormat1bppIndexed;
        } else if (nDepth == 4) {
            nStride = (nWidth + 1) / 2;
            nRead = PixelFormat4bppIndexed;
        } else if (nDepth == 8) {
            nStride = nWidth;
            nRead = PixelFormat8bppIndexed;
        } else {
            nStride = nWidth * 3;
            nDepth = 24;
        }
        if (!ReadPixels(pImage, nWidth, nHeight, nRead, nStride, sData)) return 0;
        if (nDepth == 24) {
            // The engine's rows are blue, green, red.
            for (std::size_t i = 0; i + 2 < sData.size(); i += 3)
                std::swap(sData[i], sData[i + 2]);
        }
    }
    const std::string sPalette = nDepth < 9 ? ReadPalette(pImage, nDepth) : std::string();
    return AddImageData(sData, sPalette, nWidth, nHeight, nDepth, nStride, nMode,
                        static_cast<std::int32_t>(std::nearbyint(nResX)),
                        static_cast<std::int32_t>(std::nearbyint(nResY)));
}

} // namespace kestrelyn
