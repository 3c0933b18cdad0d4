// cPDF: document life, file structure and page content.
#include "pdf/cPDF.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <random>
#include <system_error>

#include "pdf/PdfAResources.h"
#include "pdf/PdfCrypto.h"
#include "platform/Deflate.h"
#include "platform/Windows1252.h"

namespace kestrelyn {

const char* const kPdfProducer = "Kestrelyn ActiveX 5.13.09 edition. - https://kestrelyn.invalid";

namespace {

constexpr char kCrLf[] = "\r\n";

// Handles of open files: a plain counter, never 0.
thread_local std::int32_t nNextFileHandle = 0;

std::string Decimal(std::int64_t n) {
    return std::to_string(n);
}

void ReplaceAll(std::string& sText, const std::string& sFrom, const std::string& sTo) {
    if (sFrom.empty()) return;
    std::size_t nPos = 0;
    while ((nPos = sText.find(sFrom, nPos)) != std::string::npos) {
        sText.replace(nPos, sFrom.size(), sTo);
        nPos += sTo.size();
    }
}

std::string TwoDigits(int n) {
    std::string s = std::to_string(n);
    return s.size() < 2 ? "0" + s : s;
}

bool IsFileId(const std::string& sId) {
    if (sId.size() != 32) return false;
    for (char c : sId)
        if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    return true;
}

// 32 hexadecimal digits laid out as 8-4-4-4-12.
std::string GuidOf(const std::string& sId) {
    return sId.substr(0, 8) + "-" + sId.substr(8, 4) + "-" + sId.substr(12, 4) + "-" +
           sId.substr(16, 4) + "-" + sId.substr(20, 12);
}

} // namespace

cPDF::cPDF() = default;

// Dropping the writer drops the output: a document written to a path is
// never put in place unfinished; completing a document is ClosePdfFile's work.
cPDF::~cPDF() = default;

void cPDF::PaperWidth(float nValue) {
    nPaperWidth = nValue;
    nPaperSize = 255;
}

void cPDF::PaperHeight(float nValue) {
    nPaperHeight = nValue;
    nPaperSize = 255;
}

void cPDF::PaperSize(std::int32_t nValue) {
    nPaperSize = nValue;
    switch (nValue) {
    case 0:
        nPaperWidth = 595.2f;
        nPaperHeight = 842.0f;
        break;
    case 1:
        nPaperWidth = 842.0f;
        nPaperHeight = 1190.5f;
        break;
    case 2:
        nPaperWidth = 612.0f;
        nPaperHeight = 792.0f;
        break;
    case 3:
        nPaperWidth = 612.0f;
        nPaperHeight = 864.0f;
        break;
    default:
        break;
    }
}

// ---------------------------------------------------------------- numbers

std::string cPDF::FormatNumber(double nValue, std::int32_t nDecimals) {
    if (!std::isfinite(nValue)) return "0";
    // The fixed form without trailing zeros, nor a point left at the end.
    std::string s = FormatFixed(nValue, nDecimals);
    if (s.find('.') != std::string::npos) {
        while (!s.empty() && s.back() == '0')
            s.pop_back();
        if (!s.empty() && s.back() == '.') s.pop_back();
    }
    if (s == "-0") s = "0";
    return s;
}

std::string cPDF::FormatFixed(double nValue, std::int32_t nDecimals) {
    if (!std::isfinite(nValue)) nValue = 0;
    if (nDecimals < 0) nDecimals = 0;
    char arBuffer[400];
    // to_chars is locale-free and rounds the exact binary value, ties to even.
    const auto oResult = std::to_chars(arBuffer, arBuffer + sizeof(arBuffer), nValue,
                                       std::chars_format::fixed, static_cast<int>(nDecimals));
    if (oResult.ec != std::errc()) return "0";
    std::string s(arBuffer, oResult.ptr);
    ReplaceAll(s, ",", ".");
    return s;
}

std::string cPDF::EscapeStringPlain(const std::string& sText) {
    std::string s = sText;
    ReplaceAll(s, "\\", "\\\\");
    ReplaceAll(s, "(", "\\(");
    ReplaceAll(s, ")", "\\)");
    return s;
}

std::string cPDF::EscapeString(const std::string& sText) {
    std::string s = EscapeStringPlain(sText);
    ReplaceAll(s, "\r", "\\r");
    ReplaceAll(s, "\n", "\\n");
    return s;
}

bool cPDF::CompressBytes(const std::string& sSource, std::string& sDestination,
                         std::int32_t nLevel) {
    // The destination is sized as the file format has always sized it: a
    // stream that does not fit is a failed compression.
    const auto nCapacity =
        static_cast<std::size_t>(static_cast<double>(sSource.size()) * 1.01 + 12);
    return DeflateCompress2(sSource, static_cast<int>(nLevel), nCapacity, sDestination);
}

// ---------------------------------------------------------------- file primitives

std::int64_t cPDF::FilePosition() const {
    return oStream ? nPosition : 0;
}

void cPDF::WriteRaw(const std::string& sBytes) {
    if (!oStream || sBytes.empty()) return;
    const std::size_t nWritten = oStream->Write(sBytes.data(), sBytes.size());
    if (nWritten != sBytes.size()) bWriteFailed = true;
    nPosition += static_cast<std::int64_t>(nWritten);
}

void cPDF::WriteLine(const std::string& sText) {
    if (!oStream) return;
    WriteRaw(sText);
    WriteRaw(kCrLf);
}

void cPDF::WriteBytesLine(const std::string& sBytes) {
    WriteLine(sBytes);
}

void cPDF::WriteEndObj() {
    WriteLine("endobj");
}

std::int32_t cPDF::BeginObject(std::int32_t nNumber) {
    if (!oStream) return 0;
    if (nNumber == 0) nNumber = nLastObject + 1;
    if (nNumber > nLastObject) nLastObject = nNumber;
    if (arXref.size() < static_cast<std::size_t>(nLastObject)) arXref.resize(nLastObject);
    std::string sOffset = Decimal(FilePosition());
    if (sOffset.size() < 10) sOffset.insert(0, 10 - sOffset.size(), '0');
    arXref[nNumber - 1] = sOffset + " 00000 n";
    WriteLine(Decimal(nNumber) + " 0 obj");
    return nNumber;
}

std::string cPDF::EncryptFor(std::int32_t nObject, const std::string& sBytes) {
    if (nEncryptionMode == 0) return sBytes;
    return Rc4Bytes(ObjectKey(nObject), sBytes);
}

std::string cPDF::PrepareString(const std::string& sText, std::int32_t nObject, bool bEscape) {
    std::string s = sText;
    if (nEncryptionMode != 0) s = Rc4String(ObjectKey(nObject), s);
    if (bEscape) s = EscapeStringPlain(s);
    return s;
}

// ---------------------------------------------------------------- document life

bool cPDF::NewPdf(const std::string& sNewPath, const PdfDocumentInfo& oInfo) {
    return OpenDocument(nullptr, sNewPath, oInfo);
}

bool cPDF::NewPdf(StreamPtr oNewStream, const PdfDocumentInfo& oInfo) {
    // No stream fails as a path that cannot be opened does.
    return OpenDocument(std::move(oNewStream), "", oInfo);
}

bool cPDF::FixIdentity(const PdfFixedIdentity& oIdentity) {
    if (!IsFileId(oIdentity.sFileIdA) || !IsFileId(oIdentity.sFileIdB)) return false;
    oFixedIdentity = oIdentity;
    return true;
}

bool cPDF::OpenDocument(StreamPtr oNewStream, const std::string& sNewPath,
                        const PdfDocumentInfo& oInfo) {
    // A document still open is finished with its own settings, and the new
    // one starts from an empty object table.
    if (hFile != 0) ClosePdfFile();
    ResetDocument();
    sPath = sNewPath;
    sTitleUtf8 = oInfo.sTitle;
    sAuthorUtf8 = oInfo.sAuthor;
    sCreatorUtf8 = oInfo.sCreator;
    sKeywordsUtf8 = oInfo.sKeywords;
    sSubjectUtf8 = oInfo.sSubject;
    sTitle = Utf8ToAnsi(oInfo.sTitle);
    sAuthor = Utf8ToAnsi(oInfo.sAuthor);
    sCreator = Utf8ToAnsi(oInfo.sCreator);
    sKeywords = Utf8ToAnsi(oInfo.sKeywords);
    sSubject = Utf8ToAnsi(oInfo.sSubject);
    nEncryptionMode = oInfo.nEncryption;
    nRights = oInfo.nRights;
    sUserPassword = Utf8ToAnsi(oInfo.sUserPassword);
    sOwnerPassword = Utf8ToAnsi(oInfo.sOwnerPassword);

    if (oFixedIdentity) {
        sFileIdA = oFixedIdentity->sFileIdA;
        sFileIdB = oFixedIdentity->sFileIdB;
    } else {
        // Two ids of 32 hexadecimal digits, from a generator seeded by the clock.
        std::mt19937 oRandom(static_cast<std::uint32_t>(
            std::chrono::high_resolution_clock::now().time_since_epoch().count()));
        std::uniform_real_distribution<double> oUnit(0.0, 1.0);
        static constexpr char kHex[] = "0123456789ABCDEF";
        sFileIdA.clear();
        sFileIdB.clear();
        for (int i = 0; i < 32; ++i) {
            sFileIdA += kHex[static_cast<int>(oUnit(oRandom) * 16) & 15];
            sFileIdB += kHex[static_cast<int>(oUnit(oRandom) * 16) & 15];
        }
    }

    try {
        if (!oNewStream && !sPath.empty()) {
            // The document is written beside its target and replaces it at
            // ClosePdfFile, only when every write succeeded.
            pOutput = std::make_unique<SafeFile>();
            if (pOutput->Begin(sPath)) oNewStream = CreateFileStream(pOutput->TempPath(), true);
        }
        if (!oNewStream) {
            ClosePdfFile();
            return false;
        }
        oStream = std::move(oNewStream);
        // Offsets count from the stream's start, wherever the document begins.
        nPosition = std::max<std::int64_t>(oStream->Seek(0, Stream::Current), 0);
        if (++nNextFileHandle <= 0) nNextFileHandle = 1;
        hFile = nNextFileHandle;
        return true;
    } catch (...) {
        ClosePdfFile();
        return false;
    }
}

void cPDF::ResetDocument() {
    bPdfHeaderDone = false;
    bWriteFailed = false;
    nPosition = 0;
    nPages = 0;
    nLastObject = 0;
    sKids.clear();
    sFontResources.clear();
    sFontLookup.clear();
    sImageResources.clear();
    sFormResources.clear();
    sPageContent.clear();
    nFormCount = 0;
    nFontCount = 0;
    nFormStreamStart = 0;
    bPageOpen = false;
    sFileKey.clear();
    sO.clear();
    sU.clear();
    sP.clear();
    nEncryptObject = 0;
    arXref.clear();
    arImages.clear();
    arFonts.clear();
    arForms.clear();
    nOpenForm = 0;
    pFormCipher.reset();
}

std::int16_t cPDF::BeginPage() {
    if (!bPdfHeaderDone) InitPdfFile();
    if (bPageOpen) EndPage();
    ++nPages;
    sPageContent.clear();
    nCurrentWidth = nPaperWidth;
    nCurrentHeight = nPaperHeight;
    nCurrentMargin = nMargin;
    nCharSpacing = 0;
    nWordSpacing = 0;
    nHorizontalScaling = 100;
    bPageOpen = true;
    // Forms are placed once the page can take content.
    AutoDrawObjects();
    return static_cast<std::int16_t>(nPages);
}

void cPDF::InitPdfFile() {
    bPdfHeaderDone = true;
    std::tm oNow{};
    if (oFixedIdentity) {
        oNow.tm_year = oFixedIdentity->nYear - 1900;
        oNow.tm_mon = oFixedIdentity->nMonth - 1;
        oNow.tm_mday = oFixedIdentity->nDay;
        oNow.tm_hour = oFixedIdentity->nHour;
        oNow.tm_min = oFixedIdentity->nMinute;
        oNow.tm_sec = oFixedIdentity->nSecond;
    } else {
        const std::time_t nNow = std::time(nullptr);
        localtime_r(&nNow, &oNow);
    }
    const std::string sYear = std::to_string(oNow.tm_year + 1900);
    const std::string sMonth = TwoDigits(oNow.tm_mon + 1), sDay = TwoDigits(oNow.tm_mday);
    const std::string sHour = TwoDigits(oNow.tm_hour), sMinute = TwoDigits(oNow.tm_min),
                      sSecond = TwoDigits(oNow.tm_sec);
    std::string sXmpDate =
        sYear + "-" + sMonth + "-" + sDay + "T" + sHour + ":" + sMinute + ":" + sSecond + "+01:00";
    ReplaceAll(sXmpDate, ".", ":");

    if (nEncryptionMode != 0) {
        bPdfA = false;
        ComputeEncryptionValues(nRights, nEncryptionMode, sOwnerPassword, sUserPassword);
    }

    const std::string sProducer = kPdfProducer;
    if (nEncryptionMode == 2)
        WriteLine("%PDF-1.4\r%" + sProducer);
    else if (nEncryptionMode == 0 && bPdfA)
        WriteLine("%PDF-1.4\r%\xE2\xE3\xCF\xD3");
    else
        WriteLine("%PDF-1.3\r%" + sProducer);

    // 1: document information.
    nLastObject = 0;
    BeginObject(1);
    const std::string sDate = "D:" + sYear + sMonth + sDay + sHour + sMinute + sSecond + "+01'00'";
    sTitle = PrepareString(sTitle, 1, true);
    sAuthor = PrepareString(sAuthor, 1, true);
    sCreator = PrepareString(sCreator, 1, true);
    const std::string sProducerField = PrepareString(sProducer, 1, true);
    sSubject = PrepareString(sSubject, 1, true);
    sKeywords = PrepareString(sKeywords, 1, true);
    const std::string sDateField = PrepareString(sDate, 1, true);
    WriteLine("<</Title(" + sTitle + ")/Author(" + sAuthor + ")/Creator(" + sCreator +
              ")/Producer(" + sProducerField + ")/Subject(" + sSubject + ")/Keywords(" + sKeywords +
              ")/CreationDate(" + sDateField + ")>>");
    WriteEndObj();

    // 2: catalog.
    BeginObject(2);
    const bool bMetadata = !sXMP.empty() || bPdfA;
    WriteLine(std::string("<</PageMode/UseNone/ViewerPreferences") +
              "<</HideWindowUI false/DisplayDocTitle true" + "/HideToolbar false>>" +
              (bMetadata ? "/Metadata 5 0 R" : "") +
              "/Pages 3 0 R/PageLayout/OneColumn/Type/Catalog" +
              (bPdfA ? "/OutputIntents 6 0 R" : "") + ">>");
    WriteEndObj();

    // 3 and 4 are written by ClosePdfFile.
    nLastObject = 4;

    if (bMetadata) {
        if (bPdfA) MakeXmpText(sXmpDate);
        const std::int32_t nObject = BeginObject(0);
        if (nEncryptionMode != 0) sXMP = Rc4String(ObjectKey(nObject), sXMP);
        WriteLine("<</Subtype/XML/Length " + Decimal(static_cast<std::int64_t>(sXMP.size())) +
                  "/Type/Metadata>>stream" + kCrLf + sXMP + kCrLf + "endstream");
        WriteEndObj();
    }

    if (bPdfA) {
        const std::int32_t nProfileObject = nLastObject + 2;
        BeginObject(0);
        WriteLine("[<</Info(sRGB IEC61966-2.1)/S/GTS_PDFA1/OutputConditionIdentifier(Custom)"
                  "/OutputCondition()/DestOutputProfile " +
                  Decimal(nProfileObject) + " 0 R/Type/OutputIntent/RegistryName()>>]");
        WriteEndObj();
        BeginObject(0);
        const std::string sProfile = DeflatedSrgbProfile();
        WriteLine("<</Length " + Decimal(static_cast<std::int64_t>(sProfile.size())) +
                  "/Filter/FlateDecode/N 3>>stream");
        WriteBytesLine(sProfile);
        WriteLine("endstream");
        WriteEndObj();
    }

    if (nEncryptionMode != 0) {
        nEncryptObject = BeginObject(0);
        WriteLine("<< /Filter /Standard \r/O (" + EscapeString(sO) + ")\r/U (" + EscapeString(sU) +
                  ")\r/P " + sP + "\r" +
                  (nEncryptionMode == 1 ? "/V 1 /R 2 >>" : "/V 2 /R 3 /Length 128 >>"));
        WriteEndObj();
    }
}

void cPDF::MakeXmpText(const std::string& sDate) {
    // The values are those of the information dictionary (escaped for a PDF
    // string); they go in as UTF-8 so that the packet stays valid UTF-8.
    sXMP = XmpTemplate();
    ReplaceAll(sXMP, "XXX_AUTHOR_XXX", EscapeStringPlain(sAuthorUtf8));
    ReplaceAll(sXMP, "XXX_TITLE_XXX", EscapeStringPlain(sTitleUtf8));
    ReplaceAll(sXMP, "XXX_CREATOR_XXX", EscapeStringPlain(sCreatorUtf8));
    ReplaceAll(sXMP, "XXX_SUBJECT_XXX", EscapeStringPlain(sSubjectUtf8));
    ReplaceAll(sXMP, "XXX_KEYWORDS_XXX", EscapeStringPlain(sKeywordsUtf8));
    ReplaceAll(sXMP, "XXX_CREATIONDATE_XXX", sDate);
    ReplaceAll(sXMP, "XXX_MODIFYDATE_XXX", sDate);
    ReplaceAll(sXMP, "XXX_METADATADATE_XXX", sDate);
    ReplaceAll(sXMP, "XXX_PRODUCER_XXX", kPdfProducer);
    const bool bFixed = oFixedIdentity.has_value();
    ReplaceAll(sXMP, "XXX_DOCUMENTUUID_XXX", "uuid: " + (bFixed ? GuidOf(sFileIdA) : MakeGuid()));
    ReplaceAll(sXMP, "XXX_SESSIONUUID_XXX", "uuid: " + (bFixed ? GuidOf(sFileIdB) : MakeGuid()));
}

void cPDF::EndPage() {
    if (!bPageOpen) return;
    const std::int32_t nPage = BeginObject(0);
    if (nPage == 0) {
        sPageContent.clear();
        bPageOpen = false;
        return;
    }
    sKids += Decimal(nPage) + " 0 R ";
    const std::string sW = FormatNumber(nCurrentWidth), sH = FormatNumber(nCurrentHeight),
                      sM = FormatNumber(nCurrentMargin),
                      sWM = FormatNumber(nCurrentWidth - nCurrentMargin),
                      sHM = FormatNumber(nCurrentHeight - nCurrentMargin);
    WriteLine("<</Type/Page/Parent 3 0 R/Contents " + Decimal(nPage + 1) + " 0 R/MediaBox [0 0 " +
              sW + " " + sH + "]/CropBox [" + sM + " " + sM + " " + sWM + " " + sHM + "]" +
              (nOrientation == 1 ? "/Rotate 90" : "") + ">>");
    WriteEndObj();

    BeginObject(nPage + 1);
    std::string sDeflated;
    if (bCompressData && bZlibAvailable && CompressBytes(sPageContent, sDeflated, 9)) {
        WriteLine("<</Length " + Decimal(static_cast<std::int64_t>(sDeflated.size())) +
                  "/Filter /FlateDecode>>stream");
        WriteBytesLine(EncryptFor(nPage + 1, sDeflated));
    } else {
        WriteLine("<</Length " + Decimal(static_cast<std::int64_t>(sPageContent.size())) +
                  ">>stream");
        WriteLine(EncryptFor(nPage + 1, sPageContent));
    }
    WriteRaw("endstream\rendobj\r");
    sPageContent.clear();
    bPageOpen = false;
}

void cPDF::ClosePdfFile() {
    if (!oStream) {
        pOutput.reset();
        hFile = 0;
        return;
    }
    if (nOpenForm != 0) EndObject();
    if (bPageOpen) EndPage();

    BeginObject(4);
    std::string sResources = "<<";
    if (nFontCount > 0) sResources += "/Font<<" + sFontResources + ">>";
    sResources += "/ProcSet [/PDF/Text";
    if (!arImages.empty()) sResources += "/ImageB/ImageC/ImageI";
    sResources += " ]";
    if (!arImages.empty() || nFormCount > 0)
        sResources += "/XObject <<" + sImageResources + sFormResources + ">>";
    sResources += ">>";
    WriteLine(sResources);
    WriteEndObj();

    BeginObject(3);
    WriteLine("<</Type/Pages/Count " + Decimal(nPages) + "/Kids [" + sKids + "]/Resources 4 0 R>>");
    WriteEndObj();

    const std::int64_t nXref = FilePosition();
    WriteLine("xref");
    WriteLine("0 " + Decimal(nLastObject + 1));
    WriteLine("0000000000 65535 f");
    for (std::int32_t i = 0; i < nLastObject; ++i) {
        // A number that no object took (a document never started) is listed
        // as free, so every entry keeps its 20 bytes.
        const std::string& sEntry = arXref[i];
        WriteLine(sEntry.empty() ? "0000000000 65535 f" : sEntry);
    }

    std::string sTrailer =
        "trailer\r\n<</Size " + Decimal(nLastObject + 1) + "/Root 2 0 R/Info 1 0 R";
    if (nEncryptionMode != 0) {
        static constexpr char kHex[] = "0123456789ABCDEF";
        std::string sHexId;
        for (unsigned char c : sFileIdA) {
            sHexId += kHex[c >> 4];
            sHexId += kHex[c & 15];
        }
        sTrailer +=
            "/Encrypt " + Decimal(nEncryptObject) + " 0 R /ID [<" + sHexId + "><" + sHexId + ">]";
    }
    if (bPdfA)
        sTrailer += "/ID[<" + sFileIdA + "><" + sFileIdB + ">]>>";
    else
        sTrailer += ">>";
    WriteLine(sTrailer);
    WriteLine("startxref");
    WriteLine(Decimal(nXref));
    WriteLine("%%EOF");
    // A seek pushes out what the stream still buffers, so that a full disk
    // shows here rather than going unseen when the stream is dropped.
    if (oStream->Seek(0, Stream::Current) < 0) bWriteFailed = true;
    oStream.reset();
    if (pOutput) {
        if (!bWriteFailed && !pOutput->Commit()) bWriteFailed = true;
        pOutput.reset(); // a document that failed is removed, the target kept
    }
    hFile = 0;
}

// ---------------------------------------------------------------- page content

void cPDF::AppendContent(const std::string& sText) {
    if (nOpenForm != 0) {
        // A form being recorded takes the content straight into its stream.
        std::string sLine = sText + kCrLf;
        if (pFormCipher) pFormCipher->Apply(sLine);
        WriteRaw(sLine);
        return;
    }
    if (!bPageOpen) return;
    sPageContent += sText;
    sPageContent += kCrLf;
}

void cPDF::EnsurePage() {
    if (!bPageOpen && nOpenForm == 0) BeginPage();
}

void cPDF::PaintPath(std::int32_t nStyle) {
    if ((nStyle & 7) == 7) {
        AppendContent("b");
    } else if ((nStyle & 1) && (nStyle & 4)) {
        AppendContent("B");
    } else if (nStyle & 4) {
        AppendContent("f");
    } else {
        if (nStyle & 2) AppendContent("h");
        if (nStyle & 1) AppendContent("S");
    }
}

void cPDF::SetWordSpacing(float nValue) {
    EnsurePage();
    nWordSpacing = nValue;
    AppendContent(FormatNumber(nValue) + " Tw");
}

void cPDF::SetCharSpacing(float nValue) {
    EnsurePage();
    nCharSpacing = nValue;
    AppendContent(FormatNumber(nValue) + " Tc");
}

void cPDF::SetTextHorizontalScaling(float nValue) {
    EnsurePage();
    nHorizontalScaling = nValue;
    AppendContent(FormatNumber(nValue) + " Tz");
}

void cPDF::SetTextMode(std::int32_t nMode) {
    EnsurePage();
    if (nMode >= 0 && nMode <= 3) AppendContent(Decimal(nMode) + " Tr");
}

namespace {

// Operands of a colour operator: one gray or three components.
std::string ColourOperands(std::int32_t nColour, bool& bGray) {
    if (nColour >= -255 && nColour <= 0) {
        bGray = true;
        return cPDF::FormatNumber(-static_cast<double>(nColour) / 255.0);
    }
    bGray = false;
    const auto n = static_cast<std::uint32_t>(nColour);
    return cPDF::FormatNumber((n & 0xFF) / 255.0) + " " +
           cPDF::FormatNumber(((n >> 8) & 0xFF) / 255.0) + " " +
           cPDF::FormatNumber(((n >> 16) & 0xFF) / 255.0);
}

} // namespace

void cPDF::SetColorStroke(std::int32_t nColour) {
    EnsurePage();
    bool bGray = false;
    const std::string s = ColourOperands(nColour, bGray);
    AppendContent(s + (bGray ? " G" : " RG"));
}

void cPDF::SetColorFill(std::int32_t nColour) {
    EnsurePage();
    bool bGray = false;
    const std::string s = ColourOperands(nColour, bGray);
    AppendContent(s + (bGray ? " g" : " rg"));
}

void cPDF::SetDash(float nOn, float nOff) {
    EnsurePage();
    if (nOn == 0 && nOff == 0)
        AppendContent("[ ] 0 d");
    else
        AppendContent("[" + FormatNumber(nOn) + " " + FormatNumber(nOff) + "] 0 d");
}

void cPDF::SetLineWidth(float nWidth) {
    EnsurePage();
    AppendContent(FormatNumber(nWidth) + " w");
}

void cPDF::SetLineCap(std::int32_t nCap) {
    EnsurePage();
    if (nCap >= 0 && nCap <= 2) AppendContent(Decimal(nCap) + " J");
}

void cPDF::SetLineJoin(std::int32_t nJoin) {
    EnsurePage();
    if (nJoin >= 0 && nJoin <= 2) AppendContent(Decimal(nJoin) + " j");
}

void cPDF::MoveTo(float x, float y) {
    EnsurePage();
    AppendContent(FormatNumber(x) + " " + FormatNumber(y) + " m");
}

void cPDF::LineTo(float x, float y, std::int32_t nStyle) {
    EnsurePage();
    AppendContent(FormatNumber(x) + " " + FormatNumber(y) + " l");
    PaintPath(nStyle);
}

void cPDF::Curve(float x1, float y1, float x2, float y2, float x3, float y3, std::int32_t nStyle) {
    EnsurePage();
    AppendContent(FormatNumber(x1) + " " + FormatNumber(y1) + " " + FormatNumber(x2) + " " +
                  FormatNumber(y2) + " " + FormatNumber(x3) + " " + FormatNumber(y3) + " c");
    PaintPath(nStyle);
}

void cPDF::Rectangle(float x, float y, float w, float h, std::int32_t nStyle, float r) {
    EnsurePage();
    AppendContent("n");
    if (r <= 0) {
        AppendContent(FormatNumber(x) + " " + FormatNumber(y) + " " + FormatNumber(w) + " " +
                      FormatNumber(h) + " re");
        PaintPath(nStyle);
        return;
    }
    if (r > w / 2) r = w / 2;
    if (r > h / 2) r = h / 2;
    const float k = r * 0.55f;
    MoveTo(x + r, y);
    LineTo(x + w - r, y, 0);
    Curve(x + w - r + k, y, x + w, y + r - k, x + w, y + r, 0);
    LineTo(x + w, y + h - r, 0);
    Curve(x + w, y + h - r + k, x + w - r + k, y + h, x + w - r, y + h, 0);
    LineTo(x + r, y + h, 0);
    Curve(x + r - k, y + h, x, y + h - r + k, x, y + h - r, 0);
    LineTo(x, y + r, 0);
    Curve(x, y + r - k, x + r - k, y, x + r, y, 0);
    PaintPath(nStyle);
}

void cPDF::DrawCircle(float x, float y, float r, std::int32_t nStyle) {
    EnsurePage();
    const float k = r * 0.55f;
    MoveTo(x, y - r);
    Curve(x + k, y - r, x + r, y - k, x + r, y, 0);
    Curve(x + r, y + k, x + k, y + r, x, y + r, 0);
    Curve(x - k, y + r, x - r, y + k, x - r, y, 0);
    Curve(x - r, y - k, x - k, y - r, x, y - r, 0);
    PaintPath(nStyle);
}

void cPDF::Arc(float x, float y, float nRay, float nStartAngle, float nEndAngle, float nRatio,
               bool bPie, float nRotation, float nStep, std::int32_t nStyle) {
    EnsurePage();
    AppendContent("n");
    MoveTo(x, y);
    if (nStyle & 4) bPie = true;
    const double a = 3.141592 / 180.0;
    const double s = std::sin(-a * nRotation), c = std::cos(-a * nRotation);
    // A sweep past one turn only repeats the circle, so it stops after one;
    // the points are counted, since a float angle stops advancing past 2^24
    // and a tiny step would never end. A step too fine for kMaxArcPoints
    // draws nothing, as a step of 0 does.
    constexpr double kMaxArcPoints = 1 << 20;
    const float nLastAngle = std::min(nEndAngle, nStartAngle + 360.0f);
    const double nPoints = std::floor((double{nLastAngle} - nStartAngle) / nStep) + 2;
    if (nStep > 0 && nPoints <= kMaxArcPoints) {
        std::int64_t nLeft = static_cast<std::int64_t>(nPoints);
        for (float t = nStartAngle; t <= nLastAngle && nLeft-- > 0; t += nStep) {
            const double px = nRay * std::cos(a * t);
            const double py = nRay * nRatio * std::sin(a * t);
            const double ux = c * px + s * py;
            const double uy = c * py - s * px;
            const auto fx = static_cast<float>(ux + x), fy = static_cast<float>(uy + y);
            if (t == nStartAngle && !bPie) MoveTo(fx, fy);
            LineTo(fx, fy, 0);
        }
    }
    if (bPie) LineTo(x, y, 0);
    PaintPath(nStyle);
}

void cPDF::DrawText(float x, float y, const std::string& sText, std::int32_t nFontId, float nSize,
                    std::int32_t nAlign, float nRotation) {
    if (nFontId < 1 || nFontId > nFontCount) return;
    EnsurePage();
    const std::string sName = "Font" + Decimal(nFontId);
    if (nAlign == 1)
        x -= TextWidth(sText, nFontId, nSize);
    else if (nAlign == 2)
        x -= TextWidth(sText, nFontId, nSize) / 2;
    AppendContent("BT");
    AppendContent("/" + sName + " " + FormatNumber(nSize) + " Tf");
    if (nRotation == 0) {
        AppendContent(FormatNumber(x) + " " + FormatNumber(y) + " Td");
    } else {
        const double r = nRotation * (3.141592 / 180.0);
        AppendContent(FormatNumber(std::cos(r)) + " " + FormatNumber(std::sin(r)) + " " +
                      FormatNumber(-std::sin(r)) + " " + FormatNumber(std::cos(r)) + " " +
                      FormatNumber(x) + " " + FormatNumber(y) + " Tm");
    }
    AppendContent("(" + EscapeString(Utf8ToAnsi(sText)) + ") Tj");
    AppendContent("ET");
}

// ---------------------------------------------------------------- form objects

void cPDF::StartObject(const std::string& sName, std::int32_t nFlags) {
    if (!oStream || nOpenForm != 0) return;
    if (!bPdfHeaderDone) InitPdfFile();
    const std::int32_t nForm = BeginObject(0);
    WriteLine("<</Type/XObject/Subtype/Form/FormType 1/Name/" + sName + "/BBox [" +
              FormatNumber(nMargin) + " " + FormatNumber(nMargin) + " " +
              FormatNumber(nPaperWidth - nMargin) + " " + FormatNumber(nPaperHeight - nMargin) +
              "]/Matrix [1 0 0 1 0 0]/Length " + Decimal(nForm + 1) + " 0 R>>stream");
    nFormStreamStart = FilePosition();
    sFormResources += "/" + sName + " " + Decimal(nForm) + " 0 R \r";
    arForms.push_back({sName, nFlags});
    ++nFormCount;
    nOpenForm = nForm;
    if (nEncryptionMode != 0) pFormCipher = std::make_unique<cRc4>(ObjectKey(nForm));
}

void cPDF::EndObject() {
    if (!oStream || nOpenForm == 0) return;
    const std::int64_t nLength = FilePosition() - nFormStreamStart;
    nOpenForm = 0;
    pFormCipher.reset();
    WriteLine("endstream");
    WriteEndObj();
    BeginObject(0);
    WriteLine(Decimal(nLength));
    WriteEndObj();
}

void cPDF::DrawObject(const std::string& sName) {
    EnsurePage();
    AppendContent("/" + sName + " Do");
}

void cPDF::AutoDrawObjects() {
    const std::int32_t p = nPages;
    const bool bOdd = (p % 2) != 0;
    for (const PdfFormRecord& oForm : arForms) {
        const std::int32_t f = oForm.nFlags;
        bool g = (f & 7) < 7;
        if (!bOdd) g = g && (f & 2) == 0;
        bool h = true;
        if (bOdd && (f & 4)) h = (f & 8) != 0 && p == 1;
        if (!(g && h)) DrawObject(oForm.sName);
    }
}

} // namespace kestrelyn
