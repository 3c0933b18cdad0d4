// The multi-page family of Imaging: editable TIFF documents, the native
// multi-frame writer and the file merges.
#include "imaging/cImaging.h"

#include <vector>

#include "core/ImageLoader.h"
#include "core/ImageSaver.h"
#include "core/modMain.h"
#include "multipage/MultiPageDocuments.h"

namespace kestrelyn {

namespace {

bool IsTiffDocument(std::int32_t nImageID) {
    const ImageRecord* rec = FindImageRecord(nImageID);
    return rec && rec->bMultiPageTiff;
}

// Opens a file as an editable TIFF document (a read-only GIF or a one-page
// file becomes a one-page document).
std::int32_t CreateDocumentFromFile(cImaging& self, const std::string& sFilePath, bool bICM) {
    LoadOptions oOptions;
    oOptions.bICM = bICM;
    oOptions.bDisableKyimgplug = self.bDisableKyimgplugCodecs;
    oOptions.bGifReadOnly = true;
    std::int32_t id = 0;
    self.nStatus = LoadImageFile(id, sFilePath, oOptions);
    if (self.nStatus != OK || id == 0) return 0;
    if (IsEditableDocument(id, DocumentFormat::Tiff)) {
        self.nNativeImage = id;
        return id;
    }
    std::int32_t doc = 0;
    self.nStatus = MakeDocumentFromImage(id, doc, DocumentFormat::Tiff);
    ReleaseImage(id);
    if (self.nStatus != OK) return 0;
    self.nNativeImage = doc;
    return doc;
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
    nStatus = MakeDocumentFromImage(nImageID, doc, DocumentFormat::Tiff);
    if (nStatus != OK) return 0;
    nNativeImage = doc;
    return doc;
}

bool cImaging::TiffIsMultiPage(std::int32_t nImageID) {
    return IsTiffDocument(nImageID);
}

bool cImaging::TiffIsEditableMultiPage(std::int32_t nImageID) {
    return IsEditableDocument(nImageID, DocumentFormat::Tiff);
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
    nStatus = SwitchPage(nImageID, nPage - 1, DocumentFormat::Tiff);
    return nStatus;
}

KestrelynStatus cImaging::TiffInsertPageFromFile(std::int32_t nImageID, std::int32_t nPosition,
                                                 const std::string& sFilePath) {
    if (!IsEditableDocument(nImageID, DocumentFormat::Tiff))
        return nStatus = UnsupportedImageFormat;
    std::int32_t added = 0;
    nStatus = LoadPageFile(added, sFilePath);
    if (nStatus != OK) return nStatus;
    nStatus = InsertPage(nImageID, nPosition, added, DocumentFormat::Tiff);
    ReleaseImage(added);
    return nStatus;
}

KestrelynStatus cImaging::TiffInsertPageFromKestrelynImage(std::int32_t nImageID,
                                                           std::int32_t nPosition,
                                                           std::int32_t nAddImageID) {
    if (!IsEditableDocument(nImageID, DocumentFormat::Tiff))
        return nStatus = UnsupportedImageFormat;
    nStatus = InsertPage(nImageID, nPosition, nAddImageID, DocumentFormat::Tiff);
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
    if (!IsEditableDocument(nImageID, DocumentFormat::Tiff))
        return nStatus = UnsupportedImageFormat;
    nStatus = DeletePage(nImageID, nPage, DocumentFormat::Tiff);
    return nStatus;
}

KestrelynStatus cImaging::TiffSwapPages(std::int32_t nImageID, std::int32_t nPage1,
                                        std::int32_t nPage2) {
    if (!IsEditableDocument(nImageID, DocumentFormat::Tiff))
        return nStatus = UnsupportedImageFormat;
    nStatus = SwapPages(nImageID, nPage1, nPage2, DocumentFormat::Tiff);
    return nStatus;
}

KestrelynStatus cImaging::TiffSaveMultiPageToFile(std::int32_t nImageID,
                                                  const std::string& sFilePath,
                                                  TifCompression nModeCompression) {
    nStatus = SaveTiffPages(nImageID, NormaliseFilePath(sFilePath), nModeCompression);
    return nStatus;
}

KestrelynStatus cImaging::TiffSaveAsNativeMultiPage(const std::string& sFilePath,
                                                    TifCompression nModeCompression) {
    if (nNativeImage == 0) return nStatus = GenericError;
    nStatus = BeginMultiPageTiff(nNativeImage, NormaliseFilePath(sFilePath), nModeCompression);
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
    nStatus = MergeFilesAsTiff(sFilesPath, NormaliseFilePath(sFileDest), nModeCompression);
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
