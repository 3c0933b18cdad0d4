// Readers built on maintained single-format libraries.
#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstring>

#include <gif_lib.h>
extern "C" {
#include <jbig.h>
}
#include <jpeglib.h>
#include <libraw/libraw.h>
#include <openjpeg.h>
#include <png.h>
#include <tiffio.h>

#include <OpenEXR/ImfArray.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfInputFile.h>
#include <OpenEXR/ImfRgbaFile.h>

#include "Codecs.h"
#include "MemTiff.h"
#include "platform/linux/engine/codecs/GifRows.h"

namespace kyplug {

// ---------------------------------------------------------------- JPEG
namespace {
struct JpegErr {
    jpeg_error_mgr pub;
    std::jmp_buf jb;
};
void JpegFail(j_common_ptr c) {
    std::longjmp(reinterpret_cast<JpegErr*>(c->err)->jb, 1);
}
void JpegQuiet(j_common_ptr, int) {}
} // namespace

BitmapPtr DecodeJPEG(const std::uint8_t* d, std::size_t n) {
    if (n < 4) return nullptr;
    jpeg_decompress_struct cinfo;
    JpegErr err;
    cinfo.err = jpeg_std_error(&err.pub);
    err.pub.error_exit = JpegFail;
    err.pub.emit_message = JpegQuiet;
    Bitmap* volatile out = nullptr;
    std::uint8_t* volatile cmykRow = nullptr;
    if (setjmp(err.jb)) {
        jpeg_destroy_decompress(&cinfo);
        delete out;
        delete[] cmykRow;
        return nullptr;
    }
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, d, static_cast<unsigned long>(n));
    jpeg_read_header(&cinfo, TRUE);
    bool grey = cinfo.jpeg_color_space == JCS_GRAYSCALE;
    bool cmyk = cinfo.jpeg_color_space == JCS_CMYK || cinfo.jpeg_color_space == JCS_YCCK;
    cinfo.out_color_space = grey ? JCS_GRAYSCALE : cmyk ? JCS_CMYK : JCS_EXT_BGR;
    jpeg_start_decompress(&cinfo);
    try {
        out = NewBitmap(kStandard, int(cinfo.output_width), int(cinfo.output_height), grey ? 8 : 24)
                  .release();
    } catch (...) {
        jpeg_destroy_decompress(&cinfo);
        return nullptr;
    }
    out->topDown = true;
    if (cinfo.density_unit == 1 && cinfo.X_density && cinfo.Y_density) {
        out->dpmX = int(cinfo.X_density / 0.0254 + 0.5);
        out->dpmY = int(cinfo.Y_density / 0.0254 + 0.5);
    } else if (cinfo.density_unit == 2 && cinfo.X_density && cinfo.Y_density) {
        out->dpmX = cinfo.X_density * 100;
        out->dpmY = cinfo.Y_density * 100;
    }
    if (cmyk) cmykRow = new std::uint8_t[std::size_t(cinfo.output_width) * 4];
    bool inverted = cinfo.saw_Adobe_marker;
    while (cinfo.output_scanline < cinfo.output_height) {
        int y = int(cinfo.output_scanline);
        JSAMPROW row = cmyk ? cmykRow : out->row(y);
        jpeg_read_scanlines(&cinfo, &row, 1);
        if (cmyk) {
            std::uint8_t* dst = out->row(y);
            for (unsigned x = 0; x < cinfo.output_width; ++x) {
                int c = cmykRow[x * 4], m = cmykRow[x * 4 + 1], yy = cmykRow[x * 4 + 2],
                    k = cmykRow[x * 4 + 3];
                if (!inverted) c = 255 - c, m = 255 - m, yy = 255 - yy, k = 255 - k;
                dst[x * 3 + 2] = std::uint8_t(c * k / 255);
                dst[x * 3 + 1] = std::uint8_t(m * k / 255);
                dst[x * 3] = std::uint8_t(yy * k / 255);
            }
        }
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    delete[] cmykRow;
    return BitmapPtr(out);
}

// ---------------------------------------------------------------- PNG
namespace {
struct PngSrc {
    const std::uint8_t* d;
    std::size_t n, pos;
};
void PngRead(png_structp p, png_bytep out, png_size_t len) {
    auto* s = static_cast<PngSrc*>(png_get_io_ptr(p));
    if (len > s->n - s->pos) png_error(p, "truncated");
    std::memcpy(out, s->d + s->pos, len);
    s->pos += len;
}
void PngWarn(png_structp, png_const_charp) {}
void PngErr(png_structp p, png_const_charp) {
    png_longjmp(p, 1);
}
} // namespace

BitmapPtr DecodePNG(const std::uint8_t* d, std::size_t n) {
    if (n < 8 || png_sig_cmp(d, 0, 8)) return nullptr;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, PngErr, PngWarn);
    if (!png) return nullptr;
    png_infop info = png_create_info_struct(png);
    PngSrc src{d, n, 0};
    Bitmap* volatile out = nullptr;
    png_bytep* volatile rows = nullptr; // no C++ object may live across a longjmp
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        delete out;
        delete[] rows;
        return nullptr;
    }
    png_set_read_fn(png, &src, PngRead);
    png_set_user_limits(png, 65535, 65535);
    png_read_info(png, info);
    png_uint_32 w = png_get_image_width(png, info), h = png_get_image_height(png, info);
    int depth = png_get_bit_depth(png, info), ct = png_get_color_type(png, info);
    bool trns = png_get_valid(png, info, PNG_INFO_tRNS);
    int outBpp = 0, type = kStandard;
    if (ct == PNG_COLOR_TYPE_PALETTE) {
        if (depth < 8) png_set_packing(png);
        outBpp = 8;
    } else if (ct == PNG_COLOR_TYPE_GRAY && !trns) {
        if (depth < 8) png_set_expand_gray_1_2_4_to_8(png);
        if (depth == 16) {
            type = kUInt16;
            png_set_swap(png);
        }
        outBpp = 8;
    } else if (ct == PNG_COLOR_TYPE_RGB && !trns && depth == 16) {
        type = kRGB16;
        png_set_swap(png);
    } else {
        if (depth == 16) png_set_strip_16(png);
        if (ct == PNG_COLOR_TYPE_GRAY || ct == PNG_COLOR_TYPE_GRAY_ALPHA) {
            if (depth < 8) png_set_expand_gray_1_2_4_to_8(png);
            png_set_gray_to_rgb(png);
        }
        if (trns) png_set_tRNS_to_alpha(png);
        png_set_bgr(png);
        outBpp = (ct & PNG_COLOR_MASK_ALPHA) || trns ? 32 : 24;
    }
    png_set_interlace_handling(png);
    png_read_update_info(png, info);
    try {
        out = NewBitmap(type, int(w), int(h), outBpp).release();
    } catch (...) {
        png_destroy_read_struct(&png, &info, nullptr);
        return nullptr;
    }
    out->topDown = true;
    out->alpha = outBpp == 32;
    if (ct == PNG_COLOR_TYPE_PALETTE) {
        png_colorp pal = nullptr;
        int np = 0;
        png_get_PLTE(png, info, &pal, &np);
        out->palette.assign(std::size_t(std::max(np, 1)) * 4, 0);
        for (int i = 0; i < np; ++i)
            out->setColor(i, pal[i].red, pal[i].green, pal[i].blue);
        png_bytep ta = nullptr;
        int nt = 0;
        if (trns && png_get_tRNS(png, info, &ta, &nt, nullptr) && nt > 0) {
            out->transparency.assign(std::size_t(std::max(np, nt)), 255);
            for (int i = 0; i < nt; ++i)
                out->transparency[std::size_t(i)] = ta[i];
        }
    }
    png_charp iccName = nullptr;
    png_bytep iccData = nullptr;
    png_uint_32 iccLen = 0;
    int iccComp = 0;
    if (png_get_iCCP(png, info, &iccName, &iccComp, &iccData, &iccLen) && iccData && iccLen > 0)
        out->icc.assign(iccData, iccData + iccLen);
    png_uint_32 rx = 0, ry = 0;
    int unit = 0;
    if (png_get_pHYs(png, info, &rx, &ry, &unit) && unit == PNG_RESOLUTION_METER && rx && ry) {
        out->dpmX = int(rx);
        out->dpmY = int(ry);
    }
    rows = new png_bytep[h];
    for (png_uint_32 y = 0; y < h; ++y)
        rows[y] = out->row(int(y));
    png_read_image(png, rows);
    png_read_end(png, nullptr);
    delete[] rows;
    png_destroy_read_struct(&png, &info, nullptr);
    return BitmapPtr(out);
}

