// SPDX-License-Identifier: ISC
// Programs include the headers inside extern "C" or without it; both must compile.

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
}
#include <libubox/avl-cmp.h>
#include <libubox/avl.h>
#include <libubox/list.h>
#include <libubox/usock.h>
#include <libubox/utils.h>

#include "header_c11.h"

#include <dlfcn.h>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

namespace {

TEST(Headers, StaticInitialisersWorkInC)
{
    EXPECT_TRUE(static_initialisers_work());
}

TEST(Headers, ConstantsHaveTheirValues)
{
    EXPECT_EQ(ULOOP_READ, 1);
    EXPECT_EQ(ULOOP_WRITE, 2);
    EXPECT_EQ(ULOOP_EDGE_TRIGGER, 4);
    EXPECT_EQ(ULOOP_BLOCKING, 8);
    EXPECT_EQ(ULOOP_EVENT_MASK, 3);
    EXPECT_EQ(ULOOP_EVENT_BUFFERED, 0x10);
    EXPECT_EQ(ULOOP_ERROR_CB, 0x40);

    EXPECT_EQ(BLOB_COOKIE, 0x01234567);
    EXPECT_EQ(BLOB_ATTR_ID_MASK, 0x7f000000);
    EXPECT_EQ(BLOB_ATTR_ID_SHIFT, 24);
    EXPECT_EQ(BLOB_ATTR_LEN_MASK, 0x00ffffff);
    EXPECT_EQ(BLOB_ATTR_EXTENDED, 0x80000000);
    EXPECT_EQ(BLOB_ATTR_ALIGN, 4);
    EXPECT_EQ(BLOB_ATTR_DOUBLE, 8);
    EXPECT_EQ(BLOB_ATTR_LAST, 9);

    EXPECT_EQ(BLOBMSG_TYPE_INT64, 4);
    EXPECT_EQ(BLOBMSG_TYPE_INT8, 7);
    EXPECT_EQ(BLOBMSG_TYPE_BOOL, 7);
    EXPECT_EQ(BLOBMSG_TYPE_DOUBLE, 8);
    EXPECT_EQ(BLOBMSG_TYPE_LAST, 8);
    EXPECT_EQ(BLOBMSG_CAST_INT64, 9);
    EXPECT_EQ(BLOBMSG_ALIGN, 2);
    for (int n = 0; n < 9; n++)
        EXPECT_EQ(BLOBMSG_PADDING(n), (n + 3) & ~3);

    EXPECT_EQ(AVL_FIND_EQUAL, 0);
    EXPECT_EQ(AVL_FIND_LESSEQUAL, 1);
    EXPECT_EQ(AVL_FIND_GREATEREQUAL, 2);

    EXPECT_EQ(USOCK_TCP, 0);
    EXPECT_EQ(USOCK_UDP, 1);
    EXPECT_EQ(USOCK_SERVER, 0x0100);
    EXPECT_EQ(USOCK_NOCLOEXEC, 0x0200);
    EXPECT_EQ(USOCK_NONBLOCK, 0x0400);
    EXPECT_EQ(USOCK_NUMERIC, 0x0800);
    EXPECT_EQ(USOCK_IPV6ONLY, 0x2000);
    EXPECT_EQ(USOCK_IPV4ONLY, 0x4000);
    EXPECT_EQ(USOCK_UNIX, 0x8000);
}

TEST(Headers, ByteOrderMacrosEvaluateTheirArgumentOnce)
{
    uint16_t n = 0;
    uint8_t bytes[8];
    uint16_t big16 = cpu_to_be16(++n);
    uint64_t big64 = cpu_to_be64(UINT64_C(0x0102030405060708));
    uint32_t little32 = cpu_to_le32(UINT32_C(0x01020304));

    EXPECT_EQ(n, 1);
    EXPECT_EQ(be16_to_cpu(big16), 1);
    EXPECT_EQ(be64_to_cpu(big64), UINT64_C(0x0102030405060708));
    EXPECT_EQ(le32_to_cpu(little32), UINT32_C(0x01020304));
    memcpy(bytes, &big64, 8);
    EXPECT_EQ(bytes[0], 1);
    memcpy(bytes, &little32, 4);
    EXPECT_EQ(bytes[0], 4);
}

struct Entry {
    int number;
    list_head link;
};

std::string numbers(list_head *head)
{
    std::string all;
    Entry *entry;

    list_for_each_entry(entry, head, link) all += std::to_string(entry->number);
    return all;
}

class Lists : public testing::Test {
protected:
    list_head head;
    Entry one = {1, {}}, two = {2, {}}, three = {3, {}};

