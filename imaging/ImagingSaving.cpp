// The saving family of Imaging: the engine routes, the byte array, stream
// and string forms, and the formats of the codec plug-in.
#include "imaging/cImaging.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <vector>

#include "core/CodecPluginBridge.h"
#include "core/ImageLoader.h"
#include "core/ImageSaver.h"
#include "core/modMain.h"
#include "filters/modFilters.h"
#include "platform/TextHelpers.h"
#include "platform/Windows1252.h"
#include "platform/modWinapi.h"
#include "platform/modkyimgplug.h"

namespace kestrelyn {

namespace {

// The number of the support case that writes JBIG.
constexpr std::int32_t kSupportSaveJbig = 81537264;

bool AcceptJpeg2000(PixelFormat f, std::int32_t) {
    return f == PixelFormat8bppIndexed || f == PixelFormat24bppRGB || f == PixelFormat32bppARGB ||
           f == PixelFormat32bppRGB;
}

bool ReadWholeFile(const std::string& sPath, std::vector<std::uint8_t>& arBytes) {
    std::ifstream in(sPath, std::ios::binary);
    if (!in) return false;
    arBytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

} // namespace

namespace {

// The guard shared by every SaveAs operation: no native image stores 1.
bool NoNativeImage(cImaging& self) {
    if (self.nNativeImage != 0) return false;
    self.nStatus = GenericError;
    return true;
}

} // namespace

KestrelynStatus cImaging::SaveAsBmp(const std::string& sFilePath) {
    if (NoNativeImage(*this)) return nStatus;
    nStatus = SaveByEngine(nNativeImage, NormaliseFilePath(sFilePath), "*.bmp");
    return nStatus;
}

KestrelynStatus cImaging::SaveAsGIF(const std::string& sFilePath) {
    if (NoNativeImage(*this)) return nStatus;
    nStatus = SaveByEngine(nNativeImage, NormaliseFilePath(sFilePath), "*.gif");
    return nStatus;
}

KestrelynStatus cImaging::SaveAsPNG(const std::string& sFilePath) {
    if (NoNativeImage(*this)) return nStatus;
    nStatus = SaveByEngine(nNativeImage, NormaliseFilePath(sFilePath), "*.png");
    return nStatus;
}

KestrelynStatus cImaging::SaveAsJPEG(const std::string& sFilePath, std::int32_t nQuality) {
    if (NoNativeImage(*this)) return nStatus;
    nStatus = SaveAsJpegFile(nNativeImage, NormaliseFilePath(sFilePath), nQuality,
                             bDisableKyimgplugCodecs);
    return nStatus;
}

KestrelynStatus cImaging::SaveAsTIFF(const std::string& sFilePath,
                                     TifCompression nModeCompression) {
    if (NoNativeImage(*this)) return nStatus;
    nStatus = SaveAsTiffFile(nNativeImage, NormaliseFilePath(sFilePath), nModeCompression, 0);
    return nStatus;
}

KestrelynStatus cImaging::SaveAsByteArray(std::vector<std::uint8_t>& arBytes,
                                          std::int32_t& nBytesRead, const std::string& sImageFormat,
                                          std::int32_t nEncoderParameter) {
    if (NoNativeImage(*this)) return nStatus;
    const std::string format = Upper(Trim(sImageFormat));
    if ((format == "JPEG" || format == "JPG") && IsGreyRampImage(nNativeImage)) {
        const std::string sTemp = MakeTempFileName();
        nStatus = SaveAsJpegFile(nNativeImage, sTemp, nEncoderParameter, bDisableKyimgplugCodecs);
        std::vector<std::uint8_t> bytes;
        const bool read = nStatus == OK && ReadWholeFile(sTemp, bytes);
        std::remove(sTemp.c_str());
        if (read && !bytes.empty()) {
            nBytesRead = static_cast<std::int32_t>(bytes.size());
            arBytes = std::move(bytes);
            return nStatus;
        }
    }
    StreamPtr stream;
    nStatus = SaveToStream(nNativeImage, stream, sImageFormat, nEncoderParameter);
    if (nStatus != OK) return nStatus;
    const std::int64_t size = stream->Stat();
    if (size <= 0) {
        nStatus = GenericError;
        return nStatus;
    }
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
    stream->Seek(0, Stream::Begin);
    if (stream->Read(bytes.data(), bytes.size()) != bytes.size()) {
        nStatus = GenericError;
        return nStatus;
    }
    nBytesRead = static_cast<std::int32_t>(bytes.size());
    arBytes = std::move(bytes);
    return nStatus;
}

KestrelynStatus cImaging::SaveAsStream(StreamPtr& oStream, const std::string& sImageFormat,
                                       std::int32_t nEncoderParameter) {
    if (NoNativeImage(*this)) return nStatus;
    StreamPtr stream;
    nStatus = SaveToStream(nNativeImage, stream, sImageFormat, nEncoderParameter);
    if (nStatus == OK) {
        // Handed over ready to be read from its start.
        stream->Seek(0, Stream::Begin);
        oStream = std::move(stream);
    }
    return nStatus;
}

std::string cImaging::SaveAsString(const std::string& sImageFormat,
                                   std::int32_t nEncoderParameter) {
    std::vector<std::uint8_t> bytes;
    std::int32_t n = 0;
    if (SaveAsByteArray(bytes, n, sImageFormat, nEncoderParameter) != OK) return "";
    return AnsiToUtf8(std::string(bytes.begin(), bytes.end()));
}

KestrelynStatus cImaging::TransformJPEG(const std::string& sInputFile, std::string& sOutputFile,
                                        JPEGTransformations nTransformation) {
    const std::string sInput = NormaliseFilePath(sInputFile);
    std::int32_t id = 0;
    nStatus = LoadByEngine(sInput, id, LoadOptions{});
    if (nStatus != OK) return nStatus;
    GUID clsid{};
    if (!FindEncoderClsid("*.jpg", clsid)) {
        nStatus = UnknownImageFormat;
    } else {
        EncoderParamList params;
        params.Add(EncoderTransformation, static_cast<std::uint32_t>(nTransformation));
        nStatus = GdipTransformJpegFile(ResolveGdiPlusImage(id), sInput,
                                        NormaliseFilePath(sOutputFile), &clsid, params.Get());
    }
    ReleaseImage(id);
    return nStatus;
}

// ---------------------------------------------------------------------------
// The formats of the codec plug-in.

KestrelynStatus cImaging::SaveAsJ2K(const std::string& sFilePath, std::int32_t nRate) {
    if (nNativeImage == 0) return nStatus = GenericError;
    nStatus = SaveByPlugin(nNativeImage, NormaliseFilePath(sFilePath), PluginFormatJ2K,
                           AcceptJpeg2000, nRate);
    return nStatus;
}

KestrelynStatus cImaging::SaveAsJP2(const std::string& sFilePath, std::int32_t nRate) {
    if (nNativeImage == 0) return nStatus = GenericError;
    nStatus = SaveByPlugin(nNativeImage, NormaliseFilePath(sFilePath), PluginFormatJP2,
                           AcceptJpeg2000, nRate);
    return nStatus;
}

KestrelynStatus cImaging::SaveAsEXR(const std::string& sFilePath, ExrCompression nCompression) {
    if (nNativeImage == 0) return nStatus = GenericError;
    nStatus = SaveByPlugin(
        nNativeImage, NormaliseFilePath(sFilePath), PluginFormatEXR,
        [](PixelFormat, std::int32_t) { return true; }, nCompression, true);
    return nStatus;
}

KestrelynStatus cImaging::SaveAsTGA(const std::string& sFilePath) {
    if (nNativeImage == 0) return nStatus = GenericError;
    nStatus = SaveByPlugin(
        nNativeImage, NormaliseFilePath(sFilePath), PluginFormatTARGA,
        [](PixelFormat, std::int32_t d) { return d == 32 || d == 8; }, 0);
    return nStatus;
}

KestrelynStatus cImaging::SaveAsPBM(const std::string& sFilePath) {
    if (nNativeImage == 0) return nStatus = GenericError;
    nStatus = SaveByPlugin(
        nNativeImage, NormaliseFilePath(sFilePath), PluginFormatPBM,
        [](PixelFormat f, std::int32_t) {
            return f == PixelFormat8bppIndexed || f == PixelFormat24bppRGB ||
                   f == PixelFormat1bppIndexed || f == PixelFormat32bppRGB;
        },
        0);
    return nStatus;
}

KestrelynStatus cImaging::SaveAsWBMP(const std::string& sFilePath) {
    if (nNativeImage == 0) return nStatus = GenericError;
    nStatus = SaveByPlugin(
        nNativeImage, NormaliseFilePath(sFilePath), PluginFormatWBMP,
        [](PixelFormat, std::int32_t d) { return d == 1; }, 0);
    return nStatus;
}

KestrelynStatus cImaging::SaveAsXPM(const std::string& sFilePath) {
    if (nNativeImage == 0) return nStatus = GenericError;
    nStatus = SaveByPlugin(
        nNativeImage, NormaliseFilePath(sFilePath), PluginFormatXPM,
        [](PixelFormat, std::int32_t d) { return d == 24 || d == 8; }, 0);
    return nStatus;
}

KestrelynStatus cImaging::SaveAsTIFFjpg(const std::string& sFilePath) {
    if (nNativeImage == 0) return nStatus = GenericError;
    nStatus = SaveByPlugin(
        nNativeImage, NormaliseFilePath(sFilePath), PluginFormatTIFF,
        [](PixelFormat, std::int32_t d) { return d == 24 || d == 8; }, KyimgplugTiffJpeg);
    return nStatus;
}

KestrelynStatus cImaging::SaveAsTIFFjpgEx(const std::string& sFilePath, std::int32_t nQuality) {
    if (nNativeImage == 0) return nStatus = GenericError;
    if (nQuality <= 100 && IsKyimgplugAvailable()) KYIMGPLUG_SetTiffJpegCompression(nQuality);
    return SaveAsTIFFjpg(sFilePath);
}

KestrelynStatus cImaging::SaveAsICO(const std::string& sFilePath, bool bTransparentColor,
                                    std::int32_t nTransparentColor) {
    if (nNativeImage == 0) return nStatus = GenericError;
    GpImage* img = ResolveGdiPlusImage(nNativeImage);
    UINT w = 0, h = 0;
    if (!img || GdipGetImageWidth(img, &w) != OK || GdipGetImageHeight(img, &h) != OK)
        return nStatus = InvalidParameter;
    std::int32_t copy = 0;
    double threshold = 80;
    if (w == 32 && h == 32) {
        copy = CreateClonedImageARGB(nNativeImage, true);
        threshold = 100;
        if (copy == 0) return nStatus;
    } else {
        nStatus = MakeIconImage(nNativeImage, copy);
        if (nStatus != OK) return nStatus;
    }
    const bool bPlugin = IsKyimgplugAvailable();
    if (bPlugin) {
        if (bTransparentColor) {
            const FilterZone zone{0, 0, 32, 32};
            FilterParams key;
            key.Param1 = threshold;
            key.Param2 = static_cast<double>(nTransparentColor);
            RunFilter(FilterId::ColorKey, copy, zone, key);
        }
        std::intptr_t bitmap = 0;
        nStatus = ImageToPluginBitmap(bitmap, copy);
        if (nStatus == OK && bitmap != 0) {
            nStatus = SavePluginFile(PluginFormatICO, bitmap, NormaliseFilePath(sFilePath), 0)
                          ? OK
                          : GenericError;
            KYIMGPLUG_Unload(bitmap);
        }
    } else {
        // The host picture route: the icon writer keys out the colour itself.
        const PictureHandle picture = GetPictureFromKestrelynImage(copy);
        if (picture) {
            GetIcon(picture, NormaliseFilePath(sFilePath), bTransparentColor, nTransparentColor);
            PictureRelease(picture);
        }
    }
    ReleaseImage(copy);
    return nStatus;
}

KestrelynStatus cImaging::SupportFunc(std::int32_t nSupportID, double&, double&, double&,
                                      std::int32_t&, std::int32_t&, std::int32_t&,
                                      std::string& sParam) {
    if (nSupportID != kSupportSaveJbig) return nStatus;
    if (nNativeImage == 0) return nStatus = GenericError;
    nStatus = SaveByPlugin(
        nNativeImage, sParam, PluginFormatJBIG,
        [](PixelFormat f, std::int32_t) { return f == PixelFormat1bppIndexed; }, 0);
    return nStatus;
}

} // namespace kestrelyn
