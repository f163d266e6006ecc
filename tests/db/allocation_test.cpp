// Refused allocations: the status, what the database holds afterwards, and the same call again.

#include "db/database.h"
#include "db/parsed.h"

#include "support/capture.h"
#include "support/faults.h"

#include <functional>
#include <unistd.h>

namespace {

constexpr char kLanPath[] = "/etc/template/lan.json";
const std::vector<int> kNoRefusals;

class DbAllocation : public Db {
protected:
    void TearDown() override
    {
        forget_parsed();
        Db::TearDown();
    }

    // An empty database; the template of 38 bytes is installed.
    static void start_over()
    {
        free_instances();
        ASSERT_EQ(bv_db_init(), BV_OK);
    }

    static int read_lan() { return bv_db_template_read_single(kLanPath, bv_db_hash_find("lan")); }
};

// Calls action() with the first, second ... allocation refused until none is; afterwards() looks
// around after each refusal. Returns the statuses of the refused calls.
template <typename Action, typename Afterwards>
std::vector<int> refuse_each(Action action, Afterwards afterwards)
{
    std::vector<int> statuses;
    for (unsigned n = 1;; ++n) {
        SCOPED_TRACE(n);
        int status;
        bool refused;
        {
            FailAllocation nth(n);
            status = action();
            refused = nth.happened();
        }
        if (!refused)
            return statuses;
        statuses.push_back(status);
        afterwards();
    }
}

TEST(DbAllocationAtInit, WithoutATableInitFailsAndCallsAreHarmless)
{
    EXPECT_EQ(refuse_each(bv_db_init,
                          [] {
                              EXPECT_EQ(g_st_db_mng.table, nullptr);
                              EXPECT_EQ(bv_db_reg_user("lan"), BV_OK);
                              EXPECT_EQ(bv_db_hash_find("lan"), nullptr);
                              EXPECT_EQ(bv_db_hash_add("lan"), nullptr);
                              EXPECT_EQ(bv_db_start(), BV_OK);
                              EXPECT_EQ(bv_db_hash_free(), BV_OK);
                          }),
              (std::vector<int>{BV_ERR_MEMORY, BV_ERR_MEMORY}));
}

TEST_F(DbAllocation, RefusedCallsLeaveTheDatabaseAsItWas)
{
    static uint8_t image[38];
    const auto nothing_registered = [] {
        for (const bv_list_head *list :
             {&g_st_db_mng.user_list, &g_st_db_mng.private_list, &g_st_db_mng.factory_list})
            EXPECT_EQ(names(*list), Names{});
    };
    const auto no_instances = [] {
        const bv_db_family *family = bv_db_hash_find("lan");
        EXPECT_EQ(numbers(family), Numbers{});
        EXPECT_EQ(family->inst_count, 0);
        EXPECT_EQ(family->inst_max, 0);
    };
    const auto no_parameters = [] {
        expect_no_parameters(bv_db_hash_find("lan"));
        EXPECT_STREQ(bv_db_hash_find("lan")->getfunc, "get");
        EXPECT_EQ(bv_db_inst_getnum("lan"), 0);
        uint8_t buf[38] = {9};
        EXPECT_EQ(bv_db_read("lan", buf, sizeof buf, 1), BV_OK);
        EXPECT_EQ(buf[0], 9) << "no image to copy";
    };
    const auto add_family = [] { bv_db_hash_add("lan"); };
    const auto add_lan = [] {
        bv_db_hash_add("lan");
        EXPECT_EQ(read_lan(), BV_OK);
    };
    const auto add_lan_of_one = [&] {
        add_lan();
        add_instance(bv_db_hash_find("lan"), 1, {"10.0.0.1", "9000", "a"});
    };
    const auto add_one_byte = [] {
        bv_db_hash_add("lan");
        EXPECT_EQ(bv_db_template_read_single("/etc/template/one", bv_db_hash_find("lan")), BV_OK);
    };
    const std::vector<int> kTemplate = {BV_ERR_MEMORY, -1, -1}; // the table, the two images
    const struct {
        const char *what;
        std::function<void()> prepare;
        std::function<int()> call;
        std::vector<int> statuses;
        std::function<void()> unchanged;
    } rows[] = {
        {"user", [] {}, [] { return bv_db_reg_user("x"); }, {BV_ERR_MEMORY}, nothing_registered},
        {"private",
         [] {},
         [] { return bv_db_reg_private("x"); },
         {BV_ERR_MEMORY},
         nothing_registered},
        {"factory",
         [] {},
         [] { return bv_db_reg_factory("x"); },
         {BV_ERR_MEMORY},
         nothing_registered},
        {"family",
         [] {},
         [] { return bv_db_hash_add("lan") == nullptr ? -1 : 0; },
         {-1, -1, -1},
         [] {
             EXPECT_EQ(families(), Names{});
             EXPECT_EQ(bv_db_hash_find("lan"), nullptr);
         }},
        {"template", add_family, read_lan, kTemplate, no_parameters},
        {"template again", add_lan_of_one, read_lan, kTemplate, no_parameters},
        {"largest template", add_family,
         [] { return bv_db_template_read_single("/etc/template/large", bv_db_hash_find("lan")); },
         kTemplate, no_parameters},
        {"instance",
         add_lan,
         [] { return bv_db_inst_add("lan", image, 38, 4); },
         {BV_ERR_MEMORY, BV_ERR_MEMORY},
         no_instances},
        {"instance of one byte",
         add_one_byte,
         [] { return bv_db_inst_add("lan", image, 1, 4); },
         {BV_ERR_MEMORY, BV_ERR_MEMORY},
         no_instances},
        {"instance of nothing",
         add_family,
         [] { return bv_db_inst_add("lan", nullptr, 0, 4); },
         {BV_ERR_MEMORY},
         no_instances},
        {"read", add_lan_of_one, [] { return bv_db_read("lan", image, 38, 1); }, kNoRefusals,
         [] {}},
        {"write", add_lan_of_one, [] { return bv_db_write("lan", image, 38, 1); }, kNoRefusals,
         [] {}},
    };
    install("lan.json", kLan);
    install("one", std::vector<Parameter>{{"id", "uchar", 1, "1"}});
    install("large", std::vector<Parameter>(425, {"p", "uchar", 1, "1"}));
    for (const char *path : {kLanPath, "/etc/template/one", "/etc/template/large"})
        parse_beforehand(path);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        start_over();
        row.prepare();
        const auto again = [&] {
            row.unchanged();
            start_over();
            row.prepare();
        };
        EXPECT_EQ(refuse_each(row.call, again), row.statuses);
    }
}

