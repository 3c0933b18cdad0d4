// Encoders of the plug-in.
#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <map>

extern "C" {
#include <jbig.h>
}
#include <gif_lib.h>
#include <jpeglib.h>
#include <openjpeg.h>
#include <png.h>
#include <tiffio.h>

#include <Imath/half.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfOutputFile.h>

#include "Codecs.h"
#include "MemTiff.h"

namespace kyplug {

namespace {
void Le16(Bytes& o, unsigned v) {
    o.push_back(std::uint8_t(v));
    o.push_back(std::uint8_t(v >> 8));
}
void Le32(Bytes& o, std::uint32_t v) {
    Le16(o, v & 0xffff);
    Le16(o, v >> 16);
}
bool IsTrueBlackWhite(const Bitmap& bm) {
    return bm.type == kStandard && bm.bpp == 1;
}
// Bit x of row y as "black" for 1-bit pictures, by the palette's lightness.
bool BlackBit(const Bitmap& bm, int x, int y) {
    std::uint8_t c[4];
    PixelRGBA(bm, x, y, c);
    return c[0] * 77 + c[1] * 150 + c[2] * 29 < 128 * 256;
}
} // namespace

bool EncodeBMP(const Bitmap& bm, Bytes& o) {
    if (bm.type != kStandard) return false;
    std::uint32_t pal = std::uint32_t(bm.palette.size());
    std::uint32_t off = 14 + 40 + pal, size = off + bm.pitch * std::uint32_t(bm.height);
    o.clear();
    o.push_back('B');
    o.push_back('M');
    Le32(o, size);
    Le32(o, 0);
    Le32(o, off);
    Le32(o, 40);
    Le32(o, std::uint32_t(bm.width));
    Le32(o, std::uint32_t(bm.height));
    Le16(o, 1);
    Le16(o, unsigned(bm.bpp == 16 ? 24 : bm.bpp));
    Le32(o, 0);
    Le32(o, bm.pitch * std::uint32_t(bm.height));
    Le32(o, std::uint32_t(bm.dpmX));
    Le32(o, std::uint32_t(bm.dpmY));
    Le32(o, pal / 4);
    Le32(o, 0);
    o.insert(o.end(), bm.palette.begin(), bm.palette.end());
    if (bm.bpp == 16) return false;
    for (int y = bm.height - 1; y >= 0; --y)
        o.insert(o.end(), bm.row(y), bm.row(y) + bm.pitch);
    return true;
}

// A single 32-bit image in an icon directory.
bool EncodeICO(const Bitmap& bm, Bytes& o) {
    if (bm.width > 256 || bm.height > 256) return false;
    auto b = ConvertTo32(bm);
    if (!b) return false;
    unsigned mp = unsigned(((bm.width + 31) / 32) * 4);
    std::uint32_t bytes = 40 + b->pitch * std::uint32_t(b->height) + mp * std::uint32_t(b->height);
    o.clear();
    Le16(o, 0);
    Le16(o, 1);
    Le16(o, 1);
    o.push_back(std::uint8_t(bm.width & 255));
    o.push_back(std::uint8_t(bm.height & 255));
    o.push_back(0);
    o.push_back(0);
    Le16(o, 1);
    Le16(o, 32);
    Le32(o, bytes);
    Le32(o, 22);
    Le32(o, 40);
    Le32(o, std::uint32_t(bm.width));
    Le32(o, std::uint32_t(bm.height * 2));
    Le16(o, 1);
    Le16(o, 32);
    for (int i = 0; i < 6; ++i)
        Le32(o, 0);
    for (int y = b->height - 1; y >= 0; --y) {
        const std::uint8_t* r = b->row(y);
        for (int x = 0; x < b->width; ++x) {
            o.insert(o.end(), r + x * 4, r + x * 4 + 3);
            o.push_back(bm.alpha || HasTransparency(bm) ? r[x * 4 + 3] : 255);
        }
    }
    for (int y = b->height - 1; y >= 0; --y) {
        std::vector<std::uint8_t> m(mp, 0);
        for (int x = 0; x < b->width; ++x)
            if ((bm.alpha || HasTransparency(bm)) && b->row(y)[x * 4 + 3] == 0)
                m[std::size_t(x >> 3)] |= std::uint8_t(0x80 >> (x & 7));
        o.insert(o.end(), m.begin(), m.end());
    }
    return true;
}

bool EncodeTGA(const Bitmap& bm, Bytes& o) {
    if (bm.type != kStandard || (bm.bpp != 8 && bm.bpp != 24 && bm.bpp != 32)) return false;
    bool pal = bm.bpp == 8;
    o.assign(18, 0);
    o[1] = pal ? 1 : 0;
    o[2] = pal ? 1 : 2;
    o[5] = pal ? 0 : 0;
    o[5] = std::uint8_t(pal ? bm.colors() & 255 : 0);
    o[6] = std::uint8_t(pal ? bm.colors() >> 8 : 0);
    o[7] = pal ? 24 : 0;
    o[12] = std::uint8_t(bm.width);
    o[13] = std::uint8_t(bm.width >> 8);
    o[14] = std::uint8_t(bm.height);
    o[15] = std::uint8_t(bm.height >> 8);
    o[16] = std::uint8_t(bm.bpp);
    o[17] = bm.bpp == 32 ? 8 : 0; // bottom-left origin
    if (pal)
        for (int i = 0; i < bm.colors(); ++i)
            o.insert(o.end(), &bm.palette[std::size_t(i) * 4], &bm.palette[std::size_t(i) * 4] + 3);
    std::size_t rb = std::size_t(bm.width) * (bm.bpp / 8);
    for (int y = bm.height - 1; y >= 0; --y) {
        const std::uint8_t* r = bm.row(y);
        if (bm.bpp == 32 && !bm.alpha) {
            for (int x = 0; x < bm.width; ++x) {
                o.insert(o.end(), r + x * 4, r + x * 4 + 3);
                o.push_back(255);
            }
        } else {
            o.insert(o.end(), r, r + rb);
        }
    }
    return true;
}

bool EncodePNM(const Bitmap& bm, bool raw, Bytes& o) {
    if (bm.type != kStandard) return false;
    int kind = IsTrueBlackWhite(bm) ? 1 : (bm.bpp == 8 && bm.isGreyRamp()) ? 2 : 3;
    std::string head = "P" + std::to_string(kind + (raw ? 3 : 0)) + "\n" +
                       std::to_string(bm.width) + " " + std::to_string(bm.height) + "\n" +
                       (kind == 1 ? "" : "255\n");
    o.assign(head.begin(), head.end());
    int col = 0;
    auto txt = [&](const std::string& s) {
        if (col + s.size() > 70) {
            o.push_back('\n');
            col = 0;
        }
        o.insert(o.end(), s.begin(), s.end());
        col += int(s.size());
    };
    for (int y = 0; y < bm.height; ++y) {
        if (kind == 1 && raw) {
            std::vector<std::uint8_t> line(std::size_t(bm.width + 7) / 8, 0);
            for (int x = 0; x < bm.width; ++x)
                if (BlackBit(bm, x, y)) line[std::size_t(x >> 3)] |= std::uint8_t(0x80 >> (x & 7));
            o.insert(o.end(), line.begin(), line.end());
            continue;
        }
        for (int x = 0; x < bm.width; ++x) {
            std::uint8_t c[4];
            PixelRGBA(bm, x, y, c);
            if (kind == 1) {
                txt(BlackBit(bm, x, y) ? "1 " : "0 ");
            } else if (kind == 2) {
                if (raw)
                    o.push_back(bm.row(y)[x]);
                else
                    txt(std::to_string(bm.row(y)[x]) + " ");
            } else if (raw) {
                o.insert(o.end(), c, c + 3);
            } else {
                txt(std::to_string(c[0]) + " " + std::to_string(c[1]) + " " + std::to_string(c[2]) +
                    " ");
            }
        }
        if (!raw) {
            o.push_back('\n');
            col = 0;
        }
    }
    return true;
}

bool EncodeWBMP(const Bitmap& bm, Bytes& o) {
    if (!IsTrueBlackWhite(bm)) return false;
    o = {0, 0};
    auto mb = [&](unsigned v) {
        std::uint8_t tmp[5];
        int n = 0;
        do {
            tmp[n++] = std::uint8_t(v & 0x7f);
            v >>= 7;
        } while (v);
        while (n--)
            o.push_back(std::uint8_t(tmp[n] | (n ? 0x80 : 0)));
    };
    mb(unsigned(bm.width));
    mb(unsigned(bm.height));
    for (int y = 0; y < bm.height; ++y) {
        std::vector<std::uint8_t> line(std::size_t(bm.width + 7) / 8, 0);
        for (int x = 0; x < bm.width; ++x)
            if (!BlackBit(bm, x, y)) line[std::size_t(x >> 3)] |= std::uint8_t(0x80 >> (x & 7));
        o.insert(o.end(), line.begin(), line.end());
    }
    return true;
}

bool EncodeXPM(const Bitmap& bm, Bytes& o) {
    if (bm.type != kStandard) return false;
    std::map<std::uint32_t, int> index;
    std::vector<std::uint32_t> colors;
    std::vector<int> px(std::size_t(bm.width) * bm.height);
    for (int y = 0; y < bm.height; ++y)
        for (int x = 0; x < bm.width; ++x) {
            std::uint8_t c[4];
            PixelRGBA(bm, x, y, c);
            std::uint32_t key =
                c[3] == 0 ? 0xff000000u : (std::uint32_t(c[0]) << 16 | c[1] << 8 | c[2]);
            auto it = index.find(key);
            if (it == index.end()) {
                it = index.emplace(key, int(colors.size())).first;
                colors.push_back(key);
            }
            px[std::size_t(y) * bm.width + x] = it->second;
        }
    static const char alphabet[] =
        ".#abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+@$%&*=-;:>,<";
    const int base = int(sizeof(alphabet) - 1);
    int cpp = 1;
    for (std::size_t n = std::size_t(base); n < colors.size(); n *= std::size_t(base))
        ++cpp;
    auto code = [&](int i) {
        std::string s;
        for (int k = 0; k < cpp; ++k) {
            s += alphabet[i % base];
            i /= base;
        }
        return s;
    };
    std::string t = "/* XPM */\nstatic char *image[] = {\n\"" + std::to_string(bm.width) + " " +
                    std::to_string(bm.height) + " " + std::to_string(colors.size()) + " " +
                    std::to_string(cpp) + "\",\n";
    char hex[16];
    for (std::size_t i = 0; i < colors.size(); ++i) {
        if (colors[i] == 0xff000000u)
            std::snprintf(hex, sizeof hex, "None");
        else
            std::snprintf(hex, sizeof hex, "#%06X", unsigned(colors[i]));
        t += "\"" + code(int(i)) + " c " + hex + "\",\n";
    }
    for (int y = 0; y < bm.height; ++y) {
        t += "\"";
        for (int x = 0; x < bm.width; ++x)
            t += code(px[std::size_t(y) * bm.width + x]);
        t += y + 1 < bm.height ? "\",\n" : "\"\n";
    }
    t += "};\n";
    o.assign(t.begin(), t.end());
    return true;
}

bool EncodePFM(const Bitmap& bm, Bytes& o) {
    std::string head =
        "PF\n" + std::to_string(bm.width) + " " + std::to_string(bm.height) + "\n-1.0\n";
    o.assign(head.begin(), head.end());
    for (int y = bm.height - 1; y >= 0; --y)
        for (int x = 0; x < bm.width; ++x) {
            float f[4];
            PixelFloat(bm, x, y, f);
            const auto* b = reinterpret_cast<const std::uint8_t*>(f);
            o.insert(o.end(), b, b + 12);
        }
    return true;
}

// ---------------------------------------------------------------- PNG
namespace {
void PngWrite(png_structp p, png_bytep d, png_size_t n) {
    auto* o = static_cast<Bytes*>(png_get_io_ptr(p));
    o->insert(o->end(), d, d + n);
}
void PngFlush(png_structp) {}
void PngErrW(png_structp p, png_const_charp) {
    png_longjmp(p, 1);
}
void PngWarnW(png_structp, png_const_charp) {}
} // namespace

namespace {
bool WritePng(const Bitmap* bm, Bytes& o, std::vector<png_color>& pal,
              std::vector<std::uint8_t>& tmp) {
    o.clear();
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, PngErrW, PngWarnW);
    if (!png) return false;
    png_infop info = png_create_info_struct(png);
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_set_write_fn(png, &o, PngWrite, PngFlush);
    int ct, depth = 8;
    if (bm->type == kUInt16)
        ct = PNG_COLOR_TYPE_GRAY, depth = 16;
    else if (bm->type == kRGB16)
        ct = PNG_COLOR_TYPE_RGB, depth = 16;
    else if (bm->bpp <= 8)
        ct = bm->isGreyRamp() && bm->transparency.empty() ? PNG_COLOR_TYPE_GRAY
                                                          : PNG_COLOR_TYPE_PALETTE,
        depth = bm->bpp;
    else if (bm->bpp == 32 && bm->alpha)
        ct = PNG_COLOR_TYPE_RGB_ALPHA;
    else
        ct = PNG_COLOR_TYPE_RGB;
    png_set_IHDR(png, info, png_uint_32(bm->width), png_uint_32(bm->height), depth, ct,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_pHYs(png, info, png_uint_32(bm->dpmX), png_uint_32(bm->dpmY), PNG_RESOLUTION_METER);
    if (!bm->icc.empty())
        png_set_iCCP(png, info, "ICC Profile", PNG_COMPRESSION_TYPE_BASE, bm->icc.data(),
                     png_uint_32(bm->icc.size()));
    if (ct == PNG_COLOR_TYPE_PALETTE) {
        for (int i = 0; i < bm->colors(); ++i)
            pal.push_back({bm->palette[std::size_t(i) * 4 + 2], bm->palette[std::size_t(i) * 4 + 1],
                           bm->palette[std::size_t(i) * 4]});
        png_set_PLTE(png, info, pal.data(), int(pal.size()));
        if (!bm->transparency.empty())
            png_set_tRNS(png, info, bm->transparency.data(),
                         int(std::min<std::size_t>(bm->transparency.size(), pal.size())), nullptr);
    }
    png_write_info(png, info);
    if (depth == 16) png_set_swap(png);
    for (int y = 0; y < bm->height; ++y) {
        const std::uint8_t* r = bm->row(y);
        if (bm->type == kStandard && bm->bpp >= 24) {
            int n = bm->bpp / 8, k = ct == PNG_COLOR_TYPE_RGB_ALPHA ? 4 : 3;
            for (int x = 0; x < bm->width; ++x) {
                tmp[std::size_t(x) * k] = r[x * n + 2];
                tmp[std::size_t(x) * k + 1] = r[x * n + 1];
                tmp[std::size_t(x) * k + 2] = r[x * n];
                if (k == 4) tmp[std::size_t(x) * k + 3] = r[x * n + 3];
            }
            png_write_row(png, tmp.data());
        } else {
            png_write_row(png, const_cast<png_bytep>(r));
        }
    }
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return true;
}
} // namespace

bool EncodePNG(const Bitmap& in, Bytes& o) {
    BitmapPtr conv;
    const Bitmap* bm = &in;
    if (in.type == kRGBF || in.type == kRGBAF || (in.type == kStandard && in.bpp == 16)) {
        conv = in.type == kStandard ? ConvertTo24(in) : ConvertToStandard(in);
        if (!conv) return false;
        bm = conv.get();
    }
    std::vector<png_color> pal;
    pal.reserve(256);
    std::vector<std::uint8_t> tmp(std::size_t(bm->width) * 4);
    return WritePng(bm, o, pal, tmp);
}

// ---------------------------------------------------------------- JPEG
namespace {
struct JErr {
    jpeg_error_mgr pub;
    std::jmp_buf jb;
};
void JFail(j_common_ptr c) {
    std::longjmp(reinterpret_cast<JErr*>(c->err)->jb, 1);
}
void JQuiet(j_common_ptr, int) {}
} // namespace

namespace {
bool WriteJpeg(const Bitmap* bm, bool grey, int quality, Bytes& o) {
    jpeg_compress_struct c;
    JErr err;
    c.err = jpeg_std_error(&err.pub);
    err.pub.error_exit = JFail;
    err.pub.emit_message = JQuiet;
    unsigned char* volatile mem = nullptr;
    unsigned long size = 0;
    if (setjmp(err.jb)) {
        jpeg_destroy_compress(&c);
        std::free(mem);
        return false;
    }
    jpeg_create_compress(&c);
    unsigned char* m = nullptr;
    jpeg_mem_dest(&c, &m, &size);
    c.image_width = JDIMENSION(bm->width);
    c.image_height = JDIMENSION(bm->height);
    c.input_components = grey ? 1 : 3;
    c.in_color_space = grey ? JCS_GRAYSCALE : JCS_EXT_BGR;
    jpeg_set_defaults(&c);
    jpeg_set_quality(&c, quality, TRUE);
    if (quality >= 90 && !grey) {
        // Fine work keeps full colour resolution.
        c.comp_info[0].h_samp_factor = 1;
        c.comp_info[0].v_samp_factor = 1;
    }
    c.density_unit = 1;
    c.X_density = UINT16(bm->dpmX * 0.0254 + 0.5);
    c.Y_density = UINT16(bm->dpmY * 0.0254 + 0.5);
    jpeg_start_compress(&c, TRUE);
    while (c.next_scanline < c.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(bm->row(int(c.next_scanline)));
        jpeg_write_scanlines(&c, &row, 1);
    }
    jpeg_finish_compress(&c);
    mem = m;
    o.assign(m, m + size);
    jpeg_destroy_compress(&c);
    std::free(m);
    return true;
}
} // namespace

bool EncodeJPEG(const Bitmap& in, int quality, Bytes& o) {
    BitmapPtr conv;
    const Bitmap* bm = &in;
    bool grey = in.type == kStandard && in.bpp == 8 && in.isGreyRamp();
    if (!grey && !(in.type == kStandard && in.bpp == 24)) {
        conv = ConvertTo24(in);
        if (!conv) return false;
        bm = conv.get();
    }
    if (quality <= 0) quality = 75;
    if (quality > 100) quality = 100;
    return WriteJpeg(bm, grey, quality, o);
}

// ---------------------------------------------------------------- JPEG 2000
namespace {
void OQuiet(const char*, void*) {}
} // namespace

bool EncodeJ2K(const Bitmap& bm, bool jp2, int rate, const std::string& path) {
    if (bm.type != kStandard) return false;
    bool grey = bm.bpp == 8 && bm.isGreyRamp();
    bool alpha = bm.bpp == 32 && bm.alpha;
    int nc = grey ? 1 : alpha ? 4 : 3;
    std::vector<opj_image_cmptparm_t> cp(static_cast<std::size_t>(nc));
    for (auto& c : cp) {
        std::memset(&c, 0, sizeof c);
        c.dx = c.dy = 1;
        c.w = OPJ_UINT32(bm.width);
        c.h = OPJ_UINT32(bm.height);
        c.prec = 8;
        c.sgnd = 0;
    }
    opj_image_t* img =
        opj_image_create(OPJ_UINT32(nc), cp.data(), grey ? OPJ_CLRSPC_GRAY : OPJ_CLRSPC_SRGB);
    if (!img) return false;
    img->x0 = img->y0 = 0;
    img->x1 = OPJ_UINT32(bm.width);
    img->y1 = OPJ_UINT32(bm.height);
    if (alpha) img->comps[3].alpha = 1;
    for (int y = 0; y < bm.height; ++y)
        for (int x = 0; x < bm.width; ++x) {
            std::uint8_t c[4];
            PixelRGBA(bm, x, y, c);
            for (int k = 0; k < nc; ++k)
                img->comps[k].data[std::size_t(y) * bm.width + x] = c[k];
        }
    opj_cparameters_t p;
    opj_set_default_encoder_parameters(&p);
    p.tcp_numlayers = 1;
    p.cp_disto_alloc = 1;
    p.tcp_rates[0] = rate > 1 ? float(rate) : 0.0f; // 0: lossless
    p.tcp_mct = nc >= 3 ? 1 : 0;
    // Every resolution level needs at least one pixel.
    int levels = 1;
    while (levels < 6 && (std::min(bm.width, bm.height) >> levels) > 0)
        ++levels;
    p.numresolution = levels;
    opj_codec_t* codec = opj_create_compress(jp2 ? OPJ_CODEC_JP2 : OPJ_CODEC_J2K);
    opj_set_error_handler(codec, OQuiet, nullptr);
    opj_set_warning_handler(codec, OQuiet, nullptr);
    opj_set_info_handler(codec, OQuiet, nullptr);
    bool ok = false;
    if (opj_setup_encoder(codec, &p, img)) {
        opj_stream_t* s = opj_stream_create_default_file_stream(path.c_str(), OPJ_FALSE);
        if (s) {
            ok = opj_start_compress(codec, img, s) && opj_encode(codec, s) &&
                 opj_end_compress(codec, s);
            opj_stream_destroy(s);
        }
    }
    opj_destroy_codec(codec);
    opj_image_destroy(img);
    if (!ok) std::remove(path.c_str());
    return ok;
}

// ---------------------------------------------------------------- OpenEXR
bool EncodeEXR(const Bitmap& bm, int flags, const std::string& path) {
    try {
        bool alpha = bm.type == kRGBAF || (bm.type == kStandard && bm.bpp == 32 && bm.alpha);
        int n = alpha ? 4 : 3;
        std::vector<float> px(std::size_t(bm.width) * bm.height * n);
        for (int y = 0; y < bm.height; ++y)
            for (int x = 0; x < bm.width; ++x) {
                float f[4];
                PixelFloat(bm, x, y, f);
                std::memcpy(&px[(std::size_t(y) * bm.width + x) * n], f, sizeof(float) * n);
            }
        Imf::Compression comp = Imf::ZIP_COMPRESSION;
        if (flags & 2)
            comp = Imf::NO_COMPRESSION;
        else if (flags & 8)
            comp = Imf::PIZ_COMPRESSION;
        else if (flags & 16)
            comp = Imf::PXR24_COMPRESSION;
        else if (flags & 32)
            comp = Imf::B44_COMPRESSION;
        Imf::PixelType pt = (flags & 1) ? Imf::FLOAT : Imf::HALF;
        Imf::Header h(bm.width, bm.height);
        h.compression() = comp;
        const char* names[4] = {"R", "G", "B", "A"};
        for (int k = 0; k < n; ++k)
            h.channels().insert(names[k], Imf::Channel(pt));
        Imf::OutputFile f(path.c_str(), h);
        Imf::FrameBuffer fb;
        std::vector<Imath::half> halves;
        if (pt == Imf::HALF) halves.assign(px.begin(), px.end());
        std::size_t es = pt == Imf::HALF ? sizeof(Imath::half) : sizeof(float);
        char* base = pt == Imf::HALF ? reinterpret_cast<char*>(halves.data())
                                     : reinterpret_cast<char*>(px.data());
        std::size_t xs = es * n, ys = xs * bm.width;
        for (int k = 0; k < n; ++k)
            fb.insert(names[k], Imf::Slice(pt, base + es * k, xs, ys));
        f.setFrameBuffer(fb);
        f.writePixels(bm.height);
        return true;
    } catch (...) {
        std::remove(path.c_str());
        return false;
    }
}

// ---------------------------------------------------------------- JBIG
namespace {
void JbgOut(unsigned char* d, std::size_t n, void* u) {
    auto* o = static_cast<Bytes*>(u);
    o->insert(o->end(), d, d + n);
}
} // namespace

bool EncodeJBIG(const Bitmap& bm, Bytes& o) {
    if (!IsTrueBlackWhite(bm)) return false;
    std::size_t bpr = std::size_t(bm.width + 7) / 8;
    std::vector<unsigned char> plane(bpr * bm.height, 0);
    for (int y = 0; y < bm.height; ++y)
        for (int x = 0; x < bm.width; ++x)
            if (BlackBit(bm, x, y))
                plane[std::size_t(y) * bpr + (x >> 3)] |= std::uint8_t(0x80 >> (x & 7));
    unsigned char* planes[1] = {plane.data()};
    o.clear();
    jbg_enc_state s;
    jbg_enc_init(&s, unsigned(bm.width), unsigned(bm.height), 1, planes, JbgOut, &o);
    jbg_enc_out(&s);
    jbg_enc_free(&s);
    return !o.empty();
}

// ---------------------------------------------------------------- TIFF
namespace {
int g_tiffJpegQuality = 75;
}
void SetTiffJpegQuality(int q) {
    g_tiffJpegQuality = q <= 0 ? 75 : std::min(q, 100);
}

namespace {
bool WriteTiffPage(TIFF* t, const Bitmap& in, int flags) {
    BitmapPtr conv;
    const Bitmap* bm = &in;
    bool jpeg = flags & 0x8000;
    if (in.type == kStandard &&
        (in.bpp == 16 || (in.bpp == 4 && jpeg) || (in.bpp == 8 && jpeg && !in.isGreyRamp()))) {
        conv = ConvertTo24(in);
        bm = conv.get();
    }
    if (!bm) return false;
    bool grey = bm->type == kStandard && bm->bpp == 8 && bm->isGreyRamp();
    int spp = 1, bps = 8, photo = PHOTOMETRIC_MINISBLACK, fmt = SAMPLEFORMAT_UINT;
    switch (bm->type) {
    case kUInt16:
        bps = 16;
        break;
    case kRGB16:
        bps = 16, spp = 3, photo = PHOTOMETRIC_RGB;
        break;
    case kRGBF:
        bps = 32, spp = 3, photo = PHOTOMETRIC_RGB, fmt = SAMPLEFORMAT_IEEEFP;
        break;
    case kRGBAF:
        bps = 32, spp = 4, photo = PHOTOMETRIC_RGB, fmt = SAMPLEFORMAT_IEEEFP;
        break;
    default:
        if (bm->bpp <= 8) {
            bps = bm->bpp;
            photo = grey || bm->bpp == 1 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_PALETTE;
        } else {
            spp = bm->bpp == 32 && bm->alpha && !jpeg ? 4 : 3;
            photo = PHOTOMETRIC_RGB;
        }
    }
    bool bw = bm->bpp == 1 && bm->type == kStandard;
    // A 1-bit page whose palette is exactly black, white is stored as is;
    // any other two-colour palette goes through a colour map.
    bool bwPlain = bw && bm->palette[0] == 0 && bm->palette[1] == 0 && bm->palette[2] == 0 &&
                   bm->palette[4] == 255 && bm->palette[5] == 255 && bm->palette[6] == 255;
    if (bw && !bwPlain) photo = PHOTOMETRIC_PALETTE;
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, std::uint32_t(bm->width));
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, std::uint32_t(bm->height));
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, bps);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, spp);
    TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, fmt);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, photo);
    TIFFSetField(t, TIFFTAG_XRESOLUTION, float(bm->dpmX * 0.0254));
    TIFFSetField(t, TIFFTAG_YRESOLUTION, float(bm->dpmY * 0.0254));
    TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    if (!in.icc.empty())
        TIFFSetField(t, TIFFTAG_ICCPROFILE, std::uint32_t(in.icc.size()), in.icc.data());
    if (spp == 4) {
        std::uint16_t ex = EXTRASAMPLE_UNASSALPHA;
        TIFFSetField(t, TIFFTAG_EXTRASAMPLES, 1, &ex);
    }
    int comp = COMPRESSION_NONE;
    if (jpeg && bps == 8)
        comp = COMPRESSION_JPEG;
    else if (flags & 0x4000)
        comp = COMPRESSION_LZW;
    else if (flags & 0x0800 && bw)
        comp = COMPRESSION_CCITTFAX4;
    else if (flags & 0x0100)
        comp = COMPRESSION_PACKBITS;
    else if (flags & 0x0200)
        comp = COMPRESSION_ADOBE_DEFLATE;
    else if (flags == 0)
        comp = bw ? COMPRESSION_CCITTFAX4 : COMPRESSION_LZW;
    if (comp == COMPRESSION_CCITTFAX4 && bwPlain) {
        // Fax coding is white-is-zero: store the page that way.
        TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
    }
    TIFFSetField(t, TIFFTAG_COMPRESSION, comp);
    if (comp == COMPRESSION_JPEG) {
        TIFFSetField(t, TIFFTAG_JPEGQUALITY, g_tiffJpegQuality);
        TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, std::uint32_t(16));
    } else {
        TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(t, 0));
    }
    if (comp == COMPRESSION_LZW && bps >= 8)
        TIFFSetField(t, TIFFTAG_PREDICTOR, fmt == SAMPLEFORMAT_IEEEFP ? 3 : 2);
    std::vector<std::uint16_t> cmap;
    if (photo == PHOTOMETRIC_PALETTE) {
        std::size_t n = std::size_t(1) << bps;
        cmap.assign(n * 3, 0);
        for (std::size_t i = 0; i < n && int(i) < bm->colors(); ++i) {
            cmap[i] = std::uint16_t(bm->palette[i * 4 + 2] * 257);
            cmap[n + i] = std::uint16_t(bm->palette[i * 4 + 1] * 257);
            cmap[2 * n + i] = std::uint16_t(bm->palette[i * 4] * 257);
        }
        TIFFSetField(t, TIFFTAG_COLORMAP, cmap.data(), cmap.data() + n, cmap.data() + 2 * n);
    }
    std::size_t rowBytes = (std::size_t(bm->width) * bps * spp + 7) / 8;
    std::vector<std::uint8_t> line(rowBytes + 8);
    bool invert = comp == COMPRESSION_CCITTFAX4 && bwPlain;
    for (int y = 0; y < bm->height; ++y) {
        const std::uint8_t* r = bm->row(y);
        if (bm->type == kStandard && bm->bpp >= 24) {
            int n = bm->bpp / 8;
            for (int x = 0; x < bm->width; ++x) {
                line[std::size_t(x) * spp] = r[x * n + 2];
                line[std::size_t(x) * spp + 1] = r[x * n + 1];
                line[std::size_t(x) * spp + 2] = r[x * n];
                if (spp == 4) line[std::size_t(x) * spp + 3] = r[x * n + 3];
            }
        } else {
            std::memcpy(line.data(), r, rowBytes);
            if (invert)
                for (std::size_t i = 0; i < rowBytes; ++i)
                    line[i] = std::uint8_t(~line[i]);
        }
        if (TIFFWriteScanline(t, line.data(), std::uint32_t(y), 0) < 0) return false;
    }
    return TIFFWriteDirectory(t) != 0;
}
} // namespace

