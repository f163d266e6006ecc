#include "db/database.h"

#include "support/capture.h"

#include <bv/hash.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using Numbers = std::vector<int>;

constexpr char kStored[] = "{\n\t\"NAME\":[\n\t\t{\n\t\t\t\"inst\":\"INST\",\n\t\t\t\"para\":{\n"
                           "\t\t\t\t\"id\":\"VALUE\"\n\t\t\t}\n\t\t}\n\t]\n}\n";

// The data file of one family of one parameter with one instance.
std::string stored(const std::string &name, int number, int value)
{
    std::string out = kStored;
    out.replace(out.find("NAME"), 4, name);
    out.replace(out.find("INST"), 4, std::to_string(number));
    out.replace(out.find("VALUE"), 5, std::to_string(value));
    return out;
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
        put_file(kUserFile, stored("u", 1, 10));
        put_file(kPrivateFile, stored("p", 1, 20));
        put_file(kFactoryFile, stored("f", 1, 30));
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

    static bool exists(const char *path) { return access(path, F_OK) == 0; }
};

TEST_F(DbControl, StartLoadsTheThreeDataFiles)
{
    put_data_files();
    EXPECT_EQ(bv_db_start(), 0);
    EXPECT_EQ(value("u"), 10u);
    EXPECT_EQ(value("p"), 20u);
    EXPECT_EQ(value("f"), 30u);
    EXPECT_EQ(bv_db_inst_getnum("u"), 1);
}

TEST_F(DbControl, StartWithoutDataFilesGivesDefaultsAndNoInstances)
{
    EXPECT_EQ(bv_db_start(), 0);
    for (const char *name : {"u", "p", "f"})
        EXPECT_EQ(bv_db_inst_getnum(name), 0) << name;
    EXPECT_EQ(value("u"), 1u);
    EXPECT_EQ(value("p"), 2u);
    EXPECT_EQ(value("f"), 3u);
}

TEST_F(DbControl, ADamagedDataFileCostsOnlyItsOwnFamilies)
{
    put_data_files();
    put_file(kUserFile, stored("u", 1, 10).substr(0, 40));
    EXPECT_EQ(bv_db_start(), 0);
    EXPECT_EQ(value("u"), 1u);
    EXPECT_EQ(bv_db_inst_getnum("u"), 0);
    EXPECT_EQ(value("p"), 20u);
    EXPECT_EQ(value("f"), 30u);
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
    EXPECT_EQ(value("u"), 10u);
    EXPECT_EQ(bv_db_inst_getnum("u"), 1);
    EXPECT_EQ(bv_db_hash_find("stray"), nullptr);
}

TEST_F(DbControl, CommitsAreSkippedUntilReady)
{
    bv_db_start();
    put_file(kUserFile, "as it was");
    EXPECT_EQ(bv_db_commit(), 0);
    EXPECT_EQ(bv_db_private(), 0);
    EXPECT_EQ(file_text(kUserFile), "as it was");
    EXPECT_FALSE(exists(kPrivateFile));

    bv_db_ready();
    EXPECT_EQ(bv_db_commit(), 0);
    EXPECT_EQ(bv_db_private(), 0);
    EXPECT_EQ(file_text(kUserFile), stored("u", 1, 1));
    EXPECT_EQ(file_text(kPrivateFile), stored("p", 1, 2));
    EXPECT_FALSE(exists(kFactoryFile));
}

TEST_F(DbControl, TheReadyFlagIsSetForGood)
{
    EXPECT_EQ(bv_db_status(), 0);
    EXPECT_EQ(bv_db_ready(), BV_OK);
    EXPECT_EQ(bv_db_status(), 1);
    EXPECT_EQ(bv_db_ready(), BV_OK);
    EXPECT_EQ(bv_db_status(), 1);
}

