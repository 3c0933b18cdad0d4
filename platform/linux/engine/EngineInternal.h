// Helpers shared by the engine's own source files.
#pragma once
#include <exception>
#include <new>

#include "platform/linux/engine/EngineImage.h"
#include "platform/linux/engine/EnginePixels.h"

namespace kestrelyn::engine {

// GUIDs the engine hands out.
inline constexpr GUID kMemoryBmpFormat = {
    0xb96b3caa, 0x0728, 0x11d3, {0x9d, 0x7b, 0x00, 0x00, 0xf8, 0x1e, 0xf3, 0x2e}};
inline constexpr GUID kFrameDimensionPage = {
    0x7462dc86, 0x6180, 0x4c7e, {0x8e, 0x3f, 0xee, 0x73, 0x33, 0xa7, 0xa4, 0x83}};

// A new bitmap with owned, zeroed pixels and the default palette of its
// format. Throws std::bad_alloc when memory runs out.
GpImage* NewBitmap(INT width, INT height, PixelFormat format);

// The whole image as a pixel view (palette included).
inline PixelView ViewOf(const GpImage& image) {
    PixelView v;
    v.scan0 = image.pixels ? image.pixels->data : nullptr;
    v.stride = image.stride;
    v.format = image.format;
    v.palette = image.palette.empty() ? nullptr : image.palette.data();
    v.paletteCount = static_cast<UINT>(image.palette.size());
    return v;
}

// Runs `body`, turning an escaping exception into a status.
template <class F> GpStatus Trap(F&& body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return OutOfMemory;
    } catch (...) {
        return GenericError;
    }
}

} // namespace kestrelyn::engine