// ---------------------------------------------------------------- JNG / MNG
BitmapPtr DecodeJNG(const Bytes& d) {
    static const std::uint8_t sig[8] = {0x8b, 'J', 'N', 'G', 13, 10, 26, 10};
    if (d.size() < 8 || std::memcmp(d.data(), sig, 8)) throw DecodeError("not jng");
    Reader r(d);
    r.seek(8);
    Bytes jpeg;
    while (r.left() >= 12) {
        std::uint32_t len = r.be32(), id = r.be32();
        const std::uint8_t* body = r.take(len);
        r.be32();
        if (id == 0x4a444154u) jpeg.insert(jpeg.end(), body, body + len); // JDAT
        if (id == 0x49454e44u) break;                                     // IEND
    }
    auto bm = DecodeJPEG(jpeg.data(), jpeg.size());
    if (!bm) throw DecodeError("jdat");
    return bm;
}

// The first embedded PNG stream of a MNG (IHDR to IEND).
BitmapPtr DecodeMNG(const Bytes& d) {
    static const std::uint8_t sig[8] = {0x8a, 'M', 'N', 'G', 13, 10, 26, 10};
    static const std::uint8_t pngSig[8] = {0x89, 'P', 'N', 'G', 13, 10, 26, 10};
    if (d.size() < 8 || std::memcmp(d.data(), sig, 8)) throw DecodeError("not mng");
    Reader r(d);
    r.seek(8);
    Bytes png(pngSig, pngSig + 8);
    bool inImage = false;
    while (r.left() >= 12) {
        std::size_t start = r.pos;
        std::uint32_t len = r.be32(), id = r.be32();
        r.skip(len);
        r.be32();
        if (id == 0x49484452u) inImage = true; // IHDR
        if (inImage)
            png.insert(png.end(), d.begin() + std::ptrdiff_t(start),
                       d.begin() + std::ptrdiff_t(r.pos));
        if (inImage && id == 0x49454e44u) break;
    }
    auto bm = DecodePNG(png.data(), png.size());
    if (!bm) throw DecodeError("no png frame");
    return bm;
}

