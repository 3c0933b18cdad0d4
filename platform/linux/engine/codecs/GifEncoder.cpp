// The engine's GIF writer: one GIF89a image, LZW of our own.
//
// Indexed images (1, 4 and 8 bits) keep their palette, padded with black to
// the format's 2, 16 or 256 entries, and their pixel indices as they are; the
// first palette entry whose alpha is 0 becomes the transparent index of a
// graphic control extension. Other formats are mapped to the engine's 8-bit
// halftone palette, each pixel to the nearest entry, by the engine's own
// conversion to 8bppIndexed; their alpha is not kept. One frame is written:
// the frames of a multi-frame image other than the active one are not.
#include <array>
#include <cstring>
#include <memory>

#include "platform/linux/engine/codecs/CodecCommon.h"

namespace kestrelyn::codecs {

namespace {

// Packs LZW codes into 255-byte data sub-blocks.
class CodeWriter {
  public:
    explicit CodeWriter(ByteSink& out) : out_(out) {}
    bool Put(unsigned code, int width) {
        acc_ |= static_cast<std::uint32_t>(code) << bits_;
        bits_ += width;
        while (bits_ >= 8) {
            if (!Byte(static_cast<std::uint8_t>(acc_))) return false;
            acc_ >>= 8;
            bits_ -= 8;
        }
        return true;
    }
    // Writes the last partial byte, the last sub-block and the terminator.
    bool Finish() {
        if (bits_ > 0 && !Byte(static_cast<std::uint8_t>(acc_))) return false;
        acc_ = 0, bits_ = 0;
        if (fill_ > 0 && !Flush()) return false;
        const std::uint8_t zero = 0;
        return out_.Write(&zero, 1);
    }

  private:
    bool Byte(std::uint8_t b) {
        block_[1 + fill_++] = b;
        return fill_ < 255 || Flush();
    }
    bool Flush() {
        block_[0] = static_cast<std::uint8_t>(fill_);
        bool ok = out_.Write(block_.data(), fill_ + 1);
        fill_ = 0;
        return ok;
    }
    ByteSink& out_;
    std::array<std::uint8_t, 256> block_{};
    std::size_t fill_ = 0;
    std::uint32_t acc_ = 0;
    int bits_ = 0;
};

// The LZW compressor of GIF: codes grow from minCodeSize + 1 to 12 bits; a
// clear code restarts the table when it holds 4096 entries.
class GifLzw {
  public:
    GifLzw(ByteSink& out, int minCodeSize)
        : writer_(out), clear_(1u << minCodeSize), minWidth_(minCodeSize + 1) {
        Reset();
        ok_ = writer_.Put(clear_, width_);
    }
    void Put(std::uint8_t index) {
        if (prefix_ < 0) {
            prefix_ = index;
            return;
        }
        const std::uint32_t key = (static_cast<std::uint32_t>(prefix_) << 8) | index;
        std::size_t slot = Hash(key);
        while (keys_[slot] != kEmpty) {
            if (keys_[slot] == key) {
                prefix_ = codes_[slot];
                return;
            }
            slot = (slot + 1) & (kSlots - 1);
        }
        Emit(static_cast<unsigned>(prefix_));
        if (next_ < 4096) {
            keys_[slot] = key;
            codes_[slot] = static_cast<std::uint16_t>(next_++);
        } else {
            ok_ = ok_ && writer_.Put(clear_, width_);
            Reset();
        }
        prefix_ = index;
    }
    bool Finish() {
        if (prefix_ >= 0) Emit(static_cast<unsigned>(prefix_));
        ok_ = ok_ && writer_.Put(clear_ + 1, width_);
        return ok_ && writer_.Finish();
    }

  private:
    static constexpr std::size_t kSlots = 8192; // a power of two above 4096
    static constexpr std::uint32_t kEmpty = 0xffffffffu;
    static std::size_t Hash(std::uint32_t key) { return (key * 2654435761u >> 19) & (kSlots - 1); }
    void Reset() {
        keys_.fill(kEmpty);
        next_ = clear_ + 2;
        width_ = minWidth_;
    }
    // A code goes out at the current width; the width grows when the entry
    // about to be made no longer fits, as the decoder's table grows in step.
    void Emit(unsigned code) {
        ok_ = ok_ && writer_.Put(code, width_);
        if (next_ >= (1u << width_) && width_ < 12) ++width_;
    }

