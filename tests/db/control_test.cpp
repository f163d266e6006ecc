// SPDX-License-Identifier: ISC
// Start, templates, restore, commits, triggers and dumps.

#include "db/database.h"

#include "support/capture_stdout.h"
#include "support/process.h"

#include <memory>
#include <sys/stat.h>

namespace {

// The data file of one family of one parameter with one instance.
std::string data_file(const std::string &name, int number, int value)
{
    return "{\n\t\"" + name + "\":[\n\t\t{\n\t\t\t\"inst\":\"" + std::to_string(number) +
           "\",\n\t\t\t\"para\":{\n\t\t\t\t\"id\":\"" + std::to_string(value) +
           "\"\n\t\t\t}\n\t\t}\n\t]\n}\n";
}

// One family in each list: "u", "p" and "f", an unsigned number with defaults 1, 2 and 3.
class DbControl : public Db {
protected:
    void SetUp() override
    {
        Db::SetUp();
        install("u", std::vector<Parameter>{{"id", "uint", 4, "1"}});
        install("p", std::vector<Parameter>{{"id", "uint", 4, "2"}});
        install("f", std::vector<Parameter>{{"id", "uint", 4, "3"}});
        bv_db_reg_user("u");
        bv_db_reg_private("p");
        bv_db_reg_factory("f");
    }

    static void put_data_files()
    {
        write_file(kUserFile, data_file("u", 1, 10));
        write_file(kPrivateFile, data_file("p", 1, 20));
        write_file(kFactoryFile, data_file("f", 1, 30));
    }

    static uint32_t value(const char *name, uint32_t number = 1)
    {
        uint32_t out = 0;
        return bv_db_read(name, &out, sizeof out, number) == BV_OK ? out : 0xdead;
    }

    static void set(const char *name, uint32_t number)
    {
        EXPECT_EQ(bv_db_write(name, &number, sizeof number, 1), BV_OK);
    }

    static int trigger(uint32_t command) { return bv_db_trigger(&command); }

