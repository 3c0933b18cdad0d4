// Turns anything thrown inside an operation into a status on the object:
// 3 when memory ran out, 1 for any other failure. The operation then returns
// its failure value (0, "", false, an empty array, or the status itself).
#pragma once
#include <new>
#include <type_traits>

#include "imaging/cImaging.h"

namespace kestrelyn {

template <typename Ret, typename Fn> Ret GuardOperation(cImaging& impl, Fn&& fn) {
    KestrelynStatus failure = GenericError;
    try {
        return fn();
    } catch (const std::bad_alloc&) {
        failure = OutOfMemory;
    } catch (...) {
        failure = GenericError;
    }
    impl.nStatus = failure;
    if constexpr (std::is_same_v<Ret, KestrelynStatus>)
        return failure;
    else if constexpr (std::is_void_v<Ret>)
        return;
    else
        return Ret{};
}

} // namespace kestrelyn
