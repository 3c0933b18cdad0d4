// Saving: the PNG and BMP encoders and the entry points that choose an
// encoder by class id and write to a file or a stream.
#include <png.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>

#include "platform/linux/engine/codecs/CodecCommon.h"
#include "platform/linux/engine/codecs/TiffCodec.h"

namespace kestrelyn::codecs {

namespace {

void PngWriteFn(png_structp png, png_bytep data, png_size_t n) {
    auto* out = static_cast<Bytes*>(png_get_io_ptr(png));
    out->insert(out->end(), data, data + n);
}
void PngFlushFn(png_structp) {}
void PngErrorFn(png_structp png, png_const_charp) {
    png_longjmp(png, 1);
}
void PngWarnFn(png_structp, png_const_charp) {}

struct PngEncodeCtx {
    png_structp png = nullptr;
    png_infop info = nullptr;
    std::vector<png_color> palette;
    std::vector<png_byte> alpha;
    std::vector<std::uint8_t> line;
};

// Kinds of PNG written for the engine's formats.
struct PngLayout {
    int colorType;
    int depth;
    PixelFormat lockFormat;
};

PngLayout LayoutFor(const GpImage* image) {
    PixelFormat f = image->format;
    if (IsIndexedPixelFormat(f)) return {PNG_COLOR_TYPE_PALETTE, GetPixelFormatSize(f), f};
    if (f == PixelFormat16bppGrayScale) return {PNG_COLOR_TYPE_GRAY, 16, f};
    if (f == PixelFormat48bppRGB) return {PNG_COLOR_TYPE_RGB, 16, f};
    if (f == PixelFormat64bppARGB || f == PixelFormat64bpppARGB)
        return {PNG_COLOR_TYPE_RGB_ALPHA, 16, PixelFormat64bppARGB};
    if (IsAlphaPixelFormat(f)) return {PNG_COLOR_TYPE_RGB_ALPHA, 8, PixelFormat32bppARGB};
    return {PNG_COLOR_TYPE_RGB, 8, PixelFormat24bppRGB};
}

bool PngEncodeCore(PngEncodeCtx& c, GpImage* image, const PngLayout& L, const BitmapData& bd,
                   Bytes& out) {
    if (setjmp(png_jmpbuf(c.png))) return false;
    png_set_write_fn(c.png, &out, PngWriteFn, PngFlushFn);
    png_set_IHDR(c.png, c.info, bd.Width, bd.Height, L.depth, L.colorType, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (L.colorType == PNG_COLOR_TYPE_PALETTE) {
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
    }
    png_set_pHYs(c.png, c.info, static_cast<png_uint_32>(image->dpiX / 0.0254 + 0.5),
                 static_cast<png_uint_32>(image->dpiY / 0.0254 + 0.5), PNG_RESOLUTION_METER);
    png_write_info(c.png, c.info);
    if (L.colorType == PNG_COLOR_TYPE_RGB || L.colorType == PNG_COLOR_TYPE_RGB_ALPHA)
        png_set_bgr(c.png);
    if (L.depth == 16) png_set_swap(c.png);
    for (UINT y = 0; y < bd.Height; ++y) {
        const std::uint8_t* row =
            static_cast<const std::uint8_t*>(bd.Scan0) + static_cast<std::ptrdiff_t>(y) * bd.Stride;
        std::memcpy(c.line.data(), row, c.line.size());
        png_write_row(c.png, c.line.data());
    }
    png_write_end(c.png, nullptr);
    return true;
}

} // namespace

GpStatus EncodePng(GpImage* image, Bytes& out) {
    PngLayout L = LayoutFor(image);
    GpRect rect{0, 0, image->width, image->height};
    BitmapData bd;
    GpStatus st = GdipBitmapLockBits(image, &rect, ImageLockModeRead, L.lockFormat, &bd);
    if (st != OK) return st;
    PngEncodeCtx c;
    int channels = L.colorType == PNG_COLOR_TYPE_RGB         ? 3
                   : L.colorType == PNG_COLOR_TYPE_RGB_ALPHA ? 4
                                                             : 1;
    c.line.resize(
        (static_cast<std::size_t>(bd.Width) * static_cast<std::size_t>(L.depth * channels) + 7) /
        8);
    c.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, PngErrorFn, PngWarnFn);
    if (c.png) c.info = png_create_info_struct(c.png);
    bool ok = c.png && c.info && PngEncodeCore(c, image, L, bd, out);
    if (c.png) png_destroy_write_struct(&c.png, &c.info);
    GdipBitmapUnlockBits(image, &bd);
    return ok ? OK : GenericError;
}

GpStatus EncodeBmp(GpImage* image, Bytes& out) {
    PixelFormat f = image->format;
    int bpp;
    PixelFormat lockFmt;
    if (IsIndexedPixelFormat(f))
        bpp = GetPixelFormatSize(f), lockFmt = f;
    else if (f == PixelFormat32bppARGB || f == PixelFormat32bppPARGB || f == PixelFormat32bppRGB ||
             f == PixelFormat64bppARGB || f == PixelFormat64bpppARGB)
        bpp = 32, lockFmt = f == PixelFormat32bppRGB ? PixelFormat32bppRGB : PixelFormat32bppARGB;
    else
        bpp = 24, lockFmt = PixelFormat24bppRGB;
    const std::uint32_t w = static_cast<std::uint32_t>(image->width),
                        h = static_cast<std::uint32_t>(image->height);
    std::uint32_t colours = bpp <= 8 ? (1u << bpp) : 0;
    std::uint32_t rowBytes = (w * static_cast<std::uint32_t>(bpp) + 31) / 32 * 4;
    std::uint32_t offset = 14 + 40 + 4 * colours;
    std::uint64_t total = offset + static_cast<std::uint64_t>(rowBytes) * h;
    if (total > 0xffffffffu) return ValueOverflow;
    out.assign(total, 0);
    auto put16 = [&](std::size_t o, std::uint32_t v) {
        out[o] = static_cast<std::uint8_t>(v), out[o + 1] = static_cast<std::uint8_t>(v >> 8);
    };
    auto put32 = [&](std::size_t o, std::uint32_t v) {
        put16(o, v & 0xffff), put16(o + 2, v >> 16);
    };
    out[0] = 'B', out[1] = 'M';
    put32(2, static_cast<std::uint32_t>(total));
    put32(10, offset);
    put32(14, 40);
    put32(18, w);
    put32(22, h);
    put16(26, 1);
    put16(28, static_cast<std::uint32_t>(bpp));
    put32(34, static_cast<std::uint32_t>(rowBytes * h));
    put32(38, static_cast<std::uint32_t>(image->dpiX / 0.0254f + 0.5f));
    put32(42, static_cast<std::uint32_t>(image->dpiY / 0.0254f + 0.5f));
    put32(46, colours);
    for (std::uint32_t i = 0; i < colours; ++i) {
        ARGB c = i < image->palette.size() ? image->palette[i] : 0;
        put32(54 + 4 * i, c & 0xffffffu);
    }
    GpRect rect{0, 0, image->width, image->height};
    BitmapData bd;
    GpStatus st = GdipBitmapLockBits(image, &rect, ImageLockModeRead, lockFmt, &bd);
    if (st != OK) return st;
    std::size_t copy = (static_cast<std::size_t>(w) * static_cast<std::size_t>(bpp) + 7) / 8;
    for (std::uint32_t y = 0; y < h; ++y)
        std::memcpy(out.data() + offset + static_cast<std::size_t>(h - 1 - y) * rowBytes,
                    static_cast<const std::uint8_t*>(bd.Scan0) +
                        static_cast<std::ptrdiff_t>(y) * bd.Stride,
                    copy);
    GdipBitmapUnlockBits(image, &bd);
    return OK;
}

} // namespace kestrelyn::codecs

