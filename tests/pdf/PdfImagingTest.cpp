// The PDF operations of Imaging: the filter chosen per depth of a registry
// image, whole files from the native image and from multi-page images
// (plain, PDF/A, encrypted), and the application-built document. Files are
// read back by qpdf, pdfinfo, pdfimages, pdftoppm, pdftotext and exiftool.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "PdfImagingSupport.h"
#include "PdfTestSupport.h"
#include "core/CodecPluginBridge.h"
#include "imaging/PdfImageSource.h"
#include "kestrelyn/Imaging.h"
#include "pdf/cPDF.h"
#include "platform/Ccitt.h"
#include "platform/modkyimgplug.h"
#include "support/Checkers.h"

namespace kestrelyn {
namespace {

using namespace pdftest;

bool StartsWith(const std::string& s, const std::string& sPrefix) {
    return s.compare(0, sPrefix.size(), sPrefix) == 0;
}

std::string TestPath(const std::string& sSuffix) {
    return ScratchPath(
        std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + sSuffix);
}

// 1 bit, 16 by 16, palette black then white; the left half black.
std::int32_t HalfBlackBitonal(Imaging& oImaging, std::vector<ARGB> arPalette) {
    std::vector<std::uint8_t> arRows(16 * 2);
    const bool bBlackFirst = (arPalette[0] & 0xFFFFFF) == 0;
    for (int y = 0; y < 16; ++y) {
        arRows[y * 2] = bBlackFirst ? 0x00 : 0xFF;     // left 8 pixels black
        arRows[y * 2 + 1] = bBlackFirst ? 0xFF : 0x00; // right 8 white
    }
    return MakeImage(oImaging, 16, 16, PixelFormat1bppIndexed, arRows, 2, arPalette);
}

std::int32_t SolidRgb(Imaging& oImaging, int nWidth, int nHeight, std::uint8_t r, std::uint8_t g,
                      std::uint8_t b, float nDpi = 72) {
    const int nStride = (nWidth * 3 + 3) / 4 * 4;
    std::vector<std::uint8_t> arRows(static_cast<std::size_t>(nStride) * nHeight);
    for (int y = 0; y < nHeight; ++y)
        for (int x = 0; x < nWidth; ++x) {
            arRows[y * nStride + x * 3] = b;
            arRows[y * nStride + x * 3 + 1] = g;
            arRows[y * nStride + x * 3 + 2] = r;
        }
    return MakeImage(oImaging, nWidth, nHeight, PixelFormat24bppRGB, arRows, nStride, {}, nDpi);
}

class PdfImagingFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        KY_REQUIRE_CHECKER(HaveTool("qpdf") && HaveTool("pdfinfo") && HaveTool("pdfimages"),
                           "poppler-utils and qpdf are needed");
    }
    // One image on a page of its own through the application-built document.
    std::string OneImagePdf(std::int32_t nImageID) {
        const std::string sPath = TestPath(".pdf");
        EXPECT_TRUE(oImaging.PdfNewPdf(sPath, "t"));
        const std::int32_t nImage = oImaging.PdfAddImageFromKestrelynImage(nImageID);
        EXPECT_EQ(nImage, 1);
        oImaging.PdfSetPageDimensions(100, 100);
        oImaging.PdfDrawImage(nImage, 0, 0, 100, 100);
        EXPECT_TRUE(oImaging.PdfSavePdf());
        ExpectQpdfCheck(sPath);
        return sPath;
    }
    Imaging oImaging;
};

// --- the filter per depth -------------------------------------------------

TEST_F(PdfImagingFixture, OneBitIsGroup4AndRendersBlackWhereTheBitsAre) {
    for (const std::vector<ARGB>& arPalette : {std::vector<ARGB>{0xFF000000u, 0xFFFFFFFFu},
                                               std::vector<ARGB>{0xFFFFFFFFu, 0xFF000000u}}) {
        const std::string sPath = OneImagePdf(HalfBlackBitonal(oImaging, arPalette));
        const auto arImages = ListImages(sPath);
        ASSERT_EQ(arImages.size(), 1u);
        EXPECT_EQ(arImages[0].sEncoding, "ccitt");
        EXPECT_EQ(arImages[0].sColor, "gray");
        EXPECT_EQ(arImages[0].nBits, 1);
        const GrayPage oPage = RenderGray(sPath);
        ASSERT_EQ(oPage.nWidth, 100);
        EXPECT_LT(oPage.AtPdf(20, 50), 30) << "palette first " << std::hex << arPalette[0];
        EXPECT_GT(oPage.AtPdf(80, 50), 225) << "palette first " << std::hex << arPalette[0];
    }
}

