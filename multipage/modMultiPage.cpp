// The editable multi-page store and the Tiff operations of Imaging.
#include "multipage/modMultiPage.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sys/stat.h>
#include <utility>
#include <vector>

#include "core/ImagingLoad.h"
#include "core/ImagingSave.h"
#include "core/cImaging.h"
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

void RemoveFile(const std::string& sPath) {
    if (!sPath.empty()) std::remove(sPath.c_str());
}

bool FileExists(const std::string& sPath) {
    struct stat st {};
    return !sPath.empty() && ::stat(sPath.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

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
    if (status != OK) RemoveFile(sFilePath);
    return status;
}

KestrelynStatus PageStoreHook(std::int32_t, std::int32_t nPageImageID, const std::string& sFilePath,
                              bool bGif) {
    return StorePageByRule(nPageImageID, sFilePath, bGif);
}

const bool kPageStoreInstalled = (SetPageStoreHook(&PageStoreHook), true);

} // namespace

KestrelynStatus StorePageByRule(std::int32_t nImageID, const std::string& sFilePath, bool bGif) {
    (void)kPageStoreInstalled;
    const KestrelynStatus status = bGif ? SaveByEngine(nImageID, sFilePath, "*.png")
                                        : SaveAsTiffFile(nImageID, sFilePath, CompressionLZW, 0);
    if (status != OK) RemoveFile(sFilePath);
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
                RemoveFile(rec->arPageFiles[c]);
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
    RemoveFile(rec->arPageFiles[c]);
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
    RemoveFile(rec->arPageFiles[at]);
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

// ---------------------------------------------------------------------------
// The Imaging operations.

namespace {

bool IsTiffDocument(std::int32_t nImageID) {
    const ImageRecord* rec = FindImageRecord(nImageID);
    return rec && rec->bMultiPageTiff;
}

// Opens a file as an editable TIFF document (a read-only GIF or a one-page
// file becomes a one-page document).
std::int32_t CreateDocumentFromFile(cImaging& self, const std::string& sFilePath, bool bICM) {
    std::int32_t id = 0;
    self.nStatus =
        LoadImageFile(id, sFilePath, bICM, self.bDisableKyimgplugCodecs, false, 0, true, true);
    if (self.nStatus != OK || id == 0) return 0;
    if (IsEditableDocument(id, "TIFF")) {
        self.nNativeImage = id;
        return id;
    }
    std::int32_t doc = 0;
    self.nStatus = MakeDocumentFromImage(id, doc, "TIFF");
    ReleaseImage(id);
    if (self.nStatus != OK) return 0;
    self.nNativeImage = doc;
    return doc;
}

// Copies a file; false on any failure (the copy is then removed).
bool CopyWholeFile(const std::string& sFrom, const std::string& sTo) {
    std::error_code ec;
    if (std::filesystem::copy_file(sFrom, sTo, std::filesystem::copy_options::overwrite_existing,
                                   ec))
        return true;
    RemoveFile(sTo);
    return false;
}

} // namespace

std::int32_t cImaging::TiffCreateMultiPageFromFile(const std::string& sFilePath) {
    return CreateDocumentFromFile(*this, sFilePath, false);
}

std::int32_t cImaging::TiffCreateMultiPageFromFileICM(const std::string& sFilePath) {
    return CreateDocumentFromFile(*this, sFilePath, true);
}

std::int32_t cImaging::TiffCreateMultiPageFromKestrelynImage(std::int32_t nImageID) {
    if (!FindImageRecord(nImageID) || !ResolveGdiPlusImage(nImageID)) {
        nStatus = InvalidParameter;
        return 0;
    }
    std::int32_t doc = 0;
    nStatus = MakeDocumentFromImage(nImageID, doc, "TIFF");
    if (nStatus != OK) return 0;
    nNativeImage = doc;
    return doc;
}

bool cImaging::TiffIsMultiPage(std::int32_t nImageID) {
    return IsTiffDocument(nImageID);
}

bool cImaging::TiffIsEditableMultiPage(std::int32_t nImageID) {
    return IsEditableDocument(nImageID, "TIFF");
}

std::int32_t cImaging::TiffGetPageCount(std::int32_t nImageID) {
    if (!IsTiffDocument(nImageID)) {
        nStatus = UnsupportedImageFormat;
        return 0;
    }
    return FindImageRecord(nImageID)->nPageCount;
}

std::int32_t cImaging::TiffGetCurrentPage(std::int32_t nImageID) {
    const ImageRecord* rec = FindImageRecord(nImageID);
    if (!rec || !(rec->bMultiPageTiff || rec->bMultiPageGif)) return 0;
    return rec->nCurrentPage + 1;
}

KestrelynStatus cImaging::TiffSelectPage(std::int32_t nImageID, std::int32_t nPage) {
    if (!IsTiffDocument(nImageID)) return nStatus = UnsupportedImageFormat;
    nStatus = SelectPage(nImageID, nPage - 1, "TIFF");
    return nStatus;
}

KestrelynStatus cImaging::TiffInsertPageFromFile(std::int32_t nImageID, std::int32_t nPosition,
                                                 const std::string& sFilePath) {
    if (!IsEditableDocument(nImageID, "TIFF")) return nStatus = UnsupportedImageFormat;
    std::int32_t added = 0;
    nStatus = LoadPageFile(added, sFilePath);
    if (nStatus != OK) return nStatus;
    nStatus = InsertPage(nImageID, nPosition, added, "TIFF");
    ReleaseImage(added);
    return nStatus;
}

KestrelynStatus cImaging::TiffInsertPageFromKestrelynImage(std::int32_t nImageID,
                                                           std::int32_t nPosition,
                                                           std::int32_t nAddImageID) {
    if (!IsEditableDocument(nImageID, "TIFF")) return nStatus = UnsupportedImageFormat;
    nStatus = InsertPage(nImageID, nPosition, nAddImageID, "TIFF");
    return nStatus;
}

KestrelynStatus cImaging::TiffAppendPageFromFile(std::int32_t nImageID,
                                                 const std::string& sFilePath) {
    const ImageRecord* rec = FindImageRecord(nImageID);
    return TiffInsertPageFromFile(nImageID, rec ? rec->nPageCount + 1 : 1, sFilePath);
}

KestrelynStatus cImaging::TiffAppendPageFromKestrelynImage(std::int32_t nImageID,
                                                           std::int32_t nAddImageID) {
    const ImageRecord* rec = FindImageRecord(nImageID);
    return TiffInsertPageFromKestrelynImage(nImageID, rec ? rec->nPageCount + 1 : 1, nAddImageID);
}

KestrelynStatus cImaging::TiffDeletePage(std::int32_t nImageID, std::int32_t nPage) {
    if (!IsEditableDocument(nImageID, "TIFF")) return nStatus = UnsupportedImageFormat;
    nStatus = DeletePage(nImageID, nPage, "TIFF");
    return nStatus;
}

KestrelynStatus cImaging::TiffSwapPages(std::int32_t nImageID, std::int32_t nPage1,
                                        std::int32_t nPage2) {
    if (!IsEditableDocument(nImageID, "TIFF")) return nStatus = UnsupportedImageFormat;
    nStatus = SwapPages(nImageID, nPage1, nPage2, "TIFF");
    return nStatus;
}

KestrelynStatus cImaging::TiffSaveMultiPageToFile(std::int32_t nImageID,
                                                  const std::string& sFilePath,
                                                  TifCompression nModeCompression) {
    nStatus = SaveTiffPages(nImageID, sFilePath, nModeCompression);
    return nStatus;
}

KestrelynStatus cImaging::TiffSaveAsNativeMultiPage(const std::string& sFilePath,
                                                    TifCompression nModeCompression) {
    if (nNativeImage == 0) return nStatus = GenericError;
    nStatus = BeginMultiPageTiff(nNativeImage, sFilePath, nModeCompression);
    if (nStatus == OK) nNativeMultiPage = nNativeImage;
    return nStatus;
}

KestrelynStatus cImaging::TiffAddToNativeMultiPage(std::int32_t nImageID) {
    if (nNativeMultiPage == 0) return nStatus = GenericError;
    nStatus = AddMultiPageTiff(nNativeMultiPage, nImageID);
    return nStatus;
}

KestrelynStatus cImaging::TiffCloseNativeMultiPage() {
    if (!FindImageRecord(nNativeMultiPage)) return nStatus = InvalidParameter;
    const KestrelynStatus finished = FinishMultiPageTiff(nNativeMultiPage);
    nStatus = ReleaseImage(nNativeMultiPage);
    if (nStatus == OK) nStatus = finished;
    return nStatus;
}

KestrelynStatus cImaging::TiffMerge2Files(const std::string& sFilePath1,
                                          const std::string& sFilePath2,
                                          const std::string& sFileDest,
                                          TifCompression nModeCompression) {
    return TiffMergeFiles({sFilePath1, sFilePath2}, sFileDest, nModeCompression);
}

KestrelynStatus cImaging::TiffMergeFiles(const std::vector<std::string>& sFilesPath,
                                         const std::string& sFileDest,
                                         TifCompression nModeCompression) {
    if (sFilesPath.empty()) return nStatus = FileNotFound;
    std::vector<std::string> paths;
    for (const std::string& s : sFilesPath) {
        const std::string p = NormaliseLoadPath(s);
        if (!FileExists(p)) return nStatus = FileNotFound;
        paths.push_back(p);
    }
    std::vector<std::string> temps;
    std::int32_t deepest = 0;
    KestrelynStatus status = OK;
    for (const std::string& sPath : paths) {
        std::int32_t id = 0;
        status = LoadImageFile(id, sPath, false, true, false, 0, true, true);
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
                if (bDoc) SelectPage(id, i);
                status = SaveByEngine(id, sTemp, "*.png");
                if (status != OK) status = GenericError;
                depth = ImageDepth(id);
            }
            if (status == OK) {
                temps.push_back(sTemp);
                deepest = std::max(deepest, depth);
            } else {
                RemoveFile(sTemp);
            }
        }
        ReleaseImage(id);
        if (status != OK) break;
    }
    if (status == OK) {
        const std::int32_t compression = TiffCompressionForDepth(nModeCompression, deepest);
        status = WritePageFilesAsTiff(temps, sFileDest, compression);
    }
    for (const std::string& sTemp : temps)
        RemoveFile(sTemp);
    nStatus = status;
    return nStatus;
}

KestrelynStatus cImaging::TiffMergeFileList(const std::string& sFilesList,
                                            const std::string& sFileDest,
                                            TifCompression nModeCompression) {
    std::vector<std::string> files;
    std::size_t start = 0;
    while (true) {
        const std::size_t comma = sFilesList.find(',', start);
        files.push_back(sFilesList.substr(start, comma == std::string::npos ? std::string::npos
                                                                            : comma - start));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return TiffMergeFiles(files, sFileDest, nModeCompression);
}

} // namespace kestrelyn
