// The page store of multi-page TIFF and GIF documents: the one owner of the
// page mechanics that the loader, the registry and the document operations
// share. An editable document is burst into one temporary file per page and
// only its current page is decoded; a read-only document keeps its source
// open and moves between the source's frames (engine) or locks its pages
// (codec plug-in). Pages are 0-based here (nPage0).
#pragma once
#include <cstdint>
#include <string>

#include "core/modMain.h"
#include "kestrelyn/KestrelynStatus.h"

namespace kestrelyn {

// The two kinds of multi-page document.
enum class DocumentFormat { Tiff, Gif };

// The format name that the registry reports for a document ("TIFF", "GIF").
std::string DocumentFormatName(DocumentFormat eFormat);
// The format of a head record: GIF when its GIF flag is set, else TIFF.
DocumentFormat DocumentFormatOf(const ImageRecord& rec);
// True when the head carries the flag of the format.
bool IsDocumentOf(const ImageRecord& rec, DocumentFormat eFormat);
// True for a head of the format that is not read-only; an unknown id is false.
bool IsEditableDocument(std::int32_t nImageID, DocumentFormat eFormat);

// Gives a new head nCount pages: the five page arrays sized, zero-filled.
void SizePageArrays(ImageRecord& rec, std::int32_t nCount);
// Fits the five page arrays to nPageCount, keeping their contents; new
// entries get delay 25 and disposal -1.
void FitPageArrays(ImageRecord& rec);

// The page rule, the one writer of page files: TIFF pages as LZW TIFF at
// their own depth, GIF pages as PNG. Both are lossless, so a page survives any
// number of stores. On a failure the file is removed.
KestrelynStatus StorePage(std::int32_t nImageID, const std::string& sFilePath,
                          DocumentFormat eFormat);
// Loads a page file as a plain image, never as a document of its own.
KestrelynStatus LoadPageFile(std::int32_t& nImageID, const std::string& sFilePath);

// Bursting: every page of a source goes to a page file of the head (named in
// arPageFiles, its depth in arPageDepths); a page that fails is passed over.
// Each returns the number of pages stored. The engine route selects the
// frames of the registered source image nSourceID in turn; the plug-in route
// locks the pages of the multi-bitmap nMulti.
std::int32_t BurstEngineFrames(std::int32_t nSourceID, std::int32_t nHeadID);
std::int32_t BurstPluginPages(std::intptr_t nMulti, std::int32_t nHeadID);
// Ends a burst: with no page stored the head is released (13); otherwise page
// 0 is shown, and a failure to show it releases the head too.
KestrelynStatus FinishBurst(std::int32_t nHeadID, std::int32_t nStored);

// Makes nPage0 the current page without storing the page being left, whose
// image goes unless it holds edits that no file keeps. A burst page is loaded
// from its file, a read-only engine document moves its frame, a read-only
// plug-in document locks the page. Unknown id 1; not a document or page out
// of range 2; a burst page without a file 13.
KestrelynStatus ShowPage(std::int32_t nHeadID, std::int32_t nPage0);
// Leaves the current page (stored first when it changed, in an editable
// document) and shows nPage0. Unknown id 2, not a document of the format 22,
// page out of range 2; the current page again writes nothing.
KestrelynStatus SwitchPage(std::int32_t nImageID, std::int32_t nPage0, DocumentFormat eFormat);
// Stores the current page if it changed and lets its image go; no page is
// current afterwards. A read-only document only forgets its current page.
void FlushCurrentPage(std::int32_t nImageID);
// Writes a changed current page to a new file and keeps it loaded and
// current (a save must see the current pixels).
KestrelynStatus StoreAndReselectPage(std::int32_t nImageID);
// The replacement of an editable document's current page (ReplaceImage): the
// old page image and file go, nNewImageID is stored by the page rule and
// becomes the page. A failed store leaves the page without image or file.
void ReplaceCurrentPage(std::int32_t nHeadID, std::int32_t nNewImageID);

} // namespace kestrelyn
