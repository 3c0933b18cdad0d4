// The GIF writer, the PNG writer's compression choices and the tags written
// back by the JPEG and TIFF writers, checked by independent readers (PIL,
// ImageMagick, exiftool, tiffdump).
#include <random>

#include "codec_support.h"

namespace kestrelyn::codectest {
namespace {

// An indexed bitmap whose indices are random (every entry used), so that
// the LZW table fills and restarts several times.
GpImage* RandomIndexed(PixelFormat format, int w, int h, unsigned seed, int transparent = -1) {
    GpImage* img = nullptr;
    EXPECT_EQ(GdipCreateBitmapFromScan0(w, h, 0, format, nullptr, &img), OK);
    if (!img) return nullptr;
    const int bits = GetPixelFormatSize(format);
    std::vector<std::uint8_t> buf(sizeof(ColorPalette) + 4 * 256);
    auto* pal = reinterpret_cast<ColorPalette*>(buf.data());
    pal->Count = 1u << bits;
    pal->Flags = 0;
    for (UINT i = 0; i < pal->Count; ++i)
        pal->Entries[i] = 0xff000000u | ((i * 0x3b9ac1u + 0x1234u) & 0xffffff);
    if (transparent >= 0) pal->Entries[transparent] &= 0x00ffffffu;
    EXPECT_EQ(GdipSetImagePalette(img, pal), OK);
    std::mt19937 rng(seed);
    for (int y = 0; y < h; ++y) {
        std::uint8_t* row = img->Row(y);
        for (int i = 0; i < (w * bits + 7) / 8; ++i)
            row[i] = static_cast<std::uint8_t>(rng() & 0xff);
    }
    return img;
}

// The pixel indices of an indexed bitmap, one per pixel.
std::vector<int> Indices(GpImage* img) {
    const int bits = GetPixelFormatSize(img->format);
    std::vector<int> out;
    for (int y = 0; y < img->height; ++y) {
        const std::uint8_t* row = img->Row(y);
        for (int x = 0; x < img->width; ++x) {
            const std::size_t bit = static_cast<std::size_t>(x) * static_cast<std::size_t>(bits);
            const int shift = 8 - bits - static_cast<int>(bit % 8);
            out.push_back((row[bit / 8] >> shift) & ((1 << bits) - 1));
        }
    }
    return out;
}

// PIL's palette indices of a GIF, one per pixel, and its transparency index.
bool PilIndices(const std::string& path, std::vector<int>& out, int& transparency) {
    std::string raw = Scratch("idx.raw");
    if (!Py("im = Image.open(sys.argv[1]); assert im.mode == 'P', im.mode\n"
            "open(sys.argv[2], 'wb').write(bytes([im.info.get('transparency', 255) "
            "if isinstance(im.info.get('transparency', 255), int) else 254]) + im.tobytes())",
            path + " " + raw))
        return false;
    auto b = ReadAll(raw);
    if (b.empty()) return false;
    transparency = b[0] == 255 ? -1 : b[0];
    out.assign(b.begin() + 1, b.end());
    return true;
}

// ------------------------------------------------------------------ GIF
TEST(CodecGifWrite, IndexedPixelsAndPaletteRoundTripExactly) {
    struct Case {
        PixelFormat format;
        int w, h;
    };
    // 1 bit: the smallest code size (2); 8 bits over 4096 distinct strings,
    // so the table is cleared and restarted.
    for (Case c : {Case{PixelFormat1bppIndexed, 301, 97}, Case{PixelFormat4bppIndexed, 200, 150},
                   Case{PixelFormat8bppIndexed, 640, 480}, Case{PixelFormat8bppIndexed, 1, 1}}) {
        SCOPED_TRACE(testing::Message() << "format " << c.format << " " << c.w << "x" << c.h);
        Image src(RandomIndexed(c.format, c.w, c.h, 7));
        const std::string path = Scratch("rt.gif");
        ASSERT_EQ(GdipSaveImageToFile(src, path, &EncoderClsidGIF, nullptr), OK);
        // PIL: the same indices, the same colours
        std::vector<int> pil;
        int transparency = 0;
        ASSERT_TRUE(PilIndices(path, pil, transparency));
        EXPECT_EQ(pil, Indices(src));
        EXPECT_EQ(transparency, -1);
        Pixels ref;
        ASSERT_TRUE(PilRgba(path, ref));
        EXPECT_EQ(MaxDiff(Ours(src), ref), 0);
        // ImageMagick decodes the same size without complaint
        EXPECT_TRUE(Shell("identify -regard-warnings " + path + " | grep -q ' " +
                          std::to_string(c.w) + "x" + std::to_string(c.h) + " '"));
        // our decoder
        Image back;
        ASSERT_EQ(GdipLoadImageFromFile(path, back.out()), OK);
        EXPECT_EQ(MaxDiff(Ours(back), Ours(src)), 0);
    }
}

TEST(CodecGifWrite, MagickReadsEveryPixelOfALargeRandomPicture) {
    Image src(RandomIndexed(PixelFormat8bppIndexed, 333, 211, 11));
    const std::string path = Scratch("big.gif");
    ASSERT_EQ(GdipSaveImageToFile(src, path, &EncoderClsidGIF, nullptr), OK);
    const std::string rgba = Scratch("magick.rgba");
    ASSERT_TRUE(Shell("convert -regard-warnings " + path + " -depth 8 RGBA:" + rgba));
    auto b = ReadAll(rgba);
    Pixels ours = Ours(src);
    ASSERT_EQ(b.size(), ours.argb.size() * 4);
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < ours.argb.size(); ++i) {
        const std::uint32_t m = (std::uint32_t{b[4 * i + 3]} << 24) |
                                (std::uint32_t{b[4 * i]} << 16) |
                                (std::uint32_t{b[4 * i + 1]} << 8) | b[4 * i + 2];
        wrong += m != ours.argb[i];
    }
    EXPECT_EQ(wrong, 0u);
}

TEST(CodecGifWrite, TransparentEntryBecomesTheTransparentIndex) {
    Image src(RandomIndexed(PixelFormat8bppIndexed, 40, 30, 3, 9));
    const std::string path = Scratch("t.gif");
    ASSERT_EQ(GdipSaveImageToFile(src, path, &EncoderClsidGIF, nullptr), OK);
    std::vector<int> pil;
    int transparency = -1;
    ASSERT_TRUE(PilIndices(path, pil, transparency));
    EXPECT_EQ(transparency, 9);
    EXPECT_EQ(pil, Indices(src));
}

TEST(CodecGifWrite, ColourPicturesGoToTheHalftonePaletteLikeTheEngineConversion) {
    GpImage* raw = nullptr;
    ASSERT_EQ(GdipCreateBitmapFromScan0(64, 48, 0, PixelFormat24bppRGB, nullptr, &raw), OK);
    Image src(raw);
    for (int y = 0; y < 48; ++y)
        for (int x = 0; x < 64; ++x) {
            std::uint8_t* p = src.p->Row(y) + 3 * x;
            p[0] = static_cast<std::uint8_t>(x * 4), p[1] = static_cast<std::uint8_t>(y * 5),
            p[2] = static_cast<std::uint8_t>((x * y) & 255);
        }
    Image mapped;
    ASSERT_EQ(GdipCloneBitmapAreaI(0, 0, 64, 48, PixelFormat8bppIndexed, src, mapped.out()), OK);
    // a stream gets the same file as a path
    auto stream = CreateMemoryStream();
    ASSERT_EQ(GdipSaveImageToStream(src, stream, &EncoderClsidGIF, nullptr), OK);
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(stream->Stat()));
    stream->Seek(0, Stream::Begin);
    ASSERT_EQ(stream->Read(bytes.data(), bytes.size()), bytes.size());
    const std::string path = Scratch("c.gif");
    ASSERT_EQ(GdipSaveImageToFile(src, path, &EncoderClsidGIF, nullptr), OK);
    EXPECT_EQ(ReadAll(path), bytes);
    ASSERT_GE(bytes.size(), 6u);
    EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 6), "GIF89a");
    Pixels ref;
    ASSERT_TRUE(PilRgba(path, ref));
    EXPECT_EQ(MaxDiff(Ours(mapped), ref), 0);
    std::vector<int> pil;
    int transparency = 0;
    ASSERT_TRUE(PilIndices(path, pil, transparency));
    EXPECT_EQ(pil, Indices(mapped));
}

