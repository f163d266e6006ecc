/* SPDX-License-Identifier: ISC */
#include <bv/queue.h>

#include <bv/os.h>
#include <bv/status.h>

#include "support/capture_stdout.h"
#include "support/dirty_heap.h"
#include "support/faults.h"
#include "support/sanitized.h"

#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <numeric>
#include <sched.h>
#include <string>
#include <thread>
#include <vector>

BV_FAULT_POINT(pthread_mutex_init, int, (pthread_mutex_t * mutex, const pthread_mutexattr_t *attr),
               (mutex, attr), EAGAIN);
BV_FAULT_POINT(pthread_mutex_destroy, int, (pthread_mutex_t * mutex), (mutex), EBUSY);

namespace {

// A message's fields before its payload, as one allocation holds them.
struct MessageHeader {
    bv_list_head link;
    uint32_t length;
};

constexpr uint32_t kLargestPayload = 1310720 - sizeof(MessageHeader);

// A queue of its own for each test, drained and freed at the end.
class Queue : public testing::Test {
protected:
    void TearDown() override
    {
        if (queue == nullptr)
            return;
        std::string largest(kLargestPayload, '?');
        while (bv_queue_recv(queue, &largest[0], 1) == BV_OK) {
        }
        EXPECT_EQ(bv_queue_free(&queue), BV_OK);
    }

    void make(uint32_t max) { ASSERT_EQ(bv_queue_init(&queue, max), BV_OK); }

    uint32_t send(const std::string &text)
    {
        return bv_queue_send(queue, text.data(), static_cast<uint32_t>(text.size()));
    }

    // The next message, which must have this size; empty when there is none.
    std::string receive(size_t size)
    {
        std::string out(size, '?');
        return bv_queue_recv(queue, &out[0], static_cast<uint32_t>(size)) == BV_OK ? out : "";
    }

    void expect_state(uint32_t count, uint32_t dropped)
    {
        EXPECT_EQ(queue->count, count);
        EXPECT_EQ(queue->dropped, dropped);
        EXPECT_EQ(queue->messages.next == &queue->messages, count == 0);
    }

    bv_queue *queue = nullptr;
};

} // namespace

TEST_F(Queue, NewQueueIsEmpty)
{
    dirty_heap();
    make(3);
    EXPECT_EQ(queue->messages.next, &queue->messages);
    EXPECT_EQ(queue->messages.prev, &queue->messages);
    EXPECT_EQ(queue->max, 3u);
    expect_state(0, 0);
}

TEST_F(Queue, FailedInitLeavesTheCallersPointerAlone)
{
    EXPECT_EQ(bv_queue_init(nullptr, 3), BV_ERR_NULL);

    CaptureStdout refusal;
    bv_queue *const before = reinterpret_cast<bv_queue *>(&refusal);
    bv_queue *out = before;
    FailAllocation next(1);
    EXPECT_EQ(bv_queue_init(&out, 3), BV_ERR_MEMORY);
    EXPECT_EQ(out, before);
}

TEST_F(Queue, MessagesComeOutInOrderWithExactlyTheirBytes)
{
    make(10);
    std::string all_bytes(256, '\0');
    std::iota(all_bytes.begin(), all_bytes.end(), '\0');
    ASSERT_EQ(send("first"), BV_OK);
    ASSERT_EQ(send(all_bytes), BV_OK);
    ASSERT_EQ(send("x"), BV_OK);
    expect_state(3, 0);

    EXPECT_EQ(receive(5), "first");
    EXPECT_EQ(receive(256), all_bytes);
    EXPECT_EQ(receive(1), "x");
    expect_state(0, 0);
}

TEST_F(Queue, MessageIsACopy)
{
    make(1);
    std::string text = "before";
    ASSERT_EQ(send(text), BV_OK);
    text.replace(0, 6, "after!");
    EXPECT_EQ(receive(6), "before");
}

TEST_F(Queue, ReceivingFromAnEmptyQueueLeavesTheBufferUntouched)
{
    make(1);
    char buffer[] = "abcd";
    EXPECT_EQ(bv_queue_recv(queue, buffer, 4), BV_ERR_EMPTY);
    EXPECT_STREQ(buffer, "abcd");
}

