// cImaging: object life, engine start and stop per thread, the facts snapshot
// that lets an edit keep resolutions and tags, the frame of an edit of the
// native image, the option operations and the small utilities.
#include "imaging/cImaging.h"
#include "pdf/cPDF.h"

#include <cmath>
#include <cstdio>
#include <exception>
#include <fstream>
#include <mutex>
#include <new>

#include "core/EngineState.h"
#include "core/modMain.h"
#include "platform/modGdi32.h"
#include "platform/modWinapi.h"

namespace kestrelyn {

// ---------------------------------------------------------------------------
// Object life.

cImaging::cImaging() {
    StartEngine();
}

cImaging::~cImaging() {
    try {
        StopEngine();
    } catch (...) {
    }
}

// ---------------------------------------------------------------------------
// Facts snapshot.

void cImaging::CaptureImageFacts(std::int32_t nImageID) {
    GpImage* img = ResolveGdiPlusImage(TargetImage(nImageID));
    GdipImageForceValidation(img);
    UINT w = 0, h = 0;
    float dpiX = 0, dpiY = 0;
    PixelFormat fmt = 0;
    GdipGetImageWidth(img, &w);
    GdipGetImageHeight(img, &h);
    GdipGetImageVerticalResolution(img, &dpiY);
    GdipGetImageHorizontalResolution(img, &dpiX);
    GdipGetImagePixelFormat(img, &fmt);
    nLastWidth = static_cast<std::int32_t>(w);
    nLastHeight = static_cast<std::int32_t>(h);
    nLastVerticalResolution = dpiY;
    nLastHorizontalResolution = dpiX;
    nLastPixelFormat = fmt;

    arPropertyItems.clear();
    nPropertyItemCount = 0;
    if (!bPreserveTags || !img) return;
    UINT count = 0;
    if (GdipGetPropertyCount(img, &count) != OK || count == 0) return;
    std::vector<PROPID> ids(count);
    if (GdipGetPropertyIdList(img, count, ids.data()) != OK) return;
    for (PROPID id : ids) {
        UINT size = 0;
        if (GdipGetPropertyItemSize(img, id, &size) != OK || size < sizeof(PropertyItem)) continue;
        std::vector<std::uint8_t> buffer(size);
        auto* item = reinterpret_cast<PropertyItem*>(buffer.data());
        if (GdipGetPropertyItem(img, id, size, item) != OK) continue;
        cGDIPPropertyItem copy;
        copy.nID = item->id;
        copy.nType = item->type;
        if (item->value && item->length > 0) {
            const auto* bytes = static_cast<const std::uint8_t*>(item->value);
            copy.arValue.assign(bytes, bytes + item->length);
        }
        arPropertyItems.push_back(std::move(copy));
    }
    nPropertyItemCount = static_cast<std::int32_t>(arPropertyItems.size());
}

void cImaging::RestoreImageFacts(std::int32_t nNewImageID, bool bSkipProfile) {
    const std::int32_t id = TargetImage(nNewImageID);
    GpImage* img = ResolveGdiPlusImage(id);
    if (img) {
        float dpiX = 0, dpiY = 0;
        GdipGetImageHorizontalResolution(img, &dpiX);
        GdipGetImageVerticalResolution(img, &dpiY);
        if (dpiX != nLastHorizontalResolution || dpiY != nLastVerticalResolution)
            SetResolution(id, nLastHorizontalResolution, nLastVerticalResolution, true);
        if (bPreserveTags) {
            for (const cGDIPPropertyItem& item : arPropertyItems) {
                if (bSkipProfile && item.nID == 34675) continue;
                // A tag that cannot be written is passed over.
                PropertyItem record{};
                record.id = item.nID;
                record.type = item.nType;
                record.length = static_cast<std::uint32_t>(item.arValue.size());
                record.value = const_cast<std::uint8_t*>(item.arValue.data());
                GdipSetPropertyItem(img, &record);
            }
        }
    }
    arPropertyItems.clear();
    nPropertyItemCount = 0;
}

// ---------------------------------------------------------------------------
// The frame of an edit of the native image.

void cImaging::CommitNativeImage(std::int32_t nNewImageID) {
    nNativeImage = ReplaceImage(nNativeImage, nNewImageID);
}

KestrelynStatus cImaging::EditNativeImage(const MakeImageFn& fnMake, bool bSkipProfile) {
    if (nNativeImage == 0) {
        nStatus = GenericError;
        return nStatus;
    }
    CaptureImageFacts(0);
    std::int32_t nNewImage = 0;
    nStatus = fnMake(nNativeImage, nNewImage);
    if (nStatus != OK || nNewImage == 0) {
        if (nNewImage != 0) ReleaseImage(nNewImage);
        if (nStatus == OK) nStatus = GenericError;
        arPropertyItems.clear();
        nPropertyItemCount = 0;
        return nStatus;
    }
    RestoreImageFacts(nNewImage, bSkipProfile);
    CommitNativeImage(nNewImage);
    return nStatus;
}

KestrelynStatus cImaging::EditNativeEngineImage(const MakeEngineImageFn& fnMake,
                                                bool bSkipProfile) {
    return EditNativeImage(
        [&](std::int32_t nSourceID, std::int32_t& nNewImageID) -> KestrelynStatus {
            GpImage* source = ResolveGdiPlusImage(nSourceID);
            if (!source) return InvalidParameter;
            GpImage* result = nullptr;
            const KestrelynStatus status = fnMake(source, result);
            if (status != OK) {
                if (result) GdipDisposeImage(result);
                return status;
            }
            if (!result) return GenericError;
            RegisterImage(nNewImageID, result, "", "", KindEngine);
            return OK;
        },
        bSkipProfile);
}

} // namespace kestrelyn
