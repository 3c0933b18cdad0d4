// Host services of the operating system layer: global memory blocks, file
// version reading, and the host-services interface (clipboard, message boxes,
// file dialogs, screen grabs) that a GUI adapter may replace.
#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kestrelyn/Types.h"

namespace kestrelyn {

// --- global memory: movable blocks known by handle ---
constexpr std::uint32_t GMEM_MOVEABLE = 0x0002;
constexpr std::uint32_t GMEM_ZEROINIT = 0x0040;
HGLOBAL GlobalAlloc(std::uint32_t uFlags, std::size_t dwBytes);
void* GlobalLock(HGLOBAL hMem);
bool GlobalUnlock(HGLOBAL hMem);
std::size_t GlobalSize(HGLOBAL hMem);
// Returns 0 on success, the handle back on failure.
HGLOBAL GlobalFree(HGLOBAL hMem);

// --- picture objects: a host picture owns the HBITMAP it wraps ---
PictureHandle OleCreatePictureIndirect(HBITMAP hBitmap, bool bOwn);
HBITMAP PictureGetBitmap(PictureHandle hPicture);
bool PictureRelease(PictureHandle hPicture);

// --- message boxes and the other services a window system offers ---
enum MessageBoxStyle : std::int32_t { MessageBoxInformation = 0, MessageBoxCritical = 16 };

class HostServices {
  public:
    virtual ~HostServices() = default;
    virtual void MessageBox(const std::string& sText, const std::string& sTitle,
                            MessageBoxStyle eStyle) = 0;
    // Clipboard holding one picture (an HBITMAP owned by the clipboard).
    virtual bool ClipboardClear() = 0;
    virtual bool ClipboardSetBitmap(HBITMAP hBitmap) = 0;
    virtual HBITMAP ClipboardGetBitmap() = 0;
    // A screen or window grab as a host bitmap; 0 when no display exists.
    virtual HBITMAP GrabWindow(HWND hWnd) = 0;
    // A file chosen by the user; false when no dialog can be shown.
    virtual bool OpenFileDialog(const std::string& sFilter, std::string& sChosen) = 0;
    // The desktop window of the display; 0 when no display exists.
    virtual HWND DesktopWindow() { return 0; }
};

// The services in use on this thread of the process. Without a registered
// adapter: message boxes go to standard error, the clipboard lives in the
// process, no screen grab and no dialog.
HostServices& GetHostServices();
// Registers an adapter (nullptr restores the default). Returns the old one.
std::shared_ptr<HostServices> SetHostServices(std::shared_ptr<HostServices> pServices);

// --- files and versions ---
// Version of a shared library found the platform's way ("a.b.c.d"), or
// "Unknown" when it has no version; "Undefined" on a run-time failure.
std::string GetLibraryFileVersion(const std::string& sLibraryName);
// The directory for temporary files of the system: environment "tmp", then
// "temp", then the system temporary directory; with no trailing separator.
std::string GetTempDirectory();
constexpr char kPathSeparator = '/';

} // namespace kestrelyn
