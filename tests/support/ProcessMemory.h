// The process's own memory figures, for tests that bound peak memory, and
// whether a sanitizer (whose allocator keeps freed memory) is in the build.
#pragma once
#include <fstream>
#include <string>

namespace kestrelyn::test {

// A "VmRSS"/"VmHWM"-style line of /proc/self/status in kB, -1 when absent.
inline long StatusKb(const char* key) {
    std::ifstream in("/proc/self/status");
    std::string line;
    const std::string k = std::string(key) + ":";
    while (std::getline(in, line))
        if (line.rfind(k, 0) == 0) return std::stol(line.substr(k.size()));
    return -1;
}

inline bool UnderSanitizer() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) ||                         \
    __has_feature(memory_sanitizer)
    return true;
#else
    return false;
#endif
#else
    return false;
#endif
}

} // namespace kestrelyn::test