    void SetUp() override
    {
        INIT_LIST_HEAD(&head);
        list_add_tail(&two.link, &head);
        list_add_tail(&three.link, &head);
        list_add(&one.link, &head);
    }
};

TEST_F(Lists, WalksGoBothWays)
{
    std::string backwards;
    Entry *entry;
    list_head *link;
    int count = 0;

    EXPECT_EQ(numbers(&head), "123");
    list_for_each_entry_reverse(entry, &head, link) backwards += std::to_string(entry->number);
    EXPECT_EQ(backwards, "321");
    list_for_each(link, &head) count++;
    EXPECT_EQ(count, 3);
    EXPECT_EQ(list_first_entry(&head, Entry, link), &one);
    EXPECT_EQ(list_last_entry(&head, Entry, link), &three);
    EXPECT_EQ(list_next_entry(&one, link), &two);
    EXPECT_TRUE(list_is_first(&one.link, &head));
    EXPECT_TRUE(list_is_last(&three.link, &head));
    EXPECT_FALSE(list_is_last(&one.link, &head));
}

TEST_F(Lists, RemovalUnlinksAndMarksTheEntry)
{
    list_del(&two.link);
    EXPECT_EQ(two.link.next, nullptr);
    EXPECT_EQ(two.link.prev, nullptr);
    EXPECT_EQ(numbers(&head), "13");
    list_del_init(&one.link);
    EXPECT_TRUE(list_empty(&one.link));
    list_del_init(&one.link);
    EXPECT_EQ(numbers(&head), "3");
}

TEST_F(Lists, SafeWalksAllowRemovalOfTheCurrentEntry)
{
    Entry *entry, *next;
    list_head *link, *next_link;

    list_for_each_entry_safe(entry, next, &head, link)
    {
        if (entry->number == 2)
            list_del(&entry->link);
    }
    EXPECT_EQ(numbers(&head), "13");
    list_for_each_safe(link, next_link, &head) list_del(link);
    EXPECT_TRUE(list_empty(&head));
}

TEST_F(Lists, EntriesMoveToEitherEnd)
{
    list_move(&three.link, &head);
    EXPECT_EQ(numbers(&head), "312");
    list_move_tail(&three.link, &head);
    EXPECT_EQ(numbers(&head), "123");
}

TEST_F(Lists, SplicingKeepsTheOrder)
{
    list_head other;
    Entry four = {4, {}}, five = {5, {}};

    INIT_LIST_HEAD(&other);
    list_splice(&other, &head);
    EXPECT_EQ(numbers(&head), "123");
    list_add_tail(&four.link, &other);
    list_splice_init(&other, &head);
    EXPECT_EQ(numbers(&head), "4123");
    EXPECT_TRUE(list_empty(&other));
    list_add_tail(&five.link, &other);
    list_splice_tail_init(&other, &head);
    EXPECT_EQ(numbers(&head), "41235");
    list_splice_tail(&head, &other);
    EXPECT_EQ(numbers(&other), "41235");
}

TEST_F(Lists, ContainersAreFoundFromTheirParts)
{
    list_head *none = nullptr;

    EXPECT_EQ(container_of(&two.link, Entry, link), &two);
    EXPECT_EQ(container_of_safe(&two.link, Entry, link), &two);
    EXPECT_EQ(container_of_safe(none, Entry, link), nullptr);
}

TEST(CallocA, PiecesShareOneZeroedBlock)
{
    char *second, *third;
    char *first = static_cast<char *>(
        calloc_a(3, &second, static_cast<size_t>(5), &third, static_cast<size_t>(8)));

    ASSERT_NE(first, nullptr);
    // Each piece takes whole pointers: 3 and 5 bytes are one each, or one and two.
    const ptrdiff_t pointer = sizeof(void *);
    EXPECT_EQ(second - first, pointer);
    EXPECT_EQ(third - second, pointer < 5 ? 2 * pointer : pointer);
    EXPECT_EQ(std::string(first, size_t(third - first) + 8),
              std::string(size_t(third - first) + 8, '\0'));
    free(first);
}

TEST(CallocA, TotalBeyondTheAddressSpaceIsRefused)
{
    char *second = nullptr;

    EXPECT_EQ(calloc_a(SIZE_MAX), nullptr);
    EXPECT_EQ(calloc_a(SIZE_MAX / 2 + 8, &second, SIZE_MAX / 2 + 8), nullptr);
    EXPECT_EQ(second, nullptr);
    void *alone = calloc_a(1);
    EXPECT_NE(alone, nullptr);
    free(alone);
}

// The map is what the linker used; a name in it that is not defined anywhere would go unnoticed.
TEST(Exports, EveryNameOfTheListIsThereAndNoOther)
{
    void *library = dlopen(UBOX_LIBRARY, RTLD_NOW);
    std::ifstream map(UBOX_MAP);
    std::string word;
    int names = 0;

    ASSERT_NE(library, nullptr) << dlerror();
    while (map >> word && word != "local:") {
        if (word.back() != ';')
            continue;
        word.pop_back();
        EXPECT_NE(dlsym(library, word.c_str()), nullptr) << word;
        names++;
    }
    EXPECT_EQ(names, 52);
    for (const char *name : {"poll_dispatch", "timeouts_run", "uloop_status", "kBlobType"})
        EXPECT_EQ(dlsym(library, name), nullptr) << name;
}

TEST(Exports, VariablesHaveTheirValuesAtLoad)
{
    EXPECT_FALSE(uloop_cancelled);
    EXPECT_TRUE(uloop_handle_sigchld);
    EXPECT_EQ(uloop_fd_set_cb, nullptr);
}

} // namespace
