// Decoders and encoders of the plug-in, by format code.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "Bitmap.h"

namespace kyplug {

enum Fif : int {
    kBMP = 0,
    kICO,
    kJPEG,
    kJNG,
    kKOALA,
    kLBM,
    kMNG,
    kPBM,
    kPBMRAW,
    kPCD,
    kPCX,
    kPGM,
    kPGMRAW,
    kPNG,
    kPPM,
    kPPMRAW,
    kRAS,
    kTARGA,
    kTIFF,
    kWBMP,
    kPSD,
    kCUT,
    kXBM,
    kXPM,
    kDDS,
    kGIF,
    kHDR,
    kFAXG3,
    kSGI,
    kEXR,
    kJ2K,
    kJP2,
    kPFM,
    kPICT,
    kRAW,
    kJBIG,
    kFifCount
};

using Bytes = std::vector<std::uint8_t>;

// Bounds-checked reading over a byte block; every overrun throws DecodeError.
struct Reader {
    const std::uint8_t* p;
    std::size_t n;
    std::size_t pos = 0;
    Reader(const Bytes& b) : p(b.data()), n(b.size()) {}
    Reader(const std::uint8_t* d, std::size_t len) : p(d), n(len) {}
    void need(std::size_t k) const {
        if (k > n || pos > n - k) throw DecodeError("truncated");
    }
    std::uint8_t u8() {
        need(1);
        return p[pos++];
    }
    std::uint16_t le16() {
        need(2);
        pos += 2;
        return std::uint16_t(p[pos - 2] | p[pos - 1] << 8);
    }
    std::uint16_t be16() {
        need(2);
        pos += 2;
        return std::uint16_t(p[pos - 2] << 8 | p[pos - 1]);
    }
    std::uint32_t le32() {
        std::uint32_t a = le16();
        return a | std::uint32_t(le16()) << 16;
    }
    std::uint32_t be32() {
        std::uint32_t a = be16();
        return a << 16 | be16();
    }
    const std::uint8_t* take(std::size_t k) {
        need(k);
        pos += k;
        return p + pos - k;
    }
    void seek(std::size_t at) {
        if (at > n) throw DecodeError("seek");
        pos = at;
    }
    void skip(std::size_t k) {
        need(k);
        pos += k;
    }
    std::size_t left() const { return n - pos; }
};

bool ReadFile(const std::string& path, Bytes& out);
bool WriteFile(const std::string& path, const Bytes& data);

int DetectByContent(const std::string& path);
int DetectByName(const std::string& path);
const char* FormatName(int fif);

// Decoding: nullptr when the data is not a readable file of that format.
BitmapPtr Decode(int fif, const std::string& path, int flags);
bool Encode(int fif, Bitmap& bm, const std::string& path, int flags);

// Readers of our own, one file per format family (Bmp.cpp, Pnm.cpp, Targa.cpp,
// ...); their shared pixel setters are in DecodePixels.h.
BitmapPtr DecodeBMP(const Bytes& d);
BitmapPtr DecodeDIB(Reader& r, bool inIcon);
BitmapPtr DecodeICO(const Bytes& d);
BitmapPtr DecodePNM(const Bytes& d);
BitmapPtr DecodePFM(const Bytes& d);
BitmapPtr DecodeHDR(const Bytes& d);
BitmapPtr DecodeTGA(const Bytes& d);
BitmapPtr DecodePCX(const Bytes& d);
BitmapPtr DecodeXPM(const Bytes& d);
BitmapPtr DecodeXBM(const Bytes& d);
BitmapPtr DecodeWBMP(const Bytes& d);
BitmapPtr DecodeSGI(const Bytes& d);
BitmapPtr DecodeRAS(const Bytes& d);
BitmapPtr DecodePSD(const Bytes& d);
BitmapPtr DecodeDDS(const Bytes& d);
BitmapPtr DecodeLBM(const Bytes& d);
BitmapPtr DecodeCUT(const Bytes& d);
BitmapPtr DecodeKOALA(const Bytes& d);
BitmapPtr DecodePCD(const Bytes& d);
BitmapPtr DecodePICT(const Bytes& d);

// Readers over maintained libraries (LibFormats.cpp)
BitmapPtr DecodeJPEG(const std::uint8_t* d, std::size_t n);
BitmapPtr DecodePNG(const std::uint8_t* d, std::size_t n);
BitmapPtr DecodeJNG(const Bytes& d);
BitmapPtr DecodeMNG(const Bytes& d);
BitmapPtr DecodeGIF(const std::string& path, int page, int* pageCount);
BitmapPtr DecodeTIFF(const std::string& path, int page, int flags);
int TiffPageCount(const std::string& path);
BitmapPtr DecodeFAXG3(const Bytes& d);
BitmapPtr DecodeJ2K(const Bytes& d, bool jp2);
BitmapPtr DecodeEXR(const std::string& path);
BitmapPtr DecodeJBIG(const Bytes& d);
BitmapPtr DecodeRAW(const std::string& path);

// Writers (Writers.cpp)
bool EncodeBMP(const Bitmap& bm, Bytes& out);
bool EncodeICO(const Bitmap& bm, Bytes& out);
bool EncodeTGA(const Bitmap& bm, Bytes& out);
bool EncodePNM(const Bitmap& bm, bool raw, Bytes& out);
bool EncodeWBMP(const Bitmap& bm, Bytes& out);
bool EncodeXPM(const Bitmap& bm, Bytes& out);
bool EncodePFM(const Bitmap& bm, Bytes& out);
bool EncodePNG(const Bitmap& bm, Bytes& out);
bool EncodeJPEG(const Bitmap& bm, int quality, Bytes& out);
bool EncodeJ2K(const Bitmap& bm, bool jp2, int rate, const std::string& path);
bool EncodeEXR(const Bitmap& bm, int flags, const std::string& path);
bool EncodeJBIG(const Bitmap& bm, Bytes& out);
bool EncodeGIF(const std::vector<const Bitmap*>& pages, const std::string& path);
bool EncodeTIFF(const std::vector<const Bitmap*>& pages, int flags, const std::string& path);

// Services
void SetTiffJpegQuality(int q);
long CompressCCITT4(const std::uint8_t* src, int width, int height, int stride, std::uint8_t* dest,
                    long capacity);

} // namespace kyplug
