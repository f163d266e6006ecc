// Random templates and data files, most of them nonsense, through the whole life of a database.
// The seed is fixed: a failure comes again. What matters is chiefly that nothing is read or
// written outside its memory, which the sanitised build sees.

#include "db/database.h"

#include <bv/os.h>

#include <algorithm>
#include <climits>
#include <map>
#include <random>

namespace {

constexpr int kFamilies = 4;

class Random {
public:
    explicit Random(uint32_t seed) : engine_(seed) {}

    int below(int limit) { return static_cast<int>(engine_() % static_cast<uint32_t>(limit)); }
    bool chance(int percent) { return below(100) < percent; }
    template <typename T, size_t N>
    const T &pick(const T (&choices)[N])
    {
        return choices[below(N)];
    }

private:
    std::mt19937 engine_;
};

std::string path(int family)
{
    return "/etc/template/h" + std::to_string(family) + ".json";
}

std::string random_type(Random &random)
{
    const char *types[] = {"string", "char", "uchar", "short", "ushort", "int",
                           "uint",   "mac",  "ip",    "blob",  "",       "STRING"};
    return random.pick(types);
}

int random_len(Random &random)
{
    const int natural[] = {1, 1, 2, 4, 4, 6, 16, 32};
    const int odd[] = {0, -1, -2, -5, 3, 7, 1023, 1024, 1500, -40, -1000, -1000000};
    return random.chance(65) ? random.pick(natural) : random.pick(odd);
}

std::string random_value(Random &random)
{
    const char *values[] = {"",     "0",  "-1",          "4294967295",        "-2147483648", "x",
                            "text", "17", "192.168.1.1", "aa:bb:cc:dd:ee:ff", "1.2.3",       " 9"};
    if (random.chance(80))
        return random.pick(values);
    return std::string(static_cast<size_t>(random.below(1200)),
                       static_cast<char>('a' + random.below(26)));
}

// Damages a text now and then: cuts it, or overwrites some of it.
std::string maybe_damaged(Random &random, std::string text)
{
    if (text.empty() || random.chance(80))
        return text;
    if (random.chance(30))
        return text.substr(0, static_cast<size_t>(random.below(static_cast<int>(text.size()))));
    for (int i = random.below(4); i >= 0; --i)
        text[static_cast<size_t>(random.below(static_cast<int>(text.size())))] =
            "{}[]\":,0-x\\\xff"[random.below(12)];
    return text;
}

std::string random_template(Random &random)
{
    std::vector<Parameter> parameters(static_cast<size_t>(random.below(30)));
    for (size_t i = 0; i < parameters.size(); ++i)
        parameters[i] = {"p" + std::to_string(random.below(20)), random_type(random),
                         random_len(random), random_value(random)};
    return maybe_damaged(random, template_text(parameters));
}

std::string random_element(Random &random)
{
    const char *odd[] = {"null",
                         "[]",
                         "{}",
                         "7",
                         "\"x\"",
                         "{\"inst\":1}",
                         "{\"para\":{}}",
                         "{\"inst\":\"x\",\"para\":[]}"};
    if (random.chance(15))
        return random.pick(odd);
    std::string out = "{\"inst\":\"" + std::to_string(random.below(6) - 1) + "\",\"para\":{";
    const char *separator = "";
    for (int i = random.below(20); i > 0; --i) {
        out += separator + ("\"p" + std::to_string(random.below(20))) + "\":\"" +
               random_value(random) + "\"";
        separator = ",";
    }
    return out + "}}";
}

std::string random_data(Random &random)
{
    std::string out = "{";
    const char *separator = "";
    for (int family = 0; family < kFamilies; ++family) {
        if (random.chance(20))
            continue;
        out += separator + ("\"" + path(family)) + "\":[";
        const char *comma = "";
        for (int i = random.below(5); i > 0; --i) {
            out += comma + random_element(random);
            comma = ",";
        }
        out += "]";
        separator = ",";
    }
    return maybe_damaged(random, out + "}");
}

void put_bytes(std::map<int64_t, uint8_t> &image, int64_t position, const Bytes &bytes)
{
    for (size_t i = 0; i < bytes.size(); ++i)
        image[position + static_cast<int64_t>(i)] = bytes[i];
}

// The image of the descriptors' texts, worked out on an endless strip of bytes and cut at last.
Bytes expected_image(const bv_db_family *family)
{
    std::map<int64_t, uint8_t> image;
    int64_t position = 0;
    int64_t allocation = (family->image_size + 31) / 32 * 32;
    for (int i = 0; i < family->para_count && family->para[i].valid == 1; ++i) {
        const bv_db_para &para = family->para[i];
        std::string type = para.type, text = para.value;
        auto number = static_cast<uint32_t>(strtoll(text.c_str(), nullptr, 10));
        Bytes six(6), four(4);
        bv_os_mac_pton(text.c_str(), six.data());
        if (bv_os_inet_pton(text.c_str(), four.data()) != 1)
            four.assign(4, 0);
        if (type == "char" || type == "uchar")
            put_bytes(image, position, bytes_of(static_cast<uint8_t>(number)));
        if (type == "short" || type == "ushort")
            put_bytes(image, position, bytes_of(static_cast<uint16_t>(number)));
        if (type == "int" || type == "uint")
            put_bytes(image, position, bytes_of(number));
        if (type == "mac")
            put_bytes(image, position, six);
        if (type == "ip")
            put_bytes(image, position, four);
        int64_t room = std::min<int64_t>(para.len, allocation - position);
        if (type == "string" && position >= 0 && room >= 1) {
            text = text.substr(0, static_cast<size_t>(room - 1));
            put_bytes(image, position, Bytes(text.c_str(), text.c_str() + text.size() + 1));
        }
        position += para.len;
    }
    Bytes out(static_cast<size_t>(family->image_size));
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = image[static_cast<int64_t>(i)];
    return out;
}

void check_family(const bv_db_family *family)
{
    int64_t sum = 0;
    for (int i = 0; i < family->para_count && family->para[i].valid != 0; ++i)
        sum += family->para[i].len;
    EXPECT_EQ(family->image_size, sum);
    EXPECT_EQ(family->working_image != nullptr, sum > 0);
    EXPECT_EQ(family->default_image != nullptr, sum > 0);

    std::vector<int> all = numbers(family);
    EXPECT_EQ(static_cast<size_t>(family->inst_count), all.size());
    if (!all.empty()) {
        EXPECT_EQ(family->inst_max, std::max(1, *std::max_element(all.begin(), all.end())));
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::unique(all.begin(), all.end()), all.end()) << "a number stands twice";
}

// Reads, overwrites, adds and deletes through the public calls, with buffers of any size.
void use_family(Random &random, const std::string &name)
{
    bv_db_family *family = bv_db_hash_find(name.c_str());
    ASSERT_NE(family, nullptr);
    Bytes buf(static_cast<size_t>(1 + random.below(2000)), 0x5a);
    auto size = static_cast<uint32_t>(buf.size());
    auto number = static_cast<uint32_t>(random.below(6) - 1);
    bv_db_read(name.c_str(), buf.data(), size, number);
    bv_db_write(name.c_str(), buf.data(), size, number);
    uint32_t fresh;
    EXPECT_EQ(bv_db_inst_getnew(name.c_str(), &fresh), BV_OK);
    EXPECT_EQ(bv_db_inst_add(name.c_str(), buf.data(), size, fresh), BV_OK);
    if (random.chance(30)) {
        EXPECT_EQ(bv_db_inst_del(name.c_str(), fresh), BV_OK);
    }
    for (int status = bv_db_read_first(name.c_str(), buf.data(), size, &number); status == BV_OK;)
        status = bv_db_read_next(name.c_str(), buf.data(), size, number, &number);
    check_family(family);
}

TEST_F(Db, HostileTemplatesAndDataFilesStayWithinTheirMemory)
{
    Random random(20261120);
    for (int family = 0; family < kFamilies; ++family)
        bv_db_reg_user(path(family).c_str());
    bv_db_ready();

    int images = 0, instances = 0;
    for (int round = 0; round < 400; ++round) {
        SCOPED_TRACE(round);
        for (int family = 0; family < kFamilies; ++family)
            put_file(path(family), random_template(random));

        EXPECT_EQ(bv_db_template(), BV_OK);
        for (int family = 0; family < kFamilies; ++family) {
            bv_db_family *record = bv_db_hash_find(path(family).c_str());
            ASSERT_NE(record, nullptr);
            check_family(record);
            if (record->default_image != nullptr) {
                EXPECT_EQ(default_image(record), expected_image(record));
                ++images;
            }
        }

        put_file(kUserFile, random_data(random));
        EXPECT_EQ(bv_db_start(), BV_OK);
        for (int family = 0; family < kFamilies; ++family) {
            instances += bv_db_inst_getnum(path(family).c_str());
            use_family(random, path(family));
        }
        EXPECT_EQ(bv_db_commit(), BV_OK);
        EXPECT_EQ(bv_db_start(), BV_OK);
        if (HasFailure())
            return;
    }
    EXPECT_GT(images, 300) << "the rounds must not all be refused at once";
    EXPECT_GT(instances, 300);
}

} // namespace
