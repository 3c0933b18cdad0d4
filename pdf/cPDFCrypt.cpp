// cPDF: the standard security handler (revision 2 with 40-bit keys,
// revision 3 with 128-bit keys).
#include <string>

#include "pdf/PdfCrypto.h"
#include "pdf/cPDF.h"

namespace kestrelyn {

namespace {

const std::string kPadding("\x28\xBF\x4E\x5E\x4E\x75\x8A\x41\x64\x00\x4E\x56\xFF\xFA\x01\x08"
                           "\x2E\x2E\x00\xB6\xD0\x68\x3E\x80\x2F\x0C\xA9\xFE\x64\x53\x69\x7A",
                           32);

std::string PadPassword(const std::string& sPassword) {
    return (sPassword + kPadding).substr(0, 32);
}

std::string XorKey(const std::string& sKey, int nValue) {
    std::string s = sKey;
    for (char& c : s)
        c = static_cast<char>(static_cast<unsigned char>(c) ^ nValue);
    return s;
}

std::string Trim(const std::string& s) {
    const auto nFirst = s.find_first_not_of(' ');
    if (nFirst == std::string::npos) return {};
    const auto nLast = s.find_last_not_of(' ');
    return s.substr(nFirst, nLast - nFirst + 1);
}

} // namespace

std::int32_t cPDF::PdfCreateRights(bool bCanPrint, bool /*bCanModify*/, bool bCanCopy,
                                   bool bCanAddNotes, bool bCanFillFields, bool bCanCopyAccess,
                                   bool bCanAssemble, bool bCanPrintFull) {
    std::int32_t n = 0;
    if (bCanPrint) n += PdfRightCanPrint;
    if (bCanCopy) n += PdfRightCanCopy;
    if (bCanAddNotes) n += PdfRightCanAddNotes;
    if (bCanFillFields) n += PdfRightCanFillFields;
    if (bCanCopyAccess) n += PdfRightCanCopyAccess;
    if (bCanAssemble) n += PdfRightCanAssemble;
    if (bCanPrintFull) n += PdfRightCanPrintFull;
    return n;
}

void cPDF::ComputeEncryptionValues(std::int32_t nRightsValue, std::int32_t nMode,
                                   std::string sOwner, const std::string& sUser) {
    // Rights to /P bits; only the low eight bits of the rights count.
    const std::int32_t r = nRightsValue & 0xFF;
    std::int32_t p = 0;
    if (r & PdfRightCanPrint) p |= 4;
    if (r & PdfRightCanCopy) p |= 16;
    if (r & PdfRightCanModify) p |= 8;
    if (r & PdfRightCanAddNotes) p |= 32;
    if (r & PdfRightCanFillFields) p |= 256;
    if (r & PdfRightCanCopyAccess) p |= 512;
    if (r & PdfRightCanAssemble) p |= 1024;
    if (r & PdfRightCanPrintFull) p |= 2048;
    if (nMode == 2) p |= 4096;

    if (Trim(sOwner).empty()) sOwner = sUser;
    const std::string sPaddedOwner = PadPassword(sOwner);
    const std::string sPaddedUser = PadPassword(sUser);

    if (nMode == 1) {
        const auto nP0 = static_cast<unsigned char>((p + 192) % 256);
        const std::string sPBytes{static_cast<char>(nP0), '\xFF', '\xFF', '\xFF'};
        sO = Rc4Bytes(Md5Digest(sPaddedOwner).substr(0, 5), sPaddedUser);
        sFileKey = Md5Digest(sPaddedUser + sO + sPBytes + sFileIdA).substr(0, 5);
        sU = Rc4Bytes(sFileKey, kPadding);
        sP = std::to_string(static_cast<std::int32_t>(0xFFFFFF00u | nP0));
    } else {
        const std::int32_t nP = (p % 4096) - 3904;
        const auto nBits = static_cast<std::uint32_t>(nP);
        const std::string sPBytes{static_cast<char>(nBits & 0xFF),
                                  static_cast<char>((nBits >> 8) & 0xFF), '\xFF', '\xFF'};
        std::string k = Md5Digest(sPaddedOwner);
        for (int i = 0; i < 50; ++i)
            k = Md5Digest(k);
        std::string d = Rc4Bytes(k, sPaddedUser);
        for (int i = 1; i <= 19; ++i)
            d = Rc4Bytes(XorKey(k, i), d);
        sO = d;

        std::string f = Md5Digest(sPaddedUser + sO + sPBytes + sFileIdA);
        for (int i = 0; i < 50; ++i)
            f = Md5Digest(f);
        sFileKey = f;

        d = Md5Digest(kPadding + sFileIdA).substr(0, 16);
        d = Rc4Bytes(sFileKey, d);
        for (int i = 1; i <= 19; ++i)
            d = Rc4Bytes(XorKey(sFileKey, i), d);
        sU = d + std::string(16, ' ');
        sP = std::to_string(nP);
    }
}

std::string cPDF::ObjectKey(std::int32_t nObject) const {
    const auto n = static_cast<std::uint32_t>(nObject);
    std::string sInput = sFileKey;
    sInput += static_cast<char>(n & 0xFF);
    sInput += static_cast<char>((n >> 8) & 0xFF);
    sInput += static_cast<char>((n >> 16) & 0xFF);
    sInput += '\0';
    sInput += '\0';
    return Md5Digest(sInput).substr(0, nEncryptionMode == 1 ? 10 : 16);
}

} // namespace kestrelyn
