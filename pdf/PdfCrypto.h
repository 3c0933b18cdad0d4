// MD5 and RC4 of the PDF standard security handler, over byte strings.
#pragma once
#include <array>
#include <cstdint>
#include <string>

namespace kestrelyn {

// The 16-byte MD5 digest of a byte string. Inputs of 2^28 bytes or more are
// refused with an empty result.
std::string Md5Digest(const std::string& sBytes);

// RC4 keystream state, for data that arrives in pieces (a form stream that is
// written while it is drawn).
class cRc4 {
  public:
    // A key longer than 256 bytes is cut to 256; an empty key leaves data as it is.
    explicit cRc4(const std::string& sKey);
    // Encrypts (or decrypts) the bytes in place, continuing the keystream.
    void Apply(std::string& sBytes);

  private:
    std::array<std::uint8_t, 256> arState{};
    std::uint8_t nI = 0;
    std::uint8_t nJ = 0;
    bool bPassThrough = false;
};

// RC4 of a whole byte string with a fresh keystream.
std::string Rc4Bytes(const std::string& sKey, const std::string& sBytes);
// The same for text: the result has the length of the text; "" gives "".
std::string Rc4String(const std::string& sKey, const std::string& sText);

} // namespace kestrelyn
