// The image registry as the PDF writer's image source. Registry images are
// read through the engine: facts, packed rows in the format the writer asks
// for, the palette, and JPEG bytes by the byte-array route of saving.
#include "imaging/PdfImageSource.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "core/CodecPluginBridge.h"
#include "core/ImageLoader.h"
#include "core/ImageSaver.h"
#include "core/modMain.h"
#include "platform/modGdiPlus.h"

namespace kestrelyn {

namespace {

// The image's JPEG bytes at a quality, by the byte-array route of saving:
// an 8-bit grey image goes through the codec plug-in (one component kept),
// everything else through the engine's encoder.
bool EncodeRegistryJpeg(std::int32_t nImageID, std::int32_t nQuality, std::string& sOut) {
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

// Red, green, blue of each palette entry the image has.
std::string ReadPalette(GpImage* pImage) {
    INT nSize = 0;
    if (GdipGetImagePaletteSize(pImage, &nSize) != OK ||
        nSize < static_cast<INT>(sizeof(ColorPalette)))
        return {};
    std::vector<std::uint8_t> arBuffer(static_cast<std::size_t>(nSize));
    auto* pPalette = reinterpret_cast<ColorPalette*>(arBuffer.data());
    if (GdipGetImagePalette(pImage, pPalette, nSize) != OK) return {};
    const std::size_t nRoom =
        (static_cast<std::size_t>(nSize) - sizeof(ColorPalette)) / sizeof(pPalette->Entries[0]) + 1;
    const std::size_t nCount =
        std::min<std::size_t>(static_cast<std::size_t>(pPalette->Count), nRoom);
    std::string sPalette(nCount * 3, '\0');
    for (std::size_t i = 0; i < nCount; ++i) {
        const ARGB c = pPalette->Entries[i];
        sPalette[i * 3] = static_cast<char>((c >> 16) & 0xFF);
        sPalette[i * 3 + 1] = static_cast<char>((c >> 8) & 0xFF);
        sPalette[i * 3 + 2] = static_cast<char>(c & 0xFF);
    }
    return sPalette;
}

class RegistryImageSource final : public PdfImageSource {
  public:
    std::int32_t LoadFile(const std::string& sFilePath) override {
        std::int32_t nImageID = 0;
        const LoadOptions oOptions{.bTiffReadOnly = true, .bGifReadOnly = true};
        if (LoadImageFile(nImageID, sFilePath, oOptions) != OK || nImageID == 0) return 0;
        return nImageID;
    }

    void Release(std::int32_t nImageID) override { ReleaseImage(nImageID); }

    bool Facts(std::int32_t nImageID, PdfImageFacts& oFacts) override {
        GpImage* pImage = ResolveGdiPlusImage(nImageID);
        if (!pImage) return false;
        UINT nW = 0, nH = 0;
        PixelFormat nFormat = 0;
        if (GdipGetImageWidth(pImage, &nW) != OK || GdipGetImageHeight(pImage, &nH) != OK ||
            GdipGetImagePixelFormat(pImage, &nFormat) != OK)
            return false;
        oFacts = PdfImageFacts{};
        GdipGetImageHorizontalResolution(pImage, &oFacts.nResX);
        GdipGetImageVerticalResolution(pImage, &oFacts.nResY);
        oFacts.nWidth = static_cast<std::int32_t>(nW);
        oFacts.nHeight = static_cast<std::int32_t>(nH);
        oFacts.nDepth = PixelFormatDepth(nFormat);
        oFacts.bGreyRamp = oFacts.nDepth == 8 && IsGreyRampImage(nImageID);
        return true;
    }

    bool GreyJpegAvailable() override { return IsKyimgplugAvailable(); }

    bool EncodeJpeg(std::int32_t nImageID, std::int32_t nQuality, std::string& sJpeg) override {
        return EncodeRegistryJpeg(nImageID, nQuality, sJpeg);
    }

    bool ReadRows(std::int32_t nImageID, std::int32_t nDepth, std::int32_t nStride,
                  std::string& sRows) override {
        GpImage* pImage = ResolveGdiPlusImage(nImageID);
        UINT nW = 0, nH = 0;
        if (!pImage || GdipGetImageWidth(pImage, &nW) != OK ||
            GdipGetImageHeight(pImage, &nH) != OK)
            return false;
        const PixelFormat nRead = nDepth == 1   ? PixelFormat1bppIndexed
                                  : nDepth == 4 ? PixelFormat4bppIndexed
                                  : nDepth == 8 ? PixelFormat8bppIndexed
                                                : PixelFormat24bppRGB;
        if (!ReadPixels(pImage, static_cast<std::int32_t>(nW), static_cast<std::int32_t>(nH), nRead,
                        nStride, sRows))
            return false;
        if (nRead == PixelFormat24bppRGB) {
            // The engine's rows are blue, green, red.
            for (std::size_t i = 0; i + 2 < sRows.size(); i += 3)
                std::swap(sRows[i], sRows[i + 2]);
        }
        return true;
    }

    std::string Palette(std::int32_t nImageID) override {
        GpImage* pImage = ResolveGdiPlusImage(nImageID);
        return pImage ? ReadPalette(pImage) : std::string();
    }
};

} // namespace

PdfImageSource& RegistryPdfImageSource() {
    static RegistryImageSource oSource;
    return oSource;
}

} // namespace kestrelyn
