#include "MemTiff.h"

#include <cstring>

namespace kyplug {

TIFF* MemTiff::open(const char* mode) {
    pos_ = 0;
    return TIFFClientOpen("memory", mode, this, Read, Write, Seek, Close, Size, Map, Unmap);
}

tsize_t MemTiff::Read(thandle_t h, tdata_t p, tsize_t n) {
    auto* m = static_cast<MemTiff*>(h);
    if (n < 0 || m->pos_ >= m->buf_.size()) return 0;
    std::size_t k = std::min<std::size_t>(std::size_t(n), m->buf_.size() - m->pos_);
    std::memcpy(p, m->buf_.data() + m->pos_, k);
    m->pos_ += k;
    return tsize_t(k);
}

tsize_t MemTiff::Write(thandle_t h, tdata_t p, tsize_t n) {
    auto* m = static_cast<MemTiff*>(h);
    if (n < 0) return 0;
    if (m->pos_ + std::size_t(n) > m->buf_.size()) m->buf_.resize(m->pos_ + std::size_t(n));
    std::memcpy(m->buf_.data() + m->pos_, p, std::size_t(n));
    m->pos_ += std::size_t(n);
    return n;
}

toff_t MemTiff::Seek(thandle_t h, toff_t off, int whence) {
    auto* m = static_cast<MemTiff*>(h);
    std::uint64_t base = whence == SEEK_CUR ? m->pos_ : whence == SEEK_END ? m->buf_.size() : 0;
    std::uint64_t np = base + off;
    if (np > (std::uint64_t(1) << 31)) return toff_t(-1);
    m->pos_ = std::size_t(np);
    return np;
}

toff_t MemTiff::Size(thandle_t h) {
    return static_cast<MemTiff*>(h)->buf_.size();
}

Bytes MakeFaxTiff(const Bytes& strip, std::uint32_t width, std::uint32_t rows, int compression,
                  std::uint32_t options) {
    Bytes f(8 + strip.size(), 0);
    f[0] = f[1] = 'I';
    f[2] = 42;
    if (!strip.empty()) std::memcpy(f.data() + 8, strip.data(), strip.size());
    if (f.size() & 1) f.push_back(0);
    std::uint32_t ifd = std::uint32_t(f.size());
    f[4] = std::uint8_t(ifd);
    f[5] = std::uint8_t(ifd >> 8);
    f[6] = std::uint8_t(ifd >> 16);
    f[7] = std::uint8_t(ifd >> 24);
    struct Tag {
        std::uint16_t id, type;
        std::uint32_t value;
    };
    const Tag tags[] = {{256, 4, width},
                        {257, 4, rows},
                        {258, 3, 1},
                        {259, 3, std::uint32_t(compression)},
                        {262, 3, 0},
                        {273, 4, 8},
                        {277, 3, 1},
                        {278, 4, rows},
                        {279, 4, std::uint32_t(strip.size())},
                        {std::uint16_t(compression == 4 ? 293 : 292), 4, options}};
    auto put16 = [&](std::uint32_t v) {
        f.push_back(std::uint8_t(v));
        f.push_back(std::uint8_t(v >> 8));
    };
    auto put32 = [&](std::uint32_t v) {
        put16(v & 0xffff);
        put16(v >> 16);
    };
    put16(sizeof(tags) / sizeof(tags[0]));
    for (const Tag& t : tags) {
        put16(t.id);
        put16(t.type);
        put32(1);
        if (t.type == 3) {
            put16(t.value);
            put16(0);
        } else {
            put32(t.value);
        }
    }
    put32(0);
    return f;
}

} // namespace kyplug
