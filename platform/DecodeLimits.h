// The one limit on the size of a decoded image, shared by the engine's
// decoders and the codec plug-in's readers. A file that claims more pixels
// than the limit is refused before any pixel memory is spent on it. The
// default fits a 600-dpi A0 scan (about 19900 x 28100); the environment
// variable KESTRELYN_MAX_PIXELS (a positive whole number) replaces it when the
// process starts, and SetDecodePixelLimit at any time.
#pragma once
#include <cstdint>
#include <cstdlib>

namespace kestrelyn {

inline constexpr std::int64_t kDefaultDecodePixelLimit = 600'000'000;
inline constexpr const char* kDecodePixelLimitVariable = "KESTRELYN_MAX_PIXELS";

// The limit the environment asks for, or the default when the variable is
// unset or not a positive whole number.
inline std::int64_t DecodePixelLimitFromEnvironment() {
    const char* text = std::getenv(kDecodePixelLimitVariable);
    if (!text || !*text) return kDefaultDecodePixelLimit;
    char* end = nullptr;
    const long long v = std::strtoll(text, &end, 10);
    if (*end != '\0' || v <= 0) return kDefaultDecodePixelLimit;
    return static_cast<std::int64_t>(v);
}

// Process-wide. A value of 0 or less goes back to the environment's (or the
// default) limit. The codec plug-in, when present, gets the same limit.
void SetDecodePixelLimit(std::int64_t pixels);
std::int64_t GetDecodePixelLimit();

// True when an image of width x height (both positive) is within the limit.
bool DecodeSizeAllowed(std::int64_t width, std::int64_t height);

} // namespace kestrelyn