    // Instance 1 of the families u, p and f, and how many instances they have in all.
    static void expect_values(uint32_t u, uint32_t p, uint32_t f, int instances)
    {
        EXPECT_EQ(value("u"), u);
        EXPECT_EQ(value("p"), p);
        EXPECT_EQ(value("f"), f);
        EXPECT_EQ(bv_db_inst_getnum("u") + bv_db_inst_getnum("p") + bv_db_inst_getnum("f"),
                  instances);
    }
};

TEST_F(DbControl, StartLoadsTheThreeDataFilesAndADamagedOneCostsItsOwnFamiliesOnly)
{
    EXPECT_EQ(bv_db_start(), 0);
    expect_values(1, 2, 3, 0);
    put_data_files();
    EXPECT_EQ(bv_db_start(), 0);
    expect_values(10, 20, 30, 3);
    write_file(kUserFile, data_file("u", 1, 10).substr(0, 40));
    EXPECT_EQ(bv_db_start(), 0);
    expect_values(1, 20, 30, 2);
}

TEST_F(DbControl, StartDropsWhatWasInMemory)
{
    put_data_files();
    bv_db_start();
    set("u", 11);
    uint32_t image = 5;
    bv_db_inst_add("u", &image, sizeof image, 2);
    bv_db_hash_add("stray");

    EXPECT_EQ(bv_db_start(), 0);
    expect_values(10, 20, 30, 3);
    EXPECT_EQ(bv_db_hash_find("stray"), nullptr);
}

TEST_F(DbControl, CommitsAreSkippedUntilReady)
{
    bv_db_start();
    write_file(kUserFile, "as it was");
    EXPECT_EQ(bv_db_commit(), 0);
    EXPECT_EQ(bv_db_private(), 0);
    EXPECT_EQ(read_file(kUserFile), "as it was");
    EXPECT_FALSE(file_exists(kPrivateFile));

    bv_db_ready();
    EXPECT_EQ(bv_db_commit(), 0);
    EXPECT_EQ(bv_db_private(), 0);
    EXPECT_EQ(read_file(kUserFile), data_file("u", 1, 1));
    EXPECT_EQ(read_file(kPrivateFile), data_file("p", 1, 2));
    EXPECT_FALSE(file_exists(kFactoryFile));
}

TEST_F(DbControl, ReadyStaysSetAndOnly1CountsAsReady)
{
    EXPECT_EQ(bv_db_status(), 0);
    for (int time = 0; time < 2; ++time) {
        EXPECT_EQ(bv_db_ready(), BV_OK);
        EXPECT_EQ(bv_db_status(), 1);
    }
    bv_db_start();
    g_st_db_mng.ready = 2;
    EXPECT_EQ(bv_db_commit(), 0);
    EXPECT_EQ(bv_db_private(), 0);
    EXPECT_FALSE(file_exists(kUserFile));
    EXPECT_FALSE(file_exists(kPrivateFile));
    EXPECT_EQ(bv_db_factory(), 0) << "needs no ready flag";
    EXPECT_EQ(read_file(kFactoryFile), data_file("f", 1, 3));
}

TEST_F(DbControl, WriteStatusIsReturned)
{
    bv_db_start();
    bv_db_ready();
    for (const char *path : {kUserFile, kPrivateFile, kFactoryFile})
        ASSERT_EQ(mkdir(path, 0755), 0);
    for (auto write : {bv_db_commit, bv_db_private, bv_db_factory})
        EXPECT_EQ(write(), BV_ERR_WRITE_OPEN);
    for (uint32_t command : {1, 2, 3})
        EXPECT_EQ(trigger(command), BV_ERR_WRITE_OPEN) << command;
}

TEST_F(DbControl, CommittedInstancesAreBackAfterTheNextStart)
{
    bv_db_start();
    bv_db_ready();
    uint32_t image = 4000000000u;
    EXPECT_EQ(bv_db_inst_add("u", &image, sizeof image, 1), BV_OK);
    image = 6;
    EXPECT_EQ(bv_db_inst_add("u", &image, sizeof image, 9), BV_OK);
    EXPECT_EQ(bv_db_commit(), 0);

    ASSERT_EQ(bv_db_init(), BV_OK); // as a new process would
    bv_db_reg_user("u");
    EXPECT_EQ(bv_db_start(), 0);
    EXPECT_EQ(value("u", 1), 4000000000u);
    EXPECT_EQ(value("u", 9), 6u);
    EXPECT_EQ(numbers(bv_db_hash_find("u")), (Numbers{1, 9}));
}

TEST_F(DbControl, TemplatesGiveDefaultsAndTouchNoFile)
{
    put_data_files();
    bv_db_start();
    EXPECT_EQ(bv_db_template(), 0);
    expect_values(1, 2, 3, 0);
    EXPECT_EQ(read_file(kUserFile), data_file("u", 1, 10));
    EXPECT_EQ(read_file(kFactoryFile), data_file("f", 1, 30));
}

TEST_F(DbControl, RestoreKeepsTheFactoryFileAndResetsTheRest)
{
    put_data_files();
    bv_db_start();
    bv_db_ready();
    set("u", 11);
    set("f", 31);
    EXPECT_EQ(bv_db_restore(), 0);
    expect_values(1, 2, 30, 1);
    EXPECT_EQ(read_file(kUserFile), data_file("u", 1, 10)) << "untouched until the next commit";

    EXPECT_EQ(bv_db_commit(), 0);
    EXPECT_EQ(bv_db_private(), 0);
    EXPECT_EQ(read_file(kUserFile), data_file("u", 1, 1));
    EXPECT_EQ(read_file(kPrivateFile), data_file("p", 1, 2));
}

TEST_F(DbControl, FamilyInSeveralListsFollowsTheReadingOrder)
{
    // In all three: read with the factory file, then overwritten by the user's and the private
    // file's instances of the same number.
    bv_db_reg_user("x");
    bv_db_reg_private("x");
    bv_db_reg_factory("x");
    install("x", std::vector<Parameter>{{"id", "uint", 4, "4"}});
    write_file(kFactoryFile, data_file("x", 1, 100));
    write_file(kUserFile, data_file("x", 2, 200));
    write_file(kPrivateFile, data_file("x", 1, 300));
    EXPECT_EQ(bv_db_start(), 0);
    EXPECT_EQ(numbers(bv_db_hash_find("x")), (Numbers{1, 2}));
    EXPECT_EQ(value("x", 1), 300u);
    EXPECT_EQ(value("x", 2), 200u);
    EXPECT_EQ(bv_db_restore(), 0);
    EXPECT_EQ(value("x", 1), 100u) << "it is a factory family";
    EXPECT_EQ(bv_db_inst_getnum("x"), 1);
}

TEST_F(DbControl, FamiliesAreCreatedInTheOrderFactoryUserPrivate)
{
    for (auto reload : {bv_db_start, bv_db_restore, bv_db_template}) {
        reload();
        EXPECT_EQ(families(), (std::vector<std::string>{"f", "u", "p"}));
    }
}

TEST_F(DbControl, TriggersCallTheirFunctions)
{
    put_data_files();
    EXPECT_EQ(trigger(6), 0);
    EXPECT_EQ(value("u"), 10u) << "6 starts";
    EXPECT_EQ(trigger(4), 0);
    EXPECT_EQ(value("f"), 3u) << "4 reads templates only";
    EXPECT_EQ(trigger(5), 0);
    EXPECT_EQ(value("f"), 30u) << "5 restores";
    EXPECT_EQ(value("u"), 1u);

    EXPECT_EQ(trigger(1), 0);
    EXPECT_EQ(read_file(kUserFile), data_file("u", 1, 10)) << "not ready yet";
    bv_db_ready();
    EXPECT_EQ(trigger(1), 0);
    EXPECT_EQ(read_file(kUserFile), data_file("u", 1, 1)) << "1 commits";
    EXPECT_EQ(read_file(kPrivateFile), data_file("p", 1, 20));
    EXPECT_EQ(trigger(2), 0);
    EXPECT_EQ(read_file(kPrivateFile), data_file("p", 1, 2)) << "2 commits the private families";
    set("f", 33);
    EXPECT_EQ(trigger(3), 0);
    EXPECT_EQ(read_file(kFactoryFile), data_file("f", 1, 33)) << "3 writes the factory families";
}

TEST_F(DbControl, OtherTriggersDoAndPrintNothing)
{
    put_data_files();
    bv_db_start();
    bv_db_ready();
    set("u", 11);
    CaptureStdout out;
    for (uint32_t command : {0u, 10u, 11u, 12u, 1000u, 0x80000001u, 0xffffffffu})
        EXPECT_EQ(trigger(command), 0) << command;
    EXPECT_EQ(bv_db_trigger(nullptr), 0);
    EXPECT_EQ(out.stop(), "");
    EXPECT_EQ(value("u"), 11u);
    EXPECT_EQ(read_file(kUserFile), data_file("u", 1, 10));
}

TEST_F(DbControl, CommandWordNeedNotBeAligned)
{
    put_data_files();
    uint8_t message[5] = {};
    uint32_t command = 6;
    memcpy(message + 1, &command, sizeof command);
    EXPECT_EQ(bv_db_trigger(reinterpret_cast<const uint32_t *>(message + 1)), 0);
    EXPECT_EQ(value("u"), 10u);
}

// A service's standard output may be the console of the device.
TEST_F(DbControl, ErrorsPrintNothingAndLeaveNoDescriptorOpen)
{
    bv_db_reg_user("missing");
    bv_db_reg_user("wrong");
    install("wrong", std::string("{\"para\":7}"));
    write_file(kUserFile, "garbage");
    ASSERT_EQ(mkdir(kFactoryFile, 0755), 0);
    uint32_t value = 0;
    const std::vector<int> open = open_descriptors();

    auto out = std::make_unique<CaptureStdout>();
    EXPECT_EQ(bv_db_start(), 0);
    EXPECT_EQ(bv_db_reg_user("u"), BV_ERR_EXISTS);
    EXPECT_EQ(bv_db_hash_add("u"), nullptr);
    EXPECT_EQ(bv_db_read("unknown", &value, sizeof value, 1), BV_ERR_NO_FAMILY);
    EXPECT_EQ(bv_db_read("u", &value, sizeof value, 2), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_read("u", &value, 1, 1), BV_OK);
    EXPECT_EQ(bv_db_factory(), BV_ERR_WRITE_OPEN);
    EXPECT_EQ(out->stop(), "");
    out = nullptr;
    EXPECT_EQ(open_descriptors(), open);
}

std::string dump_of(uint32_t command)
{
    CaptureStdout out;
    EXPECT_EQ(bv_db_trigger(&command), 0);
    return out.stop();
}

// A line of up to four words, as the console dump prints it.
std::string line(const void *address, const std::string &words)
{
    char out[64];
    snprintf(out, sizeof out,
             "\r\n[0x%08x] : ", static_cast<unsigned>(reinterpret_cast<uintptr_t>(address)));
    return out + words;
}

TEST_F(DbControl, DumpShowsTheFamiliesOfItsListOnly)
{
    bv_db_start();
    EXPECT_EQ(dump_of(7), "\nname=f cnt=1 memsize=4 instnum=0 instance=0");
    EXPECT_EQ(dump_of(8), "\nname=u cnt=1 memsize=4 instnum=0 instance=0");
    EXPECT_EQ(dump_of(9), "\nname=p cnt=1 memsize=4 instnum=0 instance=0");
}

TEST_F(DbControl, DumpShowsARecordThatAServicePutIntoTheTable)
{
    bv_db_family record = {};
    memset(record.name, 'n', sizeof record.name);
    memset(record.getfunc, 'g', sizeof record.getfunc);
    insert_record("own", record);
    bv_db_reg_user("own");
    EXPECT_EQ(dump_of(8),
              "\nname=" + std::string(1023, 'n') + " cnt=0 memsize=0 instnum=0 instance=0");
}

TEST_F(DbControl, DumpShowsEveryInstancesImageInListOrder)
{
    bv_db_reg_user("unread");
    bv_db_reg_user("wide");
    install("wide", std::vector<Parameter>{{"a", "string", 18, ""}});
    bv_db_start();
    bv_db_hash_find("unread"); // has no template: known, without parameters
    uint8_t image[18];
    for (uint8_t i = 0; i < sizeof image; ++i)
        image[i] = i;
    bv_db_inst_add("u", "\x01\x02\x03\x04", 4, 7);
    bv_db_inst_add("u", "\xaa\xbb\xcc\xdd", 4, 3);
    bv_db_inst_add("unread", image, 4, 2);
    bv_db_inst_add("wide", image, sizeof image, 1);

    bv_db_family *u = bv_db_hash_find("u"), *wide = bv_db_hash_find("wide");
    const uint8_t *w = bv_db_data_get_inst(wide, 1)->image;
    std::string expected = "\nname=u cnt=1 memsize=4 instnum=2 instance=7";
    expected += line(bv_db_data_get_inst(u, 7)->image, "01020304 ") + "\r\n";
    expected += line(bv_db_data_get_inst(u, 3)->image, "aabbccdd ") + "\r\n";
    expected += "\nname=unread cnt=0 memsize=0 instnum=1 instance=2\r\n";
    expected += "\nname=wide cnt=1 memsize=18 instnum=1 instance=1";
    expected += line(w, "00010203 04050607 08090a0b 0c0d0e0f ");
    expected += line(w + 16, "10110000 ") + "\r\n";
    EXPECT_EQ(dump_of(8), expected);
}

} // namespace