// ---------------------------------------------------------------- GIF
// Frame `page` composed over the frames before it. A one-frame file keeps its
// palette; frames of an animation become 32-bit pages with alpha.
BitmapPtr DecodeGIF(const std::string& path, int page, int* pageCount) {
    int err = 0;
    GifFileType* gif = DGifOpenFileName(path.c_str(), &err);
    if (!gif) return nullptr;
    struct Closer {
        GifFileType* g;
        ~Closer() {
            int e = 0;
            DGifCloseFile(g, &e);
        }
    } closer{gif};
    const int W = std::max(gif->SWidth, 1), H = std::max(gif->SHeight, 1);
    // The screen's size is checked before a row is read; frames keep the rows
    // that arrived, clipped to the screen (rows a cut file lacks stay blank).
    CheckSize(kStandard, W, H, 8);
    const std::vector<kestrelyn::gifrows::FrameRows> frames = kestrelyn::gifrows::ReadFrames(gif);
    if (gif->ImageCount == 0) return nullptr;
    if (pageCount) *pageCount = gif->ImageCount;
    if (page < 0 || page >= gif->ImageCount) return nullptr;
    int loop = -1;
    for (int i = 0; i + 1 < gif->SavedImages[0].ExtensionBlockCount; ++i) {
        const ExtensionBlock& e = gif->SavedImages[0].ExtensionBlocks[i];
        const ExtensionBlock& n = gif->SavedImages[0].ExtensionBlocks[i + 1];
        if (e.Function == APPLICATION_EXT_FUNC_CODE && e.ByteCount == 11 &&
            std::memcmp(e.Bytes, "NETSCAPE2.0", 11) == 0 && n.ByteCount >= 3)
            loop = n.Bytes[1] | n.Bytes[2] << 8;
    }
    auto frameGcb = [&](int i) {
        GraphicsControlBlock gcb{};
        gcb.TransparentColor = NO_TRANSPARENT_COLOR;
        DGifSavedExtensionToGCB(gif, i, &gcb);
        return gcb;
    };
    if (gif->ImageCount == 1) {
        const SavedImage& si = gif->SavedImages[0];
        ColorMapObject* cm = si.ImageDesc.ColorMap ? si.ImageDesc.ColorMap : gif->SColorMap;
        if (!cm) return nullptr;
        auto bm = NewBitmap(kStandard, W, H, 8);
        bm->palette.assign(std::size_t(cm->ColorCount) * 4, 0);
        for (int i = 0; i < cm->ColorCount; ++i)
            bm->setColor(i, cm->Colors[i].Red, cm->Colors[i].Green, cm->Colors[i].Blue);
        GraphicsControlBlock gcb = frameGcb(0);
        int bg = gcb.TransparentColor != NO_TRANSPARENT_COLOR ? gcb.TransparentColor
                                                              : gif->SBackGroundColor;
        if (gcb.TransparentColor != NO_TRANSPARENT_COLOR && gcb.TransparentColor < cm->ColorCount) {
            bm->transparency.assign(std::size_t(cm->ColorCount), 255);
            bm->transparency[std::size_t(gcb.TransparentColor)] = 0;
        }
        for (int y = 0; y < bm->height; ++y)
            std::memset(bm->row(y), bg, std::size_t(bm->width));
        const auto& f = frames[0];
        for (int Y = f.y0; Y < f.y1; ++Y) {
            const std::uint8_t* src = f.Row(Y);
            if (!src) continue;
            for (int X = f.x0; X < f.x1; ++X) {
                int v = src[X - f.x0];
                if (v == gcb.TransparentColor) continue;
                bm->row(Y)[X] = std::uint8_t(v < cm->ColorCount ? v : 0);
            }
        }
        bm->delayMs = gcb.DelayTime * 10;
        bm->loopCount = loop;
        return bm;
    }
    auto bm = NewBitmap(kStandard, W, H, 32);
    bm->alpha = true;
    std::vector<std::uint8_t> saved;
    for (int fi = 0; fi <= page; ++fi) {
        const SavedImage& si = gif->SavedImages[fi];
        const auto& f = frames[std::size_t(fi)];
        ColorMapObject* cm = si.ImageDesc.ColorMap ? si.ImageDesc.ColorMap : gif->SColorMap;
        GraphicsControlBlock gcb = frameGcb(fi);
        if (gcb.DisposalMode == DISPOSE_PREVIOUS) saved = bm->bits;
        if (cm)
            for (int Y = f.y0; Y < f.y1; ++Y) {
                const std::uint8_t* src = f.Row(Y);
                if (!src) continue;
                for (int X = f.x0; X < f.x1; ++X) {
                    int v = src[X - f.x0];
                    if (v == gcb.TransparentColor || v >= cm->ColorCount) continue;
                    std::uint8_t c[4] = {cm->Colors[v].Red, cm->Colors[v].Green, cm->Colors[v].Blue,
                                         255};
                    SetPixelRGBA(*bm, X, Y, c);
                }
            }
        if (fi == page) {
            bm->delayMs = gcb.DelayTime * 10;
            bm->disposal = gcb.DisposalMode;
            bm->loopCount = loop;
            break;
        }
        if (gcb.DisposalMode == DISPOSE_BACKGROUND) {
            for (int Y = f.y0; Y < f.y1; ++Y)
                std::memset(bm->row(Y) + std::size_t(f.x0) * 4, 0, std::size_t(f.x1 - f.x0) * 4);
        } else if (gcb.DisposalMode == DISPOSE_PREVIOUS && saved.size() == bm->bits.size()) {
            bm->bits = saved;
        }
    }
    return bm;
}

