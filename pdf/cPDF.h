// cPDF: the forward-only writer of one PDF file. Objects go to the output (a
// file or a stream) as the application calls; only offsets, the page list,
// resource strings and the open page's content stay in memory.
//
// Text arguments (title, author, drawn text, font names, ...) are UTF-8; the
// file holds them as Windows-1252 ("WinAnsi") bytes.
#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kestrelyn/PdfTypes.h"
#include "kestrelyn/Types.h"
#include "platform/FontService.h"
#include "platform/SafeFile.h"

namespace kestrelyn {

class cRc4;

// What a new document says of itself, and how it is protected. Text is UTF-8.
struct PdfDocumentInfo {
    std::string sTitle{};
    std::string sAuthor{};
    std::string sCreator{};
    std::string sKeywords{};
    std::string sSubject{};
    std::int32_t nEncryption = PdfEncryptionNone;
    std::int32_t nRights = PdfRightUndefined;
    std::string sUserPassword{};
    std::string sOwnerPassword{};
};

// Fixed values in place of the random file ids and the clock, so that a
// document comes out the same byte for byte each time it is written.
struct PdfFixedIdentity {
    std::string sFileIdA{}; // 32 hexadecimal digits, the first half of /ID
    std::string sFileIdB{}; // 32 hexadecimal digits, the second half
    // The local time that the document gives as its creation date.
    std::int32_t nYear = 2000;
    std::int32_t nMonth = 1;
    std::int32_t nDay = 1;
    std::int32_t nHour = 0;
    std::int32_t nMinute = 0;
    std::int32_t nSecond = 0;
};

// What PdfAddImage reads of an image before it chooses the filter.
struct PdfImageFacts {
    std::int32_t nWidth = 0;
    std::int32_t nHeight = 0;
    std::int32_t nDepth = 0; // bits per pixel of the pixel format
    float nResX = 0;         // dots per inch
    float nResY = 0;
    bool bGreyRamp = false; // 8 bits whose palette is the 256-entry grey ramp
};

// The owner of the images that PdfAddImage takes by number or by file (in the
// library, the image registry). The writer itself reads no registry.
class PdfImageSource {
  public:
    virtual ~PdfImageSource() = default;
    // Loads a file for the occasion: its image number, or 0.
    virtual std::int32_t LoadFile(const std::string& sFilePath) = 0;
    // Lets go of an image that LoadFile gave.
    virtual void Release(std::int32_t nImage) = 0;
    // False for an unknown image.
    virtual bool Facts(std::int32_t nImage, PdfImageFacts& oFacts) = 0;
    // Whether an 8-bit grey image can be coded as a one-component JPEG.
    virtual bool GreyJpegAvailable() = 0;
    // The image as the bytes of a JPEG file at a quality; alpha is dropped.
    virtual bool EncodeJpeg(std::int32_t nImage, std::int32_t nQuality, std::string& sJpeg) = 0;
    // Every row, nStride bytes each, at nDepth 1, 4 or 8 bits indexed, or 24
    // bits in the order red, green, blue.
    virtual bool ReadRows(std::int32_t nImage, std::int32_t nDepth, std::int32_t nStride,
                          std::string& sRows) = 0;
    // The palette as red, green, blue triples, as many as the image has.
    virtual std::string Palette(std::int32_t nImage) = 0;
};

// One font of the document, measured in thousandths of the em.
struct PdfFontRecord {
    std::string sName;
    std::uint8_t nFirstChar = 0;
    std::uint8_t nLastChar = 0;
    std::int32_t arWidths[256] = {};
    std::int32_t nMissingWidth = 0;
    std::int32_t nAvgWidth = 0;
    std::int32_t nMaxWidth = 0;
    std::int32_t nDescent = 0;
    std::int32_t nAscent = 0;
    std::int32_t nItalicAngle = 0;
    std::int32_t nCapHeight = 0;
    std::int32_t nStemV = 0;
    std::int32_t nFlags = 0;
};

// One image XObject of the document.
struct PdfImageRecord {
    std::int32_t Width = 0;
    std::int32_t Height = 0;
    std::int32_t ResX = 0;
    std::int32_t ResY = 0;
};

// One form XObject and its auto-drawing flags.
struct PdfFormRecord {
    std::string sName;
    std::int32_t nFlags = 0;
};

// Filter modes of image streams.
enum PdfImageFilter : std::int32_t {
    PdfImageFilterNone = 0,
    PdfImageFilterFlate = 1,
    PdfImageFilterCcittG4 = 2,
    PdfImageFilterJpeg = 3,
};

class cPDF {
  public:
    cPDF();
    ~cPDF();
    cPDF(const cPDF&) = delete;
    cPDF& operator=(const cPDF&) = delete;

