// BMP and ICO decoders: every header generation (OS/2 core, 40, 52, 56, 108,
// 124 bytes), 1/4/8/16/24/32 bits, RLE4/RLE8, bit fields and top-down rows;
// icons with DIB or PNG entries (the largest entry is decoded).
#include <cstring>

#include "platform/linux/engine/codecs/CodecCommon.h"

namespace kestrelyn::codecs {

namespace {

struct Mask {
    std::uint32_t mask = 0;
    int shift = 0;
    int bits = 0;
    explicit Mask(std::uint32_t m = 0) : mask(m) {
        if (!m) return;
        while (!((m >> shift) & 1))
            ++shift;
        while (shift + bits < 32 && ((m >> (shift + bits)) & 1))
            ++bits;
    }
    std::uint32_t Get8(std::uint32_t v, std::uint32_t absent) const {
        if (!mask) return absent;
        std::uint32_t x = (v & mask) >> shift;
        std::uint32_t maxv = bits >= 32 ? 0xffffffffu : ((1u << bits) - 1);
        if (bits >= 8) return x >> (bits - 8);
        return (x * 255 + maxv / 2) / maxv;
    }
};

// Decodes RLE8/RLE4, handing each pixel inside width x height to
// `store(x, y, index)` (rows counted bottom-up as in the file). Pixels the
// data skips are never visited: a short file describing a large picture costs
// no more than its runs. Runs past the data end stop decoding.
template <class Store>
void DecodeRle(const std::uint8_t* p, std::size_t n, int bpp, int width, int height, Store store) {
    int x = 0, y = 0;
    std::size_t i = 0;
    auto put = [&](std::uint8_t v) {
        if (x < width && y < height) store(x, y, v);
        ++x;
    };
    while (i + 1 < n && y < height) {
        std::uint8_t count = p[i], val = p[i + 1];
        i += 2;
        if (count > 0) {
            for (int k = 0; k < count; ++k)
                put(bpp == 8 ? val : static_cast<std::uint8_t>((k & 1) ? (val & 15) : (val >> 4)));
        } else if (val == 0) {
            x = 0;
            ++y;
        } else if (val == 1) {
            break;
        } else if (val == 2) {
            if (i + 1 >= n) break;
            x += p[i];
            y += p[i + 1];
            i += 2;
        } else {
            int cnt = val;
            std::size_t bytes =
                bpp == 8 ? static_cast<std::size_t>(cnt) : static_cast<std::size_t>((cnt + 1) / 2);
            if (i + bytes > n) break;
            for (int k = 0; k < cnt; ++k) {
                std::uint8_t b = bpp == 8 ? p[i + static_cast<std::size_t>(k)]
                                          : p[i + static_cast<std::size_t>(k / 2)];
                put(bpp == 8 ? b : static_cast<std::uint8_t>((k & 1) ? (b & 15) : (b >> 4)));
            }
            i += (bytes + 1) & ~std::size_t{1};
        }
    }
}

struct DibInfo {
    std::int64_t width = 0, height = 0;
    bool topDown = false;
    int bpp = 0;
    std::uint32_t compression = 0;
    std::uint32_t masks[4] = {0, 0, 0, 0};
    std::vector<ARGB> palette;
    float dpiX = 0, dpiY = 0;
    std::size_t headerEnd = 0; // offset after header, masks and palette
};

// Parses a DIB header at `p` (size n). `fileMasksAfter40`: bit-field masks
// follow a 40-byte header.
GpStatus ParseDib(const std::uint8_t* p, std::size_t n, DibInfo& info) {
    if (n < 12) return UnknownImageFormat;
    std::uint32_t hs = Le32(p);
    std::size_t palEntry = 4;
    if (hs == 12) {
        info.width = Le16(p + 4);
        info.height = Le16(p + 6);
        info.bpp = Le16(p + 10);
        palEntry = 3;
    } else if (hs >= 16 && hs <= 124 + 1024) {
        if (n < 16) return UnknownImageFormat;
        info.width = static_cast<std::int32_t>(Le32(p + 4));
        info.height = static_cast<std::int32_t>(Le32(p + 8));
        info.bpp = Le16(p + 14);
        if (hs >= 20 && n >= 20) info.compression = Le32(p + 16);
        if (hs >= 32 && n >= 32) {
            std::int32_t px = static_cast<std::int32_t>(Le32(p + 24));
            std::int32_t py = static_cast<std::int32_t>(Le32(p + 28));
            if (px > 0 && py > 0) {
                info.dpiX = static_cast<float>(px) * 0.0254f;
                info.dpiY = static_cast<float>(py) * 0.0254f;
            }
        }
    } else {
        return UnknownImageFormat;
    }
    if (info.height < 0) {
        info.topDown = true;
        info.height = -info.height;
    }
    if (info.width <= 0 || info.height <= 0) return UnknownImageFormat;
    std::size_t pos = hs;
    if (info.compression == 3 || info.compression == 6) {
        int nm = info.compression == 6 ? 4 : 3;
        if (hs >= 52) {
            if (n < 40 + 4 * static_cast<std::size_t>(nm)) return UnknownImageFormat;
            for (int k = 0; k < nm; ++k)
                info.masks[k] = Le32(p + 40 + 4 * k);
        } else {
            if (n < pos + 4 * static_cast<std::size_t>(nm)) return UnknownImageFormat;
            for (int k = 0; k < nm; ++k)
                info.masks[k] = Le32(p + pos + 4 * static_cast<std::size_t>(k));
            pos += 4 * static_cast<std::size_t>(nm);
        }
        if (hs >= 56 && nm == 3 && n >= 56) info.masks[3] = Le32(p + 52);
    } else if (info.compression == 0 && hs >= 56 && n >= 56 && info.bpp == 32) {
        // v4/v5 headers may carry an alpha mask for plain 32-bit rows; the
        // colour masks are the defaults then
    }
    if (info.bpp <= 8) {
        if (info.bpp != 1 && info.bpp != 4 && info.bpp != 8) return UnknownImageFormat;
        std::size_t count = std::size_t{1} << info.bpp;
        if (hs >= 36 && n >= 36) {
            std::uint32_t used = Le32(p + 32);
            if (used > 0 && used < count) count = used;
        }
        for (std::size_t k = 0; k < count; ++k) {
            std::size_t o = pos + k * palEntry;
            if (o + 3 > n) break;
            info.palette.push_back(0xff000000u | (static_cast<ARGB>(p[o + 2]) << 16) |
                                   (static_cast<ARGB>(p[o + 1]) << 8) | p[o]);
        }
        pos += count * palEntry;
    } else if (info.bpp != 16 && info.bpp != 24 && info.bpp != 32) {
        return UnknownImageFormat;
    }
    if (info.compression == 1 && info.bpp != 8) return UnknownImageFormat;
    if (info.compression == 2 && info.bpp != 4) return UnknownImageFormat;
    if (info.compression > 3 && info.compression != 6) return UnknownImageFormat;
    if (info.compression >= 3 && info.bpp != 16 && info.bpp != 32) return UnknownImageFormat;
    info.headerEnd = pos;
    return OK;
}

// Builds the bitmap of a parsed DIB whose pixel rows start at `bits`.
GpStatus BuildDib(const DibInfo& info, const std::uint8_t* bits, std::size_t avail, GpImage** out) {
    const std::int64_t w = info.width, h = info.height;
    if (w > kMaxSide || h > kMaxSide) return OutOfMemory;
    PixelFormat fmt;
    bool generic = false;
    switch (info.bpp) {
    case 1:
        fmt = PixelFormat1bppIndexed;
        break;
    case 4:
        fmt = PixelFormat4bppIndexed;
        break;
    case 8:
        fmt = PixelFormat8bppIndexed;
        break;
    case 24:
        fmt = PixelFormat24bppRGB;
        break;
    case 16:
        if (info.compression == 0 || (info.masks[0] == 0x7c00 && info.masks[1] == 0x3e0 &&
                                      info.masks[2] == 0x1f && info.masks[3] == 0))
            fmt = PixelFormat16bppRGB555;
        else if (info.masks[0] == 0xf800 && info.masks[1] == 0x7e0 && info.masks[2] == 0x1f &&
                 info.masks[3] == 0)
            fmt = PixelFormat16bppRGB565;
        else {
            generic = true;
            fmt = info.masks[3] ? PixelFormat32bppARGB : PixelFormat32bppRGB;
        }
        break;
    default: // 32
        if (info.compression == 0 || (info.masks[0] == 0xff0000 && info.masks[1] == 0xff00 &&
                                      info.masks[2] == 0xff && info.masks[3] == 0))
            fmt = PixelFormat32bppRGB;
        else {
            generic = true;
            fmt = info.masks[3] ? PixelFormat32bppARGB : PixelFormat32bppRGB;
        }
    }
    std::int64_t rowBytes = (w * info.bpp + 31) / 32 * 4;
    // Uncompressed rows must all be in the file: a shorter file is refused
    // before the bitmap is made.
    if (!DecodeSizeAllowed(w, h)) return OutOfMemory;
    if (info.compression != 1 && info.compression != 2 &&
        static_cast<std::uint64_t>(rowBytes) * static_cast<std::uint64_t>(h) > avail)
        return UnknownImageFormat;
    GpImage* raw = nullptr;
    GpStatus st = NewBitmap(w, h, fmt, &raw);
    if (st != OK) return st;
    BitmapHolder img(raw);
    if (info.compression == 1 || info.compression == 2) {
        // The new bitmap is zeroed: pixels the runs skip keep index 0.
        GpImage* target = img.get();
        const bool topDown = info.topDown;
        const int bpp = info.bpp;
        DecodeRle(bits, avail, bpp, static_cast<int>(w), static_cast<int>(h),
                  [&](int x, int r, std::uint8_t v) {
                      std::uint8_t* dst = target->Row(static_cast<INT>(topDown ? r : h - 1 - r));
                      if (bpp == 8) {
                          dst[x] = v;
                      } else {
                          const int shift = (x & 1) ? 0 : 4;
                          dst[x / 2] = static_cast<std::uint8_t>((dst[x / 2] & ~(15 << shift)) |
                                                                 ((v & 15) << shift));
                      }
                  });
    } else {
        Mask mr(info.masks[0]), mg(info.masks[1]), mb(info.masks[2]), ma(info.masks[3]);
        for (std::int64_t r = 0; r < h; ++r) {
            std::int64_t y = info.topDown ? r : h - 1 - r;
            std::uint8_t* dst = img->Row(static_cast<INT>(y));
            const std::uint8_t* src = bits + r * rowBytes;
            if (!generic) {
                std::memcpy(dst, src, static_cast<std::size_t>((w * info.bpp + 7) / 8));
                continue;
            }
            for (std::int64_t x = 0; x < w; ++x) {
                std::uint32_t v = info.bpp == 16 ? Le16(src + 2 * x) : Le32(src + 4 * x);
                dst[4 * x + 0] = static_cast<std::uint8_t>(mb.Get8(v, 0));
                dst[4 * x + 1] = static_cast<std::uint8_t>(mg.Get8(v, 0));
                dst[4 * x + 2] = static_cast<std::uint8_t>(mr.Get8(v, 0));
                dst[4 * x + 3] = static_cast<std::uint8_t>(ma.Get8(v, 255));
            }
        }
    }
    if (info.bpp <= 8) {
        std::vector<ARGB> pal = info.palette;
        pal.resize(std::size_t{1} << info.bpp, 0xff000000u);
        if ((st = SetPalette(img.get(), pal, 0)) != OK) return st;
    }
    if (info.dpiX > 0 && info.dpiY > 0) GdipBitmapSetResolution(img.get(), info.dpiX, info.dpiY);
    *out = img.release();
    return OK;
}

} // namespace

GpStatus DecodeBmp(const Bytes& data, GpImage** out) {
    *out = nullptr;
    if (data.size() < 14 + 12) return UnknownImageFormat;
    DibInfo info;
    GpStatus st = ParseDib(data.data() + 14, data.size() - 14, info);
    if (st != OK) return st;
    std::size_t off = Le32(data.data() + 10);
    if (off == 0 || off >= data.size()) off = 14 + info.headerEnd;
    if (off >= data.size()) return UnknownImageFormat;
    st = BuildDib(info, data.data() + off, data.size() - off, out);
    if (st == OK) (*out)->rawFormat = ImageFormatBMP;
    return st;
}

GpStatus DecodeIco(const Bytes& data, GpImage** out) {
    *out = nullptr;
    if (data.size() < 6) return UnknownImageFormat;
    std::size_t count = Le16(data.data() + 4);
    if (count == 0 || data.size() < 6 + 16 * count) return UnknownImageFormat;
    std::size_t best = count;
    std::int64_t bestArea = -1;
    int bestBits = -1;
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint8_t* e = data.data() + 6 + 16 * i;
        std::int64_t w = e[0] ? e[0] : 256, h = e[1] ? e[1] : 256;
        int bits = Le16(e + 6);
        std::uint32_t size = Le32(e + 8), off = Le32(e + 12);
        if (off >= data.size() || size > data.size() - off) continue;
        if (w * h > bestArea || (w * h == bestArea && bits > bestBits)) {
            best = i;
            bestArea = w * h;
            bestBits = bits;
        }
    }
    if (best == count) return UnknownImageFormat;
    const std::uint8_t* e = data.data() + 6 + 16 * best;
    const std::uint8_t* p = data.data() + Le32(e + 12);
    std::size_t n = Le32(e + 8);
    GpStatus st;
    if (n >= 8 && std::memcmp(p, "\x89PNG\r\n\x1a\n", 8) == 0) {
        st = DecodePng(p, n, out);
        if (st == OK) (*out)->rawFormat = ImageFormatIcon;
        return st;
    }
    DibInfo info;
    if ((st = ParseDib(p, n, info)) != OK) return st;
    if (info.compression != 0 && info.compression != 3) return UnknownImageFormat;
    info.height /= 2; // XOR image above the AND mask
    if (info.height <= 0) return UnknownImageFormat;
    const std::int64_t w = info.width, h = info.height;
    std::int64_t rowBytes = (w * info.bpp + 31) / 32 * 4;
    std::int64_t maskRow = (w + 31) / 32 * 4;
    if (info.headerEnd > n || static_cast<std::uint64_t>(rowBytes * h) > n - info.headerEnd)
        return UnknownImageFormat;
    GpImage* raw = nullptr;
    if ((st = BuildDib(info, p + info.headerEnd, n - info.headerEnd, &raw)) != OK) return st;
    BitmapHolder xorImg(raw);
    // Convert to ARGB through the engine, then apply the AND mask.
    GpImage* argbRaw = nullptr;
    if ((st = NewBitmap(w, h, PixelFormat32bppARGB, &argbRaw)) != OK) return st;
    BitmapHolder argb(argbRaw);
    GpRect rect{0, 0, static_cast<INT>(w), static_cast<INT>(h)};
    BitmapData bd;
    if ((st = GdipBitmapLockBits(xorImg.get(), &rect, ImageLockModeRead, PixelFormat32bppARGB,
                                 &bd)) != OK)
        return st;
    bool anyAlpha = false;
    for (std::int64_t y = 0; y < h; ++y) {
        const std::uint8_t* s = static_cast<const std::uint8_t*>(bd.Scan0) + y * bd.Stride;
        std::memcpy(argb->Row(static_cast<INT>(y)), s, static_cast<std::size_t>(w) * 4);
    }
    GdipBitmapUnlockBits(xorImg.get(), &bd);
    if (info.bpp == 32) {
        const std::uint8_t* src = p + info.headerEnd;
        for (std::int64_t r = 0; r < h && !anyAlpha; ++r)
            for (std::int64_t x = 0; x < w; ++x)
                if (src[r * rowBytes + 4 * x + 3]) {
                    anyAlpha = true;
                    break;
                }
        if (anyAlpha)
            for (std::int64_t r = 0; r < h; ++r) {
                std::int64_t y = info.topDown ? r : h - 1 - r;
                for (std::int64_t x = 0; x < w; ++x)
                    argb->Row(static_cast<INT>(y))[4 * x + 3] = src[r * rowBytes + 4 * x + 3];
            }
    }
    std::size_t maskOff = info.headerEnd + static_cast<std::size_t>(rowBytes * h);
    if (!anyAlpha && maskOff + static_cast<std::size_t>(maskRow * h) <= n) {
        const std::uint8_t* m = p + maskOff;
        for (std::int64_t r = 0; r < h; ++r) {
            std::int64_t y = info.topDown ? r : h - 1 - r;
            std::uint8_t* row = argb->Row(static_cast<INT>(y));
            for (std::int64_t x = 0; x < w; ++x) {
                bool transparent = (m[r * maskRow + x / 8] >> (7 - (x & 7))) & 1;
                row[4 * x + 3] = transparent ? 0 : 255;
            }
        }
    }
    argb->rawFormat = ImageFormatIcon;
    *out = argb.release();
    return OK;
}

} // namespace kestrelyn::codecs