TEST(CodecGifWrite, TheEncoderIsListed) {
    UINT num = 0, size = 0;
    ASSERT_EQ(GdipGetImageEncodersSize(&num, &size), OK);
    std::vector<ImageCodecInfo> list(num);
    ASSERT_EQ(GdipGetImageEncoders(num, size, list.data()), OK);
    bool found = false;
    for (const auto& c : list)
        if (c.Clsid == EncoderClsidGIF) {
            found = true;
            EXPECT_EQ(c.FilenameExtension, "*.GIF");
            EXPECT_EQ(c.MimeType, "image/gif");
        }
    EXPECT_TRUE(found);
}

// ------------------------------------------------------------------ PNG
// Size of PIL's default PNG (level 6, adaptive filters) of the same file.
long PilPngSize(const std::string& path) {
    const std::string out = Scratch("pil.png"), size = Scratch("pil.size");
    if (!Py("Image.open(sys.argv[1]).save(sys.argv[2])\n"
            "import os; open(sys.argv[3], 'w').write(str(os.path.getsize(sys.argv[2])))",
            path + " " + out + " " + size))
        return -1;
    auto b = ReadAll(size);
    return std::stol(std::string(b.begin(), b.end()));
}

long FileSize(const std::string& path) {
    return static_cast<long>(ReadAll(path).size());
}

