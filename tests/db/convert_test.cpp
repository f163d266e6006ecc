#include "db/database.h"

#include <arpa/inet.h>

#include <climits>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr uint8_t kFill = 0xa5;

// A family made by hand, its working image between two margins that must stay as they were.
class Hand {
public:
    explicit Hand(const std::vector<Parameter> &parameters)
        : table_(parameters.size() + 1), family_(std::make_unique<bv_db_family>())
    {
        memset(table_.data(), 0, table_.size() * sizeof(bv_db_para));
        memset(family_.get(), 0, sizeof *family_);
        for (size_t i = 0; i < parameters.size(); ++i) {
            const Parameter &p = parameters[i];
            table_[i].valid = 1;
            table_[i].len = p.len;
            snprintf(table_[i].name, 1024, "%s", p.name.c_str());
            snprintf(table_[i].type, 1024, "%s", p.type.c_str());
            snprintf(table_[i].value, 1024, "%s", p.value.c_str());
            family_->image_size += p.len;
        }
        family_->para = table_.data();
        family_->para_count = static_cast<int32_t>(parameters.size());
        allocation_ = family_->image_size > 0 ? (family_->image_size + 31) / 32 * 32 : 0;
        memory_.assign(kMargin + static_cast<size_t>(allocation_) + kMargin, kFill);
        if (allocation_ > 0)
            family_->working_image = memory_.data() + kMargin;
    }

    bv_db_family *get() { return family_.get(); }
    bv_db_para &para(size_t i) { return table_[i]; }
    int32_t count() const { return family_->para_count; }

    // The whole allocation after a conversion of all texts.
    Bytes to_memory(int32_t mode = 0)
    {
        EXPECT_EQ(bv_db_user_fill_tomem(get(), mode), 0);
        auto image = memory_.begin() + kMargin, end = memory_.end() - kMargin;
        EXPECT_EQ(Bytes(memory_.begin(), image), Bytes(kMargin, kFill)) << "written before it";
        EXPECT_EQ(Bytes(end, memory_.end()), Bytes(kMargin, kFill)) << "written behind it";
        return Bytes(image, end);
    }

    std::string text(size_t i) const { return table_[i].value; }

private:
    static constexpr size_t kMargin = 4096;
    std::vector<bv_db_para> table_;
    std::unique_ptr<bv_db_family> family_;
    int32_t allocation_;
    Bytes memory_;
};

