// Reader of Kodak Photo CD (PCD) images.
#include <algorithm>

#include "Codecs.h"
#include "DecodePixels.h"

namespace kyplug {

// The base image (768 x 512) at sector 384: per pair of lines, two luma lines
// and one line of each chroma channel at half width.
BitmapPtr DecodePCD(const Bytes& d) {
    const std::size_t base = 0x30000;
    const int w = 768, h = 512;
    if (d.size() < base + std::size_t(w) * h * 3 / 2) throw DecodeError("short pcd");
    bool rotate = d.size() > 0x0e02 && (d[0x0e02] & 3) != 0;
    (void)rotate;
    auto bm = NewBitmap(kStandard, w, h, 24);
    const std::uint8_t* p = d.data() + base;
    for (int y = 0; y < h; y += 2) {
        const std::uint8_t* y1 = p;
        const std::uint8_t* y2 = p + w;
        const std::uint8_t* c1 = p + 2 * w;
        const std::uint8_t* c2 = c1 + w / 2;
        p += 3 * w;
        for (int yy = 0; yy < 2; ++yy)
            for (int x = 0; x < w; ++x) {
                double L = 1.3584 * (yy ? y2[x] : y1[x]);
                double C1 = 2.2179 * (c1[x / 2] - 156);
                double C2 = 1.8215 * (c2[x / 2] - 137);
                auto cl = [](double v) { return int(std::clamp(v, 0.0, 255.0) + 0.5); };
                Put24(*bm, x, y + yy, cl((L + C2) * 255 / 346),
                      cl((L - 0.194 * C1 - 0.509 * C2) * 255 / 346), cl((L + C1) * 255 / 346));
            }
    }
    return bm;
}

} // namespace kyplug