// ---------------------------------------------------------------- TIFF
namespace {
void TiffSilent(const char*, const char*, va_list) {}
struct TiffQuiet {
    TiffQuiet() {
        TIFFSetErrorHandler(TiffSilent);
        TIFFSetWarningHandler(TiffSilent);
    }
};
const TiffQuiet tiffQuiet;

void ReadResolution(TIFF* t, Bitmap& bm) {
    float rx = 0, ry = 0;
    std::uint16_t unit = RESUNIT_INCH;
    TIFFGetFieldDefaulted(t, TIFFTAG_RESOLUTIONUNIT, &unit);
    if (TIFFGetField(t, TIFFTAG_XRESOLUTION, &rx) && TIFFGetField(t, TIFFTAG_YRESOLUTION, &ry) &&
        rx > 0 && ry > 0) {
        double k = unit == RESUNIT_CENTIMETER ? 100.0 : unit == RESUNIT_INCH ? 1 / 0.0254 : 0;
        if (k > 0) {
            bm.dpmX = int(rx * k + 0.5);
            bm.dpmY = int(ry * k + 0.5);
        }
    }
}

BitmapPtr ReadTiffDirectory(TIFF* t, int flags) {
    std::uint32_t w = 0, h = 0;
    std::uint16_t bps = 1, spp = 1, photo = PHOTOMETRIC_MINISBLACK, planar = PLANARCONFIG_CONTIG,
                  fmt = SAMPLEFORMAT_UINT, comp = COMPRESSION_NONE;
    if (!TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &w) || !TIFFGetField(t, TIFFTAG_IMAGELENGTH, &h))
        return nullptr;
    TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &bps);
    TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLESPERPIXEL, &spp);
    TIFFGetFieldDefaulted(t, TIFFTAG_PLANARCONFIG, &planar);
    TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLEFORMAT, &fmt);
    TIFFGetFieldDefaulted(t, TIFFTAG_COMPRESSION, &comp);
    if (!TIFFGetField(t, TIFFTAG_PHOTOMETRIC, &photo)) photo = PHOTOMETRIC_MINISBLACK;
    if (w == 0 || h == 0 || w > 65535 || h > 65535) return nullptr;
    // No image format stores more than a few channels a pixel; a file that
    // claims hundreds would only make the library allocate for nothing.
    if (spp == 0 || spp > 16 || bps == 0 || bps > 64) return nullptr;
    bool scanlines = !TIFFIsTiled(t) && planar == PLANARCONFIG_CONTIG && comp != COMPRESSION_OJPEG;
    bool cmykKeep = (flags & 1) && photo == PHOTOMETRIC_SEPARATED && spp == 4 && bps == 8;
    // Plain 8-bit RGB, top row first: read straight into the rows.
    std::uint16_t orientation = ORIENTATION_TOPLEFT, extraCount = 0, *extraKinds = nullptr;
    TIFFGetFieldDefaulted(t, TIFFTAG_ORIENTATION, &orientation);
    TIFFGetField(t, TIFFTAG_EXTRASAMPLES, &extraCount, &extraKinds);
    bool rgb = photo == PHOTOMETRIC_RGB && spp == 3 && bps == 8 && fmt == SAMPLEFORMAT_UINT &&
               extraCount == 0 && orientation == ORIENTATION_TOPLEFT;
    int type = -1, bpp = 0;
    if (scanlines) {
        if (spp == 1 && bps == 1 && (photo <= PHOTOMETRIC_MINISBLACK))
            type = kStandard, bpp = 1;
        else if (spp == 1 && bps == 8 &&
                 (photo <= PHOTOMETRIC_MINISBLACK || photo == PHOTOMETRIC_PALETTE))
            type = kStandard, bpp = 8;
        else if (spp == 1 && bps == 16 && fmt == SAMPLEFORMAT_UINT &&
                 photo == PHOTOMETRIC_MINISBLACK)
            type = kUInt16;
        else if (spp == 3 && bps == 16 && fmt == SAMPLEFORMAT_UINT && photo == PHOTOMETRIC_RGB)
            type = kRGB16;
        else if ((spp == 3 || spp == 4) && bps == 32 && fmt == SAMPLEFORMAT_IEEEFP &&
                 photo == PHOTOMETRIC_RGB)
            type = spp == 3 ? kRGBF : kRGBAF;
        else if (cmykKeep)
            type = kStandard, bpp = 32;
        else if (rgb)
            type = kStandard, bpp = 24;
    }
    BitmapPtr bm;
    if (type >= 0) {
        bm = NewBitmap(type, int(w), int(h), bpp);
        tmsize_t sl = TIFFScanlineSize(t);
        if (sl <= 0) return nullptr;
        if (rgb) { // the scanline is 3 * w bytes, within the row's pitch
            for (std::uint32_t y = 0; y < h; ++y) {
                std::uint8_t* row = bm->row(int(y));
                if (TIFFReadScanline(t, row, y, 0) < 0) return nullptr;
                for (std::uint32_t x = 0; x < w; ++x)
                    std::swap(row[x * 3], row[x * 3 + 2]);
            }
        } else {
            std::vector<std::uint8_t> line(std::size_t(sl) + 16);
            std::size_t copy = std::min<std::size_t>(std::size_t(sl), bm->pitch);
            for (std::uint32_t y = 0; y < h; ++y) {
                if (TIFFReadScanline(t, line.data(), y, 0) < 0) return nullptr;
                std::uint8_t* row = bm->row(int(y));
                if (type == kRGB16 || type == kUInt16 || type == kRGBF || type == kRGBAF) {
                    std::memcpy(row, line.data(), copy);
                } else if (cmykKeep) {
                    for (std::uint32_t x = 0; x < w; ++x) {
                        row[x * 4] = line[x * 4 + 2];
                        row[x * 4 + 1] = line[x * 4 + 1];
                        row[x * 4 + 2] = line[x * 4];
                        row[x * 4 + 3] = line[x * 4 + 3];
                    }
                } else {
                    std::memcpy(row, line.data(), copy);
                    if (photo == PHOTOMETRIC_MINISWHITE)
                        for (std::size_t i = 0; i < copy; ++i)
                            row[i] = std::uint8_t(~row[i]);
                }
            }
        }
        bm->cmyk = cmykKeep;
        if (photo == PHOTOMETRIC_PALETTE) {
            std::uint16_t *r = nullptr, *g = nullptr, *b = nullptr;
            if (TIFFGetField(t, TIFFTAG_COLORMAP, &r, &g, &b))
                for (int i = 0; i < 256; ++i)
                    bm->setColor(i, std::uint8_t(r[i] >> 8), std::uint8_t(g[i] >> 8),
                                 std::uint8_t(b[i] >> 8));
        } else if (bpp == 1) {
            bm->setColor(0, 0, 0, 0);
            bm->setColor(1, 255, 255, 255);
        }
    } else {
        std::uint16_t extra = 0, *extraTypes = nullptr;
        TIFFGetField(t, TIFFTAG_EXTRASAMPLES, &extra, &extraTypes);
        bool alpha = extra > 0;
        // The bitmap first: it refuses sizes the file cannot hold before the
        // scratch buffer is spent on them.
        bm = NewBitmap(kStandard, int(w), int(h), alpha ? 32 : 24);
        std::vector<std::uint32_t> px(std::size_t(w) * h);
        if (!TIFFReadRGBAImageOriented(t, w, h, px.data(), ORIENTATION_TOPLEFT, 0)) return nullptr;
        bm->alpha = alpha;
        for (std::uint32_t y = 0; y < h; ++y)
            for (std::uint32_t x = 0; x < w; ++x) {
                std::uint32_t v = px[std::size_t(y) * w + x];
                std::uint8_t c[4] = {std::uint8_t(TIFFGetR(v)), std::uint8_t(TIFFGetG(v)),
                                     std::uint8_t(TIFFGetB(v)), std::uint8_t(TIFFGetA(v))};
                if (alpha && c[3] && c[3] < 255 && extraTypes &&
                    extraTypes[0] == EXTRASAMPLE_ASSOCALPHA)
                    for (int k = 0; k < 3; ++k)
                        c[k] = std::uint8_t(std::min(255, c[k] * 255 / c[3]));
                SetPixelRGBA(*bm, int(x), int(y), c);
            }
    }
    ReadResolution(t, *bm);
    std::uint32_t iccLen = 0;
    void* icc = nullptr;
    if (TIFFGetField(t, TIFFTAG_ICCPROFILE, &iccLen, &icc) && icc && iccLen > 0)
        bm->icc.assign(static_cast<std::uint8_t*>(icc), static_cast<std::uint8_t*>(icc) + iccLen);
    return bm;
}
} // namespace

