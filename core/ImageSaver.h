// Inner saving routines shared by the Imaging save operations, the
// multi-page store, the GIF pages and the PDF image path.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kestrelyn/KestrelynStatus.h"
#include "kestrelyn/Types.h"
#include "platform/modGdiPlus.h"

namespace kestrelyn {

// The engine's encoders of the calling thread, read at engine start.
struct EncoderTable {
    std::vector<GUID> arEncoderClsids;
    std::int32_t nEncoderCount = 0;
    // Upper-cased extension pattern ("*.JPG") -> index into arEncoderClsids.
    std::vector<std::pair<std::string, std::int32_t>> oEncoderByExtension;
};
EncoderTable& ThreadEncoderTable();
// Reads the engine's encoders into the table; throws when the engine fails.
void BuildEncoderTable();
// The index of the encoder for a pattern such as "*.png" (any case), -1 if none.
std::int32_t FindEncoder(const std::string& sPattern);
// The class id of a pattern's encoder; false when there is none.
bool FindEncoderClsid(const std::string& sPattern, GUID& clsid);

// Encoder parameters of one 32-bit long value each, laid out for the engine.
class EncoderParamList {
  public:
    void Add(const GUID& category, std::uint32_t nValue);
    bool Empty() const { return arValues.empty(); }
    // nullptr when empty. Valid until the list changes.
    const EncoderParameters* Get();

  private:
    std::vector<GUID> arCategories;
    std::vector<std::uint32_t> arValues;
    std::vector<std::uint8_t> arBuffer;
};

// Writes both resolutions on an image: tags 282 and 283 and the engine's
// values. Nothing is marked modified. Unknown id: 2.
KestrelynStatus WriteImageResolution(std::int32_t nImageID, float nX, float nY);
// Sets the two resolutions again when both are not 0.
void SyncResolution(std::int32_t nImageID);
// Raises resolutions below 0.5 and drops property 34858 (JPEG and TIFF saves).
void RepairForSave(std::int32_t nImageID);
// The TIFF compression rule: 3, 4 and 5 are only for depth 1; deeper gets 2.
std::int32_t TiffCompressionForDepth(std::int32_t nCompression, std::int32_t nDepth);
// Bits per pixel of a registry image (0 when unknown).
std::int32_t ImageDepth(std::int32_t nImageID);
// True for an 8-bit image whose palette is the 256-entry grey ramp.
bool IsGreyRampImage(std::int32_t nImageID);

// Engine save with no parameters through the encoder of sPattern.
KestrelynStatus SaveByEngine(std::int32_t nImageID, const std::string& sFilePath,
                             const std::string& sPattern);
KestrelynStatus SaveAsJpegFile(std::int32_t nImageID, const std::string& sFilePath,
                               std::int32_t nQuality, bool bDisableKyimgplug);
// The one TIFF writer for whole images and pages (nDepth 0: the image's own).
KestrelynStatus SaveAsTiffFile(std::int32_t nImageID, const std::string& sFilePath,
                               std::int32_t nCompression, std::int32_t nDepth);
// Writes an image to a new stream through the encoder of a format name;
// an unknown format writes BMP.
KestrelynStatus SaveToStream(std::int32_t nImageID, StreamPtr& oStream,
                             const std::string& sImageFormat, std::int32_t nEncoderParameter);

// Multi-frame TIFF: the first page opens the file, further pages are added,
// FinishMultiPageTiff completes it (releasing the master image also does).
KestrelynStatus BeginMultiPageTiff(std::int32_t nImageID, const std::string& sFilePath,
                                   std::int32_t nCompression);
KestrelynStatus AddMultiPageTiff(std::int32_t nMasterID, std::int32_t nImageID);
KestrelynStatus FinishMultiPageTiff(std::int32_t nMasterID);

// --- the codec plug-in's savers ---

// Whether a plug-in format takes an image of this pixel format and depth.
using AcceptPixelFormatFn = std::function<bool(PixelFormat nFormat, std::int32_t nDepth)>;
// The steps every plug-in save shares: presence (else 300), the image (else
// 2), its pixel format (else 7), resolution, a plug-in bitmap (as RGBF floats
// with bToFloat), the save.
KestrelynStatus SaveByPlugin(std::int32_t nImageID, const std::string& sFilePath, int nFormat,
                             const AcceptPixelFormatFn& accept, int nFlags, bool bToFloat = false);
// A 32 by 32 ARGB copy of an image: an area average when shrinking, bilinear
// when growing. Registered; its id in nNewID.
KestrelynStatus MakeIconImage(std::int32_t nImageID, std::int32_t& nNewID);

} // namespace kestrelyn
