// What happens inside the queue's lock and what does not, seen from libc's side: the calls that
// the library makes come through this program first.

#include <bv/queue.h>

#include <bv/status.h>

#include "support/faults.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

bv_queue *g_watched;          // the queue whose lock is looked at, or null
bv_queue g_freed;             // that queue, as it was when its memory was freed
unsigned g_outside, g_inside; // calls seen while that lock was free, and while it was held

// Counts a call on the side of the lock where it happens.
void note_call()
{
    if (g_watched == nullptr)
        return;
    if (pthread_mutex_trylock(&g_watched->lock) != 0) {
        g_inside++;
        return;
    }
    pthread_mutex_unlock(&g_watched->lock);
    g_outside++;
}

} // namespace

BV_FAULT_POINT(pthread_mutex_init, int, (pthread_mutex_t * mutex, const pthread_mutexattr_t *attr),
               (mutex, attr), EAGAIN);
BV_FAULT_POINT(pthread_mutex_destroy, int, (pthread_mutex_t * mutex), (mutex), EBUSY);

namespace {

using Copy = int(void *, size_t, const void *, size_t);
using Malloc = void *(size_t);
using Free = void(void *);
std::atomic<Copy *> g_memcpy_s;
std::atomic<Malloc *> g_malloc;
std::atomic<Free *> g_free;

// The function behind this program's own. Its place is no static of the function: that would
// itself want memory, in the middle of malloc().
template <typename Function>
Function *behind(std::atomic<Function *> &known, const char *name)
{
    if (known == nullptr)
        known = next_function<Function>(name);
    return known;
}

} // namespace

extern "C" int watched_memcpy_s(void *to, size_t size, const void *from,
                                size_t count) __asm__("memcpy_s");
extern "C" int watched_memcpy_s(void *to, size_t size, const void *from, size_t count)
{
    note_call();
    return behind(g_memcpy_s, "memcpy_s")(to, size, from, count);
}

extern "C" void watched_free(void *block) __asm__("free");
extern "C" void watched_free(void *block)
{
    note_call();
    if (block != nullptr && block == g_watched)
        memcpy(&g_freed, block, sizeof(g_freed));
    behind(g_free, "free")(block);
}

extern "C" void *watched_malloc(size_t size) __asm__("malloc");
extern "C" void *watched_malloc(size_t size)
{
    note_call();
    return behind(g_malloc, "malloc")(size);
}

namespace {

class QueueLock : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(bv_queue_init(&queue, 4), BV_OK); }
    void TearDown() override { bv_queue_free(&queue); }

    template <typename Call>
    uint32_t watch(Call call)
    {
        g_outside = g_inside = 0;
        g_watched = queue;
        const uint32_t result = call();
        g_watched = nullptr;
        return result;
    }

    bv_queue *queue = nullptr;
};

} // namespace

TEST_F(QueueLock, MessagesAreMadeAndCopiedInOutsideIt)
{
    EXPECT_EQ(watch([this] { return bv_queue_send(queue, "abc", 3); }), BV_OK);
    EXPECT_EQ(g_inside, 0u);
    EXPECT_EQ(g_outside, 2u) << "one allocation, one copy";

    char buffer[3];
    bv_queue_recv(queue, buffer, 3);
}

TEST_F(QueueLock, MessagesAreCopiedOutAndFreedOutsideIt)
{
    ASSERT_EQ(bv_queue_send(queue, "abc", 3), BV_OK);
    char buffer[3];
    EXPECT_EQ(watch([&] { return bv_queue_recv(queue, buffer, 3); }), BV_OK);
    EXPECT_EQ(g_inside, 0u);
    EXPECT_EQ(g_outside, 2u) << "one copy, one free";
    EXPECT_EQ(memcmp(buffer, "abc", 3), 0);
}

TEST_F(QueueLock, IsFreeAfterEveryResult)
{
    char byte;
    EXPECT_EQ(bv_queue_recv(queue, &byte, 1), BV_ERR_EMPTY);
    EXPECT_EQ(pthread_mutex_trylock(&queue->lock), 0);
    pthread_mutex_unlock(&queue->lock);

    for (int i = 0; i < 4; i++)
        EXPECT_EQ(bv_queue_send(queue, "m", 1), BV_OK);
    EXPECT_EQ(bv_queue_send(queue, "m", 1), BV_ERR_FULL);
    EXPECT_EQ(pthread_mutex_trylock(&queue->lock), 0);
    pthread_mutex_unlock(&queue->lock);

    for (int i = 0; i < 4; i++)
        EXPECT_EQ(bv_queue_recv(queue, &byte, 1), BV_OK);
}

TEST_F(QueueLock, FreeMakesItAnewAndDoesNotDestroyIt)
{
    fault_pthread_mutex_init.pass();
    fault_pthread_mutex_destroy.pass();
    ASSERT_EQ(bv_queue_free(&queue), BV_OK);
    EXPECT_EQ(fault_pthread_mutex_init.calls(), 1);
    EXPECT_EQ(fault_pthread_mutex_destroy.calls(), 0);
}

TEST_F(QueueLock, FreeClearsTheCountersBeforeTheRecordGoes)
{
    for (int i = 0; i < 5; i++)
        bv_queue_send(queue, "m", 1); // one too many
    char byte;
    for (int i = 0; i < 2; i++)
        bv_queue_recv(queue, &byte, 1);
    bv_list_head *first = queue->messages.next;
    bv_list_head *second = first->next;
    ASSERT_EQ(queue->count, 2u);
    ASSERT_EQ(queue->dropped, 1u);

    g_freed.count = g_freed.max = g_freed.dropped = 4711;
    EXPECT_EQ(watch([this] { return bv_queue_free(&queue); }), BV_OK);
    EXPECT_EQ(g_freed.count, 0u);
    EXPECT_EQ(g_freed.max, 0u);
    EXPECT_EQ(g_freed.dropped, 0u);
    free(first);
    free(second);
}
