// The decode pixel limit of the process, forwarded to the codec plug-in.
#include "platform/DecodeLimits.h"

#include <atomic>

#include "platform/modkyimgplug.h"

namespace kestrelyn {

namespace {

std::atomic<std::int64_t>& Limit() {
    static std::atomic<std::int64_t> limit{DecodePixelLimitFromEnvironment()};
    return limit;
}

} // namespace

void SetDecodePixelLimit(std::int64_t pixels) {
    const std::int64_t value = pixels > 0 ? pixels : DecodePixelLimitFromEnvironment();
    Limit().store(value);
    KYIMGPLUG_SetDecodePixelLimit(value);
}

std::int64_t GetDecodePixelLimit() {
    return Limit().load();
}

bool DecodeSizeAllowed(std::int64_t width, std::int64_t height) {
    if (width <= 0 || height <= 0) return false;
    const std::int64_t limit = GetDecodePixelLimit();
    return width <= limit && height <= limit / width;
}

} // namespace kestrelyn
