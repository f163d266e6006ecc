#include "db/database.h"

#include "support/capture.h"

#include <bv/os.h>

#include <climits>
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

    int read(const std::string &text)
    {
        install("t.json", text);
        return bv_db_template_read_single("t.json", family);
    }

    int read_elements(const std::string &elements) { return read("{\"para\":[" + elements + "]}"); }

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

std::string elements(int count)
{
    std::string out = element("p");
    for (int i = 1; i < count; ++i)
        out += "," + element("p");
    return out;
}

TEST_F(DbTemplate, LanGivesAnImageOf38Bytes)
{
    EXPECT_EQ(read(template_text(kLan)), BV_OK);
    EXPECT_EQ(family->para_count, 3);
    EXPECT_EQ(family->image_size, 38);
    EXPECT_STREQ(family->getfunc, "get");
    EXPECT_STREQ(family->setfunc, "set");
    EXPECT_EQ(family->inst_count, 0);
    EXPECT_EQ(family->inst_max, 0);

    Bytes expected(38);
    Bytes ip = {192, 168, 1, 1}, mtu = bytes_of<uint16_t>(1500), host = {'g', 'w'};
    std::copy(ip.begin(), ip.end(), expected.begin());
    std::copy(mtu.begin(), mtu.end(), expected.begin() + 4);
    std::copy(host.begin(), host.end(), expected.begin() + 6);
    EXPECT_EQ(default_image(family), expected);
    ASSERT_NE(family->working_image, nullptr);
    EXPECT_NE(family->working_image, family->default_image);

    // Allocated as 64 bytes, zero behind the 38.
    Bytes rest(family->default_image + 38, family->default_image + 64);
    EXPECT_EQ(rest, Bytes(26));
    EXPECT_EQ(Bytes(family->working_image, family->working_image + 38), expected);
}