bool EncodeTIFF(const std::vector<const Bitmap*>& pages, int flags, const std::string& path) {
    if (pages.empty()) return false;
    TIFF* t = TIFFOpen(path.c_str(), "w");
    if (!t) return false;
    bool ok = true;
    for (const Bitmap* p : pages)
        ok = ok && WriteTiffPage(t, *p, flags);
    TIFFClose(t);
    if (!ok) std::remove(path.c_str());
    return ok;
}

// Group 4 coding of one-bit rows (1 = black), returned without any wrapper.
long CompressCCITT4(const std::uint8_t* src, int width, int height, int stride, std::uint8_t* dest,
                    long capacity) {
    if (!src || width <= 0 || height <= 0 || stride < (width + 7) / 8) return 0;
    MemTiff mem;
    TIFF* t = mem.open("w");
    if (!t) return 0;
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, std::uint32_t(width));
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, std::uint32_t(height));
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 1);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
    TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_CCITTFAX4);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, std::uint32_t(height));
    std::vector<std::uint8_t> line(static_cast<std::size_t>(stride));
    bool ok = true;
    for (int y = 0; y < height && ok; ++y) {
        std::memcpy(line.data(), src + std::size_t(y) * stride, std::size_t(stride));
        ok = TIFFWriteScanline(t, line.data(), std::uint32_t(y), 0) >= 0;
    }
    ok = ok && TIFFWriteDirectory(t);
    TIFFClose(t);
    if (!ok) return 0;
    MemTiff back(mem.data());
    TIFF* r = back.open("r");
    if (!r) return 0;
    long result = 0;
    tmsize_t raw = TIFFRawStripSize(r, 0);
    if (raw > 0) {
        result = long(raw);
        if (dest && capacity >= raw) {
            if (TIFFReadRawStrip(r, 0, dest, raw) != raw) result = 0;
        }
    }
    TIFFClose(r);
    return result;
}