// Opens a TIFF for reading with a bound on any single allocation the library
// makes, so that a small file cannot ask for gigabytes.
static TIFF* OpenTiffForReading(const std::string& path) {
    TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
    if (!options) return nullptr;
    TIFFOpenOptionsSetMaxSingleMemAlloc(options, tmsize_t{1} << 30);
    TIFF* t = TIFFOpenExt(path.c_str(), "r", options);
    TIFFOpenOptionsFree(options);
    return t;
}

BitmapPtr DecodeTIFF(const std::string& path, int page, int flags) {
    TIFF* t = OpenTiffForReading(path);
    if (!t) return nullptr;
    BitmapPtr bm;
    try {
        if (TIFFSetDirectory(t, tdir_t(page))) bm = ReadTiffDirectory(t, flags);
    } catch (...) {
        bm.reset();
    }
    TIFFClose(t);
    return bm;
}

int TiffPageCount(const std::string& path) {
    TIFF* t = OpenTiffForReading(path);
    if (!t) return 0;
    int n = TIFFNumberOfDirectories(t);
    TIFFClose(t);
    return n;
}

// A raw Group 3 stream (one-dimensional coding, 1728 pixels a line) read
// through a TIFF wrapper made in memory.
BitmapPtr DecodeFAXG3(const Bytes& d) {
    if (d.size() < 8) throw DecodeError("short fax");
    const std::uint32_t W = 1728;
    std::uint32_t maxRows = std::uint32_t(std::min<std::size_t>(d.size() * 8 / 5 + 8, 60000));
    Bytes file = MakeFaxTiff(d, W, maxRows, COMPRESSION_CCITTFAX3, 0);
    MemTiff mem(file);
    TIFF* t = mem.open("r");
    if (!t) throw DecodeError("wrap");
    std::vector<std::uint8_t> rows;
    std::vector<std::uint8_t> line(W / 8);
    std::uint32_t n = 0;
    for (; n < maxRows; ++n) {
        if (TIFFReadScanline(t, line.data(), n, 0) < 0) break;
        rows.insert(rows.end(), line.begin(), line.end());
    }
    TIFFClose(t);
    // Trailing lines decoded from padding are blank; keep what was real.
    if (n == 0) throw DecodeError("no rows");
    auto bm = NewBitmap(kStandard, int(W), int(n), 1);
    bm->setColor(0, 0, 0, 0);
    bm->setColor(1, 255, 255, 255);
    bm->dpmX = 8031; // 204 x 98 dpi
    bm->dpmY = 3858;
    for (std::uint32_t y = 0; y < n; ++y) {
        std::uint8_t* row = bm->row(int(y));
        for (std::uint32_t i = 0; i < W / 8; ++i)
            row[i] = std::uint8_t(~rows[std::size_t(y) * (W / 8) + i]);
    }
    return bm;
}

