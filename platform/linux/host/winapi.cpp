// Operating system services: global memory blocks known by handle, picture
// objects, shared-library versions and the temporary directory.
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <dlfcn.h>
#include <map>
#include <memory>
#include <mutex>
#include <sys/stat.h>

#include "platform/modGdi32.h"
#include "platform/modStrings.h"
#include "platform/modWinapi.h"

#ifndef KY_INSTALL_PLUGIN_DIR
#define KY_INSTALL_PLUGIN_DIR "/usr/local/lib/kestrelyn"
#endif

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
// names libkyimgplug.so or kyimgplug.so) in $KESTRELYN_PLUGIN_PATH, then
// beside libkestrelyn, then in the install directory, then by the loader's
// own search. Its version is what its export <NAME>_GetVersionString returns
// (NAME upper-cased, other characters than letters and digits as "_").

namespace {

bool IsFile(const std::string& sPath) {
    struct stat st {};
    return ::stat(sPath.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string ThisLibraryDirectory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&GetLibraryFileVersion), &info) == 0 || !info.dli_fname)
        return "";
    std::string path = info.dli_fname;
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}

std::vector<std::string> CandidateFileNames(const std::string& sName) {
    if (sName.find('/') != std::string::npos || sName.find(".so") != std::string::npos)
        return {sName};
    return {"lib" + sName + ".so", sName + ".so"};
}

} // namespace

std::string GetLibraryFileVersion(const std::string& sLibraryName) {
    try {
        if (Trim(sLibraryName).empty()) return "Unknown";
        const std::vector<std::string> names = CandidateFileNames(Trim(sLibraryName));
        std::vector<std::string> dirs;
        if (const char* env = std::getenv("KESTRELYN_PLUGIN_PATH")) {
            std::string list = env;
            std::size_t start = 0;
            while (start <= list.size()) {
                const std::size_t colon = list.find(':', start);
                const std::string dir = list.substr(
                    start, colon == std::string::npos ? std::string::npos : colon - start);
                if (!dir.empty()) dirs.push_back(dir);
                if (colon == std::string::npos) break;
                start = colon + 1;
            }
        }
        if (std::string own = ThisLibraryDirectory(); !own.empty()) dirs.push_back(own);
        dirs.push_back(KY_INSTALL_PLUGIN_DIR);

        void* handle = nullptr;
        for (const std::string& dir : dirs) {
            for (const std::string& name : names) {
                const std::string path =
                    name.find('/') != std::string::npos ? name : dir + "/" + name;
                if (!IsFile(path)) continue;
                handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
                if (handle) break;
            }
            if (handle) break;
        }
        for (std::size_t i = 0; !handle && i < names.size(); ++i)
            handle = dlopen(names[i].c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
        if (!handle) return "Unknown";

        std::string stem = Trim(sLibraryName);
        if (const std::size_t slash = stem.rfind('/'); slash != std::string::npos)
            stem = stem.substr(slash + 1);
        if (stem.rfind("lib", 0) == 0 && stem.find(".so") != std::string::npos)
            stem = stem.substr(3);
        if (const std::size_t so = stem.find(".so"); so != std::string::npos)
            stem = stem.substr(0, so);
        std::string symbol;
        for (char c : stem)
            symbol += std::isalnum(static_cast<unsigned char>(c))
                          ? static_cast<char>(std::toupper(static_cast<unsigned char>(c)))
                          : '_';
        symbol += "_GetVersionString";
        using VersionFn = const char* (*)();
        std::string version = "Unknown";
        if (auto fn = reinterpret_cast<VersionFn>(dlsym(handle, symbol.c_str()))) {
            const char* text = fn();
            if (text && *text) version = Trim(text);
        }
        dlclose(handle);
        return version;
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
