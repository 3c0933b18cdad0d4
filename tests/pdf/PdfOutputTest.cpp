// Where a document goes and how sure it is: files and memory streams, writes
// that fall short, and the fixed identity that makes a document come out the
// same byte for byte.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <sys/resource.h>

#include "PdfTestSupport.h"
#include "pdf/cPDF.h"

namespace kestrelyn {
namespace {

using namespace pdftest;

const std::string kIdA = "0123456789ABCDEF0123456789ABCDEF";
const std::string kIdB = "FEDCBA9876543210FEDCBA9876543210";

PdfFixedIdentity Identity() {
    PdfFixedIdentity o;
    o.sFileIdA = kIdA;
    o.sFileIdB = kIdB;
    o.nYear = 2024;
    o.nMonth = 2;
    o.nDay = 29;
    o.nHour = 13;
    o.nMinute = 37;
    o.nSecond = 5;
    return o;
}

std::string StreamBytes(const StreamPtr& oStream) {
    std::string s(static_cast<std::size_t>(oStream->Stat()), '\0');
    oStream->Seek(0, Stream::Begin);
    if (!s.empty()) s.resize(oStream->Read(&s[0], s.size()));
    return s;
}

// Every xref entry points at its object, and startxref at the table.
void ExpectXrefMatchesObjects(const std::string& sFile) {
    const auto nStartXref = sFile.rfind("startxref\r\n");
    ASSERT_NE(nStartXref, std::string::npos);
    const auto nXref = static_cast<std::size_t>(std::stol(sFile.substr(nStartXref + 11)));
    ASSERT_EQ(sFile.substr(nXref, 8), "xref\r\n0 ");
    const auto nCountEnd = sFile.find("\r\n", nXref + 8);
    const int nCount = std::stoi(sFile.substr(nXref + 8, nCountEnd - nXref - 8));
    ASSERT_GT(nCount, 4);
    const std::size_t nFirst = nCountEnd + 2 + 20; // after the free entry of object 0
    for (int nObject = 1; nObject < nCount; ++nObject) {
        const std::string sEntry = sFile.substr(nFirst + (nObject - 1) * 20, 20);
        ASSERT_EQ(sEntry.substr(10), " 00000 n\r\n") << nObject;
        const auto nOffset = static_cast<std::size_t>(std::stol(sEntry.substr(0, 10)));
        const std::string sHead = std::to_string(nObject) + " 0 obj\r\n";
        EXPECT_EQ(sFile.substr(nOffset, sHead.size()), sHead) << nObject;
    }
}

// A document with a font, images, text and shapes on two pages.
void WriteSampleDocument(cPDF& oPdf) {
    const std::int32_t nFont = oPdf.LoadFont("Arial", false, false);
    const std::string sRgb("\x00\x00\x00\xFF\xFF\xFF\xFF\xFF\xFF\x00\x00\x00", 12);
    oPdf.AddImageData(sRgb, "", 2, 2, 24, 6, PdfImageFilterFlate, 72, 72);
    oPdf.AddImageData(std::string("\x0F\x80", 2), std::string(48, '\x40'), 3, 1, 4, 2,
                      PdfImageFilterFlate, 72, 72);
    oPdf.DrawText(72, 700, "Same bytes (every time)", nFont, 14);
    oPdf.DrawImg(1, 100, 100, 50, 50);
    oPdf.SetColorStroke(0x336699);
    oPdf.DrawCircle(300, 300, 40, 1);
    oPdf.BeginPage();
    oPdf.DrawImg(2, 0, 0, 30, 10);
    oPdf.ClosePdfFile();
}

// The bytes of the sample document written with the fixed identity.
std::string FixedSample(const std::string& sName, const PdfDocumentInfo& oInfo, bool bPdfA) {
    const std::string sPath = ScratchPath(sName);
    cPDF oPdf;
    EXPECT_TRUE(oPdf.FixIdentity(Identity()));
    oPdf.PdfA(bPdfA);
    EXPECT_TRUE(oPdf.NewPdf(sPath, oInfo));
    WriteSampleDocument(oPdf);
    EXPECT_FALSE(oPdf.WriteFailed());
    return ReadFileBytes(sPath);
}

// A stream that takes the first nRoom bytes and then no more.
class ShortStream final : public Stream {
  public:
    explicit ShortStream(std::size_t nBytes) : nRoom(nBytes) {}
    std::size_t Read(void*, std::size_t) override { return 0; }
    std::size_t Write(const void* pBuffer, std::size_t nCount) override {
        const std::size_t n = std::min(nCount, nRoom - sTaken.size());
        sTaken.append(static_cast<const char*>(pBuffer), n);
        return n;
    }
    std::int64_t Seek(std::int64_t, SeekOrigin) override {
        return static_cast<std::int64_t>(sTaken.size());
    }
    std::int64_t Stat() override { return static_cast<std::int64_t>(sTaken.size()); }
    bool SetSize(std::int64_t) override { return false; }
    std::size_t nRoom;
    std::string sTaken;
};

// --- the fixed identity -------------------------------------------------------

TEST(PdfOutput, GoldenDocumentBytes) {
    // Header, information, catalog, one page with its uncompressed content,
    // then resources, pages, xref (offsets counted by hand) and trailer.
    const std::string kProducer = "Kestrelyn ActiveX 5.13.09 edition. - https://kestrelyn.invalid";
    const std::string sExpected =
        "%PDF-1.3\r%" + kProducer + "\r\n" +
        "1 0 obj\r\n<</Title(Golden \\(1\\))/Author(Kes)/Creator()/Producer(" + kProducer +
        ")/Subject()/Keywords()/CreationDate(D:20240229133705+01'00')>>\r\nendobj\r\n"
        "2 0 obj\r\n<</PageMode/UseNone/ViewerPreferences<</HideWindowUI false"
        "/DisplayDocTitle true/HideToolbar false>>/Pages 3 0 R/PageLayout/OneColumn"
        "/Type/Catalog>>\r\nendobj\r\n"
        "5 0 obj\r\n<</Type/Page/Parent 3 0 R/Contents 6 0 R/MediaBox [0 0 200 100]"
        "/CropBox [0 0 200 100]>>\r\nendobj\r\n"
        "6 0 obj\r\n<</Length 32>>stream\r\n1 0 0 rg\r\nn\r\n10 20 30 40 re\r\nf\r\n\r\n"
        "endstream\rendobj\r"
        "4 0 obj\r\n<</ProcSet [/PDF/Text ]>>\r\nendobj\r\n"
        "3 0 obj\r\n<</Type/Pages/Count 1/Kids [5 0 R ]/Resources 4 0 R>>\r\nendobj\r\n"
        "xref\r\n0 7\r\n"
        "0000000000 65535 f\r\n"
        "0000000074 00000 n\r\n"
        "0000000271 00000 n\r\n"
        "0000000669 00000 n\r\n"
        "0000000625 00000 n\r\n"
        "0000000437 00000 n\r\n"
        "0000000543 00000 n\r\n"
        "trailer\r\n<</Size 7/Root 2 0 R/Info 1 0 R>>\r\nstartxref\r\n741\r\n%%EOF\r\n";

    auto Write = [](cPDF& oPdf) {
        oPdf.CompressData(false);
        oPdf.PaperWidth(200);
        oPdf.PaperHeight(100);
        oPdf.SetColorFill(255);
        oPdf.Rectangle(10, 20, 30, 40, 4);
        oPdf.ClosePdfFile();
    };
    const PdfDocumentInfo oInfo{.sTitle = "Golden (1)", .sAuthor = "Kes"};
    const std::string sPath = ScratchPath("golden.pdf");
    cPDF oPdf;
    ASSERT_TRUE(oPdf.FixIdentity(Identity()));
    ASSERT_TRUE(oPdf.NewPdf(sPath, oInfo));
    Write(oPdf);
    EXPECT_EQ(ReadFileBytes(sPath), sExpected);

    // The same writer, the same identity, into memory.
    const StreamPtr oMemory = CreateMemoryStream();
    ASSERT_TRUE(oPdf.NewPdf(oMemory, oInfo));
    Write(oPdf);
    EXPECT_EQ(StreamBytes(oMemory), sExpected);

    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(sPath);
}

TEST(PdfOutput, FixedIdentityGivesTheSameBytesEveryTime) {
    const PdfDocumentInfo oPlain{.sTitle = "t", .sAuthor = "a", .sKeywords = "k"};
    PdfDocumentInfo o40 = oPlain, o128 = oPlain;
    o40.nEncryption = PdfEncryption40BitRC4;
    o40.nRights = PdfRightCanPrint;
    o40.sUserPassword = "user";
    o128.nEncryption = PdfEncryption128BitRC4;
    o128.nRights = 0;
    o128.sOwnerPassword = "owner";

    const std::string sPlain = FixedSample("fixed-plain.pdf", oPlain, false);
    EXPECT_EQ(FixedSample("fixed-plain-2.pdf", oPlain, false), sPlain);
    const std::string s40 = FixedSample("fixed-40.pdf", o40, false);
    EXPECT_EQ(FixedSample("fixed-40-2.pdf", o40, false), s40);
    const std::string s128 = FixedSample("fixed-128.pdf", o128, false);
    EXPECT_EQ(FixedSample("fixed-128-2.pdf", o128, false), s128);
    const std::string sPdfA = FixedSample("fixed-a.pdf", oPlain, true);
    EXPECT_EQ(FixedSample("fixed-a-2.pdf", oPlain, true), sPdfA);

    // The ids stand in the trailer: written out in hexadecimal pairs when
    // encrypted, as they are in PDF/A.
    std::string sHexA;
    for (char c : kIdA) {
        static constexpr char kHex[] = "0123456789ABCDEF";
        sHexA += kHex[static_cast<unsigned char>(c) >> 4];
        sHexA += kHex[c & 15];
    }
    EXPECT_NE(s128.find("/ID [<" + sHexA + "><" + sHexA + ">]"), std::string::npos);
    EXPECT_NE(sPdfA.find("/ID[<" + kIdA + "><" + kIdB + ">]>>"), std::string::npos);
    // The metadata takes the fixed moment and identifiers made from the ids.
    EXPECT_NE(sPdfA.find("<xmp:CreateDate>2024-02-29T13:37:05+01:00</xmp:CreateDate>"),
              std::string::npos);
    EXPECT_NE(sPdfA.find("uuid: 01234567-89AB-CDEF-0123-456789ABCDEF"), std::string::npos);
    EXPECT_NE(sPdfA.find("uuid: FEDCBA98-7654-3210-FEDC-BA9876543210"), std::string::npos);
    EXPECT_EQ(sPdfA.find("XXX_"), std::string::npos);

    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(ScratchPath("fixed-plain.pdf"));
    ExpectQpdfCheck(ScratchPath("fixed-40.pdf"), "user");
    ExpectQpdfCheck(ScratchPath("fixed-128.pdf"), "owner");
    ExpectQpdfCheck(ScratchPath("fixed-a.pdf"));
}

TEST(PdfOutput, WithoutTheFixedIdentityIdsAreRandom) {
    std::string arIds[2];
    for (std::string& sId : arIds) {
        const std::string sPath = ScratchPath("random-id.pdf");
        cPDF oPdf;
        oPdf.PdfA(true);
        ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
        oPdf.ClosePdfFile();
        const std::string sFile = ReadFileBytes(sPath);
        const auto nId = sFile.find("/ID[<");
        ASSERT_NE(nId, std::string::npos);
        sId = sFile.substr(nId, 74);
    }
    EXPECT_NE(arIds[0], arIds[1]);
}

TEST(PdfOutput, FixIdentityRefusesIdsThatAreNotThirtyTwoHexDigits) {
    cPDF oPdf;
    PdfFixedIdentity oShort = Identity();
    oShort.sFileIdA.pop_back();
    EXPECT_FALSE(oPdf.FixIdentity(oShort));
    PdfFixedIdentity oNotHex = Identity();
    oNotHex.sFileIdB[5] = 'G';
    EXPECT_FALSE(oPdf.FixIdentity(oNotHex));
    // Nothing was fixed: the document keeps random ids and the clock.
    const std::string sPath = ScratchPath("refused-id.pdf");
    oPdf.PdfA(true);
    ASSERT_TRUE(oPdf.NewPdf(sPath, {}));
    oPdf.ClosePdfFile();
    const std::string sFile = ReadFileBytes(sPath);
    EXPECT_EQ(sFile.find(kIdB.substr(0, 31)), std::string::npos);
    EXPECT_EQ(sFile.find("D:20240229"), std::string::npos);
}

// --- streams ------------------------------------------------------------------

TEST(PdfOutput, MemoryStreamHoldsACheckedDocument) {
    const StreamPtr oMemory = CreateMemoryStream();
    cPDF oPdf;
    ASSERT_TRUE(oPdf.NewPdf(oMemory, {.sTitle = "In memory"}));
    EXPECT_NE(oPdf.PdfGetNativePdf(), 0);
    EXPECT_EQ(oPdf.PdfGetPath(), "");
    WriteSampleDocument(oPdf);
    EXPECT_EQ(oPdf.PdfGetNativePdf(), 0);
    EXPECT_FALSE(oPdf.WriteFailed());
    const std::string sFile = StreamBytes(oMemory);
    EXPECT_EQ(sFile.substr(0, 8), "%PDF-1.3");
    ExpectXrefMatchesObjects(sFile);

    const std::string sPath = ScratchPath("from-memory.pdf");
    WriteFileBytes(sPath, sFile);
    KY_REQUIRE_TOOL("qpdf");
    ExpectQpdfCheck(sPath);
    KY_REQUIRE_TOOL("pdfinfo");
    auto oInfo = PdfInfo(sPath);
    EXPECT_EQ(oInfo["Pages"], "2");
    EXPECT_EQ(oInfo["Title"], "In memory");
}

TEST(PdfOutput, OffsetsCountFromTheStartOfTheStream) {
    const std::string sPrefix = "%leading bytes of the container\n";
    const StreamPtr oMemory =
        CreateMemoryStream(std::vector<std::uint8_t>(sPrefix.begin(), sPrefix.end()));
    oMemory->Seek(0, Stream::End);
    cPDF oPdf;
    ASSERT_TRUE(oPdf.NewPdf(oMemory, {}));
    WriteSampleDocument(oPdf);
    const std::string sFile = StreamBytes(oMemory);
    EXPECT_EQ(sFile.substr(0, sPrefix.size()), sPrefix);
    EXPECT_EQ(sFile.substr(sPrefix.size(), 8), "%PDF-1.3");
    ExpectXrefMatchesObjects(sFile);
}

TEST(PdfOutput, NoStreamIsRefusedAndTheOpenDocumentIsFinished) {
    const StreamPtr oFirst = CreateMemoryStream();
    cPDF oPdf;
    ASSERT_TRUE(oPdf.NewPdf(oFirst, {}));
    oPdf.MoveTo(1, 1);
    EXPECT_FALSE(oPdf.NewPdf(StreamPtr(), {}));
    EXPECT_EQ(oPdf.PdfGetNativePdf(), 0);
    const std::string sFirst = StreamBytes(oFirst);
    EXPECT_EQ(sFirst.substr(sFirst.size() - 7), "%%EOF\r\n");
    ExpectXrefMatchesObjects(sFirst);
    // Nothing open: drawing and closing are quiet.
    oPdf.LineTo(5, 5, 1);
    oPdf.ClosePdfFile();
    EXPECT_EQ(StreamBytes(oFirst), sFirst);
}

// --- writes that fall short ---------------------------------------------------

TEST(PdfOutput, AShortWriteIsNoticedAndTheCallsAnswerAsBefore) {
    auto oShort = std::make_shared<ShortStream>(300);
    cPDF oPdf;
    ASSERT_TRUE(oPdf.NewPdf(oShort, {}));
    EXPECT_FALSE(oPdf.WriteFailed());
    // The header objects that the font brings go past the room.
    EXPECT_EQ(oPdf.LoadFont("Arial", false, false), 1);
    EXPECT_TRUE(oPdf.WriteFailed());
    EXPECT_EQ(oPdf.BeginPage(), 1);
    oPdf.ClosePdfFile();
    EXPECT_TRUE(oPdf.WriteFailed());
    EXPECT_EQ(oShort->sTaken.size(), 300u);

    // The next document starts clean.
    const StreamPtr oMemory = CreateMemoryStream();
    ASSERT_TRUE(oPdf.NewPdf(oMemory, {}));
    EXPECT_FALSE(oPdf.WriteFailed());
    oPdf.BeginPage();
    oPdf.ClosePdfFile();
    EXPECT_FALSE(oPdf.WriteFailed());
}

// A small document to a file: whether the writer saw a write fall short.
bool WriteSmallFileFailed(const std::string& sPath) {
    cPDF oPdf;
    if (!oPdf.NewPdf(sPath, {})) return false;
    oPdf.BeginPage();
    oPdf.Rectangle(10, 10, 100, 100, 1);
    oPdf.ClosePdfFile();
    return oPdf.WriteFailed();
}

// The same in a process whose files may hold nBytes at most.
[[noreturn]] void ExitWithSmallFileFailed(const std::string& sPath, rlim_t nBytes) {
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit oLimit{};
    oLimit.rlim_cur = oLimit.rlim_max = nBytes;
    setrlimit(RLIMIT_FSIZE, &oLimit);
    std::exit(WriteSmallFileFailed(sPath) ? 0 : 1);
}

TEST(PdfOutput, AFileThatCannotTakeTheLastBytesIsNoticed) {
    // A document small enough to wait in the file's buffer until the end, in
    // a file allowed fewer bytes than it: only the final push can fail.
    const std::string sPath = ScratchPath("too-big.pdf");
    EXPECT_FALSE(WriteSmallFileFailed(sPath));
    const auto nSize = ReadFileBytes(sPath).size();
    ASSERT_GT(nSize, 600u);
    ASSERT_LT(nSize, 4000u);
    EXPECT_EXIT(ExitWithSmallFileFailed(sPath, 500), ::testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace kestrelyn
