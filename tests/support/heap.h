// Blocks taken from the heap and given back, as libc sees it. A program that uses this has
// support/heap.cpp among its sources, which defines malloc() and free() for the whole process; the
// start of a sanitizer's run-time does not survive that, so it is built without.
#ifndef BV_TESTS_SUPPORT_HEAP_H
#define BV_TESTS_SUPPORT_HEAP_H

#include <cstddef>
#include <vector>

// Notes the blocks that this thread takes from now until stop(), and from then on who gives them
// back, whichever thread that is. One at a time; nothing but the library may be called before
// stop().
class HeapWatch {
public:
    // The nth block asked for is refused; 0 refuses none.
    explicit HeapWatch(unsigned refused = 0);
    ~HeapWatch();
    HeapWatch(const HeapWatch &) = delete;
    HeapWatch &operator=(const HeapWatch &) = delete;

    void stop();

    // Sizes of the blocks taken, in order.
    std::vector<size_t> taken() const;

    // Addresses of those blocks that were given back, in that order.
    std::vector<const void *> given_back() const;

    // Whether the two pointers at the start of a block were null when it was given back.
    bool unlinked(const void *block) const;
};

#endif