TEST_F(PdfImagingFixture, OneBitInColourIsAnIndexedImage) {
    const std::string sPath =
        OneImagePdf(HalfBlackBitonal(oImaging, {0xFF0000FFu, 0xFFFFFFFFu})); // blue, white
    const std::string sFile = ReadFileBytes(sPath);
    EXPECT_NE(sFile.find("/BitsPerComponent 1/ColorSpace [/Indexed/DeviceRGB 1 "),
              std::string::npos);
    const auto arImages = ListImages(sPath);
    ASSERT_EQ(arImages.size(), 1u);
    EXPECT_EQ(arImages[0].sColor, "index");
    EXPECT_EQ(arImages[0].sEncoding, "ccitt");
}

TEST_F(PdfImagingFixture, PalettesAreFlateWithTheirIndex) {
    // 4 bits: 16 entries, pixel value = column / 2.
    std::vector<ARGB> arPalette16;
    for (ARGB i = 0; i < 16; ++i)
        arPalette16.push_back(0xFF000000u | (i * 17) << 16);
    std::vector<std::uint8_t> arRows4(16 * 8);
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 8; ++x)
            arRows4[y * 8 + x] = static_cast<std::uint8_t>(x << 4 | x);
    const std::string sPath4 =
        OneImagePdf(MakeImage(oImaging, 16, 16, PixelFormat4bppIndexed, arRows4, 8, arPalette16));
    auto arImages = ListImages(sPath4);
    ASSERT_EQ(arImages.size(), 1u);
    EXPECT_EQ(arImages[0].sColor, "index");
    EXPECT_EQ(arImages[0].nBits, 4);
    EXPECT_EQ(arImages[0].sEncoding, "image"); // Flate shows as a plain image

    // 8 bits, 200 colours: the palette object has 768 bytes, the rest black.
    std::vector<ARGB> arPalette200;
    for (ARGB i = 0; i < 200; ++i)
        arPalette200.push_back(0xFF000000u | i << 8 | (199 - i));
    std::vector<std::uint8_t> arRows8(16 * 16, 150);
    const std::string sPath8 =
        OneImagePdf(MakeImage(oImaging, 16, 16, PixelFormat8bppIndexed, arRows8, 16, arPalette200));
    const std::string sFile = ReadFileBytes(sPath8);
    EXPECT_NE(sFile.find("/Filter/FlateDecode/Name/Img1/BitsPerComponent 8/ColorSpace [/Indexed/"
                         "DeviceRGB 255 "),
              std::string::npos);
    EXPECT_NE(sFile.find("<</Length 768>>stream"), std::string::npos);
    arImages = ListImages(sPath8);
    ASSERT_EQ(arImages.size(), 1u);
    EXPECT_EQ(arImages[0].sColor, "index");
}

TEST_F(PdfImagingFixture, TrueColourIsJpegInDeviceRgb) {
    const std::string sPath = OneImagePdf(SolidRgb(oImaging, 32, 32, 0, 0, 0));
    auto arImages = ListImages(sPath);
    ASSERT_EQ(arImages.size(), 1u);
    EXPECT_EQ(arImages[0].sEncoding, "jpeg");
    EXPECT_EQ(arImages[0].sColor, "rgb");
    EXPECT_LT(RenderGray(sPath).AtPdf(50, 50), 10);

    // A 32-bit image with alpha goes the same way; the alpha is dropped.
    std::vector<std::uint8_t> arArgb(16 * 16 * 4);
    for (std::size_t i = 0; i < arArgb.size(); i += 4) {
        arArgb[i] = 0;        // blue
        arArgb[i + 1] = 0;    // green
        arArgb[i + 2] = 255;  // red
        arArgb[i + 3] = 0x80; // half transparent
    }
    const std::string sPath32 =
        OneImagePdf(MakeImage(oImaging, 16, 16, PixelFormat32bppARGB, arArgb, 64));
    arImages = ListImages(sPath32);
    ASSERT_EQ(arImages.size(), 1u);
    EXPECT_EQ(arImages[0].sEncoding, "jpeg");
    EXPECT_EQ(arImages[0].sColor, "rgb");
}

