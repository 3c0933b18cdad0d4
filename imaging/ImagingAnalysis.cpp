// The analysis family of Imaging: skew, borders and page statistics. Each
// member reads the object's state, calls the pure analysis in analysis/ with
// an image id and stores the status.
#include "imaging/cImaging.h"

namespace kestrelyn {} // namespace kestrelyn
