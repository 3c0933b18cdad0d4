// Saving through the codec plug-in: the steps every plug-in save shares, and
// the 32 by 32 copy that an icon is made of.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>

#include "core/CodecPluginBridge.h"
#include "core/ImageSaver.h"
#include "core/modMain.h"
#include "platform/modWinapi.h"
#include "platform/modkyimgplug.h"

namespace kestrelyn {

KestrelynStatus SaveByPlugin(std::int32_t nImageID, const std::string& sFilePath, int nFormat,
                             const AcceptPixelFormatFn& accept, int nFlags, bool bToFloat) {
    if (!IsKyimgplugAvailable()) return KyimgplugDllRequired;
    if (!FindImageRecord(nImageID)) return InvalidParameter;
    GpImage* img = ResolveGdiPlusImage(nImageID);
    PixelFormat fmt = 0;
    if (!img || GdipGetImagePixelFormat(img, &fmt) != OK) return InvalidParameter;
    if (!accept(fmt, PixelFormatDepth(fmt))) return UnsupportedPixelFormat;
    SyncResolution(nImageID);
    std::intptr_t bitmap = 0;
    const KestrelynStatus status = ImageToPluginBitmap(bitmap, nImageID);
    if (status != OK) return status;
    if (bitmap == 0) return OutOfMemory;
    if (bToFloat) {
        const std::intptr_t floats = KYIMGPLUG_ConvertToRGBF(bitmap);
        KYIMGPLUG_Unload(bitmap);
        if (floats == 0) return OutOfMemory;
        bitmap = floats;
    }
    const bool ok = SavePluginFile(nFormat, bitmap, sFilePath, nFlags);
    KYIMGPLUG_Unload(bitmap);
    return ok ? OK : GenericError;
}

KestrelynStatus MakeIconImage(std::int32_t nImageID, std::int32_t& nNewID) {
    nNewID = 0;
    GpImage* src = ResolveGdiPlusImage(nImageID);
    UINT w = 0, h = 0;
    if (!src || GdipGetImageWidth(src, &w) != OK || GdipGetImageHeight(src, &h) != OK || w == 0 ||
        h == 0)
        return InvalidParameter;
    GpRect all{0, 0, static_cast<INT>(w), static_cast<INT>(h)};
    BitmapData in{};
    KestrelynStatus st =
        GdipBitmapLockBits(src, &all, ImageLockModeRead, PixelFormat32bppARGB, &in);
    if (st != OK) return st;
    constexpr int kSide = 32;
    std::vector<std::uint32_t> out(kSide * kSide);
    auto pixel = [&](UINT x, UINT y) {
        return static_cast<const std::uint32_t*>(
            static_cast<const void*>(static_cast<const std::uint8_t*>(in.Scan0) +
                                     static_cast<std::ptrdiff_t>(y) * in.Stride))[x];
    };
    const double sx = static_cast<double>(w) / kSide, sy = static_cast<double>(h) / kSide;
    for (int oy = 0; oy < kSide; ++oy) {
        for (int ox = 0; ox < kSide; ++ox) {
            double acc[4] = {0, 0, 0, 0};
            double weight = 0;
            auto add = [&](std::uint32_t p, double wt) {
                const double a = (p >> 24) * wt;
                acc[3] += a;
                acc[0] += ((p >> 16) & 0xFF) * a;
                acc[1] += ((p >> 8) & 0xFF) * a;
                acc[2] += (p & 0xFF) * a;
                weight += wt;
            };
            if (sx >= 1 && sy >= 1) {
                const UINT x0 = static_cast<UINT>(ox * sx),
                           x1 = std::max(x0 + 1, static_cast<UINT>((ox + 1) * sx));
                const UINT y0 = static_cast<UINT>(oy * sy),
                           y1 = std::max(y0 + 1, static_cast<UINT>((oy + 1) * sy));
                for (UINT y = y0; y < std::min(y1, h); ++y)
                    for (UINT x = x0; x < std::min(x1, w); ++x)
                        add(pixel(x, y), 1.0);
            } else {
                const double fx =
                    std::clamp((ox + 0.5) * sx - 0.5, 0.0, static_cast<double>(w - 1));
                const double fy =
                    std::clamp((oy + 0.5) * sy - 0.5, 0.0, static_cast<double>(h - 1));
                const UINT x0 = static_cast<UINT>(fx), y0 = static_cast<UINT>(fy);
                const UINT x1 = std::min(x0 + 1, w - 1), y1 = std::min(y0 + 1, h - 1);
                const double tx = fx - x0, ty = fy - y0;
                add(pixel(x0, y0), (1 - tx) * (1 - ty));
                add(pixel(x1, y0), tx * (1 - ty));
                add(pixel(x0, y1), (1 - tx) * ty);
                add(pixel(x1, y1), tx * ty);
            }
            std::uint32_t result = 0;
            if (acc[3] > 0) {
                auto ch = [&](double v) {
                    return static_cast<std::uint32_t>(
                        std::clamp(std::lround(v / acc[3]), 0L, 255L));
                };
                const auto a =
                    static_cast<std::uint32_t>(std::clamp(std::lround(acc[3] / weight), 0L, 255L));
                result = a << 24 | ch(acc[0]) << 16 | ch(acc[1]) << 8 | ch(acc[2]);
            }
            out[static_cast<std::size_t>(oy * kSide + ox)] = result;
        }
    }
    GdipBitmapUnlockBits(src, &in);
    GpBitmap* icon = nullptr;
    st = GdipCreateBitmapFromScan0(kSide, kSide, 0, PixelFormat32bppARGB, nullptr, &icon);
    if (st != OK) return st;
    GpRect rect{0, 0, kSide, kSide};
    BitmapData dst{};
    st = GdipBitmapLockBits(icon, &rect, ImageLockModeWrite, PixelFormat32bppARGB, &dst);
    if (st == OK) {
        for (int y = 0; y < kSide; ++y)
            std::copy_n(out.data() + y * kSide, kSide,
                        static_cast<std::uint32_t*>(
                            static_cast<void*>(static_cast<std::uint8_t*>(dst.Scan0) +
                                               static_cast<std::ptrdiff_t>(y) * dst.Stride)));
        st = GdipBitmapUnlockBits(icon, &dst);
    }
    if (st != OK) {
        GdipDisposeImage(icon);
        return st;
    }
    RegisterImage(nNewID, icon, "", "", KindEngine);
    return OK;
}

} // namespace kestrelyn
