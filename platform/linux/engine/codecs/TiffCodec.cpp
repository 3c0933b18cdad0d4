// TIFF through libtiff, read and written in memory (TIFFClientOpen).
//
// Decoding, per page:
//   bilevel (min-is-white or min-is-black)  -> 1bppIndexed, palette black, white
//   palette 1/2/4/8 bits                     -> 1/4/4/8bppIndexed
//   grey 4/8 bits                            -> 8bppIndexed with a grey ramp
//   grey 16 bits                             -> 48bppRGB (precision kept)
//   grey + alpha 8 bits                      -> 32bppARGB
//   RGB 8 / 16 bits                          -> 24bppRGB / 48bppRGB
//   RGBA 8 / 16 bits                         -> 32bppARGB (PARGB if associated) / 64bppARGB
//   JPEG-compressed YCbCr                    -> 24bppRGB (libjpeg's colour conversion)
//   anything else (CMYK, YCbCr, Lab, planar, odd depths) -> libtiff's RGBA reader,
//     24bppRGB or 32bppARGB when the file has alpha.
// Every tag of the page's IFD (and its EXIF/GPS IFDs) becomes a property item,
// tag number as id, in file order. Resolution in centimetres is converted to
// dots per inch. Files of several pages become a frame source (frame
// dimension "page"): one read from a file keeps that file open and reads each
// page from it when the page is selected, with the tags of every page taken
// from the bytes at open; one read from memory keeps the bytes.
//
// Encoding: LZW by default; CCITT3, CCITT4 and CCITT RLE for bilevel images
// (deeper images fall back to LZW); None. Indexed images keep their palette,
// 48/64-bit images their 16-bit samples. ColorDepth 1/4/8/24/32/48/64 converts
// through the engine first. A multi-frame save (SaveFlag MultiFrame) stays
// open for GdipSaveAddImage until GdipSaveAdd with Flush. Property items are
// written back as tags (WriteProperties).
#include <fcntl.h>
#include <sys/stat.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/SafeFile.h"
#include "platform/linux/engine/codecs/CodecCommon.h"
#include "platform/linux/engine/codecs/TiffCodec.h"

