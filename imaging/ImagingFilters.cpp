// The public filter members of cImaging: each checks for a native image,
// fills the zone, turns its arguments into RunFilter's and stores the status.
#include <algorithm>

#include "core/modMain.h"
#include "filters/modFilters.h"
#include "imaging/cImaging.h"
#include "raster/FormatConversion.h"

namespace kestrelyn {

void cImaging::PrepareZone() {
    if (ROIMode != 1) return;
    GpImage* img = ResolveGdiPlusImage(nNativeImage);
    UINT w = 0, h = 0;
    GdipGetImageWidth(img, &w);
    GdipGetImageHeight(img, &h);
    ROILeft = 0;
    ROITop = 0;
    ROIWidth = static_cast<std::int32_t>(w);
    ROIHeight = static_cast<std::int32_t>(h);
}

namespace {

enum class Before { Nothing, GrayIfBitonal, AlphaIfMissing };

KestrelynStatus Member(cImaging& o, FilterId nFilter, const FilterParams& oParams,
                       Before before = Before::Nothing) {
    if (o.nNativeImage == 0) {
        o.nStatus = GenericError;
        return o.nStatus;
    }
    o.PrepareZone();
    if (before != Before::Nothing) {
        PixelFormat fmt = 0;
        KestrelynStatus st = GdipGetImagePixelFormat(ResolveGdiPlusImage(o.nNativeImage), &fmt);
        if (st == OK) {
            if (before == Before::GrayIfBitonal && GetPixelFormatSize(fmt) == 1)
                st = o.EditNativeImage(
                    [](std::int32_t nSource, std::int32_t& nNew) {
                        return MakeGray8Image(nSource, 3, nNew);
                    },
                    true);
            else if (before == Before::AlphaIfMissing && !IsAlphaPixelFormat(fmt))
                st = o.EditNativeImage(MakeARGB32Image);
        }
        if (st != OK) {
            o.nStatus = st;
            return st;
        }
    }
    const FilterZone zone{o.ROILeft, o.ROITop, o.ROIWidth, o.ROIHeight};
    o.nStatus = RunFilter(nFilter, o.nNativeImage, zone, oParams);
    return o.nStatus;
}

// The parameter record of a member: its numeric parameters, or the hue,
// saturation and luminosity of the colourise filter.
FilterParams Params(double p1, double p2 = 0, double p3 = 0, double p4 = 0) {
    FilterParams p;
    p.Param1 = p1;
    p.Param2 = p2;
    p.Param3 = p3;
    p.Param4 = p4;
    return p;
}
FilterParams ColorizeParams(float hue, float sat, float lum) {
    FilterParams p;
    p.Hue = hue;
    p.Saturation = sat;
    p.Luminosity = lum;
    return p;
}

// The relief filters' default base: red 0, green 120, blue 120 as bytes low
// to high, so the channels' bases are R 120, G 120, B 0.
constexpr double kReliefBase = 0 | (120 << 8) | (120 << 16);
constexpr double kWhite = 0xFFFFFF;

} // namespace

KestrelynStatus cImaging::FxSharpen() {
    return Member(*this, FilterId::Sharpen, Params(2));
}
KestrelynStatus cImaging::FxSharpenMore() {
    return Member(*this, FilterId::Sharpen, Params(0));
}
KestrelynStatus cImaging::FxNegative() {
    return Member(*this, FilterId::Negative, Params(0));
}
KestrelynStatus cImaging::FxBlur() {
    return Member(*this, FilterId::Blur, Params(0));
}
KestrelynStatus cImaging::FxDiffuse() {
    return Member(*this, FilterId::Diffuse, Params(6));
}
KestrelynStatus cImaging::FxDiffuseMore() {
    return Member(*this, FilterId::Diffuse, Params(12));
}
KestrelynStatus cImaging::FxSmooth() {
    return Member(*this, FilterId::Smooth, Params(0));
}
KestrelynStatus cImaging::FxEdgeEnhance() {
    return Member(*this, FilterId::EdgeEnhance, Params(1));
}
KestrelynStatus cImaging::FxContour() {
    return Member(*this, FilterId::Contour, Params(kWhite));
}
KestrelynStatus cImaging::FxEmboss() {
    return Member(*this, FilterId::Emboss, Params(kReliefBase));
}
KestrelynStatus cImaging::FxEmbossColor(std::int32_t nRGBColor) {
    return Member(*this, FilterId::Emboss, Params(nRGBColor));
}
KestrelynStatus cImaging::FxEmbossMore() {
    return Member(*this, FilterId::EmbossMore, Params(kReliefBase));
}
KestrelynStatus cImaging::FxEmbossMoreColor(std::int32_t nRGBColor) {
    return Member(*this, FilterId::EmbossMore, Params(nRGBColor));
}
KestrelynStatus cImaging::FxEngrave() {
    return Member(*this, FilterId::Engrave, Params(kReliefBase));
}
KestrelynStatus cImaging::FxEngraveColor(std::int32_t nRGBColor) {
    return Member(*this, FilterId::Engrave, Params(nRGBColor));
}
KestrelynStatus cImaging::FxEngraveMore() {
    return Member(*this, FilterId::EngraveMore, Params(kReliefBase));
}
KestrelynStatus cImaging::FxEngraveMoreColor(std::int32_t nRGBColor) {
    return Member(*this, FilterId::EngraveMore, Params(nRGBColor));
}
KestrelynStatus cImaging::FxGrayscale() {
    return Member(*this, FilterId::Grayscale, Params(3));
}
KestrelynStatus cImaging::FxRelief() {
    return Member(*this, FilterId::Relief, Params(0));
}
KestrelynStatus cImaging::SetBrightness(std::int32_t nBrightnessPct) {
    return Member(*this, FilterId::Brightness, Params(nBrightnessPct), Before::GrayIfBitonal);
}
KestrelynStatus cImaging::SwapColorsRGBtoBRG() {
    return Member(*this, FilterId::SwapChannels, Params(1));
}
KestrelynStatus cImaging::SwapColorsRGBtoGBR() {
    return Member(*this, FilterId::SwapChannels, Params(2));
}
KestrelynStatus cImaging::SwapColorsRGBtoRBG() {
    return Member(*this, FilterId::SwapChannels, Params(3));
}
KestrelynStatus cImaging::SwapColorsRGBtoBGR() {
    return Member(*this, FilterId::SwapChannels, Params(4));
}
KestrelynStatus cImaging::SwapColorsRGBtoGRB() {
    return Member(*this, FilterId::SwapChannels, Params(5));
}
KestrelynStatus cImaging::SetContrast(std::int32_t nContrastPct) {
    return Member(*this, FilterId::Contrast, Params(nContrastPct), Before::GrayIfBitonal);
}
KestrelynStatus cImaging::FxBlackNWhite(std::int32_t nMode) {
    switch (nMode) {
    case 2:
        return Member(*this, FilterId::OrderedDither, Params(0));
    case 3:
        return Member(*this, FilterId::ErrorDiffusion, Params(15));
    default:
        return Member(*this, FilterId::Threshold, Params(180 * 0x010101));
    }
}
KestrelynStatus cImaging::FxBlackNWhiteT(std::int32_t nThreshold) {
    const std::int32_t t = std::clamp(nThreshold, 1, 254);
    return Member(*this, FilterId::Threshold, Params(t * 0x010101));
}
KestrelynStatus cImaging::FxAqua() {
    return Member(*this, FilterId::Aqua, Params(0));
}
KestrelynStatus cImaging::FxDilate() {
    return Member(*this, FilterId::Dilate, Params(0));
}
KestrelynStatus cImaging::FxErode() {
    return Member(*this, FilterId::Erode, Params(0));
}
KestrelynStatus cImaging::FxConnectedContour() {
    return Member(*this, FilterId::ConnectedContour, Params(0));
}
KestrelynStatus cImaging::FxStretchContrast() {
    return Member(*this, FilterId::StretchContrast, Params(0));
}
KestrelynStatus cImaging::SetSaturation(std::int32_t nSaturationPct) {
    return Member(*this, FilterId::Saturation, Params(nSaturationPct), Before::GrayIfBitonal);
}
KestrelynStatus cImaging::SetGammaCorrection(std::int32_t nGammaFactor) {
    return Member(*this, FilterId::Gamma, Params(nGammaFactor), Before::GrayIfBitonal);
}
KestrelynStatus cImaging::FxSoften(std::int32_t nSoftenValue) {
    return Member(*this, FilterId::Soften, Params(nSoftenValue));
}
KestrelynStatus cImaging::FxSepia() {
    return Member(*this, FilterId::Colorize, ColorizeParams(0.5f, 0.25f, 1.0f));
}
KestrelynStatus cImaging::FxColorize(float nHue, float nSaturation, float nLuminosity) {
    return Member(*this, FilterId::Colorize, ColorizeParams(nHue, nSaturation, nLuminosity));
}
KestrelynStatus cImaging::SetTransparency(std::int32_t nTransparencyValue) {
    return Member(*this, FilterId::Transparency, Params(nTransparencyValue),
                  Before::AlphaIfMissing);
}
KestrelynStatus cImaging::AdjustRGB(std::int32_t nRedAdjust, std::int32_t nGreenAdjust,
                                    std::int32_t nBlueAdjust) {
    return Member(*this, FilterId::AdjustRGB, Params(0, nRedAdjust, nGreenAdjust, nBlueAdjust));
}
KestrelynStatus cImaging::KeepRedComponent() {
    return Member(*this, FilterId::KeepRed, Params(0));
}
KestrelynStatus cImaging::KeepGreenComponent() {
    return Member(*this, FilterId::KeepGreen, Params(0));
}
KestrelynStatus cImaging::KeepBlueComponent() {
    return Member(*this, FilterId::KeepBlue, Params(0));
}
KestrelynStatus cImaging::RemoveRedComponent() {
    return Member(*this, FilterId::RemoveRed, Params(0));
}
KestrelynStatus cImaging::RemoveGreenComponent() {
    return Member(*this, FilterId::RemoveGreen, Params(0));
}
KestrelynStatus cImaging::RemoveBlueComponent() {
    return Member(*this, FilterId::RemoveBlue, Params(0));
}
KestrelynStatus cImaging::ScaleRedComponent(double nFactor) {
    return Member(*this, FilterId::ScaleRed, Params(nFactor));
}
KestrelynStatus cImaging::ScaleGreenComponent(double nFactor) {
    return Member(*this, FilterId::ScaleGreen, Params(nFactor));
}
KestrelynStatus cImaging::ScaleBlueComponent(double nFactor) {
    return Member(*this, FilterId::ScaleBlue, Params(nFactor));
}
KestrelynStatus cImaging::SetTransparencyColorEx(std::int32_t nThreshold, std::int32_t nColorARGB) {
    return Member(*this, FilterId::ColorKey, Params(nThreshold, nColorARGB),
                  Before::AlphaIfMissing);
}
KestrelynStatus cImaging::SetTransparencyColor(std::int32_t nColorARGB) {
    return SetTransparencyColorEx(100, nColorARGB);
}
KestrelynStatus cImaging::SwapColorEx(std::int32_t nThreshold, std::int32_t nARGBColorSrc,
                                      std::int32_t nARGBColorDst) {
    return Member(*this, FilterId::ColorReplace, Params(nThreshold, nARGBColorSrc, nARGBColorDst));
}
KestrelynStatus cImaging::SwapColor(std::int32_t nARGBColorSrc, std::int32_t nARGBColorDst) {
    return SwapColorEx(100, nARGBColorSrc, nARGBColorDst);
}
KestrelynStatus cImaging::FxEqualizeIntensity() {
    return Member(*this, FilterId::Equalize, Params(0));
}
KestrelynStatus cImaging::FxDespeckle() {
    return Member(*this, FilterId::Despeckle, Params(0));
}
KestrelynStatus cImaging::FxDespeckleMore() {
    return Member(*this, FilterId::DespeckleMore, Params(0));
}

} // namespace kestrelyn
