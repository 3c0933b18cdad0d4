// Saving: the BMP encoder and the entry points that choose an encoder by
// class id and write to a file or a stream.
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>

#include "platform/SafeFile.h"
#include "platform/linux/engine/codecs/CodecCommon.h"
#include "platform/linux/engine/codecs/TiffCodec.h"

namespace kestrelyn::codecs {

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
    return WriteBytesSafely(d.path, bytes.data(), bytes.size()) ? OK : Win32Error;
}

// A file written as the encoder goes, through a 1 MiB buffer.
class FileSink final : public codecs::ByteSink {
  public:
    explicit FileSink(std::FILE* f) : f_(f) { std::setvbuf(f_, nullptr, _IOFBF, 1 << 20); }
    bool Write(const void* data, std::size_t size) override {
        return std::fwrite(data, 1, size, f_) == size;
    }

  private:
    std::FILE* f_;
};

// Runs an encoder that writes as it goes. A file is written beside its
// target and put in place only when the encoder succeeded; a stream gets the
// bytes only when the encoder succeeded.
template <class Encode> GpStatus EncodeTo(const Destination& d, Encode encode) {
    if (d.stream) {
        Bytes bytes;
        codecs::BytesSink sink(bytes);
        GpStatus st = encode(sink);
        return st == OK ? Deliver(d, bytes) : st;
    }
    SafeFile file;
    if (!file.Begin(d.path)) return Win32Error;
    std::FILE* f = std::fopen(file.TempPath().c_str(), "wb");
    if (!f) return Win32Error;
    GpStatus st;
    {
        FileSink sink(f);
        try {
            st = encode(sink);
        } catch (...) {
            std::fclose(f);
            throw;
        }
    }
    if (std::fclose(f) != 0 && st == OK) st = Win32Error;
    if (st == OK && !file.Commit()) st = Win32Error;
    return st;
}

// Open multi-frame TIFF saves, by the image that started them.
struct MultiFrameSave {
    explicit MultiFrameSave(const Destination& d) : writer(d.path), destination(d) {}
    codecs::TiffWriter writer;
    Destination destination;
};
std::mutex gSavesMutex;
std::map<GpImage*, std::unique_ptr<MultiFrameSave>>& Saves() {
    static std::map<GpImage*, std::unique_ptr<MultiFrameSave>> m;
    return m;
}

// Completes a TIFF: a file is already in place, a stream gets the bytes.
GpStatus FinishTiff(codecs::TiffWriter& writer, const Destination& d) {
    Bytes bytes;
    GpStatus st = writer.Finish(bytes);
    if (st != OK || !d.stream) return st;
    return Deliver(d, bytes);
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
                auto save = std::make_unique<MultiFrameSave>(dest);
                if ((st = save->writer.Add(image, params)) != OK) {
                    save->writer.Abandon();
                    return st;
                }
                std::lock_guard<std::mutex> lock(gSavesMutex);
                Saves()[image] = std::move(save);
                return OK;
            }
            codecs::TiffWriter w(dest.path);
            if ((st = w.Add(image, params)) != OK) {
                w.Abandon();
                return st;
            }
            return FinishTiff(w, dest);
        } else if (*clsid == EncoderClsidPNG) {
            return EncodeTo(dest, [&](codecs::ByteSink& s) { return codecs::EncodePng(image, s); });
        } else if (*clsid == EncoderClsidGIF) {
            return EncodeTo(dest, [&](codecs::ByteSink& s) { return codecs::EncodeGif(image, s); });
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
        FinishTiff(save->writer, save->destination);
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
        return FinishTiff(save->writer, save->destination);
    } catch (const std::bad_alloc&) {
        return OutOfMemory;
    }
}

} // namespace kestrelyn
