/* SPDX-License-Identifier: ISC */
#include "db/database.h"
#include "support/guarded.h"

#include <climits>
#include <memory>

namespace {

constexpr uint8_t kFill = 0xa5;

// A family made by hand, its working image between two margins that must not change.
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

    // The whole allocation after a conversion of all texts.
    Bytes to_memory(int32_t mode = 0)
    {
        EXPECT_EQ(bv_db_user_fill_tomem(get(), mode), 0);
        auto image = memory_.begin() + kMargin, end = memory_.end() - kMargin;
        EXPECT_EQ(Bytes(memory_.begin(), image), Bytes(kMargin, kFill)) << "written before it";
        EXPECT_EQ(Bytes(end, memory_.end()), Bytes(kMargin, kFill)) << "written after it";
        return Bytes(image, end);
    }

    // The descriptors' texts, as they are or after a conversion of a caller's image.
    Names texts() const
    {
        Names out;
        for (int32_t i = 0; i < family_->para_count; ++i)
            out.push_back(table_[static_cast<size_t>(i)].value);
        return out;
    }
    Names texts_of(const Bytes &image)
    {
        Guarded memory(std::string(image.begin(), image.end()));
        EXPECT_EQ(bv_db_user_fill_frommem(memory.u8(), family_->para_count, table_.data()), 0);
        return texts();
    }

private:
    static constexpr size_t kMargin = 4096;
    std::vector<bv_db_para> table_;
    std::unique_ptr<bv_db_family> family_;
    int32_t allocation_;
    Bytes memory_;
};

std::string to_text(const std::string &type, const Bytes &image)
{
    return Hand({{"p", type, static_cast<int>(image.size()), "old"}}).texts_of(image)[0];
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

void expect_stored(const Row &row)
{
    SCOPED_TRACE(std::string(row.type) + " \"" + row.text + "\"");
    Hand hand({{"p", row.type, row.len, row.text}});
    EXPECT_EQ(first(hand.to_memory(), row.image.size()), row.image);
}

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
        expect_stored(row);
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
    for (const auto &row : rows)
        for (const char *type : {"int", "uint"})
            expect_stored({type, 4, row.text, bytes_of(row.number)});
    const std::string longest = std::string(1022, '0') + "7";
    expect_stored({"uint", 4, longest.c_str(), bytes_of(7u)});
}

TEST(DbConvert, TextThatDoesNotFitItsTypeIsCutOrZero)
{
    const Row rows[] = {
        {"char", 1, "300", {44}},
        {"uchar", 1, "-1", {255}},
        {"short", 2, "65537", bytes_of<uint16_t>(1)},
        {"ushort", 2, "-2", bytes_of<uint16_t>(65534)},
        {"ushort", 2, "none", {0, 0}},
        {"ip", 4, "", Bytes(4)},
        {"ip", 4, "192.168.1", Bytes(4)},
        {"ip", 4, "192.168.1.256", Bytes(4)},
        {"ip", 4, "gateway", Bytes(4)},
        {"ip", 4, "::1", Bytes(4)},
        {"ip", 4, "1.2.3.4 ", Bytes(4)},
        {"mac", 6, "", Bytes(6)},
        {"mac", 6, "0A:b", {0x0a, 0x0b, 0, 0, 0, 0}},
        {"mac", 6, "AA:BB:cc:zz:11:22", {0xaa, 0xbb, 0xcc, 0, 0, 0}},
        {"string", 6, "ab", {'a', 'b', 0, kFill, kFill, kFill, kFill}}, // the rest stays
        {"string", 5, "abcdefgh", {'a', 'b', 'c', 'd', 0, kFill}},
        {"string", 3, "xy", {'x', 'y', 0, kFill}},
        {"string", 1, "z", {0, kFill}},
        {"string", 1, "", {0, kFill}},
    };
    for (const Row &row : rows)
        expect_stored(row);
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

    EXPECT_EQ(hand.texts_of(image), (Names{"1", "-2", "3", "65534", "5", "3000000000", "1.2.3.4"}));
}

TEST(DbConvert, StringWithoutRoomStoresNothing)
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

