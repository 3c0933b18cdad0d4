// Decoders checked pixel for pixel against independent decoders: PIL for the
// PNG suite, TIFF, BMP and GIF files written by PIL, ImageMagick and tiffcp;
// djpeg for JPEG. Inputs are generated into a scratch directory.
#include "codec_support.h"
#include "support/Checkers.h"

namespace kestrelyn::codectest {
namespace {

const char* kPngSuite = "/usr/share/go-1.19/src/image/png/testdata/pngsuite";

// A colourful test picture with a soft alpha ramp, written by PIL.
void MakeSource(const std::string& path) {
    ASSERT_TRUE(Py(R"(
im = Image.new('RGBA', (67, 41))
for y in range(41):
    for x in range(67):
        im.putpixel((x, y), ((x * 37) % 256, (y * 53) % 256, ((x + y) * 11) % 256, 255 if x < 40 else (x * 7) % 256))
im.save(sys.argv[1])
)",
                   path));
}

void ExpectMatchesPil(const std::string& path, int tolerance, bool ignoreAlpha = false) {
    SCOPED_TRACE(path);
    Image img;
    ASSERT_EQ(Load(path, img), OK);
    Pixels ref;
    ASSERT_TRUE(PilRgba(path, ref));
    int where = -1;
    int d = MaxDiff(Ours(img), ref, ignoreAlpha, &where);
    EXPECT_GE(d, 0) << "size differs";
    EXPECT_LE(d, tolerance) << "at pixel " << where;
}

TEST(CodecPng, SuiteMatchesPil) {
    auto files = ListDir(kPngSuite, ".png");
    KY_REQUIRE_CHECKER(!(files.empty()), "PNG suite not installed");
    int checked = 0;
    for (const auto& f : files) {
        std::string path = std::string(kPngSuite) + "/" + f;
        if (f[0] == 'x') continue; // corrupt files: below
        if (f == "ftbbn0g04.png" || f == "ftbwn0g16.png") {
            // Grey with tRNS where the reference falls short: PIL compares the
            // 4-bit key with samples scaled to 8 bits, and the 16-bit grey
            // reduction above drops the key. The white corner is the key.
            Image img;
            ASSERT_EQ(Load(path, img), OK);
            Pixels px = Ours(img);
            EXPECT_EQ(px.argb[0] >> 24, 0u) << f;
            EXPECT_EQ(px.argb[0] & 0xffffff, 0xffffffu) << f;
            ++checked;
            continue;
        }
        bool sixteen = f.find("16") != std::string::npos;
        ExpectMatchesPil(path, sixteen ? 1 : 0);
        ++checked;
    }
    EXPECT_GT(checked, 30);
}

TEST(CodecPng, SuiteCorruptFilesFailCleanly) {
    auto files = ListDir(kPngSuite, ".png");
    KY_REQUIRE_CHECKER(!(files.empty()), "PNG suite not installed");
    int before = OpenFdCount();
    for (const auto& f : files) {
        if (f[0] != 'x') continue;
        Image img;
        EXPECT_NE(Load(std::string(kPngSuite) + "/" + f, img), OK) << f;
        EXPECT_EQ(img.p, nullptr) << f;
    }
    EXPECT_EQ(OpenFdCount(), before);
}

TEST(CodecPng, FormatsKeepPrecisionAndPalette) {
    struct Case {
        const char* file;
        PixelFormat format;
    } cases[] = {{"basn3p02.png", PixelFormat4bppIndexed}, {"basn3p08.png", PixelFormat8bppIndexed},
                 {"basn0g01.png", PixelFormat1bppIndexed}, {"basn0g08.png", PixelFormat8bppIndexed},
                 {"basn0g16.png", PixelFormat48bppRGB},    {"basn2c08.png", PixelFormat24bppRGB},
                 {"basn2c16.png", PixelFormat48bppRGB},    {"basn6a08.png", PixelFormat32bppARGB},
                 {"basn6a16.png", PixelFormat64bppARGB},   {"basn4a08.png", PixelFormat32bppARGB},
                 {"ftbbn3p08.png", PixelFormat8bppIndexed}};
    KY_REQUIRE_CHECKER(!(ListDir(kPngSuite, ".png").empty()), "PNG suite not installed");
    for (const auto& c : cases) {
        Image img;
        ASSERT_EQ(Load(std::string(kPngSuite) + "/" + c.file, img), OK) << c.file;
        PixelFormat f = 0;
        GdipGetImagePixelFormat(img, &f);
        EXPECT_EQ(f, c.format) << c.file;
        GUID raw{};
        GdipGetImageRawFormat(img, &raw);
        EXPECT_TRUE(raw == ImageFormatPNG) << c.file;
    }
    // 16-bit samples are kept as stored: the first pixel of basn2c16 is
    // (0xffff, 0xffff, 0x0000).
    Image img;
    ASSERT_EQ(Load(std::string(kPngSuite) + "/basn2c16.png", img), OK);
    auto* row = reinterpret_cast<const std::uint16_t*>(img.p->Row(0));
    EXPECT_EQ(row[2], 0xffff); // red
    EXPECT_EQ(row[0], 0x0000); // blue
    // tRNS on a palette gives palette alpha.
    Image t;
    ASSERT_EQ(Load(std::string(kPngSuite) + "/ftbbn3p08.png", t), OK);
    bool transparentEntry = false;
    for (ARGB c : t.p->palette)
        transparentEntry |= (c >> 24) == 0;
    EXPECT_TRUE(transparentEntry);
}

TEST(CodecPng, ResolutionAndProfile) {
    std::string path = Scratch("dpi.png");
    ASSERT_TRUE(Py(R"(
from PIL import ImageCms
im = Image.new('RGB', (5, 4), (10, 20, 30))
prof = ImageCms.ImageCmsProfile(ImageCms.createProfile('sRGB')).tobytes()
im.save(sys.argv[1], dpi=(300, 150), icc_profile=prof)
)",
                   path));
    Image img;
    ASSERT_EQ(Load(path, img), OK);
    float x = 0, y = 0;
    GdipGetImageHorizontalResolution(img, &x);
    GdipGetImageVerticalResolution(img, &y);
    EXPECT_NEAR(x, 300, 0.05);
    EXPECT_NEAR(y, 150, 0.05);
    UINT size = 0;
    EXPECT_EQ(GdipGetPropertyItemSize(img, 34675, &size), OK);
    EXPECT_GT(size, sizeof(PropertyItem) + 100);
}

