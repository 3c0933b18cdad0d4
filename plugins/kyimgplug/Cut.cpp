// Reader of Dr. Halo CUT pictures.
#include "Codecs.h"

namespace kyplug {

BitmapPtr DecodeCUT(const Bytes& d) {
    Reader r(d);
    int w = r.le16(), h = r.le16();
    r.le16();
    auto bm = NewBitmap(kStandard, w, h, 8);
    for (int y = 0; y < h; ++y) {
        std::uint8_t* row = bm->row(y);
        int x = 0;
        while (true) {
            int c = r.u8();
            if (c == 0) {
                break;
            }
            int n = c & 0x7f;
            if (x + n > w) throw DecodeError("cut run");
            if (c & 0x80) {
                std::uint8_t v = r.u8();
                while (n--)
                    row[x++] = v;
            } else {
                while (n--)
                    row[x++] = r.u8();
            }
        }
        // Each line ends with a zero and a two-byte count of the next line.
        if (y + 1 < h) r.le16();
    }
    return bm;
}

} // namespace kyplug
