// Colour management of colour-managed loads: pixels described by an embedded
// ICC profile (property 34675) are converted to sRGB with lcms2. Palettes are
// converted entry by entry, so indexed images keep their indices.
#include <lcms2.h>

#include <cstring>
#include <memory>
#include <vector>

#include "platform/linux/engine/EngineImage.h"
#include "platform/linux/engine/codecs/CodecCommon.h"

namespace kestrelyn::codecs {

namespace {

constexpr PROPID kIccProfileTag = 34675;

struct ProfileCloser {
    void operator()(void* p) const { cmsCloseProfile(p); }
};
struct TransformCloser {
    void operator()(void* t) const { cmsDeleteTransform(t); }
};
using ProfilePtr = std::unique_ptr<void, ProfileCloser>;
using TransformPtr = std::unique_ptr<void, TransformCloser>;

const engine::PropertyRecord* FindProfile(const GpImage& image) {
    for (const auto& p : image.properties)
        if (p.id == kIccProfileTag && !p.value.empty()) return &p;
    return nullptr;
}

// lcms2 pixel type of an engine format whose samples are RGB, or 0.
cmsUInt32Number RgbPixelType(PixelFormat format) {
    switch (format) {
    case PixelFormat24bppRGB:
        return TYPE_BGR_8;
    case PixelFormat32bppRGB:
        return TYPE_BGRA_8;
    case PixelFormat32bppARGB:
        return TYPE_BGRA_8;
    case PixelFormat48bppRGB:
        return TYPE_BGR_16;
    case PixelFormat64bppARGB:
        return TYPE_BGRA_16;
    default:
        return 0;
    }
}

} // namespace

GpStatus ApplyEmbeddedProfile(GpImage& image) {
    const engine::PropertyRecord* record = FindProfile(image);
    if (!record) return OK;
    // lcms2 reports problems through a global handler; a bad profile simply
    // leaves the pixels as decoded.
    cmsSetLogErrorHandler(nullptr);
    ProfilePtr input(cmsOpenProfileFromMem(record->value.data(),
                                           static_cast<cmsUInt32Number>(record->value.size())));
    if (!input) return OK;
    const cmsColorSpaceSignature space = cmsGetColorSpace(input.get());
    ProfilePtr srgb(cmsCreate_sRGBProfile());
    if (!srgb) return OK;

    if (IsIndexedPixelFormat(image.format)) {
        if (image.palette.empty()) return OK;
        // Palette entries are BGRA words; convert their colour bytes.
        const bool gray = space == cmsSigGrayData;
        if (!gray && space != cmsSigRgbData) return OK;
        TransformPtr t(cmsCreateTransform(input.get(), gray ? TYPE_GRAY_8 : TYPE_BGRA_8, srgb.get(),
                                          TYPE_BGRA_8, INTENT_PERCEPTUAL, cmsFLAGS_COPY_ALPHA));
        if (!t) return OK;
        std::vector<std::uint8_t> in(image.palette.size() * 4), out(image.palette.size() * 4);
        for (std::size_t i = 0; i < image.palette.size(); ++i) {
            const ARGB c = image.palette[i];
            if (gray)
                in[i] = static_cast<std::uint8_t>(c & 0xFF);
            else
                std::memcpy(&in[i * 4], &c, 4);
        }
        cmsDoTransform(t.get(), in.data(), out.data(),
                       static_cast<cmsUInt32Number>(image.palette.size()));
        for (std::size_t i = 0; i < image.palette.size(); ++i) {
            ARGB c;
            std::memcpy(&c, &out[i * 4], 4);
            image.palette[i] = (image.palette[i] & 0xFF000000u) | (c & 0x00FFFFFFu);
        }
        image.paletteFlags &= ~static_cast<UINT>(PaletteFlagsGrayScale);
        return OK;
    }

    const cmsUInt32Number type = RgbPixelType(image.format);
    if (type == 0 || space != cmsSigRgbData) return OK;
    TransformPtr t(cmsCreateTransform(input.get(), type, srgb.get(), type, INTENT_PERCEPTUAL,
                                      cmsFLAGS_COPY_ALPHA));
    if (!t) return OK;
    if (GpStatus s = engine::EnsureWritable(image); s != OK) return s;
    for (INT y = 0; y < image.height; ++y)
        cmsDoTransform(t.get(), image.Row(y), image.Row(y),
                       static_cast<cmsUInt32Number>(image.width));
    return OK;
}

} // namespace kestrelyn::codecs
