// SPDX-License-Identifier: ISC
// Templates: found, read, refused, read again.

#include "db/database.h"

#include "support/capture_stdout.h"
#include "support/dirty_heap.h"

#include <bv/os.h>

#include <climits>
#include <csignal>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class DbTemplate : public Db {
protected:
    void SetUp() override
    {
        Db::SetUp();
        family = bv_db_hash_add("t.json");
        ASSERT_NE(family, nullptr);
    }

    // Reads template t.json, or another one by its name or path.
    int read_named(const std::string &name)
    {
        return bv_db_template_read_single(name.c_str(), family);
    }

    int read(const std::string &text)
    {
        install("t.json", text);
        return read_named("t.json");
    }

    int read_elements(const std::string &elements) { return read("{\"para\":[" + elements + "]}"); }

    int read_lan() { return read(template_text(kLan)); }

    // As after bv_db_hash_add(), but for the function names.
    void expect_untouched() const
    {
        expect_no_parameters(family);
        EXPECT_EQ(family->inst_count, 0);
        EXPECT_EQ(family->inst_max, 0);
    }

    bv_db_family *family = nullptr;
};

std::string element(const std::string &name, const std::string &len = "4")
{
    return "{\"name\":\"" + name + "\",\"type\":\"uint\",\"len\":" + len + ",\"value\":\"1\"}";
}

std::string elements(size_t count)
{
    return listed(std::vector<std::string>(count, element("p")));
}

TEST_F(DbTemplate, LanGivesDescriptorsAndTwoImagesOf38Bytes)
{
    EXPECT_EQ(read_lan(), BV_OK);
    EXPECT_EQ(family->para_count, 3);
    EXPECT_EQ(family->image_size, 38);
    EXPECT_STREQ(family->getfunc, "get");
    EXPECT_STREQ(family->setfunc, "set");
    EXPECT_EQ(family->inst_count, 0);
    EXPECT_EQ(family->inst_max, 0);

    Bytes expected(64); // as allocated, the rest zero
    Bytes ip = {192, 168, 1, 1}, mtu = bytes_of<uint16_t>(1500), host = {'g', 'w'};
    std::copy(ip.begin(), ip.end(), expected.begin());
    std::copy(mtu.begin(), mtu.end(), expected.begin() + 4);
    std::copy(host.begin(), host.end(), expected.begin() + 6);
    ASSERT_NE(family->working_image, nullptr);
    EXPECT_NE(family->working_image, family->default_image);
    EXPECT_EQ(Bytes(family->default_image, family->default_image + 64), expected);
    EXPECT_EQ(Bytes(family->working_image, family->working_image + 64), expected);

    for (size_t i = 0; i < kLan.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(family->para[i].valid, 1u);
        EXPECT_EQ(family->para[i].selected, 0u);
        EXPECT_EQ(family->para[i].len, kLan[i].len);
        EXPECT_EQ(family->para[i].name, kLan[i].name);
        EXPECT_EQ(family->para[i].type, kLan[i].type);
        EXPECT_EQ(family->para[i].value, kLan[i].value);
    }
}

TEST_F(DbTemplate, IsFoundByPathInTheCurrentDirectoryOrAnywhereUnderTheTemplates)
{
    mkdir("/etc/template/net", 0755);
    mkdir("/etc/template/net/deep", 0755);
    install("net/deep/wan.json", {{"id", "uint", 4, "1"}});
    EXPECT_EQ(read_named("wan.json"), BV_OK);
    EXPECT_EQ(family->image_size, 4);

    write_file("/scratch/elsewhere.json", template_text(kLan));
    EXPECT_EQ(read_named("/scratch/elsewhere.json"), BV_OK);
    EXPECT_EQ(family->image_size, 38);

    write_file("/scratch/wan.json", template_text({{"id", "uchar", 1, "1"}}));
    ASSERT_EQ(chdir("/scratch"), 0);
    EXPECT_EQ(read_named("wan.json"), BV_OK) << "wins over the search";
    EXPECT_EQ(family->image_size, 1);
}

