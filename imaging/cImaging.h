// cImaging: the inner object behind Imaging. It holds the per-object state and
// implements every operation (declared from the same lists as Imaging's).
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kestrelyn/KestrelynStatus.h"
#include "kestrelyn/PdfTypes.h"
#include "kestrelyn/Types.h"
#include "platform/modGdiPlus.h"

namespace kestrelyn {

class cPDF; // the object's PDF writer, made on first use

// A tag snapshot entry: one property item of an image.
struct cGDIPPropertyItem {
    PROPID nID = 0;
    std::uint16_t nType = 0;
    std::vector<std::uint8_t> arValue;
};

class cImaging {
  public:
    cImaging();
    ~cImaging();
    cImaging(const cImaging&) = delete;
    cImaging& operator=(const cImaging&) = delete;

#define KY_DEFAULT(value)
#define KY_OP(ret, name, params, args) ret name params;
#include "kestrelyn/ops/all.inc"
#undef KY_OP
#undef KY_DEFAULT

    // --- shared inner operations used by every family ---
    // Snapshot of an image's size, resolutions, format and (with bPreserveTags)
    // tags. 0 means the native image.
    void CaptureImageFacts(std::int32_t nImageID);
    // Writes the snapshot's resolutions and tags to a new image.
    void RestoreImageFacts(std::int32_t nNewImageID, bool bSkipProfile);
    // The registry's LockBits and UnlockBits (a lock for writing marks the
    // image modified).
    KestrelynStatus LockBits(std::int32_t nImageID, const GpRect& rect, std::uint32_t nMode,
                             PixelFormat& nFormat, BitmapData& data);
    KestrelynStatus UnlockBits(std::int32_t nImageID, BitmapData& data);
    // The registry's GetGraphics, its status stored in nStatus; nullptr on failure.
    GpGraphics* GetGraphics(std::int32_t nImageID);
    // The first step of every filter member: with ROIMode 1 the ROI rectangle
    // becomes the whole native image; an explicit rectangle stays as it is
    // (not clipped). The filters then work on the ROI fields.
    void PrepareZone();
    // Makes nNewImageID the content of the native image (keeps its id).
    void CommitNativeImage(std::int32_t nNewImageID);

    // The frame of an edit of the native image: with no native image the
    // status is 1; otherwise capture the facts, let fnMake build a new image
    // from the native one and register it (its id in nNewImageID), restore the
    // facts on it and put it under the native image's id. Every step's status
    // goes to nStatus; the first failure ends the work (a registered new image
    // is then released). Returns nStatus.
    using MakeImageFn =
        std::function<KestrelynStatus(std::int32_t nSourceID, std::int32_t& nNewImageID)>;
    KestrelynStatus EditNativeImage(const MakeImageFn& fnMake, bool bSkipProfile = false);
    // The same with the work on engine images: fnMake receives the native
    // image's engine image and returns a new engine image, registered here.
    using MakeEngineImageFn = std::function<KestrelynStatus(GpImage* pSource, GpImage*& pResult)>;
    KestrelynStatus EditNativeEngineImage(const MakeEngineImageFn& fnMake,
                                          bool bSkipProfile = false);
    // The id an operation acts on: nImageID, or the native image for 0.
    std::int32_t TargetImage(std::int32_t nImageID) const {
        return nImageID != 0 ? nImageID : nNativeImage;
    }
    // Writes both resolutions (tags 282 and 283 as rationals, then the engine
    // values); unless bNoMark the image is marked modified. Unknown id: 2.
    KestrelynStatus SetResolution(std::int32_t nImageID, float nX, float nY, bool bNoMark);
    // An independent copy (own pixel buffer) of an image in nFormat (0 = its
    // own format); palette, resolutions and, with bCopyTags, tags copied.
    // Returns the new id or 0; the outcome goes to nStatus.
    std::int32_t CloneIndependent(std::int32_t nImageID, PixelFormat nFormat, bool bCopyTags);

    // --- state, in the order the object holds it ---
    std::vector<cGDIPPropertyItem> arPropertyItems;
    bool bTiffReadOnly = false;
    bool bGifReadOnly = false;
    std::int32_t nNativeImage = 0;
    std::int32_t nNativeMultiPage = 0;
    std::int32_t nPdfCompressionLevel = 9;
    std::int32_t nPdfJpegQuality = 75;
    std::int32_t nLastWidth = 0;
    std::int32_t nLastHeight = 0;
    float nLastVerticalResolution = 0;
    float nLastHorizontalResolution = 0;
    std::int32_t nLastPixelFormat = 0;
    std::int32_t nHttpBufferSize = 4096;
    bool bFtpPassive = true;
    bool bDisableKyimgplugCodecs = false;
    bool bPreserveTags = true;
    std::int32_t nPropertyItemCount = 0;
    KestrelynStatus nStatus = OK;
    std::int32_t nFontUnit = UnitPoint;
    std::int32_t ROIMode = 1;
    std::int32_t ROILeft = 0;
    std::int32_t ROITop = 0;
    std::int32_t ROIWidth = 0;
    std::int32_t ROIHeight = 0;

    // --- the application-built PDF document (PdfNewPdf ... PdfSavePdf) ---
    std::unique_ptr<cPDF> oPdf; // made by PdfNewPdf; open while PdfGetNativePdf is not 0
    std::int32_t nPdfUnit = 0;  // 0 points, 1 millimetres, 2 centimetres, 3 inches
    std::int32_t nPdfTextColor = 0;
    std::int32_t nPdfLastFillColor = 0;
    std::int32_t nPdfLastStrokeColor = 0;
    float nPdfLastLineWidth = 0;
};

} // namespace kestrelyn
