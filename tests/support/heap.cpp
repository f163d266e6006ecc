// SPDX-License-Identifier: ISC
// malloc() and its kind, for programs that interpose the heap.

#include "support/faults.h"
#include "support/sanitized.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

FaultPoint fault_malloc("malloc", ENOMEM);
FaultPoint fault_calloc("calloc", ENOMEM);
FaultPoint fault_realloc("realloc", ENOMEM);

void (*g_heap_hook)(const void *);

namespace {

BV_UNINSTRUMENTED void run_hook(const void *freed)
{
    const auto hook = __atomic_load_n(&g_heap_hook, __ATOMIC_SEQ_CST);
    if (hook != nullptr)
        hook(freed);
}

// For FailAllocation and its kin.
thread_local unsigned t_countdown; // 0: nothing is to fail
thread_local bool t_happened;
size_t g_failing_size; // 0: none
unsigned g_size_happened;

BV_UNINSTRUMENTED bool is_refused(size_t size)
{
    if (t_countdown != 0 && --t_countdown == 0) {
        t_happened = true;
        return true;
    }
    if (size == 0 || size != __atomic_load_n(&g_failing_size, __ATOMIC_SEQ_CST))
        return false;
    __atomic_fetch_add(&g_size_happened, 1, __ATOMIC_SEQ_CST);
    return true;
}

// Blocks that are watched. Noting must not ask for memory itself.
struct Block {
    const void *address;
    size_t size;
    unsigned position; // among those given back, from 1; 0: not yet
    bool unlinked;
};
constexpr size_t kMostBlocks = 16384;
Block g_blocks[kMostBlocks];
size_t g_taken;
unsigned g_given_back;
std::atomic_flag g_lock = ATOMIC_FLAG_INIT; // guards the three above it

enum Watch { kNone, kThread, kOurs };
int g_watch; // whose blocks are noted
thread_local bool t_noting;

struct Guard {
    Guard()
    {
        while (g_lock.test_and_set()) {
        }
    }
    ~Guard() { g_lock.clear(); }
};

BV_UNINSTRUMENTED int watch()
{
    return __atomic_load_n(&g_watch, __ATOMIC_SEQ_CST);
}

void start(Watch whose)
{
    g_taken = 0;
    g_given_back = 0;
    __atomic_store_n(&g_watch, whose, __ATOMIC_SEQ_CST);
}

BV_UNINSTRUMENTED void note_taken(const void *caller, const void *address, size_t size)
{
    const int whose = watch();
    const bool noted = whose == kThread ? t_noting : whose == kOurs && called_by_ours(caller);
    if (!noted || address == nullptr)
        return;
    Guard guard;
    if (g_taken == kMostBlocks)
        abort();
    g_blocks[g_taken++] = {address, size, 0, false};
}

// By address: the last free() of another library's function seems to come from us when it is a
// tail call.
BV_UNINSTRUMENTED void note_given_back(const void *address)
{
    const int whose = watch();
    if (whose == kNone || address == nullptr)
        return;
    Guard guard;
    for (size_t i = g_taken; i-- > 0;) {
        Block &block = g_blocks[i];
        if (block.address != address || block.position != 0)
            continue;
        if (whose == kOurs) {
            block = g_blocks[--g_taken];
            return;
        }
        block.position = ++g_given_back;
        const void *const nothing[2] = {nullptr, nullptr};
        block.unlinked =
            block.size >= sizeof(nothing) && memcmp(address, nothing, sizeof(nothing)) == 0;
        return;
    }
}

} // namespace

BV_INTERPOSE(malloc, "malloc", void *, (size_t size))
{
    run_hook(nullptr);
    if (fault_malloc.fails(BV_CALLER) || is_refused(size)) {
        errno = ENOMEM;
        return nullptr;
    }
    void *block = BV_NEXT(malloc)(size);
    note_taken(BV_CALLER, block, size);
    return block;
}

BV_INTERPOSE(realloc, "realloc", void *, (void *old, size_t size))
{
    if (fault_realloc.fails(BV_CALLER))
        return nullptr;
    if (watch() != kOurs)
        return BV_NEXT(realloc)(old, size);
    note_given_back(old);
    void *block = BV_NEXT(realloc)(old, size);
    note_taken(BV_CALLER, block, size);
    return block;
}

// The start of a sanitizer calls these before it can survive ours.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
BV_INTERPOSE(calloc, "calloc", void *, (size_t n, size_t size))
{
    if (fault_calloc.fails(BV_CALLER))
        return nullptr;
    // dlsym() of older C libraries (glibc before 2.34) comes here itself, and does without.
    static thread_local bool looking;
    if (looking)
        return nullptr;
    looking = true;
    const auto next = BV_NEXT(calloc);
    looking = false;
    void *block = next(n, size);
    if (watch() == kOurs)
        note_taken(BV_CALLER, block, n * size);
    return block;
}

BV_INTERPOSE(free, "free", void, (void *block))
{
    run_hook(block);
    note_given_back(block);
    BV_NEXT(free)(block);
}
#endif

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

HeapWatch::HeapWatch(unsigned refused)
{
    start(kThread);
    t_countdown = refused;
    t_noting = true;
}

HeapWatch::~HeapWatch()
{
    stop();
    start(kNone);
}

void HeapWatch::stop()
{
    t_noting = false;
    t_countdown = 0;
}

std::vector<size_t> HeapWatch::taken() const
{
    std::vector<size_t> sizes(g_taken);
    for (size_t i = 0; i < sizes.size(); i++)
        sizes[i] = g_blocks[i].size;
    return sizes;
}

std::vector<const void *> HeapWatch::given_back() const
{
    std::vector<const void *> addresses(kMostBlocks);
    Guard guard;
    for (size_t i = 0; i < g_taken; i++) {
        if (g_blocks[i].position != 0)
            addresses[g_blocks[i].position - 1] = g_blocks[i].address;
    }
    addresses.resize(g_given_back);
    return addresses;
}

bool HeapWatch::unlinked(const void *address) const
{
    Guard guard;
    for (size_t i = 0; i < g_taken; i++) {
        if (g_blocks[i].address == address && g_blocks[i].position != 0)
            return g_blocks[i].unlinked;
    }
    return false;
}

void watch_our_blocks()
{
    FaultPoint::count_ours_only();
    start(kOurs);
}

int our_blocks()
{
    return static_cast<int>(g_taken);
}