TEST_F(PdfImagingFixture, JpegQualityChangesTheStream) {
    // A noisy picture: quality shows in the size of the JPEG stream.
    std::vector<std::uint8_t> arRows(64 * 64 * 3);
    std::uint32_t nSeed = 12345;
    for (auto& b : arRows) {
        nSeed = nSeed * 1103515245u + 12345u;
        b = static_cast<std::uint8_t>(nSeed >> 24);
    }
    const std::int32_t nID = MakeImage(oImaging, 64, 64, PixelFormat24bppRGB, arRows, 64 * 3);
    std::vector<std::uintmax_t> arSizes;
    for (int nQuality : {10, 95}) {
        ASSERT_TRUE(oImaging.PdfSetJpegQuality(nQuality));
        const std::string sPath = OneImagePdf(nID);
        arSizes.push_back(std::filesystem::file_size(sPath));
    }
    EXPECT_LT(arSizes[0] * 2, arSizes[1]);
    EXPECT_FALSE(oImaging.PdfSetJpegQuality(101));
    EXPECT_EQ(oImaging.PdfGetJpegQuality(), 95);
}

TEST_F(PdfImagingFixture, GreyRampFollowsThePlugIn) {
    std::vector<ARGB> arRamp;
    for (ARGB i = 0; i < 256; ++i)
        arRamp.push_back(0xFF000000u | i << 16 | i << 8 | i);
    std::vector<std::uint8_t> arRows(16 * 16);
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 16; ++x)
            arRows[y * 16 + x] = static_cast<std::uint8_t>(x < 8 ? 0 : 255);
    const std::int32_t nID =
        MakeImage(oImaging, 16, 16, PixelFormat8bppIndexed, arRows, 16, arRamp);

    // Without the plug-in the grey image is stored as it stands.
    const std::vector<std::string> arNowhere{ScratchPath("no-plugin-here")};
    ReloadKyimgplug(&arNowhere);
    std::string sPath = OneImagePdf(nID);
    auto arImages = ListImages(sPath);
    ASSERT_EQ(arImages.size(), 1u);
    EXPECT_EQ(arImages[0].sEncoding, "image");
    EXPECT_EQ(arImages[0].sColor, "index");
    EXPECT_EQ(ReadFileBytes(sPath).find("/Filter/", ReadFileBytes(sPath).find("/Name/Img1") - 40),
              std::string::npos);
    GrayPage oPage = RenderGray(sPath);
    EXPECT_LT(oPage.AtPdf(20, 50), 10);
    EXPECT_GT(oPage.AtPdf(80, 50), 245);
    ReloadKyimgplug();

    KY_REQUIRE_CHECKER(!(!IsKyimgplugAvailable()), "codec plug-in not built");
    sPath = OneImagePdf(nID);
    arImages = ListImages(sPath);
    ASSERT_EQ(arImages.size(), 1u);
    EXPECT_EQ(arImages[0].sEncoding, "jpeg");
    EXPECT_EQ(arImages[0].nComponents, 1);
    oPage = RenderGray(sPath);
    EXPECT_LT(oPage.AtPdf(20, 50), 30);
    EXPECT_GT(oPage.AtPdf(80, 50), 225);
}

TEST(PdfImagingWriter, UncompressedRgbIsStoredRedGreenBlue) {
    Imaging oImaging;
    const std::int32_t nID = SolidRgb(oImaging, 2, 1, 0xFF, 0x80, 0x01);
    cPDF oPdf;
    oPdf.ImageSource(&RegistryPdfImageSource());
    const std::string sPath = ScratchPath("raw-rgb.pdf");
    EXPECT_EQ(oPdf.PdfAddImage(nID), 0); // no file open
    ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    oPdf.CompressData(false);
    EXPECT_EQ(oPdf.PdfAddImage(nID + 1), 0); // no such image
    ASSERT_EQ(oPdf.PdfAddImage(nID), 1);
    EXPECT_EQ(oPdf.PdfAddImage(ScratchPath("missing.png")), 0);
    oPdf.ClosePdfFile();
    const std::string sFile = ReadFileBytes(sPath);
    EXPECT_EQ(StreamOfObject(sFile, 3 + 2), std::string("\xFF\x80\x01\xFF\x80\x01", 6));
    EXPECT_EQ(ObjectText(sFile, 5).find("/Filter"), std::string::npos);
}

