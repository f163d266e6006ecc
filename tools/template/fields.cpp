#include "tools/template/fields.h"

#include "tools/template/fault.h"
#include "tools/template/values.h"

#include <cerrno>
#include <climits>
#include <cstring>

namespace {

uint32_t hash_of(const void *bytes, size_t length)
{
    const auto *at = static_cast<const uint8_t *>(bytes);
    uint32_t value = 2166136261U;
    for (size_t i = 0; i < length; ++i)
        value = (value ^ at[i]) * 16777619U;
    return value ^ value >> 15;
}

// Whether the library's text of a number without quotes is the number as it was written: whole
// ones go through 64 bits there, others are kept.
bool number_stays(const char *text)
{
    if (strpbrk(text, ".eE") != nullptr)
        return true;
    errno = 0;
    if (*text == '-')
        return strtoll(text, nullptr, 10) != 0 && errno == 0;
    return strtoull(text, nullptr, 10) != ULLONG_MAX || errno == 0;
}

} // namespace

namespace tools {

Seen::Seen(const char *path, size_t count)
{
    while (size_ < count * 2)
        size_ *= 2;
    entries_ = static_cast<Entry *>(calloc(size_, sizeof(Entry)));
    if (entries_ == nullptr)
        file_trouble(path, "out of memory");
}

unsigned Seen::note(uint32_t hash, const Entry &entry)
{
    if (entries_ == nullptr)
        return 0;
    size_t place = hash & (size_ - 1);
    for (; entries_[place].bytes != nullptr; place = (place + 1) & (size_ - 1)) {
        const Entry &other = entries_[place];
        if (other.length == entry.length &&
            (other.bytes == entry.bytes || memcmp(other.bytes, entry.bytes, entry.length) == 0))
            return other.line;
    }
    entries_[place] = entry;
    return 0;
}

unsigned Seen::add(const char *bytes, size_t length, unsigned line)
{
    return note(hash_of(bytes, length), {bytes, length, line});
}

unsigned Seen::add(int32_t number, unsigned line)
{
    static constexpr char kNumber[] = "the bytes of every number";
    return note(hash_of(&number, sizeof(number)), {kNumber, static_cast<uint32_t>(number), line});
}

void check_names_once(const char *path, const Json &object)
{
    Seen seen(path, object.count());
    for (const Json &member : object) {
        // For the library a name ends at its first zero byte.
        const unsigned first = seen.add(member.name, strlen(member.name), member.name_line);
        if (first != 0)
            fault(path, member.name_line, "duplicate name \"%.80s\", first in line %u", member.name,
                  first);
    }
}

const char *take_text(const char *path, const Json &value, const char *what)
{
    if (value.text == nullptr)
        fault(path, value.line, "%.100s is not a string", what);
    else if (value.kind != Json::Kind::Number || number_stays(value.text))
        return value.text;
    else
        fault(path, value.line, "%.100s: the library changes %.40s, which needs quotes", what,
              value.text);
    return nullptr;
}

bool take_number(const char *path, const Json &value, const char *what, int32_t &number)
{
    int64_t wide;
    if (value.text == nullptr || !parse_decimal(value.text, wide)) {
        fault(path, value.line, "%.100s is not a whole number", what);
        return false;
    }
    if (wide < INT32_MIN || wide > INT32_MAX) {
        fault(path, value.line, "%.100s does not fit 32 bits", what);
        return false;
    }
    number = static_cast<int32_t>(wide);
    return true;
}

void check_survives(const char *path, const Json &value, const char *what)
{
    Reason why;
    if (value.text != nullptr && !text_survives(value.text, value.length, why))
        fault(path, value.line, "%.100s: %s", what, why.text);
}

void check_name_survives(const char *path, const Json &member, const char *what)
{
    Reason why;
    if (!text_survives(member.name, member.name_length, why))
        fault(path, member.name_line, "%.100s: %s", what, why.text);
}

} // namespace tools
