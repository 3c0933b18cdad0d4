// File structure of the writer: header, information dictionary, catalog,
// page objects, resources, xref table and trailer, checked byte for byte and
// by qpdf and pdfinfo.
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>

#include "PdfTestSupport.h"
#include "pdf/cPDF.h"

namespace kestrelyn {
namespace {

using namespace pdftest;

// Scratch files go when the tests end, unless KY_KEEP_TEST_FILES is set.
class ScratchCleanup : public ::testing::Environment {
  public:
    void TearDown() override {
        if (std::getenv("KY_KEEP_TEST_FILES")) return;
        std::error_code oError;
        std::filesystem::remove_all(ScratchDir(), oError);
    }
};
[[maybe_unused]] ::testing::Environment* const pScratchCleanup =
    ::testing::AddGlobalTestEnvironment(new ScratchCleanup);

const std::string kProducer = "Kestrelyn ActiveX 5.13.09 edition. - https://kestrelyn.invalid";

TEST(PdfFile, ClosedWithoutHeaderHoldsOnlyPagesResourcesXrefAndTrailer) {
    const std::string sPath = ScratchPath("bare.pdf");
    cPDF oPdf;
    ASSERT_TRUE(oPdf.NewPdf(
        sPath,
        {.sTitle = "t", .sAuthor = "a", .sCreator = "c", .sKeywords = "k", .sSubject = "s"}));
    EXPECT_NE(oPdf.PdfGetNativePdf(), 0);
    oPdf.ClosePdfFile();
    EXPECT_EQ(oPdf.PdfGetNativePdf(), 0);
    const std::string s4 = "4 0 obj\r\n<</ProcSet [/PDF/Text ]>>\r\nendobj\r\n";
    const std::string s3 =
        "3 0 obj\r\n<</Type/Pages/Count 0/Kids []/Resources 4 0 R>>\r\nendobj\r\n";
    std::string sOffset3 = std::to_string(s4.size());
    sOffset3.insert(0, 10 - sOffset3.size(), '0');
    const std::string sExpected =
        s4 + s3 + "xref\r\n0 5\r\n0000000000 65535 f\r\n0000000000 65535 f\r\n" +
        "0000000000 65535 f\r\n" + sOffset3 + " 00000 n\r\n0000000000 00000 n\r\n" +
        "trailer\r\n<</Size 5/Root 2 0 R/Info 1 0 R>>\r\nstartxref\r\n" +
        std::to_string(s4.size() + s3.size()) + "\r\n%%EOF\r\n";
    EXPECT_EQ(ReadFileBytes(sPath), sExpected);
}

TEST(PdfFile, HeaderInformationAndCatalogBytes) {
    const std::string sPath = ScratchPath("header.pdf");
    cPDF oPdf;
    ASSERT_TRUE(oPdf.NewPdf(
        sPath,
        {.sTitle = "a(b)", .sCreator = "Crea\\tor", .sKeywords = "k1 k2", .sSubject = "Sub"}));
    oPdf.InitPdfFile();
    EXPECT_TRUE(oPdf.PdfHeaderDone());
    oPdf.ClosePdfFile();
    const std::string sFile = ReadFileBytes(sPath);

    const std::string sHeader = "%PDF-1.3\r%" + kProducer + "\r\n";
    ASSERT_EQ(sFile.substr(0, sHeader.size()), sHeader);
    const std::regex oInfo("1 0 obj\r\n<</Title\\(a\\\\\\(b\\\\\\)\\)/Author\\(\\)"
                           "/Creator\\(Crea\\\\\\\\tor\\)/Producer\\(" +
                           std::regex_replace(kProducer, std::regex("[.]"), "\\.") +
                           "\\)/Subject\\(Sub\\)/Keywords\\(k1 k2\\)"
                           "/CreationDate\\(D:20[0-9]{12}\\+01'00'\\)>>\r\nendobj\r\n");
    EXPECT_TRUE(std::regex_search(sFile, oInfo)) << sFile.substr(0, 400);
    EXPECT_EQ(ObjectText(sFile, 2),
              "2 0 obj\r\n<</PageMode/UseNone/ViewerPreferences<</HideWindowUI false"
              "/DisplayDocTitle true/HideToolbar false>>/Pages 3 0 R/PageLayout/OneColumn"
              "/Type/Catalog>>\r\nendobj");
    // Objects 1 and 2, then 4 and 3 at the end; no /ID without encryption or PDF/A.
    EXPECT_LT(sFile.find("2 0 obj"), sFile.find("4 0 obj"));
    EXPECT_LT(sFile.find("4 0 obj"), sFile.find("3 0 obj"));
    EXPECT_NE(sFile.find("/Count 0/Kids []"), std::string::npos);
    EXPECT_EQ(sFile.find("/ID"), std::string::npos);
    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(sPath);
}

TEST(PdfFile, XrefEntriesAreTwentyBytesAndPointAtTheirObjects) {
    const std::string sPath = ScratchPath("xref.pdf");
    cPDF oPdf;
    ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    oPdf.LineTo(10, 10, 1);
    oPdf.BeginPage();
    oPdf.Rectangle(10, 10, 100, 100, 1);
    oPdf.ClosePdfFile();
    const std::string sFile = ReadFileBytes(sPath);

    const auto nStartXref = sFile.rfind("startxref\r\n");
    ASSERT_NE(nStartXref, std::string::npos);
    const long nXref = std::stol(sFile.substr(nStartXref + 11));
    ASSERT_EQ(sFile.substr(static_cast<std::size_t>(nXref), 6), "xref\r\n");
    // Objects 1..8: info, catalog, pages, resources, two page objects with contents.
    const std::string sCount = "0 9\r\n";
    ASSERT_EQ(sFile.substr(static_cast<std::size_t>(nXref) + 6, sCount.size()), sCount);
    std::size_t nEntry = static_cast<std::size_t>(nXref) + 6 + sCount.size();
    EXPECT_EQ(sFile.substr(nEntry, 20), "0000000000 65535 f\r\n");
    for (int nObject = 1; nObject <= 8; ++nObject) {
        nEntry += 20;
        const std::string sLine = sFile.substr(nEntry, 20);
        ASSERT_EQ(sLine.substr(10), " 00000 n\r\n") << nObject;
        const long nOffset = std::stol(sLine.substr(0, 10));
        const std::string sHead = std::to_string(nObject) + " 0 obj\r\n";
        EXPECT_EQ(sFile.substr(static_cast<std::size_t>(nOffset), sHead.size()), sHead);
    }
    EXPECT_EQ(sFile.substr(nEntry + 20), "trailer\r\n<</Size 9/Root 2 0 R/Info 1 0 R>>\r\n"
                                         "startxref\r\n" +
                                             std::to_string(nXref) + "\r\n%%EOF\r\n");
    EXPECT_NE(sFile.find("/Kids [5 0 R 7 0 R ]"), std::string::npos);
    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(sPath);
}

TEST(PdfFile, PageObjectsCarrySizeMarginAndRotation) {
    const std::string sPath = ScratchPath("pages.pdf");
    cPDF oPdf;
    oPdf.CompressData(false);
    ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    EXPECT_EQ(oPdf.BeginPage(), 1); // A4 as the default paper
    oPdf.PaperSize(2);              // letter from the next page on
    oPdf.Margin(10);
    EXPECT_EQ(oPdf.BeginPage(), 2);
    oPdf.Orientation(1);
    oPdf.EndPage();
    oPdf.Orientation(0);
    oPdf.Margin(0);
    oPdf.PaperWidth(300.25f);
    oPdf.PaperHeight(200);
    EXPECT_EQ(oPdf.BeginPage(), 3);
    EXPECT_EQ(oPdf.Pages(), 3);
    oPdf.ClosePdfFile();
    const std::string sFile = ReadFileBytes(sPath);

    EXPECT_EQ(ObjectText(sFile, 5),
              "5 0 obj\r\n<</Type/Page/Parent 3 0 R/Contents 6 0 R"
              "/MediaBox [0 0 595.2 842]/CropBox [0 0 595.2 842]>>\r\nendobj");
    EXPECT_EQ(ObjectText(sFile, 7),
              "7 0 obj\r\n<</Type/Page/Parent 3 0 R/Contents 8 0 R/MediaBox [0 0 612 792]"
              "/CropBox [10 10 602 782]/Rotate 90>>\r\nendobj");
    EXPECT_EQ(ObjectText(sFile, 9),
              "9 0 obj\r\n<</Type/Page/Parent 3 0 R/Contents 10 0 R/MediaBox [0 0 300.25 200]"
              "/CropBox [0 0 300.25 200]>>\r\nendobj");
    // An empty content stream; its lines end in bare CR.
    EXPECT_NE(sFile.find("6 0 obj\r\n<</Length 0>>stream\r\n\r\nendstream\rendobj\r7 0 obj"),
              std::string::npos);

    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(sPath);
    KY_REQUIRE_TOOL("pdfinfo");
    auto oInfo = PdfInfo(sPath, "-box -f 1 -l 3");
    EXPECT_EQ(oInfo["Pages"], "3");
    EXPECT_EQ(oInfo["PDF version"], "1.3");
    EXPECT_EQ(oInfo["Producer"], kProducer);
    EXPECT_EQ(oInfo["Page    1 size"], "595.2 x 842 pts (A4)");
    EXPECT_EQ(oInfo["Page    1 rot"], "0");
    // The reported size is the crop box; the media box stays the paper.
    EXPECT_EQ(oInfo["Page    2 size"], "592 x 772 pts");
    EXPECT_EQ(oInfo["Page    2 MediaBox"], "0.00     0.00   612.00   792.00");
    EXPECT_EQ(oInfo["Page    2 CropBox"], "10.00    10.00   602.00   782.00");
    EXPECT_EQ(oInfo["Page    2 rot"], "90");
    EXPECT_EQ(oInfo["Page    3 size"], "300.25 x 200 pts");
    EXPECT_EQ(oInfo["Page    3 rot"], "0");
}

TEST(PdfFile, PaperSizesAndCustomSize) {
    cPDF oPdf;
    EXPECT_FLOAT_EQ(oPdf.PaperWidth(), 595.2f);
    EXPECT_FLOAT_EQ(oPdf.PaperHeight(), 842.0f);
    oPdf.PaperSize(1);
    EXPECT_FLOAT_EQ(oPdf.PaperWidth(), 842.0f);
    EXPECT_FLOAT_EQ(oPdf.PaperHeight(), 1190.5f);
    oPdf.PaperSize(3);
    EXPECT_FLOAT_EQ(oPdf.PaperWidth(), 612.0f);
    EXPECT_FLOAT_EQ(oPdf.PaperHeight(), 864.0f);
    oPdf.PaperSize(7); // unknown: sizes stay
    EXPECT_FLOAT_EQ(oPdf.PaperWidth(), 612.0f);
    EXPECT_FLOAT_EQ(oPdf.PaperHeight(), 864.0f);
}

TEST(PdfFile, InformationTextIsWrittenAsWinAnsi) {
    const std::string sPath = ScratchPath("ansi.pdf");
    cPDF oPdf;
    ASSERT_TRUE(oPdf.NewPdf(
        sPath, {.sTitle = "Caf\xC3\xA9 \xE2\x82\xAC", .sAuthor = "Ren\xC3\xA9 \xC3\x9F"}));
    oPdf.BeginPage();
    oPdf.ClosePdfFile();
    EXPECT_NE(ReadFileBytes(sPath).find("/Title(Caf\xE9 \x80)/Author(Ren\xE9 \xDF)"),
              std::string::npos);
    // Latin-1 letters read back the same in a reader's string encoding.
    KY_REQUIRE_TOOL("pdfinfo");
    auto oInfo = PdfInfo(sPath);
    EXPECT_EQ(oInfo["Author"], "Ren\xC3\xA9 \xC3\x9F");
}

TEST(PdfFile, NewPdfReplacesAnExistingFileAndFailsOnABadPath) {
    const std::string sPath = ScratchPath("replace.pdf");
    WriteFileBytes(sPath, std::string(100000, 'x'));
    cPDF oPdf;
    ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    oPdf.BeginPage();
    oPdf.ClosePdfFile();
    const std::string sFile = ReadFileBytes(sPath);
    EXPECT_EQ(sFile.substr(0, 8), "%PDF-1.3");
    EXPECT_EQ(sFile.find("xxxx"), std::string::npos);

    cPDF oBad;
    EXPECT_FALSE(oBad.NewPdf(ScratchPath("no/such/dir/x.pdf"), {}));
    EXPECT_EQ(oBad.PdfGetNativePdf(), 0);
    // Nothing to write to: every writing call is quiet.
    oBad.LineTo(1, 1, 1);
    oBad.ClosePdfFile();
    EXPECT_EQ(oBad.LoadFont("Arial", false, false), 0);
}

TEST(PdfFile, OpeningASecondDocumentClosesTheFirst) {
    const std::string sFirst = ScratchPath("first.pdf"), sSecond = ScratchPath("second.pdf");
    cPDF oPdf;
    ASSERT_TRUE(oPdf.NewPdf(sFirst, {}));
    oPdf.MoveTo(1, 1);
    ASSERT_TRUE(oPdf.NewPdf(sSecond, {}));
    EXPECT_EQ(oPdf.PdfGetPath(), sSecond);
    oPdf.SetColorFill(0);
    oPdf.Rectangle(0, 0, 10, 10, 4);
    oPdf.ClosePdfFile();
    const std::string sFile = ReadFileBytes(sFirst);
    EXPECT_EQ(sFile.substr(sFile.size() - 7), "%%EOF\r\n");
    // The second file is a document of its own: header, one page, its own objects.
    const std::string sNext = ReadFileBytes(sSecond);
    EXPECT_EQ(sNext.substr(0, 8), "%PDF-1.3");
    EXPECT_NE(sNext.find("/Count 1/Kids [5 0 R ]"), std::string::npos);
    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(sFirst);
    ExpectQpdfCheck(sSecond);
}

TEST(PdfFile, ApplicationMetadataBecomesObjectFive) {
    const std::string sPath = ScratchPath("xmp.pdf");
    const std::string sXmp = "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"></x:xmpmeta>";
    cPDF oPdf;
    ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    oPdf.XMP(sXmp);
    oPdf.BeginPage();
    oPdf.ClosePdfFile();
    const std::string sFile = ReadFileBytes(sPath);
    EXPECT_NE(ObjectText(sFile, 2).find("/Metadata 5 0 R/Pages 3 0 R"), std::string::npos);
    EXPECT_EQ(ObjectText(sFile, 5), "5 0 obj\r\n<</Subtype/XML/Length " +
                                        std::to_string(sXmp.size()) + "/Type/Metadata>>stream\r\n" +
                                        sXmp + "\r\nendstream\r\nendobj");
    EXPECT_EQ(ObjectText(sFile, 2).find("OutputIntents"), std::string::npos);
    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(sPath);
}

} // namespace
} // namespace kestrelyn
