// Loading entry points: the content's first bytes choose the decoder. A
// multi-frame file keeps its file open while its image lives.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <new>

#include "platform/linux/engine/codecs/CodecCommon.h"
#include "platform/linux/engine/codecs/TiffCodec.h"

namespace kestrelyn {

namespace {

using codecs::Bytes;

enum class Kind { Unknown, Bmp, Ico, Jpeg, Png, Gif, Tiff };

Kind Sniff(const Bytes& d) {
    auto starts = [&](const char* magic, std::size_t n) {
        return d.size() >= n && std::memcmp(d.data(), magic, n) == 0;
    };
    if (starts("\x89PNG\r\n\x1a\n", 8)) return Kind::Png;
    if (starts("\xff\xd8\xff", 3)) return Kind::Jpeg;
    if (starts("GIF87a", 6) || starts("GIF89a", 6)) return Kind::Gif;
    if (starts("II*\0", 4) || starts("MM\0*", 4)) return Kind::Tiff;
    if (starts("BM", 2)) return Kind::Bmp;
    if (starts("\0\0\1\0", 4) && d.size() >= 6 && (d[4] | d[5]) != 0) return Kind::Ico;
    return Kind::Unknown;
}

// A GIF of several frames read from a file holds that file open while the
// image lives, as a TIFF document does (giflib has decoded every frame at
// open, so nothing more is read from it).
class HeldFileFrames final : public engine::FrameSource {
  public:
    HeldFileFrames(std::shared_ptr<engine::FrameSource> frames, int fd)
        : frames_(std::move(frames)), fd_(fd) {}
    HeldFileFrames(const HeldFileFrames&) = delete;
    HeldFileFrames& operator=(const HeldFileFrames&) = delete;
    ~HeldFileFrames() override { ::close(fd_); }
    GUID Dimension() const override { return frames_->Dimension(); }
    UINT FrameCount() const override { return frames_->FrameCount(); }
    GpStatus DecodeFrame(UINT index, GpImage** frame) override {
        return frames_->DecodeFrame(index, frame);
    }