TEST(CodecPngWrite, NoisyAndDrawnPicturesStayNearPilsSize) {
    GpImage* raw = nullptr;
    const int w = 500, h = 300;
    // a photograph-like gradient with noise, and a drawing: flat colour,
    // repeated glyph-like marks
    for (int kind = 0; kind < 2; ++kind) {
        SCOPED_TRACE(kind == 0 ? "noise" : "drawing");
        ASSERT_EQ(GdipCreateBitmapFromScan0(w, h, 0, PixelFormat24bppRGB, nullptr, &raw), OK);
        Image src(raw);
        std::mt19937 rng(5);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                std::uint8_t* p = src.p->Row(y) + 3 * x;
                if (kind == 0) {
                    p[0] = static_cast<std::uint8_t>(x * 255 / w + (rng() & 15));
                    p[1] = static_cast<std::uint8_t>(y * 255 / h);
                    p[2] = static_cast<std::uint8_t>(rng() & 63);
                } else {
                    const bool ink = ((x % 9) < 2 && (y % 14) < 10) ||
                                     ((x / 9 + y / 14) % 7 == 0 && (x % 9) == (y % 14) % 9);
                    p[0] = p[1] = p[2] = ink ? 20 : 250;
                    if ((y / 14) % 5 == 0) p[0] = 200, p[1] = 90, p[2] = 40;
                }
            }
        const std::string path = Scratch("s.png");
        ASSERT_EQ(GdipSaveImageToFile(src, path, &EncoderClsidPNG, nullptr), OK);
        Pixels ref;
        ASSERT_TRUE(PilRgba(path, ref));
        EXPECT_EQ(MaxDiff(Ours(src), ref), 0);
        const long pil = PilPngSize(path);
        ASSERT_GT(pil, 0);
        EXPECT_LE(FileSize(path), pil * 115 / 100) << "ours " << FileSize(path) << " PIL " << pil;
    }
}

