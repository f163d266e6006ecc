/* SPDX-License-Identifier: ISC */
#include <bv/os.h>

#include "support/libc.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

void *give_back(void *argument)
{
    return argument;
}

void *detach_state(void *)
{
    pthread_attr_t attr;
    pthread_getattr_np(pthread_self(), &attr);
    int state = -1;
    pthread_attr_getdetachstate(&attr, &state);
    pthread_attr_destroy(&attr);
    return reinterpret_cast<void *>(static_cast<intptr_t>(state));
}

void *try_lock(void *mutex)
{
    auto *m = static_cast<pthread_mutex_t *>(mutex);
    return reinterpret_cast<void *>(static_cast<intptr_t>(bv_os_pthread_mutex_trylock(m)));
}

intptr_t result_of(void *(*start)(void *), void *argument)
{
    pthread_t thread;
    EXPECT_EQ(bv_os_pthread_create(&thread, nullptr, start, argument), 0);
    void *result = nullptr;
    EXPECT_EQ(bv_os_pthread_join(thread, &result), 0);
    return reinterpret_cast<intptr_t>(result);
}

// A sanitiser's own thread, where a build has one, is there once the first of ours has been.
size_t settled_thread_count()
{
    result_of(give_back, nullptr);
    return thread_count();
}

} // namespace

TEST(Threads, AreJoinableUnlessTheCallerAsksOtherwise)
{
    int value = 0;
    EXPECT_EQ(result_of(give_back, &value), reinterpret_cast<intptr_t>(&value));
    EXPECT_EQ(result_of(detach_state, nullptr), PTHREAD_CREATE_JOINABLE);
}

TEST(Threads, DetachedThreadsEndByThemselves)
{
    size_t before = settled_thread_count();
    pthread_t thread;
    ASSERT_EQ(bv_os_pthread_create(&thread, nullptr, give_back, nullptr), 0);
    EXPECT_EQ(bv_os_pthread_detach(thread), 0);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(bv_os_pthread_create(&thread, &attr, give_back, nullptr), 0);
    pthread_attr_destroy(&attr);
    EXPECT_TRUE(eventually([before] { return thread_count() <= before; }));
}

TEST(Threads, FailureIsTheErrorNumber)
{
    fault_pthread_create.fail_next();
    pthread_t thread;
    EXPECT_EQ(bv_os_pthread_create(&thread, nullptr, give_back, nullptr), EAGAIN);
#ifdef __GLIBC__ // others wait for themselves, for ever
    EXPECT_EQ(bv_os_pthread_join(pthread_self(), nullptr), EDEADLK);
#endif
}

TEST(Mutexes, ExcludeOtherThreads)
{
    pthread_mutex_t mutex;
    ASSERT_EQ(bv_os_pthread_mutex_init(&mutex, nullptr), 0);
    EXPECT_EQ(bv_os_pthread_mutex_lock(&mutex), 0);
    EXPECT_EQ(result_of(try_lock, &mutex), EBUSY);
    EXPECT_EQ(bv_os_pthread_mutex_unlock(&mutex), 0);
    EXPECT_EQ(bv_os_pthread_mutex_trylock(&mutex), 0);
    EXPECT_EQ(bv_os_pthread_mutex_unlock(&mutex), 0);
    EXPECT_EQ(bv_os_pthread_mutex_destroy(&mutex), 0);
}