// --------------------------------------------------------------------- TIFF
TEST(CodecTiff, EveryPhotometricAndCompressionMatchesPil) {
    std::string src = Scratch("tsrc.png");
    MakeSource(src);
    struct Case {
        const char* name;
        const char* mode;
        const char* compression;
        int tolerance;
    } cases[] = {
        {"rgb_raw", "RGB", "raw", 0},          {"rgb_lzw", "RGB", "tiff_lzw", 0},
        {"rgb_zip", "RGB", "tiff_deflate", 0}, {"rgb_pack", "RGB", "packbits", 0},
        {"rgb_jpeg", "RGB", "jpeg", 3},        {"rgba_lzw", "RGBA", "tiff_lzw", 0},
        {"l_lzw", "L", "tiff_lzw", 0},         {"l_jpeg", "L", "jpeg", 3},
        {"p_lzw", "P", "tiff_lzw", 0},         {"bw_g3", "1", "group3", 0},
        {"bw_g4", "1", "group4", 0},           {"bw_raw", "1", "raw", 0},
        {"bw_pack", "1", "packbits", 0},       {"la_raw", "LA", "raw", 0},
        {"i16_raw", "I;16", "raw", 1},
    };
    for (const auto& c : cases) {
        std::string path = Scratch(std::string(c.name) + ".tif");
        ASSERT_TRUE(Py(R"(
im = Image.open(sys.argv[1])
mode, comp = sys.argv[3], sys.argv[4]
if mode == 'I;16':
    g = im.convert('L')
    im = Image.frombytes('I;16', g.size, bytes(b for v in g.tobytes() for b in (v, v)))
elif mode == 'P':
    im = im.convert('RGB').quantize(64)
else:
    im = im.convert(mode)
im.save(sys.argv[2], compression=comp)
)",
                       src + " " + path + " '" + c.mode + "' " + c.compression))
            << c.name;
        ExpectMatchesPil(path, c.tolerance);
    }
}

