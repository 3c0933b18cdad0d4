// The page store: page files of editable documents, the current page of every
// document, and the one page writer.
#include "core/PageStore.h"

#include <algorithm>
#include <functional>

#include "core/CodecPluginBridge.h"
#include "core/ImageLoader.h"
#include "core/ImageSaver.h"
#include "platform/Files.h"
#include "platform/modGdiPlus.h"
#include "platform/modkyimgplug.h"

namespace kestrelyn {

namespace {

bool IsMultiPage(const ImageRecord& rec) {
    return rec.bMultiPageTiff || rec.bMultiPageGif;
}

const GUID& FrameDimensionOf(DocumentFormat eFormat) {
    return eFormat == DocumentFormat::Gif ? FrameDimensionTime : FrameDimensionPage;
}

int PluginFormatOf(DocumentFormat eFormat) {
    return eFormat == DocumentFormat::Gif ? PluginFormatGIF : PluginFormatTIFF;
}

// Stores page nPage0 of a source in the file and reports its depth.
using PageWriter = std::function<KestrelynStatus(std::int32_t nPage0, const std::string& sFile,
                                                 std::int32_t& nDepth)>;

// The burst loop both routes share: a temporary file per page, named in the
// head when the writer succeeded.
std::int32_t BurstPages(std::int32_t nHeadID, const PageWriter& writePage) {
    const ImageRecord* head = FindImageRecord(nHeadID);
    if (!head) return 0;
    const std::int32_t count = head->nPageCount;
    std::int32_t stored = 0;
    for (std::int32_t i = 0; i < count; ++i) {
        const std::string sPageFile = MakeTempFileName();
        std::int32_t depth = 0;
        if (writePage(i, sPageFile, depth) != OK) {
            RemoveFileQuietly(sPageFile); // the name was taken by creating the file
            continue;
        }
        ImageRecord& h = *FindImageRecord(nHeadID); // the writer may reshape the table
        const auto p = static_cast<std::size_t>(i);
        if (p >= h.arPageFiles.size() || p >= h.arPageDepths.size()) {
            RemoveFileQuietly(sPageFile);
            continue;
        }
        h.arPageFiles[p] = sPageFile;
        h.arPageDepths[p] = depth;
        ++stored;
    }
    return stored;
}

// Locks page nPage0 of a read-only plug-in document and makes it current.
KestrelynStatus ShowPluginPage(std::int32_t nHeadID, std::int32_t nPage0) {
    ImageRecord* rec = FindImageRecord(nHeadID);
    const std::intptr_t multi = static_cast<std::intptr_t>(rec->nPlugBitmap);
    const int format = PluginFormatOf(DocumentFormatOf(*rec));
    std::intptr_t page = KYIMGPLUG_LockPage(multi, nPage0);
    if (!page) return OutOfMemory;
    bool bIsPage = true, bFailed = false;
    std::int32_t id = 0;
    KestrelynStatus status = PluginBitmapToImage(page, id, bFailed, bIsPage, multi, format);
    if (bFailed || id == 0) {
        if (id != 0) ReleaseImage(id);
        ReturnPluginBitmap(page, bIsPage, multi);
        return status == OK ? UnknownImageFormat : status;
    }
    ImageRecord* pageRec = FindImageRecord(id);
    pageRec->sFormatName = PluginFormatName(format);
    if (bIsPage) {
        // The pixels stay in the locked page: it is unlocked at release.
        pageRec->nKind = KindPluginPage;
        pageRec->nPlugBitmap = static_cast<std::uintptr_t>(multi);
        pageRec->nPlugPage = static_cast<std::uintptr_t>(page);
    } else {
        // A converted copy replaced the page, which went back already.
        pageRec->nKind = KindPlugin;
        pageRec->nPlugBitmap = static_cast<std::uintptr_t>(page);
    }
    rec = FindImageRecord(nHeadID);
    rec->arPageImages[static_cast<std::size_t>(nPage0)] = id;
    rec->arPageDepths[static_cast<std::size_t>(nPage0)] = ImageDepth(id);
    rec->nCurrentPage = nPage0;
    return status;
}

} // namespace

// ---------------------------------------------------------------------------
// Formats and page arrays.

std::string DocumentFormatName(DocumentFormat eFormat) {
    return eFormat == DocumentFormat::Gif ? "GIF" : "TIFF";
}

DocumentFormat DocumentFormatOf(const ImageRecord& rec) {
    return rec.bMultiPageGif ? DocumentFormat::Gif : DocumentFormat::Tiff;
}

bool IsDocumentOf(const ImageRecord& rec, DocumentFormat eFormat) {
    return eFormat == DocumentFormat::Gif ? rec.bMultiPageGif : rec.bMultiPageTiff;
}

bool IsEditableDocument(std::int32_t nImageID, DocumentFormat eFormat) {
    const ImageRecord* rec = FindImageRecord(nImageID);
    return rec && IsDocumentOf(*rec, eFormat) && !rec->bReadOnly;
}

void SizePageArrays(ImageRecord& rec, std::int32_t nCount) {
    const std::size_t n = static_cast<std::size_t>(nCount);
    rec.nPageCount = nCount;
    rec.arPageImages.assign(n, 0);
    rec.arPageFiles.assign(n, std::string());
    rec.arPageDepths.assign(n, 0);
    rec.arPageDelays.assign(n, 0);
    rec.arPageDisposals.assign(n, 0);
}

void FitPageArrays(ImageRecord& rec) {
    const std::size_t n = static_cast<std::size_t>(std::max(0, rec.nPageCount));
    rec.arPageFiles.resize(n);
    rec.arPageImages.resize(n, 0);
    rec.arPageDepths.resize(n, 0);
    rec.arPageDelays.resize(n, 25);
    rec.arPageDisposals.resize(n, -1);
}

// ---------------------------------------------------------------------------
// Page files.

KestrelynStatus StorePage(std::int32_t nImageID, const std::string& sFilePath,
                          DocumentFormat eFormat) {
    const KestrelynStatus status = eFormat == DocumentFormat::Gif
                                       ? SaveByEngine(nImageID, sFilePath, "*.png")
                                       : SaveAsTiffFile(nImageID, sFilePath, CompressionLZW, 0);
    if (status != OK) RemoveFileQuietly(sFilePath);
    return status;
}

KestrelynStatus LoadPageFile(std::int32_t& nImageID, const std::string& sFilePath) {
    return LoadImageFile(nImageID, sFilePath, {.bTiffReadOnly = true, .bGifReadOnly = true});
}

// ---------------------------------------------------------------------------
// Bursting.

std::int32_t BurstEngineFrames(std::int32_t nSourceID, std::int32_t nHeadID) {
    const ImageRecord* head = FindImageRecord(nHeadID);
    if (!head) return 0;
    const DocumentFormat format = DocumentFormatOf(*head);
    const GUID& dim = FrameDimensionOf(format);
    return BurstPages(nHeadID,
                      [&](std::int32_t nPage0, const std::string& sFile, std::int32_t& nDepth) {
                          KestrelynStatus status = GdipImageSelectActiveFrame(
                              ResolveGdiPlusImage(nSourceID), &dim, static_cast<UINT>(nPage0));
                          if (status != OK) return status;
                          status = StorePage(nSourceID, sFile, format);
                          nDepth = ImageDepth(nSourceID);
                          return status;
                      });
}

std::int32_t BurstPluginPages(std::intptr_t nMulti, std::int32_t nHeadID) {
    const ImageRecord* head = FindImageRecord(nHeadID);
    if (!head) return 0;
    const DocumentFormat format = DocumentFormatOf(*head);
    const bool bGif = format == DocumentFormat::Gif;
    const int nPluginFormat = PluginFormatOf(format);
    return BurstPages(
        nHeadID,
        [&](std::int32_t nPage0, const std::string& sFile,
            std::int32_t& nDepth) -> KestrelynStatus {
            std::intptr_t page = KYIMGPLUG_LockPage(nMulti, nPage0);
            if (!page) return OutOfMemory;
            nDepth = KYIMGPLUG_GetBPP(page);
            bool bIsPage = true, bFailed = false, bStored = false;
            std::int32_t pageImage = 0;
            try {
                PluginBitmapToImage(page, pageImage, bFailed, bIsPage, nMulti, nPluginFormat);
                if (pageImage != 0 && !bFailed) {
                    bStored = StorePage(pageImage, sFile, format) == OK;
                } else {
                    // No image could be made of the page: the plug-in writes it itself.
                    bStored = SavePluginFile(bGif ? PluginFormatPNG : PluginFormatTIFF, page, sFile,
                                             bGif ? 0 : KyimgplugTiffLzw);
                }
            } catch (...) {
                // A plug-in failure costs this page only.
                bStored = false;
            }
            if (pageImage != 0) ReleaseImage(pageImage);
            ReturnPluginBitmap(page, bIsPage, nMulti);
            if (!bStored) RemoveFileQuietly(sFile);
            return bStored ? OK : GenericError;
        });
}

KestrelynStatus FinishBurst(std::int32_t nHeadID, std::int32_t nStored) {
    if (nStored == 0) {
        ReleaseImage(nHeadID);
        return UnknownImageFormat;
    }
    const KestrelynStatus status = ShowPage(nHeadID, 0);
    if (status != OK) ReleaseImage(nHeadID);
    return status;
}

// ---------------------------------------------------------------------------
// The current page.

KestrelynStatus ShowPage(std::int32_t nHeadID, std::int32_t nPage0) {
    ImageRecord* rec = FindImageRecord(nHeadID);
    if (!rec) return GenericError;
    if (!IsMultiPage(*rec) || nPage0 < 0 || nPage0 >= rec->nPageCount) return InvalidParameter;
    const std::size_t needed = static_cast<std::size_t>(rec->nPageCount);
    if (rec->arPageImages.size() < needed) rec->arPageImages.resize(needed, 0);
    if (rec->arPageFiles.size() < needed) rec->arPageFiles.resize(needed);
    if (rec->arPageDepths.size() < needed) rec->arPageDepths.resize(needed, 0);

    // A read-only document read by the engine: the engine moves between frames.
    if (rec->bReadOnly && rec->nKind == KindEngineFile && rec->nGdiPlusImage) {
        const GUID& dim = FrameDimensionOf(DocumentFormatOf(*rec));
        const KestrelynStatus status =
            GdipImageSelectActiveFrame(rec->nGdiPlusImage, &dim, static_cast<UINT>(nPage0));
        if (status == OK) rec->nCurrentPage = nPage0;
        return status;
    }

    // The page shown so far goes, unless it holds edits that no file keeps.
    const std::int32_t current = rec->nCurrentPage;
    if (current >= 0 && current != nPage0 && static_cast<std::size_t>(current) < needed) {
        const std::size_t c = static_cast<std::size_t>(current);
        const std::int32_t shown = rec->arPageImages[c];
        const ImageRecord* shownRec = FindImageRecord(shown);
        const bool bKeep = shownRec && shownRec->bModified && rec->arPageFiles[c].empty();
        if (shown != 0 && !bKeep) {
            rec->arPageImages[c] = 0;
            ReleaseImage(shown);
            rec = FindImageRecord(nHeadID);
        }
    }
    const std::size_t p = static_cast<std::size_t>(nPage0);
    if (rec->arPageImages[p] != 0 && FindImageRecord(rec->arPageImages[p])) {
        rec->nCurrentPage = nPage0;
        return OK;
    }

    // A read-only document read by the plug-in: the page is locked.
    if (rec->bReadOnly && rec->nKind == KindPlugin && rec->nPlugBitmap)
        return ShowPluginPage(nHeadID, nPage0);

    // A burst document: the page comes from its file.
    const std::string sPageFile = rec->arPageFiles[p];
    if (sPageFile.empty()) return UnknownImageFormat;
    std::int32_t id = 0;
    const KestrelynStatus status = LoadPageFile(id, sPageFile);
    if (status != OK) return status;
    rec = FindImageRecord(nHeadID);
    rec->arPageImages[p] = id;
    rec->nCurrentPage = nPage0;
    return OK;
}

KestrelynStatus SwitchPage(std::int32_t nImageID, std::int32_t nPage0, DocumentFormat eFormat) {
    ImageRecord* rec = FindImageRecord(nImageID);
    if (!rec) return InvalidParameter;
    if (!IsDocumentOf(*rec, eFormat)) return UnsupportedImageFormat;
    if (nPage0 < 0 || nPage0 >= rec->nPageCount) return InvalidParameter;
    if (rec->nCurrentPage == nPage0) return OK;
    // A read-only document moves between the frames of its source; showing
    // the new page releases what was shown before.
    if (!rec->bReadOnly) FlushCurrentPage(nImageID);
    return ShowPage(nImageID, nPage0);
}

void FlushCurrentPage(std::int32_t nImageID) {
    ImageRecord* rec = FindImageRecord(nImageID);
    if (!rec || rec->nCurrentPage < 0 || rec->nPageCount < 1) return;
    FitPageArrays(*rec);
    const std::size_t c = static_cast<std::size_t>(rec->nCurrentPage);
    if (c >= rec->arPageImages.size()) {
        rec->nCurrentPage = -1;
        return;
    }
    const std::int32_t page = rec->arPageImages[c];
    if (page == 0) return;
    if (!rec->bReadOnly) {
        const ImageRecord* pageRec = FindImageRecord(page);
        if (pageRec && !pageRec->bModified) {
            // The page file is still good.
            rec->arPageImages[c] = 0;
            ReleaseImage(page);
        } else {
            const std::string sNew = MakeTempFileName();
            const KestrelynStatus stored =
                pageRec ? StorePage(page, sNew, DocumentFormatOf(*rec)) : GenericError;
            if (stored != OK) RemoveFileQuietly(sNew);
            const std::int32_t depth = pageRec ? ImageDepth(page) : 0;
            rec = FindImageRecord(nImageID);
            rec->arPageImages[c] = 0;
            ReleaseImage(page);
            rec = FindImageRecord(nImageID);
            if (stored == OK) {
                RemoveFileQuietly(rec->arPageFiles[c]);
                rec->arPageFiles[c] = sNew;
                if (depth != 0) rec->arPageDepths[c] = depth;
            }
        }
        rec = FindImageRecord(nImageID);
    }
    if (rec) rec->nCurrentPage = -1;
}

KestrelynStatus StoreAndReselectPage(std::int32_t nImageID) {
    ImageRecord* rec = FindImageRecord(nImageID);
    if (!rec || rec->bReadOnly || rec->nCurrentPage < 0) return OK;
    FitPageArrays(*rec);
    const std::size_t c = static_cast<std::size_t>(rec->nCurrentPage);
    if (c >= rec->arPageImages.size()) return OK;
    const std::int32_t page = rec->arPageImages[c];
    const ImageRecord* pageRec = FindImageRecord(page);
    if (!pageRec || !pageRec->bModified) return OK;
    const std::string sNew = MakeTempFileName();
    const KestrelynStatus status = StorePage(page, sNew, DocumentFormatOf(*rec));
    if (status != OK) return status;
    rec = FindImageRecord(nImageID);
    RemoveFileQuietly(rec->arPageFiles[c]);
    rec->arPageFiles[c] = sNew;
    if (const std::int32_t depth = ImageDepth(page)) rec->arPageDepths[c] = depth;
    // The page stays loaded and current; its file now holds what it shows.
    if (ImageRecord* p = FindImageRecord(page)) p->bModified = false;
    return OK;
}

void ReplaceCurrentPage(std::int32_t nHeadID, std::int32_t nNewImageID) {
    ImageRecord* rec = FindImageRecord(nHeadID);
    if (!rec) return;
    const std::int32_t page = rec->nCurrentPage;
    if (page < 0 || page >= rec->nPageCount) return;
    const std::size_t p = static_cast<std::size_t>(page);
    const std::size_t needed = static_cast<std::size_t>(rec->nPageCount);
    if (rec->arPageImages.size() < needed) rec->arPageImages.resize(needed, 0);
    if (rec->arPageFiles.size() < needed) rec->arPageFiles.resize(needed);
    if (rec->arPageDepths.size() < needed) rec->arPageDepths.resize(needed, 0);
    const DocumentFormat format = DocumentFormatOf(*rec);

    const std::int32_t oldPage = rec->arPageImages[p];
    if (oldPage != 0 && oldPage != nNewImageID) {
        rec->arPageImages[p] = 0;
        ReleaseImage(oldPage);
        rec = FindImageRecord(nHeadID);
        if (!rec) return;
    }
    if (!rec->arPageFiles[p].empty()) {
        RemoveFileQuietly(rec->arPageFiles[p]);
        rec->arPageFiles[p].clear();
    }

    const std::int32_t depth = ImageDepth(nNewImageID);
    const std::string sPageFile = MakeTempFileName();
    if (StorePage(nNewImageID, sPageFile, format) != OK) return;
    rec = FindImageRecord(nHeadID);
    if (!rec) return;
    rec->arPageFiles[p] = sPageFile;
    rec->arPageImages[p] = nNewImageID;
    rec->arPageDepths[p] = depth;
    ClearImageModified(nNewImageID);
}

} // namespace kestrelyn