TEST(PdfImagingWriter, ImagesFromFilesAreLoadedAndLetGo) {
    Imaging oImaging;
    const std::int32_t nID = SolidRgb(oImaging, 30, 20, 0, 0, 255, 150);
    oImaging.SetNativeImage(nID);
    const std::string sPng = ScratchPath("from-file.png");
    ASSERT_EQ(oImaging.SaveAsPNG(sPng), OK);
    cPDF oPdf;
    oPdf.ImageSource(&RegistryPdfImageSource());
    ASSERT_TRUE(oPdf.NewPdf(ScratchPath("from-file.pdf"), {}));
    ASSERT_EQ(oPdf.PdfAddImage(sPng), 1);
    EXPECT_EQ(oPdf.ImageWidth(1), 30);
    EXPECT_EQ(oPdf.ImageHeight(1), 20);
    EXPECT_EQ(oPdf.ImageResX(1), 150);
    oPdf.ClosePdfFile();
}

// --- group 4 coding in the engine -------------------------------------------

TEST(CcittG4, PolarityFlagInvertsTheInput) {
    const int nWidth = 37, nHeight = 11, nStride = 6; // rows padded beyond 5 bytes
    std::vector<std::uint8_t> arBits(nStride * nHeight), arInverse(arBits.size());
    for (int y = 0; y < nHeight; ++y)
        for (int i = 0; i < nStride; ++i) {
            arBits[y * nStride + i] = static_cast<std::uint8_t>((y * 37 + i * 91) & 0xF0);
            arInverse[y * nStride + i] = static_cast<std::uint8_t>(~arBits[y * nStride + i]);
        }
    std::vector<std::uint8_t> arA, arB, arC;
    ASSERT_TRUE(GdipEncodeCcittG4(arBits.data(), nWidth, nHeight, nStride, false, arA));
    ASSERT_TRUE(GdipEncodeCcittG4(arInverse.data(), nWidth, nHeight, nStride, true, arB));
    ASSERT_TRUE(GdipEncodeCcittG4(arInverse.data(), nWidth, nHeight, nStride, false, arC));
    EXPECT_EQ(arA, arB);
    EXPECT_NE(arA, arC);
    // Bad arguments code nothing.
    EXPECT_FALSE(GdipEncodeCcittG4(arBits.data(), nWidth, nHeight, 4, false, arA));
    EXPECT_TRUE(arA.empty());
    EXPECT_FALSE(GdipEncodeCcittG4(nullptr, nWidth, nHeight, nStride, false, arA));
}

TEST(CcittG4, AWhitePageCodesToAFewBytes) {
    const int nWidth = 2480, nHeight = 3508; // A4 at 300 dpi
    std::vector<std::uint8_t> arWhite(static_cast<std::size_t>(310) * nHeight, 0);
    std::vector<std::uint8_t> arCoded;
    ASSERT_TRUE(GdipEncodeCcittG4(arWhite.data(), nWidth, nHeight, 310, false, arCoded));
    EXPECT_GT(arCoded.size(), 0u);
    EXPECT_LT(arCoded.size(), 1000u); // one bit per row and the end of block
}

