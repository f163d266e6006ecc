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

} // namespace


extern "C" int watched_sem_wait(sem_t *sem) __asm__("sem_wait");
extern "C" int watched_sem_wait(sem_t *sem)
{
    static const auto next = next_function<int(sem_t *)>("sem_wait");
    if (sem == &g_st_notifier_sem)
        step("wait");
    return next(sem);
}

namespace {

int g_semaphores; // made for the notifier
int g_shared = -1;
unsigned g_initial = ~0u;

} // namespace

extern "C" int watched_sem_init(sem_t *sem, int shared, unsigned value) __asm__("sem_init");
extern "C" int watched_sem_init(sem_t *sem, int shared, unsigned value)
{
    static const auto next = next_function<int(sem_t *, int, unsigned)>("sem_init");
    if (sem == &g_st_notifier_sem) {
        g_semaphores++;
        g_shared = shared;
        g_initial = value;
    }
    return next(sem, shared, value);
}

TEST(NotifierFaults, TheSemaphoreIsPrivateToTheProcessAndStartsAtZero)
{
    fault_socket.fail_always();
    ASSERT_EQ(bv_notifier_init(), 0);
    ASSERT_EQ(bv_notifier_init(), 0); // another one would lose the posts of the first
    EXPECT_EQ(g_semaphores, 1);
    EXPECT_EQ(g_shared, 0);
    EXPECT_EQ(g_initial, 0u);
}

TEST(NotifierFaults, InitIsFineWithoutTheDriver)
{
    fault_socket.fail_always(EPROTONOSUPPORT);
    EXPECT_EQ(bv_notifier_init(), 0);
    EXPECT_EQ(fault_socket.calls(), 1);
    bv_notifier_reg(1, deliver);
    EXPECT_EQ(bv_notifier_send(1, "own", 3), 0);
    EXPECT_TRUE(eventually([] { return steps() == Steps({"wait", "own", "wait"}); }));
}

TEST(NotifierFaults, WithoutItsThreadInitSucceedsAndNothingIsPosted)
{
    fault_socket.fail_always();
    fault_pthread_create.fail_always(EAGAIN);
    EXPECT_EQ(bv_notifier_init(), 0);
    EXPECT_EQ(bv_notifier_send(1, "lost", 4), -1);
    EXPECT_EQ(fault_pthread_create.calls(), 1);
    EXPECT_EQ(steps(), Steps{});
}

TEST(NotifierFaults, InitAfterAFailedThreadStartsIt)
{
    fault_socket.fail_always();
    fault_pthread_create.fail_next(1, EAGAIN);
    ASSERT_EQ(bv_notifier_init(), 0);
    ASSERT_EQ(bv_notifier_init(), 0);
    bv_notifier_reg(1, deliver);
    EXPECT_EQ(bv_notifier_send(1, "again", 5), 0);
    EXPECT_TRUE(eventually([] { return steps() == Steps({"wait", "again", "wait"}); }));
}

TEST(NotifierFaults, FurtherInitsTryTheDriverAgain)
{
    fault_socket.fail_always(EPROTONOSUPPORT);
    ASSERT_EQ(bv_notifier_init(), 0);
    ASSERT_EQ(bv_notifier_init(), 0);
    EXPECT_EQ(fault_socket.calls(), 2);
    EXPECT_EQ(fault_pthread_create.calls(), 1);
}

TEST(NotifierFaults, TheResultOfASendIsThatOfItsPostAndTheEventWaitsForTheNext)
{
    fault_socket.fail_always();
    ASSERT_EQ(bv_notifier_init(), 0);
    bv_notifier_reg(1, deliver);
    ASSERT_TRUE(waits_after(0));

    fault_sem_post.fail_next(1, EOVERFLOW);
    EXPECT_EQ(bv_notifier_send(1, "first", 5), -1);
    EXPECT_EQ(bv_notifier_send(1, "second", 6), 0);
    EXPECT_TRUE(waits_after(2));
    EXPECT_EQ(steps(), Steps({"wait", "first", "second", "wait"}));
}

TEST(NotifierFaults, AnInterruptedWaitLooksAtTheListToo)
{
    static std::atomic<pthread_t> dispatcher{};
    fault_socket.fail_always();
    ASSERT_EQ(bv_notifier_init(), 0);
    bv_notifier_reg(1, [](void *data, uint32_t length) {
        dispatcher = pthread_self();
        deliver(data, length);
    });
    bv_notifier_send(1, "known", 5);
    ASSERT_TRUE(waits_after(1));

    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    fault_sem_post.fail_next(1, EOVERFLOW);
    ASSERT_EQ(bv_notifier_send(1, "unposted", 8), -1);
    EXPECT_TRUE(eventually([] {
        pthread_kill(dispatcher, SIGUSR1);
        return steps().size() >= 4 && steps()[3] == "unposted";
    }));
}

TEST(NotifierFaults, WhatTheLastCallbackOfARoundPostsWaitsForItsOwnPost)
{
    fault_socket.fail_always();
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
