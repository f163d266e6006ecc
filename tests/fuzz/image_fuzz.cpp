// SPDX-License-Identifier: ISC
// Conversions between text and image with descriptors that claim anything.
//
// Input: for each of up to 8 descriptors a byte (type, valid, selected), a word (len), a piece
// (value); then a word (image size of the family) and the bytes of the image to read from.

#include <bv/db.h>

#include "fuzz/input.h"

#include <vector>

namespace {

constexpr const char *kTypes[] = {"string", "char", "uchar", "short", "ushort", "int",
                                  "uint",   "mac",  "ip",    "",      "strin",  "Int"};
constexpr size_t kTypeCount = sizeof kTypes / sizeof kTypes[0];

void put_text(char (&field)[1024], const std::string &text)
{
    memcpy(field, text.data(), text.size());
    field[text.size()] = '\0';
}

// Mostly small lengths: large ones move out of the image at once.
int32_t length_of(uint32_t word)
{
    if ((word >> 30) == 0)
        return static_cast<int32_t>(std::min(word, 1023u));
    return (word >> 30) == 3 ? static_cast<int32_t>(word | 0xffffff00)
                             : static_cast<int32_t>(word & 63);
}

bv_db_para descriptor(fuzz::Input &input)
{
    bv_db_para para = {};
    const uint8_t kind = input.byte();
    para.valid = (kind & 0x80) == 0 ? 1 : 0;
    para.selected = (kind & 0x40) == 0 ? 1 : 0;
    put_text(para.type, kTypes[(kind & 0x3f) % kTypeCount]);
    const uint32_t word = input.word();
    para.len = word == 0x80000000 ? INT32_MIN : length_of(word);
    std::string value = input.piece();
    while (value.size() > 200 && value.size() * 2 < sizeof para.value)
        value += value; // longer ones do not fit a piece
    put_text(para.value, value);
    return para;
}

// How many bytes of an image each type reads; a string goes on until it is too long.
int64_t width_of(const std::string &type)
{
    constexpr int64_t kWidths[kTypeCount] = {1024, 1, 1, 2, 2, 4, 4, 6, 4, 0, 0, 0};
    return kWidths[std::find(kTypes, kTypes + kTypeCount, type) - kTypes];
}

// The first byte after all that the table reads.
int64_t extent(const std::vector<bv_db_para> &table)
{
    int64_t position = 0;
    int64_t end = 0;
    for (auto para = table.begin(); para != table.end() && para->valid != 0; ++para) {
        const std::string type = para->type;
        if (position >= 0 || type != "string") // one that begins before the image ends at once
            end = std::max(end, position + width_of(type));
        position += para->len;
    }
    return end;
}

void to_text(std::vector<bv_db_para> table, const std::string &bytes)
{
    // Where only types that read nothing are left, the image has no byte at all.
    const auto size = static_cast<size_t>(extent(table));
    fuzz::Block image(size);
    if (size > 0)
        memcpy(image.bytes(), bytes.data(), std::min(bytes.size(), size));
    bv_db_user_fill_frommem(image.bytes(), static_cast<int32_t>(table.size()), table.data());
    for (const bv_db_para &para : table)
        FUZZ_CHECK(memchr(para.value, '\0', sizeof para.value) != nullptr);
}

int64_t sum_of_valid(const std::vector<bv_db_para> &table)
{
    int64_t sum = 0;
    for (auto para = table.begin(); para != table.end() && para->valid != 0; ++para)
        sum += para->len;
    return sum;
}

// The image size of the family need not be the sum of the lengths, unless it is 0.
void to_image(std::vector<bv_db_para> table, uint32_t size)
{
    size %= 2049;
    const size_t room = size > 0 ? (size + 31) & ~size_t{31}
                                 : static_cast<size_t>(std::max<int64_t>(sum_of_valid(table), 0));
    fuzz::Block image(room, 0);
    bv_db_family family = {};
    family.image_size = static_cast<int32_t>(size);
    family.para_count = static_cast<int32_t>(table.size());
    family.para = table.data();
    family.working_image = image.bytes();
    bv_db_user_fill_tomem(&family, 0);
    bv_db_user_fill_tomem(&family, 1);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input input(data, size);
    std::vector<bv_db_para> table(input.byte() % 9);
    for (bv_db_para &para : table)
        para = descriptor(input);
    const uint32_t image_size = input.word();
    to_image(table, image_size);
    to_text(table, input.rest());
    return 0;
}
