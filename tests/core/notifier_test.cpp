// SPDX-License-Identifier: ISC
// The notifier between the threads of one process.

#include <bv/notifier.h>

#include <bv/status.h>

#include "support/capture_stdout.h"
#include "support/dirty_heap.h"
#include "support/faults.h"
#include "support/process.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

// What callbacks saw, in order: "name:length:payload and the byte after it".
class Log {
public:
    void add(const std::string &line)
    {
        std::lock_guard<std::mutex> guard(lock_);
        lines_.push_back(line);
    }

    Lines lines()
    {
        std::lock_guard<std::mutex> guard(lock_);
        return lines_;
    }

    // Waits for that many lines.
    bool reaches(size_t count)
    {
        return eventually([&] { return lines().size() >= count; });
    }

    void clear()
    {
        std::lock_guard<std::mutex> guard(lock_);
        lines_.clear();
    }

private:
    std::mutex lock_;
    Lines lines_;
};

Log &g_log = *new Log; // never destroyed: the dispatch thread outlives main()

std::string line_of(const char *name, const void *data, uint32_t length)
{
    return std::string(name) + ":" + std::to_string(length) + ":" +
           std::string(static_cast<const char *>(data), size_t{length} + 1);
}

std::string expected(const char *name, const std::string &payload)
{
    return line_of(name, payload.c_str(), static_cast<uint32_t>(payload.size()));
}

template <char Name>
void log_as(void *data, uint32_t length)
{
    g_log.add(line_of(std::string(1, Name).c_str(), data, length));
}

constexpr uint32_t kMarkerType = 13;

class Notifier : public testing::Test {
protected:
    void SetUp() override
    {
        dirty_heap();
        ASSERT_EQ(bv_notifier_init(), 0);
        // Registrations are permanent, also from test to test of one process.
        static const int32_t registered = bv_notifier_reg(kMarkerType, log_as<'m'>);
        ASSERT_EQ(registered, 0);
        g_log.clear();
    }

    static int32_t send(uint32_t type, const std::string &text)
    {
        return bv_notifier_send(type, text.data(), static_cast<uint32_t>(text.size()));
    }

    // Waits until all that has been sent so far is delivered, and takes what was logged for it.
    static Lines settle()
    {
        EXPECT_EQ(send(kMarkerType, "end"), 0);
        const std::string end = expected("m", "end");
        EXPECT_TRUE(eventually([&] {
            const Lines lines = g_log.lines();
            return !lines.empty() && lines.back() == end;
        }));
        Lines lines = g_log.lines();
        g_log.clear();
        lines.pop_back();
        return lines;
    }
};

int posts()
{
    int value = -1;
    sem_getvalue(&g_st_notifier_sem, &value);
    return value;
}

bool all_posts_are_consumed()
{
    return posts() == 0;
}

} // namespace

TEST(NotifierBeforeInit, NothingIsPostedOrRegistered)
{
    EXPECT_EQ(bv_notifier_send(1, "early", 5), -1);
    EXPECT_EQ(bv_notifier_reg(1, log_as<'a'>), 0);
    bv_notifier_kernel(2, nullptr, 0);
}

TEST_F(Notifier, EventReachesItsCallbacksInOrderOfRegistrationWithACopyOfItsPayload)
{
    bv_notifier_reg(1, log_as<'b'>);
    bv_notifier_reg(1, log_as<'a'>);
    bv_notifier_reg(1, log_as<'a'>); // twice: called twice
    char text[] = "before";
    EXPECT_EQ(bv_notifier_send(1, text, 6), 0);
    memcpy(text, "after!", 6);
    EXPECT_EQ(bv_notifier_send(1, text, 6), 0);
    Lines wanted;
    for (const char *payload : {"before", "after!"}) {
        for (const char *name : {"b", "a", "a"})
            wanted.push_back(expected(name, payload));
    }
    EXPECT_EQ(settle(), wanted);
}

TEST_F(Notifier, PayloadIsAlignedForAnyRecordOfEightByteFields)
{
    static std::atomic<unsigned> calls{0}, crooked{0};
    bv_notifier_reg(0, [](void *data, uint32_t) {
        calls++;
        crooked += reinterpret_cast<uintptr_t>(data) % 8 != 0;
    });
    for (size_t length = 0; length < 20; length++)
        send(0, std::string(length, 'x'));
    settle();
    EXPECT_EQ(calls, 20u);
    EXPECT_EQ(crooked, 0u);
}

