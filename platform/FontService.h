// Installed fonts: families by name, the face file of a family in a style, and
// the text metrics of a face in thousandths of the em. The PDF writer measures
// its fonts through this service; drawing, text and printing find and measure
// faces the same way.
#pragma once
#include <array>
#include <cctype>
#include <cstdint>
#include <string>
#include <vector>

namespace kestrelyn {

// A face of an installed family: its file and its index within the file.
struct FontFace {
    std::string sFile;
    std::int32_t nIndex = 0;
};

// Text metrics of a face, in thousandths of the em rounded to whole numbers.
// Character codes are those of the single-byte code page (Windows-1252).
struct FontMetrics {
    // As the system's text metrics give them (the face's Windows ascent and
    // descent where it has them), both positive.
    std::int32_t nAscent = 0;
    std::int32_t nDescent = 0;
    // Height of the capitals; the ascent when the face does not tell it.
    std::int32_t nCapHeight = 0;
    std::int32_t nAvgWidth = 0;
    std::int32_t nMaxWidth = 0;
    // Degrees from the vertical, negative for a face that leans right.
    double nItalicAngle = 0;
    // A symbol face: codes reach its glyphs through its symbol map.
    bool bSymbol = false;
    // Per code: whether the face has a glyph for it, and the advance (that of
    // the missing-glyph shape where it has none).
    std::array<bool, 256> arHasGlyph{};
    std::array<std::int32_t, 256> arAdvances{};
};

class FontService {
  public:
    virtual ~FontService() = default;
    // Names of the installed families, in the order a lookup tries them.
    virtual std::vector<std::string> Families() = 0;
    // The face of a family, named as Families() names it, in a style; false
    // when the system has only some other family to offer.
    virtual bool FindFace(const std::string& sFamily, bool bBold, bool bItalic,
                          FontFace& oFace) = 0;
    // False when the face cannot be read or is not scalable.
    virtual bool ReadMetrics(const FontFace& oFace, FontMetrics& oMetrics) = 0;

    // The first family of Families() whose name equals sName with case and
    // blanks ignored, in its installed spelling.
    bool FindFamily(const std::string& sName, std::string& sInstalledName) {
        const std::string sKey = FamilyKey(sName);
        if (sKey.empty()) return false;
        for (const std::string& sFamily : Families()) {
            if (FamilyKey(sFamily) == sKey) {
                sInstalledName = sFamily;
                return true;
            }
        }
        return false;
    }

    // A family name in upper case without blanks.
    static std::string FamilyKey(const std::string& sName) {
        std::string s;
        for (char c : sName)
            if (c != ' ') s += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        return s;
    }
};

// The fonts installed on this system.
FontService& SystemFontService();

} // namespace kestrelyn
