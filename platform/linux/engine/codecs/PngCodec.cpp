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
//
// Encoding writes rows straight from the bitmap when its format has a PNG
// form (indexed, 16-bit grey, 24/32/48/64-bit; BGR order and 16-bit byte
// order are swapped by libpng as rows go out, 32bppRGB's unused byte is
// dropped); PARGB and the 16-bit colour formats are converted first.
// Compression: palette images use no row filter and deflate level 6, as the
// common writers do. Other images use the Paeth filter on every row and a
// deflate strategy chosen from a sample of rows: run-length matching (Z_RLE)
// when LZ77 at level 6 would make the sample less than 8% smaller, as for
// photographs and noise, where it is several times faster at nearly the same
// size; LZ77 at level 6 for drawings, text and screens, whose repeats it
// finds.
#include <png.h>
#include <zlib.h>

#include <algorithm>
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

// ------------------------------------------------------------ encoding
namespace {

struct PngEncodeCtx {
    png_structp png = nullptr;
    png_infop info = nullptr;
    ByteSink* sink = nullptr;
    std::vector<png_color> palette;
    std::vector<png_byte> alpha;
};

void SinkWriteFn(png_structp png, png_bytep data, png_size_t n) {
    auto* c = static_cast<PngEncodeCtx*>(png_get_io_ptr(png));
    if (!c->sink->Write(data, n)) png_error(png, "write failed");
}
void SinkFlushFn(png_structp) {}

// Kinds of PNG written for the engine's formats.
struct PngLayout {
    int colorType;
    int depth;
    PixelFormat lockFormat;
    bool filler; // 32bppRGB: the fourth byte of each pixel is dropped
};

PngLayout LayoutFor(const GpImage* image) {
    PixelFormat f = image->format;
    if (IsIndexedPixelFormat(f)) return {PNG_COLOR_TYPE_PALETTE, GetPixelFormatSize(f), f, false};
    if (f == PixelFormat16bppGrayScale) return {PNG_COLOR_TYPE_GRAY, 16, f, false};
    if (f == PixelFormat48bppRGB) return {PNG_COLOR_TYPE_RGB, 16, f, false};
    if (f == PixelFormat64bppARGB || f == PixelFormat64bpppARGB)
        return {PNG_COLOR_TYPE_RGB_ALPHA, 16, PixelFormat64bppARGB, false};
    if (IsAlphaPixelFormat(f)) return {PNG_COLOR_TYPE_RGB_ALPHA, 8, PixelFormat32bppARGB, false};
    if (f == PixelFormat32bppRGB) return {PNG_COLOR_TYPE_RGB, 8, f, true};
    return {PNG_COLOR_TYPE_RGB, 8, PixelFormat24bppRGB, false};
}

// Deflated size of a byte block with the given strategy at level 6.
std::size_t DeflatedSize(const std::vector<std::uint8_t>& in, int strategy) {
    z_stream z{};
    if (deflateInit2(&z, 6, Z_DEFLATED, 15, 8, strategy) != Z_OK) return 0;
    std::vector<std::uint8_t> out(deflateBound(&z, static_cast<uLong>(in.size())));
    z.next_in = const_cast<Bytef*>(in.data());
    z.avail_in = static_cast<uInt>(in.size());
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    int r = deflate(&z, Z_FINISH);
    std::size_t size = r == Z_STREAM_END ? z.total_out : 0;
    deflateEnd(&z);
    return size;
}

// True when run-length matching suits the picture (see the note at the top):
// bands of rows spread over the picture, each row minus the row above it,
// are deflated both ways.
bool PreferRunLengths(const BitmapData& bd, std::size_t rowBytes) {
    constexpr std::size_t kBudget = 384 * 1024;
    const std::size_t h = bd.Height;
    std::size_t rows = std::clamp<std::size_t>(kBudget / std::max<std::size_t>(rowBytes, 1), 2, h);
    const std::size_t bands = std::min<std::size_t>(16, std::max<std::size_t>(rows / 2, 1));
    const std::size_t perBand = std::max<std::size_t>(rows / bands, 1);
    std::vector<std::uint8_t> sample;
    sample.reserve(bands * perBand * rowBytes);
    auto row = [&](std::size_t y) {
        return static_cast<const std::uint8_t*>(bd.Scan0) +
               static_cast<std::ptrdiff_t>(y) * bd.Stride;
    };
    for (std::size_t b = 0; b < bands; ++b) {
        std::size_t y0 = h * b / bands;
        for (std::size_t y = y0; y < y0 + perBand && y < h; ++y) {
            const std::uint8_t* r = row(y);
            const std::uint8_t* up = y > 0 ? row(y - 1) : nullptr;
            for (std::size_t i = 0; i < rowBytes; ++i)
                sample.push_back(static_cast<std::uint8_t>(r[i] - (up ? up[i] : 0)));
        }
    }
    if (sample.size() < 4096) return false; // small pictures: LZ77 costs nothing
    std::size_t lz = DeflatedSize(sample, Z_DEFAULT_STRATEGY);
    std::size_t rle = DeflatedSize(sample, Z_RLE);
    return lz == 0 || rle == 0 || static_cast<double>(lz) >= 0.92 * static_cast<double>(rle);
}

bool PngEncodeCore(PngEncodeCtx& c, GpImage* image, const PngLayout& L, const BitmapData& bd) {
    if (setjmp(png_jmpbuf(c.png))) return false;
    png_set_write_fn(c.png, &c, SinkWriteFn, SinkFlushFn);
    png_set_IHDR(c.png, c.info, bd.Width, bd.Height, L.depth, L.colorType, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_compression_buffer_size(c.png, 64 * 1024);
    png_set_compression_level(c.png, 6);
    if (L.colorType == PNG_COLOR_TYPE_PALETTE) {
        png_set_filter(c.png, PNG_FILTER_TYPE_BASE, PNG_FILTER_NONE);
        png_set_compression_strategy(c.png, Z_DEFAULT_STRATEGY);
        std::size_t n = std::min<std::size_t>(image->palette.size(), std::size_t{1} << L.depth);
        if (n == 0) n = 1;
        c.palette.resize(n);
        c.alpha.resize(n);
        std::size_t lastAlpha = 0;
        for (std::size_t i = 0; i < n; ++i) {
            ARGB v = i < image->palette.size() ? image->palette[i] : 0xff000000u;
            c.palette[i] = {static_cast<png_byte>(v >> 16), static_cast<png_byte>(v >> 8),
                            static_cast<png_byte>(v)};
            c.alpha[i] = static_cast<png_byte>(v >> 24);
            if (c.alpha[i] != 255) lastAlpha = i + 1;
        }
        png_set_PLTE(c.png, c.info, c.palette.data(), static_cast<int>(n));
        if (lastAlpha)
            png_set_tRNS(c.png, c.info, c.alpha.data(), static_cast<int>(lastAlpha), nullptr);
    } else {
        const int channels = L.colorType == PNG_COLOR_TYPE_RGB_ALPHA ? 4
                             : L.colorType == PNG_COLOR_TYPE_RGB     ? 3
                                                                     : 1;
        const std::size_t pixelBytes = static_cast<std::size_t>(L.filler ? 4 : channels) *
                                       static_cast<std::size_t>(L.depth / 8);
        png_set_filter(c.png, PNG_FILTER_TYPE_BASE, PNG_FILTER_PAETH);
        png_set_compression_strategy(
            c.png, PreferRunLengths(bd, bd.Width * pixelBytes) ? Z_RLE : Z_DEFAULT_STRATEGY);
    }
    png_set_pHYs(c.png, c.info, static_cast<png_uint_32>(image->dpiX / 0.0254 + 0.5),
                 static_cast<png_uint_32>(image->dpiY / 0.0254 + 0.5), PNG_RESOLUTION_METER);
    png_write_info(c.png, c.info);
    if (L.colorType == PNG_COLOR_TYPE_RGB || L.colorType == PNG_COLOR_TYPE_RGB_ALPHA)
        png_set_bgr(c.png);
    if (L.filler) png_set_filler(c.png, 0, PNG_FILLER_AFTER);
    if (L.depth == 16) png_set_swap(c.png);
    // libpng copies each row before it transforms and filters it: the
    // bitmap's rows go in as they are.
    for (UINT y = 0; y < bd.Height; ++y)
        png_write_row(c.png, static_cast<png_const_bytep>(bd.Scan0) +
                                 static_cast<std::ptrdiff_t>(y) * bd.Stride);
    png_write_end(c.png, nullptr);
    return true;
}

} // namespace

GpStatus EncodePng(GpImage* image, ByteSink& out) {
    PngLayout L = LayoutFor(image);
    GpRect rect{0, 0, image->width, image->height};
    BitmapData bd;
    GpStatus st = GdipBitmapLockBits(image, &rect, ImageLockModeRead, L.lockFormat, &bd);
    if (st != OK) return st;
    PngEncodeCtx c;
    c.sink = &out;
    c.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, ErrorFn, WarnFn);
    if (c.png) c.info = png_create_info_struct(c.png);
    bool ok = c.png && c.info && PngEncodeCore(c, image, L, bd);
    if (c.png) png_destroy_write_struct(&c.png, &c.info);
    GdipBitmapUnlockBits(image, &bd);
    return ok ? OK : GenericError;
}

} // namespace kestrelyn::codecs
