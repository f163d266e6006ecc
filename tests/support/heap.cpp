#include "support/heap.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>

namespace {

constexpr size_t kMostBlocks = 64;

struct Block {
    const void *address;
    size_t size;
    unsigned position; // among those given back, from 1; 0: not yet
    bool unlinked;
};

// Noting must not ask for memory itself.
Block g_blocks[kMostBlocks];
size_t g_taken;
unsigned g_given_back;
std::atomic<bool> g_watching;
std::atomic_flag g_lock = ATOMIC_FLAG_INIT; // guards the three above it
thread_local bool t_noting;
thread_local unsigned t_countdown;

struct Guard {
    Guard()
    {
        while (g_lock.test_and_set()) {
        }
    }
    ~Guard() { g_lock.clear(); }
};

void note_taken(const void *address, size_t size)
{
    Guard guard;
    if (g_taken == kMostBlocks)
        abort();
    g_blocks[g_taken++] = {address, size, 0, false};
}

void note_given_back(const void *address)
{
    Guard guard;
    for (size_t i = 0; i < g_taken; i++) {
        Block &block = g_blocks[i];
        if (block.address != address || block.position != 0)
            continue;
        block.position = ++g_given_back;
        const void *const nothing[2] = {nullptr, nullptr};
        block.unlinked =
            block.size >= sizeof(nothing) && memcmp(address, nothing, sizeof(nothing)) == 0;
        return;
    }
}

template <typename Function>
Function *behind(std::atomic<Function *> &known, const char *name)
{
    if (known == nullptr)
        known = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
    return known;
}

using Malloc = void *(size_t);
using Free = void(void *);
std::atomic<Malloc *> g_malloc;
std::atomic<Free *> g_free;

} // namespace

extern "C" void *watched_malloc(size_t size) __asm__("malloc");
extern "C" void *watched_malloc(size_t size)
{
    if (!t_noting)
        return behind(g_malloc, "malloc")(size);
    if (t_countdown != 0 && --t_countdown == 0) {
        errno = ENOMEM;
        return nullptr;
    }
    void *block = behind(g_malloc, "malloc")(size);
    note_taken(block, size);
    return block;
}

extern "C" void watched_free(void *block) __asm__("free");
extern "C" void watched_free(void *block)
{
    if (block != nullptr && g_watching)
        note_given_back(block);
    behind(g_free, "free")(block);
}

HeapWatch::HeapWatch(unsigned refused)
{
    g_taken = 0;
    g_given_back = 0;
    g_watching = true;
    t_countdown = refused;
    t_noting = true;
}

HeapWatch::~HeapWatch()
{
    stop();
    g_watching = false;
}

void HeapWatch::stop()
{
    t_noting = false;
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