// ---------------------------------------------------------------- JPEG 2000
namespace {
struct OpjMem {
    const std::uint8_t* d;
    OPJ_SIZE_T n, pos;
};
OPJ_SIZE_T OpjRead(void* buf, OPJ_SIZE_T len, void* u) {
    auto* m = static_cast<OpjMem*>(u);
    if (m->pos >= m->n) return OPJ_SIZE_T(-1);
    OPJ_SIZE_T k = std::min(len, m->n - m->pos);
    std::memcpy(buf, m->d + m->pos, k);
    m->pos += k;
    return k;
}
OPJ_OFF_T OpjSkip(OPJ_OFF_T k, void* u) {
    auto* m = static_cast<OpjMem*>(u);
    OPJ_OFF_T np = OPJ_OFF_T(m->pos) + k;
    if (np < 0) np = 0;
    if (OPJ_SIZE_T(np) > m->n) np = OPJ_OFF_T(m->n);
    OPJ_OFF_T moved = np - OPJ_OFF_T(m->pos);
    m->pos = OPJ_SIZE_T(np);
    return moved;
}
OPJ_BOOL OpjSeek(OPJ_OFF_T k, void* u) {
    auto* m = static_cast<OpjMem*>(u);
    if (k < 0 || OPJ_SIZE_T(k) > m->n) return OPJ_FALSE;
    m->pos = OPJ_SIZE_T(k);
    return OPJ_TRUE;
}
void OpjQuiet(const char*, void*) {}
} // namespace

