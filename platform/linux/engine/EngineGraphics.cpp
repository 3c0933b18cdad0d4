// Graphics contexts on images and device contexts over them.
#include "platform/linux/engine/EngineGraphics.h"

#include <cairo.h>

#include <cstring>
#include <mutex>
#include <unordered_map>

#include "platform/linux/engine/EngineInternal.h"

namespace kestrelyn {

using engine::Trap;

namespace {

std::mutex g_dcMutex;
std::unordered_map<HDC, GpGraphics*> g_dcTable;
HDC g_nextDC = 0x4000;

bool CanDrawDirect(const GpImage& img) {
    return (img.format == PixelFormat32bppPARGB || img.format == PixelFormat32bppRGB) &&
           img.pixels->owned && img.stride > 0 && img.stride % 4 == 0;
}

engine::PixelView ScratchView(GpGraphics& g) {
    engine::PixelView v;
    v.scan0 = reinterpret_cast<std::uint8_t*>(g.scratch.data());
    v.stride = static_cast<std::ptrdiff_t>(g.width) * 4;
    v.format = PixelFormat32bppPARGB;
    return v;
}

// Writes the scratch pixels that changed since the snapshot back into the image.
void WriteBack(GpGraphics& g) {
    if (g.direct || g.scratch.empty()) return;
    cairo_surface_flush(g.surface);
    GpImage& img = *g.image;
    if (engine::EnsureWritable(img) != OK) return;
    engine::PixelView src = ScratchView(g);
    engine::PixelView whole = engine::ViewOf(img);
    INT bits = engine::FormatBits(img.format);
    for (INT y = 0; y < g.height; ++y) {
        const std::size_t base = static_cast<std::size_t>(y) * g.width;
        INT x = 0;
        while (x < g.width) {
            if (g.scratch[base + x] == g.snapshot[base + x]) {
                ++x;
                continue;
            }
            INT start = x;
            while (x < g.width && g.scratch[base + x] != g.snapshot[base + x])
                ++x;
            engine::PixelView s = src;
            s.scan0 +=
                static_cast<std::ptrdiff_t>(y) * s.stride + static_cast<std::ptrdiff_t>(start) * 4;
            engine::PixelView d = whole;
            d.scan0 = img.Row(y);
            if (bits >= 8)
                d.scan0 += static_cast<std::ptrdiff_t>(start) * (bits / 8);
            else
                d.x0 = start;
            engine::ConvertPixels(s, d, x - start, 1);
        }
    }
    g.snapshot = g.scratch;
}

} // namespace

namespace engine {
GpGraphics* GraphicsFromHDC(HDC hdc) {
    std::lock_guard<std::mutex> lock(g_dcMutex);
    auto it = g_dcTable.find(hdc);
    return it == g_dcTable.end() ? nullptr : it->second;
}
cairo_t* CairoFromHDC(HDC hdc) {
    GpGraphics* g = GraphicsFromHDC(hdc);
    return g ? g->cr : nullptr;
}
} // namespace engine

GpStatus GdipGetImageGraphicsContext(GpImage* image, GpGraphics** graphics) {
    if (!image || !graphics || !image->pixels) return InvalidParameter;
    if (image->locked) return WrongState;
    return Trap([&]() -> GpStatus {
        GpStatus st = engine::EnsureWritable(*image);
        if (st != OK) return st;
        auto g = std::make_unique<GpGraphics>();
        g->image = image;
        g->width = image->width;
        g->height = image->height;
        g->direct = CanDrawDirect(*image);
        if (g->direct) {
            cairo_format_t fmt =
                image->format == PixelFormat32bppRGB ? CAIRO_FORMAT_RGB24 : CAIRO_FORMAT_ARGB32;
            g->surface = cairo_image_surface_create_for_data(image->pixels->data, fmt, image->width,
                                                             image->height, image->stride);
        } else {
            std::size_t n = static_cast<std::size_t>(image->width) * image->height;
            g->scratch.resize(n);
            engine::ConvertPixels(engine::ViewOf(*image), ScratchView(*g), image->width,
                                  image->height);
            g->snapshot = g->scratch;
            g->surface = cairo_image_surface_create_for_data(
                reinterpret_cast<unsigned char*>(g->scratch.data()), CAIRO_FORMAT_ARGB32,
                image->width, image->height, image->width * 4);
        }
        if (cairo_surface_status(g->surface) != CAIRO_STATUS_SUCCESS) {
            cairo_surface_destroy(g->surface);
            return OutOfMemory;
        }
        g->cr = cairo_create(g->surface);
        if (cairo_status(g->cr) != CAIRO_STATUS_SUCCESS) {
            cairo_destroy(g->cr);
            cairo_surface_destroy(g->surface);
            return OutOfMemory;
        }
        *graphics = g.release();
        return OK;
    });
}

GpStatus GdipDeleteGraphics(GpGraphics* graphics) {
    if (!graphics) return InvalidParameter;
    if (graphics->hdc) {
        std::lock_guard<std::mutex> lock(g_dcMutex);
        g_dcTable.erase(graphics->hdc);
    }
    GpStatus st = Trap([&] {
        WriteBack(*graphics);
        return OK;
    });
    if (graphics->cr) cairo_destroy(graphics->cr);
    if (graphics->surface) {
        cairo_surface_flush(graphics->surface);
        cairo_surface_destroy(graphics->surface);
    }
    delete graphics;
    return st;
}

GpStatus GdipGraphicsClear(GpGraphics* graphics, ARGB color) {
    if (!graphics || !graphics->image) return InvalidParameter;
    return Trap([&]() -> GpStatus {
        GpGraphics& g = *graphics;
        GpImage& img = *g.image;
        cairo_surface_flush(g.surface);
        GpStatus st = engine::EnsureWritable(img);
        if (st != OK) return st;
        // The image gets the colour exactly in its own format.
        std::vector<std::uint32_t> row(static_cast<std::size_t>(g.width), color);
        engine::PixelView src;
        src.scan0 = reinterpret_cast<std::uint8_t*>(row.data());
        src.stride = 0; // the same row for every line
        src.format = PixelFormat32bppARGB;
        engine::ConvertPixels(src, engine::ViewOf(img), g.width, g.height);
        if (!g.direct) {
            std::uint32_t p = 0;
            engine::PixelView pv;
            pv.scan0 = reinterpret_cast<std::uint8_t*>(&p);
            pv.stride = 4;
            pv.format = PixelFormat32bppPARGB;
            engine::ConvertPixels(src, pv, 1, 1);
            std::fill(g.scratch.begin(), g.scratch.end(), p);
            g.snapshot = g.scratch;
        }
        cairo_surface_mark_dirty(g.surface);
        return OK;
    });
}

GpStatus GdipBitmapFillColor(GpImage* image, ARGB color) {
    if (!image || !image->pixels) return InvalidParameter;
    if (image->locked) return WrongState;
    return Trap([&]() -> GpStatus {
        GpStatus st = engine::EnsureWritable(*image);
        if (st != OK) return st;
        // The same conversion as a graphics clear (nearest palette entry for
        // indexed formats), with no 32-bit copy of the image beside it: the
        // first row is converted and its whole bytes copied to the others.
        const INT w = image->width, h = image->height;
        if (w < 1 || h < 1) return OK;
        std::vector<std::uint32_t> row(static_cast<std::size_t>(w), color);
        engine::PixelView src;
        src.scan0 = reinterpret_cast<std::uint8_t*>(row.data());
        src.stride = 0; // the same row for every line
        src.format = PixelFormat32bppARGB;
        const engine::PixelView whole = engine::ViewOf(*image);
        st = engine::ConvertPixels(src, whole, w, 1);
        if (st != OK || h == 1) return st;
        const INT bits = engine::FormatBits(image->format);
        const std::size_t full = static_cast<std::size_t>(w) * bits / 8;
        for (INT y = 1; y < h; ++y)
            std::memcpy(image->Row(y), image->Row(0), full);
        // Pixels sharing a byte with the row's padding are set one by one, so
        // that the padding bits stay as they were.
        const INT done = static_cast<INT>(full * 8 / bits);
        if (done == w) return OK;
        engine::PixelView tail = whole;
        tail.scan0 = image->Row(1);
        tail.x0 = done;
        return engine::ConvertPixels(src, tail, w - done, h - 1);
    });
}

GpStatus GdipGetDC(GpGraphics* graphics, HDC* hdc) {
    if (!graphics || !hdc) return InvalidParameter;
    if (graphics->hdc) return ObjectBusy;
    std::lock_guard<std::mutex> lock(g_dcMutex);
    HDC h = g_nextDC++;
    g_dcTable[h] = graphics;
    graphics->hdc = h;
    *hdc = h;
    return OK;
}

GpStatus GdipReleaseDC(GpGraphics* graphics, HDC hdc) {
    if (!graphics || hdc == 0 || graphics->hdc != hdc) return InvalidParameter;
    std::lock_guard<std::mutex> lock(g_dcMutex);
    g_dcTable.erase(hdc);
    graphics->hdc = 0;
    cairo_surface_flush(graphics->surface);
    return OK;
}

} // namespace kestrelyn
