#include <bv/queue.h>

#include <bv/os.h>
#include <bv/status.h>

#include "support/capture.h"
#include "support/dirty_heap.h"
#include "support/faults.h"
#include "support/sanitized.h"

#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <sched.h>
#include <string>
#include <thread>
#include <vector>

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
        drain();
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
        if (bv_queue_recv(queue, &out[0], static_cast<uint32_t>(size)) != BV_OK)
            return "";
        return out;
    }

    void drain()
    {
        std::unique_ptr<char[]> buffer(new char[kLargestPayload]);
        while (bv_queue_recv(queue, buffer.get(), 1) == BV_OK) {
        }
    }

    bv_queue *queue = nullptr;
};

} // namespace

TEST_F(Queue, ANewQueueIsEmpty)
{
    dirty_heap();
    make(3);
    EXPECT_EQ(queue->messages.next, &queue->messages);
    EXPECT_EQ(queue->messages.prev, &queue->messages);
    EXPECT_EQ(queue->count, 0u);
    EXPECT_EQ(queue->max, 3u);
    EXPECT_EQ(queue->dropped, 0u);
}

TEST_F(Queue, InitNeedsAPlaceForTheQueue)
{
    EXPECT_EQ(bv_queue_init(nullptr, 3), BV_ERR_NULL);
}

TEST_F(Queue, InitWithoutMemoryLeavesTheCallersPointerAlone)
{
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
    const std::string all_bytes = [] {
        std::string bytes;
        for (int i = 0; i < 256; i++)
            bytes.push_back(static_cast<char>(i));
        return bytes;
    }();
    ASSERT_EQ(send("first"), BV_OK);
    ASSERT_EQ(send(all_bytes), BV_OK);
    ASSERT_EQ(send("x"), BV_OK);
    EXPECT_EQ(queue->count, 3u);

    EXPECT_EQ(receive(5), "first");
    EXPECT_EQ(receive(256), all_bytes);
    EXPECT_EQ(receive(1), "x");
    EXPECT_EQ(queue->count, 0u);
    EXPECT_EQ(queue->messages.next, &queue->messages);
}

TEST_F(Queue, TheMessageIsACopy)
{
    make(1);
    char text[] = "before";
    ASSERT_EQ(bv_queue_send(queue, text, sizeof(text)), BV_OK);
    memcpy(text, "after!", sizeof(text));
    EXPECT_STREQ(receive(sizeof(text)).c_str(), "before");
}