TEST_F(DbControl, OnlyAReadyFlagOf1CountsAsReady)
{
    bv_db_start();
    g_st_db_mng.ready = 2;
    EXPECT_EQ(bv_db_commit(), 0);
    EXPECT_EQ(bv_db_private(), 0);
    EXPECT_FALSE(exists(kUserFile));
    EXPECT_FALSE(exists(kPrivateFile));
}

TEST_F(DbControl, FactoryWritesAreNotGated)
{
    bv_db_start();
    EXPECT_EQ(bv_db_factory(), 0);
    EXPECT_EQ(file_text(kFactoryFile), stored("f", 1, 3));
}

TEST_F(DbControl, TheWriteStatusIsReturned)
{
    bv_db_start();
    bv_db_ready();
    for (const char *path : {kUserFile, kPrivateFile, kFactoryFile})
        ASSERT_EQ(mkdir(path, 0755), 0);
    EXPECT_EQ(bv_db_commit(), BV_ERR_WRITE_OPEN);
    EXPECT_EQ(bv_db_private(), BV_ERR_WRITE_OPEN);
    EXPECT_EQ(bv_db_factory(), BV_ERR_WRITE_OPEN);
    EXPECT_EQ(trigger(1), BV_ERR_WRITE_OPEN);
    EXPECT_EQ(trigger(2), BV_ERR_WRITE_OPEN);
    EXPECT_EQ(trigger(3), BV_ERR_WRITE_OPEN);
}

TEST_F(DbControl, WhatIsCommittedIsThereAfterTheNextStart)
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

TEST_F(DbControl, TemplateGivesDefaultsAndTouchesNoFile)
{
    put_data_files();
    bv_db_start();
    EXPECT_EQ(bv_db_template(), 0);
    for (const char *name : {"u", "p", "f"})
        EXPECT_EQ(bv_db_inst_getnum(name), 0) << name;
    EXPECT_EQ(value("u"), 1u);
    EXPECT_EQ(value("p"), 2u);
    EXPECT_EQ(value("f"), 3u);
    EXPECT_EQ(file_text(kUserFile), stored("u", 1, 10));
    EXPECT_EQ(file_text(kFactoryFile), stored("f", 1, 30));
}

TEST_F(DbControl, RestoreKeepsTheFactoryFileAndResetsTheRest)
{
    put_data_files();
    bv_db_start();
    bv_db_ready();
    set("u", 11);
    set("f", 31);
    EXPECT_EQ(bv_db_restore(), 0);
    EXPECT_EQ(value("u"), 1u);
    EXPECT_EQ(value("p"), 2u);
    EXPECT_EQ(value("f"), 30u);
    EXPECT_EQ(bv_db_inst_getnum("u"), 0);
    EXPECT_EQ(bv_db_inst_getnum("f"), 1);
    EXPECT_EQ(file_text(kUserFile), stored("u", 1, 10)) << "untouched until the next commit";

    EXPECT_EQ(bv_db_commit(), 0);
    EXPECT_EQ(bv_db_private(), 0);
    EXPECT_EQ(file_text(kUserFile), stored("u", 1, 1));
    EXPECT_EQ(file_text(kPrivateFile), stored("p", 1, 2));
}

TEST_F(DbControl, AFamilyInSeveralListsFollowsTheReadingOrder)
{
    // In all three: read with the factory file, then overwritten by the user's and the private
    // file's instances of the same number.
    bv_db_reg_user("x");
    bv_db_reg_private("x");
    bv_db_reg_factory("x");
    install("x", std::vector<Parameter>{{"id", "uint", 4, "4"}});
    put_file(kFactoryFile, stored("x", 1, 100));
    put_file(kUserFile, stored("x", 2, 200));
    put_file(kPrivateFile, stored("x", 1, 300));
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
    EXPECT_EQ(file_text(kUserFile), stored("u", 1, 10)) << "not ready yet";
    bv_db_ready();
    EXPECT_EQ(trigger(1), 0);
    EXPECT_EQ(file_text(kUserFile), stored("u", 1, 1)) << "1 commits";
    EXPECT_EQ(file_text(kPrivateFile), stored("p", 1, 20));
    EXPECT_EQ(trigger(2), 0);
    EXPECT_EQ(file_text(kPrivateFile), stored("p", 1, 2)) << "2 commits the private families";
    set("f", 33);
    EXPECT_EQ(trigger(3), 0);
    EXPECT_EQ(file_text(kFactoryFile), stored("f", 1, 33)) << "3 writes the factory families";
}

