// Bytes that end right in front of an unreadable page: reading one too many kills the test.
#ifndef BV_TESTS_COMPAT_UBOX_GUARDED_H
#define BV_TESTS_COMPAT_UBOX_GUARDED_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

class Guarded {
public:
    explicit Guarded(const std::vector<uint8_t> &bytes) : size_(bytes.size())
    {
        size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        size_t readable = (size_ / page + 1) * page;
        total_ = readable + page;
        void *map =
            mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (map == MAP_FAILED)
            abort();
        base_ = static_cast<uint8_t *>(map);
        start_ = base_ + readable - size_;
        if (size_ > 0)
            memcpy(start_, bytes.data(), size_);
        if (mprotect(base_, readable, PROT_READ) != 0 ||
            mprotect(base_ + readable, page, PROT_NONE) != 0)
            abort();
    }
    ~Guarded() { munmap(base_, total_); }
    Guarded(const Guarded &) = delete;
    Guarded &operator=(const Guarded &) = delete;

    uint8_t *data() const { return start_; }
    size_t size() const { return size_; }
    struct blob_attr *attr() const { return reinterpret_cast<struct blob_attr *>(start_); }

private:
    uint8_t *base_;
    uint8_t *start_;
    size_t size_;
    size_t total_;
};

#endif
