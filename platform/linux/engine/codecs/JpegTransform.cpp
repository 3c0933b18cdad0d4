// Lossless JPEG transformations (rotations by quarter turns and flips) with
// TurboJPEG's tjTransform: the compressed blocks are rearranged, nothing is
// decoded or recompressed. Partial edge blocks cannot move losslessly, so a
// side that is not a whole number of blocks is refused (TJXOPT_PERFECT).
#include <turbojpeg.h>

#include <cstdio>

#include "platform/SafeFile.h"
#include "platform/linux/engine/codecs/CodecCommon.h"

namespace kestrelyn {

namespace {

int TransformOp(UINT value) {
    switch (value) {
    case EncoderValueTransformRotate90:
        return TJXOP_ROT90;
    case EncoderValueTransformRotate180:
        return TJXOP_ROT180;
    case EncoderValueTransformRotate270:
        return TJXOP_ROT270;
    case EncoderValueTransformFlipHorizontal:
        return TJXOP_HFLIP;
    case EncoderValueTransformFlipVertical:
        return TJXOP_VFLIP;
    default:
        return -1;
    }
}

} // namespace

GpStatus GdipTransformJpegFile(GpImage* image, const std::string& sourceFile,
                               const std::string& destFile, const GUID* clsidEncoder,
                               const EncoderParameters* encoderParams) {
    if (!image || !clsidEncoder || destFile.empty()) return InvalidParameter;
    if (!(*clsidEncoder == EncoderClsidJPEG)) return InvalidParameter;
    UINT value = 0;
    if (!codecs::FindEncoderLong(encoderParams, EncoderTransformation, &value))
        return InvalidParameter;
    const int op = TransformOp(value);
    if (op < 0) return InvalidParameter;
    codecs::Bytes source;
    GpStatus st = codecs::ReadFileBytes(sourceFile, source);
    if (st != OK) return st;
    if (source.size() < 4 || source[0] != 0xFF || source[1] != 0xD8) return InvalidParameter;

    tjhandle handle = tjInitTransform();
    if (!handle) return OutOfMemory;
    tjtransform xform{};
    xform.op = op;
    xform.options = TJXOPT_PERFECT;
    unsigned char* out = nullptr;
    unsigned long outSize = 0;
    const int rc = tjTransform(handle, source.data(), static_cast<unsigned long>(source.size()), 1,
                               &out, &outSize, &xform, 0);
    tjDestroy(handle);
    if (rc != 0) {
        if (out) tjFree(out);
        return InvalidParameter;
    }
    // The result replaces the destination only when written whole (the
    // destination may be the source itself).
    const bool ok = WriteBytesSafely(destFile, out, outSize);
    tjFree(out);
    return ok ? OK : Win32Error;
}

} // namespace kestrelyn
