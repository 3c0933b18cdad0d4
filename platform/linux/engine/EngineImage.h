// The engine's own bitmap store behind the GpImage handle. Internal to the
// engine: the rest of the system sees only the flat calls of modGdiPlus.h.
#pragma once
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/modGdiPlus.h"

namespace kestrelyn::engine {

// The pixel memory of one or more bitmaps. Owned memory is shared between
// copy-on-write clones; caller memory (GdipCreateBitmapFromScan0 with a
// buffer) is wrapped, never copied, and never shared by a clone.
struct PixelBuffer {
    std::uint8_t* data = nullptr;
    std::size_t size = 0;
    bool owned = false;
    struct FreeBlock {
        void operator()(std::uint8_t* p) const { std::free(p); }
    };
    std::unique_ptr<std::uint8_t, FreeBlock> storage; // set when owned (calloc)
};

struct PropertyRecord {
    PROPID id = 0;
    std::uint16_t type = 0;
    std::vector<std::uint8_t> value;
};

// A decoded source of several frames (pages of a TIFF, frames of a GIF) that
// stays open while the image lives; selecting a frame decodes it into the
// image.
class FrameSource {
  public:
    virtual ~FrameSource() = default;
    virtual GUID Dimension() const = 0; // the frame dimension (page or time)
    virtual UINT FrameCount() const = 0;
    // Decodes one frame into a fresh bitmap (pixels, palette, resolution,
    // properties); the engine moves it into the image.
    virtual GpStatus DecodeFrame(UINT index, GpImage** frame) = 0;
};

} // namespace kestrelyn::engine

namespace kestrelyn {

struct GpImage {
    INT width = 0;
    INT height = 0;
    PixelFormat format = 0;
    INT stride = 0;
    std::shared_ptr<engine::PixelBuffer> pixels; // see PixelBuffer
    std::vector<ARGB> palette;
    UINT paletteFlags = 0;
    float dpiX = 96.0f;
    float dpiY = 96.0f;
    std::vector<engine::PropertyRecord> properties; // in insertion (file) order
    UINT flags = 0;                                 // colour space and alpha bits
    GUID rawFormat{};                               // MemoryBMP for new bitmaps
    std::shared_ptr<engine::FrameSource> frames;    // null for a single-frame image
    UINT activeFrame = 0;
    // Lock state: a bitmap has at most one lock at a time.
    bool locked = false;
    UINT lockFlags = 0;
    GpRect lockRect{};
    PixelFormat lockFormat = 0;
    std::vector<std::uint8_t> lockScratch; // converted copy for non-native locks
    BitmapData lockCallerData{};           // the caller's buffer for user-buffer locks

    std::uint8_t* Row(INT y) const {
        return pixels->data + static_cast<std::ptrdiff_t>(y) * stride;
    }
};

namespace engine {
// Makes the image's pixels private before a write (copy-on-write).
GpStatus EnsureWritable(GpImage& image);
// Attaches a multi-frame source; frame 0 is decoded into the image.
GpStatus AttachFrames(GpImage& image, std::shared_ptr<FrameSource> source);
// Moves the content of `from` (pixels, palette, resolution, properties, flags)
// into `into`, keeping `into`'s frame source; `from` is disposed.
void MoveImageContent(GpImage& into, GpImage* from);
} // namespace engine

} // namespace kestrelyn
