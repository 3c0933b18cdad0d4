// The TIFF decoder of files, and the TIFF writer: pages are added one by one,
// the file is complete at Finish. With a path, libtiff writes each page to
// the file as it is added (nothing of the file is held in memory); without
// one the file is built in memory.
#pragma once
#include <memory>
#include <string>

#include "platform/linux/engine/codecs/CodecCommon.h"

namespace kestrelyn::codecs {

// Decodes a TIFF file whose bytes were read from `path`. A file of several
// pages stays open while the image (or a clone sharing its pages) lives, and
// each page is read from it when selected; the bytes are not kept.
GpStatus DecodeTiffFile(const std::string& path, SharedBytes data, GpImage** out);

class TiffWriter {
  public:
    explicit TiffWriter(std::string path = {});
    ~TiffWriter();
    TiffWriter(const TiffWriter&) = delete;
    TiffWriter& operator=(const TiffWriter&) = delete;
    // Writes one page with the parameters' compression and colour depth.
    GpStatus Add(GpImage* image, const EncoderParameters* params);
    // Closes the file; a file built in memory is handed over in `out`.
    GpStatus Finish(Bytes& out);
    // Closes the file and removes it (a save that failed).
    void Abandon();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace kestrelyn::codecs
