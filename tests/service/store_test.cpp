/* SPDX-License-Identifier: ISC */
#include "service/fixture.h"

#include "support/child.h"
#include "support/faults.h"

#include <climits>
#include <cstdarg>
#include <fcntl.h>
#include <functional>
#include <sys/file.h>
#include <sys/resource.h>

using namespace bv::service;

// Waiting takes no time while this fails, and something may happen instead.
std::function<void()> g_meanwhile;
FaultPoint fault_wait("usleep");
BV_INTERPOSE(wait, "usleep", int, (useconds_t usec))
{
    if (!fault_wait.fails(BV_CALLER))
        return BV_NEXT(wait)(usec);
    if (g_meanwhile)
        g_meanwhile();
    return 0;
}

// The system log.
std::vector<std::string> g_log;
extern "C" void syslog(int, const char *, ...);
void syslog(int, const char *format, ...)
{
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    g_log.push_back(line);
}

// Reads fail at this file.
std::string g_bad_block;
BV_INTERPOSE(read_block, "read", ssize_t, (int fd, void *to, size_t size))
{
    char path[PATH_MAX] = "";
    if (!g_bad_block.empty() &&
        readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path - 1) > 0 &&
        g_bad_block == path) {
        errno = EIO;
        return -1;
    }
    return BV_NEXT(read_block)(fd, to, size);
}

namespace {

constexpr char kDefaults[] = R"({"ipaddr":"192.168.1.1","mtu":"1500","hostname":"gw"})";
constexpr char kOther[] =
    "\t\"vpn.json\" : [ {\"inst\" : \"1\", \"para\": {\"key\": \"a,}\\\"]b\"} } ]";

class Store : public Parts {
protected:
    void SetUp() override
    {
        Parts::SetUp();
        fault_wait.fail_always();
        g_log.clear();
    }
    void TearDown() override
    {
        Parts::TearDown();
        fault_wait.pass();
        g_meanwhile = nullptr;
        g_bad_block.clear();
    }
};

int start_lan()
{
    return start_service({family_of("lan.json", kLan)});
}

bool is_unsaved(const char *family)
{
    Files files;
    return bv::service::is_unsaved(*listed(family), files);
}

std::string set_mtu(int mtu)
{
    return R"({"lan.json":[{"inst":"1","para":{"mtu":")" + std::to_string(mtu) + R"("}}]})";
}

std::string with_mtu(int mtu)
{
    return R"({"ipaddr":"192.168.1.1","mtu":")" + std::to_string(mtu) + R"(","hostname":"gw"})";
}

} // namespace

TEST_F(Store, FirstStartHasDefaultsAndWritesNothing)
{
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    EXPECT_EQ(values("lan.json", 1), kDefaults);
    EXPECT_STREQ(store_state().loaded, "defaults");
    EXPECT_FALSE(file_exists(kUserFile));
}

TEST_F(Store, CommittedValuesAreThereAfterRestart)
{
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    ASSERT_EQ(request(set_mtu(1400)), BV_OK);
    EXPECT_TRUE(is_unsaved("lan.json"));
    EXPECT_EQ(bv_service_commit(), BV_OK);
    EXPECT_FALSE(is_unsaved("lan.json"));
    EXPECT_EQ(list_folder("/config/work"),
              (std::vector<std::string>{"userdata.json", "userdata.json.lock"}));

    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    EXPECT_EQ(values("lan.json", 1), with_mtu(1400));
    EXPECT_STREQ(store_state().loaded, "file");
}

TEST_F(Store, OtherServicesMembersStayByteForByte)
{
    write_file(kUserFile, std::string("{") + kOther + ", \"lan.json\":[],\"x\":null}");
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    ASSERT_EQ(request(set_mtu(1400)), BV_OK);
    ASSERT_EQ(bv_service_commit(), BV_OK);
    const std::string text = read_file(kUserFile);
    EXPECT_NE(text.find(kOther + 1), std::string::npos) << text;
    EXPECT_NE(text.find("\"x\":null"), std::string::npos) << text;
    EXPECT_EQ(values_of_file(kUserFile, "lan.json", 1), with_mtu(1400));
}