TEST_F(PdfImagingFixture, EngineCoderAndPlugInRenderTheSame) {
    // A checker of 8-pixel squares, drawn once with the plug-in absent.
    std::vector<std::uint8_t> arRows(64 * 8);
    for (int y = 0; y < 64; ++y)
        for (int i = 0; i < 8; ++i)
            arRows[y * 8 + i] = ((y / 8 + i) % 2) ? 0xFF : 0x00;
    const std::int32_t nID =
        MakeImage(oImaging, 64, 64, PixelFormat1bppIndexed, arRows, 8, {0xFF000000u, 0xFFFFFFFFu});
    std::vector<GrayPage> arPages;
    for (bool bPlugIn : {false, true}) {
        const std::vector<std::string> arNowhere{ScratchPath("no-plugin-here")};
        if (!bPlugIn) ReloadKyimgplug(&arNowhere);
        const std::string sPath = OneImagePdf(nID);
        ReloadKyimgplug();
        ASSERT_EQ(ListImages(sPath).at(0).sEncoding, "ccitt");
        arPages.push_back(RenderGray(sPath));
        if (!IsKyimgplugAvailable()) break;
    }
    for (const GrayPage& oPage : arPages) {
        ASSERT_EQ(oPage.nWidth, 100);
        // Square (0,0) of the image (top left) is black, its neighbour white.
        EXPECT_LT(oPage.AtPdf(5, 94), 30);
        EXPECT_GT(oPage.AtPdf(18, 94), 225);
        EXPECT_GT(oPage.AtPdf(5, 81), 225);
    }
    if (arPages.size() == 2) {
        EXPECT_EQ(arPages[0].arPixels, arPages[1].arPixels);
    }
}

// --- whole files from the native image ----------------------------------------

TEST_F(PdfImagingFixture, SaveAsPdfSizesThePageByResolution) {
    EXPECT_FALSE(oImaging.SaveAsPDF(TestPath(".none.pdf")));
    EXPECT_EQ(oImaging.GetStat(), GenericError);
    const std::int32_t nID = SolidRgb(oImaging, 1700, 2200, 255, 255, 255, 200);
    oImaging.SetNativeImage(nID);
    const std::string sPath = TestPath(".pdf");
    ASSERT_TRUE(oImaging.SaveAsPDF(sPath, "Letter", "creator", "author", "ignored"));
    EXPECT_EQ(oImaging.GetStat(), OK);
    ExpectQpdfCheck(sPath);
    auto oInfo = PdfInfo(sPath);
    EXPECT_EQ(oInfo["Pages"], "1");
    EXPECT_PRED2(StartsWith, oInfo["Page size"], "612 x 792 pts (letter)");
    EXPECT_EQ(oInfo["PDF version"], "1.3");
    EXPECT_EQ(oInfo["Title"], "Letter");
    EXPECT_EQ(oInfo["Author"], "author");
    EXPECT_EQ(oInfo["Creator"], "creator");

    EXPECT_FALSE(oImaging.SaveAsPDF("/nonexistent-dir/x.pdf"));
    EXPECT_EQ(oImaging.GetStat(), CanNotCreateFile);
}

TEST_F(PdfImagingFixture, SaveAsPdfExEncrypts) {
    oImaging.SetNativeImage(SolidRgb(oImaging, 72, 36, 0, 0, 0));
    const std::string sPath = TestPath(".pdf");
    const std::int32_t nRights =
        oImaging.PdfCreateRights(true, true, false, false, false, false, false, false);
    EXPECT_EQ(nRights, PdfRightCanPrint);
    ASSERT_TRUE(oImaging.SaveAsPDFEx(sPath, "t", "a", "s", "k", "c", PdfEncryption128BitRC4,
                                     nRights, "user", "owner"));
    ExpectQpdfCheck(sPath, "user");
    auto oInfo = PdfInfo(sPath, "-upw user");
    EXPECT_PRED2(StartsWith, oInfo["Encrypted"], "yes");
    EXPECT_PRED2(StartsWith, oInfo["Page size"], "72 x 36 pts");
    EXPECT_EQ(oInfo["Subject"], "s");
    EXPECT_EQ(oInfo["Keywords"], "k");
    EXPECT_EQ(oInfo["PDF version"], "1.4");
    EXPECT_LT(RenderGray(sPath).nWidth, 1); // no password: poppler cannot render
}

