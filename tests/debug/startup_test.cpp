// SPDX-License-Identifier: ISC
// The start of all facilities in one call, its failures and its repetition.

#include <bv/db.h>
#include <bv/debug.h>
#include <bv/notifier.h>
#include <bv/os.h>

#include "support/capture_stdout.h"
#include "support/child.h"
#include "support/libc.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

bool g_debug_was_up; // when the first thread was started
bool g_database_was_up;

std::atomic<int> g_delivered{0};

void count_event(void *, uint32_t)
{
    ++g_delivered;
}

// Whether a posted event reaches its callback, which needs the dispatch thread.
bool notifier_runs()
{
    int before = g_delivered;
    bv_notifier_reg(5, count_event);
    bv_notifier_send(5, "x", 1);
    return eventually([before] { return g_delivered > before; });
}

int32_t start_without_database_table()
{
    CaptureStdout quiet;
    FailAllocation second(2); // the first is the switch table
    int32_t result = bv_libraries_init();
    EXPECT_TRUE(second.happened());
    return result;
}

} // namespace

BV_INTERPOSE(pthread_create, "pthread_create", int,
             (pthread_t * thread, const pthread_attr_t *attr, void *(*start)(void *),
              void *argument))
{
    static bool first = true;
    if (first) {
        g_debug_was_up = bv_debug_get_switch(0, 0) == 0;
        g_database_was_up = g_st_db_mng.table != nullptr;
    }
    first = false;
    return BV_NEXT(pthread_create)(thread, attr, start, argument);
}

TEST(StartUp, BringsUpEveryFacilityAndPrintsNothing)
{
    CaptureStdout output;
    EXPECT_EQ(bv_libraries_init(), 0);
    EXPECT_EQ(output.stop(), "");
    EXPECT_EQ(bv_debug_get_switch(3, 5), 0); // the switch table is there
    EXPECT_NE(g_st_db_mng.table, nullptr);   // and the database's
    EXPECT_EQ(bv_db_reg_user("family"), BV_OK);
    EXPECT_TRUE(notifier_runs());
    EXPECT_EQ(bv_time_tick_init(), 0);
    // Events may call back as soon as the notifier's threads run, and callbacks use the database.
    EXPECT_TRUE(g_debug_was_up) << "before the first thread";
    EXPECT_TRUE(g_database_was_up);
}

TEST(StartUp, FailureOfOneIsReturnedAndStopsNeitherTheOthersNorTheNextStart)
{
    EXPECT_EQ(start_without_database_table(), BV_ERR_MEMORY);
    EXPECT_EQ(bv_debug_get_switch(3, 5), 0);
    EXPECT_EQ(g_st_db_mng.table, nullptr);
    EXPECT_TRUE(notifier_runs());

    EXPECT_EQ(bv_libraries_init(), 0);
    EXPECT_NE(g_st_db_mng.table, nullptr);
    EXPECT_TRUE(notifier_runs());
}

TEST(StartUp, DebuggingComesFirstAndCannotFail)
{
    CaptureStdout quiet;
    bool refused;
    int32_t result;
    {
        FailAllocation first(1); // the switch table
        result = bv_libraries_init();
        refused = first.happened();
    }
    EXPECT_EQ(quiet.stop(), "malloc fail\n");
    EXPECT_TRUE(refused);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(bv_debug_get_switch(3, 5), 1); // everything is sent rather than nothing
    EXPECT_NE(g_st_db_mng.table, nullptr);
    EXPECT_TRUE(notifier_runs());
}

TEST(StartUp, WithoutAnySocketsItStillSucceeds)
{
    fault_socket.fail_always(EMFILE);
    EXPECT_EQ(bv_libraries_init(), 0);
    EXPECT_GE(fault_socket.calls(), 1);
    fault_socket.pass();
    EXPECT_TRUE(notifier_runs());
}

TEST(StartUp, SecondStartEmptiesDebuggingAndTheDatabaseAndKeepsTheThreads)
{
    ASSERT_EQ(bv_libraries_init(), 0);
    bv_debug_set_switch(4, 2, 1);
    ASSERT_NE(bv_db_hash_add("family"), nullptr);
    size_t threads = thread_count();

    EXPECT_EQ(bv_libraries_init(), 0);
    EXPECT_EQ(bv_debug_get_switch(4, 2), 0);
    EXPECT_EQ(bv_db_hash_find("family"), nullptr);
    EXPECT_EQ(thread_count(), threads); // one dispatcher, never two over one list
    EXPECT_TRUE(notifier_runs());
}

TEST(StartUp, SecondStartKeepsRegistrations)
{
    ASSERT_EQ(bv_libraries_init(), 0);
    bv_notifier_reg(7, count_event);
    ASSERT_EQ(bv_libraries_init(), 0);
    bv_notifier_send(7, "x", 1);
    EXPECT_TRUE(eventually([] { return g_delivered == 1; }));
}

// What a service prints must not go to a socket, nor may its input come from one.
TEST(StartUp, WithoutStandardStreamsTheirNumbersStayFree)
{
    EXPECT_EQ(run_in_child([] {
                  for (int fd = 0; fd < 3; fd++)
                      close(fd);
                  bv_libraries_init();
                  int taken = 0;
                  for (int fd = 0; fd < 3; fd++)
                      taken += fcntl(fd, F_GETFD) != -1;
                  return taken;
              }),
              0);
}
