// The colour operations of cImaging: plain arithmetic over the colour
// classes and modHSL. They touch no image and leave the status as it was,
// except that a failed byte conversion in HSL to RGB reports 1.
#include <algorithm>

#include "imaging/cImaging.h"
#include "raster/cColor.h"
#include "raster/modHSL.h"

namespace kestrelyn {

namespace {
// The four channels of an ARGB value, read through the colour class.
template <typename T>
void SplitARGB(std::int32_t nARGBValue, T& nAlpha, T& nRed, T& nGreen, T& nBlue) {
    cColor c;
    c.SetValue(nARGBValue);
    nAlpha = c.GetAlpha();
    nRed = c.GetRed();
    nGreen = c.GetGreen();
    nBlue = c.GetBlue();
}

std::uint32_t LimitByte(std::int32_t v) {
    return static_cast<std::uint32_t>(std::min(v, 255)) & 0xFF;
}
} // namespace

std::int32_t cImaging::argb(std::int32_t nAlpha, std::int32_t nRed, std::int32_t nGreen,
                            std::int32_t nBlue) {
    return static_cast<std::int32_t>((LimitByte(nAlpha) << 24) | (LimitByte(nRed) << 16) |
                                     (LimitByte(nGreen) << 8) | LimitByte(nBlue));
}

std::int32_t cImaging::GetRGB(std::int32_t nRed, std::int32_t nGreen, std::int32_t nBlue) {
    return static_cast<std::int32_t>((nRed & 0xFF) | ((nGreen & 0xFF) << 8) |
                                     ((nBlue & 0xFF) << 16));
}

void cImaging::ColorGetRGBFromRGBValue(std::int32_t nRGBValue, std::uint8_t& nRed,
                                       std::uint8_t& nGreen, std::uint8_t& nBlue) {
    nRed = static_cast<std::uint8_t>(nRGBValue);
    nGreen = static_cast<std::uint8_t>(nRGBValue >> 8);
    nBlue = static_cast<std::uint8_t>(nRGBValue >> 16);
}

void cImaging::ColorGetRGBFromRGBValuel(std::int32_t nRGBValue, std::int32_t& nRed,
                                        std::int32_t& nGreen, std::int32_t& nBlue) {
    nRed = nRGBValue & 0xFF;
    nGreen = (nRGBValue >> 8) & 0xFF;
    nBlue = (nRGBValue >> 16) & 0xFF;
}

void cImaging::ColorGetARGBFromARGBValue(std::int32_t nARGBValue, std::uint8_t& nAlpha,
                                         std::uint8_t& nRed, std::uint8_t& nGreen,
                                         std::uint8_t& nBlue) {
    SplitARGB(nARGBValue, nAlpha, nRed, nGreen, nBlue);
}

void cImaging::ColorGetARGBFromARGBValuel(std::int32_t nARGBValue, std::int32_t& nAlpha,
                                          std::int32_t& nRed, std::int32_t& nGreen,
                                          std::int32_t& nBlue) {
    SplitARGB(nARGBValue, nAlpha, nRed, nGreen, nBlue);
}

void cImaging::ColorRGBtoCMY(std::uint8_t nRedValue, std::uint8_t nGreenValue,
                             std::uint8_t nBlueValue, std::uint8_t& nCyan, std::uint8_t& nMagenta,
                             std::uint8_t& nYellow) {
    cCMY c;
    c.R(nRedValue);
    c.G(nGreenValue);
    c.b(nBlueValue);
    nCyan = c.C();
    nMagenta = c.M();
    nYellow = c.Y();
}

void cImaging::ColorCMYtoRGB(std::uint8_t nCyan, std::uint8_t nMagenta, std::uint8_t nYellow,
                             std::uint8_t& nRedValue, std::uint8_t& nGreenValue,
                             std::uint8_t& nBlueValue) {
    cCMY c;
    c.FromCMY(nCyan, nMagenta, nYellow);
    nRedValue = c.R();
    nGreenValue = c.G();
    nBlueValue = c.b();
}

void cImaging::ColorRGBtoCMYK(std::int32_t nRedValue, std::int32_t nGreenValue,
                              std::int32_t nBlueValue, std::int32_t& nCyan, std::int32_t& nMagenta,
                              std::int32_t& nYellow, std::int32_t& nBlack) {
    cCMYK c;
    c.RGB((nRedValue & 0xFF) | ((nGreenValue & 0xFF) << 8) | ((nBlueValue & 0xFF) << 16));
    nCyan = c.C();
    nMagenta = c.M();
    nYellow = c.Y();
    nBlack = c.K();
}

void cImaging::ColorCMYKtoRGB(std::int32_t nCyan, std::int32_t nMagenta, std::int32_t nYellow,
                              std::int32_t nBlack, std::int32_t& nRedValue,
                              std::int32_t& nGreenValue, std::int32_t& nBlueValue) {
    cCMYK c;
    c.FromCMYK(nCyan, nMagenta, nYellow, nBlack);
    nRedValue = c.R();
    nGreenValue = c.G();
    nBlueValue = c.b();
}

void cImaging::ColorRGBtoHSL(std::uint8_t nRedValue, std::uint8_t nGreenValue,
                             std::uint8_t nBlueValue, float& nHueValue, float& nSaturationValue,
                             float& nLightnessValue) {
    RGBtoHSL(nRedValue, nGreenValue, nBlueValue, nHueValue, nSaturationValue, nLightnessValue);
}

void cImaging::ColorRGBtoHSLl(std::int32_t nRedValue, std::int32_t nGreenValue,
                              std::int32_t nBlueValue, float& nHueValue, float& nSaturationValue,
                              float& nLightnessValue) {
    RGBtoHSL(nRedValue, nGreenValue, nBlueValue, nHueValue, nSaturationValue, nLightnessValue);
}

void cImaging::ColorHSLtoRGB(float nHueValue, float nSaturationValue, float nLightnessValue,
                             std::uint8_t& nRedValue, std::uint8_t& nGreenValue,
                             std::uint8_t& nBlueValue) {
    if (!TryHSLtoRGB(nHueValue, nSaturationValue, nLightnessValue, nRedValue, nGreenValue,
                     nBlueValue))
        nStatus = GenericError;
}

void cImaging::ColorHSLtoRGBl(float nHueValue, float nSaturationValue, float nLightnessValue,
                              std::int32_t& nRedValue, std::int32_t& nGreenValue,
                              std::int32_t& nBlueValue) {
    std::uint8_t r = 0, g = 0, b = 0;
    if (!TryHSLtoRGB(nHueValue, nSaturationValue, nLightnessValue, r, g, b)) nStatus = GenericError;
    nRedValue = r;
    nGreenValue = g;
    nBlueValue = b;
}

} // namespace kestrelyn
