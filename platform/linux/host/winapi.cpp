// Operating system services: global memory blocks known by handle, picture
// objects, shared-library versions and the temporary directory.
#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>

#include "platform/PluginLoader.h"
#include "platform/TextHelpers.h"
#include "platform/modGdi32.h"
#include "platform/modWinapi.h"

namespace kestrelyn {

// ---------------------------------------------------------------------------
// Global memory. A block stays at one address for its life; the lock count is
// kept as the platform keeps it.

namespace {

struct GlobalBlock {
    std::unique_ptr<std::uint8_t[]> data;
    std::size_t size = 0;
    std::uint32_t locks = 0;
};

struct HandleTables {
    std::mutex mutex;
    std::map<HANDLE, GlobalBlock> blocks;
    std::map<HANDLE, std::pair<HBITMAP, bool>> pictures; // bitmap, owned
    HANDLE next = 0x10000;
};

HandleTables& Tables() {
    static HandleTables tables;
    return tables;
}

} // namespace

HGLOBAL GlobalAlloc(std::uint32_t uFlags, std::size_t dwBytes) {
    GlobalBlock block;
    block.size = dwBytes;
    block.data.reset(new (std::nothrow) std::uint8_t[dwBytes == 0 ? 1 : dwBytes]);
    if (!block.data) return 0;
    if (uFlags & GMEM_ZEROINIT) std::fill_n(block.data.get(), dwBytes == 0 ? 1 : dwBytes, 0);
    HandleTables& t = Tables();
    std::lock_guard<std::mutex> lock(t.mutex);
    const HANDLE h = t.next;
    t.next += 4;
    t.blocks.emplace(h, std::move(block));
    return h;
}

void* GlobalLock(HGLOBAL hMem) {
    HandleTables& t = Tables();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.blocks.find(hMem);
    if (it == t.blocks.end()) return nullptr;
    it->second.locks += 1;
    return it->second.data.get();
}

bool GlobalUnlock(HGLOBAL hMem) {
    HandleTables& t = Tables();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.blocks.find(hMem);
    if (it == t.blocks.end() || it->second.locks == 0) return false;
    it->second.locks -= 1;
    return it->second.locks > 0;
}

std::size_t GlobalSize(HGLOBAL hMem) {
    HandleTables& t = Tables();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.blocks.find(hMem);
    return it == t.blocks.end() ? 0 : it->second.size;
}

HGLOBAL GlobalFree(HGLOBAL hMem) {
    HandleTables& t = Tables();
    std::lock_guard<std::mutex> lock(t.mutex);
    return t.blocks.erase(hMem) == 1 ? 0 : hMem;
}

// ---------------------------------------------------------------------------
// Picture objects.

PictureHandle OleCreatePictureIndirect(HBITMAP hBitmap, bool bOwn) {
    if (!HostGetBitmap(hBitmap)) return 0;
    HandleTables& t = Tables();
    std::lock_guard<std::mutex> lock(t.mutex);
    const HANDLE h = t.next;
    t.next += 4;
    t.pictures.emplace(h, std::make_pair(hBitmap, bOwn));
    return h;
}

HBITMAP PictureGetBitmap(PictureHandle hPicture) {
    HandleTables& t = Tables();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.pictures.find(hPicture);
    return it == t.pictures.end() ? 0 : it->second.first;
}

bool PictureRelease(PictureHandle hPicture) {
    std::pair<HBITMAP, bool> entry{0, false};
    {
        HandleTables& t = Tables();
        std::lock_guard<std::mutex> lock(t.mutex);
        auto it = t.pictures.find(hPicture);
        if (it == t.pictures.end()) return false;
        entry = it->second;
        t.pictures.erase(it);
    }
    if (entry.second) DeleteObject(entry.first);
    return true;
}

// ---------------------------------------------------------------------------
// Library versions. A library is looked up by its bare name ("kyimgplug"
// names libkyimgplug.so or kyimgplug.so) along the plug-in search order, then
// by the dynamic linker's own search. Its version is what its export
// <NAME>_GetVersionString returns (NAME upper-cased, other characters than
// letters and digits as "_"); a library without that export is not taken.

std::string GetLibraryFileVersion(const std::string& sLibraryName) {
    try {
        const std::string sName = Trim(sLibraryName);
        if (sName.empty()) return "Unknown";
        PluginLoader library(PluginLibrary{
            .sName = sName,
            .sVersionExport = PluginExportPrefix(sName) + "_GetVersionString",
            .bLinkerSearchLast = true,
        });
        return library.VersionString();
    } catch (...) {
        return "Undefined";
    }
}

// ---------------------------------------------------------------------------
// The temporary directory.

std::string GetTempDirectory() {
    std::string dir;
    for (const char* name : {"tmp", "temp"}) {
        if (const char* value = std::getenv(name)) {
            dir = Trim(value);
            if (!dir.empty()) break;
        }
    }
    if (dir.empty()) {
        const char* system = std::getenv("TMPDIR");
        dir = system && *system ? Trim(system) : "/tmp";
    }
    while (dir.size() > 1 && dir.back() == kPathSeparator)
        dir.pop_back();
    return dir;
}

} // namespace kestrelyn
