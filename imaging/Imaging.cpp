// The public object: creates its cImaging on first use and forwards each
// operation to it, trapping anything thrown into a status. An operation that
// returns a status also leaves it in GetStat, so the two never disagree.
#include "kestrelyn/Imaging.h"

#include <string_view>
#include <type_traits>

#include "imaging/OperationGuard.h"
#include "imaging/cImaging.h"

namespace kestrelyn {

namespace {

// Operations that return a status but deliberately leave the stored one as it
// was: ForceImageValidation always answers 0 and keeps GetStat unchanged.
constexpr bool KeepsStoredStatus(std::string_view sName) {
    return sName == "ForceImageValidation";
}

template <typename Ret, typename Fn> Ret Forward(cImaging& impl, std::string_view sName, Fn&& fn) {
    return GuardOperation<Ret>(impl, [&]() -> Ret {
        if constexpr (std::is_same_v<Ret, KestrelynStatus>) {
            const KestrelynStatus status = fn();
            if (!KeepsStoredStatus(sName)) impl.nStatus = status;
            return status;
        } else {
            return fn();
        }
    });
}

} // namespace

Imaging::Imaging() = default;
Imaging::~Imaging() = default;

cImaging& Imaging::self() {
    if (!m_impl) m_impl = std::make_unique<cImaging>();
    return *m_impl;
}

#define KY_DEFAULT(value)
#define KY_OP(ret, name, params, args)                                                             \
    ret Imaging::name params {                                                                     \
        cImaging& impl = self();                                                                   \
        return Forward<ret>(impl, #name, [&]() -> ret { return impl.name args; });                 \
    }
#include "kestrelyn/ops/all.inc"
#undef KY_OP
#undef KY_DEFAULT

} // namespace kestrelyn