BitmapPtr DecodeJ2K(const Bytes& d, bool jp2) {
    OpjMem mem{d.data(), d.size(), 0};
    opj_stream_t* s = opj_stream_create(1 << 16, OPJ_TRUE);
    opj_stream_set_user_data(s, &mem, nullptr);
    opj_stream_set_user_data_length(s, mem.n);
    opj_stream_set_read_function(s, OpjRead);
    opj_stream_set_skip_function(s, OpjSkip);
    opj_stream_set_seek_function(s, OpjSeek);
    opj_codec_t* codec = opj_create_decompress(jp2 ? OPJ_CODEC_JP2 : OPJ_CODEC_J2K);
    opj_set_error_handler(codec, OpjQuiet, nullptr);
    opj_set_warning_handler(codec, OpjQuiet, nullptr);
    opj_set_info_handler(codec, OpjQuiet, nullptr);
    opj_dparameters_t params;
    opj_set_default_decoder_parameters(&params);
    opj_image_t* img = nullptr;
    BitmapPtr bm;
    try {
        bool header = opj_setup_decoder(codec, &params) && opj_read_header(s, codec, &img) && img;
        if (header) {
            // Refuse a stated size the file cannot hold before decoding it.
            long long hw = (long long)img->x1 - img->x0, hh = (long long)img->y1 - img->y0;
            if (hw <= 0 || hh <= 0 || hw > 65535 || hh > 65535) throw DecodeError("size");
            CheckSize(kStandard, int(hw), int(hh), img->numcomps >= 4 ? 32 : 24);
        }
        if (header && opj_decode(codec, s, img) && opj_end_decompress(codec, s)) {
            int nc = int(img->numcomps);
            if (nc < 1) throw DecodeError("no components");
            int w = int(img->x1 - img->x0), h = int(img->y1 - img->y0);
            int use = nc >= 4 ? 4 : nc >= 3 ? 3 : 1;
            for (int c = 0; c < use; ++c)
                if (!img->comps[c].data || img->comps[c].dx == 0 || img->comps[c].dy == 0)
                    throw DecodeError("component");
            bm = NewBitmap(kStandard, w, h, use == 1 ? 8 : use == 3 ? 24 : 32);
            bm->topDown = true;
            bm->alpha = use == 4;
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    std::uint8_t v[4] = {0, 0, 0, 255};
                    for (int c = 0; c < use; ++c) {
                        const opj_image_comp_t& cp = img->comps[c];
                        OPJ_UINT32 cx = OPJ_UINT32(x) / cp.dx, cy = OPJ_UINT32(y) / cp.dy;
                        if (cx >= cp.w) cx = cp.w - 1;
                        if (cy >= cp.h) cy = cp.h - 1;
                        long val = cp.data[std::size_t(cy) * cp.w + cx];
                        if (cp.sgnd) val += 1L << (cp.prec - 1);
                        if (cp.prec > 8)
                            val >>= (cp.prec - 8);
                        else if (cp.prec < 8)
                            val = val * 255 / ((1L << cp.prec) - 1);
                        v[c] = std::uint8_t(std::clamp(val, 0L, 255L));
                    }
                    if (use == 1)
                        bm->row(y)[x] = v[0];
                    else
                        SetPixelRGBA(*bm, x, y, v);
                }
        }
    } catch (...) {
        bm.reset();
    }
    if (img) opj_image_destroy(img);
    opj_destroy_codec(codec);
    opj_stream_destroy(s);
    return bm;
}