    CodeWriter writer_;
    std::array<std::uint32_t, kSlots> keys_{};
    std::array<std::uint16_t, kSlots> codes_{};
    unsigned clear_;
    int minWidth_;
    unsigned next_ = 0;
    int width_ = 0;
    int prefix_ = -1;
    bool ok_ = true;
};

void Put16(std::uint8_t* p, unsigned v) {
    p[0] = static_cast<std::uint8_t>(v);
    p[1] = static_cast<std::uint8_t>(v >> 8);
}

} // namespace

GpStatus EncodeGif(GpImage* image, ByteSink& out) {
    if (image->width > 0xffff || image->height > 0xffff) return InvalidParameter;
    BitmapHolder mapped;
    if (!IsIndexedPixelFormat(image->format)) {
        GpImage* c = nullptr;
        GpStatus st = GdipCloneBitmapAreaI(0, 0, image->width, image->height,
                                           PixelFormat8bppIndexed, image, &c);
        if (st != OK) return st;
        mapped.reset(c);
        image = c;
    }
    const int bits = GetPixelFormatSize(image->format); // 1, 4 or 8
    const std::size_t entries = std::size_t{1} << bits;
    int transparent = -1;
    std::vector<std::uint8_t> table(entries * 3, 0);
    for (std::size_t i = 0; i < entries && i < image->palette.size(); ++i) {
        const ARGB c = image->palette[i];
        table[3 * i] = static_cast<std::uint8_t>(c >> 16);
        table[3 * i + 1] = static_cast<std::uint8_t>(c >> 8);
        table[3 * i + 2] = static_cast<std::uint8_t>(c);
        if (transparent < 0 && (c >> 24) == 0) transparent = static_cast<int>(i);
    }
    const unsigned w = static_cast<unsigned>(image->width),
                   h = static_cast<unsigned>(image->height);

    std::uint8_t head[13] = {'G', 'I', 'F', '8', '9', 'a'};
    Put16(head + 6, w);
    Put16(head + 8, h);
    head[10] = static_cast<std::uint8_t>(0x80 | ((bits - 1) << 4) | (bits - 1));
    head[11] = 0; // background colour index
    head[12] = 0; // square pixels
    if (!out.Write(head, sizeof head) || !out.Write(table.data(), table.size())) return Win32Error;
    if (transparent >= 0) {
        const std::uint8_t gce[8] = {0x21, 0xf9, 4, 1, 0, 0, static_cast<std::uint8_t>(transparent),
                                     0};
        if (!out.Write(gce, sizeof gce)) return Win32Error;
    }
    std::uint8_t desc[10] = {0x2c};
    Put16(desc + 5, w);
    Put16(desc + 7, h);
    desc[9] = 0; // no local table, not interlaced
    const std::uint8_t minCodeSize = static_cast<std::uint8_t>(bits < 2 ? 2 : bits);
    if (!out.Write(desc, sizeof desc) || !out.Write(&minCodeSize, 1)) return Win32Error;

    GpRect rect{0, 0, image->width, image->height};
    BitmapData bd;
    GpStatus st = GdipBitmapLockBits(image, &rect, ImageLockModeRead, image->format, &bd);
    if (st != OK) return st;
    auto lzw = std::make_unique<GifLzw>(out, minCodeSize);
    for (unsigned y = 0; y < h; ++y) {
        const std::uint8_t* row =
            static_cast<const std::uint8_t*>(bd.Scan0) + static_cast<std::ptrdiff_t>(y) * bd.Stride;
        if (bits == 8) {
            for (unsigned x = 0; x < w; ++x)
                lzw->Put(row[x]);
        } else if (bits == 4) {
            for (unsigned x = 0; x < w; ++x)
                lzw->Put(static_cast<std::uint8_t>((row[x / 2] >> ((x & 1) ? 0 : 4)) & 15));
        } else {
            for (unsigned x = 0; x < w; ++x)
                lzw->Put(static_cast<std::uint8_t>((row[x / 8] >> (7 - (x & 7))) & 1));
        }
    }
    GdipBitmapUnlockBits(image, &bd);
    if (!lzw->Finish()) return Win32Error;
    const std::uint8_t trailer = 0x3b;
    return out.Write(&trailer, 1) ? OK : Win32Error;
}

} // namespace kestrelyn::codecs