TEST_F(DbTemplate, DescriptorsHoldTheElementsInOrder)
{
    ASSERT_EQ(read(template_text(kLan)), BV_OK);
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

TEST_F(DbTemplate, IsFoundAnywhereUnderTheTemplateDirectory)
{
    mkdir("/etc/template/net", 0755);
    mkdir("/etc/template/net/deep", 0755);
    install("net/deep/wan.json", kLan);
    EXPECT_EQ(bv_db_template_read_single("wan.json", family), BV_OK);
    EXPECT_EQ(family->image_size, 38);
}

TEST_F(DbTemplate, AnExistingPathIsUsedAsItIs)
{
    put_file("/scratch/elsewhere.json", template_text(kLan));
    EXPECT_EQ(bv_db_template_read_single("/scratch/elsewhere.json", family), BV_OK);
    EXPECT_EQ(family->image_size, 38);
}

TEST_F(DbTemplate, AFileInTheCurrentDirectoryWinsOverTheSearch)
{
    install("t.json", kLan);
    put_file("/scratch/t.json", template_text({{"id", "uchar", 1, "1"}}));
    ASSERT_EQ(chdir("/scratch"), 0);
    EXPECT_EQ(bv_db_template_read_single("t.json", family), BV_OK);
    EXPECT_EQ(family->image_size, 1);
}

TEST_F(DbTemplate, AMissingOneLeavesTheFamilyEmpty)
{
    EXPECT_EQ(bv_db_template_read_single("t.json", family), -1);
    expect_untouched();
    EXPECT_EQ(bv_db_hash_find("t.json"), family);
}

TEST_F(DbTemplate, SeveralMatchesAreNone)
{
    mkdir("/etc/template/old", 0755);
    install("t.json", kLan);
    install("old/t.json", kLan);
    EXPECT_EQ(bv_db_template_read_single("t.json", family), -1);
    expect_untouched();
}

TEST_F(DbTemplate, TheStatusOfASearchThatCannotBeCapturedIsReturned)
{
    char capture[64];
    snprintf(capture, sizeof capture, "/tmp/system_%04d_01", getpid() & 0xffff);
    ASSERT_EQ(symlink("/nowhere/file", capture), 0);
    install("t.json", kLan);
    EXPECT_EQ(bv_db_template_read_single("t.json", family), BV_ERR_NO_FILE);
    expect_untouched();
}

TEST_F(DbTemplate, ANameTooLongForTheCommandIsNotFound)
{
    EXPECT_EQ(bv_db_template_read_single(std::string(300, 'n').c_str(), family), -1);
    expect_untouched();
}

TEST_F(DbTemplate, WhatIsNoTemplateIsRefused)
{
    std::string whole = template_text(kLan);
    const std::string texts[] = {"",
                                 " \n",
                                 "garbage",
                                 "{",
                                 "}",
                                 "null",
                                 "[]",
                                 "\"para\"",
                                 "17",
                                 "true",
                                 "{}",
                                 "[{\"para\":[]}]",
                                 "\xff\xfe\x01",
                                 whole.substr(0, whole.size() / 2),
                                 whole.substr(0, whole.size() - 1),
                                 std::string(100, '[')};
    for (const std::string &text : texts) {
        SCOPED_TRACE(text);
        EXPECT_EQ(read(text), -1);
        expect_untouched();
    }
}

TEST_F(DbTemplate, ParaMustBeAnArray)
{
    for (const char *para : {"null", "{}", "{\"0\":1}", "\"text\"", "3", "1.5", "false"}) {
        SCOPED_TRACE(para);
        EXPECT_EQ(read(std::string("{\"para\":") + para + "}"), -1);
        expect_untouched();
    }
}

TEST_F(DbTemplate, FunctionNamesAreKeptEvenWithoutPara)
{
    EXPECT_EQ(read(R"({"getfunc":"g","setfunc":"s"})"), -1);
    EXPECT_STREQ(family->getfunc, "g");
    EXPECT_STREQ(family->setfunc, "s");
    expect_untouched();
}

TEST_F(DbTemplate, FunctionNamesAreOptional)
{
    EXPECT_EQ(read_elements(element("p")), BV_OK);
    EXPECT_STREQ(family->getfunc, "");
    EXPECT_STREQ(family->setfunc, "");
    EXPECT_EQ(read(R"({"getfunc":null,"setfunc":7,"para":[]})"), BV_OK);
    EXPECT_STREQ(family->getfunc, "") << "null counts as absent";
    EXPECT_STREQ(family->setfunc, "7") << "a number counts as its text";
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

TEST_F(DbTemplate, AnEmptyParaGivesAFamilyWithoutImages)
{
    EXPECT_EQ(read_elements(""), BV_OK);
    expect_untouched();

    Bytes buf(8, 0xee);
    EXPECT_EQ(bv_db_read("t.json", buf.data(), 8, 1), BV_OK);
    EXPECT_EQ(buf, Bytes(8, 0xee));
    EXPECT_EQ(bv_db_read("t.json", buf.data(), 8, 2), BV_ERR_NO_INSTANCE);
}

TEST_F(DbTemplate, KeysMayStandInAnyOrderAmongOthers)
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

TEST_F(DbTemplate, AnElementThatLacksSomethingIsSkipped)
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

TEST_F(DbTemplate, AnIncompleteLastElementStaysInItsSlotInvalid)
{
    EXPECT_EQ(
        read_elements(element("a") + R"(,{"name":"late","type":"uint","len":2000,"value":"9"})"),
        BV_OK);
    EXPECT_EQ(family->image_size, 4);
    EXPECT_EQ(family->para[1].valid, 0u);
    EXPECT_STREQ(family->para[1].name, "late");
    EXPECT_STREQ(family->para[1].type, "uint");
    EXPECT_EQ(family->para[1].len, 2000);
    EXPECT_STREQ(family->para[1].value, "") << "taken only when the length will do";
}

TEST_F(DbTemplate, OnlyIncompleteElementsGiveParametersWithoutImages)
{
    EXPECT_EQ(read_elements("{},{},{}"), BV_OK);
    EXPECT_EQ(family->para_count, 3);
    EXPECT_EQ(family->image_size, 0);
    EXPECT_NE(family->para, nullptr);
    EXPECT_EQ(family->working_image, nullptr);
    EXPECT_EQ(family->default_image, nullptr);
}

TEST_F(DbTemplate, ALengthOf1023IsTheLargest)
{
    EXPECT_EQ(read_elements(element("a", "1023") + "," + element("b", "1024")), BV_OK);
    EXPECT_EQ(family->image_size, 1023);
}

TEST_F(DbTemplate, QuotedNumbersAndUnquotedTextsAreAccepted)
{
    EXPECT_EQ(read_elements(R"({"name":5,"type":"uint","len":"4","value":258})"), BV_OK);
    EXPECT_EQ(family->para[0].valid, 1u);
    EXPECT_STREQ(family->para[0].name, "5");
    EXPECT_EQ(family->para[0].len, 4);
    EXPECT_EQ(default_image(family), bytes_of<uint32_t>(258));
}

TEST_F(DbTemplate, ANegativeLengthShrinksTheImage)
{
    EXPECT_EQ(read_elements(element("a") + "," + element("b", "-1") + "," + element("c", "3")),
              BV_OK);
    EXPECT_EQ(family->image_size, 6);
    EXPECT_EQ(family->para[1].valid, 1u);
    EXPECT_EQ(family->para[1].len, -1);
}

TEST_F(DbTemplate, ANegativeImageSizeGivesNoImagesAndPrintsNothing)
{
    CaptureStdout out;
    EXPECT_EQ(read_elements(element("a", "-99999999999") + "," + element("b", "1000")), BV_OK);
    EXPECT_EQ(family->image_size, INT_MIN + 1000) << "lengths are clamped to 32 bits";
    EXPECT_EQ(family->working_image, nullptr);
    EXPECT_EQ(family->default_image, nullptr);

    uint8_t buf[4] = {1, 2, 3, 4};
    EXPECT_EQ(bv_db_read("t.json", buf, sizeof buf, 1), BV_OK);
    EXPECT_EQ(buf[0], 1);
    EXPECT_EQ(bv_db_inst_add("t.json", buf, sizeof buf, 2), BV_OK);
    EXPECT_EQ(bv_db_write("t.json", buf, sizeof buf, 2), BV_OK);
    EXPECT_EQ(bv_db_read("t.json", buf, sizeof buf, 2), BV_OK);
    EXPECT_EQ(buf[3], 4);
    EXPECT_EQ(out.stop(), "") << "no one asked for memory";
}

TEST_F(DbTemplate, AnImageSizeOfZeroPrintsNothing)
{
    CaptureStdout out;
    EXPECT_EQ(read_elements(element("a", "0")), BV_OK);
    EXPECT_EQ(family->image_size, 0);
    EXPECT_EQ(family->working_image, nullptr);
    EXPECT_EQ(out.stop(), "");
}

TEST_F(DbTemplate, AnImageSizeThatOverflowsAborts)
{
    install("t.json",
            "{\"para\":[" + element("a", "-2147483648") + "," + element("b", "-2147483648") + "]}");
    EXPECT_EXIT(bv_db_template_read_single("t.json", family), ::testing::KilledBySignal(SIGABRT),
                "");
}

TEST_F(DbTemplate, LengthsOfSkippedElementsAreNotSummed)
{
    EXPECT_EQ(read_elements(element("a", "-2147483648") +
                            R"(,{"name":"p","type":"uint","len":-2147483648})"),
              BV_OK);
    EXPECT_EQ(family->image_size, INT_MIN);
}

TEST_F(DbTemplate, HoldsUpTo425Parameters)
{
    EXPECT_EQ(read_elements(elements(425)), BV_OK);
    EXPECT_EQ(family->para_count, 425);
    EXPECT_EQ(family->image_size, 1700);
    EXPECT_EQ(family->para[424].valid, 1u);
}

TEST_F(DbTemplate, MoreThan425ParametersAreRefusedWithoutAWord)
{
    CaptureStdout out;
    EXPECT_EQ(read_elements(elements(426)), -1);
    expect_untouched();
    EXPECT_EQ(out.stop(), "");
}

TEST_F(DbTemplate, ReadAgainKeepsInstancesOfTheSameImageSizeForTheNextCommit)
{
    ASSERT_EQ(bv_db_reg_user("t.json"), BV_OK);
    ASSERT_EQ(read(template_text(kLan)), BV_OK);
    add_instance(family, 4, {"10.0.0.1", "9000", "a"});
    add_instance(family, 2, {"10.0.0.2", "9001", "b"});
    ASSERT_EQ(bv_db_user_write(&g_st_db_mng.user_list, "/scratch/before"), BV_OK);

    std::vector<Parameter> renamed = kLan;
    renamed[1].value = "1400";
    ASSERT_EQ(read(template_text(renamed)), BV_OK);
    EXPECT_EQ(numbers(family), (std::vector<int>{4, 2}));
    EXPECT_EQ(family->inst_count, 2);
    EXPECT_EQ(family->inst_max, 4);
    EXPECT_STREQ(family->para[1].value, "1400");
    ASSERT_EQ(bv_db_user_write(&g_st_db_mng.user_list, "/scratch/after"), BV_OK);
    EXPECT_EQ(file_text("/scratch/after"), file_text("/scratch/before"));
}

TEST_F(DbTemplate, ReadAgainWithAnotherImageSizeDropsInstances)
{
    ASSERT_EQ(read(template_text(kLan)), BV_OK);
    add_instance(family, 4, {"10.0.0.1", "9000", "a"});
    EXPECT_EQ(read_elements(elements(200)), BV_OK);
    EXPECT_EQ(family->image_size, 800);
    EXPECT_EQ(family->inst_count, 0);
    EXPECT_EQ(numbers(family), std::vector<int>{});
    EXPECT_EQ(default_image(family).size(), 800u);
}

TEST_F(DbTemplate, ReadAgainWithoutParametersEmptiesTheFamily)
{
    for (const std::string &none : {std::string(), elements(426)}) {
        SCOPED_TRACE(none.size());
        ASSERT_EQ(read(template_text(kLan)), BV_OK);
        add_instance(family, 4, {"10.0.0.1", "9000", "a"});
        EXPECT_EQ(read_elements(none), none.empty() ? BV_OK : -1);
        expect_no_parameters(family);
        EXPECT_EQ(family->inst_count, 0);
        EXPECT_EQ(family->inst_max, 1);
        EXPECT_STREQ(family->getfunc, "get") << "a name that the new template lacks stays";
    }
}

TEST_F(DbTemplate, ReadAgainInVainKeepsTheFamily)
{
    ASSERT_EQ(read(template_text(kLan)), BV_OK);
    add_instance(family, 4, {"10.0.0.1", "9000", "a"});
    EXPECT_EQ(read("garbage"), -1);
    EXPECT_EQ(family->image_size, 38);
    EXPECT_EQ(numbers(family), std::vector<int>{4});
}

TEST_F(DbTemplate, NullArgumentsFail)
{
    install("t.json", kLan);
    EXPECT_EQ(bv_db_template_read_single(nullptr, family), -1);
    EXPECT_EQ(bv_db_template_read_single("t.json", nullptr), -1);
    EXPECT_EQ(bv_db_template_read(nullptr), 0);
}

TEST_F(DbTemplate, ARecordOfTheCallersOwnCanBeFilled)
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

TEST_F(Db, TemplateReadTakesEveryNameOfTheListAndIsAlwaysZero)
{
    install("a.json", kLan);
    install("c.json", std::vector<Parameter>{{"id", "uchar", 1, "1"}});
    bv_db_reg_user("a.json");
    bv_db_reg_user("b.json");
    bv_db_reg_user("c.json");
    bv_db_reg_private("d.json");
    EXPECT_EQ(bv_db_template_read(&g_st_db_mng.user_list), 0);
    EXPECT_EQ(bv_db_hash_find("a.json")->image_size, 38);
    ASSERT_NE(bv_db_hash_find("b.json"), nullptr) << "a family without a template exists";
    EXPECT_EQ(bv_db_hash_find("b.json")->image_size, 0);
    EXPECT_EQ(bv_db_hash_find("c.json")->image_size, 1);
    EXPECT_EQ(bv_db_hash_find("d.json"), nullptr) << "not in this list";
}

TEST_F(Db, AFamilyInTwoListsIsReadOnce)
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
