// The filter frame: zone in, one pure function, zone back in the image's own
// format. See modFilters.h.
#include "filters/modFilters.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "core/modMain.h"
#include "platform/modGdiPlus.h"

namespace kestrelyn {

namespace {

constexpr PixelFormat kFormat1bpp = 196865;
constexpr PixelFormat kFormat8bpp = 198659;
constexpr PixelFormat kFormatARGB = 2498570;

// The table of identifiers 1..70. A null row runs no function: 21, 22 and 23
// are free; the bitonal clean-up (52, 62, 64, 65, 66, 69, 70), distortion and
// artistic (15, 29, 32, 37, 38, 40, 54, 55, 56, 57) and page statistic (36,
// 53, 59, 60, 67, 68) rows get their functions with those families.
struct FilterRow {
    FilterFunction fn;
    bool bReadsSource;
    std::int8_t nBorder; // see FilterSourceBorder
};

const FilterRow kFilterTable[71] = {
    /* 0 */ {nullptr, false, -1},
    /* 1 sharpen */ {FilterSharpen, false, -1},
    /* 2 negative */ {FilterNegative, false, -1},
    /* 3 blur */ {FilterBlur, false, -1},
    /* 4 diffuse */ {FilterDiffuse, false, -1},
    /* 5 smooth */ {FilterSmooth, false, -1},
    /* 6 edge enhance */ {FilterEdgeEnhance, false, -1},
    /* 7 contour */ {FilterContour, true, 1},
    /* 8 emboss */ {FilterEmboss, false, -1},
    /* 9 emboss more */ {FilterEmbossMore, true, 1},
    /* 10 engrave */ {FilterEngrave, false, -1},
    /* 11 engrave more */ {FilterEngraveMore, true, 1},
    /* 12 gray */ {FilterGrayscale, false, -1},
    /* 13 relief */ {FilterRelief, true, 1},
    /* 14 brightness */ {FilterBrightness, false, -1},
    /* 15 pixelize */ {nullptr, true, -1},
    /* 16 swap channels */ {FilterSwapChannels, false, -1},
    /* 17 contrast */ {FilterContrast, false, -1},
    /* 18 threshold */ {FilterThreshold, false, -1},
    /* 19 ordered dither */ {FilterOrderedDither, false, -1},
    /* 20 error diffusion */ {FilterErrorDiffusion, false, -1},
    /* 21 free */ {nullptr, false, -1},
    /* 22 free */ {nullptr, false, -1},
    /* 23 free */ {nullptr, false, -1},
    /* 24 aqua */ {FilterAqua, true, 2},
    /* 25 dilate */ {FilterDilate, true, 1},
    /* 26 erode */ {FilterErode, true, 1},
    /* 27 connected contour */ {FilterConnectedContour, true, 1},
    /* 28 stretch */ {FilterStretchContrast, false, -1},
    /* 29 add noise */ {nullptr, false, -1},
    /* 30 saturation */ {FilterSaturation, false, -1},
    /* 31 gamma */ {FilterGamma, false, -1},
    /* 32 scan line */ {nullptr, false, -1},
    /* 33 soften */ {FilterSoften, false, -1},
    /* 34 colourise */ {FilterColorize, true, 0},
    /* 35 transparency */ {FilterTransparency, false, -1},
    /* 36 is grayscale */ {nullptr, false, -1},
    /* 37 horizontal waves */ {nullptr, true, -1},
    /* 38 vertical waves */ {nullptr, true, -1},
    /* 39 channel offsets */ {FilterAdjustRGB, false, -1},
    /* 40 red eye */ {nullptr, false, -1},
    /* 41 keep red */ {FilterKeepRed, false, -1},
    /* 42 keep green */ {FilterKeepGreen, false, -1},
    /* 43 keep blue */ {FilterKeepBlue, false, -1},
    /* 44 remove red */ {FilterRemoveRed, false, -1},
    /* 45 remove green */ {FilterRemoveGreen, false, -1},
    /* 46 remove blue */ {FilterRemoveBlue, false, -1},
    /* 47 scale red */ {FilterScaleRed, false, -1},
    /* 48 scale green */ {FilterScaleGreen, false, -1},
    /* 49 scale blue */ {FilterScaleBlue, false, -1},
    /* 50 colour key */ {FilterColorKey, false, -1},
    /* 51 colour replace */ {FilterColorReplace, false, -1},
    /* 52 3x3 pattern replacement */ {nullptr, true, -1},
    /* 53 is blank */ {nullptr, false, -1},
    /* 54 fire */ {nullptr, false, -1},
    /* 55 twirl */ {nullptr, true, -1},
    /* 56 rounded mirror */ {nullptr, true, -1},
    /* 57 swirl */ {nullptr, true, -1},
    /* 58 equalise */ {FilterEqualize, false, -1},
    /* 59 is bitonal */ {nullptr, false, -1},
    /* 60 count colour */ {nullptr, false, -1},
    /* 61 3x3 median */ {FilterDespeckle, true, 1},
    /* 62 bitonal dilation */ {nullptr, true, -1},
    /* 63 5x5 median */ {FilterDespeckleMore, true, 2},
    /* 64 one-pixel speck */ {nullptr, true, -1},
    /* 65 bitonal erosion */ {nullptr, true, -1},
    /* 66 hole filling */ {nullptr, true, -1},
    /* 67 transparent marks */ {nullptr, false, -1},
    /* 68 average colour */ {nullptr, false, -1},
    /* 69 thin lines */ {nullptr, true, -1},
    /* 70 2x2 speck */ {nullptr, true, -1},
};

// The identifiers whose function needs no copy and cannot fail once it has
// started writing (tables and divisors are checked first): on a 32-bit ARGB
// image they may run straight in the image's rows, since a run that fails
// leaves the pixels as they were either way.
bool RunsInImage(std::int32_t id) {
    switch (static_cast<FilterId>(id)) {
    case FilterId::Sharpen:
    case FilterId::Negative:
    case FilterId::Blur:
    case FilterId::Diffuse:
    case FilterId::Smooth:
    case FilterId::EdgeEnhance:
    case FilterId::Emboss:
    case FilterId::Engrave:
    case FilterId::Grayscale:
    case FilterId::Brightness:
    case FilterId::SwapChannels:
    case FilterId::Contrast:
    case FilterId::Threshold:
    case FilterId::OrderedDither:
    case FilterId::ErrorDiffusion:
    case FilterId::StretchContrast:
    case FilterId::Gamma:
    case FilterId::Transparency:
    case FilterId::AdjustRGB:
    case FilterId::KeepRed:
    case FilterId::KeepGreen:
    case FilterId::KeepBlue:
    case FilterId::RemoveRed:
    case FilterId::RemoveGreen:
    case FilterId::RemoveBlue:
    case FilterId::ColorKey:
    case FilterId::ColorReplace:
    case FilterId::Equalize:
        return true;
    default:
        return false;
    }
}

// Identifiers that read an untouched copy but have a form that needs none
// (it keeps the few source rows it still needs) and cannot fail once it has
// started writing: on a packed 32-bit ARGB image that form runs in the
// image's rows, with no copy in or out.
FilterFunction InPlaceForm(std::int32_t id) {
    switch (static_cast<FilterId>(id)) {
    case FilterId::Dilate:
        return FilterDilateInPlace;
    case FilterId::Erode:
        return FilterErodeInPlace;
    case FilterId::Despeckle:
        return FilterDespeckleInPlace;
    default:
        return nullptr;
    }
}

bool IsYesNoStatistic(std::int32_t id) {
    const auto f = static_cast<FilterId>(id);
    return f == FilterId::IsGrayscale || f == FilterId::IsBlank || f == FilterId::IsBitonal;
}
bool IsNumberStatistic(std::int32_t id) {
    const auto f = static_cast<FilterId>(id);
    return f == FilterId::CountColor || f == FilterId::MarkTransparent ||
           f == FilterId::AverageColor;
}

thread_local std::uint32_t tRandomState = 0x2545F491u;

// Pixels in one row band of the banded frame (4 MB of 32-bit pixels).
constexpr std::size_t kDefaultBandPixels = std::size_t(1) << 20;
thread_local std::size_t tBandPixels = kDefaultBandPixels;

// The identifiers whose result for a pixel depends on that pixel alone (and
// on its row modulo 4 for the ordered dither), that gather no statistic over
// the zone and cannot fail once they have started writing: the frame runs them
// band by band, so the result is the same as over the whole zone at once.
bool RunsInBands(std::int32_t id) {
    switch (static_cast<FilterId>(id)) {
    case FilterId::Negative:
    case FilterId::Grayscale:
    case FilterId::Brightness:
    case FilterId::SwapChannels:
    case FilterId::Threshold:
    case FilterId::OrderedDither:
    case FilterId::Gamma:
    case FilterId::Transparency:
    case FilterId::AdjustRGB:
    case FilterId::KeepRed:
    case FilterId::KeepGreen:
    case FilterId::KeepBlue:
    case FilterId::RemoveRed:
    case FilterId::RemoveGreen:
    case FilterId::RemoveBlue:
    case FilterId::ColorKey:
    case FilterId::ColorReplace:
        return true;
    default:
        return false;
    }
}

// The per-thread pool behind FilterPixels: at most two blocks are kept (the
// frame's work and source buffers), and only blocks up to one default row
// band; a larger block goes back to the system at once, so a thread keeps no
// more than a few MB between runs however large the image was.
constexpr std::size_t kPoolBlockMax = kDefaultBandPixels;

class PixelPool {
  public:
    ~PixelPool() {
        for (Block& b : blocks_)
            delete[] b.p;
    }
    std::uint32_t* Take(std::size_t n, std::size_t& cap) {
        int best = -1;
        for (int i = 0; i < 2; ++i)
            if (blocks_[i].p && blocks_[i].cap >= n &&
                (best < 0 || blocks_[i].cap < blocks_[best].cap))
                best = i;
        if (best >= 0) {
            const Block b = blocks_[best];
            blocks_[best] = Block{};
            cap = b.cap;
            return b.p;
        }
        cap = n;
        if (n > kPoolBlockMax) {
            // Mapped directly, so that giving it back returns it to the system
            // whatever the allocator's thresholds.
            void* m = mmap(nullptr, n * sizeof(std::uint32_t), PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (m == MAP_FAILED) throw std::bad_alloc();
            return static_cast<std::uint32_t*>(m);
        }
        return new std::uint32_t[n]; // left uninitialised: every user overwrites it
    }
    void Give(std::uint32_t* p, std::size_t cap) {
        if (cap > kPoolBlockMax) {
            munmap(p, cap * sizeof(std::uint32_t));
            return;
        }
        int slot = !blocks_[0].p ? 0 : (!blocks_[1].p ? 1 : -1);
        if (slot < 0) {
            slot = blocks_[0].cap <= blocks_[1].cap ? 0 : 1;
            if (blocks_[slot].cap >= cap) {
                delete[] p;
                return;
            }
            delete[] blocks_[slot].p;
        }
        blocks_[slot] = Block{p, cap};
    }

  private:
    struct Block {
        std::uint32_t* p = nullptr;
        std::size_t cap = 0;
    };
    Block blocks_[2];
};

thread_local PixelPool tPixelPool;

// A lock on a zone of an image, in 32-bit ARGB, held while the image's rows
// are lent to a filter; given back at the latest when it goes out of scope,
// so a filter that throws leaves no lock behind.
class HeldLock {
  public:
    explicit HeldLock(std::int32_t nImage) : image_(nImage) {}
    ~HeldLock() { Unlock(); }
    HeldLock(const HeldLock&) = delete;
    HeldLock& operator=(const HeldLock&) = delete;
    KestrelynStatus Lock(const FilterZone& z, UINT nMode) {
        GpRect rect{z.Left, z.Top, z.Width, z.Height};
        PixelFormat fmt = kFormatARGB;
        const KestrelynStatus st = LockBits(image_, rect, nMode, fmt, data_);
        bLocked_ = st == OK;
        return st;
    }
    // True when the locked rows lie packed one after the other.
    bool Packed(const FilterZone& z) const { return data_.Stride == 4 * z.Width || z.Height == 1; }
    // Locks the zone for reading; true when the lock is held and its rows are
    // packed. A lock whose rows are not packed is given back at once.
    bool LockPacked(const FilterZone& z) {
        if (Lock(z, 1) != OK) return false;
        if (data_.Scan0 && Packed(z)) return true;
        Unlock();
        return false;
    }
    std::uint32_t* Pixels() const { return static_cast<std::uint32_t*>(data_.Scan0); }
    KestrelynStatus Unlock() {
        if (!bLocked_) return OK;
        bLocked_ = false;
        return UnlockBits(image_, data_);
    }