TEST(CodecTiff, MinIsWhiteTilesSixteenBitAndPaletteDepths) {
    std::string src = Scratch("tsrc2.png");
    MakeSource(src);
    std::string rgb = Scratch("t_rgb.tif");
    ASSERT_TRUE(Py("Image.open(sys.argv[1]).convert('RGB').save(sys.argv[2])", src + " " + rgb));
    struct Case {
        const char* name;
        std::string cmd;
        int tolerance;
    } cases[] = {
        {"miniswhite.tif",
         "/usr/bin/convert " + src +
             " -alpha off -colorspace gray -threshold 50% -depth 1 "
             "-define quantum:polarity=min-is-white -compress Group4 " +
             Scratch("miniswhite.tif"),
         0},
        {"tiled.tif", "tiffcp -t -w 16 -l 16 -c lzw " + rgb + " " + Scratch("tiled.tif"), 0},
        {"rgb16.tif",
         "/usr/bin/convert " + src + " -alpha off -depth 16 -compress zip " + Scratch("rgb16.tif"),
         1},
        {"rgba16.tif",
         "/usr/bin/convert " + src + " -depth 16 -compress lzw " + Scratch("rgba16.tif"), 1},
        {"pal4.tif",
         "/usr/bin/convert " + src + " -alpha off -colors 12 -type Palette -depth 4 " +
             Scratch("pal4.tif"),
         0},
        {"grey4.tif",
         "/usr/bin/convert " + src + " -alpha off -colorspace gray -depth 4 " +
             Scratch("grey4.tif"),
         0},
        {"cmyk.tif",
         "/usr/bin/convert -size 20x10 xc:'cmyk(0,128,255,0)' -depth 8 " + Scratch("cmyk.tif"), 1},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(Shell(c.cmd)) << c.cmd;
        ExpectMatchesPil(Scratch(c.name), c.tolerance);
    }
    Image bw;
    ASSERT_EQ(Load(Scratch("miniswhite.tif"), bw), OK);
    PixelFormat f = 0;
    GdipGetImagePixelFormat(bw, &f);
    EXPECT_EQ(f, PixelFormat1bppIndexed);
    UINT flags = 0;
    Image cmyk;
    ASSERT_EQ(Load(Scratch("cmyk.tif"), cmyk), OK);
    GdipGetImageFlags(cmyk, &flags);
    EXPECT_TRUE(flags & ImageFlagsColorSpaceCMYK);
}

