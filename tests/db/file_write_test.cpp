#include "db/database.h"
#include "support/shared.h"

#include <bv/hash.h>

#include <climits>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The nth piece of text from now on that the library writes is refused; 0: none.
int g_refused_piece;

// How many there were.
size_t g_pieces;

// How many went through a descriptor that programs started meanwhile would get.
size_t g_inherited_pieces;

class DbFileWriting : public Db {
protected:
    static int write(const char *path = kUserFile)
    {
        return bv_db_user_write(&g_st_db_mng.user_list, path);
    }

    // A family whose text is far longer than anything that is buffered.
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

mode_t mode_of(const char *path)
{
    struct stat st = {};
    EXPECT_EQ(stat(path, &st), 0) << path;
    return st.st_mode & 07777;
}

ino_t inode_of(const char *path)
{
    struct stat st = {};
    EXPECT_EQ(stat(path, &st), 0) << path;
    return st.st_ino;
}

TEST_F(DbFileWriting, AnEmptyListIsAnEmptyObject)
{
    EXPECT_EQ(write(), BV_OK);
    EXPECT_EQ(file_text(kUserFile), golden("empty.json"));
}

TEST_F(DbFileWriting, FamiliesThatWereNeverReadAreLeftOut)
{
    bv_db_reg_user("lan.json");
    EXPECT_EQ(write(), BV_OK);
    EXPECT_EQ(file_text(kUserFile), golden("empty.json"));
}

TEST_F(DbFileWriting, InstancesStandInListOrder)
{
    bv_db_family *lan = user_family("lan.json", kLan);
    add_instance(lan, 1, {"10.0.0.1", "9000", "first"});
    add_instance(lan, -7, {"10.0.0.2", "1400", ""});
    EXPECT_EQ(write(), BV_OK);
    EXPECT_EQ(file_text(kUserFile), golden("lan.json"));
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
    EXPECT_EQ(write(), BV_OK);
    EXPECT_EQ(file_text(kUserFile), golden("types.json"));
}

TEST_F(DbFileWriting, FamiliesStandInRegistrationOrderWhateverTheyHold)
{
    install("b.json", std::vector<Parameter>{{"id", "uchar", 1, "5"}});
    install("broken.json", R"({"para":[{"name":"x"},{}]})");
    install("sizeless.json",
            R"({"para":[{"name":"kept","type":"uint","len":0,"value":"as it stands"}]})");
    for (const char *name :
         {"b.json", "missing.json", "broken.json", "bare", "never", "sizeless.json"})
        bv_db_reg_user(name);
    bv_db_template_read(&g_st_db_mng.user_list);
    bv_list_head *families = &g_st_db_mng.family_list;
    ASSERT_NE(families->next, families);
    EXPECT_EQ(bv_db_inst_add("bare", nullptr, 0, 4), BV_OK);

    // A registered name without a family is passed over: this one is taken away again.
    bv_db_family *never = bv_db_hash_find("never");
    never->link.prev->next = never->link.next;
    never->link.next->prev = never->link.prev;
    uint8_t key[1024] = "never";
    bv_hash_remove(g_st_db_mng.table, key);

    EXPECT_EQ(write(), BV_OK);
    EXPECT_EQ(file_text(kUserFile), golden("families.json"));
}

TEST_F(DbFileWriting, RegistrationOrderCountsNotTheOrderOfCreation)
{
    for (const char *name : {"b", "a", "d", "c"})
        bv_db_hash_add(name);
    for (const char *name : {"a", "b", "c", "a2", "d"})
        bv_db_reg_user(name);
    EXPECT_EQ(write(), BV_OK);
    EXPECT_EQ(file_text(kUserFile), "{\n\t\"a\":[\n\n\t],\n\t\"b\":[\n\n\t],\n"
                                    "\t\"c\":[\n\n\t],\n\t\"d\":[\n\n\t]\n}\n");
}

TEST_F(DbFileWriting, NothingIsEscaped)
{
    bv_db_family *notes = user_family("notes.json", {{"note", "string", 64, ""}});
    add_instance(notes, 1, {"say \"hi\" \\ 100% \t\n."});
    EXPECT_EQ(write(), BV_OK);
    EXPECT_EQ(file_text(kUserFile), golden("unescaped.json"));
    EXPECT_EQ(bv_db_user_read(&g_st_db_mng.user_list, kUserFile), -1) << "and cannot be read back";
    EXPECT_EQ(image_of(notes, 1)[0], 's') << "memory keeps it";
}

// Its links are null, and so is its table of descriptors, whatever their count says.
TEST_F(DbFileWriting, RecordThatAServicePutIntoTheTableIsAFamilyLikeOthers)
{
    uint8_t key[1024] = "own.json";
    bv_db_family record = {};
    strcpy(record.name, "own.json");
    record.para_count = 2;
    ASSERT_EQ(bv_hash_insert(g_st_db_mng.table, key, &record), 0);
    bv_db_reg_user("own.json");
    user_family("one", {{"id", "uchar", 1, "1"}});
    user_family("two", {{"id", "uchar", 1, "2"}});

    EXPECT_EQ(write(), BV_OK);
    const std::string empty = "{\n\t\"own.json\":[\n\t\t{\n\t\t\t\"inst\":\"1\",\n"
                              "\t\t\t\"para\":{\n\n\t\t\t}\n\t\t}\n\t],\n\t\"one\":[";
    EXPECT_EQ(file_text(kUserFile).substr(0, empty.size()), empty);
    EXPECT_NE(file_text(kUserFile).find("\"two\":["), std::string::npos);

    auto *own = bv_db_hash_find("own.json");
    own->image_size = 4;
    put_file(kUserFile, R"({"own.json":[{"inst":5,"para":{"id":"1"}}]})");
    EXPECT_EQ(bv_db_user_read(&g_st_db_mng.user_list, kUserFile), BV_OK);
    EXPECT_EQ(numbers(own), (std::vector<int>{5}));
    EXPECT_EQ(image_of(own, 5), Bytes(4));
    bv_db_data_free(own);
    bv_hash_remove(g_st_db_mng.table, key);
}

TEST_F(DbFileWriting, UnlinkedRecordHasNoInstancesForAnyCall)
{
    uint8_t key[1024] = "own.json", image[4] = {1, 2, 3, 4};
    int32_t number = 0;
    bv_db_family record = {};
    record.image_size = 4;
    EXPECT_EQ(bv_db_data_get_inst(&record, 1), nullptr);
    bv_db_family others[3] = {};
    EXPECT_EQ(bv_db_data_get_inst_first(&others[0], &number), nullptr);
    EXPECT_EQ(bv_db_data_get_inst_max(&others[1]), 1);
    EXPECT_EQ(bv_db_data_free(&others[2]), BV_OK);

    record = {};
    record.image_size = 4;
    ASSERT_EQ(bv_hash_insert(g_st_db_mng.table, key, &record), 0);
    EXPECT_EQ(bv_db_inst_add("own.json", image, 4, 7), BV_OK);
    EXPECT_EQ(image_of(bv_db_hash_find("own.json"), 7), Bytes(image, image + 4));
    bv_db_data_free(bv_db_hash_find("own.json"));
}

TEST_F(DbFileWriting, FieldsThatAServiceFilledToTheEndAreTerminated)
{
    bv_db_family *family = user_family("one", {{"id", "none", 1, ""}});
    memset(family->name, 'f', sizeof family->name);
    memset(family->para->name, 'n', sizeof family->para->name);
    memset(family->para->value, 'v', sizeof family->para->value);
    EXPECT_EQ(write(), BV_OK);
    EXPECT_EQ(file_text(kUserFile),
              "{\n\t\"" + std::string(1023, 'f') + "\":[\n\t\t{\n\t\t\t\"inst\":\"1\",\n" +
                  "\t\t\t\"para\":{\n\t\t\t\t\"" + std::string(1023, 'n') + "\":\"" +
                  std::string(1023, 'v') + "\"\n\t\t\t}\n\t\t}\n\t]\n}\n");
}

TEST_F(DbFileWriting, AFamilyInTwoListsIsWrittenToBothFiles)
{
    bv_db_family *lan = user_family("lan.json", kLan);
    add_instance(lan, 1, {"10.0.0.1", "9000", "first"});
    add_instance(lan, -7, {"10.0.0.2", "1400", ""});
    bv_db_reg_private("lan.json");
    EXPECT_EQ(write(), BV_OK);
    EXPECT_EQ(bv_db_user_write(&g_st_db_mng.private_list, kPrivateFile), BV_OK);
    EXPECT_EQ(file_text(kUserFile), golden("lan.json"));
    EXPECT_EQ(file_text(kPrivateFile), golden("lan.json"));
}

TEST_F(DbFileWriting, WritingMakesNoInstance)
{
    bv_db_family *lan = user_family("lan.json", kLan);
    EXPECT_EQ(write(), BV_OK);
    EXPECT_EQ(bv_db_inst_getnum("lan.json"), 0);
    EXPECT_EQ(lan->inst_max, 0);
}

TEST_F(DbFileWriting, DescriptorsHoldTheLastInstanceWrittenAfterwards)
{
    bv_db_family *lan = user_family("lan.json", kLan);
    add_instance(lan, 1, {"10.0.0.1", "9000", "first"});
    add_instance(lan, 2, {"10.0.0.2", "1400", "last"});
    strcpy(lan->para[2].value, "scratch");
    EXPECT_EQ(write(), BV_OK);
    EXPECT_STREQ(lan->para[0].value, "10.0.0.2");
    EXPECT_STREQ(lan->para[1].value, "1400");
    EXPECT_STREQ(lan->para[2].value, "last");
}

TEST_F(DbFileWriting, WhatLiesBehindTheDescriptorsIsNone)
{
    user_family("lan.json", kLan)->para_count = 1;
    EXPECT_EQ(write(), BV_OK);
    EXPECT_NE(file_text(kUserFile).find("\"ipaddr\":\"192.168.1.1\"\n"), std::string::npos);
}

TEST_F(DbFileWriting, ANewFileIsForItsOwnerOnly)
{
    umask(0);
    EXPECT_EQ(write(), BV_OK);
    EXPECT_EQ(mode_of(kUserFile), 0600u);
}

TEST_F(DbFileWriting, AnExistingFileIsRewrittenInPlace)
{
    put_file(kUserFile, std::string(5000, 'x'));
    chmod(kUserFile, 0644);
    ino_t inode = inode_of(kUserFile);
    ASSERT_EQ(link(kUserFile, "/config/work/second-name"), 0);

    EXPECT_EQ(write(), BV_OK);
    EXPECT_EQ(inode_of(kUserFile), inode);
    EXPECT_EQ(mode_of(kUserFile), 0644u);
    EXPECT_EQ(file_text("/config/work/second-name"), golden("empty.json"));
}

TEST_F(DbFileWriting, AFileThatCannotBeOpenedHasItsCode)
{
    EXPECT_EQ(write("/config/nowhere/data.json"), BV_ERR_WRITE_OPEN);
    EXPECT_EQ(write("/config/work"), BV_ERR_WRITE_OPEN) << "a folder";
    EXPECT_EQ(write(""), BV_ERR_WRITE_OPEN);
    EXPECT_EQ(write(nullptr), BV_ERR_WRITE_OPEN);
    EXPECT_EQ(bv_db_user_write(nullptr, kUserFile), BV_ERR_WRITE_OPEN);
    EXPECT_NE(access(kUserFile, F_OK), 0);
}

TEST_F(DbFileWriting, LeavesNoDescriptorOpen)
{
    int before = dup(0);
    close(before);
    write();
    write("/config/nowhere/data.json");
    int after = dup(0);
    close(after);
    EXPECT_EQ(before, after);
}

// A service that runs in the background may have closed its standard input.
TEST_F(DbFileWriting, LeavesDescriptor0ClosedToo)
{
    int saved = dup(0);
    close(0);
    write();
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
    dup2(saved, 0);
    close(saved);
}

TEST_F(DbFileWriting, ProgramsStartedMeanwhileDoNotGetTheFile)
{
    g_inherited_pieces = 0;
    g_pieces = 0;
    EXPECT_EQ(write(), BV_OK);
    EXPECT_GT(g_pieces, 0u);
    EXPECT_EQ(g_inherited_pieces, 0u);
}

TEST_F(DbFileWriting, TheLongestNumberIsWrittenWhole)
{
    bv_db_family *lan = user_family("lan.json", kLan);
    ASSERT_EQ(bv_db_data_add_inst(lan, nullptr, 0, INT_MIN), BV_OK);
    EXPECT_EQ(write(), BV_OK);
    EXPECT_NE(file_text(kUserFile).find("\"inst\":\"-2147483648\",\n"), std::string::npos);
}

TEST_F(DbFileWriting, LongTextsArriveWhole)
{
    large_family(800);
    EXPECT_EQ(write(), BV_OK);
    std::string text = file_text(kUserFile);
    EXPECT_GT(text.size(), 300000u);
    EXPECT_TRUE(text == large_text(800));
}

// A call for every line, let alone for every character, is most of a commit.
TEST_F(DbFileWriting, TheTextLeavesInLargePieces)
{
    large_family(800);
    g_pieces = 0;
    EXPECT_EQ(write(), BV_OK);
    EXPECT_LE(g_pieces, file_text(kUserFile).size() / 4096);
}

TEST_F(DbFileWriting, AFullDiskKeepsMemoryAndTheNextCommitRepairsTheFile)
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

