#include "support/faults.h"

#include <cerrno>
#include <dlfcn.h>

namespace {

thread_local unsigned t_countdown; // 0: nothing is to fail
thread_local bool t_happened;
size_t g_failing_size; // 0: none; all threads
unsigned g_size_happened;
bool g_realloc_fails;
unsigned g_realloc_happened;

} // namespace

// These are called before a sanitizer has set itself up, which is why they are not instrumented,
// and use built-in atomics: the library's are functions that would be.
#define UNINSTRUMENTED __attribute__((no_sanitize("address", "thread", "undefined")))

extern "C" UNINSTRUMENTED void *malloc(size_t size)
{
    using Malloc = void *(size_t);
    static Malloc *real;
    Malloc *next = __atomic_load_n(&real, __ATOMIC_ACQUIRE);
    if (next == nullptr) {
        next = reinterpret_cast<Malloc *>(dlsym(RTLD_NEXT, "malloc"));
        __atomic_store_n(&real, next, __ATOMIC_RELEASE);
    }

    if (t_countdown != 0 && --t_countdown == 0) {
        t_happened = true;
        errno = ENOMEM;
        return nullptr;
    }
    if (size != 0 && size == __atomic_load_n(&g_failing_size, __ATOMIC_SEQ_CST)) {
        __atomic_fetch_add(&g_size_happened, 1, __ATOMIC_SEQ_CST);
        errno = ENOMEM;
        return nullptr;
    }
    return next(size);
}

extern "C" UNINSTRUMENTED void *realloc(void *block, size_t size)
{
    using Realloc = void *(void *, size_t);
    static Realloc *real;
    Realloc *next = __atomic_load_n(&real, __ATOMIC_ACQUIRE);
    if (next == nullptr) {
        next = reinterpret_cast<Realloc *>(dlsym(RTLD_NEXT, "realloc"));
        __atomic_store_n(&real, next, __ATOMIC_RELEASE);
    }

    if (__atomic_load_n(&g_realloc_fails, __ATOMIC_SEQ_CST)) {
        __atomic_fetch_add(&g_realloc_happened, 1, __ATOMIC_SEQ_CST);
        errno = ENOMEM;
        return nullptr;
    }
    return next(block, size);
}

FailAllocation::FailAllocation(unsigned nth)
{
    t_happened = false;
    t_countdown = nth;
}

FailAllocation::~FailAllocation()
{
    t_countdown = 0;
}

bool FailAllocation::happened() const
{
    return t_happened;
}

FailAllocationsOfSize::FailAllocationsOfSize(size_t size)
{
    __atomic_store_n(&g_size_happened, 0, __ATOMIC_SEQ_CST);
    __atomic_store_n(&g_failing_size, size, __ATOMIC_SEQ_CST);
}

FailAllocationsOfSize::~FailAllocationsOfSize()
{
    __atomic_store_n(&g_failing_size, 0, __ATOMIC_SEQ_CST);
}

unsigned FailAllocationsOfSize::happened() const
{
    return __atomic_load_n(&g_size_happened, __ATOMIC_SEQ_CST);
}

FailReallocations::FailReallocations()
{
    __atomic_store_n(&g_realloc_happened, 0, __ATOMIC_SEQ_CST);
    __atomic_store_n(&g_realloc_fails, true, __ATOMIC_SEQ_CST);
}

FailReallocations::~FailReallocations()
{
    __atomic_store_n(&g_realloc_fails, false, __ATOMIC_SEQ_CST);
}

unsigned FailReallocations::happened() const
{
    return __atomic_load_n(&g_realloc_happened, __ATOMIC_SEQ_CST);
}
