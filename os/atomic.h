// SPDX-License-Identifier: ISC
// Accesses without a lock, on purpose.
//
// What several threads share without a lock is read and written through these functions only. So
// every such place can be found, and ThreadSanitizer can tell it from a mistake.
#ifndef BV_OS_ATOMIC_H
#define BV_OS_ATOMIC_H

namespace bv {

// Relaxed: a value on its own, which says nothing about other memory.
template <typename T>
inline T load_relaxed(const T &from)
{
    return __atomic_load_n(&from, __ATOMIC_RELAXED);
}

template <typename T>
inline void store_relaxed(T &to, T value)
{
    __atomic_store_n(&to, value, __ATOMIC_RELAXED);
}

// Replaces a value if it is still the one in `seen`. Otherwise, and sometimes for no reason,
// returns false with the present value in `seen`.
template <typename T>
inline bool try_swap_relaxed(T &value, T &seen, T replacement)
{
    return __atomic_compare_exchange_n(&value, &seen, replacement, true, __ATOMIC_RELAXED,
                                       __ATOMIC_RELAXED);
}

// A value that hands over what was written before it.
template <typename T>
inline T load_acquire(const T &from)
{
    return __atomic_load_n(&from, __ATOMIC_ACQUIRE);
}

template <typename T>
inline void store_release(T &to, T value)
{
    __atomic_store_n(&to, value, __ATOMIC_RELEASE);
}

} // namespace bv

#endif