namespace kestrelyn::codecs {

namespace {

// ------------------------------------------------------------ memory I/O
struct MemFile {
    SharedBytes source;    // reading
    Bytes* sink = nullptr; // writing
    std::uint64_t pos = 0;
    std::size_t Size() const { return sink ? sink->size() : source->size(); }
    const std::uint8_t* Data() const { return sink ? sink->data() : source->data(); }
};

tmsize_t MemRead(thandle_t h, void* buf, tmsize_t n) {
    auto* m = static_cast<MemFile*>(h);
    if (n <= 0 || m->pos >= m->Size()) return 0;
    std::size_t k =
        std::min(static_cast<std::size_t>(n), m->Size() - static_cast<std::size_t>(m->pos));
    std::memcpy(buf, m->Data() + m->pos, k);
    m->pos += k;
    return static_cast<tmsize_t>(k);
}
tmsize_t MemWrite(thandle_t h, void* buf, tmsize_t n) {
    auto* m = static_cast<MemFile*>(h);
    if (!m->sink || n < 0) return -1;
    std::size_t end = static_cast<std::size_t>(m->pos) + static_cast<std::size_t>(n);
    try {
        if (end > m->sink->size()) m->sink->resize(end);
    } catch (...) {
        return -1;
    }
    std::memcpy(m->sink->data() + m->pos, buf, static_cast<std::size_t>(n));
    m->pos = end;
    return n;
}
toff_t MemSeek(thandle_t h, toff_t off, int whence) {
    auto* m = static_cast<MemFile*>(h);
    std::uint64_t base = whence == SEEK_CUR ? m->pos : whence == SEEK_END ? m->Size() : 0;
    std::uint64_t p = base + off;
    if (p > (std::uint64_t{1} << 40)) return static_cast<toff_t>(-1);
    m->pos = p;
    return p;
}
int MemClose(thandle_t) {
    return 0;
}
toff_t MemSize(thandle_t h) {
    return static_cast<MemFile*>(h)->Size();
}
// A file being read is mapped onto its bytes: libtiff then takes uncompressed
// strips from there instead of copying them out through MemRead first.
int MemMap(thandle_t h, void** base, toff_t* size) {
    auto* m = static_cast<MemFile*>(h);
    if (m->sink || !m->source || m->source->empty()) return 0;
    *base = const_cast<std::uint8_t*>(m->source->data());
    *size = static_cast<toff_t>(m->source->size());
    return 1;
}
void MemUnmap(thandle_t, void*, toff_t) {}

// ------------------------------------------------------------ file I/O
// An open file read at explicit offsets: the descriptor is the document's,
// closed with it.
struct DiskFile {
    int fd = -1;
    std::uint64_t pos = 0;
    DiskFile() = default;
    DiskFile(const DiskFile&) = delete;
    DiskFile& operator=(const DiskFile&) = delete;
    ~DiskFile() {
        if (fd >= 0) ::close(fd);
    }
};

tmsize_t DiskRead(thandle_t h, void* buf, tmsize_t n) {
    auto* f = static_cast<DiskFile*>(h);
    if (n <= 0) return 0;
    auto* out = static_cast<std::uint8_t*>(buf);
    const auto want = static_cast<std::size_t>(n);
    std::size_t done = 0;
    while (done < want) {
        const ssize_t k =
            ::pread(f->fd, out + done, want - done, static_cast<off_t>(f->pos + done));
        if (k < 0 && errno == EINTR) continue;
        if (k < 0) return -1;
        if (k == 0) break; // the file ends (or was cut short since the open)
        done += static_cast<std::size_t>(k);
    }
    f->pos += done;
    return static_cast<tmsize_t>(done);
}
tmsize_t DiskWrite(thandle_t, void*, tmsize_t) {
    return -1;
}
toff_t DiskSize(thandle_t h) {
    struct stat st {};
    if (::fstat(static_cast<DiskFile*>(h)->fd, &st) != 0 || st.st_size < 0) return 0;
    return static_cast<toff_t>(st.st_size);
}
toff_t DiskSeek(thandle_t h, toff_t off, int whence) {
    auto* f = static_cast<DiskFile*>(h);
    std::uint64_t base = whence == SEEK_CUR ? f->pos : whence == SEEK_END ? DiskSize(h) : 0;
    std::uint64_t p = base + off;
    if (p > (std::uint64_t{1} << 40)) return static_cast<toff_t>(-1);
    f->pos = p;
    return p;
}
int DiskClose(thandle_t) {
    return 0;
}
// Never mapped: a file cut short by someone else must give a read error, not
// a fault.
int DiskMap(thandle_t, void**, toff_t*) {
    return 0;
}

int Quiet(TIFF*, void*, const char*, const char*, va_list) {
    return 1;
}

TIFF* OpenMem(MemFile* m, const char* mode) {
    TIFFOpenOptions* opts = TIFFOpenOptionsAlloc();
    if (!opts) return nullptr;
    TIFFOpenOptionsSetErrorHandlerExtR(opts, Quiet, nullptr);
    TIFFOpenOptionsSetWarningHandlerExtR(opts, Quiet, nullptr);
    TIFFOpenOptionsSetMaxSingleMemAlloc(opts, static_cast<tmsize_t>(kMaxPixelBytes));
    TIFF* t = TIFFClientOpenExt("memory", mode, m, MemRead, MemWrite, MemSeek, MemClose, MemSize,
                                MemMap, MemUnmap, opts);
    TIFFOpenOptionsFree(opts);
    return t;
}

TIFF* OpenDisk(DiskFile* f) {
    TIFFOpenOptions* opts = TIFFOpenOptionsAlloc();
    if (!opts) return nullptr;
    TIFFOpenOptionsSetErrorHandlerExtR(opts, Quiet, nullptr);
    TIFFOpenOptionsSetWarningHandlerExtR(opts, Quiet, nullptr);
    TIFFOpenOptionsSetMaxSingleMemAlloc(opts, static_cast<tmsize_t>(kMaxPixelBytes));
    TIFF* t = TIFFClientOpenExt("file", "r", f, DiskRead, DiskWrite, DiskSeek, DiskClose, DiskSize,
                                DiskMap, MemUnmap, opts);
    TIFFOpenOptionsFree(opts);
    return t;
}

// A file written in place by libtiff.
TIFF* OpenPath(const std::string& path) {
    TIFFOpenOptions* opts = TIFFOpenOptionsAlloc();
    if (!opts) return nullptr;
    TIFFOpenOptionsSetErrorHandlerExtR(opts, Quiet, nullptr);
    TIFFOpenOptionsSetWarningHandlerExtR(opts, Quiet, nullptr);
    TIFF* t = TIFFOpenExt(path.c_str(), "w", opts);
    TIFFOpenOptionsFree(opts);
    return t;
}

// ------------------------------------------------------------ decoding
// A document: read from memory (`file`), or from a file it keeps open
// (`disk`, with the tags of each page read at open in `pageProperties`).
struct TiffDoc {
    MemFile file;
    DiskFile disk;
    TIFF* tif = nullptr;
    UINT pages = 0;
    std::vector<std::vector<engine::PropertyRecord>> pageProperties;
    ~TiffDoc() {
        if (tif) TIFFClose(tif);
    }
};

// Reads the page's samples (planar contiguous) and hands each row to
// `sink(y, samples)`. Strips go one at a time through a strip-sized buffer, so
// the rows reach the sink while they are still in the cache; tiles are put
// together into the whole picture first.
template <typename Sink>
GpStatus ReadSamples(TIFF* tif, std::uint32_t w, std::uint32_t h, Sink&& sink) {
    const std::size_t rowBytes = static_cast<std::size_t>(TIFFScanlineSize64(tif));
    if (rowBytes == 0) return UnknownImageFormat;
    if (TIFFIsTiled(tif)) {
        std::vector<std::uint8_t> out(rowBytes * h, 0);
        std::uint32_t tw = 0, th = 0;
        TIFFGetField(tif, TIFFTAG_TILEWIDTH, &tw);
        TIFFGetField(tif, TIFFTAG_TILELENGTH, &th);
        std::size_t tileRow = static_cast<std::size_t>(TIFFTileRowSize64(tif));
        std::vector<std::uint8_t> tile(static_cast<std::size_t>(TIFFTileSize64(tif)));
        if (tw == 0 || th == 0 || tile.empty()) return UnknownImageFormat;
        std::size_t bitsPerPixel = tileRow * 8 / tw;
        for (std::uint32_t ty = 0; ty < h; ty += th)
            for (std::uint32_t tx = 0; tx < w; tx += tw) {
                if (TIFFReadTile(tif, tile.data(), tx, ty, 0, 0) < 0) return UnknownImageFormat;
                std::uint32_t cols = std::min(tw, w - tx);
                std::size_t startBit = tx * bitsPerPixel;
                std::size_t nbits = cols * bitsPerPixel;
                for (std::uint32_t r = 0; r < th && ty + r < h; ++r) {
                    std::uint8_t* dst = out.data() + (ty + r) * rowBytes;
                    const std::uint8_t* src = tile.data() + r * tileRow;
                    if (startBit % 8 == 0 && nbits % 8 == 0) {
                        std::memcpy(dst + startBit / 8, src, nbits / 8);
                    } else {
                        for (std::size_t b = 0; b < nbits; ++b) {
                            int bit = (src[b / 8] >> (7 - b % 8)) & 1;
                            std::size_t d = startBit + b;
                            if (bit) dst[d / 8] |= static_cast<std::uint8_t>(0x80 >> (d % 8));
                        }
                    }
                }
            }
        for (std::uint32_t y = 0; y < h; ++y)
            sink(y, out.data() + y * rowBytes);
        return OK;
    }
    std::uint32_t rps = h;
    TIFFGetFieldDefaulted(tif, TIFFTAG_ROWSPERSTRIP, &rps);
    if (rps == 0 || rps > h) rps = h;
    // A strip of many megabytes (a whole page in one strip, as fax pages are
    // stored) is decoded row by row, so the page never sits in memory twice.
    constexpr std::size_t kLargeStrip = std::size_t{16} << 20;
    std::uint16_t compression = COMPRESSION_NONE;
    TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &compression);
    if (static_cast<std::size_t>(rps) * rowBytes > kLargeStrip && compression != COMPRESSION_JPEG &&
        compression != COMPRESSION_OJPEG) {
        std::vector<std::uint8_t> row(rowBytes, 0);
        std::uint32_t y = 0;
        for (; y < h; ++y) {
            if (TIFFReadScanline(tif, row.data(), y, 0) < 0) break;
            sink(y, row.data());
        }
        if (y == 0) return UnknownImageFormat;
        // Rows after a damaged one stay blank.
        std::fill(row.begin(), row.end(), 0);
        for (; y < h; ++y)
            sink(y, row.data());
        return OK;
    }
    std::uint32_t strips = TIFFNumberOfStrips(tif);
    std::vector<std::uint8_t> strip(static_cast<std::size_t>(rps) * rowBytes);
    std::uint32_t y = 0;
    for (std::uint32_t s = 0; s < strips && y < h; ++s) {
        const std::uint32_t rows = std::min(rps, h - y);
        const std::size_t want = static_cast<std::size_t>(rows) * rowBytes;
        const tmsize_t got =
            TIFFReadEncodedStrip(tif, s, strip.data(), static_cast<tmsize_t>(want));
        if (got < 0) return UnknownImageFormat;
        // A short strip leaves its missing rows blank.
        if (static_cast<std::size_t>(got) < want)
            std::memset(strip.data() + got, 0, want - static_cast<std::size_t>(got));
        for (std::uint32_t r = 0; r < rows; ++r, ++y)
            sink(y, strip.data() + static_cast<std::size_t>(r) * rowBytes);
    }
    // Rows past the last strip stay blank.
    if (y < h) {
        std::fill(strip.begin(), strip.begin() + static_cast<std::ptrdiff_t>(rowBytes), 0);
        for (; y < h; ++y)
            sink(y, strip.data());
    }
    return OK;
}

GpStatus DecodePage(TiffDoc& doc, UINT index, GpImage** out) {
    *out = nullptr;
    TIFF* tif = doc.tif;
    if (!TIFFSetDirectory(tif, static_cast<tdir_t>(index))) return UnknownImageFormat;
    std::uint32_t w = 0, h = 0;
    std::uint16_t bps = 1, spp = 1, photo = 0, planar = 1, compression = 1, sfmt = 1;
    TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &w);
    TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &h);
    TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &bps);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &spp);
    TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &planar);
    TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &compression);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &sfmt);
    if (!TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photo))
        photo = spp >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
    std::uint16_t extraCount = 0;
    std::uint16_t* extra = nullptr;
    TIFFGetField(tif, TIFFTAG_EXTRASAMPLES, &extraCount, &extra);
    bool associated = extraCount > 0 && extra && extra[0] == EXTRASAMPLE_ASSOCALPHA;
    if (w == 0 || h == 0) return UnknownImageFormat;
    if (w > kMaxSide || h > kMaxSide || !DecodeSizeAllowed(w, h)) return OutOfMemory;
    if (photo == PHOTOMETRIC_YCBCR && compression == COMPRESSION_JPEG) {
        TIFFSetField(tif, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
        photo = PHOTOMETRIC_RGB;
    }
    const bool contig = planar == PLANARCONFIG_CONTIG || spp == 1;
    const bool uint = sfmt == SAMPLEFORMAT_UINT;
    const bool grey = photo == PHOTOMETRIC_MINISBLACK || photo == PHOTOMETRIC_MINISWHITE;
    const bool white = photo == PHOTOMETRIC_MINISWHITE;
    PixelFormat fmt = 0;
    enum class Path {
        Bilevel,
        Palette,
        Grey,
        Grey16,
        GreyAlpha,
        Rgb,
        Rgb16,
        Generic
    } path = Path::Generic;
    if (contig && uint) {
        if (grey && spp == 1 && bps == 1)
            path = Path::Bilevel, fmt = PixelFormat1bppIndexed;
        else if (photo == PHOTOMETRIC_PALETTE && spp == 1 &&
                 (bps == 1 || bps == 2 || bps == 4 || bps == 8))
            path = Path::Palette, fmt = bps == 1   ? PixelFormat1bppIndexed
                                        : bps == 8 ? PixelFormat8bppIndexed
                                                   : PixelFormat4bppIndexed;
        else if (grey && spp == 1 && (bps == 4 || bps == 8))
            path = Path::Grey, fmt = PixelFormat8bppIndexed;
        else if (grey && spp == 1 && bps == 16)
            path = Path::Grey16, fmt = PixelFormat48bppRGB;
        else if (grey && spp == 2 && bps == 8)
            path = Path::GreyAlpha, fmt = PixelFormat32bppARGB;
        else if (photo == PHOTOMETRIC_RGB && bps == 8 && (spp == 3 || spp == 4))
            path = Path::Rgb, fmt = spp == 3     ? PixelFormat24bppRGB
                                    : associated ? PixelFormat32bppPARGB
                                                 : PixelFormat32bppARGB;
        else if (photo == PHOTOMETRIC_RGB && bps == 16 && (spp == 3 || spp == 4))
            path = Path::Rgb16, fmt = spp == 3     ? PixelFormat48bppRGB
                                      : associated ? PixelFormat64bpppARGB
                                                   : PixelFormat64bppARGB;
    }
    if (path == Path::Generic) fmt = extraCount > 0 ? PixelFormat32bppARGB : PixelFormat24bppRGB;
    GpImage* raw = nullptr;
    GpStatus st = NewBitmap(w, h, fmt, &raw);
    if (st != OK) return st;
    BitmapHolder img(raw);
    UINT flags = ImageFlagsHasRealPixelSize;
    if (path == Path::Generic) {
        // libtiff's RGBA reader needs the whole picture at 32 bits at once.
        if (static_cast<std::int64_t>(w) * h * 4 > kMaxPixelBytes) return OutOfMemory;
        char msg[1024];
        if (!TIFFRGBAImageOK(tif, msg)) return UnknownImageFormat;
        std::vector<std::uint32_t> rgba(static_cast<std::size_t>(w) * h);
        if (!TIFFReadRGBAImageOriented(tif, w, h, rgba.data(), ORIENTATION_TOPLEFT, 0))
            return UnknownImageFormat;
        for (std::uint32_t y = 0; y < h; ++y) {
            std::uint8_t* d = img->Row(static_cast<INT>(y));
            const std::uint32_t* s = rgba.data() + static_cast<std::size_t>(y) * w;
            for (std::uint32_t x = 0; x < w; ++x) {
                std::uint32_t p = s[x];
                if (extraCount > 0) {
                    d[4 * x] = static_cast<std::uint8_t>(TIFFGetB(p));
                    d[4 * x + 1] = static_cast<std::uint8_t>(TIFFGetG(p));
                    d[4 * x + 2] = static_cast<std::uint8_t>(TIFFGetR(p));
                    d[4 * x + 3] = static_cast<std::uint8_t>(TIFFGetA(p));
                } else {
                    d[3 * x] = static_cast<std::uint8_t>(TIFFGetB(p));
                    d[3 * x + 1] = static_cast<std::uint8_t>(TIFFGetG(p));
                    d[3 * x + 2] = static_cast<std::uint8_t>(TIFFGetR(p));
                }
            }
        }
    } else {
        auto convert = [&](std::uint32_t y, const std::uint8_t* s) {
            std::uint8_t* d = img->Row(static_cast<INT>(y));
            const auto* s16 = reinterpret_cast<const std::uint16_t*>(s);
            auto* d16 = reinterpret_cast<std::uint16_t*>(d);
            switch (path) {
            case Path::Bilevel:
                for (std::size_t i = 0; i < (w + 7) / 8; ++i)
                    d[i] = white ? static_cast<std::uint8_t>(~s[i]) : s[i];
                break;
            case Path::Palette:
                if (bps == 2) {
                    for (std::uint32_t x = 0; x < w; ++x) {
                        int v = (s[x / 4] >> (6 - 2 * (x % 4))) & 3;
                        if (x % 2 == 0)
                            d[x / 2] = static_cast<std::uint8_t>(v << 4);
                        else
                            d[x / 2] |= static_cast<std::uint8_t>(v);
                    }
                } else {
                    std::memcpy(d, s, (static_cast<std::size_t>(w) * bps + 7) / 8);
                }
                break;
            case Path::Grey:
                for (std::uint32_t x = 0; x < w; ++x) {
                    int v = bps == 8 ? s[x] : ((s[x / 2] >> ((x % 2) ? 0 : 4)) & 15) * 17;
                    d[x] = static_cast<std::uint8_t>(white ? 255 - v : v);
                }
                break;
            case Path::Grey16:
                for (std::uint32_t x = 0; x < w; ++x) {
                    std::uint16_t v = white ? static_cast<std::uint16_t>(65535 - s16[x]) : s16[x];
                    d16[3 * x] = d16[3 * x + 1] = d16[3 * x + 2] = v;
                }
                break;
            case Path::GreyAlpha:
                for (std::uint32_t x = 0; x < w; ++x) {
                    std::uint8_t v = white ? static_cast<std::uint8_t>(255 - s[2 * x]) : s[2 * x];
                    d[4 * x] = d[4 * x + 1] = d[4 * x + 2] = v;
                    d[4 * x + 3] = s[2 * x + 1];
                }
                break;
            case Path::Rgb:
                if (spp == 3) {
                    for (std::uint32_t x = 0; x < w; ++x, s += 3, d += 3) {
                        const std::uint8_t r = s[0], g = s[1], b = s[2];
                        d[0] = b;
                        d[1] = g;
                        d[2] = r;
                    }
                    break;
                }
                for (std::uint32_t x = 0; x < w; ++x) {
                    const std::uint8_t* p = s + static_cast<std::size_t>(x) * spp;
                    std::uint8_t* q = d + static_cast<std::size_t>(x) * spp;
                    q[0] = p[2];
                    q[1] = p[1];
                    q[2] = p[0];
                    if (spp == 4) q[3] = p[3];
                }
                break;
            case Path::Rgb16:
                for (std::uint32_t x = 0; x < w; ++x) {
                    const std::uint16_t* p = s16 + static_cast<std::size_t>(x) * spp;
                    std::uint16_t* q = d16 + static_cast<std::size_t>(x) * spp;
                    q[0] = p[2];
                    q[1] = p[1];
                    q[2] = p[0];
                    if (spp == 4) q[3] = p[3];
                }
                break;
            case Path::Generic:
                break;
            }
        };
        if ((st = ReadSamples(tif, w, h, convert)) != OK) return st;
    }
    if (path == Path::Bilevel) {
        if ((st = SetPalette(img.get(), {0xff000000u, 0xffffffffu}, 0)) != OK) return st;
    } else if (path == Path::Palette) {
        std::uint16_t *r = nullptr, *g = nullptr, *b = nullptr;
        std::size_t n = std::size_t{1} << bps;
        std::vector<ARGB> pal;
        if (TIFFGetField(tif, TIFFTAG_COLORMAP, &r, &g, &b) && r && g && b) {
            bool eightBit = true; // some writers store 8-bit values in the 16-bit map
            for (std::size_t i = 0; i < n; ++i)
                if (r[i] > 255 || g[i] > 255 || b[i] > 255) eightBit = false;
            int sh = eightBit ? 0 : 8;
            for (std::size_t i = 0; i < n; ++i)
                pal.push_back(0xff000000u | (static_cast<ARGB>(r[i] >> sh) << 16) |
                              (static_cast<ARGB>(g[i] >> sh) << 8) | static_cast<ARGB>(b[i] >> sh));
        } else {
            pal = GreyRamp(static_cast<int>(n));
        }
        if (bps == 2) pal.resize(16, 0xff000000u);
        if ((st = SetPalette(img.get(), pal, 0)) != OK) return st;
    } else if (path == Path::Grey) {
        if ((st = SetPalette(img.get(), GreyRamp(256), PaletteFlagsGrayScale)) != OK) return st;
    }
    switch (photo) {
    case PHOTOMETRIC_SEPARATED:
        flags |= ImageFlagsColorSpaceCMYK;
        break;
    case PHOTOMETRIC_MINISBLACK:
    case PHOTOMETRIC_MINISWHITE:
        flags |= ImageFlagsColorSpaceGRAY;
        break;
    case PHOTOMETRIC_YCBCR:
        flags |= ImageFlagsColorSpaceYCBCR;
        break;
    default:
        flags |= ImageFlagsColorSpaceRGB;
    }
    if (IsAlphaPixelFormat(fmt)) flags |= ImageFlagsHasAlpha;
    float rx = 0, ry = 0;
    std::uint16_t unit = RESUNIT_INCH;
    TIFFGetFieldDefaulted(tif, TIFFTAG_RESOLUTIONUNIT, &unit);
    if (TIFFGetField(tif, TIFFTAG_XRESOLUTION, &rx) &&
        TIFFGetField(tif, TIFFTAG_YRESOLUTION, &ry) && rx > 0 && ry > 0 && unit != RESUNIT_NONE) {
        float k = unit == RESUNIT_CENTIMETER ? 2.54f : 1.0f;
        GdipBitmapSetResolution(img.get(), rx * k, ry * k);
        flags |= ImageFlagsHasRealDPI;
    }
    if (index < doc.pageProperties.size())
        img->properties = doc.pageProperties[index];
    else
        ReadIfdProperties(img.get(), doc.file.source->data(), doc.file.source->size(),
                          static_cast<std::uint32_t>(TIFFCurrentDirOffset(tif)));
    img->flags = flags;
    img->rawFormat = ImageFormatTIFF;
    *out = img.release();
    return OK;
}