    EXPECT_EQ(write(), BV_OK);
    std::string part = file_text(kUserFile);
    EXPECT_GT(part.size(), 50000u);
    EXPECT_LT(part.size(), 110000u);
    EXPECT_TRUE(part == whole.substr(0, part.size())) << "the file is what fitted";
    EXPECT_EQ(image_of(family, 799), before);
    EXPECT_EQ(bv_db_inst_getnum("large.json"), 800);
    EXPECT_EQ(bv_db_user_read(&g_st_db_mng.user_list, kUserFile), -1);
    EXPECT_EQ(bv_db_inst_getnum("large.json"), 800);

    unlink("/config/work/filler");
    end_shared_files_after(8 << 20);
    EXPECT_EQ(write(), BV_OK);
    EXPECT_TRUE(file_text(kUserFile) == whole);
}

TEST_F(DbFileWriting, NothingIsWrittenBehindAPieceThatTheDiskRefused)
{
    large_family(800);
    g_refused_piece = 2;
    EXPECT_EQ(write(), BV_OK);
    EXPECT_EQ(g_refused_piece, 0);
    std::string part = file_text(kUserFile), whole = large_text(800);
    EXPECT_GT(part.size(), 0u);
    EXPECT_LT(part.size(), whole.size());
    EXPECT_TRUE(part == whole.substr(0, part.size())) << "there must be no hole in the text";
}

TEST_F(DbFileWriting, ADeviceThatRefusesEverythingIsNotReported)
{
    large_family(200);
    EXPECT_EQ(write("/dev/full"), BV_OK);
    EXPECT_EQ(bv_db_inst_getnum("large.json"), 200);
}

} // namespace

extern "C" size_t fwrite(const void *data, size_t size, size_t n, FILE *stream)
{
    ++g_pieces;
    if (fcntl(fileno(stream), F_GETFD) != FD_CLOEXEC)
        ++g_inherited_pieces;
    if (g_refused_piece != 0 && --g_refused_piece == 0)
        return 0;
    auto real = reinterpret_cast<size_t (*)(const void *, size_t, size_t, FILE *)>(
        dlsym(RTLD_NEXT, "fwrite"));
    return real(data, size, n, stream);
}
