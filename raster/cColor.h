// Colour value classes: one ARGB value (cColor), RGB with its CMY complement
// (cCMY), and RGB with CMYK (cCMYK).
#pragma once
#include <cstdint>

namespace kestrelyn {

class cColor {
  public:
    void FromARGB(std::uint8_t nAlpha, std::uint8_t nRed, std::uint8_t nGreen, std::uint8_t nBlue) {
        nValue = MakeARGB(nAlpha, nRed, nGreen, nBlue);
    }
    void FromARGBColor(std::int32_t nARGB) { nValue = static_cast<std::uint32_t>(nARGB); }
    void FromRGB(std::uint8_t nRed, std::uint8_t nGreen, std::uint8_t nBlue) {
        nValue = MakeARGB(255, nRed, nGreen, nBlue);
    }
    void FromRGBColor(std::int32_t nARGB) {
        nValue = static_cast<std::uint32_t>(nARGB) | 0xFF000000u;
    }
    std::uint8_t GetAlpha() const { return static_cast<std::uint8_t>(nValue >> 24); }
    std::uint8_t GetBlue() const { return static_cast<std::uint8_t>(nValue); }
    std::uint8_t GetGreen() const { return static_cast<std::uint8_t>(nValue >> 8); }
    std::uint8_t GetRed() const { return static_cast<std::uint8_t>(nValue >> 16); }
    std::int32_t GetValue() const { return static_cast<std::int32_t>(nValue); }
    static std::uint32_t MakeARGB(std::uint8_t a, std::uint8_t r, std::uint8_t g, std::uint8_t b) {
        return (std::uint32_t(a) << 24) | (std::uint32_t(r) << 16) | (std::uint32_t(g) << 8) | b;
    }
    // A COLORREF holds red in the low byte; alpha becomes 255.
    void SetFromCOLORREF(std::int32_t nColorRef) {
        const auto v = static_cast<std::uint32_t>(nColorRef);
        nValue = MakeARGB(255, v & 0xFF, (v >> 8) & 0xFF, (v >> 16) & 0xFF);
    }
    void SetValue(std::int32_t nARGB) { nValue = static_cast<std::uint32_t>(nARGB); }

  private:
    std::uint32_t nValue = 0;
};

class cCMY {
  public:
    std::int32_t RGB() const { return nR | (nG << 8) | (nB << 16); }
    void RGB(std::int32_t v) {
        R(static_cast<std::uint8_t>(v));
        G(static_cast<std::uint8_t>(v >> 8));
        b(static_cast<std::uint8_t>(v >> 16));
    }
    std::uint8_t R() const { return nR; }
    std::uint8_t G() const { return nG; }
    std::uint8_t b() const { return nB; }
    std::uint8_t C() const { return nC; }
    std::uint8_t M() const { return nM; }
    std::uint8_t Y() const { return nY; }
    void R(std::uint8_t v) {
        nR = v;
        nC = 255 - v;
    }
    void G(std::uint8_t v) {
        nG = v;
        nM = 255 - v;
    }
    void b(std::uint8_t v) {
        nB = v;
        nY = 255 - v;
    }
    void C(std::uint8_t v) {
        nC = v;
        nR = 255 - v;
    }
    void M(std::uint8_t v) {
        nM = v;
        nG = 255 - v;
    }
    void Y(std::uint8_t v) {
        nY = v;
        nB = 255 - v;
    }
    void FromCMY(std::uint8_t c, std::uint8_t m, std::uint8_t y) {
        C(c);
        M(m);
        Y(y);
    }

  private:
    std::uint8_t nR = 0, nG = 0, nB = 0, nC = 255, nM = 255, nY = 255;
};

class cCMYK {
  public:
    std::int32_t RGB() const { return (nR & 0xFF) | ((nG & 0xFF) << 8) | ((nB & 0xFF) << 16); }
    void RGB(std::int32_t v) {
        nR = v & 0xFF;
        nG = (v >> 8) & 0xFF;
        nB = (v >> 16) & 0xFF;
        RecalcCMYK();
    }
    std::int32_t R() const { return nR; }
    std::int32_t G() const { return nG; }
    std::int32_t b() const { return nB; }
    std::int32_t C() const { return nC; }
    std::int32_t M() const { return nM; }
    std::int32_t Y() const { return nY; }
    std::int32_t K() const { return nK; }
    void R(std::int32_t v) {
        nR = v;
        RecalcCMYK();
    }
    void G(std::int32_t v) {
        nG = v;
        RecalcCMYK();
    }
    void b(std::int32_t v) {
        nB = v;
        RecalcCMYK();
    }
    void C(std::int32_t v) {
        nC = v;
        RecalcRGB();
    }
    void M(std::int32_t v) {
        nM = v;
        RecalcRGB();
    }
    void Y(std::int32_t v) {
        nY = v;
        RecalcRGB();
    }
    void K(std::int32_t v) {
        nK = v;
        RecalcRGB();
    }
    // RGB from a CMY triple, then CMYK recalculated from it.
    void FromCMY(std::int32_t c, std::int32_t m, std::int32_t y) {
        nR = 255 - c;
        nG = 255 - m;
        nB = 255 - y;
        RecalcCMYK();
    }
    // The plain CMY complement of the RGB held.
    void ToCMY(std::int32_t& c, std::int32_t& m, std::int32_t& y) const {
        c = 255 - nR;
        m = 255 - nG;
        y = 255 - nB;
    }
    void FromCMYK(std::int32_t c, std::int32_t m, std::int32_t y, std::int32_t k) {
        nC = c;
        nM = m;
        nY = y;
        nK = k;
        RecalcRGB();
    }

  private:
    void RecalcCMYK();
    void RecalcRGB();
    std::int32_t nR = 0, nG = 0, nB = 0, nC = 255, nM = 255, nY = 255, nK = 255;
};

} // namespace kestrelyn