    // --- properties ---
    bool PdfHeaderDone() const { return bPdfHeaderDone; }
    void XMP(const std::string& sXmp) { sXMP = sXmp; }
    void PdfA(bool bValue) { bPdfA = bValue; }
    std::int32_t CompressLevel() const { return nCompressLevel; }
    void CompressLevel(std::int32_t nValue) { nCompressLevel = nValue; }
    std::int32_t JpegQuality() const { return nJpegQuality; }
    void JpegQuality(std::int32_t nValue) { nJpegQuality = nValue; }
    bool CompressData() const { return bCompressData; }
    void CompressData(bool bValue) { bCompressData = bValue; }
    float Margin() const { return nMargin; }
    void Margin(float nValue) { nMargin = nValue; }
    std::int32_t ImageCount() const { return static_cast<std::int32_t>(arImages.size()); }
    float PaperWidth() const { return nPaperWidth; }
    void PaperWidth(float nValue);
    float PaperHeight() const { return nPaperHeight; }
    void PaperHeight(float nValue);
    std::int32_t Pages() const { return nPages; }
    void PaperSize(std::int32_t nValue);
    std::int32_t Orientation() const { return nOrientation; }
    void Orientation(std::int32_t nValue) { nOrientation = nValue; }
    std::int32_t PdfGetNativePdf() const { return hFile; }
    std::string PdfGetPath() const { return sPath; }

    // --- document life ---
    // Starts a document for a file at sPath: it is written beside the path
    // and replaces what is there at ClosePdfFile when every write succeeded.
    // False, with nothing touched, when the path is a folder, its folder is
    // missing, an existing file there is write-protected or no file can be
    // made.
    bool NewPdf(const std::string& sPath, const PdfDocumentInfo& oInfo);
    // Starts a document in a stream, from its present position; the offsets
    // of the file count from the stream's start. False for no stream.
    bool NewPdf(StreamPtr oStream, const PdfDocumentInfo& oInfo);
    void ClosePdfFile();
    // True once a write of the present (or last) document fell short: the
    // output is then incomplete, whatever the other calls answered, and a
    // document begun with a path was not put in place.
    bool WriteFailed() const { return bWriteFailed; }
    // Documents begun after this call take the identity's file ids and time
    // instead of random ids and the clock; the PDF/A identifiers are made
    // from the ids. False, and nothing changes, unless both ids are 32
    // hexadecimal digits.
    bool FixIdentity(const PdfFixedIdentity& oIdentity);
    std::int16_t BeginPage();
    void EndPage();

    // --- page content (points, origin at the bottom left) ---
    void SetWordSpacing(float nValue);
    void SetCharSpacing(float nValue);
    void SetTextHorizontalScaling(float nValue);
    void DrawText(float x, float y, const std::string& sText, std::int32_t nFontId, float nSize,
                  std::int32_t nAlign = 0, float nRotation = 0);
    void SetTextMode(std::int32_t nMode);
    void SetColorStroke(std::int32_t nColour);
    void SetColorFill(std::int32_t nColour);
    void SetDash(float nOn, float nOff);
    void SetLineWidth(float nWidth);
    void SetLineCap(std::int32_t nCap);
    void SetLineJoin(std::int32_t nJoin);
    void MoveTo(float x, float y);
    void LineTo(float x, float y, std::int32_t nStyle);
    void Rectangle(float x, float y, float nWidth, float nHeight, std::int32_t nStyle,
                   float nRadius = 0);
    void Curve(float x1, float y1, float x2, float y2, float x3, float y3, std::int32_t nStyle);
    void DrawCircle(float x, float y, float nRadius, std::int32_t nStyle);
    void Arc(float x, float y, float nRay, float nStartAngle, float nEndAngle, float nRatio,
             bool bPie, float nRotation, float nStep, std::int32_t nStyle);

