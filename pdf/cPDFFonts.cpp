// cPDF: installed fonts by reference, measured through the platform's font
// service in thousandths of the em.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <string>

#include "pdf/cPDF.h"
#include "platform/Windows1252.h"

namespace kestrelyn {

bool cPDF::FindInstalledFont(const std::string& sName, std::string& sInstalledName,
                             FontService& oFonts) {
    return oFonts.FindFamily(sName, sInstalledName);
}

PdfFontRecord cPDF::MakeFontRecord(const std::string& sInstalledName, bool bBold, bool bItalic,
                                   const FontMetrics& oMetrics) {
    PdfFontRecord oRecord;
    std::string sName = sInstalledName;
    if (bBold || bItalic) sName += ",";
    if (bBold) sName += "Bold";
    if (bItalic) sName += "Italic";
    sName.erase(std::remove(sName.begin(), sName.end(), ' '), sName.end());
    oRecord.sName = sName;

    int nFirst = -1, nLast = -1;
    for (int c = 0; c < 256; ++c) {
        if (oMetrics.arHasGlyph[c]) {
            if (nFirst < 0) nFirst = c;
            nLast = c;
        }
    }
    if (nFirst < 0) nFirst = nLast = 0;
    oRecord.nFirstChar = static_cast<std::uint8_t>(nFirst);
    oRecord.nLastChar = static_cast<std::uint8_t>(nLast);

    oRecord.nAscent = oMetrics.nAscent;
    oRecord.nDescent = oMetrics.nDescent;
    oRecord.nAvgWidth = oMetrics.nAvgWidth;
    oRecord.nMaxWidth = oMetrics.nMaxWidth;
    // The descriptor has no measure of its own for these.
    oRecord.nCapHeight = oRecord.nAscent;
    oRecord.nStemV = 0;
    oRecord.nItalicAngle = bItalic ? -11 : 0;
    oRecord.nFlags = oMetrics.bSymbol ? 4 : 32;

    if (nFirst > 0)
        oRecord.nMissingWidth = oMetrics.arAdvances[0];
    else if (nLast < 255)
        oRecord.nMissingWidth = oMetrics.arAdvances[255];
    else
        oRecord.nMissingWidth = 0;
    for (int c = nFirst; c <= nLast; ++c)
        oRecord.arWidths[c] = oMetrics.arAdvances[c];
    return oRecord;
}

bool cPDF::ReadFontMetrics(const std::string& sInstalledName, bool bBold, bool bItalic,
                           bool /*bUnderline*/, PdfFontRecord& oRecord, FontService& oFonts) {
    FontFace oFace;
    FontMetrics oMetrics;
    if (!oFonts.FindFace(sInstalledName, bBold, bItalic, oFace) ||
        !oFonts.ReadMetrics(oFace, oMetrics))
        return false;
    oRecord = MakeFontRecord(sInstalledName, bBold, bItalic, oMetrics);
    return true;
}

std::int32_t cPDF::LoadFont(const std::string& sName, bool bBold, bool bItalic) {
    if (!oStream) return 0;
    if (!bPdfHeaderDone) InitPdfFile();
    std::string sInstalled;
    if (!FindInstalledFont(sName, sInstalled, *pFonts)) return 0;
    PdfFontRecord oRecord;
    if (!ReadFontMetrics(sInstalled, bBold, bItalic, false, oRecord, *pFonts)) return 0;
    ++nFontCount;
    const std::int32_t nId = nFontCount;
    arFonts.push_back(oRecord);

    std::string sWidths;
    for (int c = oRecord.nFirstChar; c <= oRecord.nLastChar; ++c)
        sWidths += FormatNumber(oRecord.arWidths[c]) + " ";

    const std::string sResource = "Font" + std::to_string(nId);
    const std::int32_t nObject = BeginObject(0);
    WriteLine("<</Type/Font/Subtype/TrueType/Name/" + sResource + "/BaseFont/" + oRecord.sName +
              "/FirstChar " + std::to_string(oRecord.nFirstChar) + "/LastChar " +
              std::to_string(oRecord.nLastChar) + "/FontDescriptor " + std::to_string(nObject + 1) +
              " 0 R/Encoding/WinAnsiEncoding/Widths [" + sWidths + "] >>");
    WriteEndObj();
    sFontResources += "/" + sResource + " " + std::to_string(nObject) + " 0 R \r";
    std::string sDigits = std::to_string(nId);
    if (sDigits.size() < 4) sDigits.insert(0, 4 - sDigits.size(), '0');
    sFontLookup += "<" + sResource + ">" + sDigits + ";";

    BeginObject(0);
    const std::int32_t M = oRecord.nMaxWidth;
    const auto a = static_cast<std::int32_t>(std::nearbyint(-0.2 * M));
    const std::int32_t c = M - static_cast<std::int32_t>(std::nearbyint(0.2 * M));
    WriteLine("<<\r/Type /FontDescriptor\r/FontName /" + oRecord.sName + "\r/MissingWidth " +
              std::to_string(oRecord.nMissingWidth) + "\r/Ascent " +
              std::to_string(oRecord.nAscent) + "\r/Descent " + std::to_string(-oRecord.nDescent) +
              "\r/AvgWidth " + std::to_string(oRecord.nAvgWidth) + "\r/CapHeight " +
              std::to_string(oRecord.nCapHeight) + "\r/StemV " + std::to_string(oRecord.nStemV) +
              "\r/ItalicAngle " + std::to_string(oRecord.nItalicAngle) + "\r/Flags " +
              std::to_string(oRecord.nFlags) + "\r/MaxWidth  " + std::to_string(M) +
              "\r/FontBBox [ " + std::to_string(a) + " " + std::to_string(-oRecord.nDescent) + " " +
              std::to_string(c) + " " + std::to_string(oRecord.nAscent) + "]\r>>");
    WriteEndObj();
    return nId;
}

float cPDF::TextWidth(const std::string& sText, std::int32_t nFontId, float nSize) {
    // Look the font up by its resource name, ignoring case.
    std::string sLookup = sFontLookup, sNeedle = "<Font" + std::to_string(nFontId) + ">";
    for (char& ch : sLookup)
        ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    for (char& ch : sNeedle)
        ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    const auto nPos = sLookup.find(sNeedle);
    if (nPos == std::string::npos || nPos + sNeedle.size() + 4 > sLookup.size()) return 0;
    const int nIndex = std::stoi(sLookup.substr(nPos + sNeedle.size(), 4));
    if (nIndex < 1 || static_cast<std::size_t>(nIndex) > arFonts.size()) return 0;
    const PdfFontRecord& oFont = arFonts[nIndex - 1];

    const std::string sAnsi = Utf8ToAnsi(sText);
    float nSum = 0;
    std::int32_t nSpaces = 0;
    for (char ch : sAnsi) {
        const auto nCode = static_cast<std::uint8_t>(ch);
        if (nCode >= oFont.nFirstChar && nCode <= oFont.nLastChar)
            nSum += static_cast<float>(oFont.arWidths[nCode]);
        else
            nSum += static_cast<float>(oFont.nMissingWidth);
        if (nCode == 32) ++nSpaces;
    }
    return (nSum * nSize / 1000.0f + static_cast<float>(nSpaces) * nWordSpacing +
            static_cast<float>(sAnsi.size()) * nCharSpacing) *
           (nHorizontalScaling / 100.0f);
}

} // namespace kestrelyn
