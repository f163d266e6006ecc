// SPDX-License-Identifier: ISC
// Clearing secrets.
//
// The compiler removes a plain memset of an object that is not read again. Keys and intermediate
// digests would then stay on the stack for whatever reads it next.
#ifndef BV_CRYPTO_WIPE_H
#define BV_CRYPTO_WIPE_H

#include <cstddef>
#include <cstring>

namespace bv {

// In pieces that compilers clear with a few plain stores: one memset() of the whole often becomes a
// string instruction, which is slower to start than a hash context takes to clear.
inline void wipe(void *object, size_t size)
{
    constexpr size_t kPiece = 64;
    auto *at = static_cast<unsigned char *>(object);
    for (; size >= kPiece; at += kPiece, size -= kPiece) {
        memset(at, 0, kPiece);
        // Claims to read the memory, so the stores above must have happened.
        __asm__ volatile("" : : "r"(at) : "memory");
    }
    memset(at, 0, size);
    __asm__ volatile("" : : "r"(at) : "memory");
}

template <typename T>
inline void wipe(T &object)
{
    wipe(&object, sizeof(object));
}

// Clears what earlier calls of the same caller left on the stack: values for which the compiler had
// no register, which no wipe() of an object reaches.
template <size_t Size>
__attribute__((noinline)) void wipe_stack()
{
    unsigned char area[Size];
    wipe(area);
}

} // namespace bv

#endif