// An image whose end is the end of readable memory: reading past it is fatal.
class EdgeImage {
public:
    explicit EdgeImage(const Bytes &bytes) : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE)))
    {
        base_ = static_cast<uint8_t *>(
            mmap(nullptr, 3 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(base_ + page_, page_, PROT_READ | PROT_WRITE);
        start_ = base_ + 2 * page_ - bytes.size();
        if (!bytes.empty())
            memcpy(start_, bytes.data(), bytes.size());
    }
    ~EdgeImage() { munmap(base_, 3 * page_); }
    EdgeImage(const EdgeImage &) = delete;
    EdgeImage &operator=(const EdgeImage &) = delete;

    const uint8_t *data() const { return start_; }

private:
    size_t page_;
    uint8_t *base_;
    uint8_t *start_;
};

std::string to_text(const std::string &type, const Bytes &image)
{
    Hand hand({{"p", type, static_cast<int>(image.size()), "old"}});
    EdgeImage edge(image);
    EXPECT_EQ(bv_db_user_fill_frommem(edge.data(), 1, &hand.para(0)), 0);
    return hand.text(0);
}

Bytes first(const Bytes &bytes, size_t count)
{
    return Bytes(bytes.begin(), bytes.begin() + count);
}

struct Row {
    const char *type;
    int len;
    const char *text;
    Bytes image;
};

TEST(DbConvert, EveryTypeGoesBothWays)
{
    const Row rows[] = {
        {"char", 1, "0", {0}},
        {"char", 1, "127", {0x7f}},
        {"char", 1, "-128", {0x80}},
        {"char", 1, "-1", {0xff}},
        {"char", 1, "-9", {0xf7}},
        {"char", 1, "-10", {0xf6}},
        {"uchar", 1, "9", {9}},
        {"uchar", 1, "10", {10}},
        {"uchar", 1, "99", {99}},
        {"uchar", 1, "100", {100}},
        {"uchar", 1, "255", {0xff}},
        {"uchar", 1, "128", {0x80}},
        {"short", 2, "32767", bytes_of<int16_t>(32767)},
        {"short", 2, "-32768", bytes_of<int16_t>(-32768)},
        {"ushort", 2, "65535", bytes_of<uint16_t>(65535)},
        {"ushort", 2, "258", bytes_of<uint16_t>(258)},
        {"int", 4, "2147483647", bytes_of<int32_t>(INT_MAX)},
        {"int", 4, "-2147483648", bytes_of<int32_t>(INT_MIN)},
        {"int", 4, "16909060", bytes_of<int32_t>(0x01020304)},
        {"uint", 4, "4294967295", bytes_of<uint32_t>(UINT_MAX)},
        {"uint", 4, "2147483648", bytes_of<uint32_t>(0x80000000u)},
        {"uint", 4, "1000000000", bytes_of<uint32_t>(1000000000u)},
        {"mac", 6, "00:1a:2b:3c:4d:5e", {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}},
        {"ip", 4, "192.168.1.1", {192, 168, 1, 1}},
        {"ip", 4, "0.0.0.0", {0, 0, 0, 0}},
        {"ip", 4, "255.255.255.255", {255, 255, 255, 255}},
        {"string", 4, "abc", {'a', 'b', 'c', 0}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.type) + " " + row.text);
        Hand hand({{"p", row.type, row.len, row.text}});
        EXPECT_EQ(first(hand.to_memory(), row.image.size()), row.image);
        EXPECT_EQ(to_text(row.type, row.image), row.text);
    }
}

TEST(DbConvert, NumbersAreReadAsDecimalTextModulo32Bits)
{
    const struct {
        const char *text;
        uint32_t number;
    } rows[] = {{"", 0},
                {"x", 0},
                {"-", 0},
                {"+", 0},
                {"--1", 0},
                {"- 1", 0},
                {"12abc", 12},
                {"0x10", 0},
                {"1.9", 1},
                {" \t\n\v\f\r42", 42},
                {"+7", 7},
                {"-7", 0xfffffff9u},
                {"007", 7},
                {"4294967295", 4294967295u},
                {"4294967296", 0},
                {"4294967300", 4},
                {"-4294967295", 1},
                {"99999999999999999999", 0x630fffffu}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        for (const char *type : {"int", "uint"}) {
            Hand hand({{"p", type, 4, row.text}});
            EXPECT_EQ(first(hand.to_memory(), 4), bytes_of(row.number)) << type;
        }
    }
}

TEST(DbConvert, SmallIntegersKeepTheLowBits)
{
    const Row rows[] = {{"char", 1, "300", {44}},
                        {"uchar", 1, "-1", {255}},
                        {"short", 2, "65537", bytes_of<uint16_t>(1)},
                        {"ushort", 2, "-2", bytes_of<uint16_t>(65534)},
                        {"ushort", 2, "none", {0, 0}}};
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.type) + " " + row.text);
        Hand hand({{"p", row.type, row.len, row.text}});
        EXPECT_EQ(first(hand.to_memory(), row.image.size()), row.image);
    }
}