// ---------------------------------------------------------------- OpenEXR
// R, G, B (and A) channels are read as 32-bit floats whatever their stored
// type; files in luminance/chroma form go through the RGBA interface.
BitmapPtr DecodeEXR(const std::string& path) {
    try {
        {
            Imf::InputFile f(path.c_str());
            const Imf::ChannelList& ch = f.header().channels();
            if (ch.findChannel("R") && ch.findChannel("G") && ch.findChannel("B")) {
                Imath::Box2i dw = f.header().dataWindow();
                int w = dw.max.x - dw.min.x + 1, h = dw.max.y - dw.min.y + 1;
                bool alpha = ch.findChannel("A") != nullptr;
                int n = alpha ? 4 : 3;
                auto bm = NewBitmap(alpha ? kRGBAF : kRGBF, w, h, 0);
                std::vector<float> px(std::size_t(w) * h * n);
                std::size_t xs = sizeof(float) * n, ys = xs * w;
                char* base = reinterpret_cast<char*>(px.data()) - dw.min.x * std::ptrdiff_t(xs) -
                             dw.min.y * std::ptrdiff_t(ys);
                Imf::FrameBuffer fb;
                const char* names[4] = {"R", "G", "B", "A"};
                for (int k = 0; k < n; ++k)
                    fb.insert(names[k], Imf::Slice(Imf::FLOAT, base + sizeof(float) * k, xs, ys));
                f.setFrameBuffer(fb);
                f.readPixels(dw.min.y, dw.max.y);
                for (int y = 0; y < h; ++y)
                    std::memcpy(bm->row(y), &px[std::size_t(y) * w * n], sizeof(float) * w * n);
                return bm;
            }
        }
        Imf::RgbaInputFile f(path.c_str());
        Imath::Box2i dw = f.dataWindow();
        int w = dw.max.x - dw.min.x + 1, h = dw.max.y - dw.min.y + 1;
        auto bm = NewBitmap(kRGBF, w, h, 0);
        Imf::Array2D<Imf::Rgba> px(h, w);
        f.setFrameBuffer(&px[0][0] - dw.min.x - std::ptrdiff_t(dw.min.y) * w, 1, std::size_t(w));
        f.readPixels(dw.min.y, dw.max.y);
        for (int y = 0; y < h; ++y) {
            auto* row = reinterpret_cast<float*>(bm->row(y));
            for (int x = 0; x < w; ++x) {
                row[x * 3] = px[y][x].r;
                row[x * 3 + 1] = px[y][x].g;
                row[x * 3 + 2] = px[y][x].b;
            }
        }
        return bm;
    } catch (...) {
        return nullptr;
    }
}

// ---------------------------------------------------------------- JBIG
BitmapPtr DecodeJBIG(const Bytes& d) {
    if (d.size() < 20) throw DecodeError("short jbig");
    // Refuse sizes that the header states beyond reason before decoding.
    std::uint32_t xd = std::uint32_t(d[4]) << 24 | d[5] << 16 | d[6] << 8 | d[7];
    std::uint32_t yd = std::uint32_t(d[8]) << 24 | d[9] << 16 | d[10] << 8 | d[11];
    if (d[2] != 1 || xd == 0 || xd > 65535 || yd == 0 || (yd > 65535 && yd != 0xffffffffu))
        throw DecodeError("jbig header");
    if (yd != 0xffffffffu) CheckSize(kStandard, int(xd), int(yd), 1); // throws for a lying size
    jbg_dec_state s;
    jbg_dec_init(&s);
    jbg_dec_maxsize(&s, 65535, 65535);
    std::size_t cnt = 0;
    int rc = jbg_dec_in(&s, const_cast<unsigned char*>(d.data()), d.size(), &cnt);
    BitmapPtr bm;
    if ((rc == JBG_EOK || rc == JBG_EOK_INTR) && jbg_dec_getplanes(&s) == 1) {
        unsigned long w = jbg_dec_getwidth(&s), h = jbg_dec_getheight(&s);
        unsigned char* img = jbg_dec_getimage(&s, 0);
        try {
            if (img) {
                bm = NewBitmap(kStandard, int(w), int(h), 1);
                bm->setColor(0, 0, 0, 0);
                bm->setColor(1, 255, 255, 255);
                std::size_t bpr = (w + 7) / 8;
                for (unsigned long y = 0; y < h; ++y)
                    for (std::size_t i = 0; i < bpr; ++i)
                        bm->row(int(y))[i] = std::uint8_t(~img[y * bpr + i]);
            }
        } catch (...) {
            bm.reset();
        }
    }
    jbg_dec_free(&s);
    return bm;
}

// ---------------------------------------------------------------- camera RAW
BitmapPtr DecodeRAW(const std::string& path) {
    auto proc = std::make_unique<LibRaw>();
    if (proc->open_file(path.c_str()) != LIBRAW_SUCCESS) return nullptr;
    if (proc->unpack() != LIBRAW_SUCCESS) return nullptr;
    proc->imgdata.params.output_bps = 8;
    if (proc->dcraw_process() != LIBRAW_SUCCESS) return nullptr;
    int err = 0;
    libraw_processed_image_t* im = proc->dcraw_make_mem_image(&err);
    if (!im) return nullptr;
    BitmapPtr bm;
    try {
        if (im->type == LIBRAW_IMAGE_BITMAP && im->bits == 8 &&
            (im->colors == 3 || im->colors == 1)) {
            bm = NewBitmap(kStandard, im->width, im->height, 24);
            for (int y = 0; y < im->height; ++y)
                for (int x = 0; x < im->width; ++x) {
                    const unsigned char* p =
                        im->data + (std::size_t(y) * im->width + x) * im->colors;
                    std::uint8_t c[4] = {p[0], p[im->colors == 3 ? 1 : 0],
                                         p[im->colors == 3 ? 2 : 0], 255};
                    SetPixelRGBA(*bm, x, y, c);
                }
        }
    } catch (...) {
        bm.reset();
    }
    LibRaw::dcraw_clear_mem(im);
    return bm;
}

} // namespace kyplug
