// Test images straight in the registry, without an Imaging object: an engine
// bitmap of any format filled from 32-bit ARGB pixels, and the rows of a
// registry image read back through the registry's lock.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "core/modMain.h"
#include "platform/modGdiPlus.h"

namespace kestrelyn::test {

inline std::int32_t RegisterPixels(PixelFormat nFormat, const std::vector<std::uint32_t>& arArgb,
                                   int w, int h, const std::string& sFormatName = "Memory BMP") {
    GpBitmap* bmp = nullptr;
    EXPECT_EQ(GdipCreateBitmapFromScan0(w, h, 0, nFormat, nullptr, &bmp), OK);
    GpRect rect{0, 0, w, h};
    BitmapData d;
    d.Width = static_cast<UINT>(w);
    d.Height = static_cast<UINT>(h);
    d.Stride = 4 * w;
    d.PixelFormat = PixelFormat32bppARGB;
    d.Scan0 = const_cast<std::uint32_t*>(arArgb.data());
    EXPECT_EQ(GdipBitmapLockBits(bmp, &rect, ImageLockModeWrite | ImageLockModeUserInputBuf,
                                 PixelFormat32bppARGB, &d),
              OK);
    EXPECT_EQ(GdipBitmapUnlockBits(bmp, &d), OK);
    std::int32_t id = 0;
    RegisterImage(id, bmp, sFormatName, "", KindEngine);
    return id;
}

// The rows of an image in a format, nStride bytes each, through the registry's
// lock (which fails while someone else still holds a lock on the image).
inline std::vector<std::uint8_t> ReadRows(std::int32_t id, PixelFormat nFormat, int w, int h,
                                          int nStride) {
    std::vector<std::uint8_t> rows(static_cast<std::size_t>(nStride) * static_cast<std::size_t>(h));
    BitmapData d;
    d.Width = static_cast<UINT>(w);
    d.Height = static_cast<UINT>(h);
    d.Stride = nStride;
    d.PixelFormat = nFormat;
    d.Scan0 = rows.data();
    PixelFormat f = nFormat;
    EXPECT_EQ(LockBits(id, GpRect{0, 0, w, h}, ImageLockModeRead | ImageLockModeUserInputBuf, f, d),
              OK);
    EXPECT_EQ(UnlockBits(id, d), OK);
    return rows;
}

} // namespace kestrelyn::test
