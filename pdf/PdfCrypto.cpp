// Own MD5 (RFC 1321) and RC4.
#include "pdf/PdfCrypto.h"

#include <cstring>
#include <utility>

namespace kestrelyn {

namespace {

constexpr std::uint32_t kMd5K[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

constexpr int kMd5Shift[64] = {7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22,
                               5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20,
                               4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23,
                               6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21};

inline std::uint32_t RotateLeft(std::uint32_t x, int c) {
    return (x << c) | (x >> (32 - c));
}

void Md5Block(std::uint32_t arHash[4], const std::uint8_t* pBlock) {
    std::uint32_t m[16];
    for (int i = 0; i < 16; ++i)
        m[i] = static_cast<std::uint32_t>(pBlock[i * 4]) |
               (static_cast<std::uint32_t>(pBlock[i * 4 + 1]) << 8) |
               (static_cast<std::uint32_t>(pBlock[i * 4 + 2]) << 16) |
               (static_cast<std::uint32_t>(pBlock[i * 4 + 3]) << 24);
    std::uint32_t a = arHash[0], b = arHash[1], c = arHash[2], d = arHash[3];
    for (int i = 0; i < 64; ++i) {
        std::uint32_t f = 0;
        int g = 0;
        if (i < 16) {
            f = (b & c) | (~b & d);
            g = i;
        } else if (i < 32) {
            f = (d & b) | (~d & c);
            g = (5 * i + 1) % 16;
        } else if (i < 48) {
            f = b ^ c ^ d;
            g = (3 * i + 5) % 16;
        } else {
            f = c ^ (b | ~d);
            g = (7 * i) % 16;
        }
        const std::uint32_t nTemp = d;
        d = c;
        c = b;
        b = b + RotateLeft(a + f + kMd5K[i] + m[g], kMd5Shift[i]);
        a = nTemp;
    }
    arHash[0] += a;
    arHash[1] += b;
    arHash[2] += c;
    arHash[3] += d;
}

} // namespace

std::string Md5Digest(const std::string& sBytes) {
    if (sBytes.size() >= (static_cast<std::size_t>(1) << 28)) return {};
    std::uint32_t arHash[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
    const auto* pData = reinterpret_cast<const std::uint8_t*>(sBytes.data());
    const std::size_t nSize = sBytes.size();
    std::size_t nDone = 0;
    for (; nDone + 64 <= nSize; nDone += 64)
        Md5Block(arHash, pData + nDone);

    // Tail: the rest, the 0x80 marker, zeros, and the bit count (low 32 bits).
    std::uint8_t arTail[128] = {};
    const std::size_t nRest = nSize - nDone;
    if (nRest > 0) std::memcpy(arTail, pData + nDone, nRest);
    arTail[nRest] = 0x80;
    const std::size_t nTailSize = nRest + 9 <= 64 ? 64 : 128;
    const auto nBits = static_cast<std::uint32_t>(nSize * 8);
    for (int i = 0; i < 4; ++i)
        arTail[nTailSize - 8 + i] = static_cast<std::uint8_t>((nBits >> (8 * i)) & 0xFF);
    Md5Block(arHash, arTail);
    if (nTailSize == 128) Md5Block(arHash, arTail + 64);

    std::string sOut(16, '\0');
    for (int i = 0; i < 16; ++i)
        sOut[i] = static_cast<char>((arHash[i / 4] >> (8 * (i % 4))) & 0xFF);
    return sOut;
}

cRc4::cRc4(const std::string& sKey) {
    const std::size_t nKeyLen = sKey.size() > 256 ? 256 : sKey.size();
    if (nKeyLen == 0) {
        bPassThrough = true;
        return;
    }
    for (int i = 0; i < 256; ++i)
        arState[i] = static_cast<std::uint8_t>(i);
    std::uint8_t j = 0;
    for (int i = 0; i < 256; ++i) {
        j = static_cast<std::uint8_t>(j + arState[i] +
                                      static_cast<std::uint8_t>(sKey[i % nKeyLen]));
        std::swap(arState[i], arState[j]);
    }
}

void cRc4::Apply(std::string& sBytes) {
    if (bPassThrough) return;
    for (char& c : sBytes) {
        nI = static_cast<std::uint8_t>(nI + 1);
        nJ = static_cast<std::uint8_t>(nJ + arState[nI]);
        std::swap(arState[nI], arState[nJ]);
        const std::uint8_t k = arState[static_cast<std::uint8_t>(arState[nI] + arState[nJ])];
        c = static_cast<char>(static_cast<std::uint8_t>(c) ^ k);
    }
}

std::string Rc4Bytes(const std::string& sKey, const std::string& sBytes) {
    std::string sOut = sBytes;
    cRc4 oRc4(sKey);
    oRc4.Apply(sOut);
    return sOut;
}

std::string Rc4String(const std::string& sKey, const std::string& sText) {
    if (sText.empty()) return {};
    return Rc4Bytes(sKey, sText);
}

} // namespace kestrelyn
