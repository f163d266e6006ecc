// SPDX-License-Identifier: ISC
// Data files as they are written: text, file, and what a full disk leaves.

#include "db/database.h"

#include "support/faults.h"
#include "support/process.h"
#include "support/shared.h"

#include <bv/hash.h>

#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// The pieces of text that the library writes, and how many of them went through a descriptor that
// programs started meanwhile would inherit.
FaultPoint fault_fwrite;
int g_inherited;
BV_INTERPOSE(fwrite, "fwrite", size_t, (const void *from, size_t size, size_t n, FILE *file))
{
    g_inherited += fcntl(fileno(file), F_GETFD) != FD_CLOEXEC;
    return fault_fwrite.fails() ? 0 : BV_NEXT(fwrite)(from, size, n, file);
}

namespace {

class DbFileWriting : public Db {
protected:
    static int write(const char *path = kUserFile)
    {
        return bv_db_user_write(&g_st_db_mng.user_list, path);
    }

    // Writes the user's file and returns its text.
    static std::string written()
    {
        EXPECT_EQ(write(), BV_OK);
        return read_file(kUserFile);
    }

    // The family of the golden file lan.json.
    static bv_db_family *lan_of_two()
    {
        bv_db_family *lan = user_family("lan.json", kLan);
        add_instance(lan, 1, {"10.0.0.1", "9000", "first"});
        add_instance(lan, -7, {"10.0.0.2", "1400", ""});
        return lan;
    }

    // A family whose text is far longer than any buffer.
    static bv_db_family *large_family(int instances)
    {
        bv_db_family *family =
            user_family("large.json", {{"note", "string", 1000, ""}, {"id", "uint", 4, "0"}});
        for (int i = 1; i <= instances; ++i)
            add_instance(family, i, {note(i), std::to_string(i)});
        return family;
    }

    static std::string note(int i)
    {
        return std::string(static_cast<size_t>(i * 37 % 999), static_cast<char>('a' + i % 26));
    }

