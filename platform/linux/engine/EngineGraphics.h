// The engine's drawing context. Drawing code of the engine reaches cairo
// through `cr`; the fields below are the context's own state and may grow.
#pragma once
#include <cstdint>
#include <vector>

#include "platform/linux/engine/EngineImage.h"

// cairo's own handle types, declared here so that users of this header do not
// need cairo's include directory.
typedef struct _cairo cairo_t;
typedef struct _cairo_surface cairo_surface_t;

namespace kestrelyn {

// A drawing context on an image. `surface` is a premultiplied 32-bit cairo
// surface of the image's size. When the image is 32bppPARGB or 32bppRGB (with
// a 4-aligned positive stride) it is the image's own pixel memory (`direct`);
// otherwise it is a scratch copy that GdipDeleteGraphics writes back into the
// image, converted to its format (nearest palette entry for indexed images).
// Only pixels that differ from `snapshot` (the scratch as it was made, or as
// GdipGraphicsClear left it) are written back, so untouched pixels keep their
// exact values and indices.
struct GpGraphics {
    GpImage* image = nullptr;
    cairo_surface_t* surface = nullptr;
    cairo_t* cr = nullptr;
    INT width = 0;
    INT height = 0;
    bool direct = false;
    std::vector<std::uint32_t> scratch;  // premultiplied ARGB, width * height
    std::vector<std::uint32_t> snapshot; // scratch as last synchronised with the image
    HDC hdc = 0;                         // open device context, 0 when none
};

namespace engine {
// The cairo context behind a device context handed out by GdipGetDC, or
// nullptr for an unknown handle.
cairo_t* CairoFromHDC(HDC hdc);
// The graphics context behind a device context, or nullptr.
GpGraphics* GraphicsFromHDC(HDC hdc);
} // namespace engine

} // namespace kestrelyn
