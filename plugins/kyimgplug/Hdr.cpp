// Reader of Radiance HDR (RGBE) pictures.
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "Codecs.h"
#include "DecodePixels.h"

namespace kyplug {

BitmapPtr DecodeHDR(const Bytes& d) {
    Reader r(d);
    std::string line;
    auto getline = [&] {
        line.clear();
        while (true) {
            char c = char(r.u8());
            if (c == '\n') break;
            line += c;
            if (line.size() > 4096) throw DecodeError("line");
        }
    };
    getline();
    if (line.rfind("#?", 0) != 0) throw DecodeError("not hdr");
    do
        getline();
    while (!line.empty());
    getline();
    int w = 0, h = 0;
    char a[3], b[3];
    if (std::sscanf(line.c_str(), "%2s %d %2s %d", a, &h, b, &w) != 4 || std::string(a) != "-Y" ||
        std::string(b) != "+X")
        throw DecodeError("orientation");
    auto bm = NewBitmap(kRGBF, w, h, 96);
    std::vector<std::uint8_t> scan(std::size_t(w) * 4);
    for (int y = 0; y < h; ++y) {
        const std::uint8_t* q = r.take(4);
        if (w >= 8 && w < 32768 && q[0] == 2 && q[1] == 2 && ((q[2] << 8) | q[3]) == w) {
            for (int c = 0; c < 4; ++c)
                for (int x = 0; x < w;) {
                    int n = r.u8();
                    if (n > 128) {
                        n -= 128;
                        std::uint8_t v = r.u8();
                        if (x + n > w) throw DecodeError("rle");
                        while (n--)
                            scan[std::size_t(x++) * 4 + c] = v;
                    } else {
                        if (n == 0 || x + n > w) throw DecodeError("rle");
                        while (n--)
                            scan[std::size_t(x++) * 4 + c] = r.u8();
                    }
                }
        } else {
            std::memcpy(scan.data(), q, 4);
            const std::uint8_t* rest = r.take(std::size_t(w - 1) * 4);
            std::memcpy(scan.data() + 4, rest, std::size_t(w - 1) * 4);
        }
        for (int x = 0; x < w; ++x) {
            const std::uint8_t* p = &scan[std::size_t(x) * 4];
            float f = p[3] ? std::ldexp(1.0f, p[3] - 136) : 0.0f;
            PutRGBF(*bm, x, y, p[0] * f, p[1] * f, p[2] * f);
        }
    }
    return bm;
}

} // namespace kyplug
