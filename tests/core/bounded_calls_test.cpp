// Calls whose cost a caller's numbers drive: a pixel-array rectangle is
// checked against the image before the caller's array grows to it, and a PDF
// arc's loop ends whatever its angles and step.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>

#include "pdf/PdfTestSupport.h"
#include "pdf/cPDF.h"
#include "support/ImagingTestUtil.h"

namespace kestrelyn::test {
namespace {

TEST(BoundedCalls, PixelArraysRefuseARectangleOutsideTheImageBeforeGrowing) {
    Imaging img;
    img.CreateNewImage(100, 80, 24);
    std::vector<std::int32_t> argb;
    std::vector<std::uint8_t> bytes;
    PixelArray2D grid;
    EXPECT_EQ(img.GetPixelArrayARGB(argb, 0, 0, 65536, 65536), InvalidParameter);
    EXPECT_EQ(img.GetPixelArray1D(argb, 0, 0, 101, 1), InvalidParameter);
    EXPECT_EQ(img.GetPixelArrayBytesRGB(bytes, 0, 0, 65536, 65536), InvalidParameter);
    EXPECT_EQ(img.GetPixelArrayBytesARGB(bytes, 99, 79, 2, 1), InvalidParameter);
    EXPECT_EQ(img.GetPixelArray2D(grid, -1, 0, 4, 4), InvalidParameter);
    EXPECT_EQ(img.SetPixelArrayARGB(argb, 0, 0, 65536, 65536), InvalidParameter);
    EXPECT_EQ(img.GetStat(), InvalidParameter);
    EXPECT_TRUE(argb.empty());
    EXPECT_TRUE(bytes.empty());
    EXPECT_TRUE(grid.arData.empty());
    // The whole image, edge to edge, still reads.
    EXPECT_EQ(img.GetPixelArrayARGB(argb, 0, 0, 100, 80), OK);
    EXPECT_EQ(argb.size(), 8000u);
    EXPECT_EQ(img.GetPixelArrayBytesRGB(bytes, 99, 79, 1, 1), OK);
}

// BIG (about a second, 150 MB): the library loads the pages it saves. An A0
// page at 600 dpi, bitonal, saved as G4 TIFF, loads again through the whole
// loader (plug-in first, then the engine).
TEST(ReadsWhatItWrites, A0BitonalPageSavedAsG4LoadsAgain) {
    const std::string sPath = pdftest::ScratchPath("a0_page_g4.tif");
    Imaging img;
    const std::int32_t nPage = img.CreateNewImage(19843, 28066, 1, -1);
    ASSERT_NE(nPage, 0);
    std::vector<std::int32_t> black = {static_cast<std::int32_t>(0xFF000000u)};
    ASSERT_EQ(img.SetPixelArrayARGB(black, 19842, 28065, 1, 1), OK);
    ASSERT_EQ(img.SaveAsTIFF(sPath, CompressionCCITT4), OK);
    const std::int32_t nBack = img.CreateImageFromFile(sPath);
    ASSERT_EQ(img.GetStat(), OK);
    ASSERT_NE(nBack, 0);
    EXPECT_EQ(img.GetWidth(nBack), 19843);
    EXPECT_EQ(img.GetHeight(nBack), 28066);
    EXPECT_EQ(img.PixelGetColor(19842, 28065) & 0xFFFFFFu, 0u);
    EXPECT_EQ(img.PixelGetColor(100, 100) & 0xFFFFFFu, 0xFFFFFFu);
    std::remove(sPath.c_str());
}

class BoundedArc : public ::testing::Test {
  protected:
    void SetUp() override {
        sPath = pdftest::ScratchPath(
            std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + ".pdf");
        oPdf.CompressData(false);
        ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    }
    std::string Content() {
        oPdf.ClosePdfFile();
        return pdftest::StreamOfObject(pdftest::ReadFileBytes(sPath), 6);
    }
    std::string sPath;
    cPDF oPdf;
};

// Past 2^24 a float angle no longer advances by 1: the arc stops after one
// turn, the same path as an arc of exactly one turn.
TEST_F(BoundedArc, AnEndAngleFarPastOneTurnDrawsOneTurn) {
    const auto t0 = std::chrono::steady_clock::now();
    oPdf.Arc(0, 0, 10, 0, 16777300.0f, 1, false, 0, 1, 1);
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 2.0);
    const std::string sFar = Content();

    cPDF oOther;
    oOther.CompressData(false);
    const std::string sTurn = sPath + ".turn.pdf";
    ASSERT_TRUE(oOther.NewPdf(sTurn, {}));
    oOther.Arc(0, 0, 10, 0, 360, 1, false, 0, 1, 1);
    oOther.ClosePdfFile();
    EXPECT_EQ(sFar, pdftest::StreamOfObject(pdftest::ReadFileBytes(sTurn), 6));
    EXPECT_EQ(std::count(sFar.begin(), sFar.end(), '\n'), 2 + 361 + 1 + 1);
    std::remove(sTurn.c_str());
}

// A step too fine to end in a bounded number of points draws no points, as a
// step of 0 does; the document stays usable.
TEST_F(BoundedArc, AStepTooFineDrawsLikeAStepOfZero) {
    oPdf.Arc(0, 0, 10, 0, 90, 1, false, 0, 1e-9f, 1);
    oPdf.Arc(0, 0, 10, 0, 90, 1, false, 0, 0, 1);
    oPdf.Rectangle(1, 1, 2, 2, 0);
    EXPECT_EQ(Content(), "n\r\n0 0 m\r\nS\r\nn\r\n0 0 m\r\nS\r\nn\r\n1 1 2 2 re\r\n");
}

} // namespace
} // namespace kestrelyn::test
