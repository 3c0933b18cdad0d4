// The PDF operations of cImaging: whole files from the native image or from a
// multi-page image in one call (plain and PDF/A), and the application-built
// document with its units, colour cache and drawing operations.
#include <cmath>
#include <memory>

#include "core/ImageLoader.h"
#include "core/modMain.h"
#include "imaging/PdfImageSource.h"
#include "imaging/cImaging.h"
#include "multipage/MultiPageDocuments.h"
#include "pdf/cPDF.h"

namespace kestrelyn {

namespace {

// Points of a whole-page image side: pixels / dpi * 72. An image without a
// resolution is taken at 72 dpi, one point per pixel.
float PagePoints(double nPixels, double nDpi) {
    return static_cast<float>(nDpi > 0 ? nPixels / nDpi * 72.0 : nPixels);
}

// A writer with the object's stored settings, as every whole-file operation
// starts one.
std::unique_ptr<cPDF> MakeWriter(const cImaging& self, bool bPdfA) {
    auto oPdf = std::make_unique<cPDF>();
    oPdf->ImageSource(&RegistryPdfImageSource());
    oPdf->Orientation(0);
    oPdf->JpegQuality(self.nPdfJpegQuality);
    oPdf->CompressLevel(self.nPdfCompressionLevel);
    oPdf->PdfA(bPdfA);
    return oPdf;
}

// The document information of the Ex forms, in their argument order.
PdfDocumentInfo MakeInfo(const std::string& sTitle, const std::string& sAuthor,
                         const std::string& sSubject, const std::string& sKeywords,
                         const std::string& sCreator, PdfEncryption nEncryption,
                         std::int32_t nRights, const std::string& sUserPassword,
                         const std::string& sOwnerPassword) {
    PdfDocumentInfo oInfo;
    oInfo.sTitle = sTitle;
    oInfo.sAuthor = sAuthor;
    oInfo.sCreator = sCreator;
    oInfo.sKeywords = sKeywords;
    oInfo.sSubject = sSubject;
    oInfo.nEncryption = nEncryption;
    oInfo.nRights = nRights;
    oInfo.sUserPassword = sUserPassword;
    oInfo.sOwnerPassword = sOwnerPassword;
    return oInfo;
}

// One page per page of a multi-page image: all images first, then the pages.
KestrelynStatus CreateFromMultiPage(cImaging& self, std::int32_t nImageID,
                                    const std::string& sFilePath, const PdfDocumentInfo& oInfo,
                                    bool bPdfA) {
    const ImageRecord* pRecord = nImageID != 0 ? FindImageRecord(nImageID) : nullptr;
    if (!pRecord) return InvalidParameter;
    if (!pRecord->bMultiPageTiff && !pRecord->bMultiPageGif) return UnsupportedImageFormat;
    const DocumentFormat eFormat = DocumentFormatOf(*pRecord);
    const std::int32_t nPages = pRecord->nPageCount;

    std::unique_ptr<cPDF> oPdf = MakeWriter(self, bPdfA);
    if (!oPdf->NewPdf(NormaliseFilePath(sFilePath), oInfo)) return CanNotCreateFile;
    oPdf->CompressData(true);
    KestrelynStatus nResult = OK;
    for (std::int32_t nPage = 0; nPage < nPages; ++nPage) {
        if (SwitchPage(nImageID, nPage, eFormat) != OK || oPdf->PdfAddImage(nImageID) == 0) {
            nResult = PdfErrorAddingImage;
            break;
        }
    }
    for (std::int32_t i = 1; i <= oPdf->ImageCount(); ++i) {
        oPdf->PaperWidth(PagePoints(oPdf->ImageWidth(i), oPdf->ImageResX(i)));
        oPdf->PaperHeight(PagePoints(oPdf->ImageHeight(i), oPdf->ImageResY(i)));
        oPdf->BeginPage();
        oPdf->DrawImg(i, 0, 0, oPdf->PaperWidth(), oPdf->PaperHeight());
        oPdf->EndPage();
    }
    oPdf->ClosePdfFile();
    // A document whose writing failed was not put in place.
    if (nResult == OK && oPdf->WriteFailed()) nResult = CanNotCreateFile;
    return nResult;
}

// The native image on a page of its own size.
bool SaveNativeImageAsPdf(cImaging& self, const std::string& sFilePath,
                          const PdfDocumentInfo& oInfo, bool bPdfA) {
    if (self.nNativeImage == 0) {
        self.nStatus = GenericError;
        return false;
    }
    if (const ImageRecord* pRecord = FindImageRecord(self.nNativeImage)) {
        if ((pRecord->bMultiPageTiff || pRecord->bMultiPageGif) && pRecord->nPageCount > 1) {
            self.nStatus = CreateFromMultiPage(self, self.nNativeImage, sFilePath, oInfo, bPdfA);
            return self.nStatus == OK;
        }
    }
    GpImage* pImage = ResolveGdiPlusImage(self.nNativeImage);
    UINT nW = 0, nH = 0;
    float nResX = 0, nResY = 0;
    if (!pImage || GdipGetImageWidth(pImage, &nW) != OK || GdipGetImageHeight(pImage, &nH) != OK) {
        self.nStatus = InvalidParameter;
        return false;
    }
    GdipGetImageHorizontalResolution(pImage, &nResX);
    GdipGetImageVerticalResolution(pImage, &nResY);
    const float nWidth = PagePoints(nW, nResX);
    const float nHeight = PagePoints(nH, nResY);

    std::unique_ptr<cPDF> oPdf = MakeWriter(self, bPdfA);
    oPdf->PaperHeight(nHeight);
    oPdf->PaperWidth(nWidth);
    if (!oPdf->NewPdf(NormaliseFilePath(sFilePath), oInfo)) {
        self.nStatus = CanNotCreateFile;
        return false;
    }
    const std::int32_t nImage = oPdf->PdfAddImage(self.nNativeImage);
    if (nImage > 0) {
        oPdf->BeginPage();
        oPdf->DrawImg(1, 0, 0, nWidth, nHeight);
        oPdf->EndPage();
    }
    oPdf->ClosePdfFile();
    self.nStatus = nImage <= 0           ? PdfErrorAddingImage
                   : oPdf->WriteFailed() ? CanNotCreateFile // the file was not put in place
                                         : OK;
    return self.nStatus == OK;
}

const std::string kEmpty;

} // namespace

// ---------------------------------------------------------------------------
// Whole files.

bool cImaging::SaveAsPDF(const std::string& sFilePath, const std::string& sTitle,
                         const std::string& sCreator, const std::string& sAuthor,
                         const std::string& /*sProducer*/) {
    return SaveAsPDFEx(sFilePath, sTitle, sAuthor, kEmpty, kEmpty, sCreator, PdfEncryptionNone,
                       PdfRightUndefined, kEmpty, kEmpty);
}

bool cImaging::SaveAsPDFEx(const std::string& sFilePath, const std::string& sTitle,
                           const std::string& sAuthor, const std::string& sSubject,
                           const std::string& sKeywords, const std::string& sCreator,
                           PdfEncryption nEncryption, std::int32_t nRights,
                           const std::string& sUserPassword, const std::string& sOwnerPassword) {
    const PdfDocumentInfo oInfo = MakeInfo(sTitle, sAuthor, sSubject, sKeywords, sCreator,
                                           nEncryption, nRights, sUserPassword, sOwnerPassword);
    return SaveNativeImageAsPdf(*this, sFilePath, oInfo, false);
}

bool cImaging::SaveAsPDFA(const std::string& sFilePath, const std::string& sTitle,
                          const std::string& sCreator, const std::string& sAuthor,
                          const std::string& /*sProducer*/) {
    return SaveAsPDFAEx(sFilePath, sTitle, sAuthor, kEmpty, kEmpty, sCreator);
}

bool cImaging::SaveAsPDFAEx(const std::string& sFilePath, const std::string& sTitle,
                            const std::string& sAuthor, const std::string& sSubject,
                            const std::string& sKeywords, const std::string& sCreator) {
    const PdfDocumentInfo oInfo = MakeInfo(sTitle, sAuthor, sSubject, sKeywords, sCreator,
                                           PdfEncryptionNone, PdfRightUndefined, kEmpty, kEmpty);
    return SaveNativeImageAsPdf(*this, sFilePath, oInfo, true);
}

KestrelynStatus
cImaging::PdfCreateFromMultipageTIFF(std::int32_t nImageID, const std::string& sFilePath,
                                     const std::string& sTitle, const std::string& sCreator,
                                     const std::string& sAuthor, const std::string& /*sProducer*/) {
    return PdfCreateFromMultipageTIFFEx(nImageID, sFilePath, sTitle, sAuthor, kEmpty, kEmpty,
                                        sCreator, PdfEncryptionNone, PdfRightUndefined, kEmpty,
                                        kEmpty);
}

KestrelynStatus cImaging::PdfCreateFromMultipageTIFFEx(
    std::int32_t nImageID, const std::string& sFilePath, const std::string& sTitle,
    const std::string& sAuthor, const std::string& sSubject, const std::string& sKeywords,
    const std::string& sCreator, PdfEncryption nEncryption, std::int32_t nRights,
    const std::string& sUserPassword, const std::string& sOwnerPassword) {
    const PdfDocumentInfo oInfo = MakeInfo(sTitle, sAuthor, sSubject, sKeywords, sCreator,
                                           nEncryption, nRights, sUserPassword, sOwnerPassword);
    nStatus = CreateFromMultiPage(*this, nImageID, sFilePath, oInfo, false);
    return nStatus;
}

KestrelynStatus cImaging::PdfACreateFromMultipageTIFF(
    std::int32_t nImageID, const std::string& sFilePath, const std::string& sTitle,
    const std::string& sCreator, const std::string& sAuthor, const std::string& /*sProducer*/) {
    return PdfACreateFromMultipageTIFFEx(nImageID, sFilePath, sTitle, sAuthor, kEmpty, kEmpty,
                                         sCreator);
}

KestrelynStatus
cImaging::PdfACreateFromMultipageTIFFEx(std::int32_t nImageID, const std::string& sFilePath,
                                        const std::string& sTitle, const std::string& sAuthor,
                                        const std::string& sSubject, const std::string& sKeywords,
                                        const std::string& sCreator) {
    const PdfDocumentInfo oInfo = MakeInfo(sTitle, sAuthor, sSubject, sKeywords, sCreator,
                                           PdfEncryptionNone, PdfRightUndefined, kEmpty, kEmpty);
    nStatus = CreateFromMultiPage(*this, nImageID, sFilePath, oInfo, true);
    return nStatus;
}

std::int32_t cImaging::PdfCreateRights(bool bCanPrint, bool bCanModify, bool bCanCopy,
                                       bool bCanAddNotes, bool bCanFillFields, bool bCanCopyAccess,
                                       bool bCanAssemble, bool bCanPrintFull) {
    return cPDF::PdfCreateRights(bCanPrint, bCanModify, bCanCopy, bCanAddNotes, bCanFillFields,
                                 bCanCopyAccess, bCanAssemble, bCanPrintFull);
}

// ---------------------------------------------------------------------------
// Settings.

bool cImaging::PdfSetCompressionLevel(std::int32_t nLevel) {
    // The level checked is the one stored before the call: a bad level is
    // taken once, and every later call is then refused.
    if (nPdfCompressionLevel < 0 || nPdfCompressionLevel > 9) return false;
    nPdfCompressionLevel = nLevel;
    if (oPdf) oPdf->CompressLevel(nLevel);
    return true;
}

std::int32_t cImaging::PdfGetCompressionLevel() {
    return nPdfCompressionLevel;
}

bool cImaging::PdfSetJpegQuality(std::int32_t nQuality) {
    if (nQuality < 0 || nQuality > 100) return false;
    nPdfJpegQuality = nQuality;
    if (oPdf) oPdf->JpegQuality(nQuality);
    return true;
}

std::int32_t cImaging::PdfGetJpegQuality() {
    return nPdfJpegQuality;
}

// ---------------------------------------------------------------------------
// The application-built document.

namespace {

bool IsOpen(const cImaging& self) {
    return self.oPdf && self.oPdf->PdfGetNativePdf() != 0;
}

float UnitsToPoints(const cImaging& self, float v) {
    switch (self.nPdfUnit) {
    case 1:
        return v * (72.0f / 25.4f);
    case 2:
        return v * (72.0f / 2.54f);
    case 3:
        return v * 72.0f;
    default:
        return v;
    }
}

float PointsToUnits(const cImaging& self, float v) {
    switch (self.nPdfUnit) {
    case 1:
        return v / (72.0f / 25.4f);
    case 2:
        return v / (72.0f / 2.54f);
    case 3:
        return v / 72.0f;
    default:
        return v;
    }
}

// An image side of nPixels at nDpi in the current unit; 0 without a resolution.
float PixelsToUnits(const cImaging& self, std::int32_t nPixels, std::int32_t nDpi) {
    if (nDpi < 1) return 0;
    const float nInches = static_cast<float>(nPixels) / static_cast<float>(nDpi);
    switch (self.nPdfUnit) {
    case 1:
        return nInches * 25.4f;
    case 2:
        return nInches * 2.54f;
    case 3:
        return nInches;
    default:
        return static_cast<float>(nPixels) / (static_cast<float>(nDpi) / 72.0f);
    }
}

void StrokeColour(cImaging& self, std::int32_t nColour) {
    if (nColour == self.nPdfLastStrokeColor) return;
    self.oPdf->SetColorStroke(nColour);
    self.nPdfLastStrokeColor = nColour;
}

void FillColour(cImaging& self, std::int32_t nColour) {
    if (nColour == self.nPdfLastFillColor) return;
    self.oPdf->SetColorFill(nColour);
    self.nPdfLastFillColor = nColour;
}

void LineWidth(cImaging& self, float nWidth) {
    self.oPdf->SetLineWidth(nWidth);
    self.nPdfLastLineWidth = nWidth;
}

} // namespace

bool cImaging::PdfNewPdf(const std::string& sFilePath, const std::string& sTitle,
                         const std::string& sCreator, const std::string& sAuthor,
                         const std::string& /*sProducer*/) {
    return PdfNewPdfEx(sFilePath, sTitle, sAuthor, kEmpty, kEmpty, sCreator, PdfEncryptionNone,
                       PdfRightUndefined, kEmpty, kEmpty);
}

bool cImaging::PdfNewPdfEx(const std::string& sFilePath, const std::string& sTitle,
                           const std::string& sAuthor, const std::string& sSubject,
                           const std::string& sKeywords, const std::string& sCreator,
                           PdfEncryption nEncryption, std::int32_t nRights,
                           const std::string& sUserPassword, const std::string& sOwnerPassword) {
    oPdf.reset();
    oPdf = std::make_unique<cPDF>();
    oPdf->ImageSource(&RegistryPdfImageSource());
    oPdf->PaperSize(0);
    oPdf->Orientation(0);
    oPdf->JpegQuality(nPdfJpegQuality);
    oPdf->CompressLevel(nPdfCompressionLevel);
    // A new document starts with nothing sent.
    nPdfLastFillColor = 0;
    nPdfLastStrokeColor = 0;
    nPdfLastLineWidth = 0;
    if (!oPdf->NewPdf(NormaliseFilePath(sFilePath),
                      MakeInfo(sTitle, sAuthor, sSubject, sKeywords, sCreator, nEncryption, nRights,
                               sUserPassword, sOwnerPassword))) {
        oPdf.reset();
        nStatus = CanNotCreateFile;
        return false;
    }
    nStatus = OK;
    return true;
}

bool cImaging::PdfSetMetadata(const std::string& sXMP) {
    if (!IsOpen(*this) || oPdf->PdfHeaderDone()) return false;
    oPdf->XMP(sXMP);
    return true;
}

bool cImaging::PdfSavePdf() {
    if (!IsOpen(*this)) return false;
    oPdf->ClosePdfFile();
    // The answer tells only whether a document was open; a document whose
    // writing failed is not put in place and the status tells it.
    if (oPdf->WriteFailed()) nStatus = CanNotCreateFile;
    oPdf.reset();
    return true;
}

std::int32_t cImaging::PdfNewPage() {
    if (!IsOpen(*this)) return 0;
    const std::int32_t nPage = oPdf->BeginPage();
    nPdfLastLineWidth = 0;
    return nPage;
}

void cImaging::PdfEndPage() {
    if (IsOpen(*this)) oPdf->EndPage();
}

std::int32_t cImaging::PdfGetCurrentPage() {
    return IsOpen(*this) ? oPdf->Pages() : 0;
}

void cImaging::PdfSetMeasurementUnits(std::int32_t nUnit) {
    if (nUnit >= 0 && nUnit <= 3) nPdfUnit = nUnit;
}

void cImaging::PdfSetPageDimensions(float nWidth, float nHeight) {
    if (!IsOpen(*this)) return;
    oPdf->PaperSize(255);
    oPdf->PaperHeight(UnitsToPoints(*this, nHeight));
    oPdf->PaperWidth(UnitsToPoints(*this, nWidth));
}

void cImaging::PdfSetPageMargin(float nMargin) {
    if (IsOpen(*this)) oPdf->Margin(UnitsToPoints(*this, nMargin));
}

float cImaging::PdfGetPageMargin() {
    return IsOpen(*this) ? PointsToUnits(*this, oPdf->Margin()) : 0;
}

void cImaging::PdfSetPageOrientation(std::int32_t nOrientation) {
    if (IsOpen(*this) && (nOrientation == 0 || nOrientation == 1)) oPdf->Orientation(nOrientation);
}

std::int32_t cImaging::PdfGetPageOrientation() {
    return IsOpen(*this) ? oPdf->Orientation() : 0;
}

std::int32_t cImaging::PdfAddFont(const std::string& sFontName, bool bBold, bool bItalic) {
    return IsOpen(*this) ? oPdf->LoadFont(sFontName, bBold, bItalic) : 0;
}

float cImaging::PdfGetTextWidth(const std::string& sText, std::int32_t nFontId, float nFontSize) {
    if (!IsOpen(*this)) return 0;
    return PointsToUnits(*this, oPdf->TextWidth(sText, nFontId, nFontSize));
}

std::int32_t cImaging::PdfAddImageFromFile(const std::string& sFilePath) {
    return IsOpen(*this) ? oPdf->PdfAddImage(sFilePath) : 0;
}

std::int32_t cImaging::PdfAddImageFromKestrelynImage(std::int32_t nImageID) {
    return IsOpen(*this) ? oPdf->PdfAddImage(nImageID) : 0;
}

void cImaging::PdfDrawImage(std::int32_t nImage, float nLeft, float nTop, float nWidth,
                            float nHeight) {
    if (!IsOpen(*this)) return;
    oPdf->DrawImg(nImage, UnitsToPoints(*this, nLeft), UnitsToPoints(*this, nTop),
                  UnitsToPoints(*this, nWidth), UnitsToPoints(*this, nHeight));
}

float cImaging::PdfGetImageWidth(std::int32_t nImage) {
    if (!IsOpen(*this)) return 0;
    return PixelsToUnits(*this, oPdf->ImageWidth(nImage), oPdf->ImageResX(nImage));
}

float cImaging::PdfGetImageHeight(std::int32_t nImage) {
    if (!IsOpen(*this)) return 0;
    return PixelsToUnits(*this, oPdf->ImageHeight(nImage), oPdf->ImageResY(nImage));
}

void cImaging::PdfDrawLine(float nX1, float nY1, float nX2, float nY2, float nBorderWidth,
                           std::int32_t nRGBColor) {
    if (!IsOpen(*this)) return;
    StrokeColour(*this, nRGBColor);
    if (nBorderWidth != nPdfLastLineWidth) LineWidth(*this, nBorderWidth);
    oPdf->MoveTo(UnitsToPoints(*this, nX1), UnitsToPoints(*this, nY1));
    oPdf->LineTo(UnitsToPoints(*this, nX2), UnitsToPoints(*this, nY2), 1);
}

void cImaging::PdfDrawCurve(float nX1, float nY1, float nX2, float nY2, float nX3, float nY3,
                            float nBorderWidth, std::int32_t nRGBColor) {
    if (!IsOpen(*this)) return;
    StrokeColour(*this, nRGBColor);
    LineWidth(*this, nBorderWidth);
    // The start point goes unconverted and is also the first control point.
    oPdf->MoveTo(nX1, nY1);
    oPdf->Curve(UnitsToPoints(*this, nX1), UnitsToPoints(*this, nY1), UnitsToPoints(*this, nX2),
                UnitsToPoints(*this, nY2), UnitsToPoints(*this, nX3), UnitsToPoints(*this, nY3), 1);
}

void cImaging::PdfDrawRectangle(float nLeft, float nTop, float nWidth, float nHeight,
                                float nBorderWidth, std::int32_t nRGBColor, float nRay) {
    if (!IsOpen(*this)) return;
    StrokeColour(*this, nRGBColor);
    LineWidth(*this, nBorderWidth);
    oPdf->Rectangle(UnitsToPoints(*this, nLeft), UnitsToPoints(*this, nTop),
                    UnitsToPoints(*this, nWidth), UnitsToPoints(*this, nHeight), 1,
                    UnitsToPoints(*this, nRay));
}

void cImaging::PdfDrawFillRectangle(float nLeft, float nTop, float nWidth, float nHeight,
                                    float nBorderWidth, std::int32_t nRGBColor, float nRay) {
    if (!IsOpen(*this)) return;
    FillColour(*this, nRGBColor);
    LineWidth(*this, nBorderWidth);
    oPdf->Rectangle(UnitsToPoints(*this, nLeft), UnitsToPoints(*this, nTop),
                    UnitsToPoints(*this, nWidth), UnitsToPoints(*this, nHeight), 4,
                    UnitsToPoints(*this, nRay));
}

void cImaging::PdfDrawCircle(float nX, float nY, float nRay, float nBorderWidth,
                             std::int32_t nRGBColor) {
    if (!IsOpen(*this)) return;
    StrokeColour(*this, nRGBColor);
    LineWidth(*this, nBorderWidth);
    oPdf->DrawCircle(UnitsToPoints(*this, nX), UnitsToPoints(*this, nY), UnitsToPoints(*this, nRay),
                     1);
}

void cImaging::PdfDrawFillCircle(float nX, float nY, float nRay, float nBorderWidth,
                                 std::int32_t nRGBColor) {
    if (!IsOpen(*this)) return;
    FillColour(*this, nRGBColor);
    LineWidth(*this, nBorderWidth);
    oPdf->DrawCircle(UnitsToPoints(*this, nX), UnitsToPoints(*this, nY), UnitsToPoints(*this, nRay),
                     4);
}

void cImaging::PdfDrawArc(float nX, float nY, float nRay, float nBorderWidth, float nStartAngle,
                          float nEndAngle, float nRatio, bool bPie, std::int32_t nRGBColor) {
    if (!IsOpen(*this)) return;
    StrokeColour(*this, nRGBColor);
    LineWidth(*this, nBorderWidth);
    oPdf->Arc(UnitsToPoints(*this, nX), UnitsToPoints(*this, nY), UnitsToPoints(*this, nRay),
              nStartAngle, nEndAngle, nRatio, bPie, 0, 1, 1);
}

void cImaging::PdfDrawText(float nX, float nY, const std::string& sText, std::int32_t nFontId,
                           float nFontSize, float nRotation) {
    if (!IsOpen(*this)) return;
    FillColour(*this, nPdfTextColor);
    oPdf->DrawText(UnitsToPoints(*this, nX), UnitsToPoints(*this, nY), sText, nFontId, nFontSize, 0,
                   nRotation);
}

void cImaging::PdfDrawTextAlign(float nX, float nY, const std::string& sText, std::int32_t nFontId,
                                float nFontSize, std::int32_t nAlign) {
    if (!IsOpen(*this)) return;
    FillColour(*this, nPdfTextColor);
    oPdf->DrawText(UnitsToPoints(*this, nX), UnitsToPoints(*this, nY), sText, nFontId, nFontSize,
                   nAlign, 0);
}

void cImaging::PdfSetTextColor(std::int32_t nRGBColor) {
    nPdfTextColor = nRGBColor;
}

void cImaging::PdfSetLineDash(float nDashOn, float nDashOff) {
    if (IsOpen(*this)) oPdf->SetDash(nDashOn, nDashOff);
}

void cImaging::PdfSetLineJoin(std::int32_t nLineJoin) {
    if (IsOpen(*this)) oPdf->SetLineJoin(nLineJoin);
}

void cImaging::PdfSetLineCap(std::int32_t nLineCap) {
    if (IsOpen(*this)) oPdf->SetLineCap(nLineCap);
}

void cImaging::PdfSetTextMode(std::int32_t nTextMode) {
    if (IsOpen(*this)) oPdf->SetTextMode(nTextMode);
}

void cImaging::PdfSetCharSpacing(float nCharSpacing) {
    if (IsOpen(*this)) oPdf->SetCharSpacing(nCharSpacing);
}

void cImaging::PdfSetWordSpacing(float nWordSpacing) {
    if (IsOpen(*this)) oPdf->SetWordSpacing(nWordSpacing);
}

void cImaging::PdfSetTextHorizontalScaling(float nScaling) {
    if (IsOpen(*this)) oPdf->SetTextHorizontalScaling(nScaling);
}

} // namespace kestrelyn
