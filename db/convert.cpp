// SPDX-License-Identifier: ISC
// Parameters between text (a descriptor's value) and bytes (an image).
//
// Templates come from outside and may claim anything: lengths that do not fit their types, or are
// negative, move the position anywhere. So integers pass byte by byte through a window, which reads
// zeros and drops stores outside the image.

#include <bv/db.h>

#include "db/internal.h"
#include "db/types.h"

#include <bv/os.h>

#include <algorithm>

namespace {

constexpr uint32_t kValueSize = bv::kParameterTextSize;
static_assert(sizeof(bv_db_para::value) == kValueSize,
              "a value has the size that the tools assume");
constexpr uint32_t kMacSize = 6;
constexpr uint32_t kIpSize = 4;

// Where a number's lowest bytes are while it is converted: images have the machine's order.
uint8_t *low_bytes(uint32_t &number, uint32_t size)
{
    constexpr bool kLittleEndian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
    return reinterpret_cast<uint8_t *>(&number) + (kLittleEndian ? 0 : sizeof(number) - size);
}

// Where a parameter is in an image. One before its start is a huge number: a single comparison with
// the image's size then is enough for both ends.
using Position = size_t;

// Beyond the end of every image.
constexpr Position kFarOut = PTRDIFF_MAX;

// Lengths that claim more than an address can hold do not wrap: what follows stays outside, whatever
// its length is.
void advance(ptrdiff_t &position, int32_t length)
{
    if (position == PTRDIFF_MIN || __builtin_add_overflow(position, length, &position))
        position = PTRDIFF_MIN;
}

// Calls visit(parameter, its position) for each descriptor up to the first invalid one.
template <typename Visit>
void walk(bv_db_para *table, int32_t count, Visit visit)
{
    ptrdiff_t position = 0;
    for (bv_db_para &para : bv::Parameters(table, count)) {
        visit(para, static_cast<Position>(position));
        advance(position, para.len);
    }
}

// An image to read from; what is outside it reads as 0.
struct Source {
    const uint8_t *bytes;
    size_t size; // kFarOut for a caller's: only its types and its texts' NULs end it

    uint8_t at(Position position) const { return position < size ? bytes[position] : uint8_t{0}; }

    void load(Position position, uint8_t *to, uint32_t count) const
    {
        for (uint32_t i = 0; i < count; ++i)
            to[i] = at(position + i);
    }

    uint32_t load_unsigned(Position position, uint32_t width) const
    {
        uint32_t number = 0;
        load(position, low_bytes(number, width), width);
        return number;
    }

    int32_t load_signed(Position position, uint32_t width) const
    {
        const uint32_t unused_bits = 8 * (4 - width);
        return static_cast<int32_t>(load_unsigned(position, width) << unused_bits) >> unused_bits;
    }
};

// An image to write to; what falls outside it is dropped.
struct Target {
    uint8_t *bytes;
    size_t size;

    void put(Position position, uint8_t byte) const
    {
        if (position < size)
            bytes[position] = byte;
    }