TEST_F(Queue, AnEmptyQueueLeavesTheBufferUntouched)
{
    make(1);
    char buffer[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(bv_queue_recv(queue, buffer, sizeof(buffer)), BV_ERR_EMPTY);
    EXPECT_EQ(memcmp(buffer, "abcd", 4), 0);
}

TEST_F(Queue, TheDepthLimitRefusesTheNewMessageAndCountsIt)
{
    make(2);
    ASSERT_EQ(send("1"), BV_OK);
    ASSERT_EQ(send("2"), BV_OK);
    EXPECT_EQ(send("3"), BV_ERR_FULL);
    EXPECT_EQ(queue->dropped, 1u);
    EXPECT_EQ(send("4"), BV_ERR_FULL);
    EXPECT_EQ(queue->dropped, 2u);
    EXPECT_EQ(queue->count, 2u);

    EXPECT_EQ(receive(1), "1");
    EXPECT_EQ(send("5"), BV_OK);
    EXPECT_EQ(receive(1), "2");
    EXPECT_EQ(receive(1), "5");
    EXPECT_EQ(queue->dropped, 2u);
}

TEST_F(Queue, WithADepthOfZeroEverySendFindsItFull)
{
    make(0);
    EXPECT_EQ(send("1"), BV_ERR_FULL);
    EXPECT_EQ(queue->dropped, 1u);
}

TEST_F(Queue, DroppedStopsAtItsTopValue)
{
    make(0);
    queue->dropped = UINT32_MAX - 1;
    EXPECT_EQ(send("1"), BV_ERR_FULL);
    EXPECT_EQ(queue->dropped, UINT32_MAX);
    EXPECT_EQ(send("2"), BV_ERR_FULL);
    EXPECT_EQ(queue->dropped, UINT32_MAX);
}

TEST_F(Queue, AFullQueueRefusesWithoutTakingTheLock)
{
    make(0);
    ASSERT_EQ(pthread_mutex_lock(&queue->lock), 0); // with the lock, the send would never return
    EXPECT_EQ(send("1"), BV_ERR_FULL);
    pthread_mutex_unlock(&queue->lock);
}

TEST_F(Queue, TheSameFaultHasOneCodeInSendAndAnotherInReceiveOnPurpose)
{
    make(1);
    char byte = 'a';
    EXPECT_EQ(bv_queue_send(nullptr, &byte, 1), BV_ERR_NULL);
    EXPECT_EQ(bv_queue_send(queue, nullptr, 1), BV_ERR_NULL);
    EXPECT_EQ(bv_queue_send(queue, &byte, 0), BV_ERR_NULL);
    EXPECT_EQ(bv_queue_recv(nullptr, &byte, 1), BV_ERR_INVALID);
    EXPECT_EQ(bv_queue_recv(queue, nullptr, 1), BV_ERR_INVALID);
    EXPECT_EQ(bv_queue_recv(queue, &byte, 0), BV_ERR_INVALID);
    EXPECT_EQ(queue->count, 0u);
    EXPECT_EQ(queue->dropped, 0u);
}

TEST_F(Queue, BadArgumentsAreFoundBeforeAFullOrAnEmptyQueue)
{
    make(0);
    EXPECT_EQ(bv_queue_send(queue, nullptr, 1), BV_ERR_NULL);
    EXPECT_EQ(queue->dropped, 0u);
    EXPECT_EQ(bv_queue_recv(queue, nullptr, 1), BV_ERR_INVALID);
}

TEST_F(Queue, FullIsFoundBeforeAMissingAllocation)
{
    make(0);
    FailAllocation next(1);
    EXPECT_EQ(bv_queue_send(queue, "a", 1), BV_ERR_FULL);
    EXPECT_FALSE(next.happened());
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
    EXPECT_EQ(queue->count, 0u);
    EXPECT_EQ(queue->dropped, 0u);
    EXPECT_EQ(queue->messages.next, &queue->messages);

    EXPECT_EQ(send("a"), BV_OK);
    EXPECT_EQ(receive(1), "a");
}

TEST_F(Queue, TheLargestMessageFillsOneAllocation)
{
    make(1);
    const std::string largest(kLargestPayload, 'q');
    ASSERT_EQ(send(largest), BV_OK);
    EXPECT_EQ(receive(kLargestPayload), largest);

    CaptureStdout refusal;
    EXPECT_EQ(bv_queue_send(queue, largest.data(), kLargestPayload + 1), BV_ERR_MEMORY);
    EXPECT_EQ(queue->count, 0u);
}

TEST_F(Queue, ALengthNear32BitsIsRefusedAndNotCutShort)
{
    make(1);
    CaptureStdout refusal;
    EXPECT_EQ(bv_queue_send(queue, "a", 0xffffffff), BV_ERR_MEMORY);
    EXPECT_EQ(bv_queue_send(queue, "a", 0u - static_cast<uint32_t>(sizeof(MessageHeader)) + 1),
              BV_ERR_MEMORY); // header and payload make 2^32 + 1
}

TEST_F(Queue, ReceiveWritesTheWholeMessageWhateverSizeItIsGivenOnPurpose)
{
    make(2);
    char buffer[8] = {};
    ASSERT_EQ(send("abcdef"), BV_OK);
    EXPECT_EQ(bv_queue_recv(queue, buffer, 1), BV_OK);
    EXPECT_STREQ(buffer, "abcdef");

    memset(buffer, '-', sizeof(buffer));
    ASSERT_EQ(send("xy"), BV_OK);
    EXPECT_EQ(bv_queue_recv(queue, buffer, sizeof(buffer)), BV_OK);
    EXPECT_EQ(memcmp(buffer, "xy------", 8), 0);
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
    ASSERT_EQ(send("too"), BV_OK);
    bv_list_head *first = queue->messages.next;
    bv_list_head *second = first->next;

    EXPECT_EQ(bv_queue_free(&queue), BV_OK);
    EXPECT_EQ(queue, nullptr);

    // Still whole, and ours to free: had they been freed, the allocator would end the process.
    EXPECT_EQ(memcmp(reinterpret_cast<MessageHeader *>(first) + 1, "kept", 4), 0);
    EXPECT_EQ(memcmp(reinterpret_cast<MessageHeader *>(second) + 1, "too", 3), 0);
    bv_os_free(first);
    bv_os_free(second);
}

// Several producers and consumers: every message arrives once, none twice, those of one producer
// in its order as any one consumer sees them, and dropped adds up.
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

} // namespace

TEST(QueueStress, AMillionMessagesOfSeveralThreadsArriveOnceEach)
{
    Stress stress;
    const uint32_t max = 1000;
    ASSERT_EQ(bv_queue_init(&stress.queue, max), BV_OK);

    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < kConsumers; i++)
        threads.emplace_back([&stress] { consume(stress); });
    for (uint32_t i = 0; i < kProducers; i++)
        threads.emplace_back([&stress, i] { produce(stress, i); });
    for (std::thread &thread : threads)
        thread.join();

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

TEST(QueueStress, RacingSendersPassTheLimitByTheirNumberAtMost)
{
    constexpr uint32_t kSenders = 4, kMax = 8;
    bv_queue *queue = nullptr;
    ASSERT_EQ(bv_queue_init(&queue, kMax), BV_OK);
    std::atomic<uint32_t> accepted{0}, refused{0};

    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < kSenders; i++) {
        threads.emplace_back([&] {
            for (int n = 0; n < 1000; n++)
                (bv_queue_send(queue, "m", 1) == BV_OK ? accepted : refused)++;
        });
    }
    for (std::thread &thread : threads)
        thread.join();

    EXPECT_GE(queue->count, kMax);
    EXPECT_LT(queue->count, kMax + kSenders);
    EXPECT_EQ(queue->count, accepted);
    EXPECT_EQ(queue->dropped, refused);
    char byte;
    while (bv_queue_recv(queue, &byte, 1) == BV_OK) {
    }
    EXPECT_EQ(bv_queue_free(&queue), BV_OK);
}
