// Finding and binding the plug-in libraries (codecs, PDF reader, barcode
// readers, OCR, scanning). Every plug-in is a shared library looked up when
// first needed, in this order:
//   1. the folder of libkestrelyn itself (the build tree keeps plug-ins there),
//   2. its subfolder "kestrelyn" (where an install puts them),
//   3. the plug-in folder configured at build time,
//   4. each folder of $KESTRELYN_PLUGIN_PATH (separated by ':').
// The places relative to the core library come first so that an installed
// library finds its own plug-ins whatever prefix it was installed to.
#pragma once
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace kestrelyn {

// The search order above from its parts: the core library's folder (none
// when empty), the configured folder (none when empty) and the value of the
// path variable (null when unset). Empty entries and repeats are dropped.
std::vector<std::string> PluginSearchFolders(const std::string& sCoreFolder,
                                             const std::string& sConfiguredFolder,
                                             const char* szPathList);
// The search order of this process.
std::vector<std::string> DefaultPluginFolders();
// The folder holding libkestrelyn, "" when it cannot be told.
std::string CoreLibraryFolder();

// The file names tried for a library name: "kyimgplug" gives libkyimgplug.so
// then kyimgplug.so; a name holding '/' or ".so" is the file name itself.
std::vector<std::string> PluginFileNames(const std::string& sName);
// The prefix of a library's exports: its bare name upper-cased, other
// characters than letters and digits as '_' ("kyimgplug" -> "KYIMGPLUG",
// "libkybarcode.1dreader.so" -> "KYBARCODE_1DREADER").
std::string PluginExportPrefix(const std::string& sName);

struct PluginLibrary {
    std::string sName; // as for PluginFileNames
    // The export that marks a file as the plug-in; "" means <PREFIX>_GetVersion.
    // A library without it is refused and the search goes on.
    std::string sVersionExport{};
    // After the folders, ask the dynamic linker for the file name as well
    // (LD_LIBRARY_PATH and the system folders).
    bool bLinkerSearchLast = false;
};

// One plug-in library. Safe to use from several threads. A library once
// loaded stays mapped for the life of the process: objects it made may
// outlive a reload, and some of its own dependencies keep process-wide state.
class PluginLoader {
  public:
    explicit PluginLoader(PluginLibrary library);
    ~PluginLoader();
    PluginLoader(const PluginLoader&) = delete;
    PluginLoader& operator=(const PluginLoader&) = delete;

    // Whether the library was found; the first call of any member searches.
    bool IsLoaded();
    // Full path of the library in use, "" when none.
    std::string LibraryPath();
    // An export of the library, nullptr when it lacks it or is not loaded.
    // Answers are kept until the next reload.
    void* Symbol(const std::string& sExport);
    template <class Fn> Fn Function(const std::string& sExport) {
        return reinterpret_cast<Fn>(Symbol(sExport));
    }
    // What <PREFIX>_GetVersion returns; 0 without it.
    int Version();
    // What <PREFIX>_GetVersionString returns, trimmed; "Unknown" without the
    // library, the export or any text.
    std::string VersionString();
    // Forgets the library in use and searches again on the next call: in
    // pFolders only when given, else along the search order. Exports obtained
    // before stay callable.
    void Reload(const std::vector<std::string>* pFolders = nullptr);

  private:
    void EnsureLoaded(); // with m_lock held

    const PluginLibrary m_library;
    const std::string m_sVersionExport;
    std::mutex m_lock;
    bool m_bSearched = false;
    void* m_hLibrary = nullptr;
    std::string m_sPath;
    std::optional<std::vector<std::string>> m_folders;
    std::unordered_map<std::string, void*> m_symbols;
};

} // namespace kestrelyn
