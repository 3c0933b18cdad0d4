// Helpers of the Imaging PDF tests: registry images with exact pixels and
// palettes, and the rows of `pdfimages -list`.
#pragma once
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "PdfTestSupport.h"
#include "kestrelyn/Imaging.h"
#include "platform/modGdiPlus.h"

namespace kestrelyn::pdftest {

// A registry image of the given format whose rows are copied from arRows
// (nStride bytes each), with a palette for the indexed formats.
inline std::int32_t MakeImage(Imaging& oImaging, int nWidth, int nHeight, PixelFormat nFormat,
                              const std::vector<std::uint8_t>& arRows, int nStride,
                              const std::vector<ARGB>& arPalette = {}, float nDpi = 72) {
    GpBitmap* pBitmap = nullptr;
    if (GdipCreateBitmapFromScan0(nWidth, nHeight, 0, nFormat, nullptr, &pBitmap) != OK) return 0;
    if (!arPalette.empty()) {
        std::vector<std::uint8_t> arBuffer(sizeof(ColorPalette) + arPalette.size() * sizeof(ARGB));
        auto* pPalette = reinterpret_cast<ColorPalette*>(arBuffer.data());
        pPalette->Flags = 0;
        pPalette->Count = static_cast<UINT>(arPalette.size());
        std::memcpy(pPalette->Entries, arPalette.data(), arPalette.size() * sizeof(ARGB));
        GdipSetImagePalette(pBitmap, pPalette);
    }
    BitmapData oData;
    oData.Width = static_cast<UINT>(nWidth);
    oData.Height = static_cast<UINT>(nHeight);
    oData.Stride = nStride;
    oData.PixelFormat = nFormat;
    oData.Scan0 = const_cast<std::uint8_t*>(arRows.data());
    const GpRect oAll{0, 0, nWidth, nHeight};
    if (GdipBitmapLockBits(pBitmap, &oAll, ImageLockModeWrite | ImageLockModeUserInputBuf, nFormat,
                           &oData) != OK) {
        GdipDisposeImage(pBitmap);
        return 0;
    }
    GdipBitmapUnlockBits(pBitmap, &oData);
    GdipBitmapSetResolution(pBitmap, nDpi, nDpi);
    return oImaging.CreateImageFromGdiPlusImage(pBitmap);
}

// One row of `pdfimages -list`.
struct ListedImage {
    std::string sType, sColor, sEncoding;
    int nWidth = 0, nHeight = 0, nComponents = 0, nBits = 0;
};

inline std::vector<ListedImage> ListImages(const std::string& sPdf) {
    std::vector<ListedImage> arImages;
    const CommandResult oResult = RunCommand("pdfimages -list " + Quote(sPdf));
    std::istringstream oLines(oResult.sOutput);
    std::string sLine;
    int nRow = 0;
    while (std::getline(oLines, sLine)) {
        if (++nRow <= 2) continue; // heading and rule
        std::istringstream oFields(sLine);
        int nPage = 0, nNum = 0;
        ListedImage o;
        if (oFields >> nPage >> nNum >> o.sType >> o.nWidth >> o.nHeight >> o.sColor >>
            o.nComponents >> o.nBits >> o.sEncoding)
            arImages.push_back(o);
    }
    return arImages;
}

} // namespace kestrelyn::pdftest