TEST_F(DbAllocation, TreesOfFilesAreReleasedEvenIfTheFileIsRefused)
{
    install("lan.json", kLan);
    bv_db_reg_user(kLanPath);
    write_file(kUserFile, "{\"/etc/template/lan.json\":[" + stored(1) + "]}");
    parse_beforehand(kLanPath);
    parse_beforehand(kUserFile);
    EXPECT_EQ(bv_db_start(), BV_OK);
    EXPECT_EQ(bv_db_inst_getnum(kLanPath), 1);
    forget_parsed();

    for (const char *text : {"{}", "{\"para\":7}", "{\"para\":[]}", "[]"}) {
        SCOPED_TRACE(text);
        install("lan.json", std::string(text));
        parse_beforehand(kLanPath);
        bv_db_template_read_single(kLanPath, bv_db_hash_find(kLanPath));
        forget_parsed();
    }
}

TEST_F(DbAllocation, LoadInAnyOrderNeedsNoMemoryBeyondItsInstances)
{
    install("lan.json", kLan);
    bv_db_reg_user(kLanPath);
    std::vector<std::string> elements;
    for (int number : {3, 1, 2, 1, 4, 3})
        elements.push_back(
            stored(number, "\"mtu\":\"" + std::to_string(1000 + elements.size()) + "\""));
    write_file(kUserFile, "{\"/etc/template/lan.json\":[" + listed(elements) + "]}");
    parse_beforehand(kLanPath);
    parse_beforehand(kUserFile);
    ASSERT_EQ(bv_db_start(), BV_OK);
    Bytes images[4];
    for (int i = 0; i < 4; ++i)
        images[i] = image_of(bv_db_hash_find(kLanPath), i + 1);

    ASSERT_EQ(bv_db_template(), BV_OK);
    int whole = 0;
    const auto statuses =
        refuse_each([] { return bv_db_user_read(&g_st_db_mng.user_list, kUserFile); },
                    [&] {
                        const bv_db_family *lan = bv_db_hash_find(kLanPath);
                        if (numbers(lan) == Numbers{3, 1, 2, 4}) {
                            ++whole;
                            for (int i = 0; i < 4; ++i)
                                EXPECT_EQ(image_of(lan, i + 1), images[i]) << i + 1;
                        }
                        bv_db_template();
                    });
    EXPECT_EQ(statuses, std::vector<int>(8 + 4, BV_OK)) << "four instances, four index entries";
    EXPECT_EQ(whole, 4) << "without an index entry the list is walked";
}

// Opening takes memory in the C library, and some have emptied the file by then; the text takes
// none.
TEST_F(DbAllocation, WriteWithoutMemoryIsWholeOrTheFileCannotBeOpened)
{
    user_family("lan.json", kLan);
    ASSERT_EQ(bv_db_user_write(&g_st_db_mng.user_list, kPrivateFile), BV_OK);
    std::string whole = read_file(kPrivateFile);
    CaptureStdout out;
    int status = BV_OK;
    const auto statuses = refuse_each(
        [&] { return status = bv_db_user_write(&g_st_db_mng.user_list, kUserFile); },
        [&] {
            EXPECT_EQ(status, read_file(kUserFile) == whole ? BV_OK : BV_ERR_WRITE_OPEN);
            EXPECT_EQ(unlink(kUserFile), 0);
        });
    EXPECT_EQ(out.stop(), "");
    EXPECT_GE(statuses.size(), 1u);
    EXPECT_EQ(read_file(kUserFile), whole);
}

} // namespace