// ---------------------------------------------------------------- GIF
// One frame per page. Pages of 256 colours or fewer keep their palette; the
// others are quantised by giflib to 255 colours, index 255 standing for
// pixels whose alpha is below one half. Each page carries its delay,
// disposal and (the first) the loop count.
namespace {
struct GifPage {
    int w = 0, h = 0;
    std::vector<GifColorType> colours;
    std::vector<GifByteType> index;
    int transparent = -1;
};

bool MakeGifPage(const Bitmap& bm, GifPage& out) {
    out.w = bm.width;
    out.h = bm.height;
    out.index.assign(std::size_t(bm.width) * bm.height, 0);
    if (bm.type == kStandard && bm.bpp <= 8) {
        for (int i = 0; i < bm.colors(); ++i)
            out.colours.push_back({bm.palette[std::size_t(i) * 4 + 2],
                                   bm.palette[std::size_t(i) * 4 + 1],
                                   bm.palette[std::size_t(i) * 4]});
        for (std::size_t i = 0; i < bm.transparency.size(); ++i)
            if (bm.transparency[i] == 0) {
                out.transparent = int(i);
                break;
            }
        for (int y = 0; y < bm.height; ++y)
            for (int x = 0; x < bm.width; ++x) {
                const std::uint8_t* r = bm.row(y);
                int v = bm.bpp == 8   ? r[x]
                        : bm.bpp == 4 ? (r[x >> 1] >> ((x & 1) ? 0 : 4)) & 15
                                      : (r[x >> 3] >> (7 - (x & 7))) & 1;
                out.index[std::size_t(y) * bm.width + x] = GifByteType(v);
            }
        return true;
    }
    std::size_t n = out.index.size();
    std::vector<GifByteType> red(n), green(n), blue(n);
    std::vector<bool> clear(n, false);
    bool anyClear = false;
    for (int y = 0; y < bm.height; ++y)
        for (int x = 0; x < bm.width; ++x) {
            std::uint8_t c[4];
            PixelRGBA(bm, x, y, c);
            std::size_t i = std::size_t(y) * bm.width + x;
            red[i] = c[0];
            green[i] = c[1];
            blue[i] = c[2];
            if (c[3] < 128) clear[i] = anyClear = true;
        }
    int size = anyClear ? 255 : 256;
    std::vector<GifColorType> map(256);
    if (GifQuantizeBuffer(unsigned(bm.width), unsigned(bm.height), &size, red.data(), green.data(),
                          blue.data(), out.index.data(), map.data()) != GIF_OK)
        return false;
    out.colours.assign(map.begin(), map.begin() + size);
    if (anyClear) {
        out.colours.resize(256, GifColorType{0, 0, 0});
        out.transparent = 255;
        for (std::size_t i = 0; i < n; ++i)
            if (clear[i]) out.index[i] = 255;
    }
    return true;
}
} // namespace