TEST_F(PdfImagingFixture, SaveAsPdfADeclaresPdfA1b) {
    oImaging.SetNativeImage(SolidRgb(oImaging, 50, 50, 10, 200, 10, 100));
    const std::string sPath = TestPath(".pdf");
    ASSERT_TRUE(oImaging.SaveAsPDFAEx(sPath, "Archive", "Ann", "Subject", "kw", "Tool"));
    ExpectQpdfCheck(sPath);
    auto oInfo = PdfInfo(sPath);
    EXPECT_EQ(oInfo["PDF version"], "1.4");
    EXPECT_PRED2(StartsWith, oInfo["Page size"], "36 x 36 pts");
    KY_REQUIRE_TOOL("exiftool");
    const CommandResult oExif = RunCommand("exiftool -XMP:All -s " + Quote(sPath));
    EXPECT_NE(oExif.sOutput.find("Part                            : 1"), std::string::npos)
        << oExif.sOutput;
    EXPECT_NE(oExif.sOutput.find("Conformance                     : B"), std::string::npos);
    EXPECT_NE(oExif.sOutput.find("Title                           : Archive"), std::string::npos);
    EXPECT_NE(oExif.sOutput.find("Creator                         : Ann"), std::string::npos);
    EXPECT_NE(oExif.sOutput.find("CreatorTool                     : Tool"), std::string::npos);
}

// --- multi-page images ----------------------------------------------------------

class PdfMultiPage : public PdfImagingFixture {
  protected:
    // Three pages: 144x72 at 72 dpi, 300x600 at 150 dpi, 1-bit 200x100 at 100 dpi.
    std::int32_t MakeDocument() {
        const std::int32_t nFirst = SolidRgb(oImaging, 144, 72, 255, 0, 0);
        const std::int32_t nDoc = oImaging.TiffCreateMultiPageFromKestrelynImage(nFirst);
        EXPECT_NE(nDoc, 0);
        EXPECT_EQ(oImaging.TiffAppendPageFromKestrelynImage(
                      nDoc, SolidRgb(oImaging, 300, 600, 0, 0, 255, 150)),
                  OK);
        std::vector<std::uint8_t> arRows(25 * 100, 0x0F);
        EXPECT_EQ(oImaging.TiffAppendPageFromKestrelynImage(
                      nDoc, MakeImage(oImaging, 200, 100, PixelFormat1bppIndexed, arRows, 25,
                                      {0xFF000000u, 0xFFFFFFFFu}, 100)),
                  OK);
        EXPECT_EQ(oImaging.TiffGetPageCount(nDoc), 3);
        return nDoc;
    }
    void ExpectThreePages(const std::string& sPath) {
        ExpectQpdfCheck(sPath);
        auto oInfo = PdfInfo(sPath, "-f 1 -l 3");
        EXPECT_EQ(oInfo["Pages"], "3");
        EXPECT_PRED2(StartsWith, oInfo["Page    1 size"], "144 x 72 pts");
        EXPECT_PRED2(StartsWith, oInfo["Page    2 size"], "144 x 288 pts");
        EXPECT_PRED2(StartsWith, oInfo["Page    3 size"], "144 x 72 pts");
        const auto arImages = ListImages(sPath);
        ASSERT_EQ(arImages.size(), 3u);
        EXPECT_EQ(arImages[0].sEncoding, "jpeg");
        EXPECT_EQ(arImages[2].sEncoding, "ccitt");
        EXPECT_EQ(arImages[2].nWidth, 200);
    }
};

TEST_F(PdfMultiPage, EveryPageBecomesAPageOfItsOwnSize) {
    const std::int32_t nDoc = MakeDocument();
    const std::string sPath = TestPath(".pdf");
    ASSERT_EQ(oImaging.PdfCreateFromMultipageTIFF(nDoc, sPath, "three"), OK);
    ExpectThreePages(sPath);
    // Images first, pages after: objects 3..8 hold images and palettes before
    // the first page object.
    const std::string sFile = ReadFileBytes(sPath);
    EXPECT_LT(sFile.rfind("/Subtype/Image"), sFile.find("/Type/Page/"));
    const GrayPage oPage2 = RenderGray(sPath, 2);
    EXPECT_LT(oPage2.AtPdf(70, 140), 60); // blue is dark in grey
}

