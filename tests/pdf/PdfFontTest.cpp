// Fonts by reference: lookup of installed fonts, metrics in thousandths of
// the em, font objects, text widths, and text as readers see it.
#include <gtest/gtest.h>

#include <cmath>
#include <regex>

#include "PdfTestSupport.h"
#include "pdf/cPDF.h"

namespace kestrelyn {
namespace {

using namespace pdftest;

std::int32_t Width(const PdfFontRecord& oFont, char c) {
    return oFont.arWidths[static_cast<unsigned char>(c)];
}

TEST(PdfFonts, LookupIgnoresCaseAndBlanksAndKeepsTheInstalledSpelling) {
    std::string sName;
    ASSERT_TRUE(cPDF::FindInstalledFont("arial", sName));
    EXPECT_EQ(sName, "Arial");
    sName.clear();
    ASSERT_TRUE(cPDF::FindInstalledFont("A R I A L", sName));
    EXPECT_EQ(sName, "Arial");
    ASSERT_TRUE(cPDF::FindInstalledFont("timesnewroman", sName));
    EXPECT_EQ(sName, "Times New Roman");
    ASSERT_TRUE(cPDF::FindInstalledFont("COURIER new", sName));
    EXPECT_EQ(sName, "Courier New");
    ASSERT_TRUE(cPDF::FindInstalledFont("liberationsans", sName));
    EXPECT_EQ(sName, "Liberation Sans");
    EXPECT_FALSE(cPDF::FindInstalledFont("No Such Font Anywhere", sName));
    EXPECT_FALSE(cPDF::FindInstalledFont("   ", sName));
}

TEST(PdfFonts, ArialMetricsInThousandthsOfTheEm) {
    PdfFontRecord oFont;
    ASSERT_TRUE(cPDF::ReadFontMetrics("Arial", false, false, false, oFont));
    EXPECT_EQ(oFont.sName, "Arial");
    EXPECT_EQ(oFont.nFirstChar, 32);
    EXPECT_EQ(oFont.nLastChar, 255);
    // The advances of the metric-compatible face are those of Arial.
    EXPECT_EQ(Width(oFont, ' '), 278);
    EXPECT_EQ(Width(oFont, 'a'), 556);
    EXPECT_EQ(Width(oFont, 'i'), 222);
    EXPECT_EQ(Width(oFont, 'W'), 944);
    EXPECT_EQ(Width(oFont, '0'), 556);
    EXPECT_EQ(oFont.arWidths[0x80], 556); // the euro sign, through the code page
    EXPECT_EQ(oFont.arWidths[0xE9], 556); // e acute
    EXPECT_EQ(oFont.nAscent, 905);
    EXPECT_EQ(oFont.nDescent, 212);
    EXPECT_EQ(oFont.nCapHeight, oFont.nAscent);
    EXPECT_EQ(oFont.nFlags, 32);
    EXPECT_EQ(oFont.nItalicAngle, 0);
    EXPECT_EQ(oFont.nStemV, 0);
    EXPECT_GT(oFont.nMaxWidth, 1000);
    EXPECT_GT(oFont.nAvgWidth, 300);
    EXPECT_LT(oFont.nAvgWidth, 600);
    // The code before the first is code 0, which has no glyph: the missing-glyph advance.
    EXPECT_GT(oFont.nMissingWidth, 0);
}

TEST(PdfFonts, StyleNamesAndMonospacedWidths) {
    PdfFontRecord oFont;
    ASSERT_TRUE(cPDF::ReadFontMetrics("Times New Roman", true, true, false, oFont));
    EXPECT_EQ(oFont.sName, "TimesNewRoman,BoldItalic");
    EXPECT_EQ(oFont.nItalicAngle, -11);
    EXPECT_EQ(Width(oFont, 'a'), 500);
    EXPECT_EQ(Width(oFont, 'W'), 889);
    ASSERT_TRUE(cPDF::ReadFontMetrics("Arial", true, false, false, oFont));
    EXPECT_EQ(oFont.sName, "Arial,Bold");
    EXPECT_EQ(Width(oFont, 'a'), 556);
    EXPECT_EQ(Width(oFont, 'b'), 611); // bold advances differ from regular (556)
    ASSERT_TRUE(cPDF::ReadFontMetrics("Courier New", false, true, false, oFont));
    EXPECT_EQ(oFont.sName, "CourierNew,Italic");
    for (int c = oFont.nFirstChar; c <= oFont.nLastChar; ++c) {
        if (c != 0x81 && c != 0x8D && c != 0x8F && c != 0x90 && c != 0x9D) {
            EXPECT_EQ(oFont.arWidths[c], 600) << c;
        }
    }
}

TEST(PdfFonts, FontObjectsAndDescriptor) {
    const std::string sPath = ScratchPath("fonts.pdf");
    cPDF oPdf;
    ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    EXPECT_EQ(oPdf.LoadFont("arial", false, false), 1);
    EXPECT_EQ(oPdf.LoadFont("No Such Font Anywhere", false, false), 0);
    EXPECT_EQ(oPdf.LoadFont("Arial", false, false), 2); // no reuse: a second font
    oPdf.BeginPage();
    oPdf.ClosePdfFile();
    const std::string sFile = ReadFileBytes(sPath);

    PdfFontRecord oFont;
    ASSERT_TRUE(cPDF::ReadFontMetrics("Arial", false, false, false, oFont));
    std::string sWidths;
    for (int c = 32; c <= 255; ++c)
        sWidths += std::to_string(oFont.arWidths[c]) + " ";
    EXPECT_EQ(ObjectText(sFile, 5),
              "5 0 obj\r\n<</Type/Font/Subtype/TrueType/Name/Font1/BaseFont/Arial/FirstChar 32"
              "/LastChar 255/FontDescriptor 6 0 R/Encoding/WinAnsiEncoding/Widths [" +
                  sWidths + "] >>\r\nendobj");
    const int M = oFont.nMaxWidth;
    const int a = static_cast<int>(std::nearbyint(-0.2 * M));
    const int c = M - static_cast<int>(std::nearbyint(0.2 * M));
    EXPECT_EQ(ObjectText(sFile, 6),
              "6 0 obj\r\n<<\r/Type /FontDescriptor\r/FontName /Arial\r/MissingWidth " +
                  std::to_string(oFont.nMissingWidth) + "\r/Ascent 905\r/Descent -212\r/AvgWidth " +
                  std::to_string(oFont.nAvgWidth) +
                  "\r/CapHeight 905\r/StemV 0\r/ItalicAngle 0\r/Flags 32\r/MaxWidth  " +
                  std::to_string(M) + "\r/FontBBox [ " + std::to_string(a) + " -212 " +
                  std::to_string(c) + " 905]\r>>\r\nendobj");
    EXPECT_NE(ObjectText(sFile, 7).find("/Name/Font2/BaseFont/Arial/"), std::string::npos);
    EXPECT_NE(sFile.find("<</Font<</Font1 5 0 R \r/Font2 7 0 R \r>>/ProcSet [/PDF/Text ]>>"),
              std::string::npos);
    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(sPath);
}

TEST(PdfFonts, TextWidthWithSpacingAndScaling) {
    const std::string sPath = ScratchPath("widths.pdf");
    cPDF oPdf;
    ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    const std::int32_t nFont = oPdf.LoadFont("Arial", false, false);
    ASSERT_EQ(nFont, 1);
    EXPECT_EQ(oPdf.TextWidth("abc", 2, 10), 0.0f); // unknown font
    // a 556 + W 944 + i 222 at 10 points.
    EXPECT_FLOAT_EQ(oPdf.TextWidth("aWi", nFont, 10), 17.22f);
    const float nPlain = oPdf.TextWidth("a b c d", nFont, 12);
    oPdf.BeginPage();
    oPdf.SetWordSpacing(2);
    EXPECT_FLOAT_EQ(oPdf.TextWidth("a b c d", nFont, 12), nPlain + 6);
    oPdf.SetCharSpacing(1);
    EXPECT_FLOAT_EQ(oPdf.TextWidth("a b c d", nFont, 12), nPlain + 6 + 7);
    oPdf.SetTextHorizontalScaling(50);
    EXPECT_FLOAT_EQ(oPdf.TextWidth("a b c d", nFont, 12), (nPlain + 13) / 2);
    // A new page resets spacing and scaling.
    oPdf.BeginPage();
    EXPECT_FLOAT_EQ(oPdf.TextWidth("a b c d", nFont, 12), nPlain);
    // UTF-8 text is measured in the code page: e acute is one character.
    EXPECT_FLOAT_EQ(oPdf.TextWidth("\xC3\xA9", nFont, 1000), 556);
    // Code 0 lies below the first code and counts the missing width.
    PdfFontRecord oFont;
    ASSERT_TRUE(cPDF::ReadFontMetrics("Arial", false, false, false, oFont));
    EXPECT_FLOAT_EQ(oPdf.TextWidth(std::string(1, '\0'), nFont, 1000),
                    static_cast<float>(oFont.nMissingWidth));
    oPdf.ClosePdfFile();
}

TEST(PdfFonts, DrawTextOperatorsAlignAndRotation) {
    const std::string sPath = ScratchPath("drawtext.pdf");
    cPDF oPdf;
    oPdf.CompressData(false);
    ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    const std::int32_t nFont = oPdf.LoadFont("Courier New", false, false);
    ASSERT_EQ(nFont, 1);
    oPdf.DrawText(100, 200, "ab", 0, 10); // no font 0
    oPdf.DrawText(100, 200, "ab", 2, 10); // no font 2
    EXPECT_EQ(oPdf.Pages(), 0);
    oPdf.DrawText(100, 200, "a(b)\\", nFont, 10);
    oPdf.DrawText(100, 200, "ab", nFont, 10, 1); // right: 2 * 6 points to the left
    oPdf.DrawText(100, 200, "ab", nFont, 10, 2); // centred
    oPdf.DrawText(100, 200, "x", nFont, 12.5f, 0, 90);
    oPdf.ClosePdfFile();
    const std::string sFile = ReadFileBytes(sPath);
    // Fonts are 5 and 6; the page is 7 and its content 8.
    EXPECT_EQ(StreamOfObject(sFile, 8),
              "BT\r\n/Font1 10 Tf\r\n100 200 Td\r\n(a\\(b\\)\\\\) Tj\r\nET\r\n"
              "BT\r\n/Font1 10 Tf\r\n88 200 Td\r\n(ab) Tj\r\nET\r\n"
              "BT\r\n/Font1 10 Tf\r\n94 200 Td\r\n(ab) Tj\r\nET\r\n"
              "BT\r\n/Font1 12.5 Tf\r\n0 1 -1 0 100 200 Tm\r\n(x) Tj\r\nET\r\n");
    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(sPath);
}

TEST(PdfFonts, ReadersSeeTheFontsAndTheText) {
    KY_REQUIRE_TOOL("pdffonts");
    KY_REQUIRE_TOOL("pdftotext");
    const std::string sPath = ScratchPath("readers.pdf");
    cPDF oPdf;
    ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    const std::int32_t nArial = oPdf.LoadFont("Arial", false, false);
    const std::int32_t nTimes = oPdf.LoadFont("Times New Roman", true, false);
    oPdf.DrawText(72, 700, "Hello (PDF) world", nArial, 14);
    oPdf.DrawText(72, 650, "Caf\xC3\xA9 \xE2\x82\xAC 42", nTimes, 14);
    oPdf.BeginPage();
    oPdf.DrawText(72, 700, "Second page", nArial, 12);
    oPdf.ClosePdfFile();
    ExpectQpdfCheck(sPath);

    const CommandResult oFonts = RunCommand("pdffonts " + Quote(sPath));
    ASSERT_EQ(oFonts.nExit, 0) << oFonts.sOutput;
    EXPECT_TRUE(
        std::regex_search(oFonts.sOutput, std::regex("\nArial +TrueType +WinAnsi +no +no +no ")))
        << oFonts.sOutput;
    EXPECT_TRUE(std::regex_search(
        oFonts.sOutput, std::regex("\nTimesNewRoman,Bold +TrueType +WinAnsi +no +no +no ")))
        << oFonts.sOutput;

    const CommandResult oPage1 = RunCommand("pdftotext -f 1 -l 1 " + Quote(sPath) + " -");
    EXPECT_NE(oPage1.sOutput.find("Hello (PDF) world"), std::string::npos) << oPage1.sOutput;
    EXPECT_NE(oPage1.sOutput.find("Caf\xC3\xA9 \xE2\x82\xAC 42"), std::string::npos)
        << oPage1.sOutput;
    const CommandResult oPage2 = RunCommand("pdftotext -f 2 -l 2 " + Quote(sPath) + " -");
    EXPECT_NE(oPage2.sOutput.find("Second page"), std::string::npos) << oPage2.sOutput;

    KY_REQUIRE_TOOL("pdftoppm");
    const GrayPage oPage = RenderGray(sPath, 1);
    // Some ink where the first line of text stands, none above it.
    int nInk = 0, nAbove = 0;
    for (int x = 72; x < 200; ++x)
        for (int y = 700; y < 712; ++y) {
            nInk += oPage.AtPdf(x, y) < 128;
            nAbove += oPage.AtPdf(x, y + 20) < 128;
        }
    EXPECT_GT(nInk, 50);
    EXPECT_EQ(nAbove, 0);
}

// --- the font service ---------------------------------------------------------

// Made-up faces: codes 32 to 126, each advance 400 + code, code 0 at 777.
FontMetrics AlphaMetrics() {
    FontMetrics o;
    for (int c = 0; c < 256; ++c) {
        o.arHasGlyph[c] = c >= 32 && c <= 126;
        o.arAdvances[c] = 400 + c;
    }
    o.arAdvances[0] = 777;
    o.nAscent = 800;
    o.nDescent = 200;
    o.nCapHeight = 700;
    o.nAvgWidth = 450;
    o.nMaxWidth = 1100;
    o.nItalicAngle = -12.5;
    return o;
}

class FakeFonts final : public FontService {
  public:
    std::vector<std::string> Families() override { return {"Alpha Sans", "Beta", "alpha sans"}; }
    bool FindFace(const std::string& sFamily, bool bBold, bool bItalic, FontFace& oFace) override {
        arAsked.push_back(sFamily + (bBold ? "/b" : "") + (bItalic ? "/i" : ""));
        if (sFamily == "Beta") return false; // installed, but without a face to offer
        oFace.sFile = sFamily + ".ttf";
        return true;
    }
    bool ReadMetrics(const FontFace& oFace, FontMetrics& oMetrics) override {
        oMetrics = AlphaMetrics();
        return oFace.sFile == "Alpha Sans.ttf";
    }
    std::vector<std::string> arAsked;
};

TEST(PdfFontService, FamilyLookupTakesTheFirstMatchInTheServicesOrder) {
    FakeFonts oFonts;
    std::string sName;
    ASSERT_TRUE(oFonts.FindFamily("ALPHASANS", sName));
    EXPECT_EQ(sName, "Alpha Sans");
    ASSERT_TRUE(cPDF::FindInstalledFont("b e t a", sName, oFonts));
    EXPECT_EQ(sName, "Beta");
    EXPECT_FALSE(oFonts.FindFamily("Gamma", sName));
    EXPECT_FALSE(oFonts.FindFamily(" ", sName));
    EXPECT_EQ(sName, "Beta");
}

TEST(PdfFontService, FontRecordFromTheFacesMetrics) {
    FontMetrics oMetrics = AlphaMetrics();
    PdfFontRecord o = cPDF::MakeFontRecord("Alpha Sans", true, true, oMetrics);
    EXPECT_EQ(o.sName, "AlphaSans,BoldItalic");
    EXPECT_EQ(o.nFirstChar, 32);
    EXPECT_EQ(o.nLastChar, 126);
    EXPECT_EQ(o.arWidths[static_cast<unsigned char>('A')], 465);
    EXPECT_EQ(o.arWidths[31], 0);
    EXPECT_EQ(o.arWidths[127], 0);
    EXPECT_EQ(o.nMissingWidth, 777); // code 0 lies before the first
    EXPECT_EQ(o.nAscent, 800);
    EXPECT_EQ(o.nDescent, 200);
    EXPECT_EQ(o.nCapHeight, 800); // the ascent, not the face's own cap height
    EXPECT_EQ(o.nItalicAngle, -11);
    EXPECT_EQ(o.nStemV, 0);
    EXPECT_EQ(o.nFlags, 32);

    // A symbol face from code 0 on: code 255 gives the missing width.
    for (int c = 0; c < 256; ++c)
        oMetrics.arHasGlyph[c] = c <= 200;
    oMetrics.bSymbol = true;
    o = cPDF::MakeFontRecord("Sym Bol", false, false, oMetrics);
    EXPECT_EQ(o.sName, "SymBol");
    EXPECT_EQ(o.nFirstChar, 0);
    EXPECT_EQ(o.nLastChar, 200);
    EXPECT_EQ(o.nMissingWidth, 655);
    EXPECT_EQ(o.nFlags, 4);
    EXPECT_EQ(o.nItalicAngle, 0);
    // Every code covered: no missing width at all.
    oMetrics.arHasGlyph.fill(true);
    o = cPDF::MakeFontRecord("Full", false, true, oMetrics);
    EXPECT_EQ(o.sName, "Full,Italic");
    EXPECT_EQ(o.nLastChar, 255);
    EXPECT_EQ(o.nMissingWidth, 0);
    EXPECT_EQ(o.arWidths[255], 655);
    // No glyph at all: a range of code 0 alone.
    oMetrics.arHasGlyph.fill(false);
    o = cPDF::MakeFontRecord("Empty", false, false, oMetrics);
    EXPECT_EQ(o.nFirstChar, 0);
    EXPECT_EQ(o.nLastChar, 0);
}

TEST(PdfFontService, LoadFontWritesWhatTheServiceMeasures) {
    FakeFonts oFonts;
    const std::string sPath = ScratchPath("fake-fonts.pdf");
    cPDF oPdf;
    oPdf.Fonts(oFonts);
    ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    EXPECT_EQ(oPdf.LoadFont("beta", false, false), 0); // no face: no font, no objects
    EXPECT_EQ(oPdf.LoadFont("alphasans", true, false), 1);
    EXPECT_EQ(oFonts.arAsked, (std::vector<std::string>{"Beta", "Alpha Sans/b"}));
    // A at 465 and E grave (code 200, past the last code) at the missing width.
    EXPECT_FLOAT_EQ(oPdf.TextWidth("A\xC3\x88", 1, 10), (465 + 777) / 100.0f);
    oPdf.BeginPage();
    oPdf.ClosePdfFile();
    const std::string sFile = ReadFileBytes(sPath);

    std::string sWidths;
    for (int c = 32; c <= 126; ++c)
        sWidths += std::to_string(400 + c) + " ";
    EXPECT_EQ(ObjectText(sFile, 5),
              "5 0 obj\r\n<</Type/Font/Subtype/TrueType/Name/Font1/BaseFont/AlphaSans,Bold"
              "/FirstChar 32/LastChar 126/FontDescriptor 6 0 R/Encoding/WinAnsiEncoding/Widths [" +
                  sWidths + "] >>\r\nendobj");
    EXPECT_EQ(ObjectText(sFile, 6),
              "6 0 obj\r\n<<\r/Type /FontDescriptor\r/FontName /AlphaSans,Bold\r/MissingWidth 777"
              "\r/Ascent 800\r/Descent -200\r/AvgWidth 450\r/CapHeight 800\r/StemV 0"
              "\r/ItalicAngle 0\r/Flags 32\r/MaxWidth  1100\r/FontBBox [ -220 -200 880 800]"
              "\r>>\r\nendobj");
    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(sPath);
}

TEST(PdfFontService, SystemFacesAndTheirOwnMeasures) {
    FontService& oFonts = SystemFontService();
    FontFace oFace;
    FontMetrics oMetrics;
    ASSERT_TRUE(oFonts.FindFace("Arial", false, false, oFace));
    EXPECT_NE(oFace.sFile.find("LiberationSans"), std::string::npos) << oFace.sFile;
    ASSERT_TRUE(oFonts.ReadMetrics(oFace, oMetrics));
    EXPECT_FALSE(oMetrics.bSymbol);
    EXPECT_GT(oMetrics.nCapHeight, 600);
    EXPECT_LT(oMetrics.nCapHeight, oMetrics.nAscent);
    EXPECT_EQ(oMetrics.nItalicAngle, 0);
    EXPECT_TRUE(oMetrics.arHasGlyph['A']);
    EXPECT_FALSE(oMetrics.arHasGlyph[0]);
    EXPECT_EQ(oMetrics.arAdvances['A'], 667);

    ASSERT_TRUE(oFonts.FindFace("times new roman", false, true, oFace));
    ASSERT_TRUE(oFonts.ReadMetrics(oFace, oMetrics));
    EXPECT_LT(oMetrics.nItalicAngle, -5);

    EXPECT_FALSE(oFonts.FindFace("No Such Font Anywhere", false, false, oFace));
    EXPECT_FALSE(oFonts.ReadMetrics(FontFace{ScratchPath("no-such-font.ttf"), 0}, oMetrics));
}

} // namespace
} // namespace kestrelyn
