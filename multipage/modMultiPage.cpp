// The editable multi-page store and the Tiff operations of Imaging.
#include "multipage/modMultiPage.h"
#include "platform/Files.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sys/stat.h>
#include <utility>
#include <vector>

#include "core/ImageLoader.h"
#include "core/ImageSaver.h"
#include "core/modMain.h"

namespace kestrelyn {

namespace {

bool IsGifFormat(const std::string& sFormat) {
    return sFormat == "GIF";
}

bool HasFormatFlag(const ImageRecord& rec, const std::string& sFormat) {
    return IsGifFormat(sFormat) ? rec.bMultiPageGif : rec.bMultiPageTiff;
}

// Gives the five page arrays the page count's length.
void FitPageArrays(ImageRecord& rec) {
    const std::size_t n = static_cast<std::size_t>(std::max(0, rec.nPageCount));
    rec.arPageFiles.resize(n);
    rec.arPageImages.resize(n, 0);
    rec.arPageDepths.resize(n, 0);
    rec.arPageDelays.resize(n, 25);
    rec.arPageDisposals.resize(n, -1);
}



KestrelynStatus PageStoreHook(std::int32_t, std::int32_t nPageImageID, const std::string& sFilePath,
                              bool bGif) {
    return StorePageByRule(nPageImageID, sFilePath, bGif);
}

const bool kPageStoreInstalled = (SetPageStoreHook(&PageStoreHook), true);

} // namespace

// A page file is loaded as a plain image: never as a document of its own.
KestrelynStatus LoadPageFile(std::int32_t& nImageID, const std::string& sFilePath) {
    return LoadImageFile(nImageID, sFilePath, false, false, true, 0, true, true);
}

// Writes the page files, in order, as one multi-page TIFF (empty names are
// skipped): the first page starts it, each further one is added; on a
// failure the TIFF is removed.
KestrelynStatus WritePageFilesAsTiff(const std::vector<std::string>& arFiles,
                                     const std::string& sFilePath, std::int32_t nCompression) {
    KestrelynStatus status = OK;
    std::int32_t master = 0;
    for (const std::string& sFile : arFiles) {
        if (sFile.empty()) continue;
        std::int32_t page = 0;
        status = LoadPageFile(page, sFile);
        if (status != OK) break;
        if (master == 0) {
            master = page;
            status = BeginMultiPageTiff(master, sFilePath, nCompression);
        } else {
            status = AddMultiPageTiff(master, page);
            ReleaseImage(page);
        }
        if (status != OK) break;
    }
    if (master != 0) {
        const KestrelynStatus finished = FinishMultiPageTiff(master);
        if (status == OK) status = finished;
        ReleaseImage(master);
    }
    if (status != OK) RemoveFileQuietly(sFilePath);
    return status;
}

KestrelynStatus StorePageByRule(std::int32_t nImageID, const std::string& sFilePath, bool bGif) {
    (void)kPageStoreInstalled;
    const KestrelynStatus status = bGif ? SaveByEngine(nImageID, sFilePath, "*.png")
                                        : SaveAsTiffFile(nImageID, sFilePath, CompressionLZW, 0);
    if (status != OK) RemoveFileQuietly(sFilePath);
    return status;
}

bool IsEditableDocument(std::int32_t nImageID, const std::string& sFormat) {
    const ImageRecord* rec = FindImageRecord(nImageID);
    return rec && HasFormatFlag(*rec, sFormat) && !rec->bReadOnly;
}

void FlushCurrentPage(std::int32_t nImageID, const std::string&) {
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
            rec->arPageImages[c] = 0;
            ReleaseImage(page);
        } else {
            const bool bGif = rec->bMultiPageGif;
            const std::string sNew = MakeTempFileName();
            const KestrelynStatus stored =
                pageRec ? StorePageByRule(page, sNew, bGif) : GenericError;
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

KestrelynStatus SelectPage(std::int32_t nImageID, std::int32_t nPage0, const std::string& sFormat) {
    ImageRecord* rec = FindImageRecord(nImageID);
    if (!rec) return InvalidParameter;
    if (!HasFormatFlag(*rec, sFormat)) return UnsupportedImageFormat;
    if (nPage0 < 0 || nPage0 >= rec->nPageCount) return InvalidParameter;
    if (rec->nCurrentPage == nPage0) return OK;
    // A read-only document moves between the frames of its source; the page
    // selection of the loader releases what it showed before.
    if (!rec->bReadOnly) FlushCurrentPage(nImageID, sFormat);
    return SelectPage(nImageID, nPage0);
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
    const KestrelynStatus status = StorePageByRule(page, sNew, rec->bMultiPageGif);
    if (status != OK) return status;
    rec = FindImageRecord(nImageID);
    RemoveFileQuietly(rec->arPageFiles[c]);
    rec->arPageFiles[c] = sNew;
    if (const std::int32_t depth = ImageDepth(page)) rec->arPageDepths[c] = depth;
    // The page stays loaded and current; its file now holds what it shows.
    if (ImageRecord* p = FindImageRecord(page)) p->bModified = false;
    return OK;
}

KestrelynStatus MakeDocumentFromImage(std::int32_t nImageID, std::int32_t& nNewID,
                                      const std::string& sFormat) {
    nNewID = 0;
    const bool bGif = IsGifFormat(sFormat);
    const std::string sFile = MakeTempFileName();
    KestrelynStatus status = StorePageByRule(nImageID, sFile, bGif);
    if (status != OK) return status;
    const std::int32_t depth = ImageDepth(nImageID);
    std::int32_t head = 0;
    RegisterImage(head, nullptr, bGif ? "GIF" : "TIFF", "", KindEngine);
    ImageRecord* rec = FindImageRecord(head);
    if (bGif)
        rec->bMultiPageGif = true;
    else
        rec->bMultiPageTiff = true;
    rec->nPageCount = 1;
    rec->arPageFiles.assign(1, sFile);
    rec->arPageImages.assign(1, 0);
    rec->arPageDepths.assign(1, depth);
    rec->arPageDelays.assign(1, 25);
    rec->arPageDisposals.assign(1, -1);
    std::int32_t page = 0;
    status = LoadPageFile(page, sFile);
    rec = FindImageRecord(head);
    if (status != OK) {
        ReleaseImage(head); // the page file goes with it
        return status;
    }
    rec->arPageImages[0] = page;
    rec->nCurrentPage = 0;
    nNewID = head;
    return OK;
}

KestrelynStatus InsertPage(std::int32_t nImageID, std::int32_t nPosition, std::int32_t nAddImageID,
                           const std::string& sFormat) {
    ImageRecord* rec = FindImageRecord(nImageID);
    if (!rec || !HasFormatFlag(*rec, sFormat) || rec->bReadOnly) return GenericError;
    nPosition = std::clamp(nPosition, 1, rec->nPageCount + 1);
    if (!FindImageRecord(nAddImageID)) return GenericError;
    const std::string sFile = MakeTempFileName();
    const KestrelynStatus status = StorePageByRule(nAddImageID, sFile, IsGifFormat(sFormat));
    if (status != OK) return status;
    const std::int32_t depth = ImageDepth(nAddImageID);
    rec = FindImageRecord(nImageID);
    FitPageArrays(*rec);
    const std::size_t at = static_cast<std::size_t>(nPosition - 1);
    rec->nPageCount += 1;
    if (rec->nCurrentPage >= nPosition - 1) rec->nCurrentPage += 1;
    rec->arPageFiles.insert(rec->arPageFiles.begin() + static_cast<std::ptrdiff_t>(at), sFile);
    rec->arPageImages.insert(rec->arPageImages.begin() + static_cast<std::ptrdiff_t>(at), 0);
    rec->arPageDepths.insert(rec->arPageDepths.begin() + static_cast<std::ptrdiff_t>(at), depth);
    rec->arPageDelays.insert(rec->arPageDelays.begin() + static_cast<std::ptrdiff_t>(at), 25);
    rec->arPageDisposals.insert(rec->arPageDisposals.begin() + static_cast<std::ptrdiff_t>(at), -1);
    return OK;
}

KestrelynStatus DeletePage(std::int32_t nImageID, std::int32_t nPage, const std::string& sFormat) {
    ImageRecord* rec = FindImageRecord(nImageID);
    if (!rec || !HasFormatFlag(*rec, sFormat) || rec->bReadOnly) return UnsupportedImageFormat;
    if (nPage < 1 || nPage > rec->nPageCount) return InvalidParameter;
    FitPageArrays(*rec);
    const bool bWasCurrent = rec->nCurrentPage + 1 == nPage;
    if (bWasCurrent) rec->nCurrentPage = -1;
    const std::size_t at = static_cast<std::size_t>(nPage - 1);
    const std::int32_t page = rec->arPageImages[at];
    if (page != 0) {
        rec->arPageImages[at] = 0;
        ReleaseImage(page);
        rec = FindImageRecord(nImageID);
    }
    RemoveFileQuietly(rec->arPageFiles[at]);
    const auto off = static_cast<std::ptrdiff_t>(at);
    rec->arPageFiles.erase(rec->arPageFiles.begin() + off);
    rec->arPageImages.erase(rec->arPageImages.begin() + off);
    rec->arPageDepths.erase(rec->arPageDepths.begin() + off);
    rec->arPageDelays.erase(rec->arPageDelays.begin() + off);
    rec->arPageDisposals.erase(rec->arPageDisposals.begin() + off);
    rec->nPageCount -= 1;
    if (!bWasCurrent) {
        if (rec->nCurrentPage > nPage - 1) rec->nCurrentPage -= 1;
    } else {
        if (nPage - 1 >= rec->nPageCount) nPage -= 1;
        SelectPage(nImageID, nPage - 1, sFormat); // nothing to select once empty
    }
    return OK;
}

KestrelynStatus SwapPages(std::int32_t nImageID, std::int32_t nPage1, std::int32_t nPage2,
                          const std::string& sFormat) {
    ImageRecord* rec = FindImageRecord(nImageID);
    if (!rec || !HasFormatFlag(*rec, sFormat) || rec->bReadOnly) return GenericError;
    if (nPage1 < 1 || nPage1 > rec->nPageCount || nPage2 < 1 || nPage2 > rec->nPageCount)
        return InvalidParameter;
    FitPageArrays(*rec);
    if (rec->nCurrentPage + 1 == nPage1)
        rec->nCurrentPage = nPage2 - 1;
    else if (rec->nCurrentPage + 1 == nPage2)
        rec->nCurrentPage = nPage1 - 1;
    const std::size_t a = static_cast<std::size_t>(nPage1 - 1),
                      b = static_cast<std::size_t>(nPage2 - 1);
    std::swap(rec->arPageFiles[a], rec->arPageFiles[b]);
    std::swap(rec->arPageImages[a], rec->arPageImages[b]);
    std::swap(rec->arPageDepths[a], rec->arPageDepths[b]);
    std::swap(rec->arPageDelays[a], rec->arPageDelays[b]);
    std::swap(rec->arPageDisposals[a], rec->arPageDisposals[b]);
    return OK;
}

KestrelynStatus SaveTiffPages(std::int32_t nImageID, const std::string& sFilePath,
                              std::int32_t nCompression) {
    ImageRecord* rec = FindImageRecord(nImageID);
    if (!rec) return InvalidParameter;
    if (!rec->bMultiPageTiff || rec->bReadOnly) return UnsupportedImageFormat;
    KestrelynStatus status = StoreAndReselectPage(nImageID);
    if (status != OK) return status;
    rec = FindImageRecord(nImageID);
    FitPageArrays(*rec);
    const std::int32_t deepest =
        rec->arPageDepths.empty()
            ? 0
            : *std::max_element(rec->arPageDepths.begin(), rec->arPageDepths.end());
    nCompression = TiffCompressionForDepth(nCompression, deepest);
    const std::vector<std::string> files = rec->arPageFiles; // the loads reshape the table
    return WritePageFilesAsTiff(files, sFilePath, nCompression);
}

} // namespace kestrelyn
