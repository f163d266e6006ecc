// SPDX-License-Identifier: ISC
// The switches of the debug channel.

#include <bv/debug.h>
#include <bv/os.h>

#include "support/capture_stdout.h"
#include "support/dirty_heap.h"
#include "support/faults.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

namespace {

std::string dump()
{
    CaptureStdout output;
    EXPECT_EQ(bv_debug_dump_cfg_switch(), 0);
    return output.stop();
}

std::string line(unsigned module, unsigned level)
{
    char text[64];
    snprintf(text, sizeof text, "Module(0x%02x) Level(%u) Switch(ON)\n", module, level);
    return text;
}

} // namespace

TEST(DebugSwitches, AllAreOnBeforeInitWhateverIsStored)
{
    bv_debug_set_switch(3, 5, 0);
    std::string all;
    for (unsigned module = 0; module < 10; ++module)
        for (unsigned level = 0; level < 8; ++level)
            all += line(module, level);
    EXPECT_EQ(dump(), all);
    EXPECT_EQ(bv_debug_get_switch(3, 5), 1);
    EXPECT_EQ(bv_debug_get_switch(10, 0), 1) << "outside the table too";
    EXPECT_EQ(bv_debug_get_switch(0xffffffff, 0xffffffff), 1);
}

TEST(DebugSwitches, AllAreOffAfterInit)
{
    dirty_heap();
    ASSERT_EQ(bv_debug_init(), 0);
    for (unsigned module = 0; module < 10; ++module)
        for (unsigned level = 0; level < 8; ++level)
            EXPECT_EQ(bv_debug_get_switch(module, level), 0) << module << " " << level;
    EXPECT_EQ(dump(), "");
}

TEST(DebugSwitches, EachHasAByteOfItsOwn)
{
    ASSERT_EQ(bv_debug_init(), 0);
    for (unsigned index = 0; index < 80; ++index)
        bv_debug_set_switch(index / 8, index % 8, static_cast<uint8_t>(index + 1));
    for (unsigned index = 0; index < 80; ++index)
        EXPECT_EQ(bv_debug_get_switch(index / 8, index % 8), index + 1);
}

TEST(DebugSwitches, DumpNamesThoseThatAreOn)
{
    ASSERT_EQ(bv_debug_init(), 0);
    bv_debug_set_switch(4, 2, 1);
    EXPECT_EQ(dump(), "Module(0x04) Level(2) Switch(ON)\n");
    bv_debug_set_switch(0, 7, 200); // any value but 0 is on
    bv_debug_set_switch(9, 0, 1);
    EXPECT_EQ(dump(), line(0, 7) + line(4, 2) + line(9, 0));
    bv_debug_set_switch(4, 2, 0);
    EXPECT_EQ(dump(), line(0, 7) + line(9, 0));
    ASSERT_EQ(bv_debug_init(), 0);
    EXPECT_EQ(dump(), "") << "a second start turns all off";
}

TEST(DebugSwitches, RecordsReadAndStoreThemToo)
{
    ASSERT_EQ(bv_debug_init(), 0);
    bv_debug_switch record = {7, 2, 4};
    EXPECT_EQ(bv_debug_set_cfg_switch(&record), 0);
    EXPECT_EQ(bv_debug_get_switch(4, 2), 7);
    record.value = 0;
    EXPECT_EQ(bv_debug_get_cfg_switch(&record), 0);
    EXPECT_EQ(record.value, 7);
    EXPECT_EQ(record.level, 2);
    EXPECT_EQ(record.module, 4);
    EXPECT_EQ(bv_debug_set_cfg_switch(nullptr), 0);
    EXPECT_EQ(bv_debug_get_cfg_switch(nullptr), 0);
}

TEST(DebugSwitches, ModuleTimesEightPlusLevelIsThePlaceInTheTable)
{
    ASSERT_EQ(bv_debug_init(), 0);
    bv_debug_set_switch(1, 10, 5); // 1 * 8 + 10 is also 2 * 8 + 2
    EXPECT_EQ(bv_debug_get_switch(2, 2), 5);
    EXPECT_EQ(bv_debug_get_switch(0, 18), 5);
}

TEST(DebugSwitches, NumbersOutsideTheTableReadAsOffAndStoreNothing)
{
    dirty_heap();
    ASSERT_EQ(bv_debug_init(), 0);
    const struct {
        uint32_t module, level;
    } outside[] = {{10, 0}, {9, 8}, {0, 80}, {0xffffffff, 0}, {0x20000000, 0}, {0, 0xffffffff}};
    for (const auto &at : outside) {
        EXPECT_EQ(bv_debug_get_switch(at.module, at.level), 0) << at.module << " " << at.level;
        bv_debug_set_switch(at.module, at.level, 1);
        EXPECT_EQ(bv_debug_get_switch(at.module, at.level), 0) << at.module << " " << at.level;
    }
    EXPECT_EQ(dump(), "");
}

TEST(DebugSwitches, WithoutMemoryForTheTableAllStayOn)
{
    CaptureStdout output;
    int32_t result;
    bool refused;
    {
        FailAllocation next(1);
        result = bv_debug_init();
        refused = next.happened();
    }
    EXPECT_EQ(output.stop(), "malloc fail\n");
    EXPECT_TRUE(refused);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(bv_debug_get_switch(3, 5), 1);
    bv_debug_set_switch(3, 5, 0);
    EXPECT_EQ(bv_debug_get_switch(3, 5), 1);
}

// The value stored last is read; the sanitisers look for races.
TEST(DebugSwitches, MayBeFlippedWhileOthersRead)
{
    ASSERT_EQ(bv_debug_init(), 0);
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop) {
            uint8_t value = bv_debug_get_switch(1, 1);
            if (value != 0 && value != 0xff)
                ADD_FAILURE() << unsigned{value};
        }
    });
    for (int i = 0; i < 10000; ++i)
        bv_debug_set_switch(1, 1, i % 2 == 0 ? 0xff : 0);
    stop = true;
    reader.join();
    EXPECT_EQ(bv_debug_get_switch(1, 1), 0);
}
