// Installed fonts through fontconfig, measured from the font files with
// FreeType.
#include "platform/FontService.h"

#include <cmath>
#include <set>

#include <fontconfig/fontconfig.h>
#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_TRUETYPE_TABLES_H
#include FT_ADVANCES_H

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

// Installed family names, in a stable order.
std::vector<std::string> FontconfigFamilies() {
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

// The installed family that carries a family name.
std::string InstalledFamilyOf(const std::string& sFamily) {
    for (const FontAlias& oAlias : kAliases)
        if (FontService::FamilyKey(oAlias.sName) == FontService::FamilyKey(sFamily))
            return oAlias.sFamily;
    return sFamily;
}

std::int32_t ToThousandths(long nUnits, long nUnitsPerEm) {
    return static_cast<std::int32_t>(
        std::nearbyint(static_cast<double>(nUnits) * 1000.0 / static_cast<double>(nUnitsPerEm)));
}

// FreeType objects of one measurement, released together.
struct FreeTypeFace {
    FT_Library pLibrary = nullptr;
    FT_Face pFace = nullptr;
    FreeTypeFace() = default;
    FreeTypeFace(const FreeTypeFace&) = delete;
    FreeTypeFace& operator=(const FreeTypeFace&) = delete;
    ~FreeTypeFace() {
        if (pFace) FT_Done_Face(pFace);
        if (pLibrary) FT_Done_FreeType(pLibrary);
    }
};

class FontconfigFontService final : public FontService {
  public:
    std::vector<std::string> Families() override {
        // The Windows names first, where their stand-ins are installed.
        std::vector<std::string> arNames = FontconfigFamilies();
        const std::set<std::string> oInstalled(arNames.begin(), arNames.end());
        std::vector<std::string> arFamilies;
        for (const FontAlias& oAlias : kAliases)
            if (oInstalled.count(oAlias.sFamily)) arFamilies.push_back(oAlias.sName);
        arFamilies.insert(arFamilies.end(), arNames.begin(), arNames.end());
        return arFamilies;
    }

    bool FindFace(const std::string& sName, bool bBold, bool bItalic, FontFace& oFace) override {
        const std::string sFamily = InstalledFamilyOf(sName);
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
        // fontconfig always offers something; only the family asked for counts.
        bool bFound = false;
        FcChar8* pFamily = nullptr;
        for (int k = 0; FcPatternGetString(pMatch, FC_FAMILY, k, &pFamily) == FcResultMatch; ++k)
            if (FamilyKey(reinterpret_cast<const char*>(pFamily)) == FamilyKey(sFamily))
                bFound = true;
        FcChar8* pFile = nullptr;
        if (bFound && FcPatternGetString(pMatch, FC_FILE, 0, &pFile) == FcResultMatch) {
            oFace.sFile = reinterpret_cast<const char*>(pFile);
            int nIndex = 0;
            FcPatternGetInteger(pMatch, FC_INDEX, 0, &nIndex);
            oFace.nIndex = nIndex;
        } else {
            bFound = false;
        }
        FcPatternDestroy(pMatch);
        return bFound;
    }

    bool ReadMetrics(const FontFace& oFace, FontMetrics& oMetrics) override {
        FreeTypeFace oFt;
        if (FT_Init_FreeType(&oFt.pLibrary) != 0) return false;
        if (FT_New_Face(oFt.pLibrary, oFace.sFile.c_str(), oFace.nIndex, &oFt.pFace) != 0)
            return false;
        FT_Face pFace = oFt.pFace;
        if (!FT_IS_SCALABLE(pFace) || pFace->units_per_EM == 0) return false;
        const long nEm = pFace->units_per_EM;

        // Symbol faces have only the symbol map: codes map to 0xF000 + code.
        bool bSymbol = false;
        if (FT_Select_Charmap(pFace, FT_ENCODING_UNICODE) != 0)
            bSymbol = FT_Select_Charmap(pFace, FT_ENCODING_MS_SYMBOL) == 0;
        auto GlyphOf = [&](int nCode) -> FT_UInt {
            if (bSymbol) {
                const FT_UInt g = FT_Get_Char_Index(pFace, 0xF000 + nCode);
                return g ? g : FT_Get_Char_Index(pFace, nCode);
            }
            return FT_Get_Char_Index(pFace, AnsiToUnicode(static_cast<std::uint8_t>(nCode)));
        };
        auto AdvanceOf = [&](FT_UInt nGlyph) -> std::int32_t {
            FT_Fixed nAdvance = 0;
            if (FT_Get_Advance(pFace, nGlyph, FT_LOAD_NO_SCALE, &nAdvance) != 0) return 0;
            return ToThousandths(static_cast<long>(nAdvance), nEm);
        };

        oMetrics = FontMetrics{};
        oMetrics.bSymbol = bSymbol;
        for (int c = 0; c < 256; ++c) {
            const FT_UInt nGlyph = GlyphOf(c);
            oMetrics.arHasGlyph[c] = nGlyph != 0;
            oMetrics.arAdvances[c] = AdvanceOf(nGlyph);
        }

        const auto* pOs2 = static_cast<const TT_OS2*>(FT_Get_Sfnt_Table(pFace, FT_SFNT_OS2));
        const bool bOs2 = pOs2 && pOs2->version != 0xFFFF;
        if (bOs2 && (pOs2->usWinAscent != 0 || pOs2->usWinDescent != 0)) {
            oMetrics.nAscent = ToThousandths(pOs2->usWinAscent, nEm);
            oMetrics.nDescent = ToThousandths(pOs2->usWinDescent, nEm);
        } else {
            oMetrics.nAscent = ToThousandths(pFace->ascender, nEm);
            oMetrics.nDescent = ToThousandths(-pFace->descender, nEm);
        }
        oMetrics.nCapHeight = bOs2 && pOs2->version >= 2 && pOs2->sCapHeight > 0
                                  ? ToThousandths(pOs2->sCapHeight, nEm)
                                  : oMetrics.nAscent;
        oMetrics.nAvgWidth =
            bOs2 ? ToThousandths(pOs2->xAvgCharWidth, nEm) : AdvanceOf(GlyphOf('x'));
        oMetrics.nMaxWidth = ToThousandths(pFace->max_advance_width, nEm);
        const auto* pPost =
            static_cast<const TT_Postscript*>(FT_Get_Sfnt_Table(pFace, FT_SFNT_POST));
        oMetrics.nItalicAngle = pPost ? static_cast<double>(pPost->italicAngle) / 65536.0 : 0.0;
        return true;
    }
};

} // namespace

FontService& SystemFontService() {
    static FontconfigFontService oService;
    return oService;
}

} // namespace kestrelyn
