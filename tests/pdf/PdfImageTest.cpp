// Image XObjects from pixels the caller has read, their palettes, filters and
// Decode arrays, and their placement.
#include <gtest/gtest.h>

#include "PdfTestSupport.h"
#include "pdf/cPDF.h"

namespace kestrelyn {
namespace {

using namespace pdftest;

class PdfImages : public ::testing::Test {
  protected:
    void SetUp() override {
        sPath = ScratchPath(
            std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + ".pdf");
        oPdf.PaperWidth(100);
        oPdf.PaperHeight(100);
        ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    }
    std::string Close() {
        oPdf.ClosePdfFile();
        sFile = ReadFileBytes(sPath);
        if (HaveTool("qpdf")) ExpectQpdfCheck(sPath);
        return sFile;
    }
    std::string sPath, sFile;
    cPDF oPdf;
};

// A 2 by 2 RGB checker: black, white / white, black.
const std::string kChecker("\x00\x00\x00\xFF\xFF\xFF\xFF\xFF\xFF\x00\x00\x00", 12);

TEST_F(PdfImages, RawRgbWithoutCompression) {
    oPdf.CompressData(false);
    EXPECT_EQ(oPdf.AddImageData(kChecker, "", 2, 2, 24, 6, PdfImageFilterFlate, 96, 150), 1);
    EXPECT_EQ(oPdf.ImageCount(), 1);
    EXPECT_EQ(oPdf.ImageWidth(1), 2);
    EXPECT_EQ(oPdf.ImageResX(1), 96);
    EXPECT_EQ(oPdf.ImageResY(1), 150);
    EXPECT_EQ(oPdf.ImageHeight(2), 0);
    oPdf.DrawImg(1, 10, 20, 80, 60.5f);
    oPdf.DrawImg(2, 0, 0, 10, 10); // no such image: nothing
    Close();
    // Image 5, then page 6 and its content 7.
    EXPECT_EQ(ObjectText(sFile, 5),
              "5 0 obj\r\n<</Subtype/Image/Length 12/Name/Img1/BitsPerComponent 8"
              "/ColorSpace/DeviceRGB/Width 2/Height 2/Type/XObject>>stream\r\n" +
                  kChecker + "\r\nendstream\r\nendobj");
    EXPECT_EQ(StreamOfObject(sFile, 7), "q\n80.00 0 0 60.50 10.00 20.00 cm\n/Img1 Do\nQ\n\r\n");
    EXPECT_NE(
        sFile.find("<</ProcSet [/PDF/Text/ImageB/ImageC/ImageI ]/XObject <</Img1 5 0 R\r>>>>"),
        std::string::npos);
}

TEST_F(PdfImages, FlateRgbRendersItsPixels) {
    EXPECT_EQ(oPdf.AddImageData(kChecker, "", 2, 2, 24, 6, PdfImageFilterFlate, 72, 72), 1);
    oPdf.DrawImg(1, 0, 0, 100, 100);
    Close();
    const std::string sObject = ObjectText(sFile, 5);
    EXPECT_NE(sObject.find("/Filter/FlateDecode/Name/Img1/"), std::string::npos);
    EXPECT_EQ(Inflate(StreamOfObject(sFile, 5)), kChecker);
    KY_REQUIRE_TOOL("pdftoppm");
    const GrayPage oPage = RenderGray(sPath);
    EXPECT_EQ(oPage.AtPdf(25, 75), 0);   // top left: black
    EXPECT_EQ(oPage.AtPdf(75, 75), 255); // top right: white
    EXPECT_EQ(oPage.AtPdf(25, 25), 255);
    EXPECT_EQ(oPage.AtPdf(75, 25), 0);
}

TEST_F(PdfImages, PaletteOfTwoHundredEntriesIsPaddedTo256) {
    std::string sPalette;
    for (int i = 0; i < 200; ++i)
        sPalette += std::string{char(i), char(255 - i), char(7)};
    const std::string sPixels("\x00\x01\xC7\x05", 4);
    EXPECT_EQ(oPdf.AddImageData(sPixels, sPalette, 2, 2, 8, 2, PdfImageFilterFlate, 72, 72), 1);
    Close();
    EXPECT_NE(
        ObjectText(sFile, 5).find("/BitsPerComponent 8/ColorSpace [/Indexed/DeviceRGB 255 6 0 R]"
                                  "/Width 2/Height 2/Type/XObject>>stream"),
        std::string::npos);
    const std::string sStored = StreamOfObject(sFile, 6);
    ASSERT_EQ(sStored.size(), 768u);
    EXPECT_EQ(sStored.substr(0, 600), sPalette);
    EXPECT_EQ(sStored.substr(600), std::string(168, '\0'));
    EXPECT_EQ(ObjectText(sFile, 6).substr(0, 32), "6 0 obj\r\n<</Length 768>>stream\r\n");
}

TEST_F(PdfImages, OneBitBlackAndWhiteIsDeviceGrayWithDecode) {
    // Width 9: two bytes a row. Row 0 all ones (white), row 1 all zeros (black).
    const std::string sBits("\xFF\x80\x00\x00", 4);
    const std::string sBlackWhite("\x00\x00\x00\xFF\xFF\xFF", 6);
    EXPECT_EQ(oPdf.AddImageData(sBits, sBlackWhite, 9, 2, 1, 2, PdfImageFilterFlate, 72, 72), 1);
    const std::string sWhiteBlack("\xFF\xFF\xFF\x00\x00\x00", 6);
    EXPECT_EQ(oPdf.AddImageData(sBits, sWhiteBlack, 9, 2, 1, 2, PdfImageFilterFlate, 72, 72), 2);
    oPdf.DrawImg(1, 0, 0, 50, 100);
    oPdf.DrawImg(2, 50, 0, 50, 100);
    Close();
    EXPECT_NE(ObjectText(sFile, 5).find("/Filter/FlateDecode/Name/Img1/BitsPerComponent 1"
                                        "/ColorSpace/DeviceGray/Decode [ 0 1 ]/Width 9/Height 2"),
              std::string::npos);
    EXPECT_NE(ObjectText(sFile, 6).find("/ColorSpace/DeviceGray/Decode [ 1 0 ]/Width 9"),
              std::string::npos);
    EXPECT_EQ(Inflate(StreamOfObject(sFile, 5)), sBits);
    KY_REQUIRE_TOOL("pdftoppm");
    const GrayPage oPage = RenderGray(sPath);
    EXPECT_EQ(oPage.AtPdf(25, 75), 255); // image 1, row 0: bits 1 = entry 1 = white
    EXPECT_EQ(oPage.AtPdf(25, 25), 0);
    EXPECT_EQ(oPage.AtPdf(75, 75), 0); // image 2, row 0: entry 1 = black
    EXPECT_EQ(oPage.AtPdf(75, 25), 255);
}

TEST_F(PdfImages, Group4CodedRowsRenderAsTheirBits) {
    // Rows of 9 pixels: row 0 white, row 1 black (palette black then white).
    const std::string sBits("\xFF\x80\x00\x00", 4);
    const std::string sBlackWhite("\x00\x00\x00\xFF\xFF\xFF", 6);
    EXPECT_EQ(oPdf.AddImageData(sBits, sBlackWhite, 9, 2, 1, 2, PdfImageFilterCcittG4, 72, 72), 1);
    oPdf.DrawImg(1, 0, 0, 100, 100);
    Close();
    EXPECT_NE(ObjectText(sFile, 5).find("/Filter/CCITTFaxDecode/DecodeParms<</K -1/Columns 9>>"
                                        "/Name/Img1/BitsPerComponent 1/ColorSpace/DeviceGray/"
                                        "Decode [ 1 0 ]/Width 9/Height 2"),
              std::string::npos);
    KY_REQUIRE_TOOL("pdftoppm");
    const GrayPage oPage = RenderGray(sPath);
    EXPECT_EQ(oPage.AtPdf(50, 75), 255);
    EXPECT_EQ(oPage.AtPdf(50, 25), 0);
}

TEST_F(PdfImages, FailedGroup4CodingFallsBackToRawBits) {
    // A stride below the row's bytes cannot be coded: the rows go raw.
    const std::string sBits("\xFF\x80\x00\x00", 4);
    const std::string sBlackWhite("\x00\x00\x00\xFF\xFF\xFF", 6);
    EXPECT_EQ(oPdf.AddImageData(sBits, sBlackWhite, 9, 2, 1, 1, PdfImageFilterCcittG4, 72, 72), 1);
    Close();
    // No filter, and the Decode of unfiltered data.
    EXPECT_EQ(ObjectText(sFile, 5),
              "5 0 obj\r\n<</Subtype/Image/Length 4/Name/Img1/BitsPerComponent 1"
              "/ColorSpace/DeviceGray/Decode [ 0 1 ]/Width 9/Height 2/Type/XObject>>stream\r\n" +
                  sBits + "\r\nendstream\r\nendobj");
}

TEST_F(PdfImages, OneBitWithAColourPaletteIsIndexed) {
    const std::string sBlueWhite("\x00\x00\xFF\xFF\xFF\xFF", 6);
    EXPECT_EQ(oPdf.AddImageData(std::string("\x80\x00", 2), sBlueWhite, 1, 2, 1, 1,
                                PdfImageFilterFlate, 72, 72),
              1);
    Close();
    EXPECT_NE(
        ObjectText(sFile, 5).find("/BitsPerComponent 1/ColorSpace [/Indexed/DeviceRGB 1 6 0 R]"),
        std::string::npos);
    EXPECT_EQ(StreamOfObject(sFile, 6), sBlueWhite);
}

TEST_F(PdfImages, FourBitPaletteIsFlateIndexed) {
    std::string sPalette;
    for (int i = 0; i < 16; ++i)
        sPalette += std::string(3, static_cast<char>(i * 17));
    // 3 by 1 pixels: entries 0, 15, 8 (ceil(3/2) = 2 bytes).
    EXPECT_EQ(oPdf.AddImageData(std::string("\x0F\x80", 2), sPalette, 3, 1, 4, 2,
                                PdfImageFilterFlate, 72, 72),
              1);
    oPdf.DrawImg(1, 0, 0, 99, 100);
    Close();
    EXPECT_NE(
        ObjectText(sFile, 5).find("/BitsPerComponent 4/ColorSpace [/Indexed/DeviceRGB 15 6 0 R]"),
        std::string::npos);
    KY_REQUIRE_TOOL("pdftoppm");
    const GrayPage oPage = RenderGray(sPath);
    EXPECT_EQ(oPage.AtPdf(16, 50), 0);
    EXPECT_EQ(oPage.AtPdf(49, 50), 255);
    EXPECT_NEAR(oPage.AtPdf(82, 50), 136, 2);
}

TEST_F(PdfImages, JpegBytesAreStoredAsTheyStand) {
    KY_REQUIRE_TOOL("convert");
    const std::string sJpegPath = ScratchPath("gray-box.jpg");
    const CommandResult oMade = RunCommand(
        "convert -size 16x16 xc:'rgb(64,64,64)' -type TrueColor -quality 95 " + Quote(sJpegPath));
    ASSERT_EQ(oMade.nExit, 0) << oMade.sOutput;
    const std::string sJpeg = ReadFileBytes(sJpegPath);
    EXPECT_EQ(oPdf.AddImageData(sJpeg, "", 16, 16, 24, 48, PdfImageFilterJpeg, 72, 72), 1);
    oPdf.DrawImg(1, 20, 20, 60, 60);
    Close();
    EXPECT_NE(ObjectText(sFile, 5).find("<</Subtype/Image/Length " + std::to_string(sJpeg.size()) +
                                        "/Filter/DCTDecode/Name/Img1/BitsPerComponent 8"
                                        "/ColorSpace/DeviceRGB/Width 16/Height 16"),
              std::string::npos);
    EXPECT_EQ(StreamOfObject(sFile, 5), sJpeg);
    KY_REQUIRE_TOOL("pdftoppm");
    const GrayPage oPage = RenderGray(sPath);
    EXPECT_NEAR(oPage.AtPdf(50, 50), 64, 4);
    EXPECT_EQ(oPage.AtPdf(10, 10), 255);
}

TEST_F(PdfImages, ImagesMayComeBeforeTheFirstPageAndAreDrawnByReference) {
    EXPECT_EQ(oPdf.AddImageData(kChecker, "", 2, 2, 24, 6, PdfImageFilterFlate, 72, 72), 1);
    EXPECT_EQ(oPdf.Pages(), 0);
    for (int i = 0; i < 3; ++i) {
        oPdf.BeginPage();
        oPdf.DrawImg(1, 0, 0, 100, 100);
    }
    EXPECT_EQ(oPdf.AddImageData("", "", 0, 2, 24, 6, PdfImageFilterFlate, 72, 72), 0);
    Close();
    // One image object, drawn on three pages.
    EXPECT_EQ(sFile.find("/Subtype/Image"), sFile.rfind("/Subtype/Image"));
    KY_REQUIRE_TOOL("pdfinfo");
    EXPECT_EQ(PdfInfo(sPath)["Pages"], "3");
    KY_REQUIRE_TOOL("pdftoppm");
    EXPECT_EQ(RenderGray(sPath, 3).AtPdf(75, 25), 0);
}

} // namespace
} // namespace kestrelyn
