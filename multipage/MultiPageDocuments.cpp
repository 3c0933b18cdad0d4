// The document operations of the editable multi-page store.
#include "multipage/MultiPageDocuments.h"

#include <algorithm>
#include <filesystem>
#include <utility>
#include <vector>

#include "core/ImageLoader.h"
#include "core/ImageSaver.h"
#include "core/modMain.h"
#include "platform/Files.h"
#include "platform/SafeFile.h"

namespace kestrelyn {

namespace {

bool IsEditableHead(const ImageRecord* rec, DocumentFormat eFormat) {
    return rec && IsDocumentOf(*rec, eFormat) && !rec->bReadOnly;
}

// Copies a file; false on any failure (the copy is then removed).
bool CopyWholeFile(const std::string& sFrom, const std::string& sTo) {
    std::error_code ec;
    if (std::filesystem::copy_file(sFrom, sTo, std::filesystem::copy_options::overwrite_existing,
                                   ec))
        return true;
    RemoveFileQuietly(sTo);
    return false;
}

} // namespace

KestrelynStatus MakeDocumentFromImage(std::int32_t nImageID, std::int32_t& nNewID,
                                      DocumentFormat eFormat) {
    nNewID = 0;
    const std::string sFile = MakeTempFileName();
    KestrelynStatus status = StorePage(nImageID, sFile, eFormat);
    if (status != OK) return status;
    const std::int32_t depth = ImageDepth(nImageID);
    std::int32_t head = 0;
    RegisterImage(head, nullptr, DocumentFormatName(eFormat), "", KindEngine);
    ImageRecord* rec = FindImageRecord(head);
    if (eFormat == DocumentFormat::Gif)
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
                           DocumentFormat eFormat) {
    ImageRecord* rec = FindImageRecord(nImageID);
    if (!IsEditableHead(rec, eFormat)) return GenericError;
    nPosition = std::clamp(nPosition, 1, rec->nPageCount + 1);
    if (!FindImageRecord(nAddImageID)) return GenericError;
    const std::string sFile = MakeTempFileName();
    const KestrelynStatus status = StorePage(nAddImageID, sFile, eFormat);
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

KestrelynStatus DeletePage(std::int32_t nImageID, std::int32_t nPage, DocumentFormat eFormat) {
    ImageRecord* rec = FindImageRecord(nImageID);
    if (!IsEditableHead(rec, eFormat)) return UnsupportedImageFormat;
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
        SwitchPage(nImageID, nPage - 1, eFormat); // nothing to show once empty
    }
    return OK;
}

KestrelynStatus SwapPages(std::int32_t nImageID, std::int32_t nPage1, std::int32_t nPage2,
                          DocumentFormat eFormat) {
    ImageRecord* rec = FindImageRecord(nImageID);
    if (!IsEditableHead(rec, eFormat)) return GenericError;
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
    if (!IsEditableHead(rec, DocumentFormat::Tiff)) return UnsupportedImageFormat;
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

// The first page starts the file, each further one is added. The pages go
// to a file beside the target, which replaces it only when every page was
// written.
KestrelynStatus WritePageFilesAsTiff(const std::vector<std::string>& arFiles,
                                     const std::string& sFilePath, std::int32_t nCompression) {
    SafeFile output;
    if (!output.Begin(sFilePath)) return Win32Error;
    KestrelynStatus status = OK;
    std::int32_t master = 0;
    for (const std::string& sFile : arFiles) {
        if (sFile.empty()) continue;
        std::int32_t page = 0;
        status = LoadPageFile(page, sFile);
        if (status != OK) break;
        if (master == 0) {
            master = page;
            status = BeginMultiPageTiff(master, output.TempPath(), nCompression);
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
    // No page at all writes nothing.
    if (status == OK && master != 0 && !output.Commit()) status = Win32Error;
    return status;
}

// Every page goes to a temporary file of its own first (a document's page
// file is copied, a plain image is written as PNG), then the files are
// written as one TIFF.
KestrelynStatus MergeFilesAsTiff(const std::vector<std::string>& arFiles,
                                 const std::string& sFileDest, std::int32_t nCompression) {
    if (arFiles.empty()) return FileNotFound;
    std::vector<std::string> paths;
    for (const std::string& s : arFiles) {
        const std::string p = NormaliseFilePath(s);
        if (!IsRegularFile(p)) return FileNotFound;
        paths.push_back(p);
    }
    // Editable TIFF documents give their page files; GIF documents stay in
    // their source.
    const LoadOptions oOptions{.bDisableKyimgplug = true, .bGifReadOnly = true};
    std::vector<std::string> temps;
    std::int32_t deepest = 0;
    KestrelynStatus status = OK;
    for (const std::string& sPath : paths) {
        std::int32_t id = 0;
        status = LoadImageFile(id, sPath, oOptions);
        if (status != OK) break;
        const ImageRecord* rec = FindImageRecord(id);
        const bool bDoc = rec && (rec->bMultiPageTiff || rec->bMultiPageGif);
        const std::int32_t pages = bDoc ? std::max(1, rec->nPageCount) : 1;
        for (std::int32_t i = 0; i < pages && status == OK; ++i) {
            const std::string sTemp = MakeTempFileName();
            rec = FindImageRecord(id);
            const bool bHasFile = bDoc && static_cast<std::size_t>(i) < rec->arPageFiles.size() &&
                                  !rec->arPageFiles[static_cast<std::size_t>(i)].empty();
            std::int32_t depth = 0;
            if (bHasFile) {
                if (!CopyWholeFile(rec->arPageFiles[static_cast<std::size_t>(i)], sTemp))
                    status = GenericError;
                depth = rec->arPageDepths[static_cast<std::size_t>(i)];
            } else {
                // A plain image, or a page that only its source holds.
                if (bDoc) ShowPage(id, i);
                status = SaveByEngine(id, sTemp, "*.png");
                if (status != OK) status = GenericError;
                depth = ImageDepth(id);
            }
            if (status == OK) {
                temps.push_back(sTemp);
                deepest = std::max(deepest, depth);
            } else {
                RemoveFileQuietly(sTemp);
            }
        }
        ReleaseImage(id);
        if (status != OK) break;
    }
    if (status == OK) {
        const std::int32_t compression = TiffCompressionForDepth(nCompression, deepest);
        status = WritePageFilesAsTiff(temps, sFileDest, compression);
    }
    for (const std::string& sTemp : temps)
        RemoveFileQuietly(sTemp);
    return status;
}

} // namespace kestrelyn