bool EncodeGIF(const std::vector<const Bitmap*>& pages, const std::string& path) {
    if (pages.empty()) return false;
    std::vector<GifPage> made(pages.size());
    for (std::size_t i = 0; i < pages.size(); ++i)
        if (!MakeGifPage(*pages[i], made[i])) return false;
    int err = 0;
    GifFileType* gif = EGifOpenFileName(path.c_str(), false, &err);
    if (!gif) return false;
    bool ok = true;
    EGifSetGifVersion(gif, true);
    ok = EGifPutScreenDesc(gif, made[0].w, made[0].h, 8, 0, nullptr) == GIF_OK;
    if (ok && pages.size() > 1 && pages[0]->loopCount >= 0) {
        unsigned char app[11];
        std::memcpy(app, "NETSCAPE2.0", 11);
        unsigned char sub[3] = {1, std::uint8_t(pages[0]->loopCount & 0xff),
                                std::uint8_t(pages[0]->loopCount >> 8)};
        ok = EGifPutExtensionLeader(gif, APPLICATION_EXT_FUNC_CODE) == GIF_OK &&
             EGifPutExtensionBlock(gif, 11, app) == GIF_OK &&
             EGifPutExtensionBlock(gif, 3, sub) == GIF_OK && EGifPutExtensionTrailer(gif) == GIF_OK;
    }
    for (std::size_t p = 0; ok && p < made.size(); ++p) {
        GifPage& g = made[p];
        GraphicsControlBlock gcb{};
        gcb.DisposalMode = pages[p]->disposal >= 0 && pages[p]->disposal <= 3
                               ? pages[p]->disposal
                               : DISPOSAL_UNSPECIFIED;
        gcb.UserInputFlag = false;
        gcb.DelayTime = pages[p]->delayMs > 0 ? (pages[p]->delayMs + 5) / 10 : 0;
        gcb.TransparentColor = g.transparent >= 0 ? g.transparent : NO_TRANSPARENT_COLOR;
        GifByteType ext[4];
        std::size_t len = EGifGCBToExtension(&gcb, ext);
        ok = EGifPutExtension(gif, GRAPHICS_EXT_FUNC_CODE, int(len), ext) == GIF_OK;
        int count = 2;
        while (count < int(g.colours.size()))
            count <<= 1;
        g.colours.resize(std::size_t(count), GifColorType{0, 0, 0});
        ColorMapObject* cmap = GifMakeMapObject(count, g.colours.data());
        ok = ok && cmap && EGifPutImageDesc(gif, 0, 0, g.w, g.h, false, cmap) == GIF_OK;
        for (int y = 0; ok && y < g.h; ++y)
            ok = EGifPutLine(gif, &g.index[std::size_t(y) * g.w], g.w) == GIF_OK;
        if (cmap) GifFreeMapObject(cmap);
    }
    if (EGifCloseFile(gif, &err) != GIF_OK) ok = false;
    if (!ok) std::remove(path.c_str());
    return ok;
}

} // namespace kyplug