TEST(CodecTiff, PagesTagsAndCentimetreResolution) {
    std::string path = Scratch("pages.tif");
    ASSERT_TRUE(Py(R"(
a = Image.new('RGB', (30, 20), (255, 0, 0))
b = Image.new('L', (12, 7), 99)
c = Image.new('1', (9, 9), 1)
a.save(sys.argv[1], save_all=True, append_images=[b, c], compression='tiff_lzw',
       resolution=100.0, resolution_unit='cm', tiffinfo={305: 'kestrel-test'})
)",
                   path));
    int fdsBefore = OpenFdCount();
    {
        Image img;
        ASSERT_EQ(Load(path, img), OK);
        EXPECT_EQ(OpenFdCount(), fdsBefore + 1); // the document's file, open while it lives
        UINT count = 0;
        ASSERT_EQ(GdipImageGetFrameCount(img, &FrameDimensionPage, &count), OK);
        EXPECT_EQ(count, 3u);
        float dpi = 0;
        GdipGetImageHorizontalResolution(img, &dpi);
        EXPECT_NEAR(dpi, 254.0, 0.01);
        UINT size = 0;
        ASSERT_EQ(GdipGetPropertyItemSize(img, 256, &size), OK); // ImageWidth
        std::vector<std::uint8_t> buf(size);
        auto* item = reinterpret_cast<PropertyItem*>(buf.data());
        ASSERT_EQ(GdipGetPropertyItem(img, 256, size, item), OK);
        EXPECT_EQ(item->type == PropertyTagTypeShort ? *static_cast<std::uint16_t*>(item->value)
                                                     : *static_cast<std::uint32_t*>(item->value),
                  30u);
        // File order: the tags of an IFD are sorted, ImageWidth comes first.
        UINT n = 0;
        GdipGetPropertyCount(img, &n);
        std::vector<PROPID> ids(n);
        GdipGetPropertyIdList(img, n, ids.data());
        ASSERT_FALSE(ids.empty());
        EXPECT_EQ(ids[0], 256u);
        ASSERT_EQ(GdipImageSelectActiveFrame(img, &FrameDimensionPage, 1), OK);
        UINT w = 0;
        GdipGetImageWidth(img, &w);
        EXPECT_EQ(w, 12u);
        Pixels px = Ours(img);
        EXPECT_EQ(px.argb[0], 0xff636363u);
        ASSERT_EQ(GdipImageSelectActiveFrame(img, &FrameDimensionPage, 2), OK);
        PixelFormat f = 0;
        GdipGetImagePixelFormat(img, &f);
        EXPECT_EQ(f, PixelFormat1bppIndexed);
        EXPECT_EQ(Ours(img).argb[5], 0xffffffffu);
        GUID raw{};
        GdipGetImageRawFormat(img, &raw);
        EXPECT_TRUE(raw == ImageFormatTIFF);
    }
    EXPECT_EQ(OpenFdCount(), fdsBefore);
}

// --------------------------------------------------------------------- JPEG
Pixels Djpeg(const std::string& jpg) {
    std::string ppm = Scratch("dj.pnm");
    Pixels px;
    EXPECT_TRUE(Shell("djpeg -pnm -outfile " + ppm + " " + jpg));
    EXPECT_TRUE(PilRgba(ppm, px));
    return px;
}

TEST(CodecJpeg, ColourAndGreyMatchDjpeg) {
    std::string src = Scratch("jsrc.png");
    MakeSource(src);
    for (const char* mode : {"RGB", "L"}) {
        for (const char* sub : {"0", "2"}) {
            std::string path = Scratch(std::string("j_") + mode + sub + ".jpg");
            ASSERT_TRUE(Py("Image.open(sys.argv[1]).convert(sys.argv[3]).save(sys.argv[2], "
                           "quality=80, subsampling=int(sys.argv[4]))",
                           src + " " + path + " " + mode + " " + sub));
            Image img;
            ASSERT_EQ(Load(path, img), OK) << path;
            EXPECT_EQ(MaxDiff(Ours(img), Djpeg(path)), 0) << path;
            PixelFormat f = 0;
            GdipGetImagePixelFormat(img, &f);
            EXPECT_EQ(f, std::string(mode) == "L" ? PixelFormat8bppIndexed : PixelFormat24bppRGB);
        }
    }
}

TEST(CodecJpeg, AdobeCmykIsConvertedAndFlagged) {
    std::string path = Scratch("cmyk.jpg");
    // PIL writes Adobe (inverted) CMYK JPEGs.
    ASSERT_TRUE(
        Py("Image.new('CMYK', (16, 16), (0, 102, 255, 51)).save(sys.argv[1], quality=100)", path));
    Image img;
    ASSERT_EQ(Load(path, img), OK);
    UINT flags = 0;
    GdipGetImageFlags(img, &flags);
    EXPECT_TRUE(flags & ImageFlagsColorSpaceCMYK);
    std::uint32_t p = Ours(img).argb[8 * 16 + 8];
    // (255-c)(255-k)/255 etc.: R 204, G 124, B 0
    EXPECT_NEAR(static_cast<int>((p >> 16) & 255), 204, 3);
    EXPECT_NEAR(static_cast<int>((p >> 8) & 255), 124, 3);
    EXPECT_NEAR(static_cast<int>(p & 255), 0, 3);
}

