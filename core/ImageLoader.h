// Inner loading routines shared by the Imaging operations, the viewers, the
// PDF image path and the page store.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "kestrelyn/KestrelynStatus.h"
#include "kestrelyn/Types.h"
#include "platform/modGdiPlus.h"

namespace kestrelyn {

// The one rule for the path of every file the library reads or writes, so
// that a save and a load of the same name reach the same file: trimmed, "\"
// turned into "/", doubled separators collapsed after the start, a leading
// "//" kept. Paths of 3 characters or fewer are only trimmed and slashed.
std::string NormaliseFilePath(const std::string& sFilePath);

// How a file is loaded. The defaults are those of an inner load: no colour
// management, the plug-in allowed, multi-page files editable, no dialog.
struct LoadOptions {
    bool bICM = false;              // colour-managed decode (the engine goes first)
    bool bDisableKyimgplug = false; // the codec plug-in is not asked
    bool bTiffReadOnly = false;     // a multi-page TIFF stays in its source
    bool bGifReadOnly = false;      // a multi-page GIF stays in its source
    bool bNoDialog = true;          // an empty path fails instead of asking the user
    HWND nOwnerWindow = 0;          // owner of that dialog (the host services pick their own)
};

// Loads a file into the registry, choosing the decoder: the plug-in first and
// the engine second, the engine first with bICM or bDisableKyimgplug, and the
// host picture loader last.
KestrelynStatus LoadImageFile(std::int32_t& nImageID, const std::string& sFilePath,
                              const LoadOptions& oOptions = {});
// The engine's decode of a file (bICM and the read-only flags count), then
// the multi-page step.
KestrelynStatus LoadByEngine(const std::string& sFilePath, std::int32_t& nImageID,
                             const LoadOptions& oOptions);
// Turns an engine image of a multi-page TIFF or GIF into a multi-page record:
// read-only (by the options' flag for the format) the image's own record
// becomes the head, else the pages are burst into files and the image goes.
// nResultID is the image to use: nImageID itself, or the new head.
KestrelynStatus OpenMultiPageAfterLoad(const std::string& sFilePath, std::int32_t nImageID,
                                       std::int32_t& nResultID, const LoadOptions& oOptions);
// Loads bytes through a temporary file that lives as long as the image. Only
// bICM and the read-only flags count: the plug-in is always allowed and no
// dialog is shown.
KestrelynStatus LoadImageFromBytes(std::int32_t& nImageID, const std::vector<std::uint8_t>& arBytes,
                                   const LoadOptions& oOptions);
KestrelynStatus LoadImageFromStream(std::int32_t& nImageID, const StreamPtr& oStream, bool bICM);
KestrelynStatus LoadByPicture(std::int32_t& nImageID, const std::string& sFilePath);
KestrelynStatus LoadImageFromPicture(std::int32_t& nImageID, PictureHandle oPicture);
KestrelynStatus LoadImageFromDIB(std::int32_t& nImageID, HGLOBAL hDib, bool bKeepMemory);
KestrelynStatus LoadImageFromClipboard(std::int32_t& nImageID);

} // namespace kestrelyn
