// SPDX-License-Identifier: ISC
// Memory between two unmapped pages, ending exactly where the second begins: one byte read or
// written too far kills the test.
#ifndef BV_TESTS_SUPPORT_GUARDED_H
#define BV_TESTS_SUPPORT_GUARDED_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

class Guarded {
public:
    explicit Guarded(size_t size, char fill = '\xee') : size_(size)
    {
        page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        pages_ = (size + page_ - 1) / page_;
        void *map =
            mmap(nullptr, (pages_ + 2) * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (map == MAP_FAILED)
            abort();
        map_ = static_cast<char *>(map);
        protect(PROT_READ | PROT_WRITE);
        memset(data(), fill, size);
    }

    Guarded(const void *bytes, size_t size) : Guarded(size)
    {
        if (size != 0)
            memcpy(data(), bytes, size);
    }

    // The bytes of text, without its NUL.
    explicit Guarded(const std::string &text) : Guarded(text.data(), text.size()) {}

    ~Guarded() { munmap(map_, (pages_ + 2) * page_); }
    Guarded(const Guarded &) = delete;
    Guarded &operator=(const Guarded &) = delete;

    // The last size bytes before the unmapped page.
    char *data() const { return map_ + (pages_ + 1) * page_ - size_; }
    uint8_t *u8() const { return reinterpret_cast<uint8_t *>(data()); }
    size_t size() const { return size_; }
    std::string bytes() const { return std::string(data(), size_); }

    void make_read_only() { protect(PROT_READ); }

private:
    void protect(int mode)
    {
        if (pages_ != 0 && mprotect(map_ + page_, pages_ * page_, mode) != 0)
            abort();
    }

    size_t size_;
    size_t page_;
    size_t pages_;
    char *map_;
};

// A string with its NUL, the NUL being the last byte before the unmapped page.
class GuardedString : public Guarded {
public:
    explicit GuardedString(const std::string &text) : Guarded(text + '\0') {}
    const char *c_str() const { return data(); }
};

#endif
