// Allocations made to fail. A program that uses this has support/faults.cpp among its sources:
// it defines malloc() and realloc() for the whole process.
#ifndef BV_TESTS_SUPPORT_FAULTS_H
#define BV_TESTS_SUPPORT_FAULTS_H

#include <cstddef>

// While it lives, the nth malloc() from now on (1 is the next) made by this thread returns null;
// those before and after it succeed.
class FailAllocation {
public:
    explicit FailAllocation(unsigned nth);
    ~FailAllocation();
    FailAllocation(const FailAllocation &) = delete;
    FailAllocation &operator=(const FailAllocation &) = delete;

    // Whether the allocation was asked for and refused.
    bool happened() const;
};

// While it lives, every malloc() of exactly this size returns null, in all threads.
class FailAllocationsOfSize {
public:
    explicit FailAllocationsOfSize(size_t size);
    ~FailAllocationsOfSize();
    FailAllocationsOfSize(const FailAllocationsOfSize &) = delete;
    FailAllocationsOfSize &operator=(const FailAllocationsOfSize &) = delete;

    // How many were refused.
    unsigned happened() const;
};

// While it lives, every realloc() returns null, in all threads: nothing can grow.
class FailReallocations {
public:
    FailReallocations();
    ~FailReallocations();
    FailReallocations(const FailReallocations &) = delete;
    FailReallocations &operator=(const FailReallocations &) = delete;

    // How many were refused.
    unsigned happened() const;
};

#endif
