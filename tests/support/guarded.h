// Memory that ends where a page without access begins: reading or writing past it is fatal.
#ifndef BV_TESTS_SUPPORT_GUARDED_H
#define BV_TESTS_SUPPORT_GUARDED_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

class Guarded {
public:
    explicit Guarded(size_t size) : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE)))
    {
        span_ = (size + page_ - 1) / page_ * page_ + page_;
        base_ = mmap(nullptr, span_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (base_ == MAP_FAILED || mprotect(end(), page_, PROT_NONE) != 0)
            abort();
        data_ = end() - size;
    }
    explicit Guarded(const std::string &bytes) : Guarded(bytes.size())
    {
        memcpy(data_, bytes.data(), bytes.size());
    }
    ~Guarded() { munmap(base_, span_); }
    Guarded(const Guarded &) = delete;
    Guarded &operator=(const Guarded &) = delete;

    char *text() { return data_; }
    uint8_t *bytes() { return reinterpret_cast<uint8_t *>(data_); }

private:
    char *end() { return static_cast<char *>(base_) + span_ - page_; }

    size_t page_, span_;
    void *base_;
    char *data_;
};

#endif
