#include "support/faults.h"

#include <atomic>
#include <cerrno>
#include <dlfcn.h>

namespace {

thread_local unsigned t_countdown; // 0: nothing is to fail
thread_local bool t_happened;
std::atomic<size_t> g_failing_size; // 0: none
std::atomic<unsigned> g_size_happened;

bool must_fail(size_t size)
{
    if (t_countdown != 0 && --t_countdown == 0) {
        t_happened = true;
        return true;
    }
    if (size != 0 && size == g_failing_size.load()) {
        g_size_happened++;
        return true;
    }
    return false;
}

} // namespace

extern "C" void *malloc(size_t size)
{
    static std::atomic<void *(*)(size_t)> real;
    if (real.load() == nullptr)
        real.store(reinterpret_cast<void *(*)(size_t)>(dlsym(RTLD_NEXT, "malloc")));

    if (must_fail(size)) {
        errno = ENOMEM;
        return nullptr;
    }
    return real.load()(size);
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
    g_size_happened = 0;
    g_failing_size = size;
}

FailAllocationsOfSize::~FailAllocationsOfSize()
{
    g_failing_size = 0;
}

unsigned FailAllocationsOfSize::happened() const
{
    return g_size_happened.load();
}