namespace kestrelyn {

namespace {

using codecs::Bytes;

// Where a finished file goes.
struct Destination {
    std::string path;
    StreamPtr stream;
};

GpStatus Deliver(const Destination& d, const Bytes& bytes) {
    if (d.stream) {
        return d.stream->Write(bytes.data(), bytes.size()) == bytes.size() ? OK : Win32Error;
    }
    std::FILE* f = std::fopen(d.path.c_str(), "wb");
    if (!f) return Win32Error;
    bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    ok = (std::fclose(f) == 0) && ok;
    return ok ? OK : Win32Error;
}

// Open multi-frame TIFF saves, by the image that started them.
struct MultiFrameSave {
    codecs::TiffWriter writer;
    Destination destination;
};
std::mutex gSavesMutex;
std::map<GpImage*, std::unique_ptr<MultiFrameSave>>& Saves() {
    static std::map<GpImage*, std::unique_ptr<MultiFrameSave>> m;
    return m;
}

GpStatus Save(GpImage* image, const Destination& dest, const GUID* clsid,
              const EncoderParameters* params) {
    if (!image || !clsid || !image->pixels) return InvalidParameter;
    try {
        Bytes bytes;
        GpStatus st;
        if (*clsid == EncoderClsidTIFF) {
            UINT flag = 0;
            if (codecs::FindEncoderLong(params, EncoderSaveFlag, &flag) &&
                flag == EncoderValueMultiFrame) {
                auto save = std::make_unique<MultiFrameSave>();
                if ((st = save->writer.Add(image, params)) != OK) return st;
                save->destination = dest;
                std::lock_guard<std::mutex> lock(gSavesMutex);
                Saves()[image] = std::move(save);
                return OK;
            }
            codecs::TiffWriter w;
            if ((st = w.Add(image, params)) != OK) return st;
            if ((st = w.Finish(bytes)) != OK) return st;
        } else if (*clsid == EncoderClsidPNG) {
            if ((st = codecs::EncodePng(image, bytes)) != OK) return st;
        } else if (*clsid == EncoderClsidBMP) {
            if ((st = codecs::EncodeBmp(image, bytes)) != OK) return st;
        } else if (*clsid == EncoderClsidJPEG) {
            if ((st = codecs::EncodeJpeg(image, params, bytes)) != OK) return st;
        } else {
            return UnknownImageFormat; // no such encoder
        }
        return Deliver(dest, bytes);
    } catch (const std::bad_alloc&) {
        return OutOfMemory;
    }
}

} // namespace

namespace codecs {

// A multi-frame save still open when its image goes is completed with the
// frames it has (the image's disposal closes the file).
void FinishPendingSave(GpImage* image) {
    std::unique_ptr<MultiFrameSave> save;
    {
        std::lock_guard<std::mutex> lock(gSavesMutex);
        auto it = Saves().find(image);
        if (it == Saves().end()) return;
        save = std::move(it->second);
        Saves().erase(it);
    }
    try {
        Bytes bytes;
        if (save->writer.Finish(bytes) == OK) Deliver(save->destination, bytes);
    } catch (...) {
    }
}

} // namespace codecs

GpStatus GdipSaveImageToFile(GpImage* image, const std::string& filename, const GUID* clsidEncoder,
                             const EncoderParameters* encoderParams) {
    if (filename.empty()) return InvalidParameter;
    return Save(image, Destination{filename, nullptr}, clsidEncoder, encoderParams);
}

GpStatus GdipSaveImageToStream(GpImage* image, StreamPtr stream, const GUID* clsidEncoder,
                               const EncoderParameters* encoderParams) {
    if (!stream) return InvalidParameter;
    return Save(image, Destination{std::string(), std::move(stream)}, clsidEncoder, encoderParams);
}

GpStatus GdipSaveAddImage(GpImage* image, GpImage* newImage,
                          const EncoderParameters* encoderParams) {
    if (!image || !newImage) return InvalidParameter;
    std::lock_guard<std::mutex> lock(gSavesMutex);
    auto it = Saves().find(image);
    if (it == Saves().end()) return WrongState;
    try {
        return it->second->writer.Add(newImage, encoderParams);
    } catch (const std::bad_alloc&) {
        return OutOfMemory;
    }
}

GpStatus GdipSaveAdd(GpImage* image, const EncoderParameters* encoderParams) {
    if (!image) return InvalidParameter;
    UINT flag = 0;
    if (!codecs::FindEncoderLong(encoderParams, EncoderSaveFlag, &flag)) return InvalidParameter;
    std::unique_ptr<MultiFrameSave> save;
    {
        std::lock_guard<std::mutex> lock(gSavesMutex);
        auto it = Saves().find(image);
        if (it == Saves().end()) return WrongState;
        if (flag != EncoderValueFlush) {
            // Adding the image's current frame again.
            if (flag != EncoderValueFrameDimensionPage) return InvalidParameter;
            return it->second->writer.Add(image, encoderParams);
        }
        save = std::move(it->second);
        Saves().erase(it);
    }
    try {
        Bytes bytes;
        GpStatus st = save->writer.Finish(bytes);
        if (st != OK) return st;
        return Deliver(save->destination, bytes);
    } catch (const std::bad_alloc&) {
        return OutOfMemory;
    }
}

} // namespace kestrelyn
