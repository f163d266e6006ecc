// SPDX-License-Identifier: ISC
// The notifier where the system refuses it something, and the order in which its dispatch thread
// waits and delivers. Each test starts the notifier anew and so needs a process of its own, which
// CTest gives it.

#include <bv/notifier.h>

#include <bv/os.h>

#include "support/libc.h"
#include "support/process.h"

#include <atomic>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace {

// Waits and deliveries of the dispatch thread, in order. Never destroyed: that thread outlives
// main().
std::mutex &g_lock = *new std::mutex;
std::vector<std::string> &g_steps = *new std::vector<std::string>;

void step(const std::string &what)
{
    std::lock_guard<std::mutex> guard(g_lock);
    g_steps.push_back(what);
}

std::vector<std::string> steps()
{
    std::lock_guard<std::mutex> guard(g_lock);
    return g_steps;
}

bool waits_after(size_t deliveries)
{
    return eventually([=] {
        const std::vector<std::string> now = steps();
        size_t seen = 0;
        for (const std::string &what : now)
            seen += what != "wait";
        return seen == deliveries && !now.empty() && now.back() == "wait";
    });
}

void deliver(void *data, uint32_t length)
{
    step(std::string(static_cast<char *>(data), length));
}

using Steps = std::vector<std::string>;

std::vector<std::pair<int, unsigned>> g_semaphores; // made for the notifier: shared, value

// On a machine without the driver.
class NotifierFaults : public testing::Test {
protected:
    void SetUp() override { fault_socket.fail_always(EPROTONOSUPPORT); }

    static void start()
    {
        ASSERT_EQ(bv_notifier_init(), 0);
        bv_notifier_reg(1, deliver);
    }
};

} // namespace

BV_INTERPOSE(sem_wait, "sem_wait", int, (sem_t * sem))
{
    if (sem == &g_st_notifier_sem)
        step("wait");
    return BV_NEXT(sem_wait)(sem);
}

BV_INTERPOSE(sem_init, "sem_init", int, (sem_t * sem, int shared, unsigned value))
{
    if (sem == &g_st_notifier_sem)
        g_semaphores.push_back({shared, value});
    return BV_NEXT(sem_init)(sem, shared, value);
}

TEST_F(NotifierFaults, SemaphoreIsPrivateToTheProcessAndStartsAtZero)
{
    ASSERT_EQ(bv_notifier_init(), 0);
    ASSERT_EQ(bv_notifier_init(), 0); // another one would lose the posts of the first
    const std::vector<std::pair<int, unsigned>> one = {{0, 0}};
    EXPECT_EQ(g_semaphores, one);
}

TEST_F(NotifierFaults, InitSucceedsWithoutTheDriverAndTriesItAgain)
{
    start();
    EXPECT_EQ(fault_socket.calls(), 1);
    EXPECT_EQ(bv_notifier_send(1, "own", 3), 0);
    EXPECT_TRUE(eventually([] { return steps() == Steps({"wait", "own", "wait"}); }));

    fault_pthread_create.pass();
    ASSERT_EQ(bv_notifier_init(), 0);
    EXPECT_EQ(fault_socket.calls(), 2);
    EXPECT_EQ(fault_pthread_create.calls(), 0);
}

TEST_F(NotifierFaults, WithoutItsThreadInitSucceedsAndNothingIsPostedUntilTheNext)
{
    fault_pthread_create.fail_always(EAGAIN);
    start();
    EXPECT_EQ(bv_notifier_send(1, "lost", 4), -1);
    EXPECT_EQ(fault_pthread_create.calls(), 1);
    EXPECT_EQ(steps(), Steps{});

    fault_pthread_create.pass();
    start();
    EXPECT_EQ(bv_notifier_send(1, "again", 5), 0);
    EXPECT_TRUE(eventually([] { return steps() == Steps({"wait", "again", "wait"}); }));
}

TEST_F(NotifierFaults, FailedPostIsTheResultOfTheSendAndItsEventWaitsForTheNext)
{
    start();
    ASSERT_TRUE(waits_after(0));
    fault_sem_post.fail_next(1, EOVERFLOW);
    EXPECT_EQ(bv_notifier_send(1, "first", 5), -1);
    EXPECT_EQ(bv_notifier_send(1, "second", 6), 0);
    EXPECT_TRUE(waits_after(2));
    EXPECT_EQ(steps(), Steps({"wait", "first", "second", "wait"}));
}

TEST_F(NotifierFaults, InterruptedWaitLooksAtTheListToo)
{
    static std::atomic<pthread_t> dispatcher{};
    ASSERT_EQ(bv_notifier_init(), 0);
    bv_notifier_reg(1, [](void *data, uint32_t length) {
        dispatcher = pthread_self();
        deliver(data, length);
    });
    bv_notifier_send(1, "known", 5);
    ASSERT_TRUE(waits_after(1));

    struct sigaction action = {}; // without SA_RESTART
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    fault_sem_post.fail_next(1, EOVERFLOW);
    ASSERT_EQ(bv_notifier_send(1, "unposted", 8), -1);
    EXPECT_TRUE(eventually([] {
        pthread_kill(dispatcher, SIGUSR1);
        return steps().size() >= 4 && steps()[3] == "unposted";
    }));
}

TEST_F(NotifierFaults, WhatTheLastCallbackOfARoundPostsWaitsForItsOwnPost)
{
    ASSERT_EQ(bv_notifier_init(), 0);
    bv_notifier_reg(1, [](void *data, uint32_t length) {
        deliver(data, length);
        bv_notifier_send(2, "posted", 6);
    });
    bv_notifier_reg(2, deliver);
    bv_notifier_send(1, "outer", 5);
    ASSERT_TRUE(waits_after(2));
    EXPECT_EQ(steps(), Steps({"wait", "outer", "wait", "posted", "wait"}));
}
