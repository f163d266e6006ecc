// SPDX-License-Identifier: ISC
// Calls made to fail on purpose, and calls counted.
//
// The library calls libc through the dynamic linker, so a function of the same name in the test
// program comes first. bv_add_test() says what a program interposes:
//
//     INTERPOSES heap   malloc() and its kind: FailAllocation and its kin, HeapWatch, fault_malloc
//     INTERPOSES libc   every other call that the library makes and that can fail; see libc.h
//
// A program's own function (BV_INTERPOSE, BV_FAULT_POINT) takes the place of one in that list.
#ifndef BV_TESTS_SUPPORT_FAULTS_H
#define BV_TESTS_SUPPORT_FAULTS_H

#include <cerrno>
#include <cstddef>
#include <dlfcn.h>
#include <vector>

// Some of these functions run before a sanitizer has set itself up. They use built-in atomics, as
// the library's are functions that a sanitizer instruments.
#define BV_UNINSTRUMENTED __attribute__((no_sanitize("address", "thread", "undefined")))

// The next function of that name after this program's own.
template <typename Function>
BV_UNINSTRUMENTED Function *next_function(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

template <typename Function>
BV_UNINSTRUMENTED Function *next_function(Function *&known, const char *name)
{
    Function *next = __atomic_load_n(&known, __ATOMIC_ACQUIRE);
    if (next == nullptr) {
        next = next_function<Function>(name);
        __atomic_store_n(&known, next, __ATOMIC_RELEASE);
    }
    return next;
}

// BV_INTERPOSE(name, symbol, result, (parameters)) { body } puts a function in front of libc's
// `symbol`; in its body BV_NEXT(name) is the real one, and BV_CALLER who called.
#define BV_INTERPOSE(name, symbol, result, parameters)                                             \
    namespace {                                                                                    \
    result(*g_next_##name) parameters;                                                             \
    constexpr char kSymbol_##name[] = symbol;                                                      \
    }                                                                                              \
    extern "C" result bv_in_front_##name parameters __asm__(symbol);                               \
    extern "C" BV_UNINSTRUMENTED result bv_in_front_##name parameters
#define BV_NEXT(name) next_function(g_next_##name, kSymbol_##name)
#define BV_CALLER __builtin_return_address(0)

// The symbols on 32-bit machines: of functions with 64-bit offsets, and of those with 64-bit times,
// which each C library names in its own way.
#if defined(__LP64__)
#define BV_LARGE(name) name
#define BV_TIMED(name, musl, glibc) name
#elif defined(__GLIBC__)
#define BV_LARGE(name) name "64"
#define BV_TIMED(name, musl, glibc) glibc
#else
#define BV_LARGE(name) name
#define BV_TIMED(name, musl, glibc) musl
#endif

// Decides about the calls of one function and counts them: those of all threads, the test's own
// included. Of use before its constructor ran: nothing fails then.
class FaultPoint {
public:
    explicit FaultPoint(const char *name = "", int error = EIO);

    // The nth call from now fails, once; errno is `error`, or 0 for the usual one.
    void fail_next(int nth = 1, int error = 0) { set(nth, error); }
    // Every call fails until pass().
    void fail_always(int error = 0) { set(kAlways, error); }
    // Calls go through again and are counted from 0.
    void pass() { set(0, 0); }

    // Calls, and how many of them failed, since the last of the three above.
    int calls() const { return __atomic_load_n(&calls_, __ATOMIC_SEQ_CST); }
    int failures() const { return __atomic_load_n(&failures_, __ATOMIC_SEQ_CST); }
    const char *name() const { return name_; }

    // For the function in front: counts a call and tells whether it fails, with errno set.
    bool fails(const void *caller = nullptr);

    // All of them.
    static const std::vector<FaultPoint *> &all();

    // From now on only calls out of our own code count: this program, the library and the
    // stand-ins. json-c and libcrypto do not survive each failure of their own.
    static void count_ours_only();
    // Whether the three are stand-ins. In a platform's own libraries nothing fails.
    static bool has_all_stand_ins();

private:
    static constexpr int kAlways = -1;
    void set(int nth, int error);

    const char *name_;
    int usual_error_;
    int error_ = 0;
    int failing_ = 0; // this call, counted from 1; or kAlways
    int calls_ = 0;
    int failures_ = 0;
};

bool called_by_ours(const void *caller);

// BV_FAULT_POINT(symbol, result, (parameters), (arguments), failure) interposes a function and
// defines fault_<symbol>.
#define BV_FAULT_POINT(symbol, result, parameters, arguments, failure)                             \
    BV_FAULT_POINT_AS(symbol, #symbol, result, parameters, arguments, failure, EIO)
#define BV_FAULT_POINT_AS(name, symbol, result, parameters, arguments, failure, error)             \
    FaultPoint fault_##name(#name, error);                                                         \
    BV_INTERPOSE(name, symbol, result, parameters)                                                 \
    {                                                                                              \
        if (fault_##name.fails(BV_CALLER))                                                         \
            return failure;                                                                        \
        return BV_NEXT(name) arguments;                                                            \
    }                                                                                              \
    static_assert(true, "")

// ---- the heap ----

extern FaultPoint fault_malloc, fault_calloc, fault_realloc;

// While it lives, the nth malloc() from now on (1 is the next) made by this thread returns null.
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

    unsigned happened() const; // how many were refused
};

// While it lives, every realloc() returns null, in all threads: nothing can grow.
class FailReallocations {
public:
    FailReallocations() { fault_realloc.fail_always(); }
    ~FailReallocations() { fault_realloc.pass(); }
    FailReallocations(const FailReallocations &) = delete;
    FailReallocations &operator=(const FailReallocations &) = delete;

    int happened() const { return fault_realloc.failures(); } // how many were refused
};

// Notes the blocks that this thread takes from now until stop(), and who gives them back later,
// whichever thread that is. One at a time; only the library may be called before stop(). Not in a
// sanitised build, whose run-time does not survive a free() of the program's own.
class HeapWatch {
public:
    // The nth block asked for is refused; 0 refuses none.
    explicit HeapWatch(unsigned refused = 0);
    ~HeapWatch();
    HeapWatch(const HeapWatch &) = delete;
    HeapWatch &operator=(const HeapWatch &) = delete;

    void stop();

    std::vector<size_t> taken() const;            // their sizes, in order
    std::vector<const void *> given_back() const; // their addresses, in order of giving back

    // Whether the two pointers at the start of a block were null when it was given back.
    bool unlinked(const void *block) const;
};

// Called before each malloc(), with null, and each free(), with its block.
extern void (*g_heap_hook)(const void *freed);

// Notes the blocks that our own code takes, in all threads, from now on; and how many of them are
// not given back yet. Only our own calls count from then on.
void watch_our_blocks();
int our_blocks();

#endif