TEST_F(Notifier, EveryTypeUpToThirteenHasCallbacksOfItsOwn)
{
    static uint32_t counts[14];
    // Filled on the dispatch thread, read after a marker event came through.
    for (uint32_t type = 0; type < 14; type++)
        bv_notifier_reg(type, [](void *data, uint32_t length) {
            if (length == 1)
                counts[*static_cast<uint8_t *>(data)]++;
        });
    for (uint8_t type = 0; type < 14; type++)
        bv_notifier_send(type, &type, 1);
    settle();
    for (uint32_t count : counts)
        EXPECT_EQ(count, 1u);
}

TEST_F(Notifier, EmptyAndNullPayloadsAreZeroBytesAndTerminated)
{
    bv_notifier_reg(3, log_as<'a'>);
    EXPECT_EQ(bv_notifier_send(3, "ignored", 0), 0);
    EXPECT_EQ(bv_notifier_send(3, nullptr, 0), 0);
    EXPECT_EQ(bv_notifier_send(3, nullptr, 5), 0);
    EXPECT_EQ(settle(),
              (Lines{expected("a", ""), expected("a", ""), expected("a", std::string(5, '\0'))}));
}

TEST_F(Notifier, EventsWithoutCallbacksAreConsumedSilently)
{
    CaptureStdout out;
    EXPECT_EQ(bv_notifier_reg(14, log_as<'a'>), 0);
    EXPECT_EQ(bv_notifier_reg(0xffffffff, log_as<'a'>), 0);
    EXPECT_EQ(bv_notifier_reg(7, nullptr), 0);
    for (uint32_t type : {6u, 7u, 14u, 0xffffffffu})
        EXPECT_EQ(send(type, "x"), 0);
    EXPECT_EQ(settle(), Lines{});
    EXPECT_EQ(out.stop(), "");
    EXPECT_TRUE(eventually(all_posts_are_consumed));
}

TEST_F(Notifier, SecondInitKeepsRegistrationsAndThreads)
{
    bv_notifier_reg(8, log_as<'a'>);
    const size_t threads = thread_count();
    EXPECT_EQ(bv_notifier_init(), 0);
    EXPECT_EQ(thread_count(), threads);
    send(8, "still");
    EXPECT_EQ(settle(), (Lines{expected("a", "still")}));
}

TEST_F(Notifier, CallbacksMayPostAndRegister)
{
    bv_notifier_reg(9, [](void *data, uint32_t length) {
        uint8_t left = *static_cast<uint8_t *>(data);
        g_log.add(std::to_string(left));
        if (left-- > 0)
            EXPECT_EQ(bv_notifier_send(9, &left, length), 0);
        else
            bv_notifier_reg(10, log_as<'a'>);
    });
    const uint8_t links = 3;
    bv_notifier_send(9, &links, 1);
    ASSERT_TRUE(eventually([] { return g_log.lines().size() >= 4; }));
    send(10, "then");
    EXPECT_EQ(settle(), (Lines{"3", "2", "1", "0", expected("a", "then")}));
}

TEST_F(Notifier, EventsPostedDuringASlowCallbackComeInOrderAndSurplusPostsDoNoHarm)
{
    static std::atomic<bool> release{false};
    bv_notifier_reg(11, [](void *data, uint32_t length) {
        while (!release)
            usleep(1000);
        g_log.add(line_of("slow", data, length));
    });
    Lines wanted;
    for (int i = 0; i < 100; i++) {
        send(11, std::to_string(i));
        wanted.push_back(expected("slow", std::to_string(i)));
    }
    release = true;
    EXPECT_EQ(settle(), wanted); // one round, a hundred posts

    for (int i = 0; i < 10; i++)
        sem_post(&g_st_notifier_sem);
    send(11, "after");
    EXPECT_EQ(settle(), (Lines{expected("slow", "after")}));
    EXPECT_TRUE(eventually(all_posts_are_consumed));
}