    static std::string large_text(int instances)
    {
        std::string out = "{\n\t\"large.json\":[\n";
        for (int i = 1; i <= instances; ++i) {
            out += i == 1 ? "" : ",\n";
            out += "\t\t{\n\t\t\t\"inst\":\"" + std::to_string(i) + "\",\n\t\t\t\"para\":{\n";
            out += "\t\t\t\t\"note\":\"" + note(i) + "\",\n";
            out += "\t\t\t\t\"id\":\"" + std::to_string(i) + "\"\n\t\t\t}\n\t\t}";
        }
        return out + "\n\t]\n}\n";
    }
};

struct stat status_of(const char *path)
{
    struct stat st = {};
    EXPECT_EQ(stat(path, &st), 0) << path;
    return st;
}

TEST_F(DbFileWriting, EmptyListIsAnEmptyObject)
{
    EXPECT_EQ(written(), golden("empty.json"));
    bv_db_reg_user("lan.json");
    EXPECT_EQ(written(), golden("empty.json")) << "families that were never read are left out";
}

TEST_F(DbFileWriting, InstancesAreInListOrderInTheFileOfEachList)
{
    lan_of_two();
    bv_db_reg_private("lan.json");
    EXPECT_EQ(written(), golden("lan.json"));
    EXPECT_EQ(bv_db_user_write(&g_st_db_mng.private_list, kPrivateFile), BV_OK);
    EXPECT_EQ(read_file(kPrivateFile), golden("lan.json"));
}

TEST_F(DbFileWriting, EveryTypeHasItsText)
{
    user_family("types.json", {{"text", "string", 8, "a b"},
                               {"c", "char", 1, "-128"},
                               {"uc", "uchar", 1, "255"},
                               {"s", "short", 2, "-32768"},
                               {"us", "ushort", 2, "65535"},
                               {"i", "int", 4, "-2147483648"},
                               {"ui", "uint", 4, "4294967295"},
                               {"hw", "mac", 6, "AA:BB:CC:0:1:2"},
                               {"addr", "ip", 4, "172.16.254.3"},
                               {"other", "blob", 5, "as the template says"}});
    EXPECT_EQ(written(), golden("types.json"));
}

TEST_F(DbFileWriting, FamiliesAreInRegistrationOrderWhateverTheyHold)
{
    install("b.json", std::vector<Parameter>{{"id", "uchar", 1, "5"}});
    install("broken.json", R"({"para":[{"name":"x"},{}]})");
    install("sizeless.json",
            R"({"para":[{"name":"kept","type":"uint","len":0,"value":"as it stands"}]})");
    for (const char *name :
         {"b.json", "missing.json", "broken.json", "bare", "never", "sizeless.json"})
        bv_db_reg_user(name);
    bv_db_template_read(&g_st_db_mng.user_list);
    EXPECT_EQ(bv_db_inst_add("bare", nullptr, 0, 4), BV_OK);

    // A registered name without a family is passed over: this one is taken away again.
    bv_db_family *never = bv_db_hash_find("never");
    never->link.prev->next = never->link.next;
    never->link.next->prev = never->link.prev;
    uint8_t key[1024] = "never";
    bv_hash_remove(g_st_db_mng.table, key);

    EXPECT_EQ(written(), golden("families.json"));
}

TEST_F(DbFileWriting, FamiliesFollowTheOrderOfRegistrationNotOfCreation)
{
    for (const char *name : {"b", "a", "d", "c"})
        bv_db_hash_add(name);
    for (const char *name : {"a", "b", "c", "a2", "d"})
        bv_db_reg_user(name);
    EXPECT_EQ(written(), "{\n\t\"a\":[\n\n\t],\n\t\"b\":[\n\n\t],\n"
                         "\t\"c\":[\n\n\t],\n\t\"d\":[\n\n\t]\n}\n");
}

TEST_F(DbFileWriting, NothingIsEscaped)
{
    bv_db_family *notes = user_family("notes.json", {{"note", "string", 64, ""}});
    add_instance(notes, 1, {"say \"hi\" \\ 100% \t\n."});
    EXPECT_EQ(written(), golden("unescaped.json"));
    EXPECT_EQ(bv_db_user_read(&g_st_db_mng.user_list, kUserFile), -1) << "and cannot be read back";
    EXPECT_EQ(image_of(notes, 1)[0], 's') << "memory keeps it";
}

// Its links are null, and so is its table of descriptors, whatever their count says.
TEST_F(DbFileWriting, RecordThatAServicePutIntoTheTableIsAFamilyLikeOthers)
{
    bv_db_family record = {};
    strcpy(record.name, "own.json");
    record.para_count = 2;
    bv_db_family *own = insert_record("own.json", record);
    bv_db_reg_user("own.json");
    user_family("one", {{"id", "uchar", 1, "1"}});
    user_family("two", {{"id", "uchar", 1, "2"}});

    const std::string empty = "{\n\t\"own.json\":[\n\t\t{\n\t\t\t\"inst\":\"1\",\n"
                              "\t\t\t\"para\":{\n\n\t\t\t}\n\t\t}\n\t],\n\t\"one\":[";
    const std::string text = written();
    EXPECT_EQ(text.substr(0, empty.size()), empty);
    EXPECT_NE(text.find("\"two\":["), std::string::npos);

    own->image_size = 4;
    write_file(kUserFile, "{\"own.json\":[" + stored(5, "\"id\":\"1\"") + "]}");
    EXPECT_EQ(bv_db_user_read(&g_st_db_mng.user_list, kUserFile), BV_OK);
    EXPECT_EQ(numbers(own), (Numbers{5}));
    EXPECT_EQ(image_of(own, 5), Bytes(4));
}

TEST_F(DbFileWriting, UnlinkedRecordHasNoInstancesForAnyCall)
{
    uint8_t image[4] = {1, 2, 3, 4};
    int32_t number = 0;
    bv_db_family records[4] = {};
    EXPECT_EQ(bv_db_data_get_inst(&records[0], 1), nullptr);
    EXPECT_EQ(bv_db_data_get_inst_first(&records[1], &number), nullptr);
    EXPECT_EQ(bv_db_data_get_inst_max(&records[2]), 1);
    EXPECT_EQ(bv_db_data_free(&records[3]), BV_OK);

    bv_db_family record = {};
    record.image_size = 4;
    bv_db_family *own = insert_record("own.json", record);
    EXPECT_EQ(bv_db_inst_add("own.json", image, 4, 7), BV_OK);
    EXPECT_EQ(image_of(own, 7), Bytes(image, image + 4));
}

TEST_F(DbFileWriting, FieldsThatAServiceFilledToTheEndAreTerminated)
{
    bv_db_family *family = user_family("one", {{"id", "none", 1, ""}});
    memset(family->name, 'f', sizeof family->name);
    memset(family->para->name, 'n', sizeof family->para->name);
    memset(family->para->value, 'v', sizeof family->para->value);
    EXPECT_EQ(written(), "{\n\t\"" + std::string(1023, 'f') +
                             "\":[\n\t\t{\n\t\t\t\"inst\":\"1\",\n" +
                             "\t\t\t\"para\":{\n\t\t\t\t\"" + std::string(1023, 'n') + "\":\"" +
                             std::string(1023, 'v') + "\"\n\t\t\t}\n\t\t}\n\t]\n}\n");
}

TEST_F(DbFileWriting, DefaultsAreWrittenWithoutAddingAnInstance)
{
    bv_db_family *lan = user_family("lan.json", kLan);
    lan->para_count = 1;
    EXPECT_NE(written().find("\"ipaddr\":\"192.168.1.1\"\n"), std::string::npos)
        << "descriptors beyond their count are ignored";
    EXPECT_EQ(bv_db_inst_getnum("lan.json"), 0);
    EXPECT_EQ(lan->inst_max, 0);
}

TEST_F(DbFileWriting, DescriptorsHoldTheLastInstanceAfterwards)
{
    bv_db_family *lan = lan_of_two();
    strcpy(lan->para[2].value, "scratch");
    written();
    EXPECT_STREQ(lan->para[0].value, "10.0.0.2");
    EXPECT_STREQ(lan->para[1].value, "1400");
    EXPECT_STREQ(lan->para[2].value, "");
}

TEST_F(DbFileWriting, NewFileIsForItsOwnerOnly)
{
    umask(0);
    written();
    EXPECT_EQ(status_of(kUserFile).st_mode & 07777, 0600u);
}

TEST_F(DbFileWriting, ExistingFileIsRewrittenInPlace)
{
    write_file(kUserFile, std::string(5000, 'x'));
    chmod(kUserFile, 0644);
    const struct stat before = status_of(kUserFile);
    ASSERT_EQ(link(kUserFile, "/config/work/second-name"), 0);
    written();
    EXPECT_EQ(status_of(kUserFile).st_ino, before.st_ino);
    EXPECT_EQ(status_of(kUserFile).st_mode, before.st_mode);
    EXPECT_EQ(read_file("/config/work/second-name"), golden("empty.json"));
}

TEST_F(DbFileWriting, FileThatCannotBeOpenedHasItsCode)
{
    const std::vector<int> open = open_descriptors();
    for (const char *path :
         {"/config/nowhere/data.json", "/config/work", "", static_cast<const char *>(nullptr)})
        EXPECT_EQ(write(path), BV_ERR_WRITE_OPEN) << path;
    EXPECT_EQ(bv_db_user_write(nullptr, kUserFile), BV_ERR_WRITE_OPEN);
    EXPECT_FALSE(file_exists(kUserFile));
    EXPECT_EQ(open_descriptors(), open);
}

// A service that runs in the background may have closed its standard input.
TEST_F(DbFileWriting, LeavesDescriptor0Closed)
{
    WithoutStdin closed;
    written();
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
}

TEST_F(DbFileWriting, ProgramsStartedMeanwhileDoNotInheritTheFile)
{
    fault_fwrite.pass();
    g_inherited = 0;
    EXPECT_EQ(write(), BV_OK);
    EXPECT_GT(fault_fwrite.calls(), 0);
    EXPECT_EQ(g_inherited, 0);
}

TEST_F(DbFileWriting, LongestNumberIsWrittenWhole)
{
    bv_db_family *lan = user_family("lan.json", kLan);
    ASSERT_EQ(bv_db_data_add_inst(lan, nullptr, 0, INT_MIN), BV_OK);
    EXPECT_NE(written().find("\"inst\":\"-2147483648\",\n"), std::string::npos);
}

// A call for every line, let alone for every character, would be most of a commit.
TEST_F(DbFileWriting, LongTextIsWrittenInLargePieces)
{
    large_family(800);
    fault_fwrite.pass();
    EXPECT_EQ(write(), BV_OK);
    const int pieces = fault_fwrite.calls();
    const std::string text = read_file(kUserFile);
    EXPECT_GT(text.size(), 300000u);
    EXPECT_TRUE(text == large_text(800));
    EXPECT_LE(static_cast<size_t>(pieces), text.size() / 4096);
}

TEST_F(DbFileWriting, FullDiskKeepsMemoryAndTheNextCommitRepairsTheFile)
{
    bv_db_family *family = large_family(800);
    Bytes before = image_of(family, 799);
    std::string whole = large_text(800);

    // All but 100 KB of the disk; a shared disk is not ours to fill.
    int fd = open("/config/work/filler", O_CREAT | O_WRONLY, 0600);
    std::string block(4096, 'f');
    size_t filled = 0;
    end_shared_files_after(8 << 20);
    while (::write(fd, block.data(), block.size()) == static_cast<ssize_t>(block.size()))
        filled += block.size();
    ASSERT_GT(filled, 1000000u);
    ASSERT_EQ(ftruncate(fd, static_cast<off_t>(filled - 100000)), 0);
    close(fd);
    end_shared_files_after(100000);

    std::string part = written();
    EXPECT_GT(part.size(), 50000u);
    EXPECT_LT(part.size(), 110000u);
    EXPECT_TRUE(part == whole.substr(0, part.size())) << "the file is what fitted";
    EXPECT_EQ(image_of(family, 799), before);
    EXPECT_EQ(bv_db_user_read(&g_st_db_mng.user_list, kUserFile), -1);
    EXPECT_EQ(bv_db_inst_getnum("large.json"), 800);

    unlink("/config/work/filler");
    end_shared_files_after(8 << 20);
    EXPECT_TRUE(written() == whole);
}

TEST_F(DbFileWriting, NothingFollowsAPieceThatTheDiskRefused)
{
    large_family(800);
    fault_fwrite.fail_next(2);
    std::string part = written(), whole = large_text(800);
    EXPECT_GE(fault_fwrite.calls(), 2);
    EXPECT_GT(part.size(), 0u);
    EXPECT_LT(part.size(), whole.size());
    EXPECT_TRUE(part == whole.substr(0, part.size())) << "there must be no hole in the text";

    EXPECT_EQ(write("/dev/full"), BV_OK) << "a device that refuses everything is not reported";
    EXPECT_EQ(bv_db_inst_getnum("large.json"), 800);
}

} // namespace