TEST_F(Queue, FullQueueRefusesNewMessagesAndCountsThem)
{
    make(2);
    ASSERT_EQ(send("1"), BV_OK);
    ASSERT_EQ(send("2"), BV_OK);
    for (uint32_t dropped : {1u, 2u}) {
        EXPECT_EQ(send("refused"), BV_ERR_FULL);
        expect_state(2, dropped);
    }

    EXPECT_EQ(receive(1), "1");
    EXPECT_EQ(send("5"), BV_OK);
    EXPECT_EQ(receive(1), "2");
    EXPECT_EQ(receive(1), "5");
    expect_state(0, 2);
}

TEST_F(Queue, DroppedStopsAtItsTopValue)
{
    make(0);
    queue->dropped = UINT32_MAX - 1;
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(send("1"), BV_ERR_FULL);
        EXPECT_EQ(queue->dropped, UINT32_MAX);
    }
}

TEST_F(Queue, FullQueueRefusesWithoutLockAndWithoutAllocation)
{
    make(0);
    ASSERT_EQ(pthread_mutex_lock(&queue->lock), 0); // a send that took it would never return
    FailAllocation next(1);
    EXPECT_EQ(bv_queue_send(queue, "a", 1), BV_ERR_FULL);
    EXPECT_FALSE(next.happened());
    pthread_mutex_unlock(&queue->lock);
}

TEST_F(Queue, BadArgumentsHaveOneCodeInSendAndAnotherInReceiveOnPurpose)
{
    make(0); // full and empty at once: arguments are looked at first
    char byte = 'a';
    EXPECT_EQ(bv_queue_send(nullptr, &byte, 1), BV_ERR_NULL);
    EXPECT_EQ(bv_queue_send(queue, nullptr, 1), BV_ERR_NULL);
    EXPECT_EQ(bv_queue_send(queue, &byte, 0), BV_ERR_NULL);
    EXPECT_EQ(bv_queue_recv(nullptr, &byte, 1), BV_ERR_INVALID);
    EXPECT_EQ(bv_queue_recv(queue, nullptr, 1), BV_ERR_INVALID);
    EXPECT_EQ(bv_queue_recv(queue, &byte, 0), BV_ERR_INVALID);
    expect_state(0, 0);
}

TEST_F(Queue, SendWithoutMemoryLeavesTheQueueAsItWas)
{
    make(2);
    {
        CaptureStdout refusal;
        FailAllocation next(1);
        EXPECT_EQ(bv_queue_send(queue, "a", 1), BV_ERR_MEMORY);
        EXPECT_TRUE(next.happened());
        EXPECT_EQ(refusal.stop(), "malloc fail\n") << "the allocator's line, and no other";
    }
    expect_state(0, 0);
    EXPECT_EQ(send("a"), BV_OK);
    EXPECT_EQ(receive(1), "a");
}

TEST_F(Queue, LargestMessageFillsOneAllocationAndLongerOnesAreRefused)
{
    make(1);
    const std::string largest(kLargestPayload, 'q');
    ASSERT_EQ(send(largest), BV_OK);
    EXPECT_EQ(receive(kLargestPayload), largest);

    CaptureStdout refusal;
    const uint32_t wraps = 0u - static_cast<uint32_t>(sizeof(MessageHeader)) + 1; // 2^32 + 1 in all
    for (uint32_t length : {kLargestPayload + 1, 0xffffffffu, wraps})
        EXPECT_EQ(bv_queue_send(queue, largest.data(), length), BV_ERR_MEMORY) << length;
    expect_state(0, 0);
}

TEST_F(Queue, ReceiveWritesTheWholeMessageWhateverSizeItIsGivenOnPurpose)
{
    make(2);
    char buffer[] = "--------";
    ASSERT_EQ(send("abcdef"), BV_OK);
    EXPECT_EQ(bv_queue_recv(queue, buffer, 1), BV_OK);
    EXPECT_STREQ(buffer, "abcdef--");
    ASSERT_EQ(send("xy"), BV_OK);
    EXPECT_EQ(bv_queue_recv(queue, buffer, sizeof(buffer)), BV_OK);
    EXPECT_STREQ(buffer, "xycdef--");
}