TEST_F(DbTemplate, MissingOrAmbiguousTemplateLeavesTheFamilyEmpty)
{
    EXPECT_EQ(read_named("t.json"), -1);
    EXPECT_EQ(read_named(std::string(300, 'n')), -1) << "too long for the command";
    mkdir("/etc/template/old", 0755);
    install("t.json", kLan);
    install("old/t.json", kLan);
    EXPECT_EQ(read_named("t.json"), -1);
    EXPECT_EQ(bv_db_template_read_single(nullptr, family), -1);
    EXPECT_EQ(bv_db_template_read_single("/etc/template/t.json", nullptr), -1);
    expect_untouched();
    EXPECT_EQ(bv_db_hash_find("t.json"), family);
}

TEST_F(DbTemplate, StatusOfASearchThatCannotBeCapturedIsReturned)
{
    char capture[64];
    snprintf(capture, sizeof capture, "/tmp/system_%04d_01", getpid() & 0xffff);
    ASSERT_EQ(symlink("/nowhere/file", capture), 0);
    EXPECT_EQ(read_lan(), BV_ERR_NO_FILE);
    expect_untouched();
}

TEST_F(DbTemplate, TextThatIsNotATemplateIsRefused)
{
    std::string whole = template_text(kLan);
    std::vector<std::string> texts = {whole.substr(0, whole.size() / 2),
                                      whole.substr(0, whole.size() - 1), std::string(100, '[')};
    for (const char *text : {"", " \n", "garbage", "{", "}", "null", "[]", "\"para\"", "17", "true",
                             "{}", "[{\"para\":[]}]", "\xff\xfe\x01"})
        texts.push_back(text);
    for (const char *para : {"null", "{}", "{\"0\":1}", "\"text\"", "3", "1.5", "false"})
        texts.push_back(std::string("{\"para\":") + para + "}");
    for (const std::string &text : texts) {
        SCOPED_TRACE(text);
        EXPECT_EQ(read(text), -1);
        expect_untouched();
    }
}

TEST_F(DbTemplate, FunctionNamesAreOptionalAndReadEvenWithoutPara)
{
    EXPECT_EQ(read_elements(element("p")), BV_OK);
    EXPECT_STREQ(family->getfunc, "");
    EXPECT_STREQ(family->setfunc, "");
    EXPECT_EQ(read(R"({"getfunc":null,"setfunc":7,"para":[]})"), BV_OK);
    EXPECT_STREQ(family->getfunc, "") << "null counts as absent";
    EXPECT_STREQ(family->setfunc, "7") << "a number counts as its text";
    EXPECT_EQ(read(R"({"getfunc":"g","setfunc":"s"})"), -1);
    EXPECT_STREQ(family->getfunc, "g");
    EXPECT_STREQ(family->setfunc, "s");
    expect_no_parameters(family);
}

TEST_F(DbTemplate, TextsAreCutTo1023Characters)
{
    std::string text(2000, 'x'), cut(1023, 'x');
    EXPECT_EQ(read("{\"getfunc\":\"" + text + "\",\"setfunc\":\"" + text +
                   "\",\"para\":[{\"name\":\"" + text + "\",\"type\":\"" + text +
                   "\",\"len\":4,\"value\":\"" + text + "\"}]}"),
              BV_OK);
    EXPECT_EQ(family->getfunc, cut);
    EXPECT_EQ(family->setfunc, cut);
    EXPECT_EQ(family->para[0].name, cut);
    EXPECT_EQ(family->para[0].type, cut);
    EXPECT_EQ(family->para[0].value, cut);
}

TEST_F(DbTemplate, EmptyParaGivesAFamilyWithoutImages)
{
    EXPECT_EQ(read_elements(""), BV_OK);
    expect_untouched();

    Bytes buf(8, 0xee);
    EXPECT_EQ(bv_db_read("t.json", buf.data(), 8, 1), BV_OK);
    EXPECT_EQ(buf, Bytes(8, 0xee));
    EXPECT_EQ(bv_db_read("t.json", buf.data(), 8, 2), BV_ERR_NO_INSTANCE);
}

