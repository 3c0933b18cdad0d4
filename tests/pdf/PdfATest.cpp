// PDF/A-1b output: metadata from the template, output intent with the
// built-in sRGB profile, the trailer's /ID, and what readers make of them.
#include <gtest/gtest.h>

#include <regex>

#include "PdfTestSupport.h"
#include "pdf/PdfAResources.h"
#include "pdf/cPDF.h"

namespace kestrelyn {
namespace {

using namespace pdftest;

std::string WritePdfA(const std::string& sName, const std::string& sTitle = "Report a(b)") {
    const std::string sPath = ScratchPath(sName);
    cPDF oPdf;
    oPdf.PdfA(true);
    EXPECT_TRUE(oPdf.NewPdf(sPath, {.sTitle = sTitle,
                                    .sAuthor = "Ann Author",
                                    .sCreator = "Kestrelyn tests",
                                    .sKeywords = "alpha, beta",
                                    .sSubject = "A subject"}));
    oPdf.SetColorFill(0);
    oPdf.Rectangle(10, 10, 20, 20, 4);
    oPdf.ClosePdfFile();
    return sPath;
}

std::string Between(const std::string& s, const std::string& sOpen, const std::string& sClose) {
    const auto nStart = s.find(sOpen);
    if (nStart == std::string::npos) return {};
    const auto nEnd = s.find(sClose, nStart + sOpen.size());
    if (nEnd == std::string::npos) return {};
    return s.substr(nStart + sOpen.size(), nEnd - nStart - sOpen.size());
}

TEST(PdfA, HeaderCatalogAndObjectsFiveToSeven) {
    const std::string sFile = ReadFileBytes(WritePdfA("pdfa-objects.pdf"));
    EXPECT_EQ(sFile.substr(0, 25), "%PDF-1.4\r%\xE2\xE3\xCF\xD3\r\n1 0 obj\r\n");
    // The producer text stands only in the information dictionary.
    EXPECT_EQ(sFile.find("Kestrelyn ActiveX"), sFile.find("/Producer(Kestrelyn ActiveX") + 10);
    EXPECT_NE(ObjectText(sFile, 2).find("/Metadata 5 0 R/Pages 3 0 R/PageLayout/OneColumn"
                                        "/Type/Catalog/OutputIntents 6 0 R>>"),
              std::string::npos);
    const auto n5 = ObjectStart(sFile, 5), n6 = ObjectStart(sFile, 6), n7 = ObjectStart(sFile, 7),
               n8 = ObjectStart(sFile, 8);
    ASSERT_NE(n8, std::string::npos);
    EXPECT_LT(n5, n6);
    EXPECT_LT(n6, n7);
    EXPECT_LT(n7, n8); // the first page object follows
    EXPECT_NE(ObjectText(sFile, 8).find("/Type/Page"), std::string::npos);
    EXPECT_EQ(ObjectText(sFile, 6),
              "6 0 obj\r\n[<</Info(sRGB IEC61966-2.1)/S/GTS_PDFA1/OutputConditionIdentifier(Custom)"
              "/OutputCondition()/DestOutputProfile 7 0 R/Type/OutputIntent/RegistryName()>>]"
              "\r\nendobj");
    const std::string sProfile = DeflatedSrgbProfile();
    EXPECT_NE(sFile.find("7 0 obj\r\n<</Length " + std::to_string(sProfile.size()) +
                         "/Filter/FlateDecode/N 3>>stream\r\n" + sProfile +
                         "\r\nendstream\r\n"
                         "endobj\r\n"),
              std::string::npos);

    std::smatch oId;
    ASSERT_TRUE(std::regex_search(
        sFile, oId,
        std::regex("/Root 2 0 R/Info 1 0 R/ID\\[<([0-9A-F]{32})><([0-9A-F]{32})>\\]>>\r\n")));
    EXPECT_NE(oId[1].str(), oId[2].str());
    EXPECT_EQ(sFile.find("/Encrypt"), std::string::npos);
}

TEST(PdfA, MetadataIsTheFilledTemplate) {
    const std::string sFile = ReadFileBytes(WritePdfA("pdfa-xmp.pdf"));
    const std::string sObject = ObjectText(sFile, 5);
    ASSERT_FALSE(sObject.empty());
    const std::string sXmp = StreamOfObject(sFile, 5);
    // The /Length is the text after substitution: the stream ends right there.
    EXPECT_EQ(sObject.substr(sObject.find(sXmp) + sXmp.size()), "\r\nendstream\r\nendobj");
    EXPECT_EQ(sXmp.substr(0, 17), "<?xpacket begin=\"");
    EXPECT_NE(sXmp.find("id=\"W5M0MpCehiHzreSzNTczkc9d\"?>\r\n"), std::string::npos);
    EXPECT_EQ(sXmp.substr(sXmp.size() - 19), "<?xpacket end=\"w\"?>");
    EXPECT_EQ(sXmp.find("XXX_"), std::string::npos);
    EXPECT_EQ(sXmp.find('\n'), sXmp.find("\r\n") + 1); // CR LF line ends
    // Values as the information dictionary holds them: escaped, not XML-escaped.
    EXPECT_EQ(Between(sXmp, "<rdf:li xml:lang=\"x-default\">", "</rdf:li>"), "Report a\\(b\\)");
    EXPECT_EQ(Between(sXmp, "<rdf:Seq>\r\n<rdf:li>", "</rdf:li>"), "Ann Author");
    EXPECT_EQ(Between(sXmp, "<pdf:Keywords>", "</pdf:Keywords>"), "alpha, beta");
    EXPECT_EQ(Between(sXmp, "<xmp:CreatorTool>", "</xmp:CreatorTool>"), "Kestrelyn tests");
    EXPECT_EQ(Between(sXmp, "<pdf:Producer>", "</pdf:Producer>"),
              "Kestrelyn ActiveX 5.13.09 edition. - https://kestrelyn.invalid");
    const std::string sCreate = Between(sXmp, "<xmp:CreateDate>", "</xmp:CreateDate>");
    EXPECT_TRUE(std::regex_match(
        sCreate, std::regex("20[0-9]{2}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\+01:00")))
        << sCreate;
    EXPECT_EQ(Between(sXmp, "<xmp:ModifyDate>", "</xmp:ModifyDate>"), sCreate);
    EXPECT_EQ(Between(sXmp, "<xmp:MetadataDate>", "</xmp:MetadataDate>"), sCreate);
    const std::regex oUuid("uuid: [0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");
    const std::string sDocument = Between(sXmp, "<xmpMM:DocumentID>", "</xmpMM:DocumentID>");
    const std::string sInstance = Between(sXmp, "<xmpMM:InstanceID>", "</xmpMM:InstanceID>");
    EXPECT_TRUE(std::regex_match(sDocument, oUuid)) << sDocument;
    EXPECT_TRUE(std::regex_match(sInstance, oUuid)) << sInstance;
    EXPECT_NE(sDocument, sInstance);
    EXPECT_EQ(Between(sXmp, "<pdfaid:part>", "</pdfaid:part>"), "1");
    EXPECT_EQ(Between(sXmp, "<pdfaid:conformance>", "</pdfaid:conformance>"), "B");

    // A second file of the same moment has another document id.
    const std::string sOther = StreamOfObject(ReadFileBytes(WritePdfA("pdfa-xmp2.pdf")), 5);
    EXPECT_NE(Between(sOther, "<xmpMM:DocumentID>", "</xmpMM:DocumentID>"), sDocument);
}

TEST(PdfA, ApplicationMetadataIsReplacedByTheTemplate) {
    const std::string sPath = ScratchPath("pdfa-replaced.pdf");
    cPDF oPdf;
    oPdf.PdfA(true);
    oPdf.XMP("<mine/>");
    ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    oPdf.BeginPage();
    oPdf.ClosePdfFile();
    const std::string sXmp = StreamOfObject(ReadFileBytes(sPath), 5);
    EXPECT_EQ(sXmp.find("<mine/>"), std::string::npos);
    EXPECT_NE(sXmp.find("<pdfaid:part>1</pdfaid:part>"), std::string::npos);
}

TEST(PdfA, EncryptionClearsPdfA) {
    const std::string sPath = ScratchPath("pdfa-encrypted.pdf");
    cPDF oPdf;
    oPdf.PdfA(true);
    ASSERT_TRUE(oPdf.NewPdf(sPath, {.sTitle = "t",
                                    .nEncryption = PdfEncryption128BitRC4,
                                    .nRights = 0,
                                    .sOwnerPassword = "o"}));
    oPdf.BeginPage();
    oPdf.ClosePdfFile();
    const std::string sFile = ReadFileBytes(sPath);
    EXPECT_EQ(sFile.substr(0, 28), "%PDF-1.4\r%Kestrelyn ActiveX ");
    EXPECT_EQ(sFile.find("OutputIntents"), std::string::npos);
    EXPECT_EQ(sFile.find("/Metadata"), std::string::npos);
    EXPECT_EQ(sFile.find("/ID["), std::string::npos);
    EXPECT_NE(ObjectText(sFile, 5).find("/Filter /Standard"), std::string::npos);
    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(sPath);
}

TEST(PdfA, ReadersSeeTheDeclaration) {
    const std::string sPath = WritePdfA("pdfa-readers.pdf", "Quarterly");
    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(sPath);
    KY_REQUIRE_TOOL("pdfinfo");
    auto oInfo = PdfInfo(sPath);
    EXPECT_EQ(oInfo["PDF version"], "1.4");
    EXPECT_EQ(oInfo["Metadata Stream"], "yes");
    EXPECT_EQ(oInfo["Pages"], "1");
    EXPECT_EQ(oInfo["Title"], "Quarterly");
    const CommandResult oMeta = RunCommand("pdfinfo -meta " + Quote(sPath));
    EXPECT_NE(oMeta.sOutput.find("<pdfaid:part>1</pdfaid:part>"), std::string::npos);
    KY_REQUIRE_TOOL("exiftool");
    const CommandResult oExif = RunCommand("exiftool -s -XMP:all " + Quote(sPath));
    ASSERT_EQ(oExif.nExit, 0) << oExif.sOutput;
    EXPECT_TRUE(std::regex_search(oExif.sOutput, std::regex("\nPart +: 1\n"))) << oExif.sOutput;
    EXPECT_TRUE(std::regex_search(oExif.sOutput, std::regex("\nConformance +: B\n")));
    EXPECT_TRUE(std::regex_search(oExif.sOutput, std::regex("\nTitle +: Quarterly\n")));
    EXPECT_TRUE(std::regex_search(oExif.sOutput, std::regex("\nCreator +: Ann Author\n")));
    EXPECT_TRUE(std::regex_search(oExif.sOutput, std::regex("\nCreatorTool +: Kestrelyn tests\n")));
    EXPECT_TRUE(
        std::regex_search(oExif.sOutput, std::regex("\nDocumentID +: uuid: [0-9A-F-]{36}\n")));
}

TEST(PdfA, OutputIntentProfileIsSrgb) {
    const std::string sPath = WritePdfA("pdfa-profile.pdf");
    const std::string sProfile = Inflate(StreamOfObject(ReadFileBytes(sPath), 7));
    ASSERT_GT(sProfile.size(), 128u);
    // ICC header: size, 'mntr' display class, 'RGB ' data, 'XYZ ' connection space, 'acsp'.
    const auto nSize = (static_cast<unsigned char>(sProfile[0]) << 24) |
                       (static_cast<unsigned char>(sProfile[1]) << 16) |
                       (static_cast<unsigned char>(sProfile[2]) << 8) |
                       static_cast<unsigned char>(sProfile[3]);
    EXPECT_EQ(static_cast<std::size_t>(nSize), sProfile.size());
    EXPECT_EQ(sProfile.substr(12, 4), "mntr");
    EXPECT_EQ(sProfile.substr(16, 4), "RGB ");
    EXPECT_EQ(sProfile.substr(20, 4), "XYZ ");
    EXPECT_EQ(sProfile.substr(36, 4), "acsp");
    EXPECT_EQ(sProfile[8], 2); // version 2, as PDF/A-1 wants
    const std::string sIcc = ScratchPath("pdfa-profile.icc");
    WriteFileBytes(sIcc, sProfile);

    KY_REQUIRE_TOOL("iccdump");
    const CommandResult oDump = RunCommand("iccdump " + Quote(sIcc));
    ASSERT_EQ(oDump.nExit, 0) << oDump.sOutput;
    EXPECT_TRUE(std::regex_search(oDump.sOutput, std::regex("Color Space += RGB")));
    EXPECT_TRUE(std::regex_search(oDump.sOutput, std::regex("Device Class += Display")));
    EXPECT_NE(oDump.sOutput.find("sRGB IEC61966-2.1"), std::string::npos);
    // The primaries: sRGB red adapted to D50.
    const CommandResult oRed = RunCommand("iccdump -v 3 -t rXYZ " + Quote(sIcc));
    EXPECT_TRUE(
        std::regex_search(oRed.sOutput, std::regex("0\\.43[0-9]+, 0\\.22[0-9]+, 0\\.01[0-9]+")))
        << oRed.sOutput;
}

} // namespace
} // namespace kestrelyn
