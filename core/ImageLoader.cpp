// Loading: files, memory, strings, streams, host handles and pictures become
// registry images. File-shaped sources all go through LoadImageFile, which
// picks the decoder; multi-page TIFF and GIF documents become multi-page
// records here.
#include "core/ImageLoader.h"
#include "platform/Files.h"
#include "platform/TextHelpers.h"

#include <sys/stat.h>

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "core/CodecPluginBridge.h"
#include "core/PageStore.h"
#include "core/modMain.h"
#include "platform/Windows1252.h"
#include "platform/modGdi32.h"
#include "platform/modWinapi.h"
#include "platform/modkyimgplug.h"

namespace kestrelyn {

namespace {

// The bare status of a run-time failure inside a stream load.
constexpr KestrelynStatus kStreamRuntimeFailure = static_cast<KestrelynStatus>(23);

// A property's bytes, empty when the image has none of that id.
std::vector<std::uint8_t> PropertyBytes(GpImage* img, PROPID id, std::uint16_t& nType) {
    std::vector<std::uint8_t> out;
    UINT size = 0;
    if (GdipGetPropertyItemSize(img, id, &size) != OK || size < sizeof(PropertyItem)) return out;
    std::vector<std::uint8_t> buffer(size);
    auto* item = reinterpret_cast<PropertyItem*>(buffer.data());
    if (GdipGetPropertyItem(img, id, size, item) != OK || !item->value) return out;
    nType = item->type;
    const auto* bytes = static_cast<const std::uint8_t*>(item->value);
    out.assign(bytes, bytes + item->length);
    return out;
}

// Frame delays, loop count and comment of a GIF document into its head.
void ReadGifFacts(GpImage* img, ImageRecord& head) {
    std::uint16_t type = 0;
    const std::vector<std::uint8_t> delays = PropertyBytes(img, 20736, type);
    for (std::int32_t k = 0; k < head.nPageCount; ++k) {
        std::int32_t delay = 0;
        const std::size_t off = static_cast<std::size_t>(k) * 4;
        if (off + 4 <= delays.size()) std::memcpy(&delay, delays.data() + off, 4);
        head.arPageDelays[static_cast<std::size_t>(k)] = delay < 1 ? 25 : delay;
        head.arPageDisposals[static_cast<std::size_t>(k)] = -1;
    }
    const std::vector<std::uint8_t> loop = PropertyBytes(img, 20737, type);
    if (type == PropertyTagTypeShort && loop.size() == 2) {
        std::uint16_t v = 0;
        std::memcpy(&v, loop.data(), 2);
        head.nLoopCount = v;
    } else if (type == PropertyTagTypeLong && loop.size() == 4) {
        std::int32_t v = 0;
        std::memcpy(&v, loop.data(), 4);
        head.nLoopCount = v;
    }
    const std::vector<std::uint8_t> comment = PropertyBytes(img, 37510, type);
    std::string text(comment.begin(), comment.end());
    if (const std::size_t nul = text.find('\0'); nul != std::string::npos) text.resize(nul);
    head.sGifComment = text;
    head.bMultiPageGif = true;
}

} // namespace

// ---------------------------------------------------------------------------
// Paths.

std::string NormaliseFilePath(const std::string& sFilePath) {
    std::string path = Trim(sFilePath);
    for (char& c : path)
        if (c == '\\') c = '/';
    if (path.size() <= 3) return path;
    // A run of three or more leading separators shrinks to the two of a
    // network path.
    if (path.compare(0, 3, "///") == 0) {
        std::size_t n = 0;
        while (n < path.size() && path[n] == '/')
            ++n;
        path = "//" + path.substr(n);
    }
    // Doubled separators after the start become one.
    std::string out = path.substr(0, 2);
    for (std::size_t i = 2; i < path.size(); ++i) {
        if (path[i] == '/' && out.size() > 2 && out.back() == '/') continue;
        out += path[i];
    }
    return out;
}

// ---------------------------------------------------------------------------
// The decoder order.

KestrelynStatus LoadImageFile(std::int32_t& nImageID, const std::string& sFilePath,
                              const LoadOptions& oOptions) {
    nImageID = 0;
    std::string sPath = Trim(sFilePath);
    if (!oOptions.bNoDialog && sPath.empty()) {
        // The host's dialog has its own owner window.
        std::string sChosen;
        if (GetHostServices().OpenFileDialog("All files (*.*)|*.*", sChosen)) sPath = sChosen;
    }
    sPath = NormaliseFilePath(sPath);
    if (sPath.empty() || !IsRegularFile(sPath)) return FileNotFound;

    KestrelynStatus status = UnknownImageFormat;
    if (oOptions.bICM || oOptions.bDisableKyimgplug) {
        std::int32_t id = 0;
        status = LoadByEngine(sPath, id, oOptions);
        if (status == OK) {
            PixelFormat fmt = 0;
            GdipGetImagePixelFormat(ResolveGdiPlusImage(id), &fmt);
            if (fmt == PixelFormatUndefined) {
                ReleaseImage(id);
                status = UnknownImageFormat;
            } else {
                nImageID = id;
                return OK;
            }
        }
    }
    if (oOptions.bDisableKyimgplug) return status;

    std::int32_t id = 0;
    const KestrelynStatus nPlugStatus = LoadByPlugin(id, sPath, oOptions);
    if (nPlugStatus == OK) {
        nImageID = id;
        return OK;
    }
    if (LoadByEngine(sPath, id, oOptions) == OK) {
        nImageID = id;
        return OK;
    }
    if (LoadByPicture(id, sPath) == OK) {
        nImageID = id;
        return OK;
    }
    return nPlugStatus;
}

KestrelynStatus LoadByEngine(const std::string& sFilePath, std::int32_t& nImageID,
                             const LoadOptions& oOptions) {
    nImageID = 0;
    GpBitmap* bitmap = nullptr;
    const KestrelynStatus status = oOptions.bICM ? GdipCreateBitmapFromFileICM(sFilePath, &bitmap)
                                                 : GdipCreateBitmapFromFile(sFilePath, &bitmap);
    if (status != OK) {
        if (bitmap) GdipDisposeImage(bitmap);
        return status;
    }
    std::int32_t id = 0;
    RegisterImage(id, bitmap, "", sFilePath, KindEngineFile);
    std::int32_t result = 0;
    const KestrelynStatus multi = OpenMultiPageAfterLoad(sFilePath, id, result, oOptions);
    if (multi != OK) return multi;
    nImageID = result;
    return OK;
}

KestrelynStatus OpenMultiPageAfterLoad(const std::string& sFilePath, std::int32_t nImageID,
                                       std::int32_t& nResultID, const LoadOptions& oOptions) {
    nResultID = nImageID;
    ImageRecord* rec = FindImageRecord(nImageID);
    if (!rec || !rec->nGdiPlusImage) return OK;
    const std::string sName = rec->sFormatName;
    const bool bGif = sName == "GIF";
    if (!bGif && sName != "TIFF") return OK;
    GpImage* source = rec->nGdiPlusImage;
    const GUID& dim = bGif ? FrameDimensionTime : FrameDimensionPage;
    UINT count = 0;
    if (GdipImageGetFrameCount(source, &dim, &count) != OK || count < 2) return OK;
    const bool bReadOnly = bGif ? oOptions.bGifReadOnly : oOptions.bTiffReadOnly;

    std::int32_t head = nImageID;
    if (!bReadOnly) RegisterImage(head, nullptr, sName, sFilePath, KindEngine);
    ImageRecord& h = *FindImageRecord(head);
    SizePageArrays(h, static_cast<std::int32_t>(count));
    if (bGif)
        ReadGifFacts(source, h);
    else
        h.bMultiPageTiff = true;
    h.nCurrentPage = -1;

    if (bReadOnly) {
        // The engine stays the store and keeps the file open.
        h.bReadOnly = true;
        nResultID = head;
        return ShowPage(head, 0);
    }

    // Editable: one file per page, then the source goes, closing the file.
    const std::int32_t stored = BurstEngineFrames(nImageID, head);
    ReleaseImage(nImageID);
    const KestrelynStatus status = FinishBurst(head, stored);
    nResultID = status == OK ? head : 0;
    return status;
}

// ---------------------------------------------------------------------------
// Memory and streams.

KestrelynStatus LoadImageFromBytes(std::int32_t& nImageID, const std::vector<std::uint8_t>& arBytes,
                                   const LoadOptions& oOptions) {
    nImageID = 0;
    // No bytes make an empty file, which no decoder takes: the status is that
    // of the file route, as for an empty file on disk.
    const std::string sTemp = MakeTempFileName();
    {
        std::ofstream file(sTemp, std::ios::binary | std::ios::trunc);
        if (file && !arBytes.empty())
            file.write(reinterpret_cast<const char*>(arBytes.data()),
                       static_cast<std::streamsize>(arBytes.size()));
        if (!file) {
            file.close();
            std::remove(sTemp.c_str());
            return Win32Error;
        }
    }
    LoadOptions oFileOptions;
    oFileOptions.bICM = oOptions.bICM;
    oFileOptions.bTiffReadOnly = oOptions.bTiffReadOnly;
    oFileOptions.bGifReadOnly = oOptions.bGifReadOnly;
    std::int32_t id = 0;
    const KestrelynStatus status = LoadImageFile(id, sTemp, oFileOptions);
    if (status != OK || id == 0) {
        std::remove(sTemp.c_str());
        return status == OK ? GenericError : status;
    }
    MarkTempFile(id, sTemp);
    nImageID = id;
    return OK;
}

KestrelynStatus LoadImageFromStream(std::int32_t& nImageID, const StreamPtr& oStream, bool bICM) {
    nImageID = 0;
    if (!oStream) return InvalidParameter;
    try {
        GpImage* image = nullptr;
        const KestrelynStatus status = bICM ? GdipLoadImageFromStreamICM(oStream, &image)
                                            : GdipLoadImageFromStream(oStream, &image);
        if (status != OK) {
            if (image) GdipDisposeImage(image);
            return status;
        }
        std::int32_t id = 0;
        RegisterImage(id, image, "", "", KindEngine);
        std::int32_t result = 0;
        const KestrelynStatus multi = OpenMultiPageAfterLoad("", id, result, LoadOptions{});
        if (multi != OK) return multi;
        nImageID = result;
        return OK;
    } catch (...) {
        return kStreamRuntimeFailure;
    }
}

// ---------------------------------------------------------------------------
// Pictures, DIBs, the clipboard.

KestrelynStatus LoadByPicture(std::int32_t& nImageID, const std::string& sFilePath) {
    // No host picture loader exists on this platform: nothing else can read
    // a file that the engine and the plug-in refused.
    (void)sFilePath;
    nImageID = 0;
    return UnknownImageFormat;
}

KestrelynStatus LoadImageFromPicture(std::int32_t& nImageID, PictureHandle oPicture) {
    nImageID = 0;
    const HBITMAP hBitmap = PictureGetBitmap(oPicture);
    const HostBitmap* host = HostGetBitmap(hBitmap);
    if (!host) return InvalidParameter;
    GpBitmap* bitmap = nullptr;
    KestrelynStatus status;
    std::int32_t nKind;
    if (host->bIsIcon) {
        status = GdipCreateBitmapFromHICON(hBitmap, &bitmap);
        nKind = KindHIcon;
    } else {
        status = GdipCreateBitmapFromHBITMAP(hBitmap, 0, &bitmap);
        nKind = KindHBitmap;
    }
    if (status != OK) {
        if (bitmap) GdipDisposeImage(bitmap);
        return status;
    }
    RegisterImage(nImageID, bitmap, "", "", nKind);
    return OK;
}

KestrelynStatus LoadImageFromDIB(std::int32_t& nImageID, HGLOBAL hDib, bool bKeepMemory) {
    nImageID = 0;
    auto* block = static_cast<std::uint8_t*>(GlobalLock(hDib));
    if (!block) return GenericError;
    const std::size_t size = GlobalSize(hDib);
    struct Unlock {
        HGLOBAL h;
        ~Unlock() { GlobalUnlock(h); }
    } unlock{hDib};
    if (size < sizeof(BITMAPINFOHEADER)) return InvalidParameter;
    BITMAPINFOHEADER header;
    std::memcpy(&header, block, sizeof header);
    std::size_t offset = 40;
    std::size_t colours = 0;
    switch (header.biBitCount) {
    case 1:
        offset = 48;
        colours = 2;
        break;
    case 4:
        offset = 104;
        colours = 16;
        break;
    case 8:
        offset = 1064;
        colours = 256;
        break;
    default:
        break;
    }
    // Refuse a header that promises more pixels than the block holds.
    const std::int64_t height = std::llabs(static_cast<std::int64_t>(header.biHeight));
    const std::int64_t stride =
        ((static_cast<std::int64_t>(header.biWidth) * header.biBitCount + 31) / 32) * 4;
    if (header.biWidth <= 0 || height <= 0 || stride <= 0 ||
        static_cast<std::int64_t>(offset) + stride * height > static_cast<std::int64_t>(size))
        return InvalidParameter;

    GpBitmap* bitmap = nullptr;
    KestrelynStatus status = GdipCreateBitmapFromGdiDib(block, block + offset, &bitmap);
    if (status != OK) return status;
    RegisterImage(nImageID, bitmap, "", "", KindDib);

    if (colours > 0) {
        if (header.biClrUsed > 0 && header.biClrUsed < colours) colours = header.biClrUsed;
        std::vector<std::uint8_t> buffer(sizeof(ColorPalette) + sizeof(ARGB) * colours);
        auto* palette = reinterpret_cast<ColorPalette*>(buffer.data());
        palette->Flags = 0;
        palette->Count = static_cast<UINT>(colours);
        for (std::size_t i = 0; i < colours; ++i) {
            RGBQUAD q;
            std::memcpy(&q, block + 40 + 4 * i, 4);
            palette->Entries[i] =
                0xFF000000u | (ARGB(q.rgbRed) << 16) | (ARGB(q.rgbGreen) << 8) | q.rgbBlue;
        }
        // A 1-bit table that starts with the lighter colour is turned around
        // (bits inverted, entries swapped): black stays black, at index 0.
        if (header.biBitCount == 1 && colours == 2) {
            auto lum = [](ARGB c) { return ((c >> 16) & 0xFF) + ((c >> 8) & 0xFF) + (c & 0xFF); };
            if (lum(palette->Entries[0]) > lum(palette->Entries[1])) {
                std::swap(palette->Entries[0], palette->Entries[1]);
                GpRect all{0, 0, header.biWidth, static_cast<INT>(height)};
                BitmapData data{};
                if (GdipBitmapLockBits(bitmap, &all, ImageLockModeRead | ImageLockModeWrite,
                                       PixelFormat1bppIndexed, &data) == OK) {
                    const std::size_t rowBytes = (static_cast<std::size_t>(header.biWidth) + 7) / 8;
                    for (INT y = 0; y < static_cast<INT>(height); ++y) {
                        auto* row = static_cast<std::uint8_t*>(data.Scan0) +
                                    static_cast<std::ptrdiff_t>(y) * data.Stride;
                        for (std::size_t x = 0; x < rowBytes; ++x)
                            row[x] = static_cast<std::uint8_t>(~row[x]);
                    }
                    GdipBitmapUnlockBits(bitmap, &data);
                }
            }
        }
        GdipSetImagePalette(bitmap, palette);
    }
    if (bKeepMemory) FindImageRecord(nImageID)->hMemory = hDib;
    if (header.biXPelsPerMeter > 0 && header.biYPelsPerMeter > 0) {
        auto dpi = [](std::int32_t ppm) {
            return static_cast<float>(std::round(ppm * 0.0254 * 100000.0) / 100000.0);
        };
        GdipBitmapSetResolution(bitmap, dpi(header.biXPelsPerMeter), dpi(header.biYPelsPerMeter));
    }
    return OK;
}

KestrelynStatus LoadImageFromClipboard(std::int32_t& nImageID) {
    nImageID = 0;
    const HBITMAP hBitmap = GetHostServices().ClipboardGetBitmap();
    if (!hBitmap) return GenericError;
    const PictureHandle picture = OleCreatePictureIndirect(hBitmap, false);
    if (!picture) return GenericError;
    const KestrelynStatus status = LoadImageFromPicture(nImageID, picture);
    PictureRelease(picture);
    return status;
}

} // namespace kestrelyn
