// Page content: the operator lines of each drawing call, path painting,
// form objects, and what a renderer makes of them.
#include <gtest/gtest.h>

#include "PdfTestSupport.h"
#include "pdf/cPDF.h"
#include "platform/Deflate.h"

namespace kestrelyn {
namespace {

using namespace pdftest;

// The uncompressed content of page 1 of a plain document (object 6).
class PdfContent : public ::testing::Test {
  protected:
    void SetUp() override {
        sPath = ScratchPath(
            std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + ".pdf");
        oPdf.CompressData(false);
        ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    }
    std::string Content() {
        oPdf.ClosePdfFile();
        sFile = ReadFileBytes(sPath);
        return StreamOfObject(sFile, 6);
    }
    static std::string Lines(std::initializer_list<const char*> arLines) {
        std::string s;
        for (const char* sLine : arLines)
            s += std::string(sLine) + "\r\n";
        return s;
    }
    std::string sPath, sFile;
    cPDF oPdf;
};

TEST_F(PdfContent, StateOperators) {
    oPdf.SetLineWidth(1.5f);
    oPdf.SetColorStroke(-128);
    oPdf.SetColorStroke(-255);
    oPdf.SetColorStroke(0);
    oPdf.SetColorFill(0x0000FF);
    oPdf.SetColorFill(0x336699);
    oPdf.SetDash(3, 2);
    oPdf.SetDash(0, 0);
    oPdf.SetLineCap(1);
    oPdf.SetLineCap(3);
    oPdf.SetLineJoin(2);
    oPdf.SetLineJoin(-1);
    oPdf.SetTextMode(4);
    oPdf.SetTextMode(3);
    oPdf.SetWordSpacing(2);
    oPdf.SetCharSpacing(0.25f);
    oPdf.SetTextHorizontalScaling(80);
    EXPECT_EQ(Content(),
              Lines({"1.5 w", "0.502 G", "1 G", "0 G", "1 0 0 rg", "0.6 0.4 0.2 rg", "[3 2] 0 d",
                     "[ ] 0 d", "1 J", "2 j", "3 Tr", "2 Tw", "0.25 Tc", "80 Tz"}));
    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(sPath);
}

TEST_F(PdfContent, PathPaintingStyles) {
    oPdf.MoveTo(1, 2);
    oPdf.LineTo(3, 4, 0);
    oPdf.LineTo(5, 6, 1);
    oPdf.LineTo(7, 8, 2);
    oPdf.LineTo(9, 10, 3);
    oPdf.Curve(1, 2, 3, 4, 5, 6, 4);
    oPdf.Curve(1, 2, 3, 4, 5, 6, 5);
    oPdf.Curve(1, 2, 3, 4, 5, 6, 6);
    oPdf.Curve(1, 2, 3, 4, 5, 6, 7);
    oPdf.Rectangle(10, 20, 30, 40.125f, 1);
    EXPECT_EQ(Content(), Lines({"1 2 m",
                                "3 4 l",
                                "5 6 l",
                                "S",
                                "7 8 l",
                                "h",
                                "9 10 l",
                                "h",
                                "S",
                                "1 2 3 4 5 6 c",
                                "f",
                                "1 2 3 4 5 6 c",
                                "B",
                                "1 2 3 4 5 6 c",
                                "f",
                                "1 2 3 4 5 6 c",
                                "b",
                                "n",
                                "10 20 30 40.125 re",
                                "S"}));
}

TEST_F(PdfContent, RoundedRectangleClampsTheRadius) {
    // A radius above half the width takes half the width (10), k = 5.5.
    oPdf.Rectangle(0, 0, 20, 100, 1, 50);
    EXPECT_EQ(Content(), Lines({"n", "10 0 m", "10 0 l", "15.5 0 20 4.5 20 10 c", "20 90 l",
                                "20 95.5 15.5 100 10 100 c", "10 100 l", "4.5 100 0 95.5 0 90 c",
                                "0 10 l", "0 4.5 4.5 0 10 0 c", "S"}));
}

TEST_F(PdfContent, CircleIsFourBezierQuarters) {
    oPdf.DrawCircle(100, 100, 10, 4);
    EXPECT_EQ(Content(),
              Lines({"100 90 m", "105.5 90 110 94.5 110 100 c", "110 105.5 105.5 110 100 110 c",
                     "94.5 110 90 105.5 90 100 c", "90 94.5 94.5 90 100 90 c", "f"}));
}

TEST_F(PdfContent, ArcBySegments) {
    oPdf.Arc(0, 0, 10, 0, 90, 1, false, 0, 45, 1);
    oPdf.Arc(0, 0, 10, 0, 90, 0.5f, false, 0, 90, 5); // fill makes it a pie
    EXPECT_EQ(Content(), Lines({"n", "0 0 m", "10 0 m", "10 0 l", "7.071 7.071 l", "0 10 l", "S",
                                "n", "0 0 m", "10 0 l", "0 5 l", "0 0 l", "B"}));
}

TEST_F(PdfContent, FirstDrawingBeginsPageOneAfterTheHeader) {
    EXPECT_FALSE(oPdf.PdfHeaderDone());
    oPdf.Rectangle(1, 1, 2, 2, 0);
    EXPECT_TRUE(oPdf.PdfHeaderDone());
    EXPECT_EQ(oPdf.Pages(), 1);
    EXPECT_EQ(Content(), Lines({"n", "1 1 2 2 re"}));
    EXPECT_EQ(sFile.substr(0, 8), "%PDF-1.3");
    EXPECT_LT(sFile.find("2 0 obj"), sFile.find("5 0 obj"));
}

TEST(PdfContentCompression, DeflatedStreamInflatesToTheContent) {
    const std::string sPath = ScratchPath("deflated.pdf");
    cPDF oPdf;
    ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    oPdf.CompressLevel(0); // pages are deflated at 9 whatever the level
    for (int i = 0; i < 50; ++i)
        oPdf.LineTo(static_cast<float>(i), 5, 1);
    oPdf.ClosePdfFile();
    const std::string sFile = ReadFileBytes(sPath);
    const std::string sObject = ObjectText(sFile, 6);
    ASSERT_NE(sObject.find("/Filter /FlateDecode>>stream\r\n"), std::string::npos);
    const std::string sContent = Inflate(StreamOfObject(sFile, 6));
    ASSERT_FALSE(sContent.empty());
    EXPECT_EQ(sContent.substr(0, 13), "0 5 l\r\nS\r\n1 5");
    EXPECT_NE(sContent.find("49 5 l\r\nS\r\n"), std::string::npos);
    std::string sLevel9;
    ASSERT_TRUE(cPDF::CompressBytes(sContent, sLevel9, 9));
    EXPECT_EQ(StreamOfObject(sFile, 6), sLevel9);
    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(sPath);
}

TEST(PdfContentCompression, DeflateGivesZlibsCompress2Bytes) {
    std::string sText;
    for (int i = 0; i < 3000; ++i)
        sText += static_cast<char>((i * i) % 251);
    for (int nLevel : {0, 1, 6, 9}) {
        std::string sOurs;
        ASSERT_TRUE(DeflateCompress2(sText, nLevel, sText.size() * 2, sOurs)) << nLevel;
        std::string sZlib(compressBound(sText.size()), '\0');
        uLongf nSize = sZlib.size();
        ASSERT_EQ(compress2(reinterpret_cast<Bytef*>(&sZlib[0]), &nSize,
                            reinterpret_cast<const Bytef*>(sText.data()), sText.size(), nLevel),
                  Z_OK);
        sZlib.resize(nSize);
        EXPECT_EQ(sOurs, sZlib) << nLevel;
    }
    // A stream that does not fit, and a level zlib does not know, fail empty.
    std::string sOut = "left over";
    EXPECT_FALSE(DeflateCompress2(sText, 9, 10, sOut));
    EXPECT_TRUE(sOut.empty());
    EXPECT_FALSE(DeflateCompress2(sText, 12, sText.size() * 2, sOut));
    // The writer's destination (size * 1.01 + 12) takes even nothing at all.
    ASSERT_TRUE(cPDF::CompressBytes("", sOut, 9));
    EXPECT_EQ(sOut, std::string("\x78\xDA\x03\x00\x00\x00\x00\x01", 8));
}

TEST(PdfContentRender, ShapesLandWhereTheyAreDrawn) {
    KY_REQUIRE_TOOL("pdftoppm");
    const std::string sPath = ScratchPath("shapes.pdf");
    cPDF oPdf;
    oPdf.PaperWidth(200);
    oPdf.PaperHeight(200);
    ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    oPdf.SetColorFill(0);
    oPdf.Rectangle(20, 20, 60, 40, 4); // black box 20..80 x 20..60
    oPdf.SetLineWidth(6);
    oPdf.SetColorStroke(-128);
    oPdf.MoveTo(100, 150);
    oPdf.LineTo(190, 150, 1);        // gray line at y 150
    oPdf.DrawCircle(150, 60, 30, 4); // black disc
    oPdf.SetColorStroke(0);
    oPdf.SetLineWidth(4);
    oPdf.Rectangle(20, 100, 60, 60, 1); // outlined square
    oPdf.ClosePdfFile();
    ExpectQpdfCheck(sPath);

    const GrayPage oPage = RenderGray(sPath);
    ASSERT_EQ(oPage.nWidth, 200);
    ASSERT_EQ(oPage.nHeight, 200);
    EXPECT_EQ(oPage.AtPdf(50, 40), 0);
    EXPECT_EQ(oPage.AtPdf(10, 10), 255);
    EXPECT_EQ(oPage.AtPdf(90, 40), 255);
    EXPECT_NEAR(oPage.AtPdf(145, 150), 128, 3);
    EXPECT_EQ(oPage.AtPdf(145, 160), 255);
    EXPECT_EQ(oPage.AtPdf(150, 60), 0);
    EXPECT_EQ(oPage.AtPdf(170, 60), 0);
    EXPECT_EQ(oPage.AtPdf(176, 86), 255); // inside the bounding box, outside the disc
    EXPECT_EQ(oPage.AtPdf(20, 130), 0);   // the square's left edge
    EXPECT_EQ(oPage.AtPdf(50, 160), 0);   // its top edge
    EXPECT_EQ(oPage.AtPdf(50, 130), 255); // not filled
}

TEST(PdfForms, FormIsWrittenOnceAndDrawnByFlags) {
    const std::string sPath = ScratchPath("forms.pdf");
    cPDF oPdf;
    oPdf.CompressData(false);
    oPdf.PaperWidth(100);
    oPdf.PaperHeight(100);
    ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    oPdf.StartObject("Stamp", 7); // drawn on every page
    oPdf.SetColorFill(0);
    oPdf.Rectangle(0, 0, 50, 50, 4);
    oPdf.EndObject();
    oPdf.StartObject("Never", 0);
    oPdf.Rectangle(50, 50, 50, 50, 4);
    oPdf.EndObject();
    EXPECT_EQ(oPdf.Pages(), 0); // recording a form opens no page
    oPdf.BeginPage();
    oPdf.BeginPage();
    oPdf.DrawObject("Never");
    oPdf.ClosePdfFile();
    const std::string sFile = ReadFileBytes(sPath);

    const std::string sForm =
        "<</Type/XObject/Subtype/Form/FormType 1/Name/Stamp/BBox [0 0 100 100]"
        "/Matrix [1 0 0 1 0 0]/Length 6 0 R>>stream\r\n";
    const std::string sStream = "0 g\r\nn\r\n0 0 50 50 re\r\nf\r\n";
    EXPECT_EQ(ObjectText(sFile, 5), "5 0 obj\r\n" + sForm + sStream + "endstream\r\nendobj");
    EXPECT_EQ(ObjectText(sFile, 6), "6 0 obj\r\n" + std::to_string(sStream.size()) + "\r\nendobj");
    // Pages 9/10 and 11/12 follow the two forms (5, 6 and 7, 8).
    EXPECT_EQ(StreamOfObject(sFile, 10), "/Stamp Do\r\n");
    EXPECT_EQ(StreamOfObject(sFile, 12), "/Stamp Do\r\n/Never Do\r\n");
    EXPECT_NE(sFile.find("/XObject <</Stamp 5 0 R \r/Never 7 0 R \r>>"), std::string::npos);
    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(sPath);
    KY_REQUIRE_TOOL("pdftoppm");
    const GrayPage oPage = RenderGray(sPath, 1);
    EXPECT_EQ(oPage.AtPdf(25, 25), 0);
    EXPECT_EQ(oPage.AtPdf(75, 75), 255);
    const GrayPage oPage2 = RenderGray(sPath, 2);
    EXPECT_EQ(oPage2.AtPdf(25, 25), 0);
    EXPECT_EQ(oPage2.AtPdf(75, 75), 0);
}

TEST(PdfForms, AutoDrawingFollowsPageParity) {
    // Flags 2: skipped on even pages' test, so drawn on even pages only.
    // Flags 12: drawn on odd pages other than page 1.
    const std::string sPath = ScratchPath("forms-parity.pdf");
    cPDF oPdf;
    oPdf.CompressData(false);
    ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    oPdf.StartObject("Even", 2);
    oPdf.EndObject();
    oPdf.StartObject("LaterOdd", 12);
    oPdf.EndObject();
    for (int i = 0; i < 4; ++i)
        oPdf.BeginPage();
    oPdf.ClosePdfFile();
    const std::string sFile = ReadFileBytes(sPath);
    // Forms are 5..8; pages 9/10, 11/12, 13/14, 15/16.
    EXPECT_EQ(StreamOfObject(sFile, 10), "");
    EXPECT_EQ(StreamOfObject(sFile, 12), "/Even Do\r\n");
    EXPECT_EQ(StreamOfObject(sFile, 14), "/LaterOdd Do\r\n");
    EXPECT_EQ(StreamOfObject(sFile, 16), "/Even Do\r\n");
    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(sPath);
}

} // namespace
} // namespace kestrelyn