TEST(DbConvert, AddressesThatDoNotConvertAreZero)
{
    for (const char *text : {"", "192.168.1", "192.168.1.256", "gateway", "::1", "1.2.3.4 "}) {
        SCOPED_TRACE(text);
        Hand hand({{"p", "ip", 4, text}});
        EXPECT_EQ(first(hand.to_memory(), 4), Bytes(4));
    }
    const Row macs[] = {{"mac", 6, "", Bytes(6)},
                        {"mac", 6, "0A:b", {0x0a, 0x0b, 0, 0, 0, 0}},
                        {"mac", 6, "AA:BB:cc:zz:11:22", {0xaa, 0xbb, 0xcc, 0, 0, 0}}};
    for (const Row &row : macs) {
        SCOPED_TRACE(row.text);
        Hand hand({{"p", row.type, row.len, row.text}});
        EXPECT_EQ(first(hand.to_memory(), 6), row.image);
    }
}

TEST(DbConvert, UnalignedFieldsAreCopied)
{
    Hand hand({{"a", "uchar", 1, "1"},
               {"b", "int", 4, "-2"},
               {"c", "uchar", 1, "3"},
               {"d", "ushort", 2, "65534"},
               {"e", "uchar", 1, "5"},
               {"f", "uint", 4, "3000000000"},
               {"g", "ip", 4, "1.2.3.4"}});
    Bytes expected = {1};
    for (const Bytes &part : {bytes_of<int32_t>(-2), Bytes{3}, bytes_of<uint16_t>(65534), Bytes{5},
                              bytes_of<uint32_t>(3000000000u), Bytes{1, 2, 3, 4}})
        expected.insert(expected.end(), part.begin(), part.end());
    Bytes image = first(hand.to_memory(), expected.size());
    EXPECT_EQ(image, expected);

    for (int i = 0; i < hand.count(); ++i)
        strcpy(hand.para(i).value, "?");
    EdgeImage edge(image);
    bv_db_user_fill_frommem(edge.data(), hand.count(), &hand.para(0));
    EXPECT_EQ(hand.text(1), "-2");
    EXPECT_EQ(hand.text(3), "65534");
    EXPECT_EQ(hand.text(5), "3000000000");
    EXPECT_EQ(hand.text(6), "1.2.3.4");
}

TEST(DbConvert, AStringIsCutToItsBytesAndTerminated)
{
    Hand hand({{"p", "string", 5, "abcdefgh"}, {"q", "string", 3, "xy"}, {"r", "string", 1, "z"}});
    EXPECT_EQ(first(hand.to_memory(), 9), (Bytes{'a', 'b', 'c', 'd', 0, 'x', 'y', 0, 0}));
}

TEST(DbConvert, BytesBehindAStringsNulStayAsTheyWere)
{
    Hand hand({{"p", "string", 6, "ab"}});
    EXPECT_EQ(first(hand.to_memory(), 7), (Bytes{'a', 'b', 0, kFill, kFill, kFill, kFill}));
    strcpy(hand.para(0).value, "");
    EXPECT_EQ(first(hand.to_memory(), 3), (Bytes{0, 'b', 0}));
}

TEST(DbConvert, AStringWithoutRoomStoresNothing)
{
    for (int len : {0, -1, INT_MIN + 64}) {
        SCOPED_TRACE(len);
        Hand hand({{"p", "string", len, "abc"}, {"rest", "none", 1, ""}});
        hand.get()->image_size = 32;
        Bytes room(64, kFill);
        hand.get()->working_image = room.data();
        bv_db_user_fill_tomem(hand.get(), 0);
        EXPECT_EQ(room, Bytes(64, kFill));
    }
}

TEST(DbConvert, AStringIsCutAtTheEndOfTheAllocation)
{
    // 30 + 100 - 100 bytes are an image of 30, allocated as 32: the string has 2 of its 100.
    Hand hand({{"a", "none", 30, ""}, {"s", "string", 100, "abcdef"}, {"b", "none", -100, ""}});
    Bytes image = hand.to_memory();
    ASSERT_EQ(image.size(), 32u);
    EXPECT_EQ(image[30], 'a');
    EXPECT_EQ(image[31], 0);
    EXPECT_EQ(image[29], kFill);

    // Behind the allocation there is no room at all.
    Hand beyond({{"a", "none", 32, ""}, {"s", "string", 8, "abcdef"}, {"b", "none", -10, ""}});
    EXPECT_EQ(beyond.to_memory(), Bytes(32, kFill));
    Hand full({{"a", "none", 32, ""}, {"s", "string", 8, "abcdef"}, {"b", "none", -8, ""}});
    EXPECT_EQ(full.to_memory(), Bytes(32, kFill)) << "an image that fills its allocation";
}

