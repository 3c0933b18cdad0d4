// Encoders: what we write decodes to the same pixels with our decoder and with
// PIL, keeps indexed palettes and 16-bit samples, and multi-frame TIFF saves
// give one page per added image.
#include "codec_support.h"

namespace kestrelyn::codectest {
namespace {

// A bitmap of `format` with a deterministic pattern written in its own layout.
GpImage* Pattern(PixelFormat format, int w = 37, int h = 23) {
    GpImage* img = nullptr;
    EXPECT_EQ(GdipCreateBitmapFromScan0(w, h, 0, format, nullptr, &img), OK);
    if (!img) return nullptr;
    if (IsIndexedPixelFormat(format)) {
        int bits = GetPixelFormatSize(format);
        std::vector<std::uint8_t> buf(sizeof(ColorPalette) + 4 * 256);
        auto* pal = reinterpret_cast<ColorPalette*>(buf.data());
        pal->Count = 1u << bits;
        pal->Flags = 0;
        for (UINT i = 0; i < pal->Count; ++i)
            pal->Entries[i] = (bits == 1) ? (i ? 0xffffffffu : 0xff000000u)
                                          : 0xff000000u | (i * 0x9e3779u & 0xffffff);
        EXPECT_EQ(GdipSetImagePalette(img, pal), OK);
    }
    int bpp = GetPixelFormatSize(format);
    for (int y = 0; y < h; ++y) {
        std::uint8_t* row = img->Row(y);
        for (int i = 0; i < (w * bpp + 7) / 8; ++i)
            row[i] = static_cast<std::uint8_t>((i * 31 + y * 17) ^ (i >> 2));
        if (format == PixelFormat32bppRGB)
            for (int x = 0; x < w; ++x)
                row[4 * x + 3] = 255;
        if (format == PixelFormat32bppARGB)
            for (int x = 0; x < w; ++x)
                row[4 * x + 3] = x == 0 ? 0 : 255; // no invisible colour to compare
    }
    return img;
}

EncoderParameters OneLong(const GUID& category, UINT* value) {
    EncoderParameters p;
    p.Count = 1;
    p.Parameter[0].Guid = category;
    p.Parameter[0].NumberOfValues = 1;
    p.Parameter[0].Type = EncoderParameterValueTypeLong;
    p.Parameter[0].Value = value;
    return p;
}

const PixelFormat kFormats[] = {
    PixelFormat1bppIndexed, PixelFormat4bppIndexed, PixelFormat8bppIndexed, PixelFormat24bppRGB,
    PixelFormat32bppARGB,   PixelFormat32bppRGB,    PixelFormat48bppRGB,    PixelFormat64bppARGB};

void ExpectSameBits(GpImage* a, GpImage* b) {
    ASSERT_EQ(a->format, b->format);
    ASSERT_EQ(a->width, b->width);
    ASSERT_EQ(a->height, b->height);
    std::size_t bits = static_cast<std::size_t>(a->width) * GetPixelFormatSize(a->format);
    // whole bytes, then the used bits of a last partial byte
    for (int y = 0; y < a->height; ++y) {
        ASSERT_EQ(std::memcmp(a->Row(y), b->Row(y), bits / 8), 0) << "row " << y;
        if (bits % 8) {
            std::uint8_t mask = static_cast<std::uint8_t>(0xff00 >> (bits % 8));
            ASSERT_EQ(a->Row(y)[bits / 8] & mask, b->Row(y)[bits / 8] & mask) << "row " << y;
        }
    }
    if (IsIndexedPixelFormat(a->format)) {
        EXPECT_EQ(a->palette, b->palette);
    }
}

TEST(CodecEncode, PngRoundTripKeepsFormatBitsAndPalette) {
    for (PixelFormat f : kFormats) {
        SCOPED_TRACE(f);
        Image src(Pattern(f));
        std::string path = Scratch("rt.png");
        ASSERT_EQ(GdipSaveImageToFile(src, path, &EncoderClsidPNG, nullptr), OK);
        Image back;
        ASSERT_EQ(Load(path, back), OK);
        PixelFormat expect = f == PixelFormat32bppRGB ? PixelFormat24bppRGB : f;
        EXPECT_EQ(back.p->format, expect);
        if (expect == f) ExpectSameBits(src, back);
        Pixels ref;
        ASSERT_TRUE(PilRgba(path, ref));
        EXPECT_LE(MaxDiff(Ours(src), ref),
                  f == PixelFormat48bppRGB || f == PixelFormat64bppARGB ? 1 : 0);
    }
}

TEST(CodecEncode, TiffEveryCompressionRoundTrips) {
    const UINT compressions[] = {EncoderValueCompressionLZW, EncoderValueCompressionNone,
                                 EncoderValueCompressionCCITT3, EncoderValueCompressionCCITT4,
                                 EncoderValueCompressionRle};
    for (PixelFormat f : kFormats)
        for (UINT c : compressions) {
            SCOPED_TRACE(testing::Message() << "format " << f << " compression " << c);
            Image src(Pattern(f));
            UINT value = c;
            EncoderParameters p = OneLong(EncoderCompression, &value);
            std::string path = Scratch("rt.tif");
            ASSERT_EQ(GdipSaveImageToFile(src, path, &EncoderClsidTIFF, &p), OK);
            Image back;
            ASSERT_EQ(Load(path, back), OK);
            PixelFormat expect = f == PixelFormat32bppRGB ? PixelFormat24bppRGB : f;
            EXPECT_EQ(back.p->format, expect);
            if (expect == f) ExpectSameBits(src, back);
            Pixels ref;
            ASSERT_TRUE(PilRgba(path, ref));
            EXPECT_LE(MaxDiff(Ours(src), ref), GetPixelFormatSize(f) >= 48 ? 1 : 0);
            if (f == PixelFormat1bppIndexed && c == EncoderValueCompressionCCITT4) {
                EXPECT_TRUE(Shell("tiffinfo " + path + " | grep -q 'CCITT Group 4'"));
            }
            if (f == PixelFormat24bppRGB && c == EncoderValueCompressionCCITT4) {
                // the bitonal schemes are for 1 bit only
                EXPECT_TRUE(Shell("tiffinfo " + path + " | grep -q LZW"));
            }
        }
}

TEST(CodecEncode, TiffMultiFrameSave) {
    Image a(Pattern(PixelFormat24bppRGB, 10, 8)), b(Pattern(PixelFormat1bppIndexed, 33, 5)),
        c(Pattern(PixelFormat8bppIndexed, 7, 7));
    std::string path = Scratch("multi.tif");
    UINT flag = EncoderValueMultiFrame;
    EncoderParameters p = OneLong(EncoderSaveFlag, &flag);
    ASSERT_EQ(GdipSaveImageToFile(a, path, &EncoderClsidTIFF, &p), OK);
    flag = EncoderValueFrameDimensionPage;
    ASSERT_EQ(GdipSaveAddImage(a, b, &p), OK);
    ASSERT_EQ(GdipSaveAddImage(a, c, &p), OK);
    flag = EncoderValueFlush;
    ASSERT_EQ(GdipSaveAdd(a, &p), OK);
    EXPECT_EQ(GdipSaveAdd(a, &p), WrongState); // already complete
    Image back;
    ASSERT_EQ(Load(path, back), OK);
    UINT count = 0;
    ASSERT_EQ(GdipImageGetFrameCount(back, &FrameDimensionPage, &count), OK);
    ASSERT_EQ(count, 3u);
    GpImage* pages[] = {a, b, c};
    for (UINT i = 0; i < 3; ++i) {
        ASSERT_EQ(GdipImageSelectActiveFrame(back, &FrameDimensionPage, i), OK);
        EXPECT_EQ(MaxDiff(Ours(back), Ours(pages[i])), 0) << "page " << i;
        Pixels ref;
        ASSERT_TRUE(PilRgba(path, ref, static_cast<int>(i)));
        EXPECT_EQ(MaxDiff(Ours(pages[i]), ref), 0) << "page " << i;
    }
}

TEST(CodecEncode, BmpAndJpegAndStreams) {
    for (PixelFormat f : {PixelFormat1bppIndexed, PixelFormat4bppIndexed, PixelFormat8bppIndexed,
                          PixelFormat24bppRGB, PixelFormat32bppRGB}) {
        SCOPED_TRACE(f);
        Image src(Pattern(f));
        std::string path = Scratch("rt.bmp");
        ASSERT_EQ(GdipSaveImageToFile(src, path, &EncoderClsidBMP, nullptr), OK);
        Pixels ref;
        ASSERT_TRUE(PilRgba(path, ref));
        EXPECT_EQ(MaxDiff(Ours(src), ref), 0);
    }
    Image src(Pattern(PixelFormat24bppRGB));
    UINT q = 100;
    EncoderParameters p = OneLong(EncoderQuality, &q);
    auto stream = CreateMemoryStream();
    ASSERT_EQ(GdipSaveImageToStream(src, stream, &EncoderClsidJPEG, &p), OK);
    stream->Seek(0, Stream::Begin);
    Image back;
    ASSERT_EQ(GdipLoadImageFromStream(stream, back.out()), OK);
    GUID raw{};
    GdipGetImageRawFormat(back, &raw);
    EXPECT_TRUE(raw == ImageFormatJPEG);
    // the same decode as an independent libjpeg reader of the same bytes
    std::string jpg = Scratch("stream.jpg");
    stream->Seek(0, Stream::Begin);
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(stream->Stat()));
    ASSERT_EQ(stream->Read(bytes.data(), bytes.size()), bytes.size());
    WriteAll(jpg, bytes);
    Pixels ref;
    ASSERT_TRUE(PilRgba(jpg, ref));
    EXPECT_LE(MaxDiff(Ours(back), ref), 1);
    GUID unknown = ImageFormatPNG;
    EXPECT_EQ(GdipSaveImageToFile(src, Scratch("x.png"), &unknown, nullptr), UnknownImageFormat);
}

} // namespace
} // namespace kestrelyn::codectest
