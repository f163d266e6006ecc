// Clearing secrets.
//
// A plain memset of an object that nobody reads again is a dead store, which the compiler removes;
// keys and intermediate digests would then stay on the stack for whatever reads it next.
#ifndef BV_CRYPTO_WIPE_H
#define BV_CRYPTO_WIPE_H

#include <cstddef>
#include <cstring>

namespace bv {

inline void wipe(void *object, size_t size)
{
    memset(object, 0, size);
    // Claims to read the memory, so the stores above must have happened.
    __asm__ volatile("" : : "r"(object) : "memory");
}

template <typename T>
inline void wipe(T &object)
{
    wipe(&object, sizeof(object));
}

// Clears what functions called before by the same caller left on the stack: values that the
// compiler put there for want of registers, which no wipe() of an object reaches.
template <size_t Size>
__attribute__((noinline)) void wipe_stack()
{
    unsigned char area[Size];
    wipe(area);
}

} // namespace bv

#endif