TEST_F(Store, CommentsOfOtherServicesStay)
{
    const std::string vpn =
        "/* a } \" \\ */ \"vpn.json\": [ // one ]\n 'x', /*,*/ \"y\" ] // the end";
    const std::string dns = "'dns.json' /* : */ : {\"a\":\"//\"}";
    write_file(kUserFile,
               "// all\n{\"lan.json\":[], // ours\n" + vpn + "\n, " + dns + "// more\n}");
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    std::string saved[2];
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(request(set_mtu(1400 + i)), BV_OK);
        EXPECT_EQ(bv_service_commit(), BV_OK);
        saved[i] = read_file(kUserFile);
        EXPECT_NE(saved[i].find("\t// ours\n" + vpn + "\n,\n\t" + dns + "// more\n\n}"),
                  std::string::npos)
            << saved[i];
        EXPECT_EQ(values_of_file(kUserFile, "lan.json", 1), with_mtu(1400 + i));
    }
    EXPECT_EQ(saved[0].size(), saved[1].size());
}

TEST_F(Store, MembersThatCannotBeCopiedAsTheyAreKeepTheOldFile)
{
    // For the parser the second name is ours, too.
    const std::string text = R"({"lan.json":[],"lan\u002ejson":[{"inst":"7","para":{}}]})";
    write_file(kUserFile, text);
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    ASSERT_EQ(request(set_mtu(1400)), BV_ERR_NO_INSTANCE);
    ASSERT_EQ(request(R"({"lan.json":[{"inst":"1"}]})", Meaning::Add), BV_OK);
    EXPECT_EQ(bv_service_commit(), BV_ERR_WRITE_OPEN);
    EXPECT_EQ(read_file(kUserFile), text);
}

