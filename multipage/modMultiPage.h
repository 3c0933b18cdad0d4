// The editable multi-page store: a document is a head record whose pages are
// temporary files (TIFF pages as LZW TIFF, GIF pages as PNG); only the current
// page is decoded. Inner routines shared by the Tiff and Gif families, the PDF
// operations and the viewers. sFormat is "TIFF" or "GIF"; pages are 0-based
// here (nPage0) unless named otherwise.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "kestrelyn/KestrelynStatus.h"

namespace kestrelyn {

// Stores a page image by the page rule: TIFF LZW at its own depth, or PNG.
KestrelynStatus StorePageByRule(std::int32_t nImageID, const std::string& sFilePath, bool bGif);

// Makes nPage0 the current page: the page being left is stored first when it
// changed. Unknown id 2, wrong kind 22, page out of range 2.
KestrelynStatus SelectPage(std::int32_t nImageID, std::int32_t nPage0, const std::string& sFormat);
// Stores the current page if it changed and lets its image go; no page is
// current afterwards.
void FlushCurrentPage(std::int32_t nImageID, const std::string& sFormat);
// Writes a changed current page to a new file and keeps it current.
KestrelynStatus StoreAndReselectPage(std::int32_t nImageID);
// A one-page document holding a copy of an image; page 1 is selected.
KestrelynStatus MakeDocumentFromImage(std::int32_t nImageID, std::int32_t& nNewID,
                                      const std::string& sFormat);
// Inserts a copy of an image before page nPosition (1-based, clamped).
KestrelynStatus InsertPage(std::int32_t nImageID, std::int32_t nPosition, std::int32_t nAddImageID,
                           const std::string& sFormat);
// nPage, nPage1, nPage2 are 1-based.
KestrelynStatus DeletePage(std::int32_t nImageID, std::int32_t nPage, const std::string& sFormat);
KestrelynStatus SwapPages(std::int32_t nImageID, std::int32_t nPage1, std::int32_t nPage2,
                          const std::string& sFormat);
// Writes every page of an editable TIFF document into one multi-page file.
KestrelynStatus SaveTiffPages(std::int32_t nImageID, const std::string& sFilePath,
                              std::int32_t nCompression);

// True for a head with the format's flag set and not read-only.
bool IsEditableDocument(std::int32_t nImageID, const std::string& sFormat);

// Loads a page file as a plain image, never as a document of its own.
KestrelynStatus LoadPageFile(std::int32_t& nImageID, const std::string& sFilePath);
// Writes the page files, in order, as one multi-page TIFF (empty names are
// skipped); on a failure the TIFF is removed.
KestrelynStatus WritePageFilesAsTiff(const std::vector<std::string>& arFiles,
                                     const std::string& sFilePath, std::int32_t nCompression);

} // namespace kestrelyn
