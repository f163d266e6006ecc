// SPDX-License-Identifier: ISC
// Checked arithmetic for counters and sums that have no failure code of their own.
//
// A counter that wrapped would silently corrupt sizes and numbers for as long as the service runs,
// which may be years. Stopping at once does less harm: the supervisor restarts the service. Lengths
// from callers or from outside never get here. They are widened to 64 bits where they arrive, and
// end in an ordinary error code.
#ifndef BV_OS_CHECKED_H
#define BV_OS_CHECKED_H

#include <cstdlib>
#include <type_traits>

namespace bv {

template <typename T>
inline T checked_add(T a, std::common_type_t<T> b)
{
    T sum;
    if (__builtin_add_overflow(a, b, &sum))
        abort();
    return sum;
}

template <typename T>
inline T checked_sub(T a, std::common_type_t<T> b)
{
    T difference;
    if (__builtin_sub_overflow(a, b, &difference))
        abort();
    return difference;
}

} // namespace bv

#endif