TEST_F(DbControl, OtherTriggersDoNothing)
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
    EXPECT_EQ(file_text(kUserFile), stored("u", 1, 10));
}

TEST_F(DbControl, TheCommandWordNeedNotBeAligned)
{
    put_data_files();
    uint8_t message[5] = {};
    uint32_t command = 6;
    memcpy(message + 1, &command, sizeof command);
    EXPECT_EQ(bv_db_trigger(reinterpret_cast<const uint32_t *>(message + 1)), 0);
    EXPECT_EQ(value("u"), 10u);
}

// A service's standard output may be the console of the device.
TEST_F(DbControl, NothingIsPrintedAboutWhatIsMissingWrongOrRefused)
{
    bv_db_reg_user("missing");
    bv_db_reg_user("wrong");
    install("wrong", std::string("{\"para\":7}"));
    put_file(kUserFile, "garbage");
    ASSERT_EQ(mkdir(kFactoryFile, 0755), 0);
    uint32_t value = 0;

    CaptureStdout out;
    EXPECT_EQ(bv_db_start(), 0);
    EXPECT_EQ(bv_db_reg_user("u"), BV_ERR_EXISTS);
    EXPECT_EQ(bv_db_hash_add("u"), nullptr);
    EXPECT_EQ(bv_db_read("unknown", &value, sizeof value, 1), BV_ERR_NO_FAMILY);
    EXPECT_EQ(bv_db_read("u", &value, sizeof value, 2), BV_ERR_NO_INSTANCE);
    EXPECT_EQ(bv_db_read("u", &value, 1, 1), BV_OK);
    EXPECT_EQ(bv_db_factory(), BV_ERR_WRITE_OPEN);
    EXPECT_EQ(out.stop(), "");
}

TEST_F(DbControl, AStartLeavesNoDescriptorOpen)
{
    put_data_files();
    put_file(kUserFile, "garbage");
    bv_db_reg_user("missing");
    int before = dup(0);
    close(before);
    EXPECT_EQ(bv_db_start(), 0);
    int after = dup(0);
    close(after);
    EXPECT_EQ(before, after);
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

TEST_F(DbControl, DumpsShowTheFamiliesOfTheirListOnly)
{
    bv_db_start();
    EXPECT_EQ(dump_of(7), "\nname=f cnt=1 memsize=4 instnum=0 instance=0");
    EXPECT_EQ(dump_of(8), "\nname=u cnt=1 memsize=4 instnum=0 instance=0");
    EXPECT_EQ(dump_of(9), "\nname=p cnt=1 memsize=4 instnum=0 instance=0");
}

TEST_F(DbControl, DumpShowsARecordThatAServicePutIntoTheTable)
{
    uint8_t key[1024] = "own";
    bv_db_family record = {};
    memset(record.name, 'n', sizeof record.name);
    memset(record.getfunc, 'g', sizeof record.getfunc);
    ASSERT_EQ(bv_hash_insert(g_st_db_mng.table, key, &record), 0);
    bv_db_reg_user("own");
    CaptureStdout out;
    EXPECT_EQ(trigger(8), 0);
    EXPECT_EQ(out.stop(),
              "\nname=" + std::string(1023, 'n') + " cnt=0 memsize=0 instnum=0 instance=0");
}

TEST_F(DbControl, DumpsShowEveryInstancesImageInListOrder)
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
