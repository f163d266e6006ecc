// SPDX-License-Identifier: ISC
// What the fuzz targets share: taking an input apart, blocks that end where their bytes end, and
// checks that end the process.
#ifndef BV_TESTS_FUZZ_INPUT_H
#define BV_TESTS_FUZZ_INPUT_H

#include "support/files.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv); // called once, where there is one
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition);         \
            abort();                                                                               \
        }                                                                                          \
    } while (false)

namespace fuzz {

// The bytes of one input, taken from the front. After the end everything is zero or empty.
class Input {
public:
    Input(const uint8_t *data, size_t size) : next_(data), left_(size) {}

    bool empty() const { return left_ == 0; }

    uint8_t byte()
    {
        if (left_ == 0)
            return 0;
        --left_;
        return *next_++;
    }

    uint32_t word()
    {
        uint32_t value = 0;
        for (int i = 0; i < 4; ++i)
            value = value << 8 | byte();
        return value;
    }

    // So many bytes, or all that are left.
    std::string take(size_t count)
    {
        count = std::min(count, left_);
        std::string bytes(reinterpret_cast<const char *>(next_), count);
        next_ += count;
        left_ -= count;
        return bytes;
    }

    // Exactly so many, with zeros for those that are missing.
    std::string fixed(size_t count)
    {
        std::string bytes = take(count);
        bytes.resize(count);
        return bytes;
    }

    // Up to 255 bytes with their length in front.
    std::string piece()
    {
        const size_t length = byte();
        return take(length);
    }

    std::string rest() { return take(left_); }

private:
    const uint8_t *next_;
    size_t left_;
};

// A heap block of exactly so many bytes: the sanitizer sees the first read past its end.
class Block {
public:
    explicit Block(size_t size, uint8_t fill = 0xa5)
        : size_(size), bytes_(static_cast<uint8_t *>(malloc(size)))
    {
        FUZZ_CHECK(bytes_ != nullptr || size == 0);
        if (size > 0)
            memset(bytes_, fill, size);
    }
    explicit Block(const std::string &bytes) : Block(bytes.size())
    {
        if (!bytes.empty())
            memcpy(bytes_, bytes.data(), bytes.size());
    }
    ~Block() { free(bytes_); }
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;

    size_t size() const { return size_; }
    uint8_t *bytes() { return bytes_; }
    char *text() { return reinterpret_cast<char *>(bytes_); }
    template <typename T>
    T *as()
    {
        return reinterpret_cast<T *>(bytes_);
    }

private:
    size_t size_;
    uint8_t *bytes_;
};

// Reads every byte, so that the sanitizer sees each address.
inline unsigned touch(const void *data, size_t length)
{
    const auto *bytes = static_cast<const volatile uint8_t *>(data);
    unsigned sum = 0;
    for (size_t i = 0; i < length; ++i)
        sum += bytes[i];
    return sum;
}

// For code that prints: output would only slow it down.
inline void silence_output()
{
    FUZZ_CHECK(freopen("/dev/null", "w", stdout) != nullptr);
}

} // namespace fuzz

#endif