TEST(CodecPngWrite, AFileThatCannotBeWrittenFails) {
    Image src(RandomIndexed(PixelFormat8bppIndexed, 10, 10, 1));
    const std::string path = Scratch("no/such/dir.png");
    EXPECT_NE(GdipSaveImageToFile(src, path, &EncoderClsidPNG, nullptr), OK);
    EXPECT_NE(GdipSaveImageToFile(src, path, &EncoderClsidGIF, nullptr), OK);
    // a file that cannot take the bytes (a directory's name) is not left
    EXPECT_NE(GdipSaveImageToFile(src, ScratchDir(), &EncoderClsidPNG, nullptr), OK);
}

// ------------------------------------------------------------------ tags
std::string Output(const std::string& cmd) {
    std::string out;
    if (FILE* p = popen((cmd + " 2>&1").c_str(), "r")) {
        char buf[4096];
        std::size_t n;
        while ((n = fread(buf, 1, sizeof buf, p)) > 0)
            out.append(buf, n);
        pclose(p);
    }
    return out;
}

std::string PropertyText(GpImage* img, PROPID id) {
    UINT size = 0;
    if (GdipGetPropertyItemSize(img, id, &size) != OK) return "";
    std::vector<std::uint8_t> buf(size);
    auto* item = reinterpret_cast<PropertyItem*>(buf.data());
    if (GdipGetPropertyItem(img, id, size, item) != OK) return "";
    return std::string(static_cast<const char*>(item->value));
}

TEST(CodecTagsWrite, JpegKeepsExifGpsThumbnailAndIccThroughALoadAndSave) {
    const std::string src = Scratch("exif_src.jpg"), thumb = Scratch("thumb.jpg"),
                      icc = Scratch("src.icc");
    // A file with IFD0, EXIF and GPS tags and an ICC profile (PIL), and a
    // thumbnail (exiftool).
    ASSERT_TRUE(Py(R"(
from PIL import ImageCms
from PIL.TiffImagePlugin import IFDRational
im = Image.new('RGB', (120, 80), (40, 120, 200))
exif = Image.Exif()
exif[0x010F] = 'KestrelCam'
exif[0x0110] = 'Model 7'
exif[0x0131] = 'Original software'
exif[0x8769] = {0x9003: '2021:05:06 07:08:09', 0xA002: 999, 0x829A: IFDRational(1, 250)}
exif[0x8825] = {1: 'N', 2: (52.0, 30.0, 0.0)}
prof = ImageCms.ImageCmsProfile(ImageCms.createProfile('sRGB')).tobytes()
open(sys.argv[3], 'wb').write(prof)
im.save(sys.argv[1], exif=exif, icc_profile=prof, quality=90)
Image.new('RGB', (16, 12), (200, 10, 10)).save(sys.argv[2], quality=80)
)",
                   src + " " + thumb + " " + icc));
    ASSERT_TRUE(Shell("exiftool -q -overwrite_original '-ThumbnailImage<=" + thumb + "' " + src));
    Image img;
    ASSERT_EQ(GdipLoadImageFromFile(src, img.out()), OK);
    EXPECT_EQ(PropertyText(img, 0x010F), "KestrelCam");
    const std::string out = Scratch("exif_out.jpg");
    ASSERT_EQ(GdipSaveImageToFile(img, out, &EncoderClsidJPEG, nullptr), OK);

    const std::string tags =
        Output("exiftool -s -Make -Model -Software -DateTimeOriginal -ExposureTime "
               "-ExifImageWidth -GPSLatitudeRef -GPSLatitude -ThumbnailLength -Warning " +
               out);
    EXPECT_NE(tags.find("Make                            : KestrelCam"), std::string::npos) << tags;
    EXPECT_NE(tags.find("Model                           : Model 7"), std::string::npos) << tags;
    EXPECT_NE(tags.find("Software                        : Original software"), std::string::npos)
        << tags;
    EXPECT_NE(tags.find("DateTimeOriginal                : 2021:05:06 07:08:09"), std::string::npos)
        << tags;
    EXPECT_NE(tags.find("ExposureTime                    : 1/250"), std::string::npos) << tags;
    EXPECT_NE(tags.find("ExifImageWidth                  : 120"), std::string::npos)
        << "the stored width follows the picture: " << tags;
    EXPECT_NE(tags.find("GPSLatitudeRef                  : North"), std::string::npos) << tags;
    EXPECT_NE(tags.find("GPSLatitude                     : 52 deg 30' 0.00\""), std::string::npos)
        << tags;
    EXPECT_EQ(tags.find("Warning"), std::string::npos) << tags;
    // the thumbnail's bytes are the original's
    const std::string orig = Output("exiftool -b -ThumbnailImage " + src);
    EXPECT_GT(orig.size(), 100u);
    EXPECT_EQ(Output("exiftool -b -ThumbnailImage " + out), orig);
    // PIL finds the same ICC profile and the EXIF fields
    ASSERT_TRUE(Py(R"(
im = Image.open(sys.argv[1])
assert im.info.get('icc_profile') == open(sys.argv[2], 'rb').read(), 'icc differs'
e = im.getexif()
assert e[0x010F] == 'KestrelCam' and e[0x0110] == 'Model 7', dict(e)
assert e.get_ifd(0x8769)[0x9003] == '2021:05:06 07:08:09'
)",
                   out + " " + icc));
}

