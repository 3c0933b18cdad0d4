// Conversions between engine bitmaps and host handles (HBITMAP, HICON, DIB).
//
// - An HBITMAP holds the bitmap composited over the background colour with
//   the "over" rule in premultiplied form: an opaque background gives plain
//   opaque colours, background 0 gives the premultiplied pixels.
// - An HICON holds the ARGB pixels as they are (not premultiplied), so an
//   icon round trip is exact.
// - A bitmap from an HBITMAP is 32bppRGB; from an HICON 32bppARGB.
#include <cmath>
#include <cstring>

#include "platform/linux/engine/EngineInternal.h"
#include "platform/modGdi32.h"

namespace kestrelyn {

using engine::Trap;

namespace {

inline std::uint32_t Mul255(std::uint32_t c, std::uint32_t a) {
    std::uint32_t t = c * a + 128;
    return (t + (t >> 8)) >> 8;
}

// The whole bitmap as non-premultiplied ARGB, top-down.
GpStatus ToArgb(GpImage& bitmap, std::vector<std::uint32_t>& out) {
    out.assign(static_cast<std::size_t>(bitmap.width) * bitmap.height, 0);
    engine::PixelView dst;
    dst.scan0 = reinterpret_cast<std::uint8_t*>(out.data());
    dst.stride = static_cast<std::ptrdiff_t>(bitmap.width) * 4;
    dst.format = PixelFormat32bppARGB;
    return engine::ConvertPixels(engine::ViewOf(bitmap), dst, bitmap.width, bitmap.height);
}

GpStatus FromHost(const HostBitmap& hb, PixelFormat format, GpBitmap** bitmap) {
    if (hb.nWidth <= 0 || hb.nHeight <= 0 ||
        hb.arPixels.size() < static_cast<std::size_t>(hb.nWidth) * hb.nHeight)
        return InvalidParameter;
    std::unique_ptr<GpImage> img(engine::NewBitmap(hb.nWidth, hb.nHeight, format));
    if (!img) return OutOfMemory;
    engine::PixelView src;
    src.scan0 = reinterpret_cast<std::uint8_t*>(const_cast<std::uint32_t*>(hb.arPixels.data()));
    src.stride = static_cast<std::ptrdiff_t>(hb.nWidth) * 4;
    src.format = format == PixelFormat32bppRGB ? PixelFormat32bppRGB : PixelFormat32bppARGB;
    GpStatus st = engine::ConvertPixels(src, engine::ViewOf(*img), hb.nWidth, hb.nHeight);
    if (st != OK) return st;
    *bitmap = img.release();
    return OK;
}

} // namespace

GpStatus GdipCreateHBITMAPFromBitmap(GpBitmap* bitmap, HBITMAP* hbmReturn, ARGB background) {
    if (!bitmap || !hbmReturn || !bitmap->pixels) return InvalidParameter;
    if (bitmap->locked) return WrongState;
    return Trap([&]() -> GpStatus {
        HostBitmap hb;
        hb.nWidth = bitmap->width;
        hb.nHeight = bitmap->height;
        GpStatus st = ToArgb(*bitmap, hb.arPixels);
        if (st != OK) return st;
        const std::uint32_t ba = background >> 24;
        const std::uint32_t bgR = Mul255((background >> 16) & 255, ba);
        const std::uint32_t bgG = Mul255((background >> 8) & 255, ba);
        const std::uint32_t bgB = Mul255(background & 255, ba);
        for (std::uint32_t& p : hb.arPixels) {
            std::uint32_t sa = p >> 24;
            if (sa == 255) continue;
            std::uint32_t rest = 255 - sa;
            std::uint32_t a = sa + Mul255(ba, rest);
            std::uint32_t r = Mul255((p >> 16) & 255, sa) + Mul255(bgR, rest);
            std::uint32_t g = Mul255((p >> 8) & 255, sa) + Mul255(bgG, rest);
            std::uint32_t b = Mul255(p & 255, sa) + Mul255(bgB, rest);
            p = (a << 24) | (std::min(r, 255u) << 16) | (std::min(g, 255u) << 8) |
                std::min(b, 255u);
        }
        *hbmReturn = HostCreateBitmap(std::move(hb));
        return OK;
    });
}

GpStatus GdipCreateBitmapFromHBITMAP(HBITMAP hbm, HPALETTE, GpBitmap** bitmap) {
    if (!bitmap) return InvalidParameter;
    const HostBitmap* hb = HostGetBitmap(hbm);
    if (!hb) return InvalidParameter;
    return Trap([&] { return FromHost(*hb, PixelFormat32bppRGB, bitmap); });
}

GpStatus GdipCreateHICONFromBitmap(GpBitmap* bitmap, HICON* hbmReturn) {
    if (!bitmap || !hbmReturn || !bitmap->pixels) return InvalidParameter;
    if (bitmap->locked) return WrongState;
    return Trap([&]() -> GpStatus {
        HostBitmap hb;
        hb.nWidth = bitmap->width;
        hb.nHeight = bitmap->height;
        hb.bIsIcon = true;
        GpStatus st = ToArgb(*bitmap, hb.arPixels);
        if (st != OK) return st;
        *hbmReturn = HostCreateBitmap(std::move(hb));
        return OK;
    });
}

GpStatus GdipCreateBitmapFromHICON(HICON hicon, GpBitmap** bitmap) {
    if (!bitmap) return InvalidParameter;
    const HostBitmap* hb = HostGetBitmap(hicon);
    if (!hb) return InvalidParameter;
    return Trap([&] { return FromHost(*hb, PixelFormat32bppARGB, bitmap); });
}

GpStatus GdipCreateBitmapFromGdiDib(const void* gdiBitmapInfo, void* gdiBitmapData,
                                    GpBitmap** bitmap) {
    if (!gdiBitmapInfo || !gdiBitmapData || !bitmap) return InvalidParameter;
    BITMAPINFOHEADER bih;
    std::memcpy(&bih, gdiBitmapInfo, sizeof bih);
    if (bih.biSize < 40 || bih.biWidth <= 0 || bih.biHeight == 0 || bih.biHeight == INT32_MIN)
        return InvalidParameter;
    if (bih.biCompression != 0) return NotImplemented;
    PixelFormat format;
    switch (bih.biBitCount) {
    case 1:
        format = PixelFormat1bppIndexed;
        break;
    case 4:
        format = PixelFormat4bppIndexed;
        break;
    case 8:
        format = PixelFormat8bppIndexed;
        break;
    case 16:
        format = PixelFormat16bppRGB555;
        break;
    case 24:
        format = PixelFormat24bppRGB;
        break;
    case 32:
        format = PixelFormat32bppRGB;
        break;
    default:
        return InvalidParameter;
    }
    return Trap([&]() -> GpStatus {
        const INT w = bih.biWidth;
        const bool bottomUp = bih.biHeight > 0;
        const INT h = bottomUp ? bih.biHeight : -bih.biHeight;
        std::unique_ptr<GpImage> img(engine::NewBitmap(w, h, format));
        if (!img) return OutOfMemory;
        if (bih.biBitCount <= 8) {
            UINT cap = 1u << bih.biBitCount;
            UINT count = bih.biClrUsed ? std::min<UINT>(bih.biClrUsed, cap) : cap;
            const auto* table = reinterpret_cast<const std::uint8_t*>(gdiBitmapInfo) + bih.biSize;
            img->palette.resize(count);
            for (UINT i = 0; i < count; ++i) {
                RGBQUAD q;
                std::memcpy(&q, table + 4 * i, 4);
                img->palette[i] = 0xFF000000u | (std::uint32_t(q.rgbRed) << 16) |
                                  (std::uint32_t(q.rgbGreen) << 8) | q.rgbBlue;
            }
            img->paletteFlags = 0;
        }
        const std::size_t dibStride =
            ((static_cast<std::size_t>(w) * bih.biBitCount + 31) / 32) * 4;
        const std::size_t rowBytes = (static_cast<std::size_t>(w) * bih.biBitCount + 7) / 8;
        const auto* data = static_cast<const std::uint8_t*>(gdiBitmapData);
        for (INT y = 0; y < h; ++y) {
            const std::uint8_t* src =
                data + dibStride * static_cast<std::size_t>(bottomUp ? h - 1 - y : y);
            std::memcpy(img->Row(y), src, rowBytes);
            if (format == PixelFormat32bppRGB) {
                for (INT x = 0; x < w; ++x)
                    img->Row(y)[4 * x + 3] = 0xFF;
            }
        }
        if (bih.biXPelsPerMeter > 0 && bih.biYPelsPerMeter > 0) {
            img->dpiX = static_cast<float>(bih.biXPelsPerMeter * 0.0254);
            img->dpiY = static_cast<float>(bih.biYPelsPerMeter * 0.0254);
        }
        *bitmap = img.release();
        return OK;
    });
}

} // namespace kestrelyn