TEST(CodecJpeg, ExifPropertiesInFileOrderAndResolution) {
    std::string path = Scratch("exif.jpg");
    ASSERT_TRUE(Py(R"(
im = Image.new('RGB', (32, 24), (1, 2, 3))
ex = Image.Exif()
ex[271] = 'KyMake'
ex[272] = 'KyModel'
from PIL.TiffImagePlugin import IFDRational
ex[0x8769] = {33434: IFDRational(1, 125), 37510: b'ASCII\0\0\0hello'}
thumb = Image.new('RGB', (8, 6), (200, 0, 0))
im.save(sys.argv[1], exif=ex, dpi=(300, 300))
)",
                   path));
    Image img;
    ASSERT_EQ(Load(path, img), OK);
    UINT n = 0;
    GdipGetPropertyCount(img, &n);
    std::vector<PROPID> ids(n);
    GdipGetPropertyIdList(img, n, ids.data());
    auto pos = [&](PROPID id) { return std::find(ids.begin(), ids.end(), id) - ids.begin(); };
    ASSERT_LT(pos(271), static_cast<long>(n));
    ASSERT_LT(pos(33434), static_cast<long>(n));
    EXPECT_LT(pos(271), pos(272));
    EXPECT_LT(pos(272), pos(33434));
    UINT size = 0;
    ASSERT_EQ(GdipGetPropertyItemSize(img, 271, &size), OK);
    std::vector<std::uint8_t> buf(size);
    auto* item = reinterpret_cast<PropertyItem*>(buf.data());
    ASSERT_EQ(GdipGetPropertyItem(img, 271, size, item), OK);
    EXPECT_STREQ(static_cast<const char*>(item->value), "KyMake");
    ASSERT_EQ(GdipGetPropertyItemSize(img, 33434, &size), OK);
    buf.assign(size, 0);
    item = reinterpret_cast<PropertyItem*>(buf.data());
    ASSERT_EQ(GdipGetPropertyItem(img, 33434, size, item), OK);
    EXPECT_EQ(item->type, PropertyTagTypeRational);
    EXPECT_EQ(static_cast<std::uint32_t*>(item->value)[1], 125u);
    float dpi = 0;
    GdipGetImageHorizontalResolution(img, &dpi);
    EXPECT_FLOAT_EQ(dpi, 300);
}

// ---------------------------------------------------------------------- BMP
TEST(CodecBmp, VariantsMatchPil) {
    std::string src = Scratch("bsrc.png");
    MakeSource(src);
    std::string d = ScratchDir() + "/";
    std::vector<std::pair<std::string, std::string>> cases = {
        {"b1.bmp", "Image.open(sys.argv[1]).convert('1').save(sys.argv[2])"},
        {"b8.bmp", "Image.open(sys.argv[1]).convert('RGB').quantize(200).save(sys.argv[2])"},
        {"b24.bmp", "Image.open(sys.argv[1]).convert('RGB').save(sys.argv[2])"},
        {"bl.bmp", "Image.open(sys.argv[1]).convert('L').save(sys.argv[2])"},
    };
    for (const auto& [name, code] : cases) {
        ASSERT_TRUE(Py(code, src + " " + d + name)) << name;
        ExpectMatchesPil(d + name, 0);
    }
    std::string flat = d + "flat.png";
    ASSERT_TRUE(Py("Image.open(sys.argv[1]).convert('RGB').save(sys.argv[2])", src + " " + flat));
    std::vector<std::pair<std::string, std::string>> magick = {
        {"rle8.bmp", "-colors 100 -type Palette -compress RLE bmp3:"},
        {"rle4.bmp", "-colors 12 -type Palette -compress RLE bmp3:"},
        {"565.bmp", "-define bmp:subtype=RGB565 "},
        {"555.bmp", "-define bmp:subtype=RGB555 "},
        {"os2.bmp", "-type TrueColor bmp2:"},
        {"v5argb.bmp", "-define bmp:subtype=ARGB32 "},
        {"p4.bmp", "-colors 12 -type Palette bmp3:"},
    };
    for (const auto& [name, opts] : magick) {
        std::string in = name == "v5argb.bmp" ? src : flat;
        std::string cmd = "/usr/bin/convert " + in + " " + opts;
        if (cmd.back() != ':') cmd += " ";
        ASSERT_TRUE(Shell(cmd + d + name)) << cmd;
        ExpectMatchesPil(d + name, name == "565.bmp" || name == "555.bmp" ? 8 : 0,
                         name != "v5argb.bmp");
    }
    // Top-down rows: the same file with a negative height and rows reversed.
    auto bytes = ReadAll(d + "b24.bmp");
    std::uint32_t off = bytes[10] | (bytes[11] << 8) | (bytes[12] << 16) | (bytes[13] << 24);
    std::int32_t h = 0;
    std::memcpy(&h, bytes.data() + 22, 4);
    std::size_t rowBytes = (bytes.size() - off) / static_cast<std::size_t>(h);
    std::vector<std::uint8_t> td(bytes.begin(), bytes.begin() + off);
    for (std::int32_t r = h - 1; r >= 0; --r)
        td.insert(td.end(), bytes.begin() + off + r * rowBytes,
                  bytes.begin() + off + (r + 1) * rowBytes);
    std::int32_t neg = -h;
    std::memcpy(td.data() + 22, &neg, 4);
    WriteAll(d + "topdown.bmp", td);
    Image a, b;
    ASSERT_EQ(Load(d + "b24.bmp", a), OK);
    ASSERT_EQ(Load(d + "topdown.bmp", b), OK);
    EXPECT_EQ(MaxDiff(Ours(a), Ours(b)), 0);
}

