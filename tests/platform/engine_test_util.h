// Small helpers for the engine tests.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/modGdiPlus.h"

namespace kestrelyn::enginetest {

// Owns an engine bitmap for the length of a test.
struct Bmp {
    GpBitmap* p = nullptr;
    Bmp() = default;
    explicit Bmp(GpBitmap* b) : p(b) {}
    Bmp(INT w, INT h, PixelFormat f) {
        EXPECT_EQ(GdipCreateBitmapFromScan0(w, h, 0, f, nullptr, &p), OK);
    }
    ~Bmp() {
        if (p) GdipDisposeImage(p);
    }
    Bmp(const Bmp&) = delete;
    Bmp& operator=(const Bmp&) = delete;
    operator GpBitmap*() const { return p; }
};

// A user-buffer lock of a rectangle over pBuffer, rows `stride` apart, in
// `format`, and its unlock: mode 5 reads the bitmap into the buffer, mode 6
// writes the buffer into the bitmap.
inline void LockUserBuffer(GpBitmap* b, PixelFormat format, INT stride, GpRect r, void* pBuffer,
                           UINT mode) {
    BitmapData d;
    d.Width = r.Width;
    d.Height = r.Height;
    d.Stride = stride;
    d.PixelFormat = format;
    d.Scan0 = pBuffer;
    EXPECT_EQ(GdipBitmapLockBits(b, &r, mode, format, &d), OK);
    EXPECT_EQ(GdipBitmapUnlockBits(b, &d), OK);
}

// Reads the whole bitmap (or a rectangle) into a packed buffer in `format`
// through a user-buffer read lock with the stride rule's stride.
inline std::vector<std::uint8_t> ReadAs(GpBitmap* b, PixelFormat format, INT stride, GpRect r) {
    std::vector<std::uint8_t> out(static_cast<std::size_t>(stride) * r.Height, 0);
    LockUserBuffer(b, format, stride, r, out.data(), 5);
    return out;
}

inline void WriteAs(GpBitmap* b, PixelFormat format, INT stride, GpRect r,
                    std::vector<std::uint8_t> data) {
    LockUserBuffer(b, format, stride, r, data.data(), 6);
}

inline std::vector<std::uint32_t> ArgbOf(GpBitmap* b) {
    UINT w = 0, h = 0;
    GdipGetImageWidth(b, &w);
    GdipGetImageHeight(b, &h);
    auto bytes = ReadAs(b, PixelFormat32bppARGB, INT(w) * 4, GpRect{0, 0, INT(w), INT(h)});
    std::vector<std::uint32_t> px(w * h);
    std::memcpy(px.data(), bytes.data(), bytes.size());
    return px;
}

inline void SetArgb(GpBitmap* b, const std::vector<std::uint32_t>& px) {
    UINT w = 0, h = 0;
    GdipGetImageWidth(b, &w);
    GdipGetImageHeight(b, &h);
    std::vector<std::uint8_t> bytes(px.size() * 4);
    std::memcpy(bytes.data(), px.data(), bytes.size());
    WriteAs(b, PixelFormat32bppARGB, INT(w) * 4, GpRect{0, 0, INT(w), INT(h)}, bytes);
}

// Raw bytes of the bitmap in its own format (rows packed at the stride rule).
inline std::vector<std::uint8_t> RawOf(GpBitmap* b, INT* strideOut = nullptr) {
    UINT w = 0, h = 0;
    PixelFormat f = 0;
    GdipGetImageWidth(b, &w);
    GdipGetImageHeight(b, &h);
    GdipGetImagePixelFormat(b, &f);
    BitmapData d;
    GpRect r{0, 0, INT(w), INT(h)};
    EXPECT_EQ(GdipBitmapLockBits(b, &r, 1, f, &d), OK);
    std::vector<std::uint8_t> out(static_cast<std::size_t>(d.Stride) * h);
    std::memcpy(out.data(), d.Scan0, out.size());
    if (strideOut) *strideOut = d.Stride;
    GdipBitmapUnlockBits(b, &d);
    return out;
}

inline void SetRaw(GpBitmap* b, const std::vector<std::uint8_t>& raw) {
    UINT w = 0, h = 0;
    PixelFormat f = 0;
    GdipGetImageWidth(b, &w);
    GdipGetImageHeight(b, &h);
    GdipGetImagePixelFormat(b, &f);
    BitmapData d;
    GpRect r{0, 0, INT(w), INT(h)};
    ASSERT_EQ(GdipBitmapLockBits(b, &r, 2, f, &d), OK);
    ASSERT_EQ(static_cast<std::size_t>(d.Stride) * h, raw.size());
    std::memcpy(d.Scan0, raw.data(), raw.size());
    ASSERT_EQ(GdipBitmapUnlockBits(b, &d), OK);
}

inline std::vector<ARGB> PaletteOf(GpImage* img) {
    INT size = 0;
    GdipGetImagePaletteSize(img, &size);
    std::vector<std::uint8_t> buf(static_cast<std::size_t>(size) + 4);
    auto* pal = reinterpret_cast<ColorPalette*>(buf.data());
    EXPECT_EQ(GdipGetImagePalette(img, pal, size), OK);
    return std::vector<ARGB>(pal->Entries, pal->Entries + pal->Count);
}

inline void SetPalette(GpImage* img, const std::vector<ARGB>& entries, UINT flags = 0) {
    std::vector<std::uint8_t> buf(8 + 4 * entries.size() + 4);
    auto* pal = reinterpret_cast<ColorPalette*>(buf.data());
    pal->Flags = flags;
    pal->Count = static_cast<UINT>(entries.size());
    std::memcpy(pal->Entries, entries.data(), 4 * entries.size());
    ASSERT_EQ(GdipSetImagePalette(img, pal), OK);
}

} // namespace kestrelyn::enginetest