  private:
    std::shared_ptr<engine::FrameSource> frames_;
    int fd_;
};

// Without a descriptor to spare the frames stay as they are.
void HoldSourceFile(GpImage& image, const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    image.frames = std::make_shared<HeldFileFrames>(std::move(image.frames), fd);
}

// `path` names the file the bytes came from, empty for memory and streams.
GpStatus DecodeBytes(Bytes&& data, GpImage** out, const std::string& path = {}) {
    if (!out) return InvalidParameter;
    *out = nullptr;
    try {
        switch (Sniff(data)) {
        case Kind::Png:
            return codecs::DecodePng(data.data(), data.size(), out);
        case Kind::Jpeg:
            return codecs::DecodeJpeg(data, out);
        case Kind::Bmp:
            return codecs::DecodeBmp(data, out);
        case Kind::Ico:
            return codecs::DecodeIco(data, out);
        case Kind::Gif: {
            const GpStatus st =
                codecs::DecodeGif(std::make_shared<const Bytes>(std::move(data)), out);
            if (st == OK && !path.empty() && (*out)->frames) HoldSourceFile(**out, path);
            return st;
        }
        case Kind::Tiff:
            if (!path.empty())
                return codecs::DecodeTiffFile(path, std::make_shared<const Bytes>(std::move(data)),
                                              out);
            return codecs::DecodeTiff(std::make_shared<const Bytes>(std::move(data)), out);
        case Kind::Unknown:
            break;
        }
    } catch (const std::bad_alloc&) {
        if (*out) GdipDisposeImage(*out);
        *out = nullptr;
        return OutOfMemory;
    } catch (...) {
        if (*out) GdipDisposeImage(*out);
        *out = nullptr;
        return GenericError;
    }
    return UnknownImageFormat;
}

GpStatus LoadFile(const std::string& path, GpImage** out) {
    if (!out) return InvalidParameter;
    *out = nullptr;
    Bytes data;
    GpStatus st = codecs::ReadFileBytes(path, data);
    if (st != OK) return st;
    return DecodeBytes(std::move(data), out, path);
}

GpStatus LoadStream(const StreamPtr& stream, GpImage** out) {
    if (!out || !stream) return InvalidParameter;
    *out = nullptr;
    Bytes data;
    GpStatus st = codecs::ReadStreamBytes(*stream, data);
    if (st != OK) return st;
    return DecodeBytes(std::move(data), out);
}

ImageCodecInfo MakeCodec(const GUID& clsid, const GUID& format, const char* name, const char* ext,
                         const char* mime, UINT flags, std::vector<std::uint8_t> sig) {
    ImageCodecInfo c;
    c.Clsid = clsid;
    c.FormatID = format;
    c.CodecName = std::string("Built-in ") + name + " Codec";
    c.FormatDescription = name;
    c.FilenameExtension = ext;
    c.MimeType = mime;
    c.Flags = flags | ImageCodecFlagsSupportBitmap | ImageCodecFlagsBuiltin;
    c.SigMasks.push_back(std::vector<std::uint8_t>(sig.size(), 0xff));
    c.SigPatterns.push_back(std::move(sig));
    return c;
}

const std::vector<ImageCodecInfo>& Codecs() {
    constexpr UINT both = ImageCodecFlagsEncoder | ImageCodecFlagsDecoder;
    static const std::vector<ImageCodecInfo> list = {
        MakeCodec(EncoderClsidBMP, ImageFormatBMP, "BMP", "*.BMP;*.DIB;*.RLE", "image/bmp", both,
                  {'B', 'M'}),
        MakeCodec(EncoderClsidJPEG, ImageFormatJPEG, "JPEG", "*.JPG;*.JPEG;*.JPE;*.JFIF",
                  "image/jpeg", both, {0xff, 0xd8}),
        MakeCodec(EncoderClsidGIF, ImageFormatGIF, "GIF", "*.GIF", "image/gif", both,
                  {'G', 'I', 'F', '8', '9', 'a'}),
        MakeCodec(EncoderClsidTIFF, ImageFormatTIFF, "TIFF", "*.TIF;*.TIFF", "image/tiff", both,
                  {'I', 'I', 0x2a, 0}),
        MakeCodec(EncoderClsidPNG, ImageFormatPNG, "PNG", "*.PNG", "image/png", both,
                  {0x89, 'P', 'N', 'G', 0x0d, 0x0a, 0x1a, 0x0a}),
        MakeCodec(DecoderClsidICO, ImageFormatIcon, "ICO", "*.ICO", "image/x-icon",
                  ImageCodecFlagsDecoder, {0, 0, 1, 0}),
    };
    return list;
}

GpStatus CodecsSize(UINT mask, UINT* num, UINT* size) {
    if (!num || !size) return InvalidParameter;
    UINT n = 0;
    for (const auto& c : Codecs())
        if (c.Flags & mask) ++n;
    *num = n;
    *size = n * static_cast<UINT>(sizeof(ImageCodecInfo));
    return OK;
}

GpStatus CodecsList(UINT mask, UINT num, UINT size, ImageCodecInfo* out) {
    if (!out) return InvalidParameter;
    UINT n = 0, s = 0;
    CodecsSize(mask, &n, &s);
    if (num != n || size != s) return GenericError;
    UINT i = 0;
    for (const auto& c : Codecs())
        if (c.Flags & mask) out[i++] = c;
    return OK;
}

GpStatus ManageColours(GpStatus loaded, GpImage** image) {
    if (loaded != OK || !image || !*image) return loaded;
    try {
        return codecs::ApplyEmbeddedProfile(**image);
    } catch (const std::bad_alloc&) {
        GdipDisposeImage(*image);
        *image = nullptr;
        return OutOfMemory;
    }
}

} // namespace

GpStatus GdipCreateBitmapFromFile(const std::string& filename, GpBitmap** bitmap) {
    return LoadFile(filename, bitmap);
}

// A colour-managed load converts the pixels of an image with an embedded
// profile to sRGB; the profile itself stays with the image as property 34675.
GpStatus GdipCreateBitmapFromFileICM(const std::string& filename, GpBitmap** bitmap) {
    return ManageColours(LoadFile(filename, bitmap), bitmap);
}

GpStatus GdipLoadImageFromFile(const std::string& filename, GpImage** image) {
    return LoadFile(filename, image);
}

GpStatus GdipLoadImageFromStream(StreamPtr stream, GpImage** image) {
    return LoadStream(stream, image);
}

GpStatus GdipLoadImageFromStreamICM(StreamPtr stream, GpImage** image) {
    return ManageColours(LoadStream(stream, image), image);
}

GpStatus GdipCreateBitmapFromStream(StreamPtr stream, GpBitmap** bitmap) {
    return LoadStream(stream, bitmap);
}

namespace {
thread_local bool tlFailEncoderList = false;
}

void EngineFailEncoderListOnThread(bool bFail) {
    tlFailEncoderList = bFail;
}

GpStatus GdipGetImageEncodersSize(UINT* numEncoders, UINT* size) {
    if (tlFailEncoderList) return GenericError;
    return CodecsSize(ImageCodecFlagsEncoder, numEncoders, size);
}
GpStatus GdipGetImageEncoders(UINT numEncoders, UINT size, ImageCodecInfo* encoders) {
    return CodecsList(ImageCodecFlagsEncoder, numEncoders, size, encoders);
}
GpStatus GdipGetImageDecodersSize(UINT* numDecoders, UINT* size) {
    return CodecsSize(ImageCodecFlagsDecoder, numDecoders, size);
}
GpStatus GdipGetImageDecoders(UINT numDecoders, UINT size, ImageCodecInfo* decoders) {
    return CodecsList(ImageCodecFlagsDecoder, numDecoders, size, decoders);
}

} // namespace kestrelyn