    void store(Position position, const uint8_t *from, uint32_t count) const
    {
        for (uint32_t i = 0; i < count; ++i)
            put(position + i, from[i]);
    }
};

// Written in place: printing or copying each number with a call would take most of a commit.
void put_decimal(char *value, uint32_t magnitude, bool negative)
{
    uint32_t end = negative ? 2 : 1;
    for (uint32_t rest = magnitude; rest >= 10; rest /= 10)
        ++end;

    value[0] = '-';
    value[end] = '\0';
    do {
        value[--end] = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
}

void put_unsigned(char *value, uint32_t number)
{
    put_decimal(value, number, false);
}

void put_signed(char *value, int32_t number)
{
    const auto bits = static_cast<uint32_t>(number);
    put_decimal(value, number < 0 ? 0 - bits : bits, number < 0);
}

// The text up to its NUL or to the end of the image, even if that is far beyond the parameter's own
// bytes. A text that does not fit a value is dropped, not cut.
void string_to_text(const Source &image, Position position, char *value)
{
    for (uint32_t i = 0; i < kValueSize; ++i) {
        value[i] = static_cast<char>(image.at(position + i));
        if (value[i] == '\0')
            return;
    }
    value[0] = '\0';
}

void parameter_to_text(const Source &image, Position position, bv_db_para &para)
{
    const bv::ParameterType *type = bv::find_type(para.type);
    if (type == nullptr)
        return;

    uint8_t address[kMacSize];
    char *value = para.value;
    switch (type->kind) {
    case bv::TypeKind::String:
        return string_to_text(image, position, value);
    case bv::TypeKind::Signed:
        return put_signed(value, image.load_signed(position, type->size));
    case bv::TypeKind::Unsigned:
        return put_unsigned(value, image.load_unsigned(position, type->size));
    case bv::TypeKind::Mac:
        image.load(position, address, kMacSize);
        return bv_os_mac_ntop(address, value, kValueSize);
    case bv::TypeKind::Ip:
        image.load(position, address, kIpSize);
        bv_os_inet_ntop(address, value, kValueSize);
        return;
    }
}

// As atoi(), but modulo 2^32 with every C library: some clamp a number that does not fit an int,
// and a large unsigned value would come back from its own file as 2147483647.
uint32_t number_of(const char (&value)[kValueSize])
{
    const char *text = value;
    const char *const end = value + kValueSize - 1; // a service may have filled the whole field
    while (text != end && bv_os_isspace(static_cast<unsigned char>(*text)) != 0)
        ++text;
    const bool negative = *text == '-';
    if (*text == '-' || *text == '+')
        ++text;

    uint32_t number = 0;
    for (; text != end && *text >= '0' && *text <= '9'; ++text)
        number = number * 10 + static_cast<uint32_t>(*text - '0');
    return negative ? 0 - number : number;
}

// Cut to the parameter's bytes and terminated within them. Bytes after the NUL keep what the
// image held before.
void text_to_string(const Target &image, Position position, int32_t len, const char *value)
{
    if (position >= image.size || len < 1)
        return;
    const size_t room = std::min<size_t>(image.size - position, static_cast<uint32_t>(len));
    const auto size = static_cast<uint32_t>(std::min<size_t>(room, kValueSize));
    bv::copy_text(reinterpret_cast<char *>(image.bytes + position), size, value);
}

// An address that the text does not hold is stored as zeros.
void parameter_to_image(const Target &image, Position position, bv_db_para &para)
{
    const bv::ParameterType *type = bv::find_type(para.type);
    if (type == nullptr)
        return;

    uint8_t address[kMacSize] = {};
    uint32_t number;
    auto &value = para.value;
    switch (type->kind) {
    case bv::TypeKind::String:
        return text_to_string(image, position, para.len, value);
    case bv::TypeKind::Signed:
    case bv::TypeKind::Unsigned:
        number = number_of(value);
        return image.store(position, low_bytes(number, type->size), type->size);
    case bv::TypeKind::Mac:
        bv::terminate(value);
        bv_os_mac_pton(value, address);
        return image.store(position, address, kMacSize);
    case bv::TypeKind::Ip:
        bv::terminate(value);
        bv_os_inet_pton(value, address);
        return image.store(position, address, kIpSize);
    }
}

// The room in the working image. A record that a service made may have an image but no size: its
// descriptors then say how long it is.
size_t working_size(const bv_db_family &family)
{
    if (family.image_size != 0)
        return bv::image_allocation(family.image_size);
    ptrdiff_t sum = 0;
    for (const bv_db_para &para : bv::Parameters(family))
        advance(sum, para.len);
    return sum > 0 ? static_cast<size_t>(sum) : 0;
}

} // namespace

void bv::copy_text(char *to, uint32_t size, const char *text)
{
    for (char *const last = to + size - 1; to != last && *text != '\0'; ++to, ++text)
        *to = *text;
    *to = '\0';
}

void bv::image_to_text(const uint8_t *image, size_t size, bv_db_para *table, int32_t count)
{
    if (image == nullptr || table == nullptr)
        return;
    const Source source{image, size};
    walk(table, count,
         [&](bv_db_para &para, Position position) { parameter_to_text(source, position, para); });
}

void bv::number_to_text(int32_t number, char *text)
{
    put_signed(text, number);
}

int32_t bv_db_user_fill_frommem(const void *image, int32_t count, bv_db_para *table)
{
    bv::image_to_text(static_cast<const uint8_t *>(image), kFarOut, table, count);
    return BV_OK;
}

int32_t bv_db_user_fill_tomem(bv_db_family *family, int32_t mode)
{
    if (family == nullptr || family->working_image == nullptr || family->para == nullptr)
        return BV_OK;

    const Target target{family->working_image, working_size(*family)};
    walk(family->para, family->para_count, [&](bv_db_para &para, Position position) {
        if (mode == 1 && para.selected != 1)
            return;
        parameter_to_image(target, position, para);
    });
    return BV_OK;
}
