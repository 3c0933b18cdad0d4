// MD5, RC4 and the standard security handler, checked against published
// vectors, openssl, and qpdf/poppler as readers of the encrypted files.
#include <gtest/gtest.h>

#include <regex>

#include "PdfTestSupport.h"
#include "pdf/PdfCrypto.h"
#include "pdf/cPDF.h"

namespace kestrelyn {
namespace {

using namespace pdftest;

std::string Hex(const std::string& sBytes) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string s;
    for (unsigned char c : sBytes) {
        s += kHex[c >> 4];
        s += kHex[c & 15];
    }
    return s;
}

TEST(PdfMd5, Rfc1321Vectors) {
    EXPECT_EQ(Hex(Md5Digest("")), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(Hex(Md5Digest("a")), "0cc175b9c0f1b6a831c399e269772661");
    EXPECT_EQ(Hex(Md5Digest("abc")), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(Hex(Md5Digest("message digest")), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(Hex(Md5Digest("abcdefghijklmnopqrstuvwxyz")), "c3fcd3d76192e4007dfb496cca67e13b");
    EXPECT_EQ(Hex(Md5Digest("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789")),
              "d174ab98d277d9f5a5611c2c9f419d9f");
    EXPECT_EQ(Hex(Md5Digest("1234567890123456789012345678901234567890123456789012345678901234567"
                            "8901234567890")),
              "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(PdfMd5, AgreesWithOpensslAcrossBlockBoundaries) {
    KY_REQUIRE_TOOL("openssl");
    // Lengths around the 56-byte tail limit and the 64-byte block, and a large input.
    for (std::size_t nSize : {55u, 56u, 57u, 63u, 64u, 65u, 119u, 120u, 128u, 1000003u}) {
        std::string sData(nSize, '\0');
        for (std::size_t i = 0; i < nSize; ++i)
            sData[i] = static_cast<char>((i * 131 + nSize) & 0xFF);
        const std::string sPath = ScratchPath("md5-" + std::to_string(nSize) + ".bin");
        WriteFileBytes(sPath, sData);
        const CommandResult oResult = RunCommand("openssl md5 -r " + Quote(sPath));
        ASSERT_EQ(oResult.nExit, 0) << oResult.sOutput;
        EXPECT_EQ(oResult.sOutput.substr(0, 32), Hex(Md5Digest(sData))) << nSize;
    }
}

TEST(PdfRc4, KnownVectors) {
    EXPECT_EQ(Hex(Rc4Bytes("Key", "Plaintext")), "bbf316e8d940af0ad3");
    EXPECT_EQ(Hex(Rc4Bytes("Wiki", "pedia")), "1021bf0420");
    EXPECT_EQ(Hex(Rc4Bytes("Secret", "Attack at dawn")), "45a01f645fc35b383552544b9bf5");
    // RC4 is its own inverse.
    EXPECT_EQ(Rc4Bytes("Key", Rc4Bytes("Key", "Plaintext")), "Plaintext");
    EXPECT_EQ(Rc4String("Key", ""), "");
    EXPECT_EQ(Rc4Bytes("", "unchanged"), "unchanged");
}

TEST(PdfRc4, StreamingAndLongKeys) {
    const std::string sText = "a longer text that arrives in three pieces";
    cRc4 oCipher("k3y");
    std::string a = sText.substr(0, 5), b = sText.substr(5, 20), c = sText.substr(25);
    oCipher.Apply(a);
    oCipher.Apply(b);
    oCipher.Apply(c);
    EXPECT_EQ(a + b + c, Rc4Bytes("k3y", sText));
    std::string sLongKey(300, '\0');
    for (std::size_t i = 0; i < sLongKey.size(); ++i)
        sLongKey[i] = static_cast<char>(i * 7);
    EXPECT_EQ(Rc4Bytes(sLongKey, sText), Rc4Bytes(sLongKey.substr(0, 256), sText));
    EXPECT_NE(Rc4Bytes(sLongKey, sText), Rc4Bytes(sLongKey.substr(0, 255), sText));
}

TEST(PdfRights, CreateRightsNeverGivesModify) {
    EXPECT_EQ(cPDF::PdfCreateRights(false, false, false, false, false, false, false, false), 0);
    EXPECT_EQ(cPDF::PdfCreateRights(false, true, false, false, false, false, false, false), 0);
    EXPECT_EQ(cPDF::PdfCreateRights(true, true, true, true, true, true, true, true), 251);
    EXPECT_EQ(cPDF::PdfCreateRights(true, false, true, false, false, false, false, false),
              PdfRightCanPrint + PdfRightCanCopy);
    EXPECT_EQ(cPDF::PdfCreateRights(false, false, false, false, false, false, false, true),
              PdfRightCanPrintFull);
}

struct EncryptedFile {
    std::string sPath;
    std::string sBytes;
};

EncryptedFile WriteEncrypted(const std::string& sName, std::int32_t nMode, std::int32_t nRights,
                             const std::string& sUser, const std::string& sOwner) {
    EncryptedFile oFile{ScratchPath(sName), {}};
    cPDF oPdf;
    EXPECT_TRUE(oPdf.NewPdf(oFile.sPath, {"Secret (title)", "Author", "Creator", "Keys", "Subject",
                                          nMode, nRights, sUser, sOwner}));
    oPdf.XMP("<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"></x:xmpmeta>");
    const std::int32_t nFont = oPdf.LoadFont("Arial", false, false);
    oPdf.DrawText(72, 700, "Encrypted page text", nFont, 14);
    oPdf.SetColorFill(0);
    oPdf.Rectangle(72, 100, 100, 100, 4);
    // A palette image (red, blue): its pixels and its palette are both encrypted streams.
    oPdf.AddImageData(std::string("\x00\x01\x01\x00", 4),
                      std::string("\xFF\x00\x00\x00\x00\xFF", 6), 2, 2, 8, 2, PdfImageFilterFlate,
                      72, 72);
    oPdf.DrawImg(1, 300, 100, 50, 50);
    oPdf.StartObject("Mark", 7);
    oPdf.Rectangle(0, 0, 10, 10, 4);
    oPdf.EndObject();
    oPdf.BeginPage();
    oPdf.ClosePdfFile();
    oFile.sBytes = ReadFileBytes(oFile.sPath);
    return oFile;
}

std::string EncryptionJson(const std::string& sPath, const std::string& sPassword) {
    return RunCommand("qpdf --json --json-key=encrypt --password=" + Quote(sPassword) + " " +
                      Quote(sPath))
        .sOutput;
}

TEST(PdfEncryption, Rc4With40BitKeys) {
    const EncryptedFile oFile = WriteEncrypted("enc40.pdf", PdfEncryption40BitRC4, 0, "u", "o");
    EXPECT_EQ(oFile.sBytes.substr(0, 10), "%PDF-1.3\r%");
    EXPECT_NE(oFile.sBytes.find("\r/P -64\r/V 1 /R 2 >>"), std::string::npos);
    EXPECT_EQ(oFile.sBytes.find("Secret (title)"), std::string::npos); // strings are encrypted
    EXPECT_EQ(oFile.sBytes.find("xmpmeta"), std::string::npos);
    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(oFile.sPath, "u");
    const std::string sJson = EncryptionJson(oFile.sPath, "o");
    EXPECT_NE(sJson.find("\"bits\": 40"), std::string::npos) << sJson;
    EXPECT_NE(sJson.find("\"R\": 2"), std::string::npos);
    EXPECT_NE(sJson.find("\"P\": -64"), std::string::npos);
    EXPECT_NE(sJson.find("\"ownerpasswordmatched\": true"), std::string::npos);
    const CommandResult oShow =
        RunCommand("qpdf --show-encryption --password=u " + Quote(oFile.sPath));
    EXPECT_NE(oShow.sOutput.find("print low resolution: not allowed"), std::string::npos);
    EXPECT_NE(oShow.sOutput.find("modify anything: not allowed"), std::string::npos);
}

TEST(PdfEncryption, Rc4With128BitKeysAndRights) {
    const std::int32_t nRights = PdfRightCanPrint | PdfRightCanCopy;
    const EncryptedFile oFile =
        WriteEncrypted("enc128.pdf", PdfEncryption128BitRC4, nRights, "user", "owner");
    EXPECT_EQ(oFile.sBytes.substr(0, 10), "%PDF-1.4\r%");
    // 4 + 16 bits kept, 3904 subtracted: -3884.
    EXPECT_NE(oFile.sBytes.find("\r/P -3884\r/V 2 /R 3 /Length 128 >>"), std::string::npos);
    std::smatch oId;
    ASSERT_TRUE(std::regex_search(
        oFile.sBytes, oId,
        std::regex("/Encrypt [0-9]+ 0 R /ID \\[<([0-9A-F]{64})><([0-9A-F]{64})>\\]>>")));
    EXPECT_EQ(oId[1].str(), oId[2].str());
    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(oFile.sPath, "user");
    const std::string sJson = EncryptionJson(oFile.sPath, "user");
    EXPECT_NE(sJson.find("\"bits\": 128"), std::string::npos) << sJson;
    EXPECT_NE(sJson.find("\"R\": 3"), std::string::npos);
    EXPECT_NE(sJson.find("\"V\": 2"), std::string::npos);
    EXPECT_NE(sJson.find("\"P\": -3884"), std::string::npos);
    EXPECT_NE(sJson.find("\"userpasswordmatched\": true"), std::string::npos);
    const CommandResult oShow =
        RunCommand("qpdf --show-encryption --password=user " + Quote(oFile.sPath));
    EXPECT_NE(oShow.sOutput.find("print low resolution: allowed"), std::string::npos);
    EXPECT_NE(oShow.sOutput.find("extract for any purpose: allowed"), std::string::npos);
    EXPECT_NE(oShow.sOutput.find("modify other: not allowed"), std::string::npos);
    EXPECT_NE(oShow.sOutput.find("modify annotations: not allowed"), std::string::npos);
    EXPECT_NE(oShow.sOutput.find("print high resolution: not allowed"), std::string::npos);
}

TEST(PdfEncryption, PermissionValues) {
    const EncryptedFile oAll = WriteEncrypted("enc-all.pdf", PdfEncryption128BitRC4, 255, "", "x");
    EXPECT_NE(oAll.sBytes.find("\r/P -4\r"), std::string::npos);
    const EncryptedFile oNone = WriteEncrypted("enc-none.pdf", PdfEncryption128BitRC4, 0, "", "x");
    EXPECT_NE(oNone.sBytes.find("\r/P -3904\r"), std::string::npos);
    // Only the low eight bits of the rights count.
    const EncryptedFile oHigh =
        WriteEncrypted("enc-high.pdf", PdfEncryption40BitRC4, 0x100 | PdfRightCanPrint, "", "x");
    EXPECT_NE(oHigh.sBytes.find("\r/P -60\r"), std::string::npos);
    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(oAll.sPath);
    ExpectQpdfCheck(oNone.sPath);
    ExpectQpdfCheck(oHigh.sPath);
}

TEST(PdfEncryption, BothPasswordsDecryptAndAWrongOneFails) {
    KY_REQUIRE_TOOL("qpdf");
    for (std::int32_t nMode : {PdfEncryption40BitRC4, PdfEncryption128BitRC4}) {
        const EncryptedFile oFile = WriteEncrypted("dec" + std::to_string(nMode) + ".pdf", nMode,
                                                   PdfRightCanPrint, "open sesame", "master");
        for (const std::string sPassword : {"open sesame", "master"}) {
            const std::string sOut = oFile.sPath + ".plain.pdf";
            const CommandResult oResult =
                RunCommand("qpdf --decrypt --password=" + Quote(sPassword) + " " +
                           Quote(oFile.sPath) + " " + Quote(sOut));
            ASSERT_EQ(oResult.nExit, 0) << nMode << " " << sPassword << oResult.sOutput;
            ExpectQpdfCheck(sOut);
            const std::string sPlain = ReadFileBytes(sOut);
            EXPECT_EQ(sPlain.find("/Encrypt"), std::string::npos);
            // The information dictionary's strings are encrypted and then only
            // bracket-escaped, so a cipher byte 13 or 10 reaches a reader as a
            // line end; the title survives whenever its cipher text has none.
            const std::size_t nTitle = oFile.sBytes.find("/Title(");
            const std::size_t nAuthor = oFile.sBytes.find(")/Author(", nTitle);
            ASSERT_NE(nAuthor, std::string::npos);
            const std::string sCipher = oFile.sBytes.substr(nTitle, nAuthor - nTitle);
            if (sCipher.find_first_of("\r\n") == std::string::npos) {
                EXPECT_NE(sPlain.find("(Secret \\(title\\))"), std::string::npos);
            }
            EXPECT_NE(sPlain.find("<x:xmpmeta"), std::string::npos);
            if (HaveTool("pdftotext")) {
                const CommandResult oText = RunCommand("pdftotext -f 1 -l 1 " + Quote(sOut) + " -");
                EXPECT_NE(oText.sOutput.find("Encrypted page text"), std::string::npos);
            }
        }
        const CommandResult oWrong =
            RunCommand("qpdf --decrypt --password=wrong " + Quote(oFile.sPath) + " " +
                       Quote(oFile.sPath + ".bad.pdf"));
        EXPECT_EQ(oWrong.nExit, 2) << oWrong.sOutput;
        EXPECT_NE(oWrong.sOutput.find("invalid password"), std::string::npos);
    }
}

TEST(PdfEncryption, RenderedWithTheUserPassword) {
    KY_REQUIRE_TOOL("pdftoppm");
    const EncryptedFile oFile =
        WriteEncrypted("enc-render.pdf", PdfEncryption128BitRC4, 0, "pw", "");
    const std::string sPrefix = oFile.sPath + ".r";
    const CommandResult oResult = RunCommand("pdftoppm -r 72 -gray -singlefile -upw pw " +
                                             Quote(oFile.sPath) + " " + Quote(sPrefix));
    ASSERT_EQ(oResult.nExit, 0) << oResult.sOutput;
    // Decode the PGM as RenderGray does, by way of a plain copy.
    const std::string sPlain = oFile.sPath + ".plain.pdf";
    ASSERT_EQ(RunCommand("qpdf --decrypt --password=pw " + Quote(oFile.sPath) + " " + Quote(sPlain))
                  .nExit,
              0);
    const GrayPage oPage = RenderGray(sPlain);
    EXPECT_EQ(oPage.AtPdf(120, 150), 0); // the filled square
    EXPECT_EQ(oPage.AtPdf(20, 20), 255);
    EXPECT_EQ(oPage.AtPdf(5, 5), 255);         // the form was recorded after page 1 began
    EXPECT_NEAR(oPage.AtPdf(310, 110), 28, 3); // image row 1, column 0: blue
    EXPECT_NEAR(oPage.AtPdf(310, 140), 77, 3); // image row 0, column 0: red
    EXPECT_NEAR(oPage.AtPdf(340, 140), 28, 3); // image row 0, column 1: blue
    const GrayPage oPage2 = RenderGray(sPlain, 2);
    EXPECT_EQ(oPage2.AtPdf(5, 5), 0); // and is drawn on page 2
}

TEST(PdfEncryption, EmptyPasswordsOpenWithoutAPassword) {
    KY_REQUIRE_TOOL("qpdf");
    const EncryptedFile oFile = WriteEncrypted("enc-empty.pdf", PdfEncryption40BitRC4, 0, "", "");
    EXPECT_NE(oFile.sBytes.find("/O ("), std::string::npos);
    ExpectQpdfCheck(oFile.sPath);
    const std::string sJson = EncryptionJson(oFile.sPath, "");
    EXPECT_NE(sJson.find("\"userpasswordmatched\": true"), std::string::npos) << sJson;
    EXPECT_NE(sJson.find("\"ownerpasswordmatched\": true"), std::string::npos) << sJson;
}

TEST(PdfEncryption, OwnerValueIsEscapedInTheDictionary) {
    // Recompute revision 2's /O for a run of owner passwords until one holds
    // a bracket or a line end, and find it escaped in the file.
    const std::string kPad("\x28\xBF\x4E\x5E\x4E\x75\x8A\x41\x64\x00\x4E\x56\xFF\xFA\x01\x08"
                           "\x2E\x2E\x00\xB6\xD0\x68\x3E\x80\x2F\x0C\xA9\xFE\x64\x53\x69\x7A",
                           32);
    int nChecked = 0;
    for (int i = 0; i < 200 && nChecked < 3; ++i) {
        const std::string sOwner = "owner" + std::to_string(i);
        const std::string sO =
            Rc4Bytes(Md5Digest((sOwner + kPad).substr(0, 32)).substr(0, 5), kPad);
        if (sO.find_first_of("()\\\r\n") == std::string::npos) continue;
        ++nChecked;
        const EncryptedFile oFile =
            WriteEncrypted("enc-o.pdf", PdfEncryption40BitRC4, 0, "", sOwner);
        EXPECT_NE(oFile.sBytes.find("\r/O (" + cPDF::EscapeString(sO) + ")\r/U ("),
                  std::string::npos)
            << sOwner;
        if (HaveTool("qpdf")) {
            ExpectQpdfCheck(oFile.sPath);
            EXPECT_NE(EncryptionJson(oFile.sPath, sOwner).find("\"ownerpasswordmatched\": true"),
                      std::string::npos)
                << sOwner;
        }
    }
    EXPECT_EQ(nChecked, 3);
}

} // namespace
} // namespace kestrelyn
