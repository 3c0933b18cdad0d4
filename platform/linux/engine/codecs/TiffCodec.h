// The TIFF writer: pages are added one by one, the file is complete at Finish.
#pragma once
#include <memory>

#include "platform/linux/engine/codecs/CodecCommon.h"

namespace kestrelyn::codecs {

class TiffWriter {
  public:
    TiffWriter();
    ~TiffWriter();
    TiffWriter(const TiffWriter&) = delete;
    TiffWriter& operator=(const TiffWriter&) = delete;
    // Writes one page with the parameters' compression and colour depth.
    GpStatus Add(GpImage* image, const EncoderParameters* params);
    // Closes the file and hands over its bytes.
    GpStatus Finish(Bytes& out);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace kestrelyn::codecs