    // --- images ---
    // Writes an image XObject from pixels already read (or JPEG bytes already
    // encoded for PdfImageFilterJpeg) and adds it to the image table. This is
    // the step that the image-loading entry (PdfAddImage over the registry)
    // ends with. nBitsPerPixel is 1, 4 or 8 with a palette of 3 * 2^bpp bytes
    // (red, green, blue), or 24 for rows of red, green, blue. Returns the new
    // image number, or 0.
    std::int32_t AddImageData(const std::string& sData, const std::string& sPalette,
                              std::int32_t nWidth, std::int32_t nHeight, std::int32_t nBitsPerPixel,
                              std::int32_t nStride, std::int32_t nFilterMode, std::int32_t nResX,
                              std::int32_t nResY);
    // The owner of the images that PdfAddImage takes; none at first.
    void ImageSource(PdfImageSource* pSource) { pImageSource = pSource; }
    // PdfAddImage of an image of the image source (kind 2: the image stays
    // with its owner) or of a file loaded for the occasion and released
    // afterwards (kind 1). The filter follows the depth and CompressData.
    // Returns the new image number, or 0 (no file open, no image source, a
    // bad id or file, a failed read).
    std::int32_t PdfAddImage(std::int32_t nImageID);
    std::int32_t PdfAddImage(const std::string& sFilePath);
    void DrawImg(std::int32_t nImage, float x, float y, float nWidth, float nHeight);
    std::int32_t ImageWidth(std::int32_t nImage) const;
    std::int32_t ImageHeight(std::int32_t nImage) const;
    std::int32_t ImageResX(std::int32_t nImage) const;
    std::int32_t ImageResY(std::int32_t nImage) const;

    // --- fonts ---
    // The fonts that LoadFont finds and measures; the system's at first.
    void Fonts(FontService& oService) { pFonts = &oService; }
    std::int32_t LoadFont(const std::string& sName, bool bBold, bool bItalic);

    // --- form objects ---
    void StartObject(const std::string& sName, std::int32_t nFlags);
    void EndObject();
    void DrawObject(const std::string& sName);

    float TextWidth(const std::string& sText, std::int32_t nFontId, float nSize);

    void InitPdfFile();

    // Sum of the /P rights bits for the arguments that are true; canModify is
    // accepted and has no effect (pass PdfRightCanModify yourself).
    static std::int32_t PdfCreateRights(bool bCanPrint, bool bCanModify, bool bCanCopy,
                                        bool bCanAddNotes, bool bCanFillFields, bool bCanCopyAccess,
                                        bool bCanAssemble, bool bCanPrintFull);

    // Number text of the file: at most nDecimals decimals, round half to even,
    // no trailing zeros, "." whatever the locale.
    static std::string FormatNumber(double nValue, std::int32_t nDecimals = 3);
    // Exactly nDecimals decimals ("100.00"), "." whatever the locale.
    static std::string FormatFixed(double nValue, std::int32_t nDecimals = 2);
    // "\" "(" ")" escaped.
    static std::string EscapeStringPlain(const std::string& sText);
    // As EscapeStringPlain, and CR, LF written as "\r", "\n".
    static std::string EscapeString(const std::string& sText);
    // The name of an installed font matching sName (case and blanks ignored).
    static bool FindInstalledFont(const std::string& sName, std::string& sInstalledName,
                                  FontService& oFonts = SystemFontService());
    // Measures an installed font (em of 1000). False if it cannot be read.
    static bool ReadFontMetrics(const std::string& sInstalledName, bool bBold, bool bItalic,
                                bool bUnderline, PdfFontRecord& oRecord,
                                FontService& oFonts = SystemFontService());
    // The font record of a face's metrics: the name with its style words, the
    // code range, the missing width and the descriptor values.
    static PdfFontRecord MakeFontRecord(const std::string& sInstalledName, bool bBold, bool bItalic,
                                        const FontMetrics& oMetrics);
    // Deflates with zlib compress2; false on failure.
    static bool CompressBytes(const std::string& sSource, std::string& sDestination,
                              std::int32_t nLevel);