  private:
    std::int32_t image_;
    BitmapData data_{};
    bool bLocked_ = false;
};

// Locks a rectangle into (flag 5) or out of (flag 6) a caller's buffer.
KestrelynStatus Transfer(std::int32_t nImage, const FilterZone& z, UINT nFlags, PixelFormat nFormat,
                         void* pBuffer, INT nStride) {
    GpRect rect{z.Left, z.Top, z.Width, z.Height};
    BitmapData data;
    data.Width = static_cast<UINT>(z.Width);
    data.Height = static_cast<UINT>(z.Height);
    data.Stride = nStride;
    data.PixelFormat = nFormat;
    data.Scan0 = pBuffer;
    PixelFormat fmt = nFormat;
    KestrelynStatus st = LockBits(nImage, rect, nFlags, fmt, data);
    if (st != OK) return st;
    return UnlockBits(nImage, data);
}

// Complements every byte of the zone's 1-bit rows, padding included.
KestrelynStatus NegateBits(std::int32_t nImage, const FilterZone& z) {
    const INT stride = ((z.Width + 31) / 32) * 4;
    std::vector<std::uint8_t> bits(static_cast<std::size_t>(stride) * z.Height);
    KestrelynStatus st = Transfer(nImage, z, 5, kFormat1bpp, bits.data(), stride);
    if (st != OK) return st;
    for (std::uint8_t& b : bits)
        b = static_cast<std::uint8_t>(~b);
    return Transfer(nImage, z, 6, kFormat1bpp, bits.data(), stride);
}

std::vector<ARGB> ReadPalette(GpImage* img, UINT& nFlags) {
    INT size = 0;
    nFlags = 0;
    if (GdipGetImagePaletteSize(img, &size) != OK || size < static_cast<INT>(2 * sizeof(UINT)))
        return {};
    std::vector<std::uint8_t> raw(static_cast<std::size_t>(size) + sizeof(ARGB));
    auto* pal = reinterpret_cast<ColorPalette*>(raw.data());
    if (GdipGetImagePalette(img, pal, size) != OK) return {};
    nFlags = pal->Flags;
    return std::vector<ARGB>(pal->Entries, pal->Entries + pal->Count);
}

KestrelynStatus WritePalette(GpImage* img, UINT nFlags, const std::vector<ARGB>& entries) {
    std::vector<std::uint8_t> raw(sizeof(ColorPalette) + entries.size() * sizeof(ARGB));
    auto* pal = reinterpret_cast<ColorPalette*>(raw.data());
    pal->Flags = nFlags;
    pal->Count = static_cast<UINT>(entries.size());
    if (!entries.empty()) std::memcpy(pal->Entries, entries.data(), entries.size() * sizeof(ARGB));
    return GdipSetImagePalette(img, pal);
}

// Nearest palette entry by the sum of squared channel differences; the lowest
// index wins a tie and a distance of 0 ends the search.
std::uint8_t NearestEntry(std::uint32_t px, const std::vector<ARGB>& pal, const std::int32_t* sq) {
    std::int32_t best = 2147483647;
    std::uint8_t idx = 0;
    const std::int32_t b = px & 0xFF, g = (px >> 8) & 0xFF, r = (px >> 16) & 0xFF;
    for (std::size_t i = 0; i < pal.size() && i < 256; ++i) {
        const ARGB e = pal[i];
        const std::int32_t d = sq[std::abs(b - static_cast<std::int32_t>(e & 0xFF))] +
                               sq[std::abs(g - static_cast<std::int32_t>((e >> 8) & 0xFF))] +
                               sq[std::abs(r - static_cast<std::int32_t>((e >> 16) & 0xFF))];
        if (d < best) {
            best = d;
            idx = static_cast<std::uint8_t>(i);
            if (d == 0) break;
        }
    }
    return idx;
}

// Stores a zone's filtered 32-bit pixels back in the image's own format: 1-bit
// by the blue byte, 8-bit indexed by the gray level or the nearest entry.
KestrelynStatus StoreZone(std::int32_t Image, const FilterZone& Zone, PixelFormat format,
                          const std::vector<ARGB>& palette, bool bPaletteIsGray,
                          const std::uint32_t* pixels) {
    if (format == kFormat1bpp) {
        const INT stride = ((Zone.Width + 31) / 32) * 4;
        std::vector<std::uint8_t> bits(static_cast<std::size_t>(stride) * Zone.Height, 0);
        for (std::int32_t y = 0; y < Zone.Height; ++y) {
            const std::uint32_t* row = pixels + static_cast<std::size_t>(y) * Zone.Width;
            std::uint8_t* out = bits.data() + static_cast<std::size_t>(y) * stride;
            for (std::int32_t x = 0; x < Zone.Width; ++x)
                if ((row[x] & 0xFF) == 255)
                    out[x >> 3] |= static_cast<std::uint8_t>(0x80u >> (x & 7));
        }
        return Transfer(Image, Zone, 6, kFormat1bpp, bits.data(), stride);
    }
    if (format == kFormat8bpp) {
        const INT stride = (Zone.Width + 3) & ~3;
        std::vector<std::uint8_t> bytes(static_cast<std::size_t>(stride) * Zone.Height, 0);
        std::int32_t sq[256];
        for (int i = 0; i < 256; ++i)
            sq[i] = i * i;
        for (std::int32_t y = 0; y < Zone.Height; ++y) {
            const std::uint32_t* row = pixels + static_cast<std::size_t>(y) * Zone.Width;
            std::uint8_t* out = bytes.data() + static_cast<std::size_t>(y) * stride;
            if (bPaletteIsGray) {
                for (std::int32_t x = 0; x < Zone.Width; ++x)
                    out[x] = static_cast<std::uint8_t>(row[x] & 0xFF);
            } else {
                std::uint32_t lastPx = 0;
                std::uint8_t lastIdx = 0;
                bool bHave = false;
                for (std::int32_t x = 0; x < Zone.Width; ++x) {
                    const std::uint32_t px = row[x] & 0x00FFFFFFu;
                    if (!bHave || px != lastPx) {
                        lastIdx = NearestEntry(px, palette, sq);
                        lastPx = px;
                        bHave = true;
                    }
                    out[x] = lastIdx;
                }
            }
        }
        return Transfer(Image, Zone, 6, kFormat8bpp, bytes.data(), stride);
    }
    return Transfer(Image, Zone, 6, kFormatARGB, const_cast<std::uint32_t*>(pixels),
                    4 * Zone.Width);
}

KestrelynStatus RunFrame(std::int32_t id, std::int32_t Image, const FilterZone& Zone,
                         FilterContext& ctx, bool& bAnswered) {
    // 1. Zone and full image size.
    ctx.ZoneWidth = Zone.Width;
    ctx.ZoneHeight = Zone.Height;
    GpImage* img = ResolveGdiPlusImage(Image);
    UINT w = 0, h = 0;
    KestrelynStatus st = GdipGetImageWidth(img, &w);
    if (st != OK) return st;
    st = GdipGetImageHeight(img, &h);
    if (st != OK) return st;
    ctx.ImageWidth = static_cast<std::int32_t>(w);
    ctx.ImageHeight = static_cast<std::int32_t>(h);
    ctx.bZoneCoversImage = ctx.ImageHeight <= ctx.ZoneHeight && ctx.ImageWidth <= ctx.ZoneWidth;
    // 2. An empty zone runs nothing.
    if (ctx.ZoneWidth <= 0 || ctx.ZoneHeight <= 0) return OK;
    // A rectangle reaching outside the image is a failure of the filter.
    if (Zone.Left < 0 || Zone.Top < 0 ||
        static_cast<std::int64_t>(Zone.Left) + Zone.Width > ctx.ImageWidth ||
        static_cast<std::int64_t>(Zone.Top) + Zone.Height > ctx.ImageHeight)
        return GenericError;
    // 3-5. Format and palette mode.
    PixelFormat format = 0;
    st = GdipGetImagePixelFormat(img, &format);
    if (st != OK) return st;
    const bool bIndexed = IsIndexedPixelFormat(format);
    bool bPaletteMode = false, bPaletteIsGray = false;
    std::vector<ARGB> palette;
    UINT paletteFlags = 0;
    if (bIndexed) {
        if (id == FilterNumber(FilterId::Negative) && format == kFormat1bpp)
            return NegateBits(Image, Zone);
        palette = ReadPalette(img, paletteFlags);
        bPaletteIsGray = true;
        for (ARGB e : palette)
            if ((e & 0xFF) != ((e >> 8) & 0xFF) || (e & 0xFF) != ((e >> 16) & 0xFF)) {
                bPaletteIsGray = false;
                break;
            }
        if ((id == FilterNumber(FilterId::Negative) || id == FilterNumber(FilterId::Brightness)) &&
            format != kFormat1bpp && !bPaletteIsGray)
            bPaletteMode = true;
    }
    const std::size_t count =
        static_cast<std::size_t>(ctx.ZoneWidth) * static_cast<std::size_t>(ctx.ZoneHeight);
    const FilterFunction fn = FindFilterFunction(id);

    if (bPaletteMode) {
        // 7-8. The palette takes the filter; the indices stay.
        GpRect rect{Zone.Left, Zone.Top, Zone.Width, Zone.Height};
        BitmapData data;
        PixelFormat fmt = format;
        st = LockBits(Image, rect, 1, fmt, data);
        if (st != OK) return st;
        st = UnlockBits(Image, data);
        if (st != OK) return st;
        std::uint8_t T[256];
        if (id == FilterNumber(FilterId::Negative))
            BuildNegativeTable(T);
        else
            BuildBrightnessTable(RoundI(ctx.Param1), T);
        for (ARGB& e : palette)
            e = (e & 0xFF000000u) | (std::uint32_t(T[(e >> 16) & 0xFF]) << 16) |
                (std::uint32_t(T[(e >> 8) & 0xFF]) << 8) | T[e & 0xFF];
        st = WritePalette(img, paletteFlags, palette);
        if (st != OK) return st;
        fmt = format;
        st = LockBits(Image, rect, 2, fmt, data);
        if (st != OK) return st;
        st = UnlockBits(Image, data);
        if (st == OK) MarkImageModified(Image);
        return st;
    }

    // A function that may run in the image's rows does so when they are
    // 32-bit ARGB and packed: no copy in, none out.
    const FilterFunction inPlace = InPlaceForm(id);
    if (fn && (RunsInImage(id) || inPlace) && format == kFormatARGB) {
        bool bPacked = false;
        {
            HeldLock probe(Image);
            bPacked = probe.LockPacked(Zone);
            st = probe.Unlock();
            if (st != OK) return st;
        }
        if (bPacked) {
            HeldLock rows(Image);
            st = rows.Lock(Zone, 3);
            if (st != OK) return st;
            if (rows.Packed(Zone)) {
                ctx.WorkPixels.Borrow(rows.Pixels(), count);
                ctx.PixelIndex = 0;
                (inPlace ? inPlace : fn)(ctx);
                bAnswered = true;
                ctx.WorkPixels.Release();
                return rows.Unlock();
            }
            st = rows.Unlock();
            if (st != OK) return st;
        }
    }

    // A function of one pixel at a time runs band by band: one band's 32-bit
    // copy at a time instead of the whole zone's.
    if (fn && RunsInBands(id)) {
        const std::int32_t nBand = FilterBandRows(Zone.Width);
        if (nBand < Zone.Height) {
            for (std::int32_t top = 0; top < Zone.Height; top += nBand) {
                FilterZone band = Zone;
                band.Top = Zone.Top + top;
                band.Height = std::min(nBand, Zone.Height - top);
                const std::size_t n = static_cast<std::size_t>(Zone.Width) * band.Height;
                ctx.WorkPixels.ResizeForOverwrite(n);
                st = Transfer(Image, band, 5, kFormatARGB, ctx.WorkPixels.data(), 4 * Zone.Width);
                if (st != OK) return st;
                ctx.ZoneHeight = band.Height;
                ctx.PixelIndex = 0;
                fn(ctx);
                ctx.ZoneHeight = Zone.Height;
                st = StoreZone(Image, band, format, palette, bPaletteIsGray, ctx.WorkPixels.data());
                if (st != OK) return st;
            }
            bAnswered = true;
            return OK;
        }
    }

    // 6-7. Working buffers. An identifier that reads a copy gets the zone as
    // SourcePixels (the image's own rows when they are 32-bit ARGB and packed,
    // so nothing is copied); WorkPixels then only needs what its function
    // leaves alone.
    HeldLock sourceLock(Image);
    ctx.WorkPixels.ResizeForOverwrite(count);
    if (fn && FilterReadsSource(id)) {
        if (format == kFormatARGB && sourceLock.LockPacked(Zone)) {
            ctx.SourcePixels.Borrow(sourceLock.Pixels(), count);
        } else {
            ctx.SourcePixels.ResizeForOverwrite(count);
            st = Transfer(Image, Zone, 5, kFormatARGB, ctx.SourcePixels.data(), 4 * Zone.Width);
            if (st != OK) return st;
        }
        PrepareWorkFromSource(id, ctx);
    } else {
        st = Transfer(Image, Zone, 5, kFormatARGB, ctx.WorkPixels.data(), 4 * Zone.Width);
        if (st != OK) return st;
    }

    // 9. The filter.
    ctx.PixelIndex = 0;
    if (fn) fn(ctx);
    bAnswered = fn != nullptr;
    ctx.SourcePixels.Release();
    st = sourceLock.Unlock();
    if (st != OK) return st;

    // 10-11. Back into the image.
    if (IsYesNoStatistic(id)) return OK;
    return StoreZone(Image, Zone, format, palette, bPaletteIsGray, ctx.WorkPixels.data());
}

} // namespace

FilterPixels::FilterPixels(const std::vector<std::uint32_t>& v) {
    ResizeForOverwrite(v.size());
    if (!v.empty()) std::memcpy(p_, v.data(), v.size() * sizeof(std::uint32_t));
}

FilterPixels::FilterPixels(const FilterPixels& other) {
    ResizeForOverwrite(other.n_);
    if (other.n_) std::memcpy(p_, other.p_, other.n_ * sizeof(std::uint32_t));
}

FilterPixels::FilterPixels(FilterPixels&& other) noexcept
    : p_(other.p_), n_(other.n_), cap_(other.cap_), owned_(other.owned_) {
    other.p_ = nullptr;
    other.n_ = other.cap_ = 0;
    other.owned_ = false;
}

FilterPixels& FilterPixels::operator=(const FilterPixels& other) {
    if (this != &other) {
        ResizeForOverwrite(other.n_);
        if (other.n_) std::memcpy(p_, other.p_, other.n_ * sizeof(std::uint32_t));
    }
    return *this;
}

FilterPixels& FilterPixels::operator=(FilterPixels&& other) noexcept {
    if (this != &other) {
        Release();
        p_ = other.p_;
        n_ = other.n_;
        cap_ = other.cap_;
        owned_ = other.owned_;
        other.p_ = nullptr;
        other.n_ = other.cap_ = 0;
        other.owned_ = false;
    }
    return *this;
}

FilterPixels::~FilterPixels() {
    Release();
}

void FilterPixels::ResizeForOverwrite(std::size_t n) {
    if (owned_ && cap_ >= n) {
        n_ = n;
        return;
    }
    Release();
    if (n == 0) return;
    p_ = tPixelPool.Take(n, cap_);
    n_ = n;
    owned_ = true;
}

void FilterPixels::Borrow(const std::uint32_t* p, std::size_t n) {
    Release();
    // Borrowed pixels are only read; the pointer is non-const so that owned
    // and borrowed runs share one type.
    p_ = const_cast<std::uint32_t*>(p);
    n_ = n;
}

void FilterPixels::Release() {
    if (owned_ && p_) tPixelPool.Give(p_, cap_);
    p_ = nullptr;
    n_ = cap_ = 0;
    owned_ = false;
}

FilterContext FilterContext::Over(std::vector<std::uint32_t> pixels, std::int32_t nWidth,
                                  std::int32_t nHeight) {
    FilterContext ctx;
    ctx.WorkPixels = FilterPixels(pixels);
    ctx.ZoneWidth = nWidth;
    ctx.ZoneHeight = nHeight;
    ctx.ImageWidth = nWidth;
    ctx.ImageHeight = nHeight;
    ctx.bZoneCoversImage = true;
    return ctx;
}

FilterFunction FindFilterFunction(std::int32_t nFilterId) {
    if (nFilterId < 1 || nFilterId > 70) return nullptr;
    return kFilterTable[nFilterId].fn;
}

bool FilterReadsSource(std::int32_t nFilterId) {
    if (nFilterId < 1 || nFilterId > 70) return false;
    return kFilterTable[nFilterId].bReadsSource;
}

std::int32_t FilterSourceBorder(std::int32_t nFilterId) {
    if (nFilterId < 1 || nFilterId > 70 || !kFilterTable[nFilterId].bReadsSource ||
        !kFilterTable[nFilterId].fn)
        return -1;
    return kFilterTable[nFilterId].nBorder;
}

void PrepareWorkFromSource(std::int32_t nFilterId, FilterContext& ctx) {
    const std::int32_t r = FilterSourceBorder(nFilterId);
    const std::int32_t W = ctx.ZoneWidth, H = ctx.ZoneHeight;
    const std::uint32_t* s = ctx.SourcePixels.data();
    std::uint32_t* w = ctx.WorkPixels.data();
    const std::size_t n = ctx.WorkPixels.size();
    if (r < 0 || W < 2 * r + 1 || H < 2 * r + 1) {
        if (n) std::memcpy(w, s, n * sizeof(std::uint32_t));
        return;
    }
    if (r == 0) return;
    const std::size_t rowBytes = static_cast<std::size_t>(W) * sizeof(std::uint32_t);
    const std::size_t edge = static_cast<std::size_t>(r) * sizeof(std::uint32_t);
    std::memcpy(w, s, rowBytes * r);
    const std::size_t tail = static_cast<std::size_t>(H - r) * W;
    std::memcpy(w + tail, s + tail, rowBytes * r);
    for (std::int32_t y = r; y < H - r; ++y) {
        const std::size_t row = static_cast<std::size_t>(y) * W;
        std::memcpy(w + row, s + row, edge);
        std::memcpy(w + row + W - r, s + row + W - r, edge);
    }
}

void ApplyFilter(FilterId nFilter, FilterContext& ctx) {
    const std::int32_t id = FilterNumber(nFilter);
    if (FilterReadsSource(id)) ctx.SourcePixels = ctx.WorkPixels;
    ctx.PixelIndex = 0;
    if (FilterFunction fn = FindFilterFunction(id)) fn(ctx);
}

namespace {
int DetectVectors() {
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx2"))
        return kVectorsAvx512;
    return __builtin_cpu_supports("avx2") ? kVectorsAvx2 : kVectorsSse2;
}
thread_local int tVectorLimit = kVectorsAvx512;
} // namespace

int FilterVectorLevel() {
    static const int detected = DetectVectors();
    return detected < tVectorLimit ? detected : tVectorLimit;
}

void LimitFilterVectors(int nLevel) {
    tVectorLimit = nLevel;
}

void SetFilterBandPixels(std::size_t nPixels) {
    tBandPixels = nPixels == 0 ? kDefaultBandPixels : nPixels;
}

std::int32_t FilterBandRows(std::int32_t nZoneWidth) {
    if (nZoneWidth < 1) return 4;
    const std::size_t rows = tBandPixels / static_cast<std::size_t>(nZoneWidth);
    if (rows >= 0x40000000u) return 0x40000000;
    // A multiple of 4 rows keeps the ordered dither's row phase.
    return std::max<std::int32_t>(4, static_cast<std::int32_t>(rows) & ~3);
}

void SeedFilterRandom(std::uint32_t nSeed) {
    tRandomState = nSeed;
}

float NextFilterRandom() {
    tRandomState = tRandomState * 1664525u + 1013904223u;
    return static_cast<float>(tRandomState >> 8) / 16777216.0f;
}

KestrelynStatus RunFilter(FilterId nFilter, std::int32_t nImageID, const FilterZone& oZone,
                          const FilterParams& oParams, FilterResult* pResult) {
    const std::int32_t id = FilterNumber(nFilter);
    FilterContext ctx;
    ctx.Param1 = oParams.Param1;
    ctx.Param2 = oParams.Param2;
    ctx.Param3 = oParams.Param3;
    ctx.Param4 = oParams.Param4;
    ctx.Hue = oParams.Hue;
    ctx.Saturation = oParams.Saturation;
    ctx.Luminosity = oParams.Luminosity;
    ctx.MatrixIn = oParams.MatrixIn;
    ctx.MatrixOut = oParams.MatrixOut;
    bool bAnswered = false;
    const KestrelynStatus st = RunFrame(id, nImageID, oZone, ctx, bAnswered);
    // 13. Statistics.
    if (pResult && bAnswered) {
        if (IsYesNoStatistic(id) && st == OK && ctx.bAnswer) pResult->Value = 1.0;
        if (IsNumberStatistic(id)) pResult->Value = ctx.Result;
    }
    return st;
}

} // namespace kestrelyn