class TiffPages final : public engine::FrameSource {
  public:
    explicit TiffPages(std::unique_ptr<TiffDoc> doc) : doc_(std::move(doc)) {}
    GUID Dimension() const override { return FrameDimensionPage; }
    UINT FrameCount() const override { return doc_->pages; }
    GpStatus DecodeFrame(UINT index, GpImage** frame) override {
        *frame = nullptr;
        if (index >= doc_->pages) return InvalidParameter;
        try {
            return DecodePage(*doc_, index, frame);
        } catch (const std::bad_alloc&) {
            return OutOfMemory;
        }
    }

  private:
    std::unique_ptr<TiffDoc> doc_;
};

} // namespace

namespace {

// A document of several pages as a bitmap showing page 0.
GpStatus AttachPages(std::unique_ptr<TiffDoc> doc, GpImage** out) {
    GpImage* raw = nullptr;
    GpStatus st = NewBitmap(1, 1, PixelFormat32bppARGB, &raw);
    if (st != OK) return st;
    BitmapHolder img(raw);
    img->rawFormat = ImageFormatTIFF;
    if ((st = engine::AttachFrames(*img.get(), std::make_shared<TiffPages>(std::move(doc)))) != OK)
        return st;
    *out = img.release();
    return OK;
}

// The same document read from the file at `path`, which it keeps open; null
// when the file cannot be opened or no longer holds the document read into
// `mem` (the caller then keeps the bytes). The tags of every page are read
// from the bytes now: the tag reader works on the whole file in memory.
std::unique_ptr<TiffDoc> OpenOnDisk(const std::string& path, TiffDoc& mem) {
    auto doc = std::make_unique<TiffDoc>();
    doc->disk.fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (doc->disk.fd < 0) return nullptr;
    struct stat st {};
    if (::fstat(doc->disk.fd, &st) != 0 || !S_ISREG(st.st_mode) ||
        static_cast<std::uint64_t>(st.st_size) != mem.file.source->size())
        return nullptr;
    doc->tif = OpenDisk(&doc->disk);
    if (!doc->tif) return nullptr;
    doc->pages = TIFFNumberOfDirectories(doc->tif);
    if (doc->pages != mem.pages || !TIFFSetDirectory(mem.tif, 0)) return nullptr;
    doc->pageProperties.resize(mem.pages);
    for (UINT i = 0; i < mem.pages; ++i) {
        if (i > 0 && !TIFFReadDirectory(mem.tif)) return nullptr;
        GpImage tags;
        ReadIfdProperties(&tags, mem.file.source->data(), mem.file.source->size(),
                          static_cast<std::uint32_t>(TIFFCurrentDirOffset(mem.tif)));
        doc->pageProperties[i] = std::move(tags.properties);
    }
    return doc;
}

std::unique_ptr<TiffDoc> OpenInMemory(SharedBytes data) {
    auto doc = std::make_unique<TiffDoc>();
    doc->file.source = std::move(data);
    doc->tif = OpenMem(&doc->file, "r"); // mapped: see MemMap
    if (doc->tif) doc->pages = TIFFNumberOfDirectories(doc->tif);
    return doc;
}

} // namespace

