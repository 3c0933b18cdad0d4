// cPDF: installed fonts by reference, measured from the font files through
// fontconfig and FreeType in thousandths of the em.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <set>
#include <string>
#include <vector>

#include <fontconfig/fontconfig.h>
#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_TRUETYPE_TABLES_H
#include FT_ADVANCES_H

#include "pdf/cPDF.h"
#include "platform/Windows1252.h"

namespace kestrelyn {

namespace {

// Families that documents name by their Windows names, and the installed
// families with the same metrics that stand for them.
struct FontAlias {
    const char* sName;
    const char* sFamily;
};
constexpr FontAlias kAliases[] = {
    {"Arial", "Liberation Sans"},
    {"Times New Roman", "Liberation Serif"},
    {"Courier New", "Liberation Mono"},
};

std::string FontKey(const std::string& sName) {
    std::string s;
    for (char c : sName)
        if (c != ' ') s += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

// Installed family names, in a stable order.
std::vector<std::string> InstalledFamilies() {
    std::set<std::string> oNames;
    if (!FcInit()) return {};
    FcPattern* pPattern = FcPatternCreate();
    FcObjectSet* pObjects = FcObjectSetBuild(FC_FAMILY, nullptr);
    FcFontSet* pSet = FcFontList(nullptr, pPattern, pObjects);
    if (pSet) {
        for (int i = 0; i < pSet->nfont; ++i) {
            FcChar8* pFamily = nullptr;
            for (int k = 0;
                 FcPatternGetString(pSet->fonts[i], FC_FAMILY, k, &pFamily) == FcResultMatch; ++k)
                oNames.insert(reinterpret_cast<const char*>(pFamily));
        }
        FcFontSetDestroy(pSet);
    }
    FcObjectSetDestroy(pObjects);
    FcPatternDestroy(pPattern);
    return {oNames.begin(), oNames.end()};
}

// The installed family that carries an installed name.
std::string FamilyOf(const std::string& sInstalledName) {
    for (const FontAlias& oAlias : kAliases)
        if (FontKey(oAlias.sName) == FontKey(sInstalledName)) return oAlias.sFamily;
    return sInstalledName;
}

// The font file and face index for a family and style; false if fontconfig
// offers only some other family.
bool FindFontFile(const std::string& sFamily, bool bBold, bool bItalic, std::string& sFile,
                  int& nIndex) {
    if (!FcInit()) return false;
    FcPattern* pPattern = FcPatternCreate();
    FcPatternAddString(pPattern, FC_FAMILY, reinterpret_cast<const FcChar8*>(sFamily.c_str()));
    FcPatternAddInteger(pPattern, FC_WEIGHT, bBold ? FC_WEIGHT_BOLD : FC_WEIGHT_REGULAR);
    FcPatternAddInteger(pPattern, FC_SLANT, bItalic ? FC_SLANT_ITALIC : FC_SLANT_ROMAN);
    FcConfigSubstitute(nullptr, pPattern, FcMatchPattern);
    FcDefaultSubstitute(pPattern);
    FcResult eResult = FcResultNoMatch;
    FcPattern* pMatch = FcFontMatch(nullptr, pPattern, &eResult);
    FcPatternDestroy(pPattern);
    if (!pMatch) return false;
    bool bFound = false;
    FcChar8* pFamily = nullptr;
    for (int k = 0; FcPatternGetString(pMatch, FC_FAMILY, k, &pFamily) == FcResultMatch; ++k)
        if (FontKey(reinterpret_cast<const char*>(pFamily)) == FontKey(sFamily)) bFound = true;
    FcChar8* pFile = nullptr;
    if (bFound && FcPatternGetString(pMatch, FC_FILE, 0, &pFile) == FcResultMatch) {
        sFile = reinterpret_cast<const char*>(pFile);
        nIndex = 0;
        FcPatternGetInteger(pMatch, FC_INDEX, 0, &nIndex);
    } else {
        bFound = false;
    }
    FcPatternDestroy(pMatch);
    return bFound;
}

std::int32_t ToThousandths(long nUnits, long nUnitsPerEm) {
    return static_cast<std::int32_t>(
        std::nearbyint(static_cast<double>(nUnits) * 1000.0 / static_cast<double>(nUnitsPerEm)));
}

} // namespace

bool cPDF::FindInstalledFont(const std::string& sName, std::string& sInstalledName) {
    const std::string sKey = FontKey(sName);
    if (sKey.empty()) return false;
    std::vector<std::string> arNames = InstalledFamilies();
    const std::set<std::string> oInstalled(arNames.begin(), arNames.end());
    std::vector<std::string> arCandidates;
    for (const FontAlias& oAlias : kAliases)
        if (oInstalled.count(oAlias.sFamily)) arCandidates.push_back(oAlias.sName);
    arCandidates.insert(arCandidates.end(), arNames.begin(), arNames.end());
    for (const std::string& sCandidate : arCandidates) {
        if (FontKey(sCandidate) == sKey) {
            sInstalledName = sCandidate;
            return true;
        }
    }
    return false;
}

bool cPDF::ReadFontMetrics(const std::string& sInstalledName, bool bBold, bool bItalic,
                           bool /*bUnderline*/, PdfFontRecord& oRecord) {
    std::string sFile;
    int nIndex = 0;
    if (!FindFontFile(FamilyOf(sInstalledName), bBold, bItalic, sFile, nIndex)) return false;

    FT_Library pLibrary = nullptr;
    if (FT_Init_FreeType(&pLibrary) != 0) return false;
    FT_Face pFace = nullptr;
    if (FT_New_Face(pLibrary, sFile.c_str(), nIndex, &pFace) != 0 || !FT_IS_SCALABLE(pFace) ||
        pFace->units_per_EM == 0) {
        if (pFace) FT_Done_Face(pFace);
        FT_Done_FreeType(pLibrary);
        return false;
    }
    const long nEm = pFace->units_per_EM;

    // Symbol fonts have only the symbol character map: codes map to 0xF000 + code.
    bool bSymbol = false;
    if (FT_Select_Charmap(pFace, FT_ENCODING_UNICODE) != 0)
        bSymbol = FT_Select_Charmap(pFace, FT_ENCODING_MS_SYMBOL) == 0;
    auto GlyphOf = [&](int nCode) -> FT_UInt {
        if (bSymbol) {
            FT_UInt g = FT_Get_Char_Index(pFace, 0xF000 + nCode);
            return g ? g : FT_Get_Char_Index(pFace, nCode);
        }
        return FT_Get_Char_Index(pFace, AnsiToUnicode(static_cast<std::uint8_t>(nCode)));
    };
    auto AdvanceOf = [&](FT_UInt nGlyph) -> std::int32_t {
        FT_Fixed nAdvance = 0;
        if (FT_Get_Advance(pFace, nGlyph, FT_LOAD_NO_SCALE, &nAdvance) != 0) return 0;
        return ToThousandths(static_cast<long>(nAdvance), nEm);
    };

    std::string sName = sInstalledName;
    if (bBold || bItalic) sName += ",";
    if (bBold) sName += "Bold";
    if (bItalic) sName += "Italic";
    sName.erase(std::remove(sName.begin(), sName.end(), ' '), sName.end());
    oRecord = PdfFontRecord{};
    oRecord.sName = sName;

    int nFirst = -1, nLast = -1;
    for (int c = 0; c < 256; ++c) {
        if (GlyphOf(c) != 0) {
            if (nFirst < 0) nFirst = c;
            nLast = c;
        }
    }
    if (nFirst < 0) nFirst = nLast = 0;
    oRecord.nFirstChar = static_cast<std::uint8_t>(nFirst);
    oRecord.nLastChar = static_cast<std::uint8_t>(nLast);

    const TT_OS2* pOs2 = static_cast<const TT_OS2*>(FT_Get_Sfnt_Table(pFace, FT_SFNT_OS2));
    if (pOs2 && pOs2->version != 0xFFFF && (pOs2->usWinAscent != 0 || pOs2->usWinDescent != 0)) {
        oRecord.nAscent = ToThousandths(pOs2->usWinAscent, nEm);
        oRecord.nDescent = ToThousandths(pOs2->usWinDescent, nEm);
    } else {
        oRecord.nAscent = ToThousandths(pFace->ascender, nEm);
        oRecord.nDescent = ToThousandths(-pFace->descender, nEm);
    }
    oRecord.nAvgWidth = pOs2 && pOs2->version != 0xFFFF ? ToThousandths(pOs2->xAvgCharWidth, nEm)
                                                        : AdvanceOf(GlyphOf('x'));
    oRecord.nMaxWidth = ToThousandths(pFace->max_advance_width, nEm);
    oRecord.nCapHeight = oRecord.nAscent;
    oRecord.nStemV = 0;
    oRecord.nItalicAngle = bItalic ? -11 : 0;
    oRecord.nFlags = bSymbol ? 4 : 32;

    if (nFirst > 0)
        oRecord.nMissingWidth = AdvanceOf(GlyphOf(0));
    else if (nLast < 255)
        oRecord.nMissingWidth = AdvanceOf(GlyphOf(255));
    else
        oRecord.nMissingWidth = 0;
    for (int c = nFirst; c <= nLast; ++c)
        oRecord.arWidths[c] = AdvanceOf(GlyphOf(c));

    FT_Done_Face(pFace);
    FT_Done_FreeType(pLibrary);
    return true;
}

std::int32_t cPDF::LoadFont(const std::string& sName, bool bBold, bool bItalic) {
    if (!pFile) return 0;
    if (!bPdfHeaderDone) InitPdfFile();
    std::string sInstalled;
    if (!FindInstalledFont(sName, sInstalled)) return 0;
    PdfFontRecord oRecord;
    if (!ReadFontMetrics(sInstalled, bBold, bItalic, false, oRecord)) return 0;
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