TEST_F(Queue, FreeTakesTheQueueAway)
{
    make(1);
    EXPECT_EQ(bv_queue_free(&queue), BV_OK);
    EXPECT_EQ(queue, nullptr);
    EXPECT_EQ(bv_queue_free(&queue), BV_ERR_NULL);
    EXPECT_EQ(bv_queue_free(nullptr), BV_ERR_NULL);
}

TEST_F(Queue, FreeAbandonsWaitingMessagesOnPurpose)
{
    make(2);
    ASSERT_EQ(send("kept"), BV_OK);
    ASSERT_EQ(send("also"), BV_OK);
    bv_list_head *first = queue->messages.next;
    bv_list_head *second = first->next;
    EXPECT_EQ(bv_queue_free(&queue), BV_OK);

    // Still whole, and ours to free: had they been freed, the allocator would end the process.
    EXPECT_EQ(memcmp(reinterpret_cast<MessageHeader *>(first) + 1, "kept", 4), 0);
    EXPECT_EQ(memcmp(reinterpret_cast<MessageHeader *>(second) + 1, "also", 4), 0);
    bv_os_free(first);
    bv_os_free(second);
}

// ---- what happens while the lock is held: libc's functions look ----

namespace {

bv_queue *g_watched;          // the queue whose lock is looked at, or null
bv_queue g_freed;             // that queue, as it was when its memory was freed
unsigned g_outside, g_inside; // calls seen while that lock was free, and while it was held

// Counts a call on the side of the lock where it happens.
void note_call(const void *freed)
{
    if (g_watched == nullptr)
        return;
    if (pthread_mutex_trylock(&g_watched->lock) != 0) {
        g_inside++;
        return;
    }
    pthread_mutex_unlock(&g_watched->lock);
    g_outside++;
    if (freed == g_watched)
        memcpy(&g_freed, freed, sizeof(g_freed));
}

class QueueLock : public Queue {
protected:
    void SetUp() override
    {
        if (kSanitized)
            GTEST_SKIP() << "a sanitizer's run-time does not survive a free() of ours";
        make(4);
        g_heap_hook = note_call;
    }

    template <typename Call>
    void watch(unsigned calls_outside, Call call)
    {
        g_outside = g_inside = 0;
        g_watched = queue;
        const uint32_t result = call();
        g_watched = nullptr;
        EXPECT_EQ(result, BV_OK);
        EXPECT_EQ(g_inside, 0u);
        EXPECT_EQ(g_outside, calls_outside);
    }
};

} // namespace

BV_INTERPOSE(memcpy_s, "memcpy_s", int, (void *to, size_t size, const void *from, size_t count))
{
    note_call(nullptr);
    return BV_NEXT(memcpy_s)(to, size, from, count);
}

TEST_F(QueueLock, IsNotHeldWhileMessagesAreAllocatedCopiedAndFreed)
{
    char buffer[] = "???";
    watch(2, [&] { return bv_queue_send(queue, "abc", 3); });  // an allocation, a copy
    watch(2, [&] { return bv_queue_recv(queue, buffer, 3); }); // a copy, a free
    EXPECT_STREQ(buffer, "abc");
}

TEST_F(QueueLock, IsFreeAfterEveryResult)
{
    char byte;
    EXPECT_EQ(bv_queue_recv(queue, &byte, 1), BV_ERR_EMPTY);
    EXPECT_EQ(pthread_mutex_trylock(&queue->lock), 0);
    pthread_mutex_unlock(&queue->lock);
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(send("m"), BV_OK);
    EXPECT_EQ(send("m"), BV_ERR_FULL);
    EXPECT_EQ(pthread_mutex_trylock(&queue->lock), 0);
    pthread_mutex_unlock(&queue->lock);
}

