#include "raster/FormatConversion.h"

#include <cmath>
#include <string>
#include <vector>

#include "core/modMain.h"
#include "platform/modGdiPlus.h"

namespace kestrelyn {

std::uint8_t GrayLevel(std::int32_t nMode, std::uint32_t px) {
    const std::uint32_t b = px & 0xFF, g = (px >> 8) & 0xFF, r = (px >> 16) & 0xFF;
    switch (nMode) {
    case 1:
        return static_cast<std::uint8_t>(
            std::nearbyint((222.0 * r + 707.0 * g + 71.0 * b) / 1000.0));
    case 2:
        return static_cast<std::uint8_t>(std::nearbyint((r + g + b) / 3.0));
    default:
        return static_cast<std::uint8_t>(b);
    }
}

namespace {

// Reads a whole image as 32-bit ARGB.
KestrelynStatus ReadARGB(std::int32_t nImageID, std::int32_t& w, std::int32_t& h,
                         std::vector<std::uint32_t>& px) {
    GpImage* img = ResolveGdiPlusImage(nImageID);
    UINT uw = 0, uh = 0;
    KestrelynStatus st = GdipGetImageWidth(img, &uw);
    if (st == OK) st = GdipGetImageHeight(img, &uh);
    if (st != OK) return st;
    w = static_cast<std::int32_t>(uw);
    h = static_cast<std::int32_t>(uh);
    if (w < 1 || h < 1) return InvalidParameter;
    px.resize(static_cast<std::size_t>(w) * h);
    BitmapData data;
    data.Width = uw;
    data.Height = uh;
    data.Stride = 4 * w;
    data.PixelFormat = PixelFormat32bppARGB;
    data.Scan0 = px.data();
    PixelFormat fmt = PixelFormat32bppARGB;
    GpRect rect{0, 0, w, h};
    st = LockBits(nImageID, rect, 5, fmt, data);
    if (st != OK) return st;
    return UnlockBits(nImageID, data);
}

// Makes a bitmap of the format from the rows, optionally with a palette, and
// registers it under the format name of the source.
KestrelynStatus Register(std::int32_t nSourceID, std::int32_t w, std::int32_t h, PixelFormat fmt,
                         void* rows, INT stride, const ColorPalette* pal,
                         std::int32_t& nNewImageID) {
    GpBitmap* bmp = nullptr;
    KestrelynStatus st = GdipCreateBitmapFromScan0(w, h, 0, fmt, nullptr, &bmp);
    if (st != OK) return st;
    if (pal) st = GdipSetImagePalette(bmp, pal);
    if (st == OK) {
        GpRect rect{0, 0, w, h};
        BitmapData data;
        data.Width = static_cast<UINT>(w);
        data.Height = static_cast<UINT>(h);
        data.Stride = stride;
        data.PixelFormat = fmt;
        data.Scan0 = rows;
        st = GdipBitmapLockBits(bmp, &rect, 6, fmt, &data);
        if (st == OK) st = GdipBitmapUnlockBits(bmp, &data);
    }
    if (st != OK) {
        GdipDisposeImage(bmp);
        return st;
    }
    const ImageRecord* source = FindImageRecord(nSourceID);
    const std::string sFormat = source ? source->sFormatName : std::string();
    RegisterImage(nNewImageID, bmp, sFormat, "", KindEngine);
    return OK;
}

} // namespace

KestrelynStatus MakeGray8Image(std::int32_t nSourceID, std::int32_t nMode,
                               std::int32_t& nNewImageID) {
    std::int32_t w = 0, h = 0;
    std::vector<std::uint32_t> px;
    KestrelynStatus st = ReadARGB(nSourceID, w, h, px);
    if (st != OK) return st;
    const INT stride = (w + 3) & ~3;
    std::vector<std::uint8_t> rows(static_cast<std::size_t>(stride) * h, 0);
    for (std::int32_t y = 0; y < h; ++y)
        for (std::int32_t x = 0; x < w; ++x)
            rows[static_cast<std::size_t>(y) * stride + x] =
                GrayLevel(nMode, px[static_cast<std::size_t>(y) * w + x]);
    std::vector<std::uint8_t> raw(sizeof(ColorPalette) + 256 * sizeof(ARGB));
    auto* pal = reinterpret_cast<ColorPalette*>(raw.data());
    pal->Flags = PaletteFlagsGrayScale;
    pal->Count = 256;
    for (std::uint32_t i = 0; i < 256; ++i)
        pal->Entries[i] = 0xFF000000u | (i << 16) | (i << 8) | i;
    return Register(nSourceID, w, h, PixelFormat8bppIndexed, rows.data(), stride, pal, nNewImageID);
}

KestrelynStatus MakeARGB32Image(std::int32_t nSourceID, std::int32_t& nNewImageID) {
    std::int32_t w = 0, h = 0;
    std::vector<std::uint32_t> px;
    KestrelynStatus st = ReadARGB(nSourceID, w, h, px);
    if (st != OK) return st;
    return Register(nSourceID, w, h, PixelFormat32bppARGB, px.data(), 4 * w, nullptr, nNewImageID);
}

} // namespace kestrelyn
