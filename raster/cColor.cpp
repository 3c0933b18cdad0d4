#include "raster/cColor.h"

#include <algorithm>
#include <cmath>

namespace kestrelyn {

void cCMYK::RecalcCMYK() {
    const std::int32_t c = 255 - nR, m = 255 - nG, y = 255 - nB;
    nK = std::min({c, m, y});
    if (nK == 255) {
        nC = nM = nY = 255;
        return;
    }
    const double span = 255.0 - nK;
    nC = static_cast<std::int32_t>(std::nearbyint((c - nK) * 255.0 / span));
    nM = static_cast<std::int32_t>(std::nearbyint((m - nK) * 255.0 / span));
    nY = static_cast<std::int32_t>(std::nearbyint((y - nK) * 255.0 / span));
}

void cCMYK::RecalcRGB() {
    auto back = [this](std::int32_t v) {
        double t = std::nearbyint((255.0 - nK) * v / 255.0 + nK);
        if (t > 255.0) t = 255.0;
        return 255 - static_cast<std::int32_t>(t);
    };
    nR = back(nC);
    nG = back(nM);
    nB = back(nY);
}

} // namespace kestrelyn
