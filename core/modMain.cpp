// The image registry of the calling thread: records, ids, release of
// everything an image keeps alive, replacement of an image under a stable id,
// temporary file names and the stride and depth rules.
#include "core/modMain.h"
#include "platform/Files.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <random>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "core/PageStore.h"
#include "platform/modWinapi.h"
#include "platform/modkyimgplug.h"

namespace kestrelyn {

namespace {

thread_local ImageRegistry tlRegistry;

std::mt19937& ThreadRandom() {
    thread_local std::mt19937 generator([] {
        auto now = std::chrono::high_resolution_clock::now().time_since_epoch().count();
        auto thread = std::hash<std::thread::id>{}(std::this_thread::get_id());
        return static_cast<std::mt19937::result_type>(static_cast<std::uint64_t>(now) ^ thread);
    }());
    return generator;
}

// Walks to the first free slot or grows the table by one record.
std::int32_t AllocateRecord() {
    ImageRegistry& reg = tlRegistry;
    for (std::int32_t i = 0; i < reg.nImageCount; ++i) {
        if (reg.arRecords[static_cast<std::size_t>(i)].nImageID == 0) return i;
    }
    reg.nImageCount += 1;
    reg.arRecords.resize(static_cast<std::size_t>(reg.nImageCount));
    return reg.nImageCount - 1;
}

bool IsMultiPage(const ImageRecord& rec) {
    return rec.bMultiPageTiff || rec.bMultiPageGif;
}

} // namespace

ImageRegistry& ThreadRegistry() {
    return tlRegistry;
}

std::int32_t NewImageId() {
    std::uniform_int_distribution<std::int32_t> draw(1, 100000000);
    // Ids are drawn at random; a draw that is already in use on this thread is
    // drawn again so that two live images never share an id.
    std::int32_t id = draw(ThreadRandom());
    while (FindImageIndex(id) >= 0)
        id = draw(ThreadRandom());
    return id;
}

std::string FormatNameFromRawFormat(const GUID& raw) {
    // A WMF reads "Undefined": the name table never matched that format.
    static const std::pair<GUID, const char*> table[] = {
        {ImageFormatUndefined, "UNKNOWN"}, {ImageFormatMemoryBMP, "Memory BMP"},
        {ImageFormatBMP, "BMP"},           {ImageFormatEMF, "EMF"},
        {ImageFormatJPEG, "JPEG"},         {ImageFormatPNG, "PNG"},
        {ImageFormatGIF, "GIF"},           {ImageFormatTIFF, "TIFF"},
        {ImageFormatEXIF, "EXIF"},         {ImageFormatIcon, "ICON"},
    };
    for (const auto& [guid, name] : table)
        if (guid == raw) return name;
    return "Undefined";
}

std::string EngineFormatName(GpImage* pImage) {
    GUID raw{};
    if (!pImage || GdipGetImageRawFormat(pImage, &raw) != OK) return "Undefined";
    return FormatNameFromRawFormat(raw);
}

std::int32_t RegisterImage(std::int32_t& nImageID, GpImage* nGdiPlusImage,
                           const std::string& sFormatName, const std::string& sFilePath,
                           std::int32_t nKind) {
    const std::string sFormat = sFormatName;
    const std::string sPath = sFilePath;
    const std::int32_t index = AllocateRecord();
    nImageID = NewImageId();
    ImageRecord& rec = tlRegistry.arRecords[static_cast<std::size_t>(index)];
    rec = ImageRecord{};
    rec.nImageID = nImageID;
    if (!sPath.empty()) rec.sFilePath = sPath;
    rec.sFormatName = sFormat;
    rec.nGdiPlusImage = nGdiPlusImage;
    rec.nKind = nKind;
    if (nGdiPlusImage) {
        GdipImageForceValidation(nGdiPlusImage);
        if (rec.sFormatName.empty()) rec.sFormatName = EngineFormatName(nGdiPlusImage);
        PixelFormat fmt = 0;
        if (GdipGetImagePixelFormat(nGdiPlusImage, &fmt) == OK)
            rec.nPixelDepth = PixelFormatDepth(fmt);
    }
    return index;
}

std::int32_t FindImageIndex(std::int32_t nImageID) {
    if (nImageID == 0) return -1;
    const ImageRegistry& reg = tlRegistry;
    for (std::int32_t i = 0; i < reg.nImageCount; ++i) {
        if (reg.arRecords[static_cast<std::size_t>(i)].nImageID == nImageID) return i;
    }
    return -1;
}

ImageRecord* FindImageRecord(std::int32_t nImageID) {
    const std::int32_t i = FindImageIndex(nImageID);
    return i < 0 ? nullptr : &tlRegistry.arRecords[static_cast<std::size_t>(i)];
}

GpImage* ResolveGdiPlusImage(std::int32_t nImageID) {
    const ImageRecord* rec = FindImageRecord(nImageID);
    if (!rec) return nullptr;
    if (!IsMultiPage(*rec)) return rec->nGdiPlusImage;
    if (rec->nPageCount < 1) return nullptr;
    if (rec->bReadOnly && rec->nKind == KindEngineFile) return rec->nGdiPlusImage;
    if (rec->nCurrentPage < 0 ||
        static_cast<std::size_t>(rec->nCurrentPage) >= rec->arPageImages.size())
        return nullptr;
    const std::int32_t page = rec->arPageImages[static_cast<std::size_t>(rec->nCurrentPage)];
    if (page == nImageID) return nullptr;
    return ResolveGdiPlusImage(page);
}

std::int32_t ResolvePageImage(std::int32_t nImageID) {
    const ImageRecord* rec = FindImageRecord(nImageID);
    if (!rec) return nImageID;
    if (!IsMultiPage(*rec)) return nImageID;
    if (rec->bReadOnly && rec->nKind == KindEngineFile) return nImageID;
    if (rec->nPageCount < 1 || rec->nCurrentPage < 0 ||
        static_cast<std::size_t>(rec->nCurrentPage) >= rec->arPageImages.size())
        return 0;
    return rec->arPageImages[static_cast<std::size_t>(rec->nCurrentPage)];
}

KestrelynStatus ReleaseImage(std::int32_t nImageID) {
    // 1. The record.
    if (FindImageIndex(nImageID) < 0) return InvalidParameter;

    // 2. Pages of a multi-page image, then their files. The page lists are
    // copied: the recursive releases reshape the table.
    {
        const ImageRecord& rec = *FindImageRecord(nImageID);
        if (IsMultiPage(rec)) {
            const std::vector<std::int32_t> pages = rec.arPageImages;
            const std::vector<std::string> files = rec.arPageFiles;
            const std::size_t count = static_cast<std::size_t>(std::max(0, rec.nPageCount));
            for (std::size_t i = 0; i < count; ++i) {
                if (i < pages.size() && pages[i] != 0 && pages[i] != nImageID)
                    ReleaseImage(pages[i]);
                if (i < files.size()) RemoveFileQuietly(files[i]);
            }
        }
    }
    ImageRecord rec = *FindImageRecord(nImageID); // a working copy; the slot is cleared below

    // An open device context on the image goes before the image.
    if (rec.nGraphics) {
        if (rec.nHDC) GdipReleaseDC(rec.nGraphics, rec.nHDC);
        GdipDeleteGraphics(rec.nGraphics);
    }

    // 3. Owned raw bits, unless an engine operation moved the pixels away from
    // them. Decided here, freed once the engine image that points at them is
    // gone (step 5).
    bool bFreeBits = false;
    if (rec.bOwnsBits && rec.nBits) {
        bFreeBits = true;
        if (rec.nGdiPlusImage) {
            UINT w = 0, h = 0;
            PixelFormat fmt = 0;
            GdipGetImageWidth(rec.nGdiPlusImage, &w);
            GdipGetImageHeight(rec.nGdiPlusImage, &h);
            GdipGetImagePixelFormat(rec.nGdiPlusImage, &fmt);
            GpRect all{0, 0, static_cast<INT>(w), static_cast<INT>(h)};
            BitmapData data{};
            if (GdipBitmapLockBits(rec.nGdiPlusImage, &all, ImageLockModeRead, fmt, &data) == OK) {
                bFreeBits = data.Scan0 == rec.nBits;
                GdipBitmapUnlockBits(rec.nGdiPlusImage, &data);
            }
        }
    }

    // 4. A file handle of the plug-in. Plug-in handles exist only while the
    // plug-in is loaded, so these calls always reach it.
    if (rec.nPlugFile != 0) KYIMGPLUG_CloseFileHandle(static_cast<std::intptr_t>(rec.nPlugFile));

    // 5. The engine image; its status is the result.
    KestrelynStatus status = OK;
    if (rec.nGdiPlusImage) status = GdipDisposeImage(rec.nGdiPlusImage);
    if (bFreeBits) GdipFree(rec.nBits);

    // 6-8. What the kind of source leaves behind.
    if (rec.nKind == KindDib && rec.hMemory) GlobalFree(rec.hMemory);
    const auto plugBitmap = static_cast<std::intptr_t>(rec.nPlugBitmap);
    if (rec.nKind == KindPlugin && plugBitmap) {
        if (IsMultiPage(rec))
            KYIMGPLUG_CloseMultiBitmap(plugBitmap, 0);
        else
            KYIMGPLUG_Unload(plugBitmap);
    }
    if (rec.nKind == KindPluginPage && plugBitmap)
        KYIMGPLUG_UnlockPage(plugBitmap, static_cast<std::intptr_t>(rec.nPlugPage), 0);

    // 9. A temporary file.
    if (rec.bDeleteFile) RemoveFileQuietly(rec.sFilePath);

    // 10. Shrink the table or free the slot.
    ImageRegistry& reg = tlRegistry;
    const std::int32_t index = FindImageIndex(nImageID);
    if (index >= 0) {
        if (index == reg.nImageCount - 1) {
            reg.nImageCount -= 1;
            reg.arRecords.resize(static_cast<std::size_t>(reg.nImageCount));
        } else {
            reg.arRecords[static_cast<std::size_t>(index)] = ImageRecord{};
        }
    }
    return status;
}

void RemoveAllImages() {
    ImageRegistry& reg = tlRegistry;
    while (reg.nImageCount > 0) {
        const std::int32_t id = reg.arRecords.back().nImageID;
        const std::int32_t before = reg.nImageCount;
        if (id != 0) ReleaseImage(id);
        if (reg.nImageCount == before) {
            // A free slot at the end (or a release that could not take the
            // record off): drop the last record.
            reg.nImageCount -= 1;
            reg.arRecords.resize(static_cast<std::size_t>(reg.nImageCount));
        }
    }
}

std::int32_t ReplaceImage(std::int32_t nImageID, std::int32_t nNewImageID) {
    if (nImageID == 0) return 0;
    ImageRecord* rec = FindImageRecord(nImageID);
    if (!rec) return 0;
    if (!IsMultiPage(*rec) || rec->bReadOnly) {
        ReleaseImage(nImageID);
        if (ImageRecord* fresh = FindImageRecord(nNewImageID)) fresh->nImageID = nImageID;
        return nImageID;
    }

    // An editable multi-page image: the new image becomes the current page.
    ReplaceCurrentPage(nImageID, nNewImageID);
    return nImageID;
}

void MarkImageModified(std::int32_t nImageID) {
    if (ImageRecord* rec = FindImageRecord(nImageID)) {
        if (rec->bReadOnly && rec->nKind == KindEngineFile && IsMultiPage(*rec) &&
            rec->nGdiPlusImage) {
            UINT frames = 0;
            const GUID& dim = rec->bMultiPageGif ? FrameDimensionTime : FrameDimensionPage;
            if (GdipImageGetFrameCount(rec->nGdiPlusImage, &dim, &frames) == OK && frames < 2) {
                rec->bMultiPageTiff = false;
                rec->bMultiPageGif = false;
                rec->nPageCount = 0;
                rec->arPageImages.clear();
                rec->arPageDepths.clear();
                rec->arPageFiles.clear();
            }
        }
    }
    if (ImageRecord* page = FindImageRecord(ResolvePageImage(nImageID))) page->bModified = true;
}

void ClearImageModified(std::int32_t nImageID) {
    if (ImageRecord* page = FindImageRecord(ResolvePageImage(nImageID))) page->bModified = false;
}

void MarkTempFile(std::int32_t nImageID, const std::string& sFilePath) {
    if (ImageRecord* rec = FindImageRecord(nImageID)) {
        rec->bDeleteFile = true;
        rec->sFilePath = sFilePath;
    }
}

KestrelynStatus CreateBitmap(std::int32_t nWidth, std::int32_t nHeight, std::int32_t nStride,
                             std::int32_t nPixelFormat, void* nBits, std::int32_t& nImageID,
                             bool bOwnsBits) {
    // Owned bits come from GdipAlloc and are handed over as they stand: the
    // pointer is the block, there is nothing to lock.
    nImageID = 0;
    GpBitmap* bitmap = nullptr;
    const KestrelynStatus status = GdipCreateBitmapFromScan0(
        nWidth, nHeight, nStride, nPixelFormat, static_cast<std::uint8_t*>(nBits), &bitmap);
    if (status != OK) return status;
    const std::int32_t index =
        RegisterImage(nImageID, bitmap, "", "", bOwnsBits ? KindOwnedBits : KindRawBits);
    ImageRecord& rec = ThreadRegistry().arRecords[static_cast<std::size_t>(index)];
    rec.nBits = nBits;
    rec.bOwnsBits = bOwnsBits;
    return OK;
}

// Names drawn before giving up on a temporary directory full of our files.
constexpr int kTempNameAttempts = 1000;

std::string MakeTempFileName() {
    // The name is taken by creating the file: no other call, thread or process
    // can be given it until the file is removed.
    const std::string sDir = GetTempDirectory();
    std::uniform_real_distribution<float> draw(0.0f, 1.0f);
    for (int attempt = 0; attempt < kTempNameAttempts; ++attempt) {
        const float r = draw(ThreadRandom());
        const auto n = static_cast<std::uint64_t>(static_cast<double>(r) * 100000000.0);
        std::string sPath = sDir + kPathSeparator + kTempFilePrefix + std::to_string(n);
        const int fd = ::open(sPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd >= 0) {
            ::close(fd);
            return sPath;
        }
        if (errno != EEXIST) break; // a missing or closed folder: no name can be had
    }
    return std::string();
}

std::int32_t ComputeStride(std::int32_t nWidth, std::int32_t nDepth) {
    // Widths beyond what a 32-bit stride can hold at 64 bits are refused.
    if (nWidth < 1 || nWidth > 0x0FFFFFFF) return 0;
    switch (nDepth) {
    case 1:
        return ((nWidth + 31) / 32) * 4;
    case 4:
        return ((nWidth + 31) / 32) * 16;
    case 8:
        return (nWidth + 3) & ~3;
    case 16:
        return (2 * nWidth + 2) & ~2;
    case 24:
        return (3 * nWidth + 3) & ~3;
    case 32:
        return 4 * nWidth;
    case 48:
        return (6 * nWidth + 6) & ~6;
    case 64:
        return 8 * nWidth;
    default:
        return 0;
    }
}

std::int32_t PixelFormatDepth(std::int32_t nPixelFormat) {
    switch (nPixelFormat) {
    case PixelFormat1bppIndexed:
        return 1;
    case PixelFormat4bppIndexed:
        return 4;
    case PixelFormat8bppIndexed:
        return 8;
    case PixelFormat16bppGrayScale:
    case PixelFormat16bppRGB555:
    case PixelFormat16bppRGB565:
    case PixelFormat16bppARGB1555:
        return 16;
    case PixelFormat24bppRGB:
        return 24;
    case PixelFormat32bppRGB:
    case PixelFormat32bppARGB:
    case PixelFormat32bppPARGB:
        return 32;
    case PixelFormat48bppRGB:
        return 48;
    case PixelFormat64bppARGB:
    case PixelFormat64bpppARGB:
        return 64;
    default:
        return 0;
    }
}

KestrelynStatus LockBits(std::int32_t nImageID, const GpRect& rect, std::uint32_t nMode,
                         PixelFormat& nFormat, BitmapData& data) {
    GpImage* img = ResolveGdiPlusImage(nImageID);
    if (nFormat == 0 && img) GdipGetImagePixelFormat(img, &nFormat);
    const KestrelynStatus status = GdipBitmapLockBits(img, &rect, nMode, nFormat, &data);
    if (status == OK) {
        nFormat = data.PixelFormat;
        if (nMode & ImageLockModeWrite) MarkImageModified(nImageID);
    }
    return status;
}

KestrelynStatus UnlockBits(std::int32_t nImageID, BitmapData& data) {
    return GdipBitmapUnlockBits(ResolveGdiPlusImage(nImageID), &data);
}

KestrelynStatus GetGraphics(std::int32_t nImageID, GpGraphics*& g) {
    g = nullptr;
    const KestrelynStatus status = GdipGetImageGraphicsContext(ResolveGdiPlusImage(nImageID), &g);
    if (status == OK && g)
        MarkImageModified(nImageID);
    else if (status == OK)
        return GenericError;
    return status;
}

} // namespace kestrelyn