TEST_F(PdfMultiPage, PdfAAndNativeSaveOfADocument) {
    const std::int32_t nDoc = MakeDocument();
    const std::string sPathA = TestPath(".a.pdf");
    ASSERT_EQ(oImaging.PdfACreateFromMultipageTIFFEx(nDoc, sPathA, "T", "A", "S", "K", "C"), OK);
    ExpectThreePages(sPathA);
    EXPECT_EQ(PdfInfo(sPathA)["PDF version"], "1.4");
    EXPECT_NE(ReadFileBytes(sPathA).find("/OutputIntents 6 0 R"), std::string::npos);

    // SaveAsPDF of a multi-page native image writes every page.
    oImaging.SetNativeImage(nDoc);
    const std::string sPath = TestPath(".native.pdf");
    ASSERT_TRUE(oImaging.SaveAsPDF(sPath));
    ExpectThreePages(sPath);
}

TEST_F(PdfMultiPage, RefusalsAreReported) {
    const std::int32_t nPlain = SolidRgb(oImaging, 8, 8, 1, 2, 3);
    EXPECT_EQ(oImaging.PdfCreateFromMultipageTIFF(nPlain, TestPath(".pdf")),
              UnsupportedImageFormat);
    EXPECT_EQ(oImaging.PdfCreateFromMultipageTIFF(0, TestPath(".pdf")), InvalidParameter);
    EXPECT_EQ(oImaging.GetStat(), InvalidParameter);
    const std::int32_t nDoc = MakeDocument();
    EXPECT_EQ(oImaging.PdfCreateFromMultipageTIFF(nDoc, "/nonexistent-dir/x.pdf"),
              CanNotCreateFile);
}

TEST_F(PdfMultiPage, AMultiPageFileFromDisk) {
    KY_REQUIRE_TOOL("tiffcp");
    const std::int32_t nDoc = MakeDocument();
    const std::string sTiff = TestPath(".tif");
    ASSERT_EQ(oImaging.TiffSaveMultiPageToFile(nDoc, sTiff), OK);
    for (bool bReadOnly : {false, true}) {
        oImaging.TiffOpenMultiPageAsReadOnly(bReadOnly);
        const std::int32_t nLoaded = oImaging.CreateImageFromFile(sTiff);
        ASSERT_NE(nLoaded, 0);
        const std::string sPath = TestPath(bReadOnly ? ".ro.pdf" : ".rw.pdf");
        ASSERT_EQ(oImaging.PdfCreateFromMultipageTIFF(nLoaded, sPath), OK);
        ExpectThreePages(sPath);
        oImaging.CloseImage(nLoaded);
    }
}

// --- the application-built document ---------------------------------------------

TEST_F(PdfImagingFixture, NothingHappensWithoutADocument) {
    EXPECT_EQ(oImaging.PdfNewPage(), 0);
    EXPECT_EQ(oImaging.PdfAddFont("Arial"), 0);
    EXPECT_EQ(oImaging.PdfAddImageFromKestrelynImage(SolidRgb(oImaging, 4, 4, 0, 0, 0)), 0);
    EXPECT_EQ(oImaging.PdfGetCurrentPage(), 0);
    EXPECT_FALSE(oImaging.PdfSetMetadata("<x/>"));
    EXPECT_FALSE(oImaging.PdfSavePdf());
    oImaging.PdfDrawLine(0, 0, 10, 10); // no crash, nothing to write to
    EXPECT_FALSE(oImaging.PdfNewPdf("/nonexistent-dir/x.pdf"));
    EXPECT_EQ(oImaging.GetStat(), CanNotCreateFile);
    EXPECT_EQ(oImaging.PdfNewPage(), 0);
}

TEST_F(PdfImagingFixture, CompressionLevelChecksTheStoredLevel) {
    EXPECT_EQ(oImaging.PdfGetCompressionLevel(), 9);
    EXPECT_TRUE(oImaging.PdfSetCompressionLevel(12)); // the stored 9 is what is checked
    EXPECT_EQ(oImaging.PdfGetCompressionLevel(), 12);
    EXPECT_FALSE(oImaging.PdfSetCompressionLevel(5));
    EXPECT_EQ(oImaging.PdfGetCompressionLevel(), 12);
}

