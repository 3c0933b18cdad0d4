#include "raster/modHSL.h"

#include <cmath>
#include <stdexcept>

namespace kestrelyn {

std::uint8_t CheckedByte(double v) {
    const double r = std::nearbyint(v);
    if (!(r >= 0.0 && r <= 255.0)) throw std::range_error("byte overflow");
    return static_cast<std::uint8_t>(r);
}

void RGBtoHSL(std::int32_t nRed, std::int32_t nGreen, std::int32_t nBlue, float& H, float& S,
              float& L) {
    const float r = static_cast<float>(nRed) / 255.0f;
    const float g = static_cast<float>(nGreen) / 255.0f;
    const float b = static_cast<float>(nBlue) / 255.0f;
    float mx = r, mn = r;
    if (g > mx) mx = g;
    if (b > mx) mx = b;
    if (g < mn) mn = g;
    if (b < mn) mn = b;
    L = (mx + mn) / 2.0f;
    if (mx == mn) {
        S = 0.0f;
        H = 0.0f;
        return;
    }
    if (L > 0.5f)
        S = (mx - mn) / (2.0f - mx - mn);
    else
        S = (mx - mn) / (mx + mn);
    const float d = mx - mn;
    if (r == mx)
        H = (g - b) / d;
    else if (g == mx)
        H = 2.0f + (b - r) / d;
    else
        H = 4.0f + (r - g) / d;
}

namespace {

// Round half to even into a byte; false (and the byte untouched) outside 0..255.
bool TryByte(double v, std::uint8_t& nByte) {
    const double r = std::nearbyint(v);
    if (!(r >= 0.0 && r <= 255.0)) return false;
    nByte = static_cast<std::uint8_t>(r);
    return true;
}

} // namespace

bool TryHSLtoRGB(float H, float S, float L, std::uint8_t& nRed, std::uint8_t& nGreen,
                 std::uint8_t& nBlue) {
    float r, g, b;
    if (S <= 0.0f) {
        r = g = b = L;
    } else {
        const float p = (L > 0.5f) ? L - (1.0f - L) * S : (1.0f - S) * L;
        const float q = 2.0f * L - p;
        if (H < 1.0f) {
            r = q;
            const float e = (q - p) * H;
            if (H < 0.0f) {
                g = p;
                b = p - e;
            } else {
                g = p + e;
                b = p;
            }
        } else if (H < 3.0f) {
            g = q;
            const float e = (q - p) * (H - 2.0f);
            if (H < 2.0f) {
                r = p - e;
                b = p;
            } else {
                r = p;
                b = p + e;
            }
        } else {
            b = q;
            const float e = (q - p) * (H - 4.0f);
            if (H < 4.0f) {
                r = p;
                g = p - e;
            } else {
                r = p + e;
                g = p;
            }
        }
    }
    return TryByte(static_cast<double>(r) * 255.0, nRed) &&
           TryByte(static_cast<double>(g) * 255.0, nGreen) &&
           TryByte(static_cast<double>(b) * 255.0, nBlue);
}

void HSLtoRGB(float H, float S, float L, std::uint8_t& nRed, std::uint8_t& nGreen,
              std::uint8_t& nBlue) {
    if (!TryHSLtoRGB(H, S, L, nRed, nGreen, nBlue)) throw std::range_error("byte overflow");
}

} // namespace kestrelyn