TEST_F(QueueLock, FreeInitialisesItAgainAndDoesNotDestroyIt)
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
        send("m"); // one too many
    bv_list_head *waiting[4] = {queue->messages.next};
    for (int i = 1; i < 4; i++)
        waiting[i] = waiting[i - 1]->next;
    expect_state(4, 1);

    g_freed.count = g_freed.max = g_freed.dropped = 4711;
    watch(1, [&] { return bv_queue_free(&queue); });
    EXPECT_EQ(g_freed.count, 0u);
    EXPECT_EQ(g_freed.max, 0u);
    EXPECT_EQ(g_freed.dropped, 0u);
    for (bv_list_head *message : waiting)
        free(message);
}

// ---- several producers and consumers ----

namespace {

struct Ticket {
    uint32_t producer;
    uint32_t number;
};

constexpr uint32_t kProducers = 4;
constexpr uint32_t kConsumers = 4;
constexpr uint32_t kEach = (kSanitized ? 100000 : 1000000) / kProducers;

struct Stress {
    bv_queue *queue = nullptr;
    std::atomic<uint32_t> refused{0};
    std::atomic<uint32_t> received{0};
    std::vector<std::atomic<uint8_t>> seen = std::vector<std::atomic<uint8_t>>(kProducers * kEach);
    std::atomic<uint32_t> out_of_order{0};
};

void produce(Stress &stress, uint32_t producer)
{
    for (uint32_t number = 0; number < kEach; number++) {
        const Ticket ticket = {producer, number};
        while (bv_queue_send(stress.queue, &ticket, sizeof(ticket)) != BV_OK) {
            stress.refused++;
            sched_yield();
        }
    }
}

void consume(Stress &stress)
{
    int64_t last[kProducers] = {-1, -1, -1, -1};
    while (stress.received < kProducers * kEach) {
        Ticket ticket;
        if (bv_queue_recv(stress.queue, &ticket, sizeof(ticket)) != BV_OK) {
            sched_yield();
            continue;
        }
        if (ticket.number <= last[ticket.producer])
            stress.out_of_order++;
        last[ticket.producer] = ticket.number;
        stress.seen[ticket.producer * kEach + ticket.number]++;
        stress.received++;
    }
}

template <typename Body>
void run_threads(uint32_t count, std::vector<std::thread> &threads, Body body)
{
    for (uint32_t i = 0; i < count; i++)
        threads.emplace_back([=] { body(i); });
}

void join_all(std::vector<std::thread> &threads)
{
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace

// Any one consumer sees the messages of one producer in their order.
TEST(QueueStress, MillionMessagesOfSeveralThreadsArriveOnceEach)
{
    Stress stress;
    ASSERT_EQ(bv_queue_init(&stress.queue, 1000), BV_OK);
    std::vector<std::thread> threads;
    run_threads(kConsumers, threads, [&stress](uint32_t) { consume(stress); });
    run_threads(kProducers, threads, [&stress](uint32_t i) { produce(stress, i); });
    join_all(threads);

    uint32_t wrong = 0;
    for (const std::atomic<uint8_t> &times : stress.seen)
        wrong += times != 1;
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(stress.out_of_order, 0u);
    EXPECT_EQ(stress.received, kProducers * kEach);
    EXPECT_EQ(stress.queue->dropped, stress.refused);
    EXPECT_EQ(stress.queue->count, 0u);
    EXPECT_EQ(bv_queue_free(&stress.queue), BV_OK);
}

TEST_F(Queue, RacingSendersPassTheLimitByAtMostTheirNumber)
{
    constexpr uint32_t kSenders = 4, kMax = 8;
    make(kMax);
    std::atomic<uint32_t> accepted{0}, refused{0};
    std::vector<std::thread> threads;
    run_threads(kSenders, threads, [&](uint32_t) {
        for (int n = 0; n < 1000; n++)
            (bv_queue_send(queue, "m", 1) == BV_OK ? accepted : refused)++;
    });
    join_all(threads);

    EXPECT_GE(queue->count, kMax);
    EXPECT_LT(queue->count, kMax + kSenders);
    expect_state(accepted, refused);
}
