// Small file-system questions and actions shared by the registry, loading,
// saving and the page store.
#pragma once
#include <cstdio>
#include <string>
#include <sys/stat.h>

namespace kestrelyn {

// True when something (a file, a folder, ...) is at the path.
inline bool PathExists(const std::string& sPath) {
    struct stat st {};
    return !sPath.empty() && ::stat(sPath.c_str(), &st) == 0;
}

// True when a regular file is at the path.
inline bool IsRegularFile(const std::string& sPath) {
    struct stat st {};
    return !sPath.empty() && ::stat(sPath.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Removes a file the caller made; an empty path or a missing file is no error.
inline void RemoveFileQuietly(const std::string& sPath) {
    if (!sPath.empty()) std::remove(sPath.c_str());
}

} // namespace kestrelyn