TEST_F(PdfImagingFixture, DocumentInMillimetres) {
    const std::string sPath = TestPath(".pdf");
    ASSERT_TRUE(oImaging.PdfNewPdfEx(sPath, "Built", "me", "", "", "tests"));
    EXPECT_TRUE(oImaging.PdfSetMetadata(""));
    oImaging.PdfSetMeasurementUnits(1);
    oImaging.PdfSetMeasurementUnits(7); // ignored
    oImaging.PdfSetPageDimensions(210, 297);
    oImaging.PdfSetPageMargin(10);
    EXPECT_NEAR(oImaging.PdfGetPageMargin(), 10, 1e-3);
    const std::int32_t nImage =
        oImaging.PdfAddImageFromKestrelynImage(SolidRgb(oImaging, 254, 127, 0, 0, 0, 254));
    ASSERT_EQ(nImage, 1);
    EXPECT_FALSE(oImaging.PdfSetMetadata("<x/>")); // header written
    EXPECT_NEAR(oImaging.PdfGetImageWidth(nImage), 25.4, 1e-3);
    EXPECT_NEAR(oImaging.PdfGetImageHeight(nImage), 12.7, 1e-3);
    const std::int32_t nFont = oImaging.PdfAddFont("Arial");
    EXPECT_EQ(oImaging.PdfNewPage(), 1);
    oImaging.PdfDrawImage(nImage, 20, 200, 25.4f, 12.7f);
    oImaging.PdfDrawFillRectangle(100, 100, 50, 50, 1, 0x0000FF); // red
    oImaging.PdfDrawLine(10, 20, 200, 20, 2, 0xFF0000);           // blue
    oImaging.PdfDrawLine(10, 30, 200, 30, 2, 0xFF0000);           // same colour, same width
    if (nFont > 0) {
        oImaging.PdfSetTextColor(0x00FF00);
        oImaging.PdfDrawText(20, 250, "Hello millimetres", nFont, 12);
        EXPECT_GT(oImaging.PdfGetTextWidth("Hello", nFont, 12), 5);
    }
    oImaging.PdfEndPage();
    oImaging.PdfSetPageOrientation(1);
    EXPECT_EQ(oImaging.PdfGetPageOrientation(), 1);
    EXPECT_EQ(oImaging.PdfNewPage(), 2);
    oImaging.PdfDrawCircle(50, 50, 20, 1, 0);
    EXPECT_EQ(oImaging.PdfGetCurrentPage(), 2);
    ASSERT_TRUE(oImaging.PdfSavePdf());
    ExpectQpdfCheck(sPath);

    // pdfinfo shows the crop box: the A4 page less 10 mm on each side.
    auto oInfo = PdfInfo(sPath, "-f 1 -l 2");
    EXPECT_EQ(oInfo["Pages"], "2");
    EXPECT_PRED2(StartsWith, oInfo["Page    1 size"], "538.583 x 785.197 pts");
    EXPECT_EQ(oInfo["Page    1 rot"], "0");
    EXPECT_EQ(oInfo["Page    2 rot"], "90");
    const std::string sFile = ReadFileBytes(sPath);
    const std::string sContent = Inflate(StreamOfObject(sFile, 7));
    // The stroke colour is sent once for the two lines, the width too.
    EXPECT_EQ(std::count(sContent.begin(), sContent.end(), 'G'), 1) << sContent;
    EXPECT_NE(sContent.find("0 0 1 RG\r\n2 w\r\n28.346 56.693 m\r\n"), std::string::npos)
        << sContent;
    EXPECT_NE(sContent.find("1 0 0 rg\r\n"), std::string::npos);
    EXPECT_NE(sContent.find("72.00 0 0 36.00 56.69 566.93 cm"), std::string::npos) << sContent;

    const GrayPage oPage = RenderGray(sPath);
    EXPECT_LT(oPage.AtPdf(70, 584), 10);   // inside the black image
    EXPECT_GT(oPage.AtPdf(60, 500), 245);  // blank paper
    EXPECT_LT(oPage.AtPdf(350, 350), 120); // red square, darker than paper
    if (nFont > 0 && HaveTool("pdftotext")) {
        const CommandResult oText = RunCommand("pdftotext -f 1 -l 1 " + Quote(sPath) + " -");
        EXPECT_NE(oText.sOutput.find("Hello millimetres"), std::string::npos) << oText.sOutput;
    }
}

} // namespace
} // namespace kestrelyn
