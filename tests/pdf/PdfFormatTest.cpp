// Number text, string escapes and the WinAnsi code page.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <locale>
#include <sstream>

#include "PdfTestSupport.h"
#include "pdf/cPDF.h"
#include "platform/Windows1252.h"

namespace kestrelyn {
namespace {

TEST(PdfFormatNumber, ThreeDecimalsWithoutTrailingZeros) {
    EXPECT_EQ(cPDF::FormatNumber(12), "12");
    EXPECT_EQ(cPDF::FormatNumber(12.5), "12.5");
    EXPECT_EQ(cPDF::FormatNumber(1.0 / 3.0), "0.333");
    EXPECT_EQ(cPDF::FormatNumber(2.0 / 3.0), "0.667");
    EXPECT_EQ(cPDF::FormatNumber(-0.25), "-0.25");
    EXPECT_EQ(cPDF::FormatNumber(0.1 + 0.2), "0.3");
    EXPECT_EQ(cPDF::FormatNumber(100.0), "100");
    EXPECT_EQ(cPDF::FormatNumber(1234567.0), "1234567");
    // Float paper sizes print at three decimals.
    EXPECT_EQ(cPDF::FormatNumber(595.2f), "595.2");
    EXPECT_EQ(cPDF::FormatNumber(1190.5f), "1190.5");
    // Tiny negative values do not print as "-0".
    EXPECT_EQ(cPDF::FormatNumber(-0.0001), "0");
    EXPECT_EQ(cPDF::FormatNumber(-0.0), "0");
}

TEST(PdfFormatNumber, RoundsTheStoredDoubleHalfToEven) {
    // 1.0005 is stored a little below the half, 1.0015 a little above.
    EXPECT_EQ(cPDF::FormatNumber(1.0005), "1");
    EXPECT_EQ(cPDF::FormatNumber(1.0015), "1.002");
    // Exact halves go to the even digit.
    EXPECT_EQ(cPDF::FormatNumber(2.5, 0), "2");
    EXPECT_EQ(cPDF::FormatNumber(3.5, 0), "4");
    EXPECT_EQ(cPDF::FormatNumber(0.125, 2), "0.12");
    EXPECT_EQ(cPDF::FormatNumber(0.375, 2), "0.38");
    // The gray of -128.
    EXPECT_EQ(cPDF::FormatNumber(128.0 / 255.0), "0.502");
}

TEST(PdfFormatFixed, AlwaysTwoDecimals) {
    EXPECT_EQ(cPDF::FormatFixed(100), "100.00");
    EXPECT_EQ(cPDF::FormatFixed(0.5), "0.50");
    EXPECT_EQ(cPDF::FormatFixed(612), "612.00");
    EXPECT_EQ(cPDF::FormatFixed(-3.256), "-3.26");
}

// A numeric punctuation with a decimal comma, as German locales have it.
struct CommaPunct : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

// Puts a German C locale in force: an installed one, or one compiled into the
// scratch directory with localedef. False if neither can be had.
bool UseGermanCLocale() {
    for (const char* sName : {"de_DE.UTF-8", "de_DE.utf8", "de_DE"})
        if (std::setlocale(LC_ALL, sName)) return true;
    if (!pdftest::HaveTool("localedef")) return false;
    const std::string sDir = pdftest::ScratchPath("locales");
    pdftest::RunCommand("mkdir -p " + pdftest::Quote(sDir) + " && localedef -i de_DE -f UTF-8 " +
                        pdftest::Quote(sDir + "/de_DE.UTF-8"));
    ::setenv("LOCPATH", sDir.c_str(), 1);
    const bool bDone = std::setlocale(LC_ALL, "de_DE.UTF-8") != nullptr;
    ::unsetenv("LOCPATH");
    return bDone;
}

TEST(PdfFormatNumber, IgnoresTheLocalesDecimalComma) {
    const std::locale oSaved =
        std::locale::global(std::locale(std::locale::classic(), new CommaPunct));
    const std::string sSavedC = std::setlocale(LC_ALL, nullptr);
    const bool bCLocale = UseGermanCLocale();
    if (!bCLocale && ::kestrelyn::test::CheckersRequired())
        ADD_FAILURE()
            << "no German C locale could be had (localedef) and KY_REQUIRE_CHECKERS is set";
    // The comma is in force for streams, and for printf when a C locale was had.
    std::ostringstream oProbe;
    oProbe << 0.5;
    EXPECT_EQ(oProbe.str(), "0,5");
    if (bCLocale) {
        char arPrinted[32];
        std::snprintf(arPrinted, sizeof(arPrinted), "%.1f", 0.5);
        EXPECT_STREQ(arPrinted, "0,5");
    }

    EXPECT_EQ(cPDF::FormatNumber(0.5), "0.5");
    EXPECT_EQ(cPDF::FormatNumber(1234.567), "1234.567");
    EXPECT_EQ(cPDF::FormatFixed(0.5), "0.50");
    EXPECT_EQ(cPDF::FormatFixed(1234.5), "1234.50");
    // A whole page's numbers too.
    const std::string sPath = pdftest::ScratchPath("locale.pdf");
    cPDF oPdf;
    oPdf.CompressData(false);
    ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    oPdf.SetColorFill(-128);
    oPdf.Rectangle(0.5f, 1.25f, 10, 10, 4);
    oPdf.ClosePdfFile();
    EXPECT_EQ(pdftest::StreamOfObject(pdftest::ReadFileBytes(sPath), 6),
              "0.502 g\r\nn\r\n0.5 1.25 10 10 re\r\nf\r\n");

    std::setlocale(LC_ALL, sSavedC.c_str());
    std::locale::global(oSaved);
    if (!bCLocale) std::cout << "[ note ] no German C locale could be had; C++ locale only\n";
}

TEST(PdfEscape, BackslashFirstThenBrackets) {
    EXPECT_EQ(cPDF::EscapeStringPlain("a(b)"), "a\\(b\\)");
    EXPECT_EQ(cPDF::EscapeStringPlain("c:\\dir"), "c:\\\\dir");
    // A backslash already before a bracket is doubled, not taken as an escape.
    EXPECT_EQ(cPDF::EscapeStringPlain("\\("), "\\\\\\(");
    EXPECT_EQ(cPDF::EscapeStringPlain("line\r\n"), "line\r\n");
    EXPECT_EQ(cPDF::EscapeString("line\r\n(x)"), "line\\r\\n\\(x\\)");
    EXPECT_EQ(cPDF::EscapeString(""), "");
}

TEST(PdfAnsi, Utf8ToWindows1252) {
    EXPECT_EQ(Utf8ToAnsi("plain"), "plain");
    EXPECT_EQ(Utf8ToAnsi("caf\xC3\xA9"), "caf\xE9");
    EXPECT_EQ(Utf8ToAnsi("\xE2\x82\xAC"), "\x80"); // euro sign
    EXPECT_EQ(Utf8ToAnsi("\xE2\x80\x9C"
                         "q"
                         "\xE2\x80\x9D"),
              "\x93q\x94");
    EXPECT_EQ(Utf8ToAnsi("\xC5\xB8"), "\x9F");        // Y with diaeresis
    EXPECT_EQ(Utf8ToAnsi("\xCE\xA9"), "?");           // Greek omega: not in the code page
    EXPECT_EQ(Utf8ToAnsi("\xF0\x9F\x98\x80x"), "?x"); // outside the BMP
    EXPECT_EQ(Utf8ToAnsi("a\xFF"
                         "b"),
              "a?b");                   // malformed byte
    EXPECT_EQ(Utf8ToAnsi("\xC3"), "?"); // cut sequence
}

TEST(PdfAnsi, EveryByteRoundTrips) {
    for (int c = 0; c < 256; ++c) {
        const std::string sByte(1, static_cast<char>(c));
        EXPECT_EQ(Utf8ToAnsi(AnsiToUtf8(sByte)), sByte) << c;
    }
    EXPECT_EQ(AnsiToUnicode(0x80), 0x20ACu);
    EXPECT_EQ(AnsiToUnicode(0x8D), 0x8Du);
    EXPECT_EQ(UnicodeToAnsi(0x2122), 0x99);
    EXPECT_EQ(UnicodeToAnsi(0x3A9), -1);
}

} // namespace
} // namespace kestrelyn
