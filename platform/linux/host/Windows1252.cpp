// Windows-1252 conversion with an own table of the 0x80..0x9F block.
#include "platform/Windows1252.h"

namespace kestrelyn {

namespace {

// 0x80..0x9F; every other byte is its own code point.
constexpr std::uint32_t kHighBlock[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

void AppendUtf8(std::string& sOut, std::uint32_t nCp) {
    if (nCp < 0x80) {
        sOut += static_cast<char>(nCp);
    } else if (nCp < 0x800) {
        sOut += static_cast<char>(0xC0 | (nCp >> 6));
        sOut += static_cast<char>(0x80 | (nCp & 0x3F));
    } else if (nCp < 0x10000) {
        sOut += static_cast<char>(0xE0 | (nCp >> 12));
        sOut += static_cast<char>(0x80 | ((nCp >> 6) & 0x3F));
        sOut += static_cast<char>(0x80 | (nCp & 0x3F));
    } else {
        sOut += static_cast<char>(0xF0 | (nCp >> 18));
        sOut += static_cast<char>(0x80 | ((nCp >> 12) & 0x3F));
        sOut += static_cast<char>(0x80 | ((nCp >> 6) & 0x3F));
        sOut += static_cast<char>(0x80 | (nCp & 0x3F));
    }
}

} // namespace

std::uint32_t AnsiToUnicode(std::uint8_t nCode) {
    if (nCode >= 0x80 && nCode <= 0x9F) return kHighBlock[nCode - 0x80];
    return nCode;
}

std::int32_t UnicodeToAnsi(std::uint32_t nCodePoint) {
    if (nCodePoint < 0x80 || (nCodePoint >= 0xA0 && nCodePoint <= 0xFF))
        return static_cast<std::int32_t>(nCodePoint);
    for (std::int32_t i = 0; i < 32; ++i)
        if (kHighBlock[i] == nCodePoint) return 0x80 + i;
    return -1;
}

std::string Utf8ToAnsi(const std::string& sText) {
    std::string sOut;
    sOut.reserve(sText.size());
    const std::size_t n = sText.size();
    std::size_t i = 0;
    while (i < n) {
        const auto b = static_cast<std::uint8_t>(sText[i]);
        std::uint32_t nCp = 0;
        std::size_t nLen = 0;
        if (b < 0x80) {
            nCp = b;
            nLen = 1;
        } else if ((b & 0xE0) == 0xC0) {
            nCp = b & 0x1F;
            nLen = 2;
        } else if ((b & 0xF0) == 0xE0) {
            nCp = b & 0x0F;
            nLen = 3;
        } else if ((b & 0xF8) == 0xF0) {
            nCp = b & 0x07;
            nLen = 4;
        }
        bool bValid = nLen > 0 && i + nLen <= n;
        for (std::size_t k = 1; bValid && k < nLen; ++k) {
            const auto c = static_cast<std::uint8_t>(sText[i + k]);
            if ((c & 0xC0) != 0x80) bValid = false;
            nCp = (nCp << 6) | (c & 0x3F);
        }
        if (!bValid) {
            sOut += '?';
            ++i;
            continue;
        }
        const std::int32_t nAnsi = UnicodeToAnsi(nCp);
        sOut += nAnsi < 0 ? '?' : static_cast<char>(nAnsi);
        i += nLen;
    }
    return sOut;
}

std::string AnsiToUtf8(const std::string& sText) {
    std::string sOut;
    sOut.reserve(sText.size() * 2);
    for (char c : sText)
        AppendUtf8(sOut, AnsiToUnicode(static_cast<std::uint8_t>(c)));
    return sOut;
}

} // namespace kestrelyn