TEST(CodecTagsWrite, JpegWithoutTagsHasNoExifSegment) {
    Image src(RandomIndexed(PixelFormat8bppIndexed, 20, 20, 2));
    const std::string out = Scratch("plain.jpg");
    ASSERT_EQ(GdipSaveImageToFile(src, out, &EncoderClsidJPEG, nullptr), OK);
    auto b = ReadAll(out);
    const std::string s(b.begin(), b.end());
    EXPECT_EQ(s.find("Exif"), std::string::npos);
    EXPECT_EQ(s.find("ICC_PROFILE"), std::string::npos);
}

TEST(CodecTagsWrite, TiffWritesAsciiAndCustomTagsButNotLayoutTags) {
    Image src(RandomIndexed(PixelFormat8bppIndexed, 30, 20, 4));
    auto ascii = [&](PROPID id, const std::string& text) {
        PropertyItem item{id, static_cast<std::uint32_t>(text.size() + 1), PropertyTagTypeASCII,
                          const_cast<char*>(text.c_str())};
        ASSERT_EQ(GdipSetPropertyItem(src, &item), OK);
    };
    ascii(315, "An Artist");
    ascii(305, "Kestrelyn test");
    ascii(65000, "private text");
    std::uint16_t shorts[3] = {7, 8, 9};
    PropertyItem custom{65001, 6, PropertyTagTypeShort, shorts};
    ASSERT_EQ(GdipSetPropertyItem(src, &custom), OK);
    std::uint32_t wrongWidth = 5;
    PropertyItem width{256, 4, PropertyTagTypeLong, &wrongWidth};
    ASSERT_EQ(GdipSetPropertyItem(src, &width), OK);
    std::uint16_t engineOwn = 1;
    PropertyItem own{0x5100, 2, PropertyTagTypeShort, &engineOwn}; // a frame delay id
    ASSERT_EQ(GdipSetPropertyItem(src, &own), OK);
    for (UINT compression : {EncoderValueCompressionLZW, EncoderValueCompressionNone}) {
        const std::string out = Scratch("tags.tif");
        UINT value = compression;
        EncoderParameters p;
        p.Count = 1;
        p.Parameter[0] = {EncoderCompression, 1, EncoderParameterValueTypeLong, &value};
        ASSERT_EQ(GdipSaveImageToFile(src, out, &EncoderClsidTIFF, &p), OK);
        const std::string dump = Output("tiffdump " + out);
        EXPECT_NE(dump.find("Artist (315) ASCII (2) 10<An Artist\\0>"), std::string::npos) << dump;
        EXPECT_NE(dump.find("Software (305) ASCII (2) 15<Kestrelyn test\\0>"), std::string::npos)
            << dump;
        EXPECT_NE(dump.find("65000 (0xfde8) ASCII (2) 13<private text\\0>"), std::string::npos)
            << dump;
        EXPECT_NE(dump.find("65001 (0xfde9) SHORT (3) 3<7 8 9>"), std::string::npos) << dump;
        EXPECT_NE(dump.find("ImageWidth (256) SHORT (3) 1<30>"), std::string::npos) << dump;
        EXPECT_EQ(dump.find("20736"), std::string::npos) << "engine ids stay out: " << dump;
        Pixels ref;
        ASSERT_TRUE(PilRgba(out, ref));
        EXPECT_EQ(MaxDiff(Ours(src), ref), 0);
        // and the tags come back as properties
        Image back;
        ASSERT_EQ(GdipLoadImageFromFile(out, back.out()), OK);
        EXPECT_EQ(PropertyText(back, 315), "An Artist");
        EXPECT_EQ(PropertyText(back, 65000), "private text");
    }
}

