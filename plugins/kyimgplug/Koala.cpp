// Reader of C64 Koala paint pictures.
#include "Codecs.h"

namespace kyplug {

BitmapPtr DecodeKOALA(const Bytes& d) {
    if (d.size() < 10003) throw DecodeError("short koala");
    static const unsigned c64[16] = {0x000000, 0xffffff, 0x880000, 0xaaffee, 0xcc44cc, 0x00cc55,
                                     0x0000aa, 0xeeee77, 0xdd8855, 0x664400, 0xff7777, 0x333333,
                                     0x777777, 0xaaff66, 0x0088ff, 0xbbbbbb};
    const std::uint8_t* bitmap = d.data() + 2;
    const std::uint8_t* screen = bitmap + 8000;
    const std::uint8_t* colour = screen + 1000;
    int bg = colour[1000] & 15;
    auto bm = NewBitmap(kStandard, 160, 200, 8);
    bm->palette.assign(64, 0);
    for (int i = 0; i < 16; ++i)
        bm->setColor(i, std::uint8_t(c64[i] >> 16), std::uint8_t(c64[i] >> 8),
                     std::uint8_t(c64[i]));
    for (int y = 0; y < 200; ++y)
        for (int x = 0; x < 160; ++x) {
            int cell = (y / 8) * 40 + x / 4;
            std::uint8_t b = bitmap[cell * 8 + (y & 7)];
            int v = (b >> (6 - 2 * (x & 3))) & 3;
            int c = v == 0   ? bg
                    : v == 1 ? screen[cell] >> 4
                    : v == 2 ? screen[cell] & 15
                             : colour[cell] & 15;
            bm->row(y)[x] = std::uint8_t(c);
        }
    return bm;
}

} // namespace kyplug
