// Inner loading routines shared by the Imaging operations, the viewers, the
// PDF image path and the multi-page store.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "kestrelyn/KestrelynStatus.h"
#include "kestrelyn/Types.h"
#include "platform/modGdiPlus.h"

namespace kestrelyn {

// A load path made plain: trimmed, "\" turned into "/", doubled separators
// collapsed after the start, a leading "//" kept. Paths of 3 characters or
// fewer are only trimmed and slashed.
std::string NormaliseLoadPath(const std::string& sFilePath);

// Loads a file into the registry, choosing the decoder: the plug-in first and
// the engine second, the engine first with bICM or bDisableKyimgplug, and the
// host picture loader last. Without bNoDialog an empty path asks the user.
KestrelynStatus LoadImageFile(std::int32_t& nImageID, const std::string& sFilePath, bool bICM,
                              bool bDisableKyimgplug, bool bTiffReadOnly, HWND nOwnerWindow,
                              bool bNoDialog, bool bGifReadOnly);
KestrelynStatus LoadByEngine(const std::string& sFilePath, std::int32_t& nImageID, bool bICM,
                             bool bTiffReadOnly, bool bGifReadOnly);
// Turns an engine image of a multi-page TIFF or GIF into a multi-page record
// (bursting its pages into files unless read-only). nResultID is the image
// to use: nImageID itself, or the new head.
KestrelynStatus OpenMultiPageAfterLoad(const std::string& sFilePath, std::int32_t nImageID,
                                       std::int32_t& nResultID, bool bTiffReadOnly,
                                       bool bGifReadOnly);
KestrelynStatus LoadImageFromBytes(std::int32_t& nImageID, const std::vector<std::uint8_t>& arBytes,
                                   bool bICM, bool bTiffReadOnly, bool bGifReadOnly);
KestrelynStatus LoadImageFromStream(std::int32_t& nImageID, const StreamPtr& oStream, bool bICM);
KestrelynStatus LoadByPicture(std::int32_t& nImageID, const std::string& sFilePath);
KestrelynStatus LoadImageFromPicture(std::int32_t& nImageID, PictureHandle oPicture);
KestrelynStatus LoadImageFromDIB(std::int32_t& nImageID, HGLOBAL hDib, bool bKeepMemory);
KestrelynStatus LoadImageFromClipboard(std::int32_t& nImageID);

// Stores one page in a file by the page rule of multi-page documents: TIFF
// pages as LZW-compressed TIFF (depth kept), GIF pages as PNG.
KestrelynStatus StorePageImage(GpImage* pPage, const std::string& sFilePath, bool bGif);

// Makes page nIndex (0-based) the current page of a multi-page head: a burst
// page is loaded from its file (read-only, no dialog) into arPageImages, a
// read-only engine document selects its frame, a read-only plug-in document
// locks the page. The page shown before is released. Unknown id: 1; an index
// out of range or a head that is not multi-page: 2.
KestrelynStatus SelectPage(std::int32_t nHeadImageID, std::int32_t nIndex);

} // namespace kestrelyn
