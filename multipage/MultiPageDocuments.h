// The document operations of the editable multi-page store, built on the page
// store of core/: documents made from images, page insertion, deletion and
// swapping, the save of all pages into one TIFF and the merge of files into
// one. Shared by the Tiff and Gif families, the PDF operations and the
// viewers. Pages are 1-based here unless named nPage0.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "core/PageStore.h"
#include "kestrelyn/KestrelynStatus.h"

namespace kestrelyn {

// A one-page document holding a copy of an image; page 1 is current.
KestrelynStatus MakeDocumentFromImage(std::int32_t nImageID, std::int32_t& nNewID,
                                      DocumentFormat eFormat);
// Inserts a copy of an image before page nPosition (clamped to 1 .. count + 1);
// the same page stays current. Unknown head, not editable or unknown image: 1.
KestrelynStatus InsertPage(std::int32_t nImageID, std::int32_t nPosition, std::int32_t nAddImageID,
                           DocumentFormat eFormat);
// Not editable: 22; page out of range: 2. Deleting the current page shows
// the page that takes its place (the new last one at the end).
KestrelynStatus DeletePage(std::int32_t nImageID, std::int32_t nPage, DocumentFormat eFormat);
// Not editable: 1; page out of range: 2. The current page follows its content.
KestrelynStatus SwapPages(std::int32_t nImageID, std::int32_t nPage1, std::int32_t nPage2,
                          DocumentFormat eFormat);
// Writes every page of an editable TIFF document into one multi-page file;
// one compression for the whole file, fixed by the deepest page. The
// document stays open and editable.
KestrelynStatus SaveTiffPages(std::int32_t nImageID, const std::string& sFilePath,
                              std::int32_t nCompression);

// Writes the page files, in order, as one multi-page TIFF (empty names are
// skipped); on a failure the target is left as it was.
KestrelynStatus WritePageFilesAsTiff(const std::vector<std::string>& arFiles,
                                     const std::string& sFilePath, std::int32_t nCompression);
// Merges files, in order, into one multi-page TIFF: every page of a document,
// a plain image as one page. A missing file: 10 and nothing is done. No
// temporary file is left behind.
KestrelynStatus MergeFilesAsTiff(const std::vector<std::string>& arFiles,
                                 const std::string& sFileDest, std::int32_t nCompression);

} // namespace kestrelyn
