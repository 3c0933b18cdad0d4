// The public object: creates its cImaging on first use and forwards each
// operation to it, trapping anything thrown into a status.
#include "kestrelyn/Imaging.h"

#include "imaging/OperationGuard.h"
#include "imaging/cImaging.h"

namespace kestrelyn {

Imaging::Imaging() = default;
Imaging::~Imaging() = default;

cImaging& Imaging::self() {
    if (!m_impl) m_impl = std::make_unique<cImaging>();
    return *m_impl;
}

#define KY_DEFAULT(value)
#define KY_OP(ret, name, params, args)                                                           \
    ret Imaging::name params {                                                                     \
        cImaging& impl = self();                                                                   \
        return GuardOperation<ret>(impl, [&]() -> ret { return impl.name args; });                 \
    }
#include "kestrelyn/ops/all.inc"
#undef KY_OP
#undef KY_DEFAULT

} // namespace kestrelyn
