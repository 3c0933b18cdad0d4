// cPDF: image XObjects from pixels that the caller has read (or JPEG bytes it
// has encoded) or that the image source hands over, their group 4 coding, and
// their placement on pages. The filter follows the depth: group 4 for one
// bit, Flate for palettes, JPEG for everything deeper.
#include <cmath>
#include <string>
#include <vector>

#include "pdf/cPDF.h"
#include "platform/Ccitt.h"
#include "platform/modkyimgplug.h"

namespace kestrelyn {

namespace {

bool IsBlack(const std::string& sPalette, std::size_t nEntry) {
    return sPalette.size() >= nEntry * 3 + 3 && sPalette[nEntry * 3] == '\0' &&
           sPalette[nEntry * 3 + 1] == '\0' && sPalette[nEntry * 3 + 2] == '\0';
}

bool IsWhite(const std::string& sPalette, std::size_t nEntry) {
    return sPalette.size() >= nEntry * 3 + 3 && sPalette[nEntry * 3] == '\xFF' &&
           sPalette[nEntry * 3 + 1] == '\xFF' && sPalette[nEntry * 3 + 2] == '\xFF';
}

// The filter of an image by its depth.
std::int32_t FilterForDepth(std::int32_t nDepth, bool bGreyRamp, bool bGreyJpeg) {
    if (nDepth == 1) return PdfImageFilterCcittG4;
    if (nDepth == 4) return PdfImageFilterFlate;
    if (nDepth == 8 && !bGreyRamp) return PdfImageFilterFlate;
    if (nDepth == 8) return bGreyJpeg ? PdfImageFilterJpeg : PdfImageFilterNone;
    return PdfImageFilterJpeg;
}

} // namespace

bool cPDF::CompressCcittG4(const std::string& sSource, std::string& sDestination,
                           std::int32_t nWidth, std::int32_t nHeight, std::int32_t nStride) {
    // One-bit rows in, group 4 data out; a 1 bit of the rows is a black pixel
    // of the fax stream. The codec plug-in codes when it is there; the engine's
    // own coder stands in for it otherwise.
    sDestination.clear();
    if (nWidth <= 0 || nHeight <= 0 || nStride < (nWidth + 7) / 8 ||
        sSource.size() < static_cast<std::size_t>(nStride) * static_cast<std::size_t>(nHeight))
        return false;
    const auto* pRows = reinterpret_cast<const std::uint8_t*>(sSource.data());
    if (IsKyimgplugLoaded()) {
        // Room for the usual case, so that one call codes; a page of noise
        // that codes larger is asked again with the size the plug-in gave.
        long nCapacity = static_cast<long>(sSource.size() / 2 + 4096);
        for (int nTry = 0; nTry < 2; ++nTry) {
            sDestination.resize(static_cast<std::size_t>(nCapacity));
            const long nCoded = KYIMGPLUG_VB_CompressCCITT4(
                pRows, nWidth, nHeight, nStride, reinterpret_cast<std::uint8_t*>(&sDestination[0]),
                nCapacity);
            if (nCoded <= 0) break;
            if (nCoded <= nCapacity) {
                sDestination.resize(static_cast<std::size_t>(nCoded));
                return true;
            }
            nCapacity = nCoded;
        }
        sDestination.clear();
    }
    std::vector<std::uint8_t> arCoded;
    if (!GdipEncodeCcittG4(pRows, nWidth, nHeight, nStride, false, arCoded)) return false;
    sDestination.assign(arCoded.begin(), arCoded.end());
    return true;
}

bool cPDF::WriteImageObject(const std::string& sName, const std::string& sData,
                            const std::string& sPalette, std::int32_t nWidth, std::int32_t nHeight,
                            std::int32_t nBitsPerPixel, std::int32_t nStride,
                            std::int32_t nFilterMode) {
    if (!oStream) return false;
    std::string sEncoded, sFilter;
    bool bEncoded = false;
    if (nFilterMode == PdfImageFilterJpeg) {
        sEncoded = sData;
        sFilter = "/Filter/DCTDecode";
        bEncoded = true;
    } else if (nFilterMode == PdfImageFilterFlate) {
        bEncoded = bZlibAvailable && CompressBytes(sData, sEncoded, nCompressLevel);
        sFilter = "/Filter/FlateDecode";
    } else if (nFilterMode == PdfImageFilterCcittG4) {
        bEncoded = CompressCcittG4(sData, sEncoded, nWidth, nHeight, nStride);
        sFilter =
            "/Filter/CCITTFaxDecode/DecodeParms<</K -1/Columns " + std::to_string(nWidth) + ">>";
    }
    if (!bEncoded) {
        nFilterMode = PdfImageFilterNone;
        sEncoded = sData;
        sFilter.clear();
    }

    if (!bPdfHeaderDone) InitPdfFile();
    const std::int32_t nObject = BeginObject(0);
    const std::string sLength = std::to_string(sEncoded.size());
    const std::string sSize =
        "/Width " + std::to_string(nWidth) + "/Height " + std::to_string(nHeight);
    bool bPaletteObject = false;
    if (nBitsPerPixel == 1 && ((IsBlack(sPalette, 0) && IsWhite(sPalette, 1)) ||
                               (IsWhite(sPalette, 0) && IsBlack(sPalette, 1)))) {
        const bool bBlackFirst = IsBlack(sPalette, 0);
        const bool bCcitt = nFilterMode == PdfImageFilterCcittG4;
        const char* sDecode = (bBlackFirst == bCcitt) ? "Decode [ 1 0 ]" : "Decode [ 0 1 ]";
        WriteLine("<</Subtype/Image/Length " + sLength + sFilter + "/Name/" + sName +
                  "/BitsPerComponent 1/ColorSpace/DeviceGray/" + sDecode + sSize +
                  "/Type/XObject>>stream");
    } else if (nBitsPerPixel == 1 || nBitsPerPixel == 4 || nBitsPerPixel == 8) {
        bPaletteObject = true;
        WriteLine("<</Subtype/Image/Length " + sLength + sFilter + "/Name/" + sName +
                  "/BitsPerComponent " + std::to_string(nBitsPerPixel) +
                  "/ColorSpace [/Indexed/DeviceRGB " + std::to_string((1 << nBitsPerPixel) - 1) +
                  " " + std::to_string(nObject + 1) + " 0 R]" + sSize + "/Type/XObject>>stream");
    } else {
        WriteLine("<</Subtype/Image/Length " + sLength + sFilter + "/Name/" + sName +
                  "/BitsPerComponent 8/ColorSpace/DeviceRGB" + sSize + "/Type/XObject>>stream");
    }
    WriteBytesLine(EncryptFor(nObject, sEncoded));
    WriteLine("endstream");
    WriteEndObj();
    sImageResources += "/" + sName + " " + std::to_string(nObject) + " 0 R\r";

    if (bPaletteObject) {
        const std::int32_t nPaletteObject = BeginObject(0);
        WriteLine("<</Length " + std::to_string(sPalette.size()) + ">>stream");
        WriteBytesLine(EncryptFor(nPaletteObject, sPalette));
        WriteLine("endstream");
        WriteEndObj();
    }
    return true;
}

std::int32_t cPDF::AddImageData(const std::string& sData, const std::string& sPalette,
                                std::int32_t nWidth, std::int32_t nHeight,
                                std::int32_t nBitsPerPixel, std::int32_t nStride,
                                std::int32_t nFilterMode, std::int32_t nResX, std::int32_t nResY) {
    if (!oStream || nWidth <= 0 || nHeight <= 0 || nBitsPerPixel <= 0) return 0;
    if (!bCompressData) nFilterMode = PdfImageFilterNone;
    std::string sFullPalette;
    if (nBitsPerPixel < 9) {
        // 3 * 2^bpp bytes; entries the image lacks are black.
        sFullPalette = sPalette.substr(0, static_cast<std::size_t>(3) << nBitsPerPixel);
        sFullPalette.resize(static_cast<std::size_t>(3) << nBitsPerPixel, '\0');
    }
    const std::string sName = "Img" + std::to_string(ImageCount() + 1);
    if (!WriteImageObject(sName, sData, sFullPalette, nWidth, nHeight, nBitsPerPixel, nStride,
                          nFilterMode))
        return 0;
    arImages.push_back({nWidth, nHeight, nResX, nResY});
    return ImageCount();
}

std::int32_t cPDF::PdfAddImage(const std::string& sFilePath) {
    if (!oStream || !pImageSource) return 0;
    const std::int32_t nImageID = pImageSource->LoadFile(sFilePath);
    if (nImageID == 0) return 0;
    std::int32_t nResult = 0;
    try {
        nResult = PdfAddImage(nImageID);
    } catch (...) {
        pImageSource->Release(nImageID);
        throw;
    }
    pImageSource->Release(nImageID);
    return nResult;
}

std::int32_t cPDF::PdfAddImage(std::int32_t nImageID) {
    if (!oStream || !pImageSource) return 0;
    PdfImageFacts oFacts;
    if (!pImageSource->Facts(nImageID, oFacts)) return 0;
    const std::int32_t nWidth = oFacts.nWidth, nHeight = oFacts.nHeight;
    std::int32_t nDepth = oFacts.nDepth;
    if (nWidth <= 0 || nHeight <= 0 || nDepth <= 0) return 0;

    std::int32_t nMode = PdfImageFilterNone;
    if (bCompressData)
        nMode =
            FilterForDepth(nDepth, oFacts.bGreyRamp,
                           nDepth == 8 && oFacts.bGreyRamp && pImageSource->GreyJpegAvailable());

    std::string sData;
    std::int32_t nStride = 0;
    if (nMode == PdfImageFilterJpeg) {
        if (!pImageSource->EncodeJpeg(nImageID, nJpegQuality, sData)) return 0;
    } else {
        // Rows without padding; everything deeper than 8 bits is read as 24.
        if (nDepth == 1)
            nStride = (nWidth + 7) / 8;
        else if (nDepth == 4)
            nStride = (nWidth + 1) / 2;
        else if (nDepth == 8)
            nStride = nWidth;
        else {
            nStride = nWidth * 3;
            nDepth = 24;
        }
        if (!pImageSource->ReadRows(nImageID, nDepth, nStride, sData)) return 0;
    }
    const std::string sPalette = nDepth < 9 ? pImageSource->Palette(nImageID) : std::string();
    return AddImageData(sData, sPalette, nWidth, nHeight, nDepth, nStride, nMode,
                        static_cast<std::int32_t>(std::nearbyint(oFacts.nResX)),
                        static_cast<std::int32_t>(std::nearbyint(oFacts.nResY)));
}

void cPDF::DrawImg(std::int32_t nImage, float x, float y, float nWidth, float nHeight) {
    if (arImages.empty() || nImage < 1 || nImage > ImageCount()) return;
    EnsurePage();
    AppendContent("q\n" + FormatFixed(nWidth) + " 0 0 " + FormatFixed(nHeight) + " " +
                  FormatFixed(x) + " " + FormatFixed(y) + " cm\n/Img" + std::to_string(nImage) +
                  " Do\nQ\n");
}

std::int32_t cPDF::ImageWidth(std::int32_t n) const {
    return n >= 1 && n <= ImageCount() ? arImages[n - 1].Width : 0;
}
std::int32_t cPDF::ImageHeight(std::int32_t n) const {
    return n >= 1 && n <= ImageCount() ? arImages[n - 1].Height : 0;
}
std::int32_t cPDF::ImageResX(std::int32_t n) const {
    return n >= 1 && n <= ImageCount() ? arImages[n - 1].ResX : 0;
}
std::int32_t cPDF::ImageResY(std::int32_t n) const {
    return n >= 1 && n <= ImageCount() ? arImages[n - 1].ResY : 0;
}

} // namespace kestrelyn
