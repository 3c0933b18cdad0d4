// The public filter members of cImaging: each checks for a native image,
// fills the zone, turns its arguments into RunFilter's and stores the status.
#include <algorithm>

#include "imaging/cImaging.h"
#include "core/modMain.h"
#include "filters/modFilters.h"
#include "raster/modConvert.h"

namespace kestrelyn {

namespace {

enum class Before { Nothing, GrayIfBitonal, AlphaIfMissing };

KestrelynStatus Member(cImaging& o, std::int32_t id, double p1, double p2 = 0, double p3 = 0,
                       double p4 = 0, float hue = 0.0f, float sat = 0.5f, float lum = 1.0f,
                       Before before = Before::Nothing) {
    if (o.nNativeImage == 0) {
        o.nStatus = GenericError;
        return o.nStatus;
    }
    PrepareZone(o);
    if (before != Before::Nothing) {
        PixelFormat fmt = 0;
        KestrelynStatus st = GdipGetImagePixelFormat(ResolveGdiPlusImage(o.nNativeImage), &fmt);
        if (st == OK) {
            if (before == Before::GrayIfBitonal && GetPixelFormatSize(fmt) == 1)
                st = ConvertNativeToGray8(o, 3);
            else if (before == Before::AlphaIfMissing && !IsAlphaPixelFormat(fmt))
                st = ConvertNativeToARGB32(o);
        }
        if (st != OK) {
            o.nStatus = st;
            return st;
        }
    }
    o.nStatus =
        RunFilter(o, id, o.nNativeImage, p1, ObjectZone(o), hue, sat, lum, p2, p3, p4, nullptr);
    return o.nStatus;
}

// The relief filters' default base: red 0, green 120, blue 120 as bytes low
// to high, so the channels' bases are R 120, G 120, B 0.
constexpr double kReliefBase = 0 | (120 << 8) | (120 << 16);
constexpr double kWhite = 0xFFFFFF;

} // namespace

KestrelynStatus cImaging::FxSharpen() {
    return Member(*this, 1, 2);
}
KestrelynStatus cImaging::FxSharpenMore() {
    return Member(*this, 1, 0);
}
KestrelynStatus cImaging::FxNegative() {
    return Member(*this, 2, 0);
}
KestrelynStatus cImaging::FxBlur() {
    return Member(*this, 3, 0);
}
KestrelynStatus cImaging::FxDiffuse() {
    return Member(*this, 4, 6);
}
KestrelynStatus cImaging::FxDiffuseMore() {
    return Member(*this, 4, 12);
}
KestrelynStatus cImaging::FxSmooth() {
    return Member(*this, 5, 0);
}
KestrelynStatus cImaging::FxEdgeEnhance() {
    return Member(*this, 6, 1);
}
KestrelynStatus cImaging::FxContour() {
    return Member(*this, 7, kWhite);
}
KestrelynStatus cImaging::FxEmboss() {
    return Member(*this, 8, kReliefBase);
}
KestrelynStatus cImaging::FxEmbossColor(std::int32_t nRGBColor) {
    return Member(*this, 8, nRGBColor);
}
KestrelynStatus cImaging::FxEmbossMore() {
    return Member(*this, 9, kReliefBase);
}
KestrelynStatus cImaging::FxEmbossMoreColor(std::int32_t nRGBColor) {
    return Member(*this, 9, nRGBColor);
}
KestrelynStatus cImaging::FxEngrave() {
    return Member(*this, 10, kReliefBase);
}
KestrelynStatus cImaging::FxEngraveColor(std::int32_t nRGBColor) {
    return Member(*this, 10, nRGBColor);
}
KestrelynStatus cImaging::FxEngraveMore() {
    return Member(*this, 11, kReliefBase);
}
KestrelynStatus cImaging::FxEngraveMoreColor(std::int32_t nRGBColor) {
    return Member(*this, 11, nRGBColor);
}
KestrelynStatus cImaging::FxGrayscale() {
    return Member(*this, 12, 3);
}
KestrelynStatus cImaging::FxRelief() {
    return Member(*this, 13, 0);
}
KestrelynStatus cImaging::SetBrightness(std::int32_t nBrightnessPct) {
    return Member(*this, 14, nBrightnessPct, 0, 0, 0, 0.0f, 0.5f, 1.0f, Before::GrayIfBitonal);
}
KestrelynStatus cImaging::SwapColorsRGBtoBRG() {
    return Member(*this, 16, 1);
}
KestrelynStatus cImaging::SwapColorsRGBtoGBR() {
    return Member(*this, 16, 2);
}
KestrelynStatus cImaging::SwapColorsRGBtoRBG() {
    return Member(*this, 16, 3);
}
KestrelynStatus cImaging::SwapColorsRGBtoBGR() {
    return Member(*this, 16, 4);
}
KestrelynStatus cImaging::SwapColorsRGBtoGRB() {
    return Member(*this, 16, 5);
}
KestrelynStatus cImaging::SetContrast(std::int32_t nContrastPct) {
    return Member(*this, 17, nContrastPct, 0, 0, 0, 0.0f, 0.5f, 1.0f, Before::GrayIfBitonal);
}
KestrelynStatus cImaging::FxBlackNWhite(std::int32_t nMode) {
    switch (nMode) {
    case 2:
        return Member(*this, 19, 0);
    case 3:
        return Member(*this, 20, 15);
    default:
        return Member(*this, 18, 180 * 0x010101);
    }
}
KestrelynStatus cImaging::FxBlackNWhiteT(std::int32_t nThreshold) {
    const std::int32_t t = std::clamp(nThreshold, 1, 254);
    return Member(*this, 18, t * 0x010101);
}
KestrelynStatus cImaging::FxAqua() {
    return Member(*this, 24, 0);
}
KestrelynStatus cImaging::FxDilate() {
    return Member(*this, 25, 0);
}
KestrelynStatus cImaging::FxErode() {
    return Member(*this, 26, 0);
}
KestrelynStatus cImaging::FxConnectedContour() {
    return Member(*this, 27, 0);
}
KestrelynStatus cImaging::FxStretchContrast() {
    return Member(*this, 28, 0);
}
KestrelynStatus cImaging::SetSaturation(std::int32_t nSaturationPct) {
    return Member(*this, 30, nSaturationPct, 0, 0, 0, 0.0f, 0.5f, 1.0f, Before::GrayIfBitonal);
}
KestrelynStatus cImaging::SetGammaCorrection(std::int32_t nGammaFactor) {
    return Member(*this, 31, nGammaFactor, 0, 0, 0, 0.0f, 0.5f, 1.0f, Before::GrayIfBitonal);
}
KestrelynStatus cImaging::FxSoften(std::int32_t nSoftenValue) {
    return Member(*this, 33, nSoftenValue);
}
KestrelynStatus cImaging::FxSepia() {
    return Member(*this, 34, 0, 0, 0, 0, 0.5f, 0.25f, 1.0f);
}
KestrelynStatus cImaging::FxColorize(float nHue, float nSaturation, float nLuminosity) {
    return Member(*this, 34, 0, 0, 0, 0, nHue, nSaturation, nLuminosity);
}
KestrelynStatus cImaging::SetTransparency(std::int32_t nTransparencyValue) {
    return Member(*this, 35, nTransparencyValue, 0, 0, 0, 0.0f, 0.5f, 1.0f, Before::AlphaIfMissing);
}
KestrelynStatus cImaging::AdjustRGB(std::int32_t nRedAdjust, std::int32_t nGreenAdjust,
                                    std::int32_t nBlueAdjust) {
    return Member(*this, 39, 0, nRedAdjust, nGreenAdjust, nBlueAdjust);
}
KestrelynStatus cImaging::KeepRedComponent() {
    return Member(*this, 41, 0);
}
KestrelynStatus cImaging::KeepGreenComponent() {
    return Member(*this, 42, 0);
}
KestrelynStatus cImaging::KeepBlueComponent() {
    return Member(*this, 43, 0);
}
KestrelynStatus cImaging::RemoveRedComponent() {
    return Member(*this, 44, 0);
}
KestrelynStatus cImaging::RemoveGreenComponent() {
    return Member(*this, 45, 0);
}
KestrelynStatus cImaging::RemoveBlueComponent() {
    return Member(*this, 46, 0);
}
KestrelynStatus cImaging::ScaleRedComponent(double nFactor) {
    return Member(*this, 47, nFactor);
}
KestrelynStatus cImaging::ScaleGreenComponent(double nFactor) {
    return Member(*this, 48, nFactor);
}
KestrelynStatus cImaging::ScaleBlueComponent(double nFactor) {
    return Member(*this, 49, nFactor);
}
KestrelynStatus cImaging::SetTransparencyColorEx(std::int32_t nThreshold, std::int32_t nColorARGB) {
    return Member(*this, 50, nThreshold, nColorARGB, 0, 0, 0.0f, 0.5f, 1.0f,
                  Before::AlphaIfMissing);
}
KestrelynStatus cImaging::SetTransparencyColor(std::int32_t nColorARGB) {
    return SetTransparencyColorEx(100, nColorARGB);
}
KestrelynStatus cImaging::SwapColorEx(std::int32_t nThreshold, std::int32_t nARGBColorSrc,
                                      std::int32_t nARGBColorDst) {
    return Member(*this, 51, nThreshold, nARGBColorSrc, nARGBColorDst);
}
KestrelynStatus cImaging::SwapColor(std::int32_t nARGBColorSrc, std::int32_t nARGBColorDst) {
    return SwapColorEx(100, nARGBColorSrc, nARGBColorDst);
}
KestrelynStatus cImaging::FxEqualizeIntensity() {
    return Member(*this, 58, 0);
}
KestrelynStatus cImaging::FxDespeckle() {
    return Member(*this, 61, 0);
}
KestrelynStatus cImaging::FxDespeckleMore() {
    return Member(*this, 63, 0);
}

} // namespace kestrelyn