TEST(CodecIco, LargestEntryBmpAndPng) {
    std::string src = Scratch("isrc.png");
    MakeSource(src);
    std::string ico = Scratch("multi.ico");
    ASSERT_TRUE(Py("Image.open(sys.argv[1]).resize((48, 48)).save(sys.argv[2], sizes=[(16, 16), "
                   "(48, 48), (32, 32)])",
                   src + " " + ico));
    Image img;
    ASSERT_EQ(Load(ico, img), OK);
    UINT w = 0;
    GdipGetImageWidth(img, &w);
    EXPECT_EQ(w, 48u);
    GUID raw{};
    GdipGetImageRawFormat(img, &raw);
    EXPECT_TRUE(raw == ImageFormatIcon);
    std::string bmpIco = Scratch("bmp.ico");
    ASSERT_TRUE(Shell("/usr/bin/convert " + src +
                      " -resize 32x32! -define icon:auto-resize=32,16 bmp:" + Scratch("x.bmp")));
    ASSERT_TRUE(Shell("/usr/bin/convert " + src +
                      " -resize 32x32! -define icon:auto-resize=32,16 " + bmpIco));
    Image i2;
    ASSERT_EQ(Load(bmpIco, i2), OK);
    Pixels ref;
    ASSERT_TRUE(PilRgba(bmpIco, ref));
    EXPECT_LE(MaxDiff(Ours(i2), ref), 0);
}

