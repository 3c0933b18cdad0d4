// The plug-in search and binding with dlopen.
#include "platform/PluginLoader.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <utility>

#include "platform/TextHelpers.h"

#ifndef KY_INSTALL_PLUGIN_DIR
#define KY_INSTALL_PLUGIN_DIR "/usr/local/lib/kestrelyn"
#endif
#ifndef KY_PLUGIN_SUBDIR
#define KY_PLUGIN_SUBDIR "kestrelyn"
#endif

namespace kestrelyn {
namespace {

bool IsFile(const std::string& sPath) {
    struct stat st {};
    return ::stat(sPath.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

void AddFolder(std::vector<std::string>& folders, std::string sFolder) {
    if (sFolder.empty()) return;
    if (std::find(folders.begin(), folders.end(), sFolder) == folders.end())
        folders.push_back(std::move(sFolder));
}

// Opens one file and checks that it is the plug-in; null otherwise.
void* OpenPlugin(const std::string& sFile, const std::string& sVersionExport) {
    void* h = dlopen(sFile.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (!h) return nullptr;
    if (!dlsym(h, sVersionExport.c_str())) {
        dlclose(h);
        return nullptr;
    }
    return h;
}

} // namespace

std::vector<std::string> PluginSearchFolders(const std::string& sCoreFolder,
                                             const std::string& sConfiguredFolder,
                                             const char* szPathList) {
    std::vector<std::string> folders;
    if (!sCoreFolder.empty()) {
        AddFolder(folders, sCoreFolder);
        AddFolder(folders, sCoreFolder + "/" KY_PLUGIN_SUBDIR);
    }
    AddFolder(folders, sConfiguredFolder);
    if (szPathList) {
        const std::string sList = szPathList;
        std::size_t start = 0;
        while (start <= sList.size()) {
            std::size_t end = sList.find(':', start);
            if (end == std::string::npos) end = sList.size();
            AddFolder(folders, sList.substr(start, end - start));
            start = end + 1;
        }
    }
    return folders;
}

std::string CoreLibraryFolder() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&CoreLibraryFolder), &info) == 0 || !info.dli_fname)
        return "";
    const std::string sSelf = info.dli_fname;
    const std::size_t slash = sSelf.rfind('/');
    return slash == std::string::npos ? "" : sSelf.substr(0, slash);
}

std::vector<std::string> DefaultPluginFolders() {
    return PluginSearchFolders(CoreLibraryFolder(), KY_INSTALL_PLUGIN_DIR,
                               std::getenv("KESTRELYN_PLUGIN_PATH"));
}

std::vector<std::string> PluginFileNames(const std::string& sName) {
    if (sName.find('/') != std::string::npos || sName.find(".so") != std::string::npos)
        return {sName};
    return {"lib" + sName + ".so", sName + ".so"};
}

std::string PluginExportPrefix(const std::string& sName) {
    std::string stem = Trim(sName);
    if (const std::size_t slash = stem.rfind('/'); slash != std::string::npos)
        stem = stem.substr(slash + 1);
    if (stem.rfind("lib", 0) == 0 && stem.find(".so") != std::string::npos) stem = stem.substr(3);
    if (const std::size_t so = stem.find(".so"); so != std::string::npos) stem = stem.substr(0, so);
    std::string prefix;
    for (char c : stem)
        prefix += std::isalnum(static_cast<unsigned char>(c))
                      ? static_cast<char>(std::toupper(static_cast<unsigned char>(c)))
                      : '_';
    return prefix;
}

PluginLoader::PluginLoader(PluginLibrary library)
    : m_library(std::move(library)),
      m_sVersionExport(m_library.sVersionExport.empty()
                           ? PluginExportPrefix(m_library.sName) + "_GetVersion"
                           : m_library.sVersionExport) {}

PluginLoader::~PluginLoader() {
    // Drops our reference only: RTLD_NODELETE keeps the library mapped.
    if (m_hLibrary) dlclose(m_hLibrary);
}

void PluginLoader::EnsureLoaded() {
    if (m_bSearched) return;
    m_bSearched = true;
    const std::vector<std::string> names = PluginFileNames(m_library.sName);
    std::vector<std::string> files;
    if (m_library.sName.find('/') != std::string::npos) {
        files = names; // a path names its one file
    } else {
        for (const std::string& folder : m_folders ? *m_folders : DefaultPluginFolders())
            for (const std::string& name : names)
                files.push_back(folder + "/" + name);
    }
    for (const std::string& sFile : files) {
        if (!IsFile(sFile)) continue;
        if (void* h = OpenPlugin(sFile, m_sVersionExport)) {
            m_hLibrary = h;
            m_sPath = sFile;
            return;
        }
    }
    if (m_folders || !m_library.bLinkerSearchLast) return;
    for (const std::string& name : names) {
        if (void* h = OpenPlugin(name, m_sVersionExport)) {
            m_hLibrary = h;
            link_map* map = nullptr;
            const bool bKnown =
                dlinfo(h, RTLD_DI_LINKMAP, &map) == 0 && map && map->l_name && *map->l_name;
            m_sPath = bKnown ? map->l_name : name;
            return;
        }
    }
}

bool PluginLoader::IsLoaded() {
    std::lock_guard<std::mutex> l(m_lock);
    EnsureLoaded();
    return m_hLibrary != nullptr;
}

std::string PluginLoader::LibraryPath() {
    std::lock_guard<std::mutex> l(m_lock);
    EnsureLoaded();
    return m_sPath;
}

void* PluginLoader::Symbol(const std::string& sExport) {
    std::lock_guard<std::mutex> l(m_lock);
    EnsureLoaded();
    if (!m_hLibrary) return nullptr;
    if (auto it = m_symbols.find(sExport); it != m_symbols.end()) return it->second;
    void* p = dlsym(m_hLibrary, sExport.c_str());
    m_symbols.emplace(sExport, p);
    return p;
}

int PluginLoader::Version() {
    using VersionFn = int (*)();
    auto fn = Function<VersionFn>(PluginExportPrefix(m_library.sName) + "_GetVersion");
    return fn ? fn() : 0;
}

std::string PluginLoader::VersionString() {
    using VersionFn = const char* (*)();
    auto fn = Function<VersionFn>(PluginExportPrefix(m_library.sName) + "_GetVersionString");
    const char* szText = fn ? fn() : nullptr;
    return szText && *szText ? Trim(szText) : "Unknown";
}

void PluginLoader::Reload(const std::vector<std::string>* pFolders) {
    std::lock_guard<std::mutex> l(m_lock);
    if (m_hLibrary) dlclose(m_hLibrary);
    m_hLibrary = nullptr;
    m_sPath.clear();
    m_symbols.clear();
    m_bSearched = false;
    if (pFolders)
        m_folders = *pFolders;
    else
        m_folders.reset();
}

} // namespace kestrelyn