TEST(DbConvert, AStringIsReadToItsNulWhateverItsLength)
{
    Hand hand({{"p", "string", 2, ""}, {"q", "string", 4, ""}});
    EdgeImage edge({'a', 'b', 'c', 'd', 0, 'e'});
    bv_db_user_fill_frommem(edge.data(), 2, &hand.para(0));
    EXPECT_EQ(hand.text(0), "abcd");
    EXPECT_EQ(hand.text(1), "cd");
}

TEST(DbConvert, StringOfACallersImageEndsAtItsNulOnly)
{
    Hand hand({{"p", "string", 0, "old"}, {"q", "string", 3, "old"}});
    EdgeImage edge({'a', 'b', 'c', 'd', 'e', 0}); // 3 bytes by the lengths
    bv_db_user_fill_frommem(edge.data(), 2, &hand.para(0));
    EXPECT_EQ(hand.text(0), "abcde");
    EXPECT_EQ(hand.text(1), "abcde");
}

TEST(DbConvert, AStringOf1023CharactersIsTheLongest)
{
    Hand hand({{"p", "string", 1000, "old"}, {"q", "string", 100, "old"}});
    Bytes image(1100, 'x');
    image[1023] = 0;
    EdgeImage fits(image);
    bv_db_user_fill_frommem(fits.data(), 2, &hand.para(0));
    EXPECT_EQ(hand.text(0), std::string(1023, 'x'));

    image[1023] = 'x';
    image[1024] = 0;
    EdgeImage longer(image);
    bv_db_user_fill_frommem(longer.data(), 2, &hand.para(0));
    EXPECT_EQ(hand.text(0), "") << "one that does not fit is emptied, not cut";
}

TEST(DbConvert, UnknownTypesTouchNeitherSide)
{
    for (const char *type : {"", "String", "INT", "int ", " int", "integer", "in", "strin",
                             "strings", "long", "uint8", "i", "u", "ipp", "macc"}) {
        SCOPED_TRACE(type);
        Hand hand({{"p", type, 8, "77"}});
        EXPECT_EQ(hand.to_memory(), Bytes(32, kFill));
        EXPECT_EQ(to_text(type, Bytes(8, 1)), "old");
    }
}

TEST(DbConvert, AnUnknownTypeStillMovesTheCursor)
{
    Hand hand({{"p", "blob", 3, ""}, {"q", "uchar", 1, "9"}});
    EXPECT_EQ(first(hand.to_memory(), 5), (Bytes{kFill, kFill, kFill, 9, kFill}));
}

TEST(DbConvert, ATypeStoresItsOwnWidthAndTheNextOneOverwrites)
{
    Hand hand(
        {{"a", "int", 2, "-1"}, {"b", "ushort", 2, "0"}, {"c", "mac", 1, "11:22:33:44:55:66"}});
    EXPECT_EQ(first(hand.to_memory(), 11),
              (Bytes{0xff, 0xff, 0, 0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, kFill}));
}

TEST(DbConvert, AWideLengthLeavesTheRestOfItsBytesAlone)
{
    Hand hand({{"a", "uchar", 4, "1"}, {"b", "uchar", 1, "2"}});
    EXPECT_EQ(first(hand.to_memory(), 5), (Bytes{1, kFill, kFill, kFill, 2}));
}

TEST(DbConvert, StoresKeepToTheAllocationByteByByte)
{
    // An image of 30 bytes is allocated as 32; the int at 30 stores two bytes, the next ones none.
    Hand hand(
        {{"a", "none", 30, ""}, {"b", "uint", 4, "4294967295"}, {"c", "uint", -4, "4294967295"}});
    Bytes image = hand.to_memory();
    ASSERT_EQ(image.size(), 32u);
    EXPECT_EQ(Bytes(image.begin() + 28, image.end()), (Bytes{kFill, kFill, 0xff, 0xff}));
}

