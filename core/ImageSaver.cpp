// Saving: the encoder table, the resolution and tag repairs done before a
// save, the engine routes (BMP, GIF, PNG, JPEG, TIFF), the multi-frame TIFF
// writer and the byte array, stream and string forms.
#include "core/ImageSaver.h"
#include "platform/TextHelpers.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "core/CodecPluginBridge.h"
#include "core/ImageLoader.h"
#include "core/modMain.h"
#include "platform/Windows1252.h"
#include "platform/modkyimgplug.h"

namespace kestrelyn {

namespace {

thread_local EncoderTable tlEncoders;

// A resolution as a TIFF rational: with d decimal places, value x 10^d over 10^d.
std::vector<std::uint8_t> ResolutionRational(float nValue) {
    char text[64];
    std::snprintf(text, sizeof text, "%.7g", static_cast<double>(std::fabs(nValue)));
    std::uint32_t decimals = 0;
    if (const char* dot = std::strchr(text, '.')) {
        const char* end = dot + 1;
        while (*end >= '0' && *end <= '9')
            ++end;
        decimals = static_cast<std::uint32_t>(end - dot - 1);
    }
    double scale = std::pow(10.0, decimals);
    double numerator = std::nearbyint(std::strtod(text, nullptr) * scale);
    while (numerator > 4294967295.0 && decimals > 0) {
        --decimals;
        scale /= 10;
        numerator = std::nearbyint(std::fabs(static_cast<double>(nValue)) * scale);
    }
    const auto num = static_cast<std::uint32_t>(std::fmin(numerator, 4294967295.0));
    const auto den = static_cast<std::uint32_t>(scale);
    std::vector<std::uint8_t> bytes(8);
    for (int i = 0; i < 4; ++i) {
        bytes[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(num >> (8 * i));
        bytes[static_cast<std::size_t>(4 + i)] = static_cast<std::uint8_t>(den >> (8 * i));
    }
    return bytes;
}

bool HasProperty(GpImage* img, PROPID id) {
    UINT count = 0;
    if (GdipGetPropertyCount(img, &count) != OK || count == 0) return false;
    std::vector<PROPID> ids(count);
    if (GdipGetPropertyIdList(img, count, ids.data()) != OK) return false;
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

} // namespace

// ---------------------------------------------------------------------------
// The encoder table.

EncoderTable& ThreadEncoderTable() {
    return tlEncoders;
}

void BuildEncoderTable() {
    UINT num = 0, size = 0;
    if (GdipGetImageEncodersSize(&num, &size) != OK)
        throw std::runtime_error("the engine lists no encoders");
    std::vector<ImageCodecInfo> encoders(num);
    if (num > 0 && GdipGetImageEncoders(num, size, encoders.data()) != OK)
        throw std::runtime_error("the engine's encoders could not be read");
    EncoderTable& table = tlEncoders;
    table.arEncoderClsids.assign(num, GUID{});
    table.nEncoderCount = static_cast<std::int32_t>(num);
    table.oEncoderByExtension.clear();
    // From the last to the first: a pattern already present keeps its value.
    for (std::int32_t i = static_cast<std::int32_t>(num) - 1; i >= 0; --i) {
        const ImageCodecInfo& info = encoders[static_cast<std::size_t>(i)];
        table.arEncoderClsids[static_cast<std::size_t>(i)] = info.Clsid;
        std::size_t start = 0;
        while (start <= info.FilenameExtension.size()) {
            std::size_t semi = info.FilenameExtension.find(';', start);
            if (semi == std::string::npos) semi = info.FilenameExtension.size();
            const std::string key = Upper(Trim(info.FilenameExtension.substr(start, semi - start)));
            if (!key.empty()) {
                const bool present =
                    std::any_of(table.oEncoderByExtension.begin(), table.oEncoderByExtension.end(),
                                [&](const auto& entry) { return entry.first == key; });
                if (!present) table.oEncoderByExtension.emplace_back(key, i);
            }
            start = semi + 1;
        }
    }
}

std::int32_t FindEncoder(const std::string& sPattern) {
    const std::string key = Upper(sPattern);
    for (const auto& [pattern, index] : tlEncoders.oEncoderByExtension)
        if (pattern == key) return index;
    return -1;
}

bool FindEncoderClsid(const std::string& sPattern, GUID& clsid) {
    const std::int32_t i = FindEncoder(sPattern);
    if (i < 0 || static_cast<std::size_t>(i) >= tlEncoders.arEncoderClsids.size()) return false;
    clsid = tlEncoders.arEncoderClsids[static_cast<std::size_t>(i)];
    return true;
}

void EncoderParamList::Add(const GUID& category, std::uint32_t nValue) {
    arCategories.push_back(category);
    arValues.push_back(nValue);
}

const EncoderParameters* EncoderParamList::Get() {
    if (arValues.empty()) return nullptr;
    const std::size_t n = arValues.size();
    arBuffer.assign(sizeof(EncoderParameters) + n * sizeof(EncoderParameter), 0);
    auto* params = reinterpret_cast<EncoderParameters*>(arBuffer.data());
    params->Count = static_cast<UINT>(n);
    for (std::size_t i = 0; i < n; ++i) {
        EncoderParameter& p = params->Parameter[i];
        p.Guid = arCategories[i];
        p.NumberOfValues = 1;
        p.Type = EncoderParameterValueTypeLong;
        p.Value = &arValues[i];
    }
    return params;
}

// ---------------------------------------------------------------------------
// Repairs before a save.

KestrelynStatus WriteImageResolution(std::int32_t nImageID, float nX, float nY) {
    GpImage* img = ResolveGdiPlusImage(nImageID);
    if (!img) return InvalidParameter;
    for (const auto& [id, value] : {std::pair<PROPID, float>{282, nX}, {283, nY}}) {
        std::vector<std::uint8_t> bytes = ResolutionRational(value);
        PropertyItem item{};
        item.id = id;
        item.type = PropertyTagTypeRational;
        item.length = static_cast<std::uint32_t>(bytes.size());
        item.value = bytes.data();
        GdipSetPropertyItem(img, &item);
    }
    return GdipBitmapSetResolution(img, nX, nY);
}

void SyncResolution(std::int32_t nImageID) {
    GpImage* img = ResolveGdiPlusImage(nImageID);
    if (!img) return;
    float x = 0, y = 0;
    GdipGetImageHorizontalResolution(img, &x);
    GdipGetImageVerticalResolution(img, &y);
    if (x != 0 && y != 0) WriteImageResolution(nImageID, x, y);
}

void RepairForSave(std::int32_t nImageID) {
    GpImage* img = ResolveGdiPlusImage(nImageID);
    if (!img) return;
    float x = 0, y = 0;
    GdipGetImageHorizontalResolution(img, &x);
    GdipGetImageVerticalResolution(img, &y);
    if (x < 0.5f || y < 0.5f) {
        // The multiplier grows from 1 until the smaller resolution passes 0.5
        // (0.1 by 0.2 becomes 0.6 by 1.2).
        // The product is taken at the resolution's own (single) precision.
        const float smaller = std::min(x, y);
        float k = 1.0f;
        if (smaller > 0) {
            while (k * smaller <= 0.5f && k < 1e7f)
                k += 1.0f;
        }
        WriteImageResolution(nImageID, static_cast<float>(x * k), static_cast<float>(y * k));
    }
    // The time zone offset is refused by the JPEG and TIFF encoders.
    while (HasProperty(img, 34858)) {
        if (GdipRemovePropertyItem(img, 34858) != OK) break;
    }
}

std::int32_t TiffCompressionForDepth(std::int32_t nCompression, std::int32_t nDepth) {
    if ((nCompression == CompressionCCITT3 || nCompression == CompressionCCITT4 ||
         nCompression == CompressionRLE) &&
        nDepth > 1)
        return CompressionLZW;
    return nCompression;
}

std::int32_t ImageDepth(std::int32_t nImageID) {
    PixelFormat fmt = 0;
    if (GdipGetImagePixelFormat(ResolveGdiPlusImage(nImageID), &fmt) != OK) return 0;
    return PixelFormatDepth(fmt);
}

bool IsGreyRampImage(std::int32_t nImageID) {
    GpImage* img = ResolveGdiPlusImage(nImageID);
    PixelFormat fmt = 0;
    if (!img || GdipGetImagePixelFormat(img, &fmt) != OK || fmt != PixelFormat8bppIndexed)
        return false;
    INT size = 0;
    if (GdipGetImagePaletteSize(img, &size) != OK || size < static_cast<INT>(sizeof(ColorPalette)))
        return false;
    std::vector<std::uint8_t> buffer(static_cast<std::size_t>(size));
    auto* pal = reinterpret_cast<ColorPalette*>(buffer.data());
    if (GdipGetImagePalette(img, pal, size) != OK || pal->Count != 256) return false;
    for (UINT i = 0; i < 256; ++i) {
        if ((pal->Entries[i] & 0x00FFFFFFu) != (i << 16 | i << 8 | i)) return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Engine routes.

KestrelynStatus SaveByEngine(std::int32_t nImageID, const std::string& sFilePath,
                             const std::string& sPattern) {
    GUID clsid{};
    if (!FindEncoderClsid(sPattern, clsid)) return UnknownImageFormat;
    SyncResolution(nImageID);
    return GdipSaveImageToFile(ResolveGdiPlusImage(nImageID), sFilePath, &clsid, nullptr);
}

KestrelynStatus SaveAsJpegFile(std::int32_t nImageID, const std::string& sFilePath,
                               std::int32_t nQuality, bool bDisableKyimgplug) {
    // An 8-bit grey image stays one component through the plug-in; the engine
    // would expand it to colour.
    if (!bDisableKyimgplug && IsGreyRampImage(nImageID) && IsKyimgplugAvailable()) {
        SyncResolution(nImageID);
        std::intptr_t bitmap = 0;
        if (ImageToPluginBitmap(bitmap, nImageID) == OK && bitmap != 0) {
            const bool ok = SavePluginFile(PluginFormatJPEG, bitmap, sFilePath, nQuality);
            KYIMGPLUG_Unload(bitmap);
            if (ok) return OK;
        }
    }
    GUID clsid{};
    if (!FindEncoderClsid("*.jpg", clsid)) return UnknownImageFormat;
    RepairForSave(nImageID);
    SyncResolution(nImageID);
    EncoderParamList params;
    if (nQuality >= 0)
        params.Add(EncoderQuality, static_cast<std::uint32_t>(std::min(nQuality, 100)));
    return GdipSaveImageToFile(ResolveGdiPlusImage(nImageID), sFilePath, &clsid, params.Get());
}

KestrelynStatus SaveAsTiffFile(std::int32_t nImageID, const std::string& sFilePath,
                               std::int32_t nCompression, std::int32_t nDepth) {
    GUID clsid{};
    if (!FindEncoderClsid("*.tif", clsid)) return UnknownImageFormat;
    RepairForSave(nImageID);
    SyncResolution(nImageID);
    const std::int32_t actual = ImageDepth(nImageID);
    if (nDepth == 16) nDepth = 24; // the encoder has no 16-bit form
    nCompression = TiffCompressionForDepth(nCompression, nDepth != 0 ? nDepth : actual);
    EncoderParamList params;
    if (nCompression != 0) params.Add(EncoderCompression, static_cast<std::uint32_t>(nCompression));
    if (nDepth != 0) params.Add(EncoderColorDepth, static_cast<std::uint32_t>(nDepth));
    return GdipSaveImageToFile(ResolveGdiPlusImage(nImageID), sFilePath, &clsid, params.Get());
}

KestrelynStatus SaveToStream(std::int32_t nImageID, StreamPtr& oStream,
                             const std::string& sImageFormat, std::int32_t nEncoderParameter) {
    std::string format = Lower(Trim(sImageFormat));
    std::string key = "*." + format;
    GUID clsid{};
    if (!FindEncoderClsid(key, clsid)) {
        format = "bmp";
        key = "*.bmp";
        if (!FindEncoderClsid(key, clsid)) return UnknownImageFormat;
    }
    EncoderParamList params;
    if (nEncoderParameter != 0) {
        if (format == "jpg" || format == "jpeg") {
            params.Add(EncoderQuality,
                       static_cast<std::uint32_t>(
                           nEncoderParameter < 1 ? 75 : std::min(nEncoderParameter, 100)));
        } else if (format == "tif" || format == "tiff") {
            params.Add(EncoderCompression, static_cast<std::uint32_t>(TiffCompressionForDepth(
                                               nEncoderParameter, ImageDepth(nImageID))));
        }
    }
    StreamPtr stream = CreateMemoryStream();
    if (!stream) return GenericError;
    SyncResolution(nImageID);
    const KestrelynStatus status =
        GdipSaveImageToStream(ResolveGdiPlusImage(nImageID), stream, &clsid, params.Get());
    if (status == OK) oStream = stream;
    return status;
}

// ---------------------------------------------------------------------------
// Multi-frame TIFF.

KestrelynStatus BeginMultiPageTiff(std::int32_t nImageID, const std::string& sFilePath,
                                   std::int32_t nCompression) {
    GUID clsid{};
    if (!FindEncoderClsid("*.tif", clsid)) return UnknownImageFormat;
    nCompression = TiffCompressionForDepth(nCompression, ImageDepth(nImageID));
    SyncResolution(nImageID);
    EncoderParamList params;
    params.Add(EncoderSaveFlag, EncoderValueMultiFrame);
    params.Add(EncoderCompression, static_cast<std::uint32_t>(nCompression));
    if (ImageRecord* rec = FindImageRecord(nImageID)) rec->nTifCompression = nCompression;
    return GdipSaveImageToFile(ResolveGdiPlusImage(nImageID), sFilePath, &clsid, params.Get());
}

KestrelynStatus AddMultiPageTiff(std::int32_t nMasterID, std::int32_t nImageID) {
    const ImageRecord* master = FindImageRecord(nMasterID);
    if (!master) return InvalidParameter;
    EncoderParamList params;
    params.Add(EncoderSaveFlag, EncoderValueFrameDimensionPage);
    params.Add(EncoderCompression, static_cast<std::uint32_t>(master->nTifCompression));
    GpImage* masterImage = ResolveGdiPlusImage(nMasterID);
    SyncResolution(nImageID);
    return GdipSaveAddImage(masterImage, ResolveGdiPlusImage(nImageID), params.Get());
}

KestrelynStatus FinishMultiPageTiff(std::int32_t nMasterID) {
    GpImage* masterImage = ResolveGdiPlusImage(nMasterID);
    if (!masterImage) return InvalidParameter;
    EncoderParamList params;
    params.Add(EncoderSaveFlag, EncoderValueFlush);
    return GdipSaveAdd(masterImage, params.Get());
}

} // namespace kestrelyn