GpStatus DecodeTiff(SharedBytes data, GpImage** out) {
    *out = nullptr;
    std::unique_ptr<TiffDoc> doc = OpenInMemory(std::move(data));
    if (!doc->tif || doc->pages == 0) return UnknownImageFormat;
    if (doc->pages == 1) return DecodePage(*doc, 0, out);
    return AttachPages(std::move(doc), out);
}

GpStatus DecodeTiffFile(const std::string& path, SharedBytes data, GpImage** out) {
    *out = nullptr;
    std::unique_ptr<TiffDoc> doc = OpenInMemory(std::move(data));
    if (!doc->tif || doc->pages == 0) return UnknownImageFormat;
    if (doc->pages == 1) return DecodePage(*doc, 0, out);
    if (std::unique_ptr<TiffDoc> onDisk = OpenOnDisk(path, *doc)) doc = std::move(onDisk);
    return AttachPages(std::move(doc), out);
}

// ------------------------------------------------------------ encoding
namespace {

bool IsGreyRamp(const std::vector<ARGB>& p) {
    if (p.size() != 256) return false;
    for (std::size_t i = 0; i < 256; ++i)
        if ((p[i] & 0xffffffu) != static_cast<ARGB>(i * 0x010101u)) return false;
    return true;
}

// The property items of IFD0's range go back as tags of the page, by their
// type: known tags as libtiff defines them, others registered as custom tags
// of the item's type. Left out: the tags libtiff writes from the pixels
// (size, samples, compression, strips, resolution, colour map, ...), items
// whose type does not fit a known tag's, rational arrays of unknown tags, and
// the EXIF and GPS items (libtiff writes no EXIF or GPS IFD here). The ICC
// profile (34675) is written as its tag.
void WriteProperties(TIFF* tif, const GpImage* image) {
    for (const engine::PropertyRecord& p : image->properties) {
        if (p.value.empty() || p.id > 0xffff) continue;
        const auto tag = static_cast<ttag_t>(p.id);
        if (p.id == 34675) {
            TIFFSetField(tif, TIFFTAG_ICCPROFILE, static_cast<std::uint32_t>(p.value.size()),
                         p.value.data());
            continue;
        }
        if (PlaceOfProperty(p.id) != TagPlace::Ifd0 || IsPixelLayoutTag(p.id)) continue;
        const int unit = p.type == 2 || p.type == 1 || p.type == 6 || p.type == 7 ? 1
                         : p.type == 3 || p.type == 8                             ? 2
                         : p.type == 4 || p.type == 9                             ? 4
                         : p.type == 5 || p.type == 10                            ? 8
                                                                                  : 0;
        if (unit == 0 || p.value.size() % static_cast<std::size_t>(unit) != 0) continue;
        const auto count =
            static_cast<std::uint32_t>(p.value.size() / static_cast<std::size_t>(unit));
        const TIFFField* field = TIFFFindField(tif, tag, TIFF_ANY);
        if (!field) {
            if (p.type == 5 || p.type == 10) continue;
            static const char* const kName = "Kestrelyn property";
            TIFFFieldInfo info{tag,
                               TIFF_VARIABLE2,
                               TIFF_VARIABLE2,
                               static_cast<TIFFDataType>(p.type),
                               FIELD_CUSTOM,
                               1,
                               1,
                               const_cast<char*>(kName)};
            if (p.type == 2)
                info.field_readcount = info.field_writecount = TIFF_VARIABLE,
                info.field_passcount = 0;
            if (TIFFMergeFieldInfo(tif, &info, 1) != 0) continue;
            field = TIFFFindField(tif, tag, TIFF_ANY);
            if (!field) continue;
        }
        if (static_cast<int>(TIFFFieldDataType(field)) != p.type) continue;
        if (p.type == 2) {
            std::string text(p.value.begin(), p.value.end());
            text.resize(std::strlen(text.c_str()));
            TIFFSetField(tif, tag, text.c_str());
        } else if (TIFFFieldPassCount(field)) {
            if (p.type == 5 || p.type == 10) continue;
            TIFFSetField(tif, tag, count, p.value.data());
        } else if (count == 1 && TIFFFieldReadCount(field) == 1) {
            const std::uint8_t* v = p.value.data();
            switch (p.type) {
            case 1:
            case 7:
                TIFFSetField(tif, tag, static_cast<int>(v[0]));
                break;
            case 3:
                TIFFSetField(tif, tag, static_cast<int>(Le16(v)));
                break;
            case 4:
                TIFFSetField(tif, tag, Le32(v));
                break;
            case 5:
                if (Le32(v + 4) != 0)
                    TIFFSetField(tif, tag,
                                 static_cast<double>(Le32(v)) / static_cast<double>(Le32(v + 4)));
                break;
            default:
                break;
            }
        }
    }
}

// Writes one image as the current directory of `tif`.
GpStatus WritePage(TIFF* tif, GpImage* image, const EncoderParameters* params) {
    UINT compression = EncoderValueCompressionLZW;
    FindEncoderLong(params, EncoderCompression, &compression);
    UINT depth = 0;
    FindEncoderLong(params, EncoderColorDepth, &depth);
    BitmapHolder converted;
    PixelFormat f = image->format;
    if (depth != 0 && static_cast<UINT>(GetPixelFormatSize(f)) != depth) {
        PixelFormat want = depth == 1    ? PixelFormat1bppIndexed
                           : depth == 4  ? PixelFormat4bppIndexed
                           : depth == 8  ? PixelFormat8bppIndexed
                           : depth == 24 ? PixelFormat24bppRGB
                           : depth == 32 ? PixelFormat32bppARGB
                           : depth == 48 ? PixelFormat48bppRGB
                           : depth == 64 ? PixelFormat64bppARGB
                                         : 0;
        if (want == 0) return InvalidParameter;
        GpImage* c = nullptr;
        GpStatus st = GdipCloneBitmapAreaI(0, 0, image->width, image->height, want, image, &c);
        if (st != OK) return st;
        converted.reset(c);
        image = c;
        f = want;
    }
    const std::uint32_t w = static_cast<std::uint32_t>(image->width),
                        h = static_cast<std::uint32_t>(image->height);
    std::uint16_t photo, bps, spp = 1, extra = 0;
    PixelFormat lockFmt = f;
    bool bilevel = false, greyRamp = false;
    if (IsIndexedPixelFormat(f)) {
        bps = static_cast<std::uint16_t>(GetPixelFormatSize(f));
        const auto& p = image->palette;
        if (bps == 1 && p.size() >= 2 && (p[0] & 0xffffff) == 0 && (p[1] & 0xffffff) == 0xffffff) {
            photo = PHOTOMETRIC_MINISBLACK;
            bilevel = true;
        } else if (bps == 1 && p.size() >= 2 && (p[0] & 0xffffff) == 0xffffff &&
                   (p[1] & 0xffffff) == 0) {
            photo = PHOTOMETRIC_MINISWHITE;
            bilevel = true;
        } else if (bps == 8 && IsGreyRamp(p)) {
            photo = PHOTOMETRIC_MINISBLACK;
            greyRamp = true;
        } else {
            photo = PHOTOMETRIC_PALETTE;
        }
    } else if (f == PixelFormat16bppGrayScale) {
        photo = PHOTOMETRIC_MINISBLACK;
        bps = 16;
    } else if (f == PixelFormat48bppRGB) {
        photo = PHOTOMETRIC_RGB, bps = 16, spp = 3;
    } else if (f == PixelFormat64bppARGB || f == PixelFormat64bpppARGB) {
        photo = PHOTOMETRIC_RGB, bps = 16, spp = 4, extra = 1, lockFmt = PixelFormat64bppARGB;
    } else if (IsAlphaPixelFormat(f)) {
        photo = PHOTOMETRIC_RGB, bps = 8, spp = 4, extra = 1, lockFmt = PixelFormat32bppARGB;
    } else {
        photo = PHOTOMETRIC_RGB, bps = 8, spp = 3, lockFmt = PixelFormat24bppRGB;
    }
    (void)greyRamp;
    std::uint16_t comp = COMPRESSION_LZW;
    switch (compression) {
    case EncoderValueCompressionNone:
        comp = COMPRESSION_NONE;
        break;
    case EncoderValueCompressionCCITT3:
        comp = bilevel ? COMPRESSION_CCITTFAX3 : COMPRESSION_LZW;
        break;
    case EncoderValueCompressionCCITT4:
        comp = bilevel ? COMPRESSION_CCITTFAX4 : COMPRESSION_LZW;
        break;
    case EncoderValueCompressionRle:
        comp = bilevel ? COMPRESSION_CCITTRLE : COMPRESSION_LZW;
        break;
    default:
        comp = COMPRESSION_LZW;
    }
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, w);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, h);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, bps);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, spp);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, photo);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, comp);
    TIFFSetField(tif, TIFFTAG_FILLORDER, FILLORDER_MSB2LSB);
    if (extra) {
        std::uint16_t kind = EXTRASAMPLE_UNASSALPHA;
        TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, 1, &kind);
    }
    // CCITT pages are one strip, as fax writers make them: each strip would
    // restart the two-dimensional coding from a white line.
    const bool ccitt = comp == COMPRESSION_CCITTFAX3 || comp == COMPRESSION_CCITTFAX4 ||
                       comp == COMPRESSION_CCITTRLE;
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, ccitt ? h : TIFFDefaultStripSize(tif, 0));
    TIFFSetField(tif, TIFFTAG_XRESOLUTION, image->dpiX);
    TIFFSetField(tif, TIFFTAG_YRESOLUTION, image->dpiY);
    TIFFSetField(tif, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    WriteProperties(tif, image);
    std::vector<std::uint16_t> cr, cg, cb;
    if (photo == PHOTOMETRIC_PALETTE) {
        std::size_t n = std::size_t{1} << bps;
        cr.assign(n, 0), cg.assign(n, 0), cb.assign(n, 0);
        for (std::size_t i = 0; i < n && i < image->palette.size(); ++i) {
            ARGB c = image->palette[i];
            cr[i] = static_cast<std::uint16_t>(((c >> 16) & 255) * 257);
            cg[i] = static_cast<std::uint16_t>(((c >> 8) & 255) * 257);
            cb[i] = static_cast<std::uint16_t>((c & 255) * 257);
        }
        TIFFSetField(tif, TIFFTAG_COLORMAP, cr.data(), cg.data(), cb.data());
    }
    GpRect rect{0, 0, image->width, image->height};
    BitmapData bd;
    GpStatus st = GdipBitmapLockBits(image, &rect, ImageLockModeRead, lockFmt, &bd);
    if (st != OK) return st;
    std::size_t rowBytes = (static_cast<std::size_t>(w) * bps * spp + 7) / 8;
    std::vector<std::uint8_t> line(rowBytes);
    bool ok = true;
    for (std::uint32_t y = 0; y < h && ok; ++y) {
        const std::uint8_t* s =
            static_cast<const std::uint8_t*>(bd.Scan0) + static_cast<std::ptrdiff_t>(y) * bd.Stride;
        std::memcpy(line.data(), s, rowBytes);
        if (photo == PHOTOMETRIC_RGB) {
            if (bps == 8)
                for (std::uint32_t x = 0; x < w; ++x)
                    std::swap(line[x * spp], line[x * spp + 2]);
            else {
                auto* l16 = reinterpret_cast<std::uint16_t*>(line.data());
                for (std::uint32_t x = 0; x < w; ++x)
                    std::swap(l16[x * spp], l16[x * spp + 2]);
            }
        }
        ok = TIFFWriteScanline(tif, line.data(), y, 0) >= 0;
    }
    GdipBitmapUnlockBits(image, &bd);
    if (!ok) return GenericError;
    return TIFFWriteDirectory(tif) ? OK : GenericError;
}

} // namespace