  private:
    bool OpenDocument(StreamPtr oStream, const std::string& sNewPath, const PdfDocumentInfo& oInfo);
    void ResetDocument();
    std::int32_t BeginObject(std::int32_t nNumber);
    void WriteEndObj();
    void WriteLine(const std::string& sText);
    void WriteBytesLine(const std::string& sBytes);
    void WriteRaw(const std::string& sBytes);
    std::int64_t FilePosition() const;
    void AppendContent(const std::string& sText);
    void EnsurePage();
    void PaintPath(std::int32_t nStyle);
    void AutoDrawObjects();
    std::string PrepareString(const std::string& sText, std::int32_t nObject, bool bEscape);
    std::string EncryptFor(std::int32_t nObject, const std::string& sBytes);
    void ComputeEncryptionValues(std::int32_t nRights, std::int32_t nMode,
                                 std::string sOwnerPassword, const std::string& sUserPassword);
    std::string ObjectKey(std::int32_t nObject) const;
    void MakeXmpText(const std::string& sDate);
    bool WriteImageObject(const std::string& sName, const std::string& sData,
                          const std::string& sPalette, std::int32_t nWidth, std::int32_t nHeight,
                          std::int32_t nBitsPerPixel, std::int32_t nStride,
                          std::int32_t nFilterMode);
    bool CompressCcittG4(const std::string& sSource, std::string& sDestination, std::int32_t nWidth,
                         std::int32_t nHeight, std::int32_t nStride);

    bool bPdfHeaderDone = false;
    bool bCompressData = true;
    bool bZlibAvailable = true;
    std::int32_t nCompressorChoice = 1;
    bool bPdfA = false;
    std::int32_t nOrientation = 0;
    std::int32_t hFile = 0;
    StreamPtr oStream;
    std::unique_ptr<SafeFile> pOutput; // the file of a document begun with a path
    std::int64_t nPosition = 0;        // offset in the output of the next byte
    bool bWriteFailed = false;
    std::optional<PdfFixedIdentity> oFixedIdentity;
    PdfImageSource* pImageSource = nullptr;
    FontService* pFonts = &SystemFontService();
    std::int32_t nPaperSize = 0;
    float nPaperWidth = 595.2f;
    float nPaperHeight = 842.0f;
    float nCurrentWidth = 0;
    float nCurrentHeight = 0;
    std::int32_t nPages = 0;
    float nMargin = 0;
    float nCurrentMargin = 0;
    std::string sPath;
    float nCharSpacing = 0;
    float nWordSpacing = 0;
    float nHorizontalScaling = 100;
    std::int32_t nCompressLevel = 9;
    std::int32_t nJpegQuality = 75;
    std::int32_t nLastObject = 0;
    std::string sKids;
    std::string sFontResources;
    std::string sFontLookup;
    std::string sImageResources;
    std::string sFormResources;
    std::string sPageContent;
    std::int16_t nFormCount = 0;
    std::int32_t nFontCount = 0;
    std::int64_t nFormStreamStart = 0;
    bool bPageOpen = false;
    std::string sFileIdA;
    std::string sFileIdB;
    std::int32_t nEncryptionMode = 0;
    std::string sOwnerPassword;
    std::string sUserPassword;
    std::int32_t nRights = -1;
    std::string sFileKey;
    std::string sO;
    std::string sU;
    std::string sP;
    std::int32_t nEncryptObject = 0;
    std::vector<std::string> arXref;
    std::vector<PdfImageRecord> arImages;
    std::vector<PdfFontRecord> arFonts;
    std::vector<PdfFormRecord> arForms;
    std::string sXMP;
    std::string sTitle, sAuthor, sSubject, sKeywords, sCreator;
    // UTF-8 forms of the document information, for the PDF/A metadata text.
    std::string sTitleUtf8, sAuthorUtf8, sSubjectUtf8, sKeywordsUtf8, sCreatorUtf8;
    // The form being recorded: its object number and, in an encrypted file,
    // the keystream of its object key.
    std::int32_t nOpenForm = 0;
    std::unique_ptr<cRc4> pFormCipher;
};

// The producer text of every file ("Kestrelyn ActiveX ... - <web address>").
extern const char* const kPdfProducer;

} // namespace kestrelyn
