// Small helpers for building hand-made pixel buffers and running one filter
// identifier over them.
#pragma once
#include <cstdint>
#include <vector>

#include "filters/modFilters.h"

namespace kytest {

inline std::uint32_t Px(std::uint32_t a, std::uint32_t r, std::uint32_t g, std::uint32_t b) {
    return (a << 24) | (r << 16) | (g << 8) | b;
}
inline std::uint32_t Gray(std::uint32_t v, std::uint32_t a = 255) {
    return Px(a, v, v, v);
}
inline std::uint32_t Red(std::uint32_t p) {
    return (p >> 16) & 0xFF;
}
inline std::uint32_t Green(std::uint32_t p) {
    return (p >> 8) & 0xFF;
}
inline std::uint32_t Blue(std::uint32_t p) {
    return p & 0xFF;
}

using kestrelyn::FilterId;
using kestrelyn::FilterNumber;

struct Run {
    FilterId id;
    double p1 = 0, p2 = 0, p3 = 0, p4 = 0;
};

inline std::vector<std::uint32_t> Apply(const Run& r, std::vector<std::uint32_t> px, std::int32_t w,
                                        std::int32_t h, float hue = 0.0f, float sat = 0.5f,
                                        float lum = 1.0f) {
    kestrelyn::FilterContext ctx = kestrelyn::FilterContext::Over(std::move(px), w, h);
    ctx.Param1 = r.p1;
    ctx.Param2 = r.p2;
    ctx.Param3 = r.p3;
    ctx.Param4 = r.p4;
    ctx.Hue = hue;
    ctx.Saturation = sat;
    ctx.Luminosity = lum;
    kestrelyn::ApplyFilter(r.id, ctx);
    return ctx.WorkPixels;
}

// 5x4 gray 100 with one pixel of 200 at (2, 1).
inline std::vector<std::uint32_t> Bump(std::uint32_t bump = Gray(200)) {
    std::vector<std::uint32_t> v(20, Gray(100));
    v[1 * 5 + 2] = bump;
    return v;
}

} // namespace kytest
