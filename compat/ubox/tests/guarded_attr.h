// SPDX-License-Identifier: ISC
// Received bytes that must not be written, with an unmapped page right after them.

#ifndef COMPAT_UBOX_TESTS_GUARDED_ATTR_H
#define COMPAT_UBOX_TESTS_GUARDED_ATTR_H

#include "support/guarded.h"

#include <cstdint>
#include <vector>

class GuardedAttr : public Guarded {
public:
    explicit GuardedAttr(const std::vector<uint8_t> &bytes) : Guarded(bytes.data(), bytes.size())
    {
        make_read_only();
    }

    uint8_t *data() const { return u8(); }
    struct blob_attr *attr() const { return reinterpret_cast<struct blob_attr *>(data()); }
};

#endif
