// Imaging: the public, non-visual object of the toolkit. Every operation
// forwards, argument for argument, to the inner object of class cImaging,
// created on the first call. No exception crosses an operation: a failure
// becomes a status (GetStat), 3 when memory ran out, else 1.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include "kestrelyn/KestrelynStatus.h"
#include "kestrelyn/PdfTypes.h"
#include "kestrelyn/Types.h"

namespace kestrelyn {

class cImaging;

class Imaging {
  public:
    Imaging();
    ~Imaging();
    Imaging(const Imaging&) = delete;
    Imaging& operator=(const Imaging&) = delete;

// The operations are listed once, family by family, in kestrelyn/ops/*.inc;
// the same lists declare cImaging's members and generate the forwarding.
#define KY_DEFAULT(value) = value
#define KY_OP(ret, name, params, args) ret name params;
#include "kestrelyn/ops/all.inc"
#undef KY_OP
#undef KY_DEFAULT

  private:
    cImaging& self();
    std::unique_ptr<cImaging> m_impl;
};

} // namespace kestrelyn