TEST_F(DbTemplate, KeysMayBeInAnyOrderAmongOthers)
{
    EXPECT_EQ(read(R"({"x":1,"para":[{"value":"258","y":[],"len":4,"type":"uint","name":"p"}],
                       "setfunc":"s","getfunc":"g"})"),
              BV_OK);
    EXPECT_STREQ(family->getfunc, "g");
    EXPECT_STREQ(family->setfunc, "s");
    EXPECT_STREQ(family->para[0].name, "p");
    EXPECT_STREQ(family->para[0].type, "uint");
    EXPECT_EQ(default_image(family), bytes_of<uint32_t>(258));
}

TEST_F(DbTemplate, ElementThatLacksSomethingIsSkipped)
{
    const char *broken[] = {R"({"type":"uint","len":4,"value":"1"})",
                            R"({"name":"p","len":4,"value":"1"})",
                            R"({"name":"p","type":"uint","value":"1"})",
                            R"({"name":"p","type":"uint","len":4})",
                            R"({"name":null,"type":"uint","len":4,"value":"1"})",
                            R"({"name":"p","type":null,"len":4,"value":"1"})",
                            R"({"name":"p","type":"uint","len":null,"value":"1"})",
                            R"({"name":"p","type":"uint","len":4,"value":null})",
                            R"({"name":"p","type":"uint","len":1024,"value":"1"})",
                            R"({"name":"p","type":"uint","len":"1024","value":"1"})",
                            R"({"name":"p","type":"uint","len":99999999999,"value":"1"})",
                            "null",
                            "[]",
                            "\"p\"",
                            "4",
                            "{}"};
    for (const char *text : broken) {
        SCOPED_TRACE(text);
        EXPECT_EQ(read_elements(element("a") + "," + text + "," + element("b")), BV_OK);
        EXPECT_EQ(family->para_count, 3) << "elements are counted, complete or not";
        EXPECT_EQ(family->image_size, 8);
        EXPECT_EQ(family->para[0].valid, 1u);
        EXPECT_STREQ(family->para[0].name, "a");
        EXPECT_EQ(family->para[1].valid, 1u);
        EXPECT_STREQ(family->para[1].name, "b");
        EXPECT_STREQ(family->para[1].value, "1");
        EXPECT_EQ(family->para[2].valid, 0u);
        EXPECT_STREQ(family->para[2].name, "");
    }
}

TEST_F(DbTemplate, IncompleteLastElementStaysInItsSlotInvalid)
{
    dirty_heap();
    EXPECT_EQ(
        read_elements(element("a") + R"(,{"name":"late","type":"uint","len":2000,"value":"9"})"),
        BV_OK);
    EXPECT_EQ(family->image_size, 4);
    EXPECT_EQ(family->para[1].valid, 0u);
    EXPECT_STREQ(family->para[1].name, "late");
    EXPECT_STREQ(family->para[1].type, "uint");
    EXPECT_EQ(family->para[1].len, 2000);
    EXPECT_STREQ(family->para[1].value, "") << "taken only when the length is good";
}

// Whatever the lengths claim, no allocation is refused: nothing is printed.
TEST_F(DbTemplate, SlotsWithoutAnElementAreZeros)
{
    dirty_heap();
    EXPECT_EQ(read_elements(element("a") + ",{}," + element("b") + ",{},{}"), BV_OK);
    ASSERT_EQ(family->para_count, 5);
    for (int i : {0, 1}) {
        const bv_db_para &para = family->para[i];
        EXPECT_EQ(para.valid, 1u);
        EXPECT_EQ(para.selected, 0u);
        EXPECT_STREQ(para.name, i == 0 ? "a" : "b");
        EXPECT_STREQ(para.value, "1");
    }
    EXPECT_EQ(family->para[2].valid, 0u);
    EXPECT_EQ(family->para[2].selected, 0u);
    EXPECT_EQ(family->para[2].len, 0);
    EXPECT_STREQ(family->para[2].name, "") << "the slot of {} and {}";
    EXPECT_STREQ(family->para[2].type, "");
    EXPECT_STREQ(family->para[2].value, "");
    const auto *rest = reinterpret_cast<const char *>(&family->para[3]);
    EXPECT_EQ(std::string(rest, 2 * sizeof(bv_db_para)), std::string(2 * sizeof(bv_db_para), 0));
}