TEST(CodecTagsWrite, TiffKeepsTheIccProfile) {
    Image src(RandomIndexed(PixelFormat8bppIndexed, 8, 8, 6));
    const std::string icc = Scratch("p.icc");
    ASSERT_TRUE(Py("from PIL import ImageCms\nopen(sys.argv[1], 'wb').write(ImageCms."
                   "ImageCmsProfile(ImageCms.createProfile('sRGB')).tobytes())",
                   icc));
    auto prof = ReadAll(icc);
    PropertyItem item{34675, static_cast<std::uint32_t>(prof.size()), PropertyTagTypeUndefined,
                      prof.data()};
    ASSERT_EQ(GdipSetPropertyItem(src, &item), OK);
    const std::string out = Scratch("icc.tif");
    ASSERT_EQ(GdipSaveImageToFile(src, out, &EncoderClsidTIFF, nullptr), OK);
    EXPECT_TRUE(Py("im = Image.open(sys.argv[1])\nassert im.info['icc_profile'] == "
                   "open(sys.argv[2], 'rb').read()",
                   out + " " + icc));
}

TEST(CodecTiffWrite, GroupFourPagesAreOneStripAndAFailedSaveLeavesNoFile) {
    Image src(RandomIndexed(PixelFormat1bppIndexed, 200, 300, 8));
    std::vector<std::uint8_t> buf(sizeof(ColorPalette) + 8);
    auto* pal = reinterpret_cast<ColorPalette*>(buf.data());
    pal->Count = 2;
    pal->Flags = 0;
    pal->Entries[0] = 0xff000000u;
    pal->Entries[1] = 0xffffffffu;
    ASSERT_EQ(GdipSetImagePalette(src, pal), OK);
    UINT value = EncoderValueCompressionCCITT4;
    EncoderParameters p;
    p.Count = 1;
    p.Parameter[0] = {EncoderCompression, 1, EncoderParameterValueTypeLong, &value};
    const std::string out = Scratch("g4.tif");
    ASSERT_EQ(GdipSaveImageToFile(src, out, &EncoderClsidTIFF, &p), OK);
    const std::string dump = Output("tiffdump " + out);
    EXPECT_NE(dump.find("StripOffsets (273) LONG (4) 1<"), std::string::npos) << dump;
    EXPECT_NE(dump.find("RowsPerStrip (278) SHORT (3) 1<300>"), std::string::npos) << dump;
    Pixels ref;
    ASSERT_TRUE(PilRgba(out, ref));
    EXPECT_EQ(MaxDiff(Ours(src), ref), 0);
    EXPECT_NE(GdipSaveImageToFile(src, Scratch("none/x.tif"), &EncoderClsidTIFF, &p), OK);
}

} // namespace
} // namespace kestrelyn::codectest
