// The analysis family of Imaging: skew, borders and page statistics. Each
// member reads the object's state, calls the pure analysis in analysis/ with
// an image id and stores the status.
#include "analysis/cAutoDeskew.h"
#include "imaging/cImaging.h"

namespace kestrelyn {

// Skew: a fresh measure at the full range of 20 degrees on the native image.
double cImaging::GetSkewAngle() {
    if (nNativeImage == 0) {
        nStatus = GenericError;
        return 0;
    }
    cAutoDeskew oDeskew;
    oDeskew.MaxAngle = 20;
    nStatus = oDeskew.MeasureImage(nNativeImage);
    return oDeskew.SkewAngle;
}

} // namespace kestrelyn
