// The demo: makes images, sets and reads pixels, converts formats, loads a
// file given on the command line (or built-in samples made in memory) and
// prints what it did. Exits with 1 if any step did not give what it should.
#include <kestrelyn/Imaging.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

using namespace kestrelyn;

namespace {

int gFailures = 0;

void Check(bool bOk, const char* sWhat) {
    std::printf("  %-58s %s\n", sWhat, bOk ? "ok" : "FAILED");
    if (!bOk) ++gFailures;
}

void Put16(std::vector<std::uint8_t>& v, std::uint32_t x) {
    v.push_back(static_cast<std::uint8_t>(x));
    v.push_back(static_cast<std::uint8_t>(x >> 8));
}
void Put32(std::vector<std::uint8_t>& v, std::uint32_t x) {
    Put16(v, x & 0xFFFF);
    Put16(v, x >> 16);
}

// The colour of the built-in sample at (x, y): a gradient with a dark frame.
std::uint32_t SampleColour(int x, int y, int w, int h) {
    if (x == 0 || y == 0 || x == w - 1 || y == h - 1) return 0xFF202020u;
    return 0xFF000000u | (static_cast<std::uint32_t>(x * 255 / (w - 1)) << 16) |
           (static_cast<std::uint32_t>(y * 255 / (h - 1)) << 8) | 0x80u;
}

// A 24-bit BMP file of the sample, bytes as they would be on disk.
std::vector<std::uint8_t> SampleBmp(int w, int h) {
    const std::uint32_t stride = static_cast<std::uint32_t>((w * 3 + 3) & ~3);
    std::vector<std::uint8_t> v{'B', 'M'};
    Put32(v, 54 + stride * static_cast<std::uint32_t>(h));
    Put32(v, 0);
    Put32(v, 54);
    Put32(v, 40);
    Put32(v, static_cast<std::uint32_t>(w));
    Put32(v, static_cast<std::uint32_t>(h));
    Put16(v, 1);
    Put16(v, 24);
    for (int i = 0; i < 6; ++i)
        Put32(v, i == 2 || i == 3 ? 3780 : 0); // 96 dpi
    for (int y = h - 1; y >= 0; --y) {
        std::uint32_t n = 0;
        for (int x = 0; x < w; ++x, n += 3) {
            const std::uint32_t c = SampleColour(x, y, w, h);
            v.push_back(static_cast<std::uint8_t>(c));
            v.push_back(static_cast<std::uint8_t>(c >> 8));
            v.push_back(static_cast<std::uint8_t>(c >> 16));
        }
        for (; n < stride; ++n)
            v.push_back(0);
    }
    return v;
}

// The same picture as a Targa file (read by the codec plug-in when present).
std::vector<std::uint8_t> SampleTga(int w, int h) {
    std::vector<std::uint8_t> v{0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    Put16(v, static_cast<std::uint32_t>(w));
    Put16(v, static_cast<std::uint32_t>(h));
    v.push_back(24);
    v.push_back(0x20); // top-left origin
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const std::uint32_t c = SampleColour(x, y, w, h);
            v.push_back(static_cast<std::uint8_t>(c));
            v.push_back(static_cast<std::uint8_t>(c >> 8));
            v.push_back(static_cast<std::uint8_t>(c >> 16));
        }
    return v;
}

void PrintFacts(Imaging& img, std::int32_t id, const char* sSource) {
    if (id == 0) {
        std::printf("  %-22s not loaded, status %d\n", sSource, static_cast<int>(img.GetStat()));
        return;
    }
    std::printf("  %-22s id %9d: %s, %dx%d, %s (%d bits), %.1f x %.1f dpi\n", sSource, id,
                img.GetImageFormat(id).c_str(), img.GetWidth(id), img.GetHeight(id),
                img.GetPixelFormatString(id).c_str(), img.GetPixelDepth(id),
                static_cast<double>(img.GetHorizontalResolution(id)),
                static_cast<double>(img.GetVerticalResolution(id)));
}

// Loads the file named on the command line, or the built-in samples.
void LoadDemo(Imaging& img, int argc, char** argv) {
    if (argc > 1) {
        std::printf("Loading %s:\n", argv[1]);
        const std::int32_t id = img.CreateImageFromFile(argv[1]);
        PrintFacts(img, id, "file");
        Check(id != 0, "the file was decoded");
        if (id) img.CloseImage(id);
        return;
    }
    std::printf("Loading built-in samples made in memory:\n");
    const int w = 40, h = 30;
    const std::vector<std::uint8_t> bmp = SampleBmp(w, h);
    const std::int32_t fromBytes = img.CreateImageFromByteArray(bmp);
    PrintFacts(img, fromBytes, "BMP from bytes");
    Check(fromBytes != 0 && img.GetImageFormat(fromBytes) == "BMP", "a BMP byte array loads");
    Check(static_cast<std::uint32_t>(img.PixelGetColor(10, 7)) == SampleColour(10, 7, w, h),
          "its pixels are the sample's");
    const std::int32_t fromStream = img.CreateImageFromStream(CreateMemoryStream(bmp));
    PrintFacts(img, fromStream, "BMP from a stream");
    Check(fromStream != 0, "the same bytes load from a memory stream");
    const std::int32_t targa = img.CreateImageFromByteArray(SampleTga(w, h));
    PrintFacts(img, targa, "Targa from bytes");
    if (targa != 0)
        Check(static_cast<std::uint32_t>(img.PixelGetColor(31, 22)) == SampleColour(31, 22, w, h),
              "the Targa (codec plug-in) matches the BMP");
    else
        std::printf("  (no codec plug-in found: Targa files need it)\n");
    std::int32_t length = static_cast<std::int32_t>(bmp.size());
    const std::int32_t fromMemory = img.CreateImageFromMemory(bmp.data(), length);
    Check(fromMemory != 0, "a memory block loads");
    img.CreateImageFromFile("/nonexistent/picture.png");
    Check(img.GetStat() == FileNotFound, "a missing file gives FileNotFound");
    for (std::int32_t id : {fromBytes, fromStream, targa, fromMemory})
        if (id) img.CloseImage(id);
}

// A generated three-page TIFF becomes a PDF and a PDF/A, one page per image
// page, each page the image's size at its resolution.
void PdfDemo(Imaging& img) {
    std::printf("Multi-page TIFF to PDF and PDF/A:\n");
    const std::string dir = std::filesystem::temp_directory_path().string();
    const std::string tiff = dir + "/kestrelyn-demo-pages.tif";
    const std::int32_t first = img.CreateNewImage(850, 1100, 24, 0xFFFFFFFFu); // letter at 100 dpi
    img.SetHorizontalResolution(100.0f);
    img.SetVerticalResolution(100.0f);
    const std::int32_t doc = img.TiffCreateMultiPageFromKestrelynImage(first);
    for (std::uint32_t colour : {0xFF3060C0u, 0xFF000000u}) {
        const std::int32_t page =
            img.CreateNewImage(850, 1100, colour == 0xFF000000u ? 1 : 24, colour);
        img.SetHorizontalResolution(100.0f, page);
        img.SetVerticalResolution(100.0f, page);
        img.TiffAppendPageFromKestrelynImage(doc, page);
        img.CloseImage(page);
    }
    Check(img.TiffSaveMultiPageToFile(doc, tiff) == OK, "a three-page TIFF is written");
    img.CloseImage(doc);
    img.CloseImage(first);
    const std::int32_t loaded = img.CreateImageFromFile(tiff);
    std::printf("  %s: %d pages\n", tiff.c_str(), img.TiffGetPageCount(loaded));
    const std::string pdf = dir + "/kestrelyn-demo-pages.pdf";
    const std::string pdfa = dir + "/kestrelyn-demo-pages-a.pdf";
    Check(img.PdfCreateFromMultipageTIFF(loaded, pdf, "Demo pages", "demo", "Kestrelyn") == OK,
          "PdfCreateFromMultipageTIFF writes a PDF");
    Check(img.PdfACreateFromMultipageTIFF(loaded, pdfa, "Demo pages", "demo", "Kestrelyn") == OK,
          "PdfACreateFromMultipageTIFF writes a PDF/A-1b");
    std::error_code ec;
    std::printf("  %s (%ju bytes), %s (%ju bytes)\n", pdf.c_str(),
                static_cast<std::uintmax_t>(std::filesystem::file_size(pdf, ec)), pdfa.c_str(),
                static_cast<std::uintmax_t>(std::filesystem::file_size(pdfa, ec)));
    img.CloseImage(loaded);
}

// FNV-1a over the pixels of the native image, as ARGB words.
std::uint32_t PixelChecksum(Imaging& img) {
    std::vector<std::int32_t> px;
    img.GetPixelArrayARGB(px, 0, 0, img.GetWidth(), img.GetHeight());
    std::uint32_t h = 2166136261u;
    for (std::int32_t v : px)
        for (int k = 0; k < 32; k += 8)
            h = (h ^ ((static_cast<std::uint32_t>(v) >> k) & 0xFF)) * 16777619u;
    return h;
}

// A few filters on the gradient sample with white specks: each step prints a
// pixel and a checksum of the whole image.
void FilterDemo(Imaging& img) {
    std::printf("Filters on a 64x48 gradient with white specks:\n");
    const int w = 64, h = 48;
    const std::int32_t id = img.CreateNewImage(w, h, 32);
    std::vector<std::int32_t> px(static_cast<std::size_t>(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            px[static_cast<std::size_t>(y) * w + x] = static_cast<std::int32_t>(
                (x * 7 + y * 3) % 23 == 0 ? 0xFFFFFFFFu : SampleColour(x, y, w, h));
    img.SetPixelArrayARGB(px, 0, 0, w, h);
    auto show = [&](const char* sStep) {
        std::printf("  %-14s border speck (23, 0) %08X, (30, 20) %08X, checksum %08X\n", sStep,
                    img.PixelGetColor(23, 0), img.PixelGetColor(30, 20), PixelChecksum(img));
    };
    show("as made");
    std::int32_t specks = 0;
    for (std::int32_t v : px)
        specks += static_cast<std::uint32_t>(v) == 0xFFFFFFFFu;
    Check(img.FxDespeckle() == OK, "FxDespeckle (3x3 median)");
    show("despeckled");
    std::vector<std::int32_t> after;
    img.GetPixelArrayARGB(after, 1, 1, w - 2, h - 2);
    std::int32_t left = 0;
    for (std::int32_t v : after)
        left += static_cast<std::uint32_t>(v) == 0xFFFFFFFFu;
    std::printf("  %d white specks before, %d inside the border after\n", specks, left);
    Check(left == 0, "no white speck is left inside the border");
    Check(img.SetContrast(40) == OK, "SetContrast(40)");
    show("contrast +40");
    Check(img.FxSharpen() == OK, "FxSharpen");
    show("sharpened");
    Check(img.FxGrayscale() == OK, "FxGrayscale");
    show("gray");
    const std::uint32_t c = img.PixelGetColor(30, 20);
    Check((c & 0xFF) == ((c >> 8) & 0xFF) && (c & 0xFF) == ((c >> 16) & 0xFF),
          "a gray pixel has equal red, green and blue");
    img.CloseImage(id);
}

} // namespace

int main(int argc, char** argv) {
    Imaging img;
    std::printf("Kestrelyn %.7f on engine %s\n", img.GetVersion(), img.GetGdiplusVersion().c_str());

    std::printf("New images at every depth:\n");
    for (int depth : {1, 4, 8, 16, 24, 32, 48, 64}) {
        const std::int32_t id = img.CreateNewImage(64, 48, depth, 0xFFFFFFFFu);
        std::printf("  depth %2d: id %9d, %s, %dx%d, stride %d\n", depth, id,
                    img.GetPixelFormatString().c_str(), img.GetWidth(), img.GetHeight(),
                    img.GetImageStride());
        if (id == 0) ++gFailures;
    }
    img.CreateNewImage(8, 8, 12);
    Check(img.GetStat() == InvalidParameter, "depth 12 is refused with InvalidParameter");

    std::printf("Pixels of a 24-bit image:\n");
    const std::int32_t rgb = img.CreateNewImage(16, 16, 24, 0xFF2040A0u);
    img.PixelSetColor(3, 4, 0xFFFF8000u);
    Check(static_cast<std::uint32_t>(img.PixelGetColor(3, 4)) == 0xFFFF8000u,
          "PixelSetColor then PixelGetColor");
    std::vector<std::int32_t> block(4 * 4, static_cast<std::int32_t>(0xFF00C000u));
    img.SetPixelArrayARGB(block, 8, 8, 4, 4);
    std::vector<std::int32_t> back;
    img.GetPixelArrayARGB(back, 8, 8, 4, 4);
    Check(back == block, "a 4x4 block written and read back");
    img.SetHorizontalResolution(300.0f);
    img.SetVerticalResolution(300.0f);
    std::printf("  16 px at 300 dpi = %.3f mm wide\n", img.GetWidthMM());

    std::printf("Conversions:\n");
    const std::int32_t argb = img.CreateClonedImageARGB(rgb);
    Check(img.GetPixelFormatString(argb) == "32bppARGB", "CreateClonedImageARGB gives 32bppARGB");
    Check(img.GetHorizontalResolution(argb) == 300.0f, "the copy keeps its resolution");
    const std::int32_t copy = img.CreateClonedImageI(rgb);
    const std::int32_t area = img.CreateClonedImageArea(rgb, 2, 2, 5, 3);
    std::printf("  independent copy %d (%s), area %dx%d\n", copy,
                img.GetPixelFormatString(copy).c_str(), img.GetWidth(area), img.GetHeight(area));
    img.ClearImage(0xFFFFFFFFu);
    img.SetNativeImage(copy);
    Check(static_cast<std::uint32_t>(img.PixelGetColor(3, 4)) == 0xFFFF8000u,
          "the copy did not change with the source");

    std::printf("Handles:\n");
    const HGLOBAL dib = img.GetDib(rgb);
    Check(dib != 0, "a DIB of the 24-bit image");
    img.RemoveDib(dib);
    Check(img.CopyToClipboard() == OK, "copy to the clipboard");
    img.DeleteClipboardData();

    LoadDemo(img, argc, argv);
    PdfDemo(img);
    FilterDemo(img);

    std::printf("Base64 of \"Kestrelyn\": %s\n", img.Encode64String("Kestrelyn").c_str());

    img.CloseImage(area);
    img.RemoveAllImage();
    img.GetWidth();
    Check(img.GetStat() == InvalidParameter, "after RemoveAllImage the native id is stale");

    std::printf("%s\n", gFailures == 0 ? "All steps done." : "Some steps failed.");
    return gFailures == 0 ? 0 : 1;
}
