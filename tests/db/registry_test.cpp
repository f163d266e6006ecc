// SPDX-License-Identifier: ISC
// The table of families and the three lists of registered names.

#include "db/database.h"

#include "support/dirty_heap.h"

#include <bv/hash.h>

#include <cstddef>

namespace {

class DbRegistry : public Db {};

bool is_empty(const bv_list_head &list)
{
    return list.next == &list && list.prev == &list;
}

TEST(DbRegistryBeforeInit, FindsNothingAndFreesNothing)
{
    EXPECT_EQ(bv_db_hash_find("lan"), nullptr);
    EXPECT_EQ(bv_db_hash_add("lan"), nullptr);
    EXPECT_EQ(bv_db_hash_free(), BV_OK);
    EXPECT_EQ(bv_db_inst_getnum("lan"), 0);
    EXPECT_EQ(bv_db_status(), 0);
}

TEST(DbRegistryRecords, HaveTheLayoutThatCallersCompileAgainst)
{
    EXPECT_EQ(sizeof(bv_db_para), 3084u);
    EXPECT_EQ(offsetof(bv_db_para, len), 8u);
    EXPECT_EQ(offsetof(bv_db_para, value), 2060u);
    EXPECT_EQ(offsetof(bv_db_family, para_count), 12u);
    EXPECT_EQ(offsetof(bv_db_family, setfunc), 2064u);
    size_t pointers = sizeof(void *) - 4; // what a pointer has more than on the gateway
    EXPECT_EQ(sizeof(bv_db_family), 3116u + 7 * pointers);
    EXPECT_EQ(sizeof(bv_db_reg), 1032u + 2 * pointers);
    EXPECT_EQ(sizeof(bv_db_mng), 40u + 9 * pointers + pointers);
}

TEST_F(DbRegistry, InitLeavesEmptyListsAndAnEmptyTable)
{
    EXPECT_TRUE(is_empty(g_st_db_mng.user_list));
    EXPECT_TRUE(is_empty(g_st_db_mng.private_list));
    EXPECT_TRUE(is_empty(g_st_db_mng.factory_list));
    EXPECT_TRUE(is_empty(g_st_db_mng.family_list));
    EXPECT_EQ(g_st_db_mng.ready, 0u);
    ASSERT_NE(g_st_db_mng.table, nullptr);
    EXPECT_EQ(g_st_db_mng.table->hashsize, 2048u);
    EXPECT_EQ(g_st_db_mng.table->keysize, 1024u);
    EXPECT_EQ(g_st_db_mng.table->datasize, sizeof(bv_db_family));
    EXPECT_EQ(g_st_db_mng.table->currnum, 0u);
}

TEST_F(DbRegistry, SecondInitStartsEmpty)
{
    bv_db_reg_user("lan");
    bv_db_hash_add("lan");
    bv_db_ready();
    bv_hash *first = g_st_db_mng.table;

    EXPECT_EQ(bv_db_init(), BV_OK);
    EXPECT_NE(g_st_db_mng.table, first);
    EXPECT_TRUE(is_empty(g_st_db_mng.user_list));
    EXPECT_TRUE(is_empty(g_st_db_mng.family_list));
    EXPECT_EQ(bv_db_status(), 0);
    EXPECT_EQ(bv_db_hash_find("lan"), nullptr);
}

TEST_F(DbRegistry, EachListHasItsNamesInOrderAndEachOnce)
{
    for (auto reg : {bv_db_reg_user, bv_db_reg_private, bv_db_reg_factory}) {
        EXPECT_EQ(reg("lan"), BV_OK);
        EXPECT_EQ(reg("dhcp"), BV_OK);
        EXPECT_EQ(reg("lan"), BV_ERR_EXISTS);
        EXPECT_EQ(reg("LAN"), BV_OK) << "names are compared exactly";
    }
    EXPECT_EQ(bv_db_reg_private("keys"), BV_OK);
    EXPECT_EQ(bv_db_reg_factory("board"), BV_OK);
    EXPECT_EQ(names(g_st_db_mng.user_list), (Names{"lan", "dhcp", "LAN"}));
    EXPECT_EQ(names(g_st_db_mng.private_list), (Names{"lan", "dhcp", "LAN", "keys"}));
    EXPECT_EQ(names(g_st_db_mng.factory_list), (Names{"lan", "dhcp", "LAN", "board"}));
}

TEST_F(DbRegistry, NamesAreCopied)
{
    char name[] = "lan";
    bv_db_reg_user(name);
    bv_db_hash_add(name);
    name[0] = 'w';
    EXPECT_EQ(names(g_st_db_mng.user_list), (Names{"lan"}));
    EXPECT_NE(bv_db_hash_find("lan"), nullptr);
}

TEST_F(DbRegistry, RegistrationIsZeroAfterItsName)
{
    dirty_heap();
    for (const std::string &name : {std::string("lan"), std::string(1024, 'n')}) {
        ASSERT_EQ(bv_db_reg_user(name.c_str()), BV_OK);
        auto *record = reinterpret_cast<const bv_db_reg *>(g_st_db_mng.user_list.prev);
        std::string expected = name.size() < sizeof record->name ? name : "";
        expected.resize(sizeof record->name);
        EXPECT_EQ(std::string(record->name, sizeof record->name), expected);
    }
}

TEST_F(DbRegistry, NullNameIsRefusedAndIsNotTheEmptyOne)
{
    for (auto reg : {bv_db_reg_user, bv_db_reg_private, bv_db_reg_factory})
        EXPECT_EQ(reg(nullptr), -1);
    EXPECT_EQ(bv_db_hash_find(nullptr), nullptr);
    EXPECT_EQ(bv_db_hash_add(nullptr), nullptr);
    EXPECT_TRUE(is_empty(g_st_db_mng.user_list));
    EXPECT_TRUE(is_empty(g_st_db_mng.family_list));
    ASSERT_NE(bv_db_hash_add(""), nullptr);
    EXPECT_EQ(bv_db_hash_find(nullptr), nullptr);
}

TEST_F(DbRegistry, NamesOf1023CharactersAreComparedInFull)
{
    std::string one(1023, 'n'), other = one;
    other.back() = 'm';
    bv_db_family *family = bv_db_hash_add(one.c_str());
    ASSERT_NE(family, nullptr);
    EXPECT_EQ(family->name, one);
    EXPECT_EQ(bv_db_hash_find(other.c_str()), nullptr);
    EXPECT_NE(bv_db_hash_add(other.c_str()), nullptr);
    EXPECT_EQ(bv_db_hash_find(one.c_str()), family);
    EXPECT_EQ(bv_db_reg_user(one.c_str()), BV_OK);
    EXPECT_EQ(bv_db_reg_user(one.c_str()), BV_ERR_EXISTS);
}

TEST_F(DbRegistry, AllLongerNamesAreTheEmptyName)
{
    std::string longer(1024, 'n'), longest(5000, 'm');
    EXPECT_EQ(bv_db_reg_user(longer.c_str()), BV_OK);
    EXPECT_EQ(names(g_st_db_mng.user_list), (Names{""}));
    EXPECT_EQ(bv_db_reg_user(longest.c_str()), BV_OK) << "it is not the one stored there";
    EXPECT_EQ(names(g_st_db_mng.user_list), (Names{"", ""}));

    bv_db_family *family = bv_db_hash_add(longer.c_str());
    ASSERT_NE(family, nullptr);
    EXPECT_STREQ(family->name, "");
    EXPECT_EQ(bv_db_hash_find(longest.c_str()), family);
    EXPECT_EQ(bv_db_hash_find(""), family);
    EXPECT_EQ(bv_db_hash_add(longest.c_str()), nullptr);
    EXPECT_EQ(bv_db_hash_free(), BV_OK);
    EXPECT_EQ(bv_db_hash_find(longer.c_str()), nullptr);
}

TEST_F(DbRegistry, AddPutsAnEmptyFamilyAtTheEndOfTheList)
{
    bv_db_family *lan = bv_db_hash_add("lan");
    bv_db_family *wan = bv_db_hash_add("wan");
    ASSERT_NE(lan, nullptr);
    ASSERT_NE(wan, nullptr);
    EXPECT_EQ(families(), (Names{"lan", "wan"}));
    EXPECT_EQ(bv_db_hash_find("lan"), lan);
    EXPECT_EQ(bv_db_hash_find("wan"), wan);
    const uint8_t key[1024] = "lan";
    EXPECT_EQ(bv_hash_find(g_st_db_mng.table, key), lan) << "the name and zeros";

    expect_no_parameters(lan);
    EXPECT_EQ(lan->inst_count, 0);
    EXPECT_EQ(lan->inst_max, 0);
    EXPECT_STREQ(lan->getfunc, "");
    EXPECT_STREQ(lan->setfunc, "");
    EXPECT_TRUE(is_empty(lan->inst_list));

    lan->inst_max = 7;
    EXPECT_EQ(bv_db_hash_add("lan"), nullptr);
    EXPECT_EQ(bv_db_hash_find("lan"), lan);
    EXPECT_EQ(lan->inst_max, 7) << "one that exists is left alone";
    EXPECT_EQ(families(), (Names{"lan", "wan"}));
}

// Services look into the table with the key of 1024 bytes.
TEST_F(DbRegistry, NameOfEveryLengthIsFoundByItsWholeKey)
{
    std::string name;
    for (; name.size() < 1024; name += static_cast<char>('a' + name.size() % 26)) {
        bv_db_family *family = bv_db_hash_add(name.c_str());
        ASSERT_NE(family, nullptr) << name.size();
        EXPECT_EQ(bv_db_hash_find(name.c_str()), family) << name.size();
        std::string key = name;
        key.resize(1024);
        const auto *bytes = reinterpret_cast<const uint8_t *>(key.data());
        EXPECT_EQ(bv_hash_find(g_st_db_mng.table, bytes), family) << name.size();
    }
}

TEST_F(DbRegistry, NameIsNotFoundByAServicesOwnKeyThatBeginsWithIt)
{
    std::string name(1024, '\0'), own;
    for (const char *text : {"lan", ""}) {
        name.replace(0, 3, std::string(text) + std::string(3 - strlen(text), '\0'));
        const auto bucket = [](const std::string &key) {
            return bv_os_jhash(reinterpret_cast<const uint8_t *>(key.data()), 1024, 0) % 2048;
        };
        for (uint32_t number = 1; own = name, memcpy(&own[4], &number, 4), true; ++number)
            if (bucket(own) == bucket(name))
                break;
        const std::vector<uint8_t> record(sizeof(bv_db_family));
        const auto *key = reinterpret_cast<const uint8_t *>(own.data());
        ASSERT_EQ(bv_hash_insert(g_st_db_mng.table, key, record.data()), BV_OK);
        EXPECT_EQ(bv_db_hash_find(text), nullptr);
        EXPECT_NE(bv_db_hash_add(text), nullptr);
        bv_hash_remove(g_st_db_mng.table, key); // the next database would leave it behind
    }
}

TEST_F(DbRegistry, TableTakes2048FamiliesAndNoMore)
{
    for (int i = 0; i < 2048; ++i)
        ASSERT_NE(bv_db_hash_add(("family" + std::to_string(i)).c_str()), nullptr) << i;
    EXPECT_EQ(bv_db_hash_add("one more"), nullptr);
    EXPECT_EQ(bv_db_hash_find("one more"), nullptr);
    EXPECT_EQ(families().size(), 2048u);
    EXPECT_EQ(bv_db_hash_free(), BV_OK);
    EXPECT_TRUE(is_empty(g_st_db_mng.family_list));
    EXPECT_EQ(g_st_db_mng.table->currnum, 0u);
}

TEST_F(DbRegistry, FreeDropsFamiliesAndKeepsRegistrationsAndReady)
{
    bv_db_family *lan = user_family("lan.json", kLan);
    add_instance(lan, 1, {"10.0.0.1", "9000", "a"});
    add_instance(lan, 2, {"10.0.0.2", "9000", "b"});
    bv_db_hash_add("wan");
    bv_db_reg_factory("board");
    bv_db_ready();

    EXPECT_EQ(bv_db_hash_free(), BV_OK);
    EXPECT_TRUE(is_empty(g_st_db_mng.family_list));
    EXPECT_EQ(bv_db_hash_find("lan.json"), nullptr);
    EXPECT_EQ(bv_db_hash_find("wan"), nullptr);
    EXPECT_EQ(g_st_db_mng.table->currnum, 0u);
    EXPECT_EQ(names(g_st_db_mng.user_list), (Names{"lan.json"}));
    EXPECT_EQ(names(g_st_db_mng.factory_list), (Names{"board"}));
    EXPECT_EQ(bv_db_status(), 1);
    EXPECT_EQ(bv_db_hash_free(), BV_OK) << "of an empty database";
}

TEST_F(DbRegistry, FreeLeavesAServicesOwnRecordInTheTable)
{
    bv_db_family record = {};
    record.para_count = 7;
    const bv_db_family *own = insert_record("a service's own", record);
    bv_db_hash_add("wan");

    EXPECT_EQ(bv_db_hash_free(), BV_OK);
    EXPECT_EQ(g_st_db_mng.table->currnum, 1u);
    EXPECT_EQ(bv_db_hash_find("a service's own"), own);
    EXPECT_EQ(own->para_count, 7);
}

TEST_F(DbRegistry, FreeLeavesARenamedFamilyInTheTableButInNoList)
{
    strcpy(bv_db_hash_add("a")->name, "b");
    bv_db_hash_add("b");
    EXPECT_EQ(bv_db_hash_free(), BV_OK);
    EXPECT_EQ(families(), Names{});
    EXPECT_EQ(bv_db_hash_find("b"), nullptr);
    EXPECT_EQ(bv_db_hash_find("a")->link.next, nullptr) << "left in the table, in no list";
}

TEST_F(DbRegistry, DefaultImageOutlivesItsFamily)
{
    bv_db_family *lan = user_family("lan.json", kLan);
    const uint8_t *image = lan->default_image;
    Bytes before = default_image(lan);
    bv_db_hash_free();
    EXPECT_EQ(Bytes(image, image + before.size()), before);
}

} // namespace