// An image's allocation is its size rounded up to 32; only its bytes from `at` on are stored.
TEST(DbConvert, StoresStayWithinTheAllocationToTheByte)
{
    const struct {
        const char *what;
        std::vector<Parameter> parameters;
        size_t at;
        Bytes stored;
    } rows[] = {
        {"string cut at the end",
         {{"a", "none", 30, ""}, {"s", "string", 100, "abcdef"}, {"b", "none", -100, ""}},
         30,
         {'a', 0}},
        {"string after the end",
         {{"a", "none", 32, ""}, {"s", "string", 8, "abcdef"}, {"b", "none", -10, ""}},
         32,
         {}},
        {"image that fills its allocation",
         {{"a", "none", 32, ""}, {"s", "string", 8, "abcdef"}, {"b", "none", -8, ""}},
         32,
         {}},
        {"number cut at the end",
         {{"a", "none", 30, ""}, {"b", "uint", 4, "4294967295"}, {"c", "uint", -4, "4294967295"}},
         30,
         {0xff, 0xff}},
        {"before the start",
         {{"a", "none", -2, ""},
          {"b", "uint", 4, "4294967295"},
          {"c", "string", 20, "abc"},
          {"d", "none", -1000, ""},
          {"s", "string", 1010, "never"}},
         0,
         {0xff, 0xff, 'a', 'b', 'c', 0}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        Hand hand(row.parameters);
        Bytes expected(32, kFill);
        std::copy(row.stored.begin(), row.stored.end(), expected.begin() + row.at);
        EXPECT_EQ(hand.to_memory(), expected);
    }
}

TEST(DbConvert, HugeLengthsDoNotWrapTheCursor)
{
    Hand hand({{"a", "uint", INT_MIN, ""}, {"b", "uint", 4, "1"}});
    hand.get()->image_size = 32;
    Bytes room(64, kFill), expected = room;
    hand.get()->working_image = room.data();
    bv_db_user_fill_tomem(hand.get(), 0);
    memset(expected.data(), 0, 4);
    EXPECT_EQ(room, expected) << "the first one only";

    // Cut to 32 bits, this string's room of -4294967262 bytes would be one of 34.
    Hand far({{"a", "none", 0, ""}, {"b", "none", 0, ""}, {"s", "string", 32, "abc"}});
    far.para(0).len = far.para(1).len = INT_MAX;
    EXPECT_EQ(far.to_memory(), Bytes(32, kFill));

    // On 32-bit machines the first two leave what a position holds; the sum is that of all.
    Hand back({{"a", "none", 0, ""}, {"b", "none", 0, ""}, {"c", "none", 0, ""},
               {"d", "none", 0, ""}, {"s", "string", 20, "0123456789abcdefghi"}});
    const int32_t lens[] = {INT_MIN, -20, INT_MAX, 21};
    for (int i = 0; i < 4; ++i)
        back.para(i).len = lens[i];
    back.get()->image_size = 0;
    const Bytes image = back.to_memory();
    EXPECT_EQ(Bytes(image.begin() + 20, image.end()), Bytes(12, kFill)) << "room for 20 bytes";
}

TEST(DbConvert, StringOfACallersImageEndsAtItsNulWhateverItsLength)
{
    Hand hand({{"p", "string", 0, "old"}, {"q", "string", 2, "old"}, {"r", "string", 1, "old"}});
    EXPECT_EQ(hand.texts_of({'a', 'b', 'c', 'd', 'e', 0}), (Names{"abcde", "abcde", "cde"}));
}

TEST(DbConvert, LongestStringHas1023Characters)
{
    Hand hand({{"p", "string", 1000, "old"}, {"q", "string", 100, "old"}});
    Bytes image(1100, 'x');
    image[1023] = 0;
    EXPECT_EQ(hand.texts_of(image)[0], std::string(1023, 'x'));
    image[1023] = 'x';
    image[1024] = 0;
    EXPECT_EQ(hand.texts_of(image)[0], "") << "one that does not fit is emptied, not cut";
}

TEST(DbConvert, UnknownTypesTouchNeitherSideButMoveTheCursor)
{
    for (const char *type : {"", "String", "INT", "int ", " int", "integer", "in", "strin",
                             "strings", "long", "uint8", "i", "u", "ipp", "macc"}) {
        SCOPED_TRACE(type);
        Hand hand({{"p", type, 8, "77"}, {"q", "uchar", 1, "9"}});
        EXPECT_EQ(first(hand.to_memory(), 10),
                  (Bytes{kFill, kFill, kFill, kFill, kFill, kFill, kFill, kFill, 9, kFill}));
        EXPECT_EQ(to_text(type, Bytes(8, 1)), "old");
    }
}

TEST(DbConvert, TypeStoresItsOwnWidthAndTheLengthPlacesTheNextOne)
{
    Hand narrow(
        {{"a", "int", 2, "-1"}, {"b", "ushort", 2, "0"}, {"c", "mac", 1, "11:22:33:44:55:66"}});
    EXPECT_EQ(first(narrow.to_memory(), 11),
              (Bytes{0xff, 0xff, 0, 0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, kFill}));
    Hand wide({{"a", "uchar", 4, "1"}, {"b", "uchar", 1, "2"}});
    EXPECT_EQ(first(wide.to_memory(), 5), (Bytes{1, kFill, kFill, kFill, 2}));
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
    const auto number = [](const char *bytes) {
        uint32_t whole;
        memcpy(&whole, bytes, 4);
        return std::to_string(whole);
    };
    // 7 bytes by the lengths, 12 by the types; positions 0, 2, 6, 8, -12, -11, -1. What is before
    // an image reads as 0, byte by byte.
    EXPECT_EQ(hand.texts_of({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}),
              (Names{number("\1\2\3\4"), "03:04:05:06:07:08", number("\7\10\11\12"), "9.10.11.12",
                     "", "0", number("\0\1\2\3")}));
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
    expected.resize(32, kFill); // the sum is the end, not a multiple of 32
    EXPECT_EQ(hand.to_memory(), expected);

    hand.para(3).len = -8;
    memset(hand.get()->working_image, kFill, 32);
    EXPECT_EQ(hand.to_memory(), Bytes(32, kFill)) << "a sum of nothing";
    hand.para(3).len = 0;
    hand.get()->image_size = -1;
    EXPECT_EQ(hand.to_memory(), Bytes(32, kFill)) << "a negative size is not a missing one";
}

TEST(DbConvert, ValueThatFillsItsFieldIsTerminated)
{
    const std::vector<std::pair<const char *, char>> rows = {
        {"string", '1'}, {"uint", '1'}, {"uint", ' '}, {"mac", '1'}, {"ip", '1'}};
    for (const auto &[type, fill] : rows) {
        SCOPED_TRACE(type);
        Hand hand({{"p", type, 1000, ""}, {"q", "string", 400, ""}});
        memset(hand.para(0).value, fill, sizeof hand.para(0).value);
        memcpy(&hand.para(1), "22222222", 8); // what reading on would find
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
    EXPECT_EQ(hand.texts(), (Names{"1", "2", "?"}));
    bv_db_user_fill_frommem(image, 0, &hand.para(2));
    bv_db_user_fill_frommem(image, -1, &hand.para(2));
    EXPECT_EQ(hand.texts(), (Names{"1", "2", "?"}));
}

TEST(DbConvert, FirstInvalidDescriptorEndsTheWalk)
{
    Hand hand({{"a", "uchar", 1, "1"}, {"b", "uchar", 1, "2"}, {"c", "uchar", 1, "3"}});
    hand.para(1).valid = 0;
    EXPECT_EQ(first(hand.to_memory(), 3), (Bytes{1, kFill, kFill}));
    uint8_t image[] = {7, 8, 9};
    bv_db_user_fill_frommem(image, 3, &hand.para(0));
    EXPECT_EQ(hand.texts(), (Names{"7", "2", "3"}));
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
    EXPECT_EQ(hand.texts(), Names{"1"});
    hand.get()->working_image = nullptr;
    EXPECT_EQ(bv_db_user_fill_tomem(hand.get(), 0), 0);

    bv_db_inst instance = {};
    uint8_t byte = kFill;
    EXPECT_EQ(bv_db_data_get_context(hand.get(), &instance, &byte, 1), BV_OK);
    EXPECT_EQ(bv_db_data_set_context(hand.get(), &instance, &byte, 1), BV_OK);
    EXPECT_EQ(byte, kFill);
    EXPECT_EQ(bv_db_user_fill_frommem(&byte, 1, nullptr), 0);
    EXPECT_EQ(bv_db_user_fill_tomem(nullptr, 0), 0);
}

} // namespace