TEST(DbConvert, StoresBeforeTheImageAreDroppedByteByByte)
{
    Hand hand({{"a", "none", -2, ""},
               {"b", "uint", 4, "4294967295"},
               {"c", "string", 20, "abc"},
               {"d", "none", -1000, ""},
               {"s", "string", 1010, "never"}});
    Bytes image = hand.to_memory();
    EXPECT_EQ(first(image, 6), (Bytes{0xff, 0xff, 'a', 'b', 'c', 0}));
    EXPECT_EQ(image[6], kFill);
}

TEST(DbConvert, HugeLengthsDoNotWrapTheCursor)
{
    Hand hand({{"a", "none", INT_MIN, ""}, {"b", "uint", 4, "1"}});
    hand.get()->image_size = 32;
    Bytes room(64, kFill);
    hand.get()->working_image = room.data();
    for (size_t i = 0; i < 2; ++i)
        strcpy(hand.para(i).type, "uint");
    bv_db_user_fill_tomem(hand.get(), 0);
    Bytes expected(64, kFill);
    memset(expected.data(), 0, 4); // the first one, of text ""
    EXPECT_EQ(room, expected);
}

TEST(DbConvert, AStringAlmost4GiBBehindTheImageStoresNothing)
{
    // Cut to 32 bits, the room of -4294967262 bytes that it has would be one of 34.
    Hand hand({{"a", "none", 0, ""}, {"b", "none", 0, ""}, {"s", "string", 32, "abc"}});
    hand.para(0).len = hand.para(1).len = INT_MAX;
    EXPECT_EQ(hand.to_memory(), Bytes(32, kFill));
}

