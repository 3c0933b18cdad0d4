// PNG through libpng. Decoding keeps each file's precision:
//   palette 1/2/4/8 bits      -> 1/4/4/8bppIndexed, tRNS as palette alpha
//   grey 1 bit                -> 1bppIndexed (black, white)
//   grey 2/4/8 bits           -> 8bppIndexed with a grey ramp (tRNS: alpha 0 entry)
//   grey 16 bits              -> 48bppRGB (64bppARGB with tRNS)
//   grey+alpha 8/16           -> 32bppARGB / 64bppARGB
//   RGB 8/16                  -> 24bppRGB / 48bppRGB (with tRNS: 32/64bppARGB)
//   RGBA 8/16                 -> 32bppARGB / 64bppARGB
// 16-bit samples are kept as stored. Gamma is not applied to the pixels: the
// file's gAMA goes to property 0x0301 (PropertyTagGamma) as the rational
// 100000 / (gAMA * 100000), the display exponent. pHYs gives the resolution
// (and properties 0x5110..0x5112), iCCP property 34675.
#include <png.h>

#include <cstring>

#include "platform/linux/engine/codecs/CodecCommon.h"

namespace kestrelyn::codecs {

namespace {

struct MemReader {
    const std::uint8_t* data;
    std::size_t size;
    std::size_t pos;
};

void ReadFn(png_structp png, png_bytep out, png_size_t n) {
    auto* r = static_cast<MemReader*>(png_get_io_ptr(png));
    if (n > r->size - r->pos) png_error(png, "read past end");
    std::memcpy(out, r->data + r->pos, n);
    r->pos += n;
}

void WarnFn(png_structp, png_const_charp) {}
void ErrorFn(png_structp png, png_const_charp) {
    png_longjmp(png, 1);
}

struct PngDecodeCtx {
    png_structp png = nullptr;
    png_infop info = nullptr;
    MemReader reader{};
    GpImage* image = nullptr;
    std::vector<png_bytep> rows;
    std::vector<std::uint8_t> tmp; // 2-bit palette expansion
    std::vector<ARGB> palette;
    GpStatus status = UnknownImageFormat;
};

// All C++ objects live in the context so that a longjmp skips no destructor.
bool DecodeCore(PngDecodeCtx& c) {
    if (setjmp(png_jmpbuf(c.png))) return false;
    png_set_read_fn(c.png, &c.reader, ReadFn);
    png_set_user_limits(c.png, static_cast<png_uint_32>(kMaxSide),
                        static_cast<png_uint_32>(kMaxSide));
    png_set_chunk_malloc_max(c.png, 64u << 20);
    png_read_info(c.png, c.info);
    png_uint_32 w = 0, h = 0;
    int depth = 0, ctype = 0, interlace = 0;
    png_get_IHDR(c.png, c.info, &w, &h, &depth, &ctype, &interlace, nullptr, nullptr);
    bool trns = png_get_valid(c.png, c.info, PNG_INFO_tRNS) != 0;
    PixelFormat fmt = 0;
    UINT flags = ImageFlagsColorSpaceRGB;
    bool twoBitPalette = false;
    std::vector<ARGB>& palette = c.palette;
    UINT palFlags = 0;
    switch (ctype) {
    case PNG_COLOR_TYPE_PALETTE: {
        fmt = depth == 1   ? PixelFormat1bppIndexed
              : depth <= 4 ? PixelFormat4bppIndexed
                           : PixelFormat8bppIndexed;
        twoBitPalette = depth == 2;
        png_colorp pal = nullptr;
        int num = 0;
        png_get_PLTE(c.png, c.info, &pal, &num);
        png_bytep alpha = nullptr;
        int numAlpha = 0;
        if (trns) png_get_tRNS(c.png, c.info, &alpha, &numAlpha, nullptr);
        for (int i = 0; i < num; ++i) {
            ARGB a = (alpha && i < numAlpha) ? alpha[i] : 255;
            if (a != 255) palFlags |= PaletteFlagsHasAlpha;
            palette.push_back((a << 24) | (static_cast<ARGB>(pal[i].red) << 16) |
                              (static_cast<ARGB>(pal[i].green) << 8) | pal[i].blue);
        }
        if (palFlags) flags |= ImageFlagsHasAlpha;
        break;
    }
    case PNG_COLOR_TYPE_GRAY:
        flags = ImageFlagsColorSpaceGRAY;
        if (depth == 16) {
            png_set_gray_to_rgb(c.png);
            if (trns) {
                png_set_tRNS_to_alpha(c.png);
                fmt = PixelFormat64bppARGB;
                flags |= ImageFlagsHasAlpha;
            } else {
                fmt = PixelFormat48bppRGB;
            }
        } else {
            int levels = depth == 1 ? 2 : 256;
            fmt = depth == 1 ? PixelFormat1bppIndexed : PixelFormat8bppIndexed;
            if (depth == 2 || depth == 4) png_set_expand_gray_1_2_4_to_8(c.png);
            palette = GreyRamp(levels);
            palFlags = PaletteFlagsGrayScale;
            if (trns) {
                png_color_16p tc = nullptr;
                png_get_tRNS(c.png, c.info, nullptr, nullptr, &tc);
                if (tc) {
                    int g = tc->gray & ((1 << depth) - 1);
                    int idx = depth == 1 ? g : g * 255 / ((1 << depth) - 1);
                    palette[static_cast<std::size_t>(idx)] &= 0x00ffffffu;
                    palFlags |= PaletteFlagsHasAlpha;
                    flags |= ImageFlagsHasAlpha;
                }
            }
        }
        break;
    case PNG_COLOR_TYPE_GRAY_ALPHA:
        flags = ImageFlagsColorSpaceGRAY | ImageFlagsHasAlpha;
        png_set_gray_to_rgb(c.png);
        fmt = depth == 16 ? PixelFormat64bppARGB : PixelFormat32bppARGB;
        break;
    case PNG_COLOR_TYPE_RGB:
        if (trns) {
            png_set_tRNS_to_alpha(c.png);
            fmt = depth == 16 ? PixelFormat64bppARGB : PixelFormat32bppARGB;
            flags |= ImageFlagsHasAlpha;
        } else {
            fmt = depth == 16 ? PixelFormat48bppRGB : PixelFormat24bppRGB;
        }
        break;
    case PNG_COLOR_TYPE_RGB_ALPHA:
        fmt = depth == 16 ? PixelFormat64bppARGB : PixelFormat32bppARGB;
        flags |= ImageFlagsHasAlpha;
        break;
    default:
        return false;
    }
    if (ctype != PNG_COLOR_TYPE_PALETTE && !(ctype == PNG_COLOR_TYPE_GRAY && depth < 16)) {
        png_set_bgr(c.png);
        if (depth == 16) png_set_swap(c.png);
    }
    int passes = png_set_interlace_handling(c.png);
    (void)passes;
    png_read_update_info(c.png, c.info);
    c.status = NewBitmap(w, h, fmt, &c.image);
    if (c.status != OK) return false;
    c.status = UnknownImageFormat;
    c.rows.resize(h);
    std::size_t rowBytes = png_get_rowbytes(c.png, c.info);
    if (twoBitPalette) {
        c.tmp.assign(rowBytes * h, 0);
        for (png_uint_32 y = 0; y < h; ++y)
            c.rows[y] = c.tmp.data() + rowBytes * y;
    } else {
        for (png_uint_32 y = 0; y < h; ++y)
            c.rows[y] = c.image->Row(static_cast<INT>(y));
    }
    png_read_image(c.png, c.rows.data());
    if (twoBitPalette) {
        for (png_uint_32 y = 0; y < h; ++y) {
            std::uint8_t* dst = c.image->Row(static_cast<INT>(y));
            const std::uint8_t* src = c.rows[y];
            for (png_uint_32 x = 0; x < w; x += 2) {
                int a = (src[x / 4] >> (6 - 2 * (x % 4))) & 3;
                int b = x + 1 < w ? (src[(x + 1) / 4] >> (6 - 2 * ((x + 1) % 4))) & 3 : 0;
                dst[x / 2] = static_cast<std::uint8_t>((a << 4) | b);
            }
        }
    }
    png_read_end(c.png, nullptr);
    if (!palette.empty()) {
        std::size_t n = std::size_t{1} << GetPixelFormatSize(fmt);
        if (palette.size() < n && ctype == PNG_COLOR_TYPE_PALETTE) palette.resize(n, 0xff000000u);
        if (SetPalette(c.image, palette, palFlags) != OK) return false;
    }
    c.image->flags = flags | ImageFlagsHasRealPixelSize;
    c.image->rawFormat = ImageFormatPNG;
    // Metadata.
    double gamma = 0;
    if (png_get_gAMA(c.png, c.info, &gamma) && gamma > 0)
        AddPropertyRational(c.image, 0x0301, 100000,
                            static_cast<std::uint32_t>(gamma * 100000 + 0.5));
    png_uint_32 rx = 0, ry = 0;
    int unit = 0;
    if (png_get_pHYs(c.png, c.info, &rx, &ry, &unit)) {
        std::uint8_t u = static_cast<std::uint8_t>(unit);
        AddProperty(c.image, 0x5110, PropertyTagTypeByte, &u, 1);
        AddPropertyLongs(c.image, 0x5111, {rx});
        AddPropertyLongs(c.image, 0x5112, {ry});
        if (unit == PNG_RESOLUTION_METER && rx > 0 && ry > 0) {
            GdipBitmapSetResolution(c.image, static_cast<float>(rx * 0.0254),
                                    static_cast<float>(ry * 0.0254));
            c.image->flags |= ImageFlagsHasRealDPI;
        }
    }
    png_charp name = nullptr;
    int comp = 0;
    png_bytep profile = nullptr;
    png_uint_32 plen = 0;
    if (png_get_iCCP(c.png, c.info, &name, &comp, &profile, &plen) && profile && plen)
        AddProperty(c.image, 34675, PropertyTagTypeByte, profile, plen);
    c.status = OK;
    return true;
}

} // namespace

GpStatus DecodePng(const std::uint8_t* data, std::size_t size, GpImage** out) {
    *out = nullptr;
    PngDecodeCtx c;
    c.reader = {data, size, 0};
    c.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, ErrorFn, WarnFn);
    if (!c.png) return OutOfMemory;
    c.info = png_create_info_struct(c.png);
    if (!c.info) {
        png_destroy_read_struct(&c.png, nullptr, nullptr);
        return OutOfMemory;
    }
    bool ok = DecodeCore(c);
    png_destroy_read_struct(&c.png, &c.info, nullptr);
    if (!ok) {
        if (c.image) GdipDisposeImage(c.image);
        return c.status == OK ? UnknownImageFormat : c.status;
    }
    *out = c.image;
    return OK;
}

} // namespace kestrelyn::codecs
