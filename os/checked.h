// Checked arithmetic for counters and sums that have no failure code of their own.
//
// A counter that wrapped would silently corrupt sizes and numbers for the rest of a service's
// life, and services here run for years: stopping at once is the smaller harm, since the
// supervisor restarts the service. Lengths that come from callers or from outside never get
// here; they are widened to 64 bits where they arrive and end in an ordinary error code.
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
