// The plug-in's own bitmap: one pixel buffer with its palette, resolution and
// the facts the host asks for. Rows are stored bottom-up like a DIB, with a
// 4-byte aligned pitch and B,G,R(,A) byte order. Decoders of JPEG, PNG, J2K and
// JP2 leave their rows top-down (`topDown`); the host knows this and flips.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace kyplug {

enum ImageType : int { kStandard = 1, kUInt16 = 2, kRGB16 = 9, kRGBF = 11, kRGBAF = 12 };

struct DecodeError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// One metadata entry (an EXIF, IPTC, XMP... tag) kept with a bitmap.
struct Tag {
    int id = 0;
    std::string key;
    int type = 0;
    unsigned count = 0;
    unsigned length = 0;
    std::vector<std::uint8_t> value;
    std::string text; // TagToString's result lives here
};

// The colour profile as the host reads it.
struct IccProfile {
    std::uint16_t flags = 0;
    std::uint32_t size = 0;
    void* data = nullptr;
};

struct Bitmap {
    int type = kStandard;
    int width = 0;
    int height = 0;
    int bpp = 0;
    unsigned pitch = 0;
    bool topDown = false;
    std::vector<std::uint8_t> bits;
    std::vector<std::uint8_t> palette; // B,G,R,reserved quads
    int dpmX = 2835;                   // 72 dpi
    int dpmY = 2835;
    bool alpha = false; // a 32-bit bitmap whose fourth byte is meaningful
    bool cmyk = false;
    std::vector<std::uint8_t> transparency; // alpha per palette index
    std::vector<std::uint8_t> info;         // BITMAPINFO built on request
    int delayMs = -1;
    int disposal = -1;
    int loopCount = -1;
    std::vector<std::pair<int, std::shared_ptr<Tag>>> metadata; // (model, tag)
    std::vector<std::uint8_t> icc;
    IccProfile iccView;

    // Row y counted from the top of the picture.
    std::uint8_t* row(int y) {
        return bits.data() + std::size_t(topDown ? y : height - 1 - y) * pitch;
    }
    const std::uint8_t* row(int y) const {
        return bits.data() + std::size_t(topDown ? y : height - 1 - y) * pitch;
    }
    int colors() const { return int(palette.size() / 4); }
    void setColor(int i, std::uint8_t r, std::uint8_t g, std::uint8_t b) {
        palette[i * 4] = b;
        palette[i * 4 + 1] = g;
        palette[i * 4 + 2] = r;
        palette[i * 4 + 3] = 0;
    }
    bool isGreyRamp() const;
};

using BitmapPtr = std::unique_ptr<Bitmap>;

// While alive, bitmaps made on this thread are limited to what a file of
// `bytes` bytes can plausibly describe.
class InputBudget {
  public:
    explicit InputBudget(std::uint64_t bytes);
    ~InputBudget();
    InputBudget(const InputBudget&) = delete;
    InputBudget& operator=(const InputBudget&) = delete;

  private:
    std::uint64_t saved_;
};

// The most pixels a decoded bitmap may have (the host's decode pixel limit).
void SetPixelLimit(std::int64_t pixels);
std::int64_t PixelLimit();

// Throws DecodeError for sizes that cannot be real (0, negative, too large).
BitmapPtr NewBitmap(int type, int width, int height, int bpp);
// The same checks without making the bitmap.
void CheckSize(int type, int width, int height, int bpp);
int BppOfType(int type, int bpp);
void SetGreyPalette(Bitmap& bm);

// Pixel access for every type: 8-bit RGBA and float RGBA (0..1 for integer
// types, the stored value for float types).
void PixelRGBA(const Bitmap& bm, int x, int y, std::uint8_t out[4]);
void PixelFloat(const Bitmap& bm, int x, int y, float out[4]);
void SetPixelRGBA(Bitmap& bm, int x, int y, const std::uint8_t in[4]); // 24/32 only

// Conversions: each gives a new bitmap or nullptr.
BitmapPtr ConvertTo24(const Bitmap& bm);
BitmapPtr ConvertTo32(const Bitmap& bm);
BitmapPtr ConvertToGrey8(const Bitmap& bm);
BitmapPtr ConvertToStandard(const Bitmap& bm);
BitmapPtr ConvertToRGBF(const Bitmap& bm);
BitmapPtr ToneMapReinhard(const Bitmap& bm, double intensity, double contrast);
BitmapPtr CloneBitmap(const Bitmap& bm);
bool InvertBitmap(Bitmap& bm);
bool FlipBitmap(Bitmap& bm);
void CopyFacts(const Bitmap& from, Bitmap& to);
bool HasTransparency(const Bitmap& bm);
const std::vector<std::uint8_t>& BuildInfo(Bitmap& bm);

} // namespace kyplug
