// Lazy binding of libkyimgplug with dlopen.
#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/modkyimgplug.h"

#ifndef KY_INSTALL_PLUGIN_DIR
#define KY_INSTALL_PLUGIN_DIR "/usr/local/lib/kestrelyn"
#endif

namespace kestrelyn {
namespace {

constexpr const char* kLibraryName = "libkyimgplug.so";

struct LoaderState {
    std::mutex lock;
    bool searched = false;
    void* handle = nullptr;
    std::string path;
    std::optional<std::vector<std::string>> folders;
    std::unordered_map<std::string, void*> symbols;
};

LoaderState& State() {
    static LoaderState s;
    return s;
}

bool IsFile(const std::string& p) {
    struct stat st {};
    return ::stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::vector<std::string> SearchFolders() {
    std::vector<std::string> out;
    if (const char* env = std::getenv("KESTRELYN_PLUGIN_PATH")) {
        std::string s = env;
        std::size_t start = 0;
        while (start <= s.size()) {
            std::size_t end = s.find(':', start);
            if (end == std::string::npos) end = s.size();
            if (end > start) out.push_back(s.substr(start, end - start));
            start = end + 1;
        }
    }
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&SearchFolders), &info) && info.dli_fname) {
        std::string self = info.dli_fname;
        std::size_t slash = self.rfind('/');
        if (slash != std::string::npos) out.push_back(self.substr(0, slash));
    }
    out.push_back(KY_INSTALL_PLUGIN_DIR);
    return out;
}

// Called with the lock held.
void EnsureLoaded(LoaderState& s) {
    if (s.searched) return;
    s.searched = true;
    std::vector<std::string> folders = s.folders ? *s.folders : SearchFolders();
    for (const auto& dir : folders) {
        std::string candidate = dir + "/" + kLibraryName;
        if (!IsFile(candidate)) continue;
        // Plug-ins stay mapped once loaded: their libraries (the OpenMP
        // runtime of the raw-camera decoder among them) keep process-wide
        // state that must not vanish under a later reload.
        void* h = dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
        if (!h) continue;
        // The version export is the presence test.
        if (!dlsym(h, "KYIMGPLUG_GetVersion")) {
            dlclose(h);
            continue;
        }
        s.handle = h;
        s.path = candidate;
        return;
    }
}

void* Symbol(const char* name) {
    LoaderState& s = State();
    std::lock_guard<std::mutex> l(s.lock);
    EnsureLoaded(s);
    if (!s.handle) return nullptr;
    auto it = s.symbols.find(name);
    if (it != s.symbols.end()) return it->second;
    void* p = dlsym(s.handle, name);
    s.symbols.emplace(name, p);
    return p;
}

} // namespace

bool IsKyimgplugLoaded() {
    return Symbol("KYIMGPLUG_GetVersion") != nullptr;
}

std::string KyimgplugLibraryPath() {
    LoaderState& s = State();
    std::lock_guard<std::mutex> l(s.lock);
    EnsureLoaded(s);
    return s.path;
}

void ReloadKyimgplug(const std::vector<std::string>* folders) {
    LoaderState& s = State();
    std::lock_guard<std::mutex> l(s.lock);
    // The library stays mapped: bitmaps made by it may still be alive.
    s.handle = nullptr;
    s.path.clear();
    s.symbols.clear();
    s.searched = false;
    if (folders)
        s.folders = *folders;
    else
        s.folders.reset();
}

#define KYP_FN(R, N, P, A, F)                                                                      \
    R N P {                                                                                        \
        using Fn = R(*) P;                                                                         \
        auto fn = reinterpret_cast<Fn>(Symbol(#N));                                                \
        if (!fn) return F;                                                                         \
        return fn A;                                                                               \
    }
#include "plugins/kyimgplug/kyimgplug_exports.inc"
#undef KYP_FN

} // namespace kestrelyn
