// SPDX-License-Identifier: ISC
// A name as a hash table wants it: one size for all, zeros after the name.
#ifndef BV_OS_KEY_H
#define BV_OS_KEY_H

#include <bv/os.h>

namespace bv {

template <uint32_t Size>
class Key {
public:
    constexpr Key() : text_() {}

    // A name that does not fit leaves the key empty, so all overlong names share one key.
    explicit Key(const char *name) : text_() { bv_os_strncpy(text_, Size, name, Size); }

    const char *text() const { return text_; }
    const uint8_t *bytes() const { return reinterpret_cast<const uint8_t *>(text_); }

private:
    char text_[Size];
};

} // namespace bv

#endif
