// The single-byte code page of the PDF writer (Windows-1252, "WinAnsi"):
// conversion of UTF-8 text to one byte per character and back.
#pragma once
#include <cstdint>
#include <string>

namespace kestrelyn {

// The Unicode code point of a Windows-1252 byte. The five codes that the code
// page leaves undefined (0x81, 0x8D, 0x8F, 0x90, 0x9D) map to the C1 control
// of the same value, as the Windows conversion does.
std::uint32_t AnsiToUnicode(std::uint8_t nCode);

// The Windows-1252 byte of a code point, or -1 when the code page has none.
std::int32_t UnicodeToAnsi(std::uint32_t nCodePoint);

// UTF-8 text to Windows-1252 bytes, one byte per character. A character that
// the code page lacks, and a malformed UTF-8 sequence, become "?".
std::string Utf8ToAnsi(const std::string& sText);

// Windows-1252 bytes to UTF-8 text.
std::string AnsiToUtf8(const std::string& sText);

} // namespace kestrelyn
