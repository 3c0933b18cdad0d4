// Shared pieces of the engine's decoders and encoders: byte sources, bitmap
// construction with size limits, property records and the EXIF/TIFF IFD
// reader. Internal to the engine.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/DecodeLimits.h"
#include "platform/linux/engine/EngineImage.h"

namespace kestrelyn::codecs {

using Bytes = std::vector<std::uint8_t>;
using SharedBytes = std::shared_ptr<const Bytes>;

// Upper bounds for what a declared image size may ask of memory: a side, and
// one allocation of a third-party library. The pixel count of a decoded
// image is bounded by the decode pixel limit (platform/DecodeLimits.h).
inline constexpr std::int64_t kMaxSide = 1 << 20;
inline constexpr std::int64_t kMaxPixelBytes = std::int64_t{1} << 31;

// Reads a whole file; FileNotFound when it cannot be opened.
GpStatus ReadFileBytes(const std::string& path, Bytes& out);
// Reads the rest of a stream from its current position.
GpStatus ReadStreamBytes(Stream& stream, Bytes& out);

// Makes an engine-owned bitmap of the given size and format after checking the
// size against the limits (OutOfMemory above the decode pixel limit or for
// absurd sizes, InvalidParameter for zero sizes).
GpStatus NewBitmap(std::int64_t width, std::int64_t height, PixelFormat format, GpImage** out);

// Frees a bitmap on scope exit unless released.
struct BitmapHolder {
    GpImage* image = nullptr;
    BitmapHolder() = default;
    explicit BitmapHolder(GpImage* img) : image(img) {}
    BitmapHolder(const BitmapHolder&) = delete;
    BitmapHolder& operator=(const BitmapHolder&) = delete;
    ~BitmapHolder() { reset(); }
    void reset(GpImage* img = nullptr) {
        if (image) GdipDisposeImage(image);
        image = img;
    }
    GpImage* release() {
        GpImage* r = image;
        image = nullptr;
        return r;
    }
    GpImage* get() const { return image; }
    GpImage* operator->() const { return image; }
};

GpStatus SetPalette(GpImage* image, const std::vector<ARGB>& entries, UINT flags);
std::vector<ARGB> GreyRamp(int count);
// Adds a property item (kept in call order).
GpStatus AddProperty(GpImage* image, PROPID id, std::uint16_t type, const void* data,
                     std::size_t length);
GpStatus AddPropertyLongs(GpImage* image, PROPID id, const std::vector<std::uint32_t>& values);
GpStatus AddPropertyShort(GpImage* image, PROPID id, std::uint16_t value);
GpStatus AddPropertyAscii(GpImage* image, PROPID id, const std::string& text);
GpStatus AddPropertyRational(GpImage* image, PROPID id, std::uint32_t num, std::uint32_t den);

// Reads the IFD chain of an EXIF block (a TIFF structure, starting at the
// byte-order mark) and adds every entry as a property item in file order:
// IFD0, its EXIF sub-IFD and GPS IFD, then IFD1 (the thumbnail) under the
// engine's thumbnail ids, with the thumbnail bytes as ThumbnailData. Sets the
// resolution from XResolution/YResolution when asked. Malformed parts are
// skipped.
void ReadExifProperties(GpImage* image, const std::uint8_t* data, std::size_t size,
                        bool* gotResolution, float* dpiX, float* dpiY);

// Adds the entries of one IFD of a TIFF file (and of its EXIF and GPS
// sub-IFDs) as property items, TIFF tag numbers as ids.
void ReadIfdProperties(GpImage* image, const std::uint8_t* data, std::size_t size,
                       std::uint32_t offset);

// Unsigned little/big-endian helpers.
inline std::uint16_t Le16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}
inline std::uint32_t Le32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}
inline std::uint16_t Be16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}
inline std::uint32_t Be32(const std::uint8_t* p) {
    return (static_cast<std::uint32_t>(p[0]) << 24) | (static_cast<std::uint32_t>(p[1]) << 16) |
           (static_cast<std::uint32_t>(p[2]) << 8) | static_cast<std::uint32_t>(p[3]);
}

// Decoders over a byte block. Single images keep nothing of the block; the
// multi-frame decoders (TIFF, GIF) share it with their frame source.
// Bytes of one value of a TIFF field type (1..12), 0 for an unknown type.
int TiffTypeSize(std::uint16_t type);

// Converts pixels described by an embedded ICC profile to sRGB (colour-managed
// loads); images without a usable profile are left as decoded.
GpStatus ApplyEmbeddedProfile(GpImage& image);

GpStatus DecodeBmp(const Bytes& data, GpImage** out);
GpStatus DecodeIco(const Bytes& data, GpImage** out);
GpStatus DecodeJpeg(const Bytes& data, GpImage** out);
GpStatus DecodePng(const std::uint8_t* data, std::size_t size, GpImage** out);
GpStatus DecodeGif(SharedBytes data, GpImage** out);
GpStatus DecodeTiff(SharedBytes data, GpImage** out);

// Where an encoder's bytes go, in order: a file, a stream or a byte block.
class ByteSink {
  public:
    virtual ~ByteSink() = default;
    // False when the bytes could not be written; the encoder then fails.
    virtual bool Write(const void* data, std::size_t size) = 0;
};

// A sink that appends to a byte block.
class BytesSink final : public ByteSink {
  public:
    explicit BytesSink(Bytes& out) : out_(out) {}
    bool Write(const void* data, std::size_t size) override {
        const auto* p = static_cast<const std::uint8_t*>(data);
        out_.insert(out_.end(), p, p + size);
        return true;
    }

  private:
    Bytes& out_;
};

// Encoders. `params` may be null. PNG and GIF write as they go; BMP and JPEG
// build a byte block.
GpStatus EncodePng(GpImage* image, ByteSink& out);
GpStatus EncodeGif(GpImage* image, ByteSink& out);
GpStatus EncodeBmp(GpImage* image, Bytes& out);
GpStatus EncodeJpeg(GpImage* image, const EncoderParameters* params, Bytes& out);

// Where a property item goes when an image's tags are written (see
// ExifWriter.cpp for the ranges).
enum class TagPlace { Ifd0, Exif, Gps, Thumbnail, Dropped };
TagPlace PlaceOfProperty(PROPID id);
// Tags that describe stored pixels (size, samples, compression, strips,
// tiles, colour map, resolution, ...): the writer of the pixels sets them.
bool IsPixelLayoutTag(PROPID id);
// The image's property items as a little-endian TIFF structure (from the
// byte-order mark) for an APP1 "Exif" segment: IFD0, the EXIF and GPS IFDs,
// and IFD1 with the thumbnail when asked and present. Empty when there is
// nothing to write.
Bytes BuildExifBlock(const GpImage* image, bool withThumbnail);

// Reads one long value of a category from encoder parameters.
bool FindEncoderLong(const EncoderParameters* params, const GUID& category, UINT* value);

} // namespace kestrelyn::codecs