// ---------------------------------------------------------------------- GIF
TEST(CodecGif, FramesDelaysLoopCommentAndComposition) {
    std::string path = Scratch("anim.gif");
    ASSERT_TRUE(Py(R"(
frames = []
for i in range(3):
    im = Image.new('P', (20, 10), 0)
    im.putpalette([0, 0, 0, 255, 0, 0, 0, 255, 0, 0, 0, 255] + [0] * 744)
    for x in range(i * 5, i * 5 + 6):
        for y in range(10):
            im.putpixel((x, y), i + 1)
    frames.append(im)
frames[0].save(sys.argv[1], save_all=True, append_images=frames[1:], duration=[100, 200, 0],
               loop=2, comment=b'hello gif', transparency=0, disposal=1)
)",
                   path));
    Image img;
    ASSERT_EQ(Load(path, img), OK);
    UINT count = 0;
    ASSERT_EQ(GdipImageGetFrameCount(img, &FrameDimensionTime, &count), OK);
    EXPECT_EQ(count, 3u);
    UINT size = 0;
    ASSERT_EQ(GdipGetPropertyItemSize(img, 20736, &size), OK);
    std::vector<std::uint8_t> buf(size);
    auto* item = reinterpret_cast<PropertyItem*>(buf.data());
    ASSERT_EQ(GdipGetPropertyItem(img, 20736, size, item), OK);
    ASSERT_EQ(item->length, 12u);
    auto* delays = static_cast<std::uint32_t*>(item->value);
    EXPECT_EQ(delays[0], 10u);
    EXPECT_EQ(delays[1], 20u);
    EXPECT_EQ(delays[2], 0u);
    ASSERT_EQ(GdipGetPropertyItemSize(img, 20737, &size), OK);
    buf.assign(size, 0);
    item = reinterpret_cast<PropertyItem*>(buf.data());
    ASSERT_EQ(GdipGetPropertyItem(img, 20737, size, item), OK);
    EXPECT_EQ(*static_cast<std::uint16_t*>(item->value), 2);
    ASSERT_EQ(GdipGetPropertyItemSize(img, 37510, &size), OK);
    buf.assign(size, 0);
    item = reinterpret_cast<PropertyItem*>(buf.data());
    ASSERT_EQ(GdipGetPropertyItem(img, 37510, size, item), OK);
    EXPECT_STREQ(static_cast<const char*>(item->value), "hello gif");
    for (UINT i = 0; i < count; ++i) {
        ASSERT_EQ(GdipImageSelectActiveFrame(img, &FrameDimensionTime, i), OK);
        Pixels ref;
        ASSERT_TRUE(PilRgba(path, ref, static_cast<int>(i)));
        EXPECT_EQ(MaxDiff(Ours(img), ref), 0) << "frame " << i;
    }
    // Disposal 1 (leave in place): frame 2 still shows frame 0's red bar.
    EXPECT_EQ(Ours(img).argb[2], 0xffff0000u);
}

// ------------------------------------------------------------ broken inputs
TEST(CodecRobustness, EmptyGarbageTruncatedAndLyingFiles) {
    std::string src = Scratch("rsrc.png");
    MakeSource(src);
    std::vector<std::string> valid;
    for (const char* ext : {"png", "jpg", "gif", "tif", "bmp", "ico"}) {
        std::string p = Scratch(std::string("valid.") + ext);
        ASSERT_TRUE(Py("Image.open(sys.argv[1]).convert('RGB').save(sys.argv[2])", src + " " + p));
        valid.push_back(p);
    }
    int fds = OpenFdCount();
    Image none;
    EXPECT_EQ(Load(Scratch("does-not-exist.png"), none), FileNotFound);
    WriteAll(Scratch("empty.png"), {});
    EXPECT_EQ(Load(Scratch("empty.png"), none), UnknownImageFormat);
    WriteAll(Scratch("garbage.bin"), std::vector<std::uint8_t>(1000, 0x5a));
    EXPECT_EQ(Load(Scratch("garbage.bin"), none), UnknownImageFormat);
    for (const auto& p : valid) {
        auto bytes = ReadAll(p);
        for (std::size_t cut : {std::size_t{1}, std::size_t{4}, std::size_t{9}, std::size_t{20},
                                bytes.size() / 3, bytes.size() / 2, bytes.size() - 10}) {
            std::vector<std::uint8_t> part(bytes.begin(),
                                           bytes.begin() + static_cast<std::ptrdiff_t>(cut));
            WriteAll(Scratch("cut"), part);
            Image img;
            GpStatus st = Load(Scratch("cut"), img);
            if (cut <= 20) {
                EXPECT_NE(st, OK) << p << " cut at " << cut;
            }
            if (st != OK)
                EXPECT_EQ(img.p, nullptr);
            else
                EXPECT_GT(img.p->width, 0);
        }
        // Flipped bytes in the middle never crash.
        for (std::size_t i = 16; i < bytes.size(); i += bytes.size() / 7 + 1) {
            auto bad = bytes;
            for (std::size_t k = i; k < std::min(bad.size(), i + 8); ++k)
                bad[k] ^= 0xa5;
            WriteAll(Scratch("flip"), bad);
            Image img;
            Load(Scratch("flip"), img);
        }
    }
    // A BMP claiming 100000 x 100000 pixels in 70 bytes.
    std::vector<std::uint8_t> bmp(70, 0);
    bmp[0] = 'B', bmp[1] = 'M', bmp[10] = 54, bmp[14] = 40;
    std::uint32_t big = 100000;
    std::memcpy(&bmp[18], &big, 4);
    std::memcpy(&bmp[22], &big, 4);
    bmp[26] = 1, bmp[28] = 24;
    WriteAll(Scratch("huge.bmp"), bmp);
    EXPECT_EQ(Load(Scratch("huge.bmp"), none), OutOfMemory);
    // A PNG claiming 100000 x 100000.
    ASSERT_TRUE(Py(R"(
import struct, zlib
def chunk(t, d):
    return struct.pack('>I', len(d)) + t + d + struct.pack('>I', zlib.crc32(t + d) & 0xffffffff)
data = b'\x89PNG\r\n\x1a\n' + chunk(b'IHDR', struct.pack('>IIBBBBB', 100000, 100000, 8, 2, 0, 0, 0))
data += chunk(b'IDAT', zlib.compress(b'\0' * 100)) + chunk(b'IEND', b'')
open(sys.argv[1], 'wb').write(data)
)",
                   Scratch("huge.png")));
    EXPECT_EQ(Load(Scratch("huge.png"), none), OutOfMemory);
    EXPECT_EQ(OpenFdCount(), fds);
}