struct TiffWriter::Impl {
    std::string path;
    Bytes bytes;
    MemFile file;
    TIFF* tif = nullptr;
    SafeFile output;     // with a path: the file libtiff writes, beside the target
    bool opened = false; // the output was begun
    bool failed = false; // a page failed part-written: the file must not be kept
};

TiffWriter::TiffWriter(std::string path) : impl_(std::make_unique<Impl>()) {
    impl_->path = std::move(path);
}
TiffWriter::~TiffWriter() {
    if (impl_->tif) TIFFClose(impl_->tif);
}

GpStatus TiffWriter::Add(GpImage* image, const EncoderParameters* params) {
    if (!image || !image->pixels) return InvalidParameter;
    if (!impl_->tif) {
        if (impl_->opened) return WrongState;
        if (impl_->path.empty()) {
            impl_->file.sink = &impl_->bytes;
            impl_->tif = OpenMem(&impl_->file, "w");
            if (!impl_->tif) return GenericError;
        } else {
            if (!impl_->output.Begin(impl_->path)) return Win32Error;
            impl_->opened = true;
            impl_->tif = OpenPath(impl_->output.TempPath());
            if (!impl_->tif) {
                impl_->output.Abandon();
                return Win32Error;
            }
        }
    }
    // A page refused before any write (a bad depth, an image that cannot be
    // locked) leaves the file sound; one that failed writing does not.
    try {
        const GpStatus st = WritePage(impl_->tif, image, params);
        if (st == GenericError) impl_->failed = true;
        return st;
    } catch (const std::bad_alloc&) {
        impl_->failed = true;
        return OutOfMemory;
    }
}

GpStatus TiffWriter::Finish(Bytes& out) {
    if (!impl_->tif) return WrongState;
    TIFF* tif = impl_->tif;
    impl_->tif = nullptr;
    if (!impl_->path.empty()) {
        // Closing writes what is pending; the file replaces the target only
        // when every page and the flush succeeded.
        bool ok = TIFFFlush(tif) != 0;
        TIFFClose(tif);
        ok = ok && !impl_->failed && impl_->output.Commit();
        if (!ok) impl_->output.Abandon();
        return ok ? OK : Win32Error;
    }
    TIFFClose(tif);
    out = std::move(impl_->bytes);
    return OK;
}

void TiffWriter::Abandon() {
    if (impl_->tif) TIFFClose(impl_->tif);
    impl_->tif = nullptr;
    impl_->output.Abandon();
    impl_->opened = false;
}

} // namespace kestrelyn::codecs