TEST(DbConvert, ReadsOfACallersImageTakeTheTypesWidthWhateverTheLengths)
{
    Hand hand({{"a", "uint", 2, "?"},
               {"b", "mac", 4, "?"},
               {"c", "uint", 2, "?"},
               {"d", "ip", -20, "?"},
               {"e", "string", 1, "?"},
               {"f", "uint", 10, "?"},
               {"g", "int", 8, "?"}});
    // 7 bytes by the lengths, 12 by the types; positions 0, 2, 6, 8, -12, -11, -1.
    EdgeImage edge({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
    bv_db_user_fill_frommem(edge.data(), hand.count(), &hand.para(0));
    uint32_t whole;
    memcpy(&whole, "\1\2\3\4", 4);
    EXPECT_EQ(hand.text(0), std::to_string(whole));
    EXPECT_EQ(hand.text(1), "03:04:05:06:07:08");
    memcpy(&whole, "\7\10\11\12", 4);
    EXPECT_EQ(hand.text(2), std::to_string(whole));
    EXPECT_EQ(hand.text(3), "9.10.11.12");

    // Nothing of an image is before its address: that reads as 0, byte by byte.
    EXPECT_EQ(hand.text(4), "");
    EXPECT_EQ(hand.text(5), "0");
    memcpy(&whole, "\0\1\2\3", 4);
    EXPECT_EQ(hand.text(6), std::to_string(whole));
}

TEST(DbConvert, WorkingImageWithoutASizeHasRoomForTheSumOfTheLengths)
{
    Hand hand({{"a", "ushort", 2, "258"},
               {"b", "string", 4, "abcdefgh"},
               {"c", "uint", 2, "4294967295"},
               {"d", "none", 0, ""}});
    hand.get()->image_size = 0;
    Bytes expected = bytes_of<uint16_t>(258);
    for (uint8_t byte : {'a', 'b', 'c', '\0', '\xff', '\xff'})
        expected.push_back(byte);
    Bytes image = hand.to_memory();
    EXPECT_EQ(first(image, 8), expected);
    EXPECT_EQ(Bytes(image.begin() + 8, image.end()), Bytes(image.size() - 8, kFill))
        << "the lengths' sum is the end, not a multiple of 32";

    hand.para(3).len = -8;
    memset(hand.get()->working_image, kFill, 32);
    EXPECT_EQ(hand.to_memory(), Bytes(32, kFill)) << "a sum of nothing";
    hand.para(3).len = 0;
    hand.get()->image_size = -1;
    EXPECT_EQ(hand.to_memory(), Bytes(32, kFill)) << "a negative size is not a missing one";
}

TEST(DbConvert, ValueThatFillsItsFieldIsTerminated)
{
    for (const char *type : {"string", "uint", "mac", "ip"}) {
        SCOPED_TRACE(type);
        Hand hand({{"p", type, 1000, ""}, {"q", "string", 400, ""}});
        memset(hand.para(0).value, '1', sizeof hand.para(0).value);
        memcpy(&hand.para(1), "22222222", 8); // what a read that goes on would find
        const Bytes whole = hand.to_memory();
        hand.para(0).value[1023] = '\0';
        EXPECT_EQ(hand.to_memory(), whole);
    }
}

TEST(DbConvert, OnlyTheGivenCountIsConverted)
{
    Hand hand({{"a", "uchar", 1, "?"}, {"b", "uchar", 1, "?"}, {"c", "uchar", 1, "?"}});
    uint8_t image[] = {1, 2, 3};
    bv_db_user_fill_frommem(image, 2, &hand.para(0));
    EXPECT_EQ(hand.text(0), "1");
    EXPECT_EQ(hand.text(1), "2");
    EXPECT_EQ(hand.text(2), "?");
    bv_db_user_fill_frommem(image, 0, &hand.para(2));
    bv_db_user_fill_frommem(image, -1, &hand.para(2));
    EXPECT_EQ(hand.text(2), "?");
}

TEST(DbConvert, TheFirstInvalidDescriptorEndsTheWalk)
{
    Hand hand({{"a", "uchar", 1, "1"}, {"b", "uchar", 1, "2"}, {"c", "uchar", 1, "3"}});
    hand.para(1).valid = 0;
    EXPECT_EQ(first(hand.to_memory(), 3), (Bytes{1, kFill, kFill}));
    uint8_t image[] = {7, 8, 9};
    bv_db_user_fill_frommem(image, 3, &hand.para(0));
    EXPECT_EQ(hand.text(0), "7");
    EXPECT_EQ(hand.text(1), "2");
    EXPECT_EQ(hand.text(2), "3");
}

TEST(DbConvert, Mode1TakesSelectedParametersAndMovesOverOthers)
{
    Hand hand({{"a", "uchar", 1, "1"}, {"b", "ushort", 2, "2"}, {"c", "uchar", 1, "3"}});
    EXPECT_EQ(first(hand.to_memory(1), 4), Bytes(4, kFill)) << "nothing is selected by itself";
    hand.para(1).selected = 2;
    hand.para(2).selected = 1;
    EXPECT_EQ(first(hand.to_memory(1), 4), (Bytes{kFill, kFill, kFill, 3})) << "1 is selected";
    EXPECT_EQ(hand.to_memory(0)[0], 1);
}

TEST(DbConvert, WithoutAnImageNothingHappens)
{
    Hand hand({{"a", "uchar", 1, "1"}});
    EXPECT_EQ(bv_db_user_fill_frommem(nullptr, 1, &hand.para(0)), 0);
    EXPECT_EQ(hand.text(0), "1");
    hand.get()->working_image = nullptr;
    EXPECT_EQ(bv_db_user_fill_tomem(hand.get(), 0), 0);

    uint8_t byte = 0;
    EXPECT_EQ(bv_db_user_fill_frommem(&byte, 1, nullptr), 0);
    EXPECT_EQ(bv_db_user_fill_tomem(nullptr, 0), 0);
}

} // namespace
