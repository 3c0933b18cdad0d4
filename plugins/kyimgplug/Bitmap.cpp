#include "Bitmap.h"

#include "platform/DecodeLimits.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>

namespace kyplug {

namespace {
std::uint8_t ClampByte(float v) {
    if (!(v > 0.0f)) return 0;
    if (v >= 1.0f) return 255;
    return std::uint8_t(v * 255.0f + 0.5f);
}
} // namespace

int BppOfType(int type, int bpp) {
    switch (type) {
    case kUInt16:
        return 16;
    case kRGB16:
        return 48;
    case kRGBF:
        return 96;
    case kRGBAF:
        return 128;
    default:
        return bpp;
    }
}

// Initial-exec: the plug-in is loaded with dlopen, and a dynamic TLS block would
// be reached through __tls_get_addr, whose bookkeeping the leak checker of the
// sanitizer builds misreads; one word fits the static TLS kept for dlopen.
__attribute__((tls_model("initial-exec"))) thread_local std::uint64_t g_inputBytes = 0;

namespace {
// The host sets it to its own process-wide limit (KYIMGPLUG_SetDecodePixelLimit).
std::atomic<std::int64_t> g_pixelLimit{kestrelyn::DecodePixelLimitFromEnvironment()};
} // namespace

void SetPixelLimit(std::int64_t pixels) {
    g_pixelLimit.store(pixels > 0 ? pixels : kestrelyn::DecodePixelLimitFromEnvironment());
}
std::int64_t PixelLimit() {
    return g_pixelLimit.load();
}

InputBudget::InputBudget(std::uint64_t bytes) : saved_(g_inputBytes) {
    g_inputBytes = bytes;
}
InputBudget::~InputBudget() {
    g_inputBytes = saved_;
}

void CheckSize(int type, int width, int height, int bpp) {
    bpp = BppOfType(type, bpp);
    if (width <= 0 || height <= 0 || width > 65535 || height > 65535) throw DecodeError("bad size");
    if (std::int64_t(width) * std::int64_t(height) > PixelLimit()) throw DecodeError("too large");
    if (type == kStandard && bpp != 1 && bpp != 4 && bpp != 8 && bpp != 16 && bpp != 24 &&
        bpp != 32)
        throw DecodeError("bad depth");
    // A file cannot hold more than a bounded multiple of its own size: a
    // header that claims more is lying, and is refused before any memory is
    // spent on it.
    std::uint64_t need = ((std::uint64_t(width) * bpp + 31) / 32) * 4 * std::uint64_t(height);
    if (g_inputBytes && need > g_inputBytes * 2048 + (std::uint64_t(64) << 20))
        throw DecodeError("lying size");
}

BitmapPtr NewBitmap(int type, int width, int height, int bpp) {
    CheckSize(type, width, height, bpp);
    bpp = BppOfType(type, bpp);
    auto bm = std::make_unique<Bitmap>();
    bm->type = type;
    bm->width = width;
    bm->height = height;
    bm->bpp = bpp;
    bm->pitch = unsigned(((std::uint64_t(width) * bpp + 31) / 32) * 4);
    bm->bits.assign(std::size_t(bm->pitch) * height, 0);
    if (type == kStandard && bpp <= 8) {
        bm->palette.assign(std::size_t(4) << bpp, 0);
        SetGreyPalette(*bm);
    }
    return bm;
}

void SetGreyPalette(Bitmap& bm) {
    int n = bm.colors();
    for (int i = 0; i < n; ++i) {
        auto v = std::uint8_t(n > 1 ? i * 255 / (n - 1) : 0);
        bm.setColor(i, v, v, v);
    }
}

bool Bitmap::isGreyRamp() const {
    int n = colors();
    if (type != kStandard || bpp > 8 || n < 2) return false;
    for (int i = 0; i < n; ++i) {
        int v = i * 255 / (n - 1);
        if (palette[i * 4] != v || palette[i * 4 + 1] != v || palette[i * 4 + 2] != v) return false;
    }
    return true;
}

void PixelRGBA(const Bitmap& bm, int x, int y, std::uint8_t out[4]) {
    const std::uint8_t* r = bm.row(y);
    if (bm.type != kStandard) {
        float f[4];
        PixelFloat(bm, x, y, f);
        for (int i = 0; i < 4; ++i)
            out[i] = ClampByte(f[i]);
        return;
    }
    int idx = -1;
    switch (bm.bpp) {
    case 1:
        idx = (r[x >> 3] >> (7 - (x & 7))) & 1;
        break;
    case 4:
        idx = (r[x >> 1] >> ((x & 1) ? 0 : 4)) & 15;
        break;
    case 8:
        idx = r[x];
        break;
    case 16: { // 5-6-5
        unsigned v = r[x * 2] | (r[x * 2 + 1] << 8);
        out[0] = std::uint8_t(((v >> 11) & 31) * 255 / 31);
        out[1] = std::uint8_t(((v >> 5) & 63) * 255 / 63);
        out[2] = std::uint8_t((v & 31) * 255 / 31);
        out[3] = 255;
        return;
    }
    case 24:
        out[0] = r[x * 3 + 2];
        out[1] = r[x * 3 + 1];
        out[2] = r[x * 3];
        out[3] = 255;
        return;
    default:
        out[0] = r[x * 4 + 2];
        out[1] = r[x * 4 + 1];
        out[2] = r[x * 4];
        out[3] = bm.alpha ? r[x * 4 + 3] : 255;
        return;
    }
    if (idx >= bm.colors()) idx = bm.colors() - 1;
    if (idx < 0) {
        out[0] = out[1] = out[2] = 0;
        out[3] = 255;
        return;
    }
    out[0] = bm.palette[idx * 4 + 2];
    out[1] = bm.palette[idx * 4 + 1];
    out[2] = bm.palette[idx * 4];
    out[3] = idx < int(bm.transparency.size()) ? bm.transparency[idx] : 255;
}

void PixelFloat(const Bitmap& bm, int x, int y, float out[4]) {
    const std::uint8_t* r = bm.row(y);
    switch (bm.type) {
    case kUInt16: {
        std::uint16_t v;
        std::memcpy(&v, r + x * 2, 2);
        out[0] = out[1] = out[2] = v / 65535.0f;
        out[3] = 1.0f;
        return;
    }
    case kRGB16: {
        std::uint16_t v[3];
        std::memcpy(v, r + x * 6, 6);
        for (int i = 0; i < 3; ++i)
            out[i] = v[i] / 65535.0f;
        out[3] = 1.0f;
        return;
    }
    case kRGBF:
        std::memcpy(out, r + x * 12, 12);
        out[3] = 1.0f;
        return;
    case kRGBAF:
        std::memcpy(out, r + x * 16, 16);
        return;
    default: {
        std::uint8_t c[4];
        PixelRGBA(bm, x, y, c);
        for (int i = 0; i < 4; ++i)
            out[i] = c[i] / 255.0f;
    }
    }
}

void SetPixelRGBA(Bitmap& bm, int x, int y, const std::uint8_t in[4]) {
    std::uint8_t* r = bm.row(y);
    int n = bm.bpp / 8;
    r[x * n] = in[2];
    r[x * n + 1] = in[1];
    r[x * n + 2] = in[0];
    if (n == 4) r[x * n + 3] = in[3];
}

void CopyFacts(const Bitmap& from, Bitmap& to) {
    to.topDown = from.topDown; // a conversion keeps the row order
    to.dpmX = from.dpmX;
    to.dpmY = from.dpmY;
    to.delayMs = from.delayMs;
    to.disposal = from.disposal;
    to.loopCount = from.loopCount;
    to.icc = from.icc;
    to.metadata = from.metadata;
}

bool HasTransparency(const Bitmap& bm) {
    if (bm.type == kRGBAF) return true;
    if (bm.type != kStandard) return false;
    if (bm.bpp == 32) return bm.alpha;
    for (auto a : bm.transparency)
        if (a != 255) return true;
    return false;
}

static BitmapPtr ConvertTrue(const Bitmap& bm, int bpp) {
    try {
        auto out = NewBitmap(kStandard, bm.width, bm.height, bpp);
        CopyFacts(bm, *out);
        out->alpha = bpp == 32;
        std::uint8_t c[4];
        for (int y = 0; y < bm.height; ++y)
            for (int x = 0; x < bm.width; ++x) {
                PixelRGBA(bm, x, y, c);
                SetPixelRGBA(*out, x, y, c);
            }
        return out;
    } catch (...) {
        return nullptr;
    }
}

BitmapPtr ConvertTo24(const Bitmap& bm) {
    return ConvertTrue(bm, 24);
}
BitmapPtr ConvertTo32(const Bitmap& bm) {
    return ConvertTrue(bm, 32);
}

BitmapPtr ConvertToGrey8(const Bitmap& bm) {
    try {
        auto out = NewBitmap(kStandard, bm.width, bm.height, 8);
        CopyFacts(bm, *out);
        for (int y = 0; y < bm.height; ++y) {
            std::uint8_t* d = out->row(y);
            const std::uint8_t* s = bm.row(y);
            for (int x = 0; x < bm.width; ++x) {
                if (bm.type == kUInt16) {
                    std::uint16_t v;
                    std::memcpy(&v, s + x * 2, 2);
                    d[x] = std::uint8_t(v >> 8);
                } else {
                    std::uint8_t c[4];
                    PixelRGBA(bm, x, y, c);
                    d[x] = std::uint8_t((c[0] * 77 + c[1] * 150 + c[2] * 29 + 128) >> 8);
                }
            }
        }
        return out;
    } catch (...) {
        return nullptr;
    }
}

BitmapPtr ConvertToStandard(const Bitmap& bm) {
    switch (bm.type) {
    case kStandard:
        return CloneBitmap(bm);
    case kUInt16:
        return ConvertToGrey8(bm);
    case kRGBAF:
        return ConvertTo32(bm);
    default:
        return ConvertTo24(bm);
    }
}

BitmapPtr ConvertToRGBF(const Bitmap& bm) {
    try {
        auto out = NewBitmap(kRGBF, bm.width, bm.height, 96);
        CopyFacts(bm, *out);
        float f[4];
        for (int y = 0; y < bm.height; ++y) {
            auto* d = reinterpret_cast<float*>(out->row(y));
            for (int x = 0; x < bm.width; ++x) {
                PixelFloat(bm, x, y, f);
                std::memcpy(d + x * 3, f, 12);
            }
        }
        return out;
    } catch (...) {
        return nullptr;
    }
}

// Global photoreceptor tone mapping (Reinhard and Devlieghere 2005) with the
// adaptation taken from the image average and the contrast derived from the
// log-luminance range when not given.
BitmapPtr ToneMapReinhard(const Bitmap& bm, double intensity, double contrast) {
    try {
        std::size_t n = std::size_t(bm.width) * bm.height;
        std::vector<float> rgb(n * 3);
        double lmin = 1e30, lmax = -1e30, lsum = 0, lav = 0;
        float f[4];
        for (int y = 0; y < bm.height; ++y)
            for (int x = 0; x < bm.width; ++x) {
                PixelFloat(bm, x, y, f);
                float* p = &rgb[(std::size_t(y) * bm.width + x) * 3];
                for (int i = 0; i < 3; ++i)
                    p[i] = std::isfinite(f[i]) && f[i] > 0 ? f[i] : 0.0f;
                double l = 0.2126 * p[0] + 0.7152 * p[1] + 0.0722 * p[2];
                double ll = std::log(l + 1e-6);
                lmin = std::min(lmin, ll);
                lmax = std::max(lmax, ll);
                lsum += ll;
                lav += l;
            }
        lav /= double(n);
        double llav = lsum / double(n);
        double k = lmax > lmin ? (lmax - llav) / (lmax - lmin) : 0.5;
        double m = contrast > 0 ? contrast : 0.3 + 0.7 * std::pow(std::max(k, 0.0), 1.4);
        double fi = std::exp(-std::clamp(intensity, -8.0, 8.0));
        double ia = std::pow(fi * std::max(lav, 1e-6), m);
        double vmin = 1e30, vmax = -1e30;
        for (auto& v : rgb) {
            v = float(v / (v + ia));
            vmin = std::min(vmin, double(v));
            vmax = std::max(vmax, double(v));
        }
        double range = vmax > vmin ? vmax - vmin : 1.0;
        auto out = NewBitmap(kStandard, bm.width, bm.height, 24);
        CopyFacts(bm, *out);
        for (int y = 0; y < bm.height; ++y)
            for (int x = 0; x < bm.width; ++x) {
                const float* p = &rgb[(std::size_t(y) * bm.width + x) * 3];
                std::uint8_t c[4] = {ClampByte(float((p[0] - vmin) / range)),
                                     ClampByte(float((p[1] - vmin) / range)),
                                     ClampByte(float((p[2] - vmin) / range)), 255};
                SetPixelRGBA(*out, x, y, c);
            }
        return out;
    } catch (...) {
        return nullptr;
    }
}

BitmapPtr CloneBitmap(const Bitmap& bm) {
    try {
        return std::make_unique<Bitmap>(bm);
    } catch (...) {
        return nullptr;
    }
}

bool InvertBitmap(Bitmap& bm) {
    if (bm.type != kStandard) return false;
    if (bm.bpp <= 8 || bm.bpp == 24) {
        for (auto& b : bm.bits)
            b = std::uint8_t(~b);
        return true;
    }
    if (bm.bpp == 32) {
        for (std::size_t i = 0; i < bm.bits.size(); i += 4)
            for (int k = 0; k < 3; ++k)
                bm.bits[i + k] = std::uint8_t(~bm.bits[i + k]);
        return true;
    }
    return false;
}

bool FlipBitmap(Bitmap& bm) {
    std::vector<std::uint8_t> tmp(bm.pitch);
    for (int y = 0; y < bm.height / 2; ++y) {
        std::uint8_t* a = bm.bits.data() + std::size_t(y) * bm.pitch;
        std::uint8_t* b = bm.bits.data() + std::size_t(bm.height - 1 - y) * bm.pitch;
        std::memcpy(tmp.data(), a, bm.pitch);
        std::memcpy(a, b, bm.pitch);
        std::memcpy(b, tmp.data(), bm.pitch);
    }
    bm.topDown = !bm.topDown;
    return true;
}

// BITMAPINFOHEADER (40 bytes, little-endian) followed by the colour table.
const std::vector<std::uint8_t>& BuildInfo(Bitmap& bm) {
    auto& v = bm.info;
    v.assign(40 + bm.palette.size(), 0);
    auto put32 = [&](int off, std::uint32_t x) {
        for (int i = 0; i < 4; ++i)
            v[off + i] = std::uint8_t(x >> (8 * i));
    };
    put32(0, 40);
    put32(4, std::uint32_t(bm.width));
    put32(8, std::uint32_t(bm.height));
    v[12] = 1;
    v[14] = std::uint8_t(bm.bpp);
    v[15] = std::uint8_t(bm.bpp >> 8);
    put32(16, 0);
    put32(20, std::uint32_t(bm.pitch * bm.height));
    put32(24, std::uint32_t(bm.dpmX));
    put32(28, std::uint32_t(bm.dpmY));
    put32(32, std::uint32_t(bm.colors()));
    put32(36, 0);
    if (!bm.palette.empty()) std::memcpy(v.data() + 40, bm.palette.data(), bm.palette.size());
    return v;
}

} // namespace kyplug
