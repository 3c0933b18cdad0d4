// Screen grab through X11 for the default host services. libX11 is opened at
// run time, so the library runs (without grabs) where X11 is not installed;
// with no display to connect to, a grab gives no bitmap.
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <dlfcn.h>

#include <cstdint>
#include <mutex>

#include "platform/linux/host/x11grab.h"
#include "platform/modGdi32.h"

namespace kestrelyn {

namespace {

struct X11Api {
    decltype(&XOpenDisplay) openDisplay = nullptr;
    decltype(&XCloseDisplay) closeDisplay = nullptr;
    decltype(&XGetWindowAttributes) getWindowAttributes = nullptr;
    decltype(&XGetImage) getImage = nullptr;
    decltype(&XSetErrorHandler) setErrorHandler = nullptr;
    bool ok = false;
};

const X11Api& Api() {
    static X11Api api;
    static std::once_flag once;
    std::call_once(once, [] {
        void* lib = dlopen("libX11.so.6", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
        if (!lib) return;
        api.openDisplay = reinterpret_cast<decltype(&XOpenDisplay)>(dlsym(lib, "XOpenDisplay"));
        api.closeDisplay = reinterpret_cast<decltype(&XCloseDisplay)>(dlsym(lib, "XCloseDisplay"));
        api.getWindowAttributes =
            reinterpret_cast<decltype(&XGetWindowAttributes)>(dlsym(lib, "XGetWindowAttributes"));
        api.getImage = reinterpret_cast<decltype(&XGetImage)>(dlsym(lib, "XGetImage"));
        api.setErrorHandler =
            reinterpret_cast<decltype(&XSetErrorHandler)>(dlsym(lib, "XSetErrorHandler"));
        api.ok = api.openDisplay && api.closeDisplay && api.getWindowAttributes && api.getImage &&
                 api.setErrorHandler;
    });
    return api;
}

// A bad window id must fail the grab, not end the process (Xlib's default).
int IgnoreXError(Display*, XErrorEvent*) {
    return 0;
}

// Position of a channel given its mask, and its width in bits.
void MaskShift(unsigned long mask, int& shift, int& bits) {
    shift = 0;
    bits = 0;
    if (!mask) return;
    while (!(mask & 1)) {
        mask >>= 1;
        ++shift;
    }
    while (mask & 1) {
        mask >>= 1;
        ++bits;
    }
}

std::uint32_t Channel(unsigned long pixel, int shift, int bits) {
    if (bits == 0) return 0;
    const std::uint32_t v = static_cast<std::uint32_t>((pixel >> shift) & ((1ul << bits) - 1));
    return bits >= 8 ? v >> (bits - 8) : (v * 255u) / ((1u << bits) - 1u);
}

} // namespace

HBITMAP GrabX11Window(HWND hWnd) {
    const X11Api& x = Api();
    if (!x.ok) return 0;
    Display* display = x.openDisplay(nullptr);
    if (!display) return 0;
    auto previous = x.setErrorHandler(IgnoreXError);
    const Window window = hWnd ? static_cast<Window>(hWnd) : DefaultRootWindow(display);
    HBITMAP result = 0;
    XWindowAttributes attributes{};
    if (x.getWindowAttributes(display, window, &attributes) && attributes.width > 0 &&
        attributes.height > 0) {
        XImage* image = x.getImage(display, window, 0, 0, static_cast<unsigned>(attributes.width),
                                   static_cast<unsigned>(attributes.height), AllPlanes, ZPixmap);
        if (image) {
            int rs, rb, gs, gb, bs, bb;
            MaskShift(image->red_mask, rs, rb);
            MaskShift(image->green_mask, gs, gb);
            MaskShift(image->blue_mask, bs, bb);
            HostBitmap bitmap;
            bitmap.nWidth = image->width;
            bitmap.nHeight = image->height;
            bitmap.arPixels.resize(static_cast<std::size_t>(image->width) *
                                   static_cast<std::size_t>(image->height));
            for (int yy = 0; yy < image->height; ++yy)
                for (int xx = 0; xx < image->width; ++xx) {
                    const unsigned long p = image->f.get_pixel(image, xx, yy);
                    bitmap.arPixels[static_cast<std::size_t>(yy) *
                                        static_cast<std::size_t>(image->width) +
                                    static_cast<std::size_t>(xx)] =
                        0xFF000000u | (Channel(p, rs, rb) << 16) | (Channel(p, gs, gb) << 8) |
                        Channel(p, bs, bb);
                }
            image->f.destroy_image(image);
            result = HostCreateBitmap(std::move(bitmap));
        }
    }
    x.setErrorHandler(previous);
    x.closeDisplay(display);
    return result;
}

} // namespace kestrelyn
