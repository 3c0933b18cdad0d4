// Reader of wireless bitmaps (WBMP, type 0).
#include <algorithm>
#include <cstring>

#include "Codecs.h"
#include "DecodePixels.h"

namespace kyplug {

BitmapPtr DecodeWBMP(const Bytes& d) {
    Reader r(d);
    if (r.u8() != 0) throw DecodeError("type");
    std::uint8_t fix = r.u8();
    if (fix & 0x9f) throw DecodeError("fix header");
    auto mb = [&] {
        unsigned v = 0;
        for (int k = 0; k < 5; ++k) {
            std::uint8_t c = r.u8();
            v = (v << 7) | (c & 0x7f);
            if (!(c & 0x80)) return v;
        }
        throw DecodeError("multibyte");
    };
    int w = int(std::min(mb(), 100000u)), h = int(std::min(mb(), 100000u));
    auto bm = NewBitmap(kStandard, w, h, 1);
    SetBW(*bm);
    int bpr = (w + 7) / 8;
    for (int y = 0; y < h; ++y)
        std::memcpy(bm->row(y), r.take(std::size_t(bpr)), std::size_t(bpr));
    return bm;
}

} // namespace kyplug