TEST(CodecLoad, StreamsAndContentNotName) {
    std::string src = Scratch("ssrc.png");
    MakeSource(src);
    std::string misnamed = Scratch("really_png.jpg");
    ASSERT_TRUE(
        Py("Image.open(sys.argv[1]).save(sys.argv[2], format='PNG')", src + " " + misnamed));
    Image img;
    ASSERT_EQ(Load(misnamed, img), OK);
    GUID raw{};
    GdipGetImageRawFormat(img, &raw);
    EXPECT_TRUE(raw == ImageFormatPNG);
    Image fromStream;
    ASSERT_EQ(GdipLoadImageFromStream(CreateMemoryStream(ReadAll(misnamed)), fromStream.out()), OK);
    EXPECT_EQ(MaxDiff(Ours(img), Ours(fromStream)), 0);
    Image null;
    EXPECT_EQ(GdipLoadImageFromStream(nullptr, null.out()), InvalidParameter);
}

TEST(CodecList, EncodersAndDecoders) {
    UINT n = 0, size = 0;
    ASSERT_EQ(GdipGetImageEncodersSize(&n, &size), OK);
    std::vector<ImageCodecInfo> enc(n);
    ASSERT_EQ(GdipGetImageEncoders(n, size, enc.data()), OK);
    auto has = [](const std::vector<ImageCodecInfo>& v, const char* mime, const GUID& clsid) {
        for (const auto& c : v)
            if (c.MimeType == mime && c.Clsid == clsid) return true;
        return false;
    };
    EXPECT_TRUE(has(enc, "image/png", EncoderClsidPNG));
    EXPECT_TRUE(has(enc, "image/tiff", EncoderClsidTIFF));
    EXPECT_TRUE(has(enc, "image/bmp", EncoderClsidBMP));
    EXPECT_TRUE(has(enc, "image/jpeg", EncoderClsidJPEG));
    ASSERT_EQ(GdipGetImageDecodersSize(&n, &size), OK);
    std::vector<ImageCodecInfo> dec(n);
    ASSERT_EQ(GdipGetImageDecoders(n, size, dec.data()), OK);
    EXPECT_TRUE(has(dec, "image/gif", EncoderClsidGIF));
    for (const auto& c : enc)
        EXPECT_NE(c.FilenameExtension.find("*."), std::string::npos);
    EXPECT_NE(GdipGetImageEncoders(n + 1, size, enc.data()), OK);
}

} // namespace
} // namespace kestrelyn::codectest
