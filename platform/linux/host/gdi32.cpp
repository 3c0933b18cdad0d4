// Host bitmaps and icons: a process-wide handle table.
#include <map>
#include <memory>
#include <mutex>

#include "platform/modGdi32.h"

namespace kestrelyn {

namespace {
std::mutex g_mutex;
std::map<HANDLE, std::unique_ptr<HostBitmap>> g_table;
HANDLE g_next = 0x1000;
} // namespace

HBITMAP HostCreateBitmap(HostBitmap bitmap) {
    auto p = std::make_unique<HostBitmap>(std::move(bitmap));
    std::lock_guard<std::mutex> lock(g_mutex);
    HANDLE h = g_next++;
    g_table.emplace(h, std::move(p));
    return h;
}

const HostBitmap* HostGetBitmap(HANDLE h) {
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_table.find(h);
    return it == g_table.end() ? nullptr : it->second.get();
}

bool DeleteObject(HANDLE h) {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_table.erase(h) > 0;
}

bool DestroyIcon(HICON h) {
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_table.find(h);
    if (it == g_table.end() || !it->second->bIsIcon) return false;
    g_table.erase(it);
    return true;
}

} // namespace kestrelyn
