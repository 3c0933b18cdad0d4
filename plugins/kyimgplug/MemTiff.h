// TIFF files held in memory, for fax streams that need a TIFF wrapper and for
// the CCITT service that gives back bare coded bytes.
#pragma once
#include <tiffio.h>

#include "Codecs.h"

namespace kyplug {

class MemTiff {
  public:
    MemTiff() = default;
    explicit MemTiff(Bytes data) : buf_(std::move(data)) {}
    TIFF* open(const char* mode);
    Bytes& data() { return buf_; }

  private:
    static tsize_t Read(thandle_t h, tdata_t p, tsize_t n);
    static tsize_t Write(thandle_t h, tdata_t p, tsize_t n);
    static toff_t Seek(thandle_t h, toff_t off, int whence);
    static int Close(thandle_t) { return 0; }
    static toff_t Size(thandle_t h);
    static int Map(thandle_t, tdata_t*, toff_t*) { return 0; }
    static void Unmap(thandle_t, tdata_t, toff_t) {}
    Bytes buf_;
    std::size_t pos_ = 0;
};

// A one-strip, one-bit TIFF around a coded fax stream.
Bytes MakeFaxTiff(const Bytes& strip, std::uint32_t width, std::uint32_t rows, int compression,
                  std::uint32_t options);

} // namespace kyplug