TEST_F(Notifier, WithoutMemoryEventsAndRegistrationsAreLost)
{
    CaptureStdout refusal;
    {
        FailAllocation next(1);
        EXPECT_EQ(bv_notifier_reg(0, log_as<'a'>), 0);
        EXPECT_TRUE(next.happened());
    }
    bv_notifier_reg(0, log_as<'b'>);
    ASSERT_TRUE(eventually(all_posts_are_consumed));
    {
        FailAllocation next(1);
        EXPECT_EQ(bv_notifier_send(0, "lost", 4), -1);
        EXPECT_TRUE(next.happened());
    }
    EXPECT_TRUE(all_posts_are_consumed());
    send(0, "x");
    EXPECT_EQ(settle(), (Lines{expected("b", "x")}));
}

TEST_F(Notifier, LargestEventFillsOneAllocationAndLongerOnesAreRefused)
{
    static std::atomic<uint32_t> seen{0};
    bv_notifier_reg(4, [](void *, uint32_t length) { seen = length; });
    const uint32_t header = 2 * sizeof(void *) + 8;
    const uint32_t largest = 1310720 - header - 1;
    std::string text(largest + 1, 'e');
    EXPECT_EQ(bv_notifier_send(4, text.data(), largest), 0);
    settle();
    EXPECT_EQ(seen, largest);

    CaptureStdout refusal;
    EXPECT_EQ(bv_notifier_send(4, text.data(), largest + 1), -1);
    EXPECT_EQ(bv_notifier_send(4, text.data(), 0xffffffff), -1); // length + 1 is not 0
    EXPECT_EQ(bv_notifier_send(4, nullptr, 0u - header), -1);    // nor is the sum 1
}

TEST_F(Notifier, SignalToTheDispatchThreadLosesNothing)
{
    static std::atomic<pthread_t> dispatcher{};
    static std::atomic<bool> known{false};
    bv_notifier_reg(7, [](void *, uint32_t) {
        dispatcher = pthread_self();
        known = true;
    });
    struct sigaction action = {}; // without SA_RESTART: it ends the wait
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    send(7, "x");
    ASSERT_TRUE(eventually([] { return known.load(); }));

    bv_notifier_reg(7, log_as<'a'>);
    for (int i = 0; i < 20; i++) {
        pthread_kill(dispatcher, SIGUSR1);
        usleep(1000);
    }
    send(7, "alive");
    EXPECT_EQ(settle(), (Lines{expected("a", "alive")}));
}

TEST_F(Notifier, EventsOfEightThreadsArriveOnceAndInEachThreadsOrder)
{
    constexpr uint32_t kThreads = 8, kEvents = 5000;
    struct Mark {
        uint32_t thread, number;
    };
    static uint32_t next[kThreads];
    static std::atomic<uint32_t> total{0}, wrong{0};
    memset(next, 0, sizeof(next));
    bv_notifier_reg(5, [](void *data, uint32_t length) {
        if (length != sizeof(Mark))
            return;
        Mark mark;
        memcpy(&mark, data, sizeof(mark));
        wrong += mark.number != next[mark.thread]++;
        total++;
    });

    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; t++) {
        threads.emplace_back([t] {
            for (uint32_t n = 0; n < kEvents; n++) {
                const Mark mark = {t, n};
                bv_notifier_send(5, &mark, sizeof(mark));
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_TRUE(eventually([] { return total == kThreads * kEvents; }, 60000)) << total;
    EXPECT_EQ(wrong, 0u);
}

TEST_F(Notifier, CallbacksRegisteredWhileEventsFlowAreCalledOnceAnEvent)
{
    static std::atomic<bool> done{false};
    std::thread sender([] {
        while (!done) { // at a pace that the dispatch thread can keep, however slow it is
            if (posts() < 100)
                bv_notifier_send(2, "x", 1);
            else
                usleep(100);
        }
    });
    static std::atomic<uint32_t> calls{0};
    for (int i = 0; i < 200; i++)
        bv_notifier_reg(2, [](void *, uint32_t) { calls++; });
    usleep(1000);
    done = true;
    sender.join();
    g_log.clear();
    settle();
    calls = 0;
    bv_notifier_send(2, "x", 1);
    EXPECT_TRUE(eventually([] { return calls >= 200; }));
    g_log.clear();
    settle();
    EXPECT_EQ(calls, 200u);
}