TEST_F(DbTemplate, LengthsBelow1024AddUpToTheImageSize)
{
    const struct {
        const char *what;
        std::string elements;
        int count, size;
    } rows[] = {
        {"1023 is the largest", element("a", "1023") + "," + element("b", "1024"), 2, 1023},
        {"negative ones shrink it",
         element("a") + "," + element("b", "-1") + "," + element("c", "3"), 3, 6},
        {"zero", element("a", "0"), 1, 0},
        {"clamped to 32 bits", element("a", "-99999999999") + "," + element("b", "1000"), 2,
         INT_MIN + 1000},
        {"not those of skipped elements",
         element("a", "-2147483648") + R"(,{"name":"p","type":"uint","len":-2147483648})", 2,
         INT_MIN},
        {"only incomplete elements", "{},{},{}", 3, 0},
        {"as many as there may be", elements(425), 425, 1700},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        CaptureStdout out;
        EXPECT_EQ(read_elements(row.elements), BV_OK);
        EXPECT_EQ(out.stop(), "");
        EXPECT_EQ(family->para_count, row.count);
        EXPECT_EQ(family->image_size, row.size);
        EXPECT_NE(family->para, nullptr);
        EXPECT_EQ(family->working_image != nullptr, row.size > 0);
        EXPECT_EQ(family->default_image != nullptr, row.size > 0);
    }
    EXPECT_EQ(family->para[424].valid, 1u);

    CaptureStdout out;
    EXPECT_EQ(read_elements(elements(426)), -1);
    EXPECT_EQ(out.stop(), "");
    expect_no_parameters(family);

    install("t.json",
            "{\"para\":[" + element("a", "-2147483648") + "," + element("b", "-2147483648") + "]}");
    EXPECT_EXIT(read_named("t.json"), ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(DbTemplate, FamilyOfNegativeSizeHasInstancesWithoutImages)
{
    EXPECT_EQ(read_elements(element("a", "-4")), BV_OK);
    EXPECT_EQ(family->para[0].valid, 1u);
    EXPECT_EQ(family->para[0].len, -4);
    uint8_t buf[4] = {1, 2, 3, 4};
    CaptureStdout out;
    EXPECT_EQ(bv_db_read("t.json", buf, sizeof buf, 1), BV_OK);
    EXPECT_EQ(bv_db_inst_add("t.json", buf, sizeof buf, 2), BV_OK);
    EXPECT_EQ(bv_db_write("t.json", buf, sizeof buf, 2), BV_OK);
    EXPECT_EQ(bv_db_read("t.json", buf, sizeof buf, 2), BV_OK);
    EXPECT_EQ(buf[0], 1);
    EXPECT_EQ(buf[3], 4);
    EXPECT_EQ(out.stop(), "") << "no memory was asked for";
}

TEST_F(DbTemplate, QuotedNumbersAndUnquotedTextsAreAccepted)
{
    EXPECT_EQ(read_elements(R"({"name":5,"type":"uint","len":"4","value":258})"), BV_OK);
    EXPECT_EQ(family->para[0].valid, 1u);
    EXPECT_STREQ(family->para[0].name, "5");
    EXPECT_EQ(family->para[0].len, 4);
    EXPECT_EQ(default_image(family), bytes_of<uint32_t>(258));
}

TEST_F(DbTemplate, ReadAgainKeepsInstancesOfTheSameSizeForTheNextCommit)
{
    ASSERT_EQ(bv_db_reg_user("t.json"), BV_OK);
    ASSERT_EQ(read_lan(), BV_OK);
    add_instance(family, 4, {"10.0.0.1", "9000", "a"});
    add_instance(family, 2, {"10.0.0.2", "9001", "b"});
    ASSERT_EQ(bv_db_user_write(&g_st_db_mng.user_list, "/scratch/before"), BV_OK);

    std::vector<Parameter> renamed = kLan;
    renamed[1].value = "1400";
    ASSERT_EQ(read(template_text(renamed)), BV_OK);
    EXPECT_EQ(numbers(family), (Numbers{4, 2}));
    EXPECT_EQ(family->inst_count, 2);
    EXPECT_EQ(family->inst_max, 4);
    EXPECT_STREQ(family->para[1].value, "1400");
    ASSERT_EQ(bv_db_user_write(&g_st_db_mng.user_list, "/scratch/after"), BV_OK);
    EXPECT_EQ(read_file("/scratch/after"), read_file("/scratch/before"));
}

TEST_F(DbTemplate, ReadAgainDropsInstancesOnlyIfTheImageSizeChanges)
{
    const struct {
        const char *what;
        std::string text;
        int status, size;
    } rows[] = {
        {"not a template", "garbage", -1, 38},
        {"another size", "{\"para\":[" + elements(200) + "]}", BV_OK, 800},
        {"no parameters", "{\"para\":[]}", BV_OK, 0},
        {"too many", "{\"para\":[" + elements(426) + "]}", -1, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_EQ(read_lan(), BV_OK);
        add_instance(family, 4, {"10.0.0.1", "9000", "a"});
        EXPECT_EQ(read(row.text), row.status);
        EXPECT_EQ(family->image_size, row.size);
        EXPECT_EQ(numbers(family), row.size == 38 ? Numbers{4} : Numbers{});
        EXPECT_EQ(family->inst_count, row.size == 38 ? 1 : 0);
        EXPECT_EQ(family->inst_max, row.size == 38 ? 4 : 1);
        EXPECT_STREQ(family->getfunc, "get") << "a name that the new template lacks stays";
        if (row.size == 0)
            expect_no_parameters(family);
        bv_db_data_free(family);
    }
}

TEST_F(DbTemplate, CallersOwnRecordCanBeFilled)
{
    auto own = std::make_unique<bv_db_family>();
    memset(own.get(), 0, sizeof *own);
    install("t.json", kLan);
    EXPECT_EQ(bv_db_template_read_single("t.json", own.get()), BV_OK);
    EXPECT_EQ(own->image_size, 38);
    bv_os_free(own->para);
    bv_os_free(own->default_image);
    bv_os_free(own->working_image);
}

TEST_F(Db, TemplateReadTakesEveryNameOfItsListOnce)
{
    install("a.json", kLan);
    install("c.json", std::vector<Parameter>{{"id", "uchar", 1, "1"}});
    bv_db_reg_user("a.json");
    bv_db_reg_user("b.json");
    bv_db_reg_user("c.json");
    bv_db_reg_private("d.json");
    EXPECT_EQ(bv_db_template_read(nullptr), 0);
    EXPECT_EQ(bv_db_template_read(&g_st_db_mng.user_list), 0);
    EXPECT_EQ(bv_db_hash_find("a.json")->image_size, 38);
    ASSERT_NE(bv_db_hash_find("b.json"), nullptr) << "a family without a template exists";
    EXPECT_EQ(bv_db_hash_find("b.json")->image_size, 0);
    EXPECT_EQ(bv_db_hash_find("c.json")->image_size, 1);
    EXPECT_EQ(bv_db_hash_find("d.json"), nullptr) << "not in this list";
}

TEST_F(Db, FamilyInTwoListsIsReadOnce)
{
    install("a.json", kLan);
    bv_db_reg_factory("a.json");
    bv_db_reg_user("a.json");
    bv_db_template_read(&g_st_db_mng.factory_list);
    bv_db_family *family = bv_db_hash_find("a.json");
    install("a.json", std::vector<Parameter>{{"id", "uchar", 1, "1"}});
    EXPECT_EQ(bv_db_template_read(&g_st_db_mng.user_list), 0);
    EXPECT_EQ(bv_db_hash_find("a.json"), family);
    EXPECT_EQ(family->image_size, 38);
}

} // namespace
