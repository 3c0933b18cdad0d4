// JPEG through libjpeg-turbo. Grey files decode to 8bppIndexed with a grey
// ramp, colour files to 24bppRGB; CMYK and YCCK files are converted to RGB
// (Adobe files store inverted CMYK) and flagged with their colour space. The
// EXIF block becomes property items in file order, an ICC profile property
// 34675. The resolution comes from the JFIF density, else from EXIF. A file
// cut short inside its scan data decodes to the rows that are there (the rest
// grey), as viewers show such files; a file cut before its first scan fails.
// Encoding writes the property items back as an APP1 Exif segment (see
// ExifWriter.cpp) and the ICC profile (34675) as APP2 ICC_PROFILE segments.
#include <cstdio>
// jpeglib.h needs size_t and FILE declared first
#include <jpeglib.h>

#include <csetjmp>
#include <cstring>

#include "platform/linux/engine/codecs/CodecCommon.h"

namespace kestrelyn::codecs {

namespace {

struct JpegError {
    jpeg_error_mgr mgr;
    std::jmp_buf jump;
};

void ErrorExit(j_common_ptr cinfo) {
    auto* e = reinterpret_cast<JpegError*>(cinfo->err);
    std::longjmp(e->jump, 1);
}
void OutputMessage(j_common_ptr) {}

struct JpegDecodeCtx {
    jpeg_decompress_struct cinfo{};
    JpegError err{};
    GpImage* image = nullptr;
    std::vector<std::uint8_t> row;
    GpStatus status = UnknownImageFormat;
    JOCTET* icc = nullptr;
    unsigned int iccLen = 0;
};

bool DecodeCore(JpegDecodeCtx& c, const Bytes& data) {
    if (setjmp(c.err.jump)) return false;
    jpeg_create_decompress(&c.cinfo);
    jpeg_mem_src(&c.cinfo, data.data(), static_cast<unsigned long>(data.size()));
    jpeg_save_markers(&c.cinfo, JPEG_APP0 + 1, 0xffff);
    jpeg_save_markers(&c.cinfo, JPEG_APP0 + 2, 0xffff);
    if (jpeg_read_header(&c.cinfo, TRUE) != JPEG_HEADER_OK) return false;
    if (!jpeg_read_icc_profile(&c.cinfo, &c.icc, &c.iccLen)) c.iccLen = 0;
    const J_COLOR_SPACE in = c.cinfo.jpeg_color_space;
    const bool grey = in == JCS_GRAYSCALE;
    const bool cmyk = in == JCS_CMYK || in == JCS_YCCK;
    c.cinfo.out_color_space = grey ? JCS_GRAYSCALE : cmyk ? JCS_CMYK : JCS_EXT_BGR;
    const bool adobeInverted = cmyk && c.cinfo.saw_Adobe_marker;
    std::int64_t w = c.cinfo.image_width, h = c.cinfo.image_height;
    c.status = NewBitmap(w, h, grey ? PixelFormat8bppIndexed : PixelFormat24bppRGB, &c.image);
    if (c.status != OK) return false;
    c.status = UnknownImageFormat;
    jpeg_start_decompress(&c.cinfo);
    c.row.resize(static_cast<std::size_t>(w) * static_cast<std::size_t>(c.cinfo.output_components));
    while (c.cinfo.output_scanline < c.cinfo.output_height) {
        INT y = static_cast<INT>(c.cinfo.output_scanline);
        if (!cmyk) {
            JSAMPROW r = c.image->Row(y);
            jpeg_read_scanlines(&c.cinfo, &r, 1);
            continue;
        }
        JSAMPROW r = c.row.data();
        jpeg_read_scanlines(&c.cinfo, &r, 1);
        std::uint8_t* dst = c.image->Row(y);
        for (std::int64_t x = 0; x < w; ++x) {
            unsigned cc = r[4 * x], m = r[4 * x + 1], yy = r[4 * x + 2], k = r[4 * x + 3];
            if (!adobeInverted) {
                cc = 255 - cc;
                m = 255 - m;
                yy = 255 - yy;
                k = 255 - k;
            }
            dst[3 * x + 0] = static_cast<std::uint8_t>((yy * k + 127) / 255);
            dst[3 * x + 1] = static_cast<std::uint8_t>((m * k + 127) / 255);
            dst[3 * x + 2] = static_cast<std::uint8_t>((cc * k + 127) / 255);
        }
    }
    UINT flags = ImageFlagsHasRealPixelSize;
    switch (in) {
    case JCS_GRAYSCALE:
        flags |= ImageFlagsColorSpaceGRAY;
        break;
    case JCS_CMYK:
        flags |= ImageFlagsColorSpaceCMYK;
        break;
    case JCS_YCCK:
        flags |= ImageFlagsColorSpaceYCCK;
        break;
    case JCS_RGB:
        flags |= ImageFlagsColorSpaceRGB;
        break;
    default:
        flags |= ImageFlagsColorSpaceYCBCR;
    }
    if (grey && SetPalette(c.image, GreyRamp(256), PaletteFlagsGrayScale) != OK) return false;
    bool realDpi = false;
    if (c.cinfo.saw_JFIF_marker && c.cinfo.density_unit != 0 && c.cinfo.X_density &&
        c.cinfo.Y_density) {
        float k = c.cinfo.density_unit == 2 ? 2.54f : 1.0f;
        GdipBitmapSetResolution(c.image, c.cinfo.X_density * k, c.cinfo.Y_density * k);
        realDpi = true;
    }
    for (jpeg_saved_marker_ptr m = c.cinfo.marker_list; m; m = m->next) {
        if (m->marker == JPEG_APP0 + 1 && m->data_length > 6 &&
            std::memcmp(m->data, "Exif\0\0", 6) == 0) {
            bool got = false;
            float dx = 0, dy = 0;
            ReadExifProperties(c.image, m->data + 6, m->data_length - 6, &got, &dx, &dy);
            if (got && !realDpi) {
                GdipBitmapSetResolution(c.image, dx, dy);
                realDpi = true;
            }
            break;
        }
    }
    if (c.icc && c.iccLen) AddProperty(c.image, 34675, PropertyTagTypeByte, c.icc, c.iccLen);
    if (realDpi) flags |= ImageFlagsHasRealDPI;
    c.image->flags = flags;
    c.image->rawFormat = ImageFormatJPEG;
    // last: it frees the saved markers
    jpeg_finish_decompress(&c.cinfo);
    c.status = OK;
    return true;
}

struct JpegEncodeCtx {
    jpeg_compress_struct cinfo{};
    JpegError err{};
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
};

// The largest TIFF block an APP1 segment holds after "Exif\0\0".
constexpr std::size_t kMaxExif = 65533 - 6;

bool EncodeCore(JpegEncodeCtx& c, const BitmapData& bd, int quality, float dpiX, float dpiY,
                const Bytes& exif, const Bytes* icc) {
    if (setjmp(c.err.jump)) return false;
    jpeg_create_compress(&c.cinfo);
    jpeg_mem_dest(&c.cinfo, &c.buffer, &c.size);
    c.cinfo.image_width = bd.Width;
    c.cinfo.image_height = bd.Height;
    c.cinfo.input_components = 3;
    c.cinfo.in_color_space = JCS_EXT_BGR;
    jpeg_set_defaults(&c.cinfo);
    jpeg_set_quality(&c.cinfo, quality, TRUE);
    c.cinfo.density_unit = 1;
    c.cinfo.X_density = static_cast<UINT16>(dpiX + 0.5f);
    c.cinfo.Y_density = static_cast<UINT16>(dpiY + 0.5f);
    jpeg_start_compress(&c.cinfo, TRUE);
    if (!exif.empty())
        jpeg_write_marker(&c.cinfo, JPEG_APP0 + 1, exif.data(), static_cast<unsigned>(exif.size()));
    if (icc && !icc->empty())
        jpeg_write_icc_profile(&c.cinfo, icc->data(), static_cast<unsigned>(icc->size()));
    while (c.cinfo.next_scanline < c.cinfo.image_height) {
        JSAMPROW r = static_cast<std::uint8_t*>(bd.Scan0) +
                     static_cast<std::ptrdiff_t>(c.cinfo.next_scanline) * bd.Stride;
        jpeg_write_scanlines(&c.cinfo, &r, 1);
    }
    jpeg_finish_compress(&c.cinfo);
    return true;
}

} // namespace

GpStatus DecodeJpeg(const Bytes& data, GpImage** out) {
    *out = nullptr;
    JpegDecodeCtx c;
    c.cinfo.err = jpeg_std_error(&c.err.mgr);
    c.err.mgr.error_exit = ErrorExit;
    c.err.mgr.output_message = OutputMessage;
    bool ok = DecodeCore(c, data);
    jpeg_destroy_decompress(&c.cinfo);
    std::free(c.icc);
    if (!ok) {
        if (c.image) GdipDisposeImage(c.image);
        return c.status == OK ? UnknownImageFormat : c.status;
    }
    *out = c.image;
    return OK;
}

GpStatus EncodeJpeg(GpImage* image, const EncoderParameters* params, Bytes& out) {
    UINT q = 75;
    FindEncoderLong(params, EncoderQuality, &q);
    if (q > 100) q = 100;
    GpRect rect{0, 0, image->width, image->height};
    BitmapData bd;
    GpStatus st = GdipBitmapLockBits(image, &rect, ImageLockModeRead, PixelFormat24bppRGB, &bd);
    if (st != OK) return st;
    // Tags go back as an APP1 Exif segment (without the thumbnail when the
    // segment would be too long; none when even that is), the ICC profile as
    // APP2 ICC_PROFILE segments.
    Bytes exif;
    for (bool thumb : {true, false}) {
        Bytes block = BuildExifBlock(image, thumb);
        if (block.size() <= kMaxExif) {
            if (!block.empty()) {
                exif.assign({'E', 'x', 'i', 'f', 0, 0});
                exif.insert(exif.end(), block.begin(), block.end());
            }
            break;
        }
    }
    const Bytes* icc = nullptr;
    for (const engine::PropertyRecord& p : image->properties)
        if (p.id == 34675) icc = &p.value;
    JpegEncodeCtx c;
    c.cinfo.err = jpeg_std_error(&c.err.mgr);
    c.err.mgr.error_exit = ErrorExit;
    c.err.mgr.output_message = OutputMessage;
    bool ok = EncodeCore(c, bd, static_cast<int>(q), image->dpiX, image->dpiY, exif, icc);
    GdipBitmapUnlockBits(image, &bd);
    jpeg_destroy_compress(&c.cinfo);
    if (ok) out.assign(c.buffer, c.buffer + c.size);
    std::free(c.buffer);
    return ok ? OK : GenericError;
}

} // namespace kestrelyn::codecs