TEST_F(Store, OldFileStaysAsGoodWithOwnerAndMode)
{
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    ASSERT_EQ(bv_service_commit(), BV_OK);
    ASSERT_EQ(chmod(kUserFile, 0640), 0);
    const std::string before = read_file(kUserFile);
    ASSERT_EQ(request(set_mtu(1400)), BV_OK);
    ASSERT_EQ(bv_service_commit(), BV_OK);
    EXPECT_EQ(read_file(std::string(kUserFile) + ".good"), before);
    struct stat status;
    ASSERT_EQ(stat(kUserFile, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(Store, WhatDidNotChangeIsNotWritten)
{
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    ASSERT_EQ(request(set_mtu(1400)), BV_OK);
    ASSERT_EQ(bv_service_commit(), BV_OK);
    struct stat first, second;
    ASSERT_EQ(stat(kUserFile, &first), 0);
    ASSERT_EQ(request(set_mtu(1300)), BV_OK);
    ASSERT_EQ(request(set_mtu(1400)), BV_OK);
    EXPECT_EQ(bv_service_commit(), BV_OK);
    ASSERT_EQ(stat(kUserFile, &second), 0);
    EXPECT_EQ(first.st_ino, second.st_ino);
    EXPECT_FALSE(file_exists(std::string(kUserFile) + ".good"));
}

TEST_F(Store, DamagedFileBecomesBadAndGoodIsLoaded)
{
    const std::string whole = R"({"lan.json":[{"inst":"1","para":{"mtu":"1400"}}],"vpn.json":[]})";
    write_file(kUserFile, whole.substr(0, 30));
    write_file(std::string(kUserFile) + ".good", whole);
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    EXPECT_EQ(values("lan.json", 1), with_mtu(1400));
    EXPECT_STREQ(store_state().loaded, "good");
    EXPECT_EQ(read_file(std::string(kUserFile) + ".bad"), whole.substr(0, 30));
    // What the others had is there, too, should one of them write the file in its own way now.
    EXPECT_EQ(read_file(kUserFile), whole);

    EXPECT_EQ(bv_service_commit(), BV_OK);
    EXPECT_EQ(read_file(kUserFile), whole);
}

TEST_F(Store, RestoredFileIsNoLinkAndHasTheModeOfGood)
{
    const std::string good = std::string(kUserFile) + ".good";
    write_file(good, R"({"lan.json":[]})");
    ASSERT_EQ(chmod(good.c_str(), 0640), 0);
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    struct stat status;
    ASSERT_EQ(stat(kUserFile, &status), 0);
    EXPECT_EQ(status.st_nlink, 1u);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(Store, BadBlockIsDamage)
{
    const std::string good = std::string(kUserFile) + ".good";
    write_file(kUserFile, "{}");
    write_file(good, R"({"lan.json":[{"inst":"1","para":{"mtu":"1400"}}]})");
    g_bad_block = kUserFile;
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    EXPECT_EQ(values("lan.json", 1), with_mtu(1400));
    EXPECT_EQ(read_file(std::string(kUserFile) + ".bad"), "{}");
}

TEST_F(Store, OnlyWhatIsDamagedIsToBeRemoved)
{
    const std::string path = kUserFile;
    ASSERT_EQ(mkdir(kUserFile, 0755), 0);
    EXPECT_EQ(start_lan(), BV_SERVICE_DATA);
    EXPECT_EQ(g_log.back(), path + " cannot be read: Is a directory");
    rmdir(kUserFile);

    write_file(path, "{");
    ASSERT_EQ(mkdir((path + ".good").c_str(), 0755), 0);
    EXPECT_EQ(start_lan(), BV_SERVICE_DATA);
    EXPECT_EQ(g_log.back(), path + ".good cannot be read: Is a directory");
    rmdir((path + ".good").c_str());
    EXPECT_EQ(start_lan(), BV_SERVICE_DATA);
    EXPECT_EQ(g_log.back(), path + ": it is damaged, and " + path +
                                ".good cannot be used: repair or remove them");
}

TEST_F(Store, FileThatIsBeingWrittenIsNotDamaged)
{
    const std::string whole = R"({"lan.json":[{"inst":"1","para":{"mtu":"1400"}}]})";
    write_file(kUserFile, whole.substr(0, 30));
    g_meanwhile = [&] { write_file(kUserFile, whole); };
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    EXPECT_EQ(values("lan.json", 1), with_mtu(1400));
}

TEST_F(Store, FileIsMovedAwayUnderTheLockOnly)
{
    write_file(kUserFile, "{");
    write_file(std::string(kUserFile) + ".good", "{}");
    const int lock = open("/config/work/userdata.json.lock", O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    EXPECT_EQ(read_file(kUserFile), "{");
    close(lock);
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    EXPECT_EQ(read_file(std::string(kUserFile) + ".bad"), "{");
}

TEST_F(Store, MissingFileWithGoodBesideItIsLoadedFromThere)
{
    write_file(std::string(kUserFile) + ".good",
               R"({"lan.json":[{"inst":"1","para":{"mtu":"1400"}}]})");
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    EXPECT_EQ(values("lan.json", 1), with_mtu(1400));
}

TEST_F(Store, DamagedFileWithoutGoodEndsTheServiceAndStays)
{
    for (const char *text : {"", "{\"lan.json\":", "[]"}) {
        write_file(kUserFile, text);
        EXPECT_EQ(start_lan(), BV_SERVICE_DATA) << text;
        EXPECT_EQ(read_file(kUserFile), text);
    }
}

TEST_F(Store, TemplateFaultsEndTheService)
{
    bv_service_family lan = family_of("lan.json", kLan);
    lan.size = 37;
    EXPECT_EQ(start_service({lan}), BV_SERVICE_SIZE);

    lan.size = 38;
    ASSERT_EQ(mkdir("/etc/template/more", 0755), 0);
    write_file("/etc/template/more/lan.json", "{}");
    EXPECT_EQ(start_service({lan}), BV_SERVICE_TEMPLATE);
    unlink("/etc/template/more/lan.json");
    EXPECT_EQ(start_service({lan}), BV_SERVICE_ENDED);

    for (const ::Parameters &faulty :
         std::vector<::Parameters>{{},
                                   {{"a", "ushort", 4, "1"}},
                                   {{"a", "ushort", 2, "70000"}},
                                   {{"a", "number", 2, "1"}},
                                   {{"a", "uchar", 1, "1"}, {"a", "uchar", 1, "1"}},
                                   {{"a", "string", 3, "abc"}},
                                   {{"", "uchar", 1, "1"}},
                                   {{"a", "string", 0, ""}},
                                   {{"a", "string", 1024, ""}}})
        EXPECT_EQ(start_service({family_of("lan.json", faulty)}), BV_SERVICE_TEMPLATE);
    unlink("/etc/template/lan.json");
    EXPECT_EQ(start_service({lan}), BV_SERVICE_TEMPLATE);
}

// Each is a fault for bv-template check, too.
TEST_F(Store, TemplateThatTheDatabaseWouldTakeInPartEndsTheService)
{
    const std::string good = R"({"name":"a","type":"uchar","len":1,"value":"1"})";
    const auto start = [](const std::string &text) {
        write_file("/etc/template/t.json", text);
        return start_service({{"t.json", 1, BV_SERVICE_USER, 0, nullptr, nullptr}});
    };
    EXPECT_EQ(start(R"({"getfunc":"get","own":{"b":[1.5e3,null]},"para":[)" + good + "]}\n"),
              BV_SERVICE_ENDED);
    const std::string half = good.substr(0, good.size() - 1);
    for (const std::string &text :
         {R"({"para":[)" + good + "]}x",
          R"({"para":[)" + good + "]}{}",
          R"({"para":[)" + good + ",]}",
          R"({"para":[)" + good + "] /* */}",
          R"({"para":[],"para":[)" + good + "]}",
          R"({"para":[)" + half + R"(,"len":1}]})",
          R"({"para":[)" + half + R"(,"other":NaN}]})",
          R"({"para":[)" + half + R"(,"other":01}]})",
          R"({"para":[)" + half + R"(,"other":1.}]})",
          R"({"para":[)" + half + R"(,"other":-Infinity}]})",
          R"({"para":[)" + half + R"(,"other":TRUE}]})",
          R"({"para":[)" + half + R"(,'o':1}]})",
          R"({"para":[)" + half + R"(,"o":.5}]})",
          R"({"para":[1,)" + good + "]}",
          R"({"para":[{"name":"b","type":"uchar","len":1},)" + good + "]}",
          R"({"para":[{"name":"b","type":"uchar","len":1.5,"value":"1"},)" + good + "]}",
          R"({"para":[{"name":"b","type":"uchar","len":1,"value":true},)" + good + "]}",
          R"({"para":[)" + good + "," + good + "]}",
          std::string("[]"),
          std::string("{}"),
          R"({"para":{}})" + std::string(),
          R"({"getfunc":")" + std::string(1024, 'f') + R"(","para":[)" + good + "]}",
          R"({"setfunc":[],"para":[)" + good + "]}",
          R"({"para":[)" + good + "]}" + std::string(1, '\0')})
        EXPECT_EQ(start(text), BV_SERVICE_TEMPLATE) << text.substr(0, 100);
}

// Some releases of json-c refuse these if they are strict; see put_plain().
TEST_F(Store, StringsOfATemplateMayHaveAnyLettersAndControlCharacters)
{
    const ::Parameters rooms = {{"room", "string", 16, "B\xc3\xbcro"}};
    const bv_service_family family = family_of("room.json", rooms);
    ASSERT_EQ(start_service({family}), BV_SERVICE_ENDED);
    EXPECT_EQ(values("room.json", 1), "{\"room\":\"B\xc3\xbcro\"}");

    const std::string rest = read_file("/etc/template/room.json").substr(1);
    for (const std::string note :
         {"\xe5\x8e\xa8\xe6\x88\xbf", "\xff", "a\tb", "two\nlines", "\x1f", "\\\"\t\\\\"}) {
        write_file("/etc/template/room.json", "{\"note\":\"" + note + "\"," + rest);
        EXPECT_EQ(start_service({family}), BV_SERVICE_ENDED) << note;
    }
}

TEST_F(Store, StoresHaveFilesOfTheirOwnAndFactoryIsWrittenByNameOnly)
{
    ASSERT_EQ(
        start_service({family_of("u.json", kLan), family_of("p.json", kLan, BV_SERVICE_PRIVATE),
                       family_of("f.json", kLan, BV_SERVICE_FACTORY)}),
        BV_SERVICE_ENDED);
    EXPECT_EQ(bv_service_commit(), BV_OK);
    EXPECT_EQ(values_of_file(kUserFile, "u.json", 1), kDefaults);
    EXPECT_EQ(values_of_file(kPrivateFile, "p.json", 1), kDefaults);
    EXPECT_FALSE(file_exists(kFactoryFile));
    EXPECT_EQ(bv_service_commit_factory(), BV_OK);
    EXPECT_EQ(values_of_file(kFactoryFile, "f.json", 1), kDefaults);
    EXPECT_EQ(values_of_file(kFactoryFile, "u.json", 1), "");
}

TEST_F(Store, FailureOfOneFileIsTheResultOfTheCommit)
{
    ASSERT_EQ(
        start_service({family_of("u.json", kLan), family_of("p.json", kLan, BV_SERVICE_PRIVATE)}),
        BV_SERVICE_ENDED);
    write_file(kUserFile, "{");
    EXPECT_EQ(bv_service_commit(), BV_ERR_WRITE_OPEN);
    EXPECT_EQ(store_state().saved_status, BV_ERR_WRITE_OPEN);
    EXPECT_EQ(values_of_file(kPrivateFile, "p.json", 1), kDefaults);
}

TEST_F(Store, CommitThatWritesNothingHasNoTime)
{
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    EXPECT_EQ(bv_service_commit(), BV_OK);
    EXPECT_NE(store_state().saved, 0);
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    EXPECT_EQ(bv_service_commit(), BV_OK);
    EXPECT_EQ(store_state().saved, 0);
}

TEST_F(Store, FileIsReadOnceForAllFamilies)
{
    ASSERT_EQ(start_service({family_of("lan.json", kLan), family_of("wan.json", kLan)}),
              BV_SERVICE_ENDED);
    ASSERT_EQ(bv_service_commit(), BV_OK);
    Files files;
    EXPECT_FALSE(bv::service::is_unsaved(*listed("lan.json"), files));
    write_file(kUserFile, "{");
    EXPECT_FALSE(bv::service::is_unsaved(*listed("wan.json"), files));
    EXPECT_TRUE(is_unsaved("wan.json"));
}

TEST_F(Store, FamilyWithoutInstancesIsSavedWithItsDefaults)
{
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    ASSERT_EQ(request(set_mtu(1400)), BV_OK);
    ASSERT_EQ(bv_service_commit(), BV_OK);
    ASSERT_EQ(request(R"({"lan.json":["1"]})", Meaning::Delete), BV_OK);
    EXPECT_TRUE(is_unsaved("lan.json"));
    EXPECT_EQ(bv_service_commit(), BV_OK);
    EXPECT_FALSE(is_unsaved("lan.json"));
    EXPECT_EQ(values("lan.json", 1), "");
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    EXPECT_EQ(values("lan.json", 1), kDefaults);
}

TEST_F(Store, LinkedFileStaysALink)
{
    ASSERT_EQ(symlink("../flash.json", kUserFile), 0);
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    ASSERT_EQ(bv_service_commit(), BV_OK);
    struct stat status;
    ASSERT_EQ(lstat(kUserFile, &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    EXPECT_EQ(values_of_file("/config/flash.json", "lan.json", 1), kDefaults);
    for (const char *suffix : {"", ".lock"})
        unlink((std::string("/config/flash.json") + suffix).c_str());
}

TEST_F(Store, ValueThatNoFileKeepsIsNotSaved)
{
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    ASSERT_EQ(bv_service_commit(), BV_OK);
    const std::string before = read_file(kUserFile);
    Lan lan = {};
    for (const std::string name : {"a\"b", "a\\b", "a\nb", "01234567890123456789012345678901"}) {
        memcpy(lan.hostname, name.c_str(), name.size());
        ASSERT_EQ(bv_db_write("lan.json", &lan, sizeof lan, 1), BV_OK);
        EXPECT_EQ(bv_service_commit(), BV_ERR_INVALID) << name;
        EXPECT_EQ(read_file(kUserFile), before);
    }
    EXPECT_EQ(store_state().saved_status, BV_ERR_INVALID);
}

TEST_F(Store, FullDiskLeavesTheOldFileAndNoRubbish)
{
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    ASSERT_EQ(bv_service_commit(), BV_OK);
    const std::string before = read_file(kUserFile);
    std::string more;
    for (int i = 2; i < 900; ++i)
        more += (more.empty() ? "" : ",") + std::string(R"({"inst":")") + std::to_string(i) + "\"}";
    ASSERT_EQ(request(R"({"lan.json":[)" + more + "]}", Meaning::Add), BV_OK) << words();
    // Writes end here, as they do on a full disk.
    const rlimit room = {64 * 1024, RLIM_INFINITY};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &room);
    EXPECT_EQ(bv_service_commit(), BV_ERR_WRITE_OPEN);
    EXPECT_EQ(read_file(kUserFile), before);
    EXPECT_EQ(list_folder("/config/work"),
              (std::vector<std::string>{"userdata.json", "userdata.json.lock"}));
}

TEST_F(Store, RevertAndResetTouchOneFamilyOnly)
{
    ASSERT_EQ(start_service({family_of("lan.json", kLan), family_of("wan.json", kLan)}),
              BV_SERVICE_ENDED);
    ASSERT_EQ(
        request(R"({"lan.json":[{"inst":"1","para":{"mtu":"1400","hostname":"long-name"}}]})"),
        BV_OK);
    ASSERT_EQ(bv_service_commit(), BV_OK);
    ASSERT_EQ(request(R"({"lan.json":[{"inst":"1","para":{"mtu":"1300"}}],)"
                      R"("wan.json":[{"inst":"1","para":{"mtu":"1200"}}]})"),
              BV_OK);
    ASSERT_EQ(request(R"({"lan.json":[{"inst":"7"}]})", Meaning::Add), BV_OK);
    announced();

    EXPECT_EQ(bv_service_revert("lan.json"), BV_OK);
    EXPECT_EQ(values("lan.json", 1),
              R"({"ipaddr":"192.168.1.1","mtu":"1400","hostname":"long-name"})");
    EXPECT_EQ(values("lan.json", 7), "");
    EXPECT_EQ(values("wan.json", 1), with_mtu(1200));
    EXPECT_EQ(announced(), std::vector<std::string>{"lan.json"});

    EXPECT_EQ(bv_service_reset("lan.json"), BV_OK);
    EXPECT_EQ(values("lan.json", 1), kDefaults);
    EXPECT_EQ(values("wan.json", 1), with_mtu(1200));

    // After the NUL of the shorter name no byte of the longer one is left.
    Lan lan;
    ASSERT_EQ(bv_db_read("lan.json", &lan, sizeof lan, 1), BV_OK);
    EXPECT_EQ(std::string(lan.hostname, sizeof lan.hostname),
              std::string("gw") + std::string(30, '\0'));

    write_file(kUserFile, "{");
    EXPECT_EQ(bv_service_revert("wan.json"), BV_ERR_NO_FILE);
    EXPECT_EQ(values("wan.json", 1), with_mtu(1200));
    EXPECT_EQ(read_file(kUserFile), "{");
    EXPECT_EQ(bv_service_revert("no.json"), BV_ERR_NO_FAMILY);
}

TEST_F(Store, SavedInstancesAreShownWhileOthersRun)
{
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    ASSERT_EQ(bv_service_commit(), BV_OK);
    ASSERT_EQ(request(set_mtu(1300)), BV_OK);
    Text text;
    Plan plan(Meaning::Saved);
    Files files;
    ASSERT_EQ(plan_back(plan, *listed("lan.json"), &files), BV_OK);
    put_planned(text, plan);
    EXPECT_EQ(std::string(text.bytes),
              std::string(R"({"lan.json":[{"inst":"1","para":)") + kDefaults + "}]}");
}

// The data file of one firmware under the templates of another, both ways.
TEST_F(Store, FileOfAnotherVersionKeepsWhatFitsByName)
{
    const ::Parameters old_one = {{"ipaddr", "ip", 4, "192.168.1.1"},
                                  {"mtu", "ushort", 2, "1500"},
                                  {"hostname", "string", 32, "gw"},
                                  {"gone", "uint", 4, "5"}};
    const ::Parameters new_one = {{"hostname", "string", 8, "new"}, // shorter, and moved
                                  {"mtu", "uchar", 1, "9"},         // another type
                                  {"added", "int", 4, "-1"},
                                  {"ipaddr", "ip", 4, "10.0.0.1"}};
    ASSERT_EQ(start_service({family_of("lan.json", old_one)}), BV_SERVICE_ENDED);
    ASSERT_EQ(
        request(
            R"({"lan.json":[{"inst":"1","para":{"ipaddr":"1.2.3.4","mtu":"1400","gone":"6"}}]})"),
        BV_OK);
    ASSERT_EQ(
        request(R"({"lan.json":[{"inst":"2","para":{"mtu":"200","hostname":"too-long-now"}}]})",
                Meaning::Add),
        BV_OK);
    ASSERT_EQ(bv_service_commit(), BV_OK);
    const std::string before = read_file(kUserFile);

    ASSERT_EQ(start_service({family_of("lan.json", new_one)}), BV_SERVICE_ENDED);
    EXPECT_EQ(values("lan.json", 1),
              R"({"hostname":"gw","mtu":"9","added":"-1","ipaddr":"1.2.3.4"})");
    EXPECT_EQ(values("lan.json", 2),
              R"({"hostname":"new","mtu":"200","added":"-1","ipaddr":"192.168.1.1"})");

    // Until something changes, the way back loses nothing.
    EXPECT_EQ(bv_service_commit(), BV_OK);
    EXPECT_EQ(read_file(kUserFile), before);
    ASSERT_EQ(request(R"({"lan.json":[{"inst":"1","para":{"added":"70000"}}]})"), BV_OK);
    EXPECT_EQ(bv_service_commit(), BV_OK);

    ASSERT_EQ(start_service({family_of("lan.json", old_one)}), BV_SERVICE_ENDED);
    EXPECT_EQ(values("lan.json", 1),
              R"({"ipaddr":"1.2.3.4","mtu":"9","hostname":"gw","gone":"5"})");
    EXPECT_EQ(values("lan.json", 2),
              R"({"ipaddr":"192.168.1.1","mtu":"200","hostname":"new","gone":"5"})");
}

TEST_F(Store, OddElementsOfAFileNeverKeepTheServiceDown)
{
    for (const char *element :
         {"1", "null", "[]", R"({"inst":"2"})", R"({"para":{"mtu":"1400"}})",
          R"({"inst":{},"para":7})", R"({"inst":"x","para":{"mtu":{}}})",
          R"({"inst":"1","para":{"mtu":"-1","hostname":"a\"b","ipaddr":"1.2.3"}})"}) {
        write_file(kUserFile, std::string(R"({"lan.json":[)") + element + "]}");
        EXPECT_EQ(start_lan(), BV_SERVICE_ENDED) << element;
        EXPECT_NE(values("lan.json", 1) + values("lan.json", 0), "") << element;
    }
    write_file(kUserFile, R"({"lan.json":{"inst":"1"}})");
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    EXPECT_EQ(values("lan.json", 1), kDefaults);
}

TEST_F(Store, WhatAFileLacksIsSaidOnceAndWithoutValues)
{
    const auto lines = [](const std::string &elements) {
        write_file(kUserFile, "{\"lan.json\":" + elements + "}");
        g_log.clear();
        EXPECT_EQ(start_lan(), BV_SERVICE_ENDED);
        return g_log;
    };
    const std::string rest = R"("ipaddr":"10.0.0.1","hostname":"a")";
    EXPECT_EQ(lines(R"([{"inst":"1","para":{"mtu":"secret","gone":"1",)" + rest +
                    R"(}},{"inst":"2","para":{"mtu":"secret too","gone":"2"}}])"),
              (Lines{"lan.json.mtu: does not fit the template, and is left out",
                     "lan.json.gone: does not fit the template, and is left out"}));
    EXPECT_EQ(lines(R"([{"inst":"1","para":{)" + rest + R"(}},{"inst":"2","para":{}}])"),
              Lines{"lan.json.mtu: is not in the file, and has its default"});
    EXPECT_EQ(lines(R"({"inst":"1"})"),
              Lines{"lan.json: the file has no list of instances, so all is as by default"});
    for (const char *element : {"7", R"({"inst":"2"})", R"({"para":{}})",
                                R"({"inst":"x","para":{}})", R"({"inst":"2","para":[]})"})
        EXPECT_EQ(lines(R"([{"inst":"1","para":{"mtu":"1",)" + rest + "}}," + element + "]"),
                  Lines{"lan.json: the file has an instance without a number or values"})
            << element;
}

TEST_F(Store, ServicesThatSaveAtTheSameTimeKeepAllThatTheySaved)
{
    fault_wait.pass();
    const auto save_often = [](const char *name) {
        if (start_service({family_of(name, kLan)}) != BV_SERVICE_ENDED)
            return 1;
        for (int i = 1; i <= 50; ++i) {
            const std::string json = "{\"" + std::string(name) +
                                     R"(":[{"inst":"1","para":{"mtu":")" + std::to_string(i) +
                                     "\"}}]}";
            if (request(json) != BV_OK || bv_service_commit() != BV_OK)
                return 2;
        }
        return 0;
    };
    Child one([&] { return save_often("one.json"); }, 60);
    Child two([&] { return save_often("two.json"); }, 60);
    EXPECT_EQ(one.wait(), 0);
    EXPECT_EQ(two.wait(), 0);
    EXPECT_EQ(values_of_file(kUserFile, "one.json", 1), with_mtu(50));
    EXPECT_EQ(values_of_file(kUserFile, "two.json", 1), with_mtu(50));
}

TEST_F(Store, HeldLockKeepsFromSavingButNotFromStarting)
{
    const int lock = open("/config/work/userdata.json.lock", O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    EXPECT_EQ(bv_service_commit(), BV_ERR_WRITE_OPEN);
    EXPECT_FALSE(file_exists(kUserFile));
    close(lock);
    EXPECT_EQ(bv_service_commit(), BV_OK);
}

TEST_F(Store, OwnerIsKept)
{
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    ASSERT_EQ(bv_service_commit(), BV_OK);
    if (chown(kUserFile, 12, 34) != 0)
        GTEST_SKIP() << "no other users here";
    ASSERT_EQ(request(set_mtu(1400)), BV_OK);
    ASSERT_EQ(bv_service_commit(), BV_OK);
    struct stat status;
    ASSERT_EQ(stat(kUserFile, &status), 0);
    EXPECT_EQ(status.st_uid, 12u);
    EXPECT_EQ(status.st_gid, 34u);
}

TEST_F(Store, CommitWithoutMemoryLeavesTheOldFile)
{
    ASSERT_EQ(start_lan(), BV_SERVICE_ENDED);
    ASSERT_EQ(bv_service_commit(), BV_OK);
    write_file(std::string(kUserFile) + ".good", "{}");
    ASSERT_EQ(request(set_mtu(1400)), BV_OK);
    const std::string before = read_file(kUserFile);
    FaultPoint::count_ours_only(); // json-c does not survive each failure of its own
    bool refused = true;
    for (int nth = 1; refused; ++nth) {
        fault_malloc.fail_next(nth);
        const int32_t status = bv_service_commit();
        refused = fault_malloc.failures() > 0;
        fault_malloc.pass();
        ASSERT_FALSE(file_exists(std::string(kUserFile) + ".bad")) << nth;
        if (status == BV_OK)
            break;
        ASSERT_EQ(status, static_cast<int32_t>(BV_ERR_WRITE_OPEN)) << nth;
        ASSERT_EQ(read_file(kUserFile), before) << nth;
    }
    EXPECT_EQ(values_of_file(kUserFile, "lan.json", 1), with_mtu(1400));
}
