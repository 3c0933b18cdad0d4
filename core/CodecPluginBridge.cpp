// The codec plug-in bridge: finding and checking closed libraries, format
// detection, loads through the plug-in and the conversion of its bitmaps to
// registry images (without copying the pixels wherever that is possible) and
// back.
#include "core/CodecPluginBridge.h"

#include <cctype>
#include <cmath>
#include <cstring>
#include <vector>

#include "core/ImageLoader.h"
#include "core/PageStore.h"
#include "core/modMain.h"
#include "platform/SafeFile.h"
#include "platform/TextHelpers.h"
#include "platform/modGdi32.h"
#include "platform/modWinapi.h"
#include "platform/modkyimgplug.h"

namespace kestrelyn {

namespace {

ReadPluginMetadataFn gReadMetadata = nullptr;
WritePluginMetadataFn gWriteMetadata = nullptr;

// Formats whose plug-in decoders leave the rows top-down.
bool RowsTopDown(int nFormat) {
    return nFormat == PluginFormatJPEG || nFormat == PluginFormatPNG ||
           nFormat == PluginFormatJ2K || nFormat == PluginFormatJP2;
}

float DotsPerInch(int nDotsPerMeter) {
    return static_cast<float>(nDotsPerMeter * 0.0254);
}

int DotsPerMeter(float nDpi) {
    return static_cast<int>(static_cast<double>(nDpi) / 0.0254 + 0.5);
}

// An engine image of a plug-in bitmap at 1, 4 or 8 bits: a copy through a
// DIB, since the engine cannot wrap palette pixels. bSwapMonochrome reverses a
// two-entry palette (after the bits were inverted).
KestrelynStatus DibImageFromBitmap(std::intptr_t nBitmap, bool bSwapMonochrome,
                                   std::int32_t& nImageID) {
    const auto* info = static_cast<const std::uint8_t*>(KYIMGPLUG_GetInfo(nBitmap));
    const std::uint8_t* bits = KYIMGPLUG_GetBits(nBitmap);
    const int pitch = KYIMGPLUG_GetPitch(nBitmap);
    const int height = KYIMGPLUG_GetHeight(nBitmap);
    if (!info || !bits || pitch <= 0 || height <= 0) return OutOfMemory;
    BITMAPINFOHEADER header;
    std::memcpy(&header, info, sizeof header);
    const int colours = KYIMGPLUG_GetColorsUsed(nBitmap);
    // The section: header, colour table and pixels of its own.
    std::vector<std::uint8_t> section(static_cast<std::size_t>(pitch) *
                                      static_cast<std::size_t>(height));
    std::memcpy(section.data(), bits, section.size());
    GpBitmap* bitmap = nullptr;
    KestrelynStatus status = GdipCreateBitmapFromGdiDib(info, section.data(), &bitmap);
    if (status != OK) return status;
    if (colours > 0) {
        if (const std::uint8_t* pal = KYIMGPLUG_GetPalette(nBitmap)) {
            std::vector<std::uint8_t> buffer(sizeof(ColorPalette) +
                                             sizeof(ARGB) * static_cast<std::size_t>(colours));
            auto* palette = reinterpret_cast<ColorPalette*>(buffer.data());
            palette->Flags = 0;
            palette->Count = static_cast<UINT>(colours);
            for (int i = 0; i < colours; ++i) {
                const int src = (bSwapMonochrome && colours == 2) ? 1 - i : i;
                const std::uint8_t* q = pal + 4 * src;
                palette->Entries[i] = 0xFF000000u | (ARGB(q[2]) << 16) | (ARGB(q[1]) << 8) | q[0];
            }
            GdipSetImagePalette(bitmap, palette);
        }
    }
    RegisterImage(nImageID, bitmap, "", "", KindEngine);
    return OK;
}

} // namespace

// ---------------------------------------------------------------------------
// The frame for closed libraries.

const PluginLibraryRequirement kKyTwainLibrary{"kytwain", "KYTWAIN_GetVersion", 630,
                                               "Can't found KYTWAIN.DLL file.",
                                               "Bad KYTWAIN.DLL version."};
const PluginLibraryRequirement kBarcodeDMReaderLibrary{
    "kybarcode.dmreader", "KYBARCODEDMREADER_GetVersion", 100,
    "Can't found kybarcode.dmreader.dll file.", "Bad kybarcode.dmreader.dll version."};
const PluginLibraryRequirement kBarcode1DReaderLibrary{
    "kybarcode.1dreader", "KYBARCODE1DREADER_GetVersion", 105,
    "Can't found kybarcode.1dreader.dll file.", "Bad kybarcode.1dreader.dll version."};

std::string GetFileVersionString(const std::string& sDll) {
    try {
        const std::string sVersion = GetLibraryFileVersion(sDll);
        if (sVersion == "Unknown" || sVersion == "Undefined") return sVersion;
        std::string out;
        std::size_t start = 0;
        while (true) {
            const std::size_t dot = sVersion.find('.', start);
            if (!out.empty() || start > 0) out += '.';
            out += Trim(
                sVersion.substr(start, dot == std::string::npos ? std::string::npos : dot - start));
            if (dot == std::string::npos) break;
            start = dot + 1;
        }
        return out.empty() ? "Unknown" : out;
    } catch (...) {
        return "Undefined";
    }
}

bool IsKyimgplugAvailable() {
    EngineState& st = ThreadEngineState();
    if (VersionValue(st.sKyimgplugVersion) == 0)
        st.sKyimgplugVersion = GetFileVersionString("kyimgplug");
    if (VersionValue(st.sKyimgplugVersion) == 0) return false;
    if (!IsKyimgplugLoaded()) return false;
    return true;
}

bool CheckPluginLibraryVersion(const PluginLibraryRequirement& req, bool bFound,
                               std::int32_t nVersion) {
    const char* sText = nullptr;
    if (!bFound)
        sText = req.sMissingText;
    else if (nVersion < req.nMinimumVersion)
        sText = req.sTooOldText;
    if (!sText) return true;
    try {
        GetHostServices().MessageBox(sText, "Error", MessageBoxCritical);
    } catch (...) {
    }
    return false;
}

void SetPluginMetadataHooks(ReadPluginMetadataFn pRead, WritePluginMetadataFn pWrite) {
    gReadMetadata = pRead;
    gWriteMetadata = pWrite;
}

// ---------------------------------------------------------------------------
// Formats.

std::string PluginFormatName(int nFormat) {
    static const char* const names[] = {
        "BMP",   "ICO",  "JPEG", "JNG",    "KOALA", "LBM", "MNG",    "PBM", "PBMRAW",
        "PCD",   "PCX",  "PGM",  "PGMRAW", "PNG",   "PPM", "PPMRAW", "RAS", "TARGA",
        "TIFF",  "WBMP", "PSD",  "CUT",    "XBM",   "XPM", "DDS",    "GIF", "HDR",
        "FAXG3", "SGI",  "EXR",  "J2K",    "JP2",   "PFM", "PICT",   "RAW", "JBIG"};
    if (nFormat == -1) return "UNKNOWN";
    if (nFormat < 0 || nFormat > 35) return "";
    return names[nFormat];
}

int DetectPluginFormat(const std::string& sFilePath) {
    const int byContent = KYIMGPLUG_GetFileTypeU(sFilePath.c_str(), 0);
    const int byName = KYIMGPLUG_GetFIFFromFilenameU(sFilePath.c_str());
    if (byContent == -1) return byName;
    if (byName == -1) return byContent;
    return byName;
}

// ---------------------------------------------------------------------------
// Loads.

std::intptr_t LoadPluginFile(int& nFormat, const std::string& sFilePath, bool& bMultiPage,
                             bool bFlag, std::intptr_t& hFile) {
    bMultiPage = false;
    hFile = 0;
    if (nFormat == -1) return 0;
    int flags = 0;
    if (bFlag && nFormat == PluginFormatTIFF) flags = KyimgplugTiffKeepCmyk;
    if (nFormat != PluginFormatTIFF && nFormat != PluginFormatGIF)
        return KYIMGPLUG_LoadU(nFormat, sFilePath.c_str(), flags);
    if (nFormat == PluginFormatGIF) flags = KyimgplugGifFullPages;
    hFile = KYIMGPLUG_OpenFileU(sFilePath.c_str());
    std::intptr_t multi = hFile ? KYIMGPLUG_OpenMultiBitmapU(nFormat, flags, hFile) : 0;
    if (multi && KYIMGPLUG_GetPageCount(multi) > 1) {
        bMultiPage = true;
        return multi;
    }
    if (multi) KYIMGPLUG_CloseMultiBitmap(multi, 0);
    if (hFile) KYIMGPLUG_CloseFileHandle(hFile);
    hFile = 0;
    return KYIMGPLUG_LoadU(nFormat, sFilePath.c_str(), flags);
}

void ReturnPluginBitmap(std::intptr_t nBitmap, bool bIsPage, std::intptr_t nMulti) {
    if (!nBitmap) return;
    if (bIsPage && nMulti)
        KYIMGPLUG_UnlockPage(nMulti, nBitmap, 0);
    else
        KYIMGPLUG_Unload(nBitmap);
}

KestrelynStatus LoadByPlugin(std::int32_t& nImageID, const std::string& sFilePath,
                             const LoadOptions& oOptions) {
    nImageID = 0;
    if (!IsKyimgplugAvailable()) return Aborted;
    int format = DetectPluginFormat(sFilePath);
    if (format == PluginFormatGIF || format == PluginFormatBMP || format == PluginFormatPNG ||
        format < 0)
        return UnknownImageFormat;
    bool bMultiPage = false;
    std::intptr_t hFile = 0;
    // Colour-managed or not (bICM), the samples arrive as RGB: a load makes
    // images to show, and CMYK samples kept as they are would read as RGB.
    std::intptr_t handle = LoadPluginFile(format, sFilePath, bMultiPage, false, hFile);
    if (!handle) return OutOfMemory;
    const std::string sName = PluginFormatName(format);

    if (!bMultiPage) {
        std::intptr_t bitmap = handle;
        bool bFailed = false, bIsPage = false;
        std::int32_t id = 0;
        KestrelynStatus status = OutOfMemory;
        try {
            status = PluginBitmapToImage(bitmap, id, bFailed, bIsPage, 0, format);
        } catch (...) {
            if (id != 0) ReleaseImage(id);
            KYIMGPLUG_Unload(bitmap);
            throw;
        }
        ImageRecord* rec = FindImageRecord(id);
        if (!bFailed && rec) {
            rec->nKind = KindPlugin;
            rec->nPlugBitmap = static_cast<std::uintptr_t>(bitmap);
        } else {
            if (rec) ReleaseImage(id);
            KYIMGPLUG_Unload(bitmap);
            rec = nullptr;
            id = 0;
            if (status == OK) status = UnknownImageFormat;
        }
        if (rec) {
            rec->sFormatName = sName;
            rec->sFilePath = sFilePath;
        }
        nImageID = status == OK ? id : 0;
        if (status != OK && id != 0) ReleaseImage(id);
        return status;
    }

    // A document of several pages.
    const bool bGif = format == PluginFormatGIF;
    const bool bReadOnly = bGif ? oOptions.bGifReadOnly : oOptions.bTiffReadOnly;
    const int count = KYIMGPLUG_GetPageCount(handle);
    std::int32_t head = 0;
    RegisterImage(head, nullptr, sName, sFilePath, bReadOnly ? KindPlugin : KindEngine);
    {
        ImageRecord& rec = *FindImageRecord(head);
        rec.bReadOnly = bReadOnly;
        rec.bMultiPageGif = bGif;
        rec.bMultiPageTiff = !bGif;
        SizePageArrays(rec, count);
        rec.nCurrentPage = -1;
        rec.nPlugFile = static_cast<std::uintptr_t>(hFile);
    }
    if (bReadOnly) {
        // The multi-bitmap and its file handle stay with the head; pages are
        // locked as they are shown.
        FindImageRecord(head)->nPlugBitmap = static_cast<std::uintptr_t>(handle);
        const KestrelynStatus status = ShowPage(head, 0);
        if (status != OK) {
            ReleaseImage(head);
            return status;
        }
        nImageID = head;
        return OK;
    }

    // Editable: every page goes to a file of its own, then the source closes.
    const std::int32_t stored = BurstPluginPages(handle, head);
    KYIMGPLUG_CloseMultiBitmap(handle, 0);
    if (hFile) KYIMGPLUG_CloseFileHandle(hFile);
    FindImageRecord(head)->nPlugFile = 0;
    const KestrelynStatus status = FinishBurst(head, stored);
    if (status != OK) return status;
    nImageID = head;
    return OK;
}

KestrelynStatus PluginBitmapToImage(std::intptr_t& nBitmap, std::int32_t& nImageID, bool& bFailed,
                                    bool& bIsPage, std::intptr_t nMulti, int nFormat) {
    nImageID = 0;
    bFailed = false;
    if (!nBitmap) {
        bFailed = true;
        return OutOfMemory;
    }
    float dpiX = DotsPerInch(KYIMGPLUG_GetDotsPerMeterX(nBitmap));
    float dpiY = DotsPerInch(KYIMGPLUG_GetDotsPerMeterY(nBitmap));
    int bpp = KYIMGPLUG_GetBPP(nBitmap);
    const int imageType = KYIMGPLUG_GetImageType(nBitmap);

    // A converted bitmap takes the old one's place; the old one goes back.
    auto replace = [&](std::intptr_t nNew) {
        if (!nNew) return false;
        ReturnPluginBitmap(nBitmap, bIsPage, nMulti);
        bIsPage = false;
        nBitmap = nNew;
        return true;
    };

    if (imageType != KyimgplugTypeStandard) {
        std::intptr_t converted = 0;
        if (imageType == KyimgplugTypeUInt16)
            converted = KYIMGPLUG_ConvertToGreyscale(nBitmap);
        else if (imageType == KyimgplugTypeRGB16 || imageType == KyimgplugTypeRGBF ||
                 imageType == KyimgplugTypeRGBAF)
            converted = KYIMGPLUG_TmoReinhard05(nBitmap, 0, 0, 0, 0);
        else
            converted = KYIMGPLUG_ConvertToType(nBitmap, KyimgplugTypeStandard, 1);
        replace(converted);
        bpp = KYIMGPLUG_GetBPP(nBitmap);
    }

    if (bpp == 8 && KYIMGPLUG_GetTransparencyCount(nBitmap) > 0) {
        if (replace(KYIMGPLUG_ConvertTo32Bits(nBitmap))) bpp = KYIMGPLUG_GetBPP(nBitmap);
    }

    std::int32_t id = 0;
    if (bpp == 1 || bpp == 4 || bpp == 8) {
        // Palette pixels: copied through a DIB.
        bool bSwap = false;
        if (bpp == 1 && KYIMGPLUG_GetPhotoMetric(nBitmap) == 0) {
            // White is zero: the bits are inverted and the two colours with
            // them, so that the picture stays as it was, black at index 0.
            bSwap = KYIMGPLUG_Invert(nBitmap) != 0;
        }
        if (RowsTopDown(nFormat)) KYIMGPLUG_FlipVertical(nBitmap);
        const KestrelynStatus status = DibImageFromBitmap(nBitmap, bSwap, id);
        if (status != OK) {
            bFailed = true;
            return status;
        }
    } else {
        const int width = KYIMGPLUG_GetWidth(nBitmap);
        const int height = KYIMGPLUG_GetHeight(nBitmap);
        const int pitch = KYIMGPLUG_GetPitch(nBitmap);
        PixelFormat format = PixelFormatUndefined;
        switch (bpp) {
        case 16:
            format = PixelFormat16bppGrayScale;
            break;
        case 24:
            format = PixelFormat24bppRGB;
            break;
        case 32:
            format =
                KYIMGPLUG_GetColorType(nBitmap) == 4 ? PixelFormat32bppARGB : PixelFormat32bppRGB;
            break;
        case 48:
            format = pitch == ComputeStride(width, 24) ? PixelFormat24bppRGB : PixelFormat48bppRGB;
            break;
        case 64:
            format =
                pitch == ComputeStride(width, 32) ? PixelFormat32bppARGB : PixelFormat64bppARGB;
            break;
        default:
            bFailed = true;
            return UnknownImageFormat;
        }
        bool bEngineFlip = false;
        if (!RowsTopDown(nFormat)) bEngineFlip = KYIMGPLUG_FlipVertical(nBitmap) == 0;
        std::uint8_t* bits = KYIMGPLUG_GetBits(nBitmap);
        if (!bits || width <= 0 || height <= 0) {
            bFailed = true;
            return OutOfMemory;
        }
        const KestrelynStatus status = CreateBitmap(width, height, pitch, format, bits, id, false);
        if (status != OK) {
            bFailed = true;
            return status;
        }
        if (bEngineFlip) GdipImageRotateFlip(ResolveGdiPlusImage(id), RotateNoneFlipY);
    }

    // Tags, and the resolution they carry.
    float tagX = 0, tagY = 0;
    if (gReadMetadata) gReadMetadata(id, nBitmap, tagX, tagY);
    if (tagX > 0 && tagY > 0 && dpiX == DotsPerInch(2835) && dpiY == DotsPerInch(2835) &&
        KYIMGPLUG_GetDotsPerMeterX(nBitmap) == 2835 &&
        KYIMGPLUG_GetDotsPerMeterY(nBitmap) == 2835) {
        dpiX = tagX;
        dpiY = tagY;
    }
    if (dpiX != 0 && dpiY != 0) {
        if (GpImage* img = ResolveGdiPlusImage(id)) GdipBitmapSetResolution(img, dpiX, dpiY);
    }
    nImageID = id;
    return OK;
}

KestrelynStatus ImageToPluginBitmap(std::intptr_t& nBitmap, std::int32_t nImageID) {
    nBitmap = 0;
    GpImage* img = ResolveGdiPlusImage(nImageID);
    if (!img) return InvalidParameter;
    if (!IsKyimgplugAvailable()) return KyimgplugDllRequired;
    PixelFormat format = 0;
    UINT width = 0, height = 0;
    GdipGetImagePixelFormat(img, &format);
    GdipGetImageWidth(img, &width);
    GdipGetImageHeight(img, &height);
    const int depth = PixelFormatDepth(format);
    if (depth > 32) return UnsupportedImageFormat;
    if (depth == 0) return UnknownImageFormat;

    GpRect all{0, 0, static_cast<INT>(width), static_cast<INT>(height)};
    BitmapData data{};
    KestrelynStatus status = GdipBitmapLockBits(img, &all, ImageLockModeRead, format, &data);
    if (status != OK) return status;
    std::intptr_t bitmap = KYIMGPLUG_ConvertFromRawBits(
        static_cast<const std::uint8_t*>(data.Scan0), static_cast<int>(width),
        static_cast<int>(height), data.Stride, depth, 0, 0, 0, 1);
    GdipBitmapUnlockBits(img, &data);
    if (!bitmap) return OutOfMemory;

    if (depth <= 8) {
        INT size = 0;
        if (GdipGetImagePaletteSize(img, &size) == OK &&
            size >= static_cast<INT>(sizeof(UINT) * 2)) {
            std::vector<std::uint8_t> buffer(static_cast<std::size_t>(size));
            auto* palette = reinterpret_cast<ColorPalette*>(buffer.data());
            if (GdipGetImagePalette(img, palette, size) == OK) {
                std::uint8_t* target = KYIMGPLUG_GetPalette(bitmap);
                const int used = KYIMGPLUG_GetColorsUsed(bitmap);
                const int n = std::min<int>(used, static_cast<int>(palette->Count));
                for (int i = 0; target && i < n; ++i) {
                    const ARGB c = palette->Entries[i];
                    target[4 * i] = static_cast<std::uint8_t>(c);
                    target[4 * i + 1] = static_cast<std::uint8_t>(c >> 8);
                    target[4 * i + 2] = static_cast<std::uint8_t>(c >> 16);
                    target[4 * i + 3] = 0;
                }
                for (int i = 0; i < n; ++i)
                    if ((palette->Entries[i] >> 24) == 0) KYIMGPLUG_SetTransparentIndex(bitmap, i);
            }
        }
    }
    if (format == PixelFormat32bppRGB ||
        (format == PixelFormat32bppARGB && KYIMGPLUG_IsTransparent(bitmap) == 0)) {
        if (std::intptr_t b24 = KYIMGPLUG_ConvertTo24Bits(bitmap)) {
            KYIMGPLUG_Unload(bitmap);
            bitmap = b24;
        }
    }
    float dpiX = 0, dpiY = 0;
    GdipGetImageHorizontalResolution(img, &dpiX);
    GdipGetImageVerticalResolution(img, &dpiY);
    if (dpiX > 0) KYIMGPLUG_SetDotsPerMeterX(bitmap, DotsPerMeter(dpiX));
    if (dpiY > 0) KYIMGPLUG_SetDotsPerMeterY(bitmap, DotsPerMeter(dpiY));
    if (gWriteMetadata) gWriteMetadata(bitmap, nImageID);
    nBitmap = bitmap;
    return OK;
}

bool SavePluginFile(int nFormat, std::intptr_t nBitmap, const std::string& sFilePath, int nFlags) {
    // The plug-in writes a file beside the target, which replaces the target
    // only when the plug-in reports it complete.
    return WriteFileSafely(sFilePath, [&](const std::string& sTemp) {
        return KYIMGPLUG_SaveU(nFormat, nBitmap, sTemp.c_str(), nFlags) == 1;
    });
}

} // namespace kestrelyn
