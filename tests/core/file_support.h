// File helpers shared by the loading and saving tests: folder entry counts,
// existence checks and whole-file reads.
#pragma once
#include <dirent.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace kestrelyn::coretest {

inline int CountEntries(const std::string& sDir) {
    int n = 0;
    if (DIR* d = ::opendir(sDir.c_str())) {
        while (dirent* e = ::readdir(d)) {
            const std::string name = e->d_name;
            if (name != "." && name != "..") ++n;
        }
        ::closedir(d);
    }
    return n;
}

inline bool Exists(const std::string& sPath) {
    return ::access(sPath.c_str(), F_OK) == 0;
}

inline std::vector<std::uint8_t> ReadBytes(const std::string& sPath) {
    std::ifstream f(sPath, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(f), {});
}

} // namespace kestrelyn::coretest
