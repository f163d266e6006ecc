/* SPDX-License-Identifier: ISC */
#include "tools/template/checked_file.h"

#include "tools/common/command_line.h"
#include "tools/common/file.h"
#include "tools/common/visible.h"
#include "tools/template/values.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>

namespace {

// A larger file is something else: all of the gateway's flash is not much more.
constexpr size_t kMaxFile = 16 * 1024 * 1024;
constexpr size_t kReadStep = 65536;
constexpr size_t kMaxMessage = 512;

unsigned g_faults;
bool g_trouble;
bool g_output_taken;

// Reads to the end of the file, into a block that starts with a free byte. Null with errno; the
// caller frees.
char *read_stream(FILE *file, size_t &length)
{
    char *block = nullptr;
    length = 0;
    for (size_t room = 0; length == room;) {
        room += kReadStep;
        auto *more = room <= kMaxFile ? static_cast<char *>(realloc(block, 1 + room)) : nullptr;
        if (more == nullptr) {
            free(block);
            errno = room <= kMaxFile ? ENOMEM : EFBIG;
            return nullptr;
        }
        block = more;
        length += fread(block + 1 + length, 1, room - length, file);
    }
    if (ferror(file) == 0)
        return block;
    free(block);
    return nullptr;
}

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

void print_line(FILE *to, const char *path, unsigned line, const char *kind, const char *format,
                va_list arguments)
{
    char message[kMaxMessage];
    vsnprintf(message, sizeof(message), format, arguments);
    tools::print_visible(to, path);
    fprintf(to, ":%u: %s", line, kind);
    tools::print_visible(to, message);
    fputc('\n', to);
}

} // namespace

void tools::CheckedFile::fault(unsigned line, const char *format, ...) const
{
    va_list arguments;
    va_start(arguments, format);
    print_line(stdout, path, line, "", format, arguments);
    va_end(arguments);
    ++g_faults;
}

void tools::CheckedFile::warn(unsigned line, const char *format, ...) const
{
    va_list arguments;
    va_start(arguments, format);
    print_line(g_output_taken ? stderr : stdout, path, line, "warning: ", format, arguments);
    va_end(arguments);
}

bool tools::file_trouble(const char *path, const char *why)
{
    g_trouble = true;
    return complain(path, why);
}

void tools::warn_on_standard_error()
{
    g_output_taken = true;
}

unsigned tools::fault_count()
{
    return g_faults;
}

bool tools::had_file_trouble()
{
    return g_trouble;
}

bool tools::CheckedFile::read(JsonDocument &document) const
{
    const File file(fopen(path, "rb"));
    size_t length;
    char *block = file ? read_stream(file.get(), length) : nullptr;
    if (block == nullptr)
        return file_trouble(path, strerror(errno));
    JsonFault found;
    if (document.parse(block, length, found))
        return true;
    fault(found.line, "not JSON: %s", found.what);
    return false;
}

void tools::CheckedFile::check_names_once(const Json &object) const
{
    Seen seen(*this, object.count());
    for (const Json &member : object) {
        // For the library a name ends at its first zero byte.
        const unsigned first = seen.add(member.name, strlen(member.name), member.name_line);
        if (first != 0)
            fault(member.name_line, "duplicate name \"%.80s\", first in line %u", member.name,
                  first);
    }
}

const char *tools::CheckedFile::take_text(const Json &value, const char *what) const
{
    if (value.text == nullptr)
        fault(value.line, "%.100s is not a string", what);
    else if (value.kind != Json::Kind::Number || number_stays(value.text))
        return value.text;
    else
        fault(value.line, "%.100s: the library changes %.40s, which needs quotes", what,
              value.text);
    return nullptr;
}

bool tools::CheckedFile::take_number(const Json &value, const char *what, int32_t &number) const
{
    int64_t wide;
    if (value.text == nullptr || !parse_decimal(value.text, wide)) {
        fault(value.line, "%.100s is not a whole number", what);
        return false;
    }
    if (wide < INT32_MIN || wide > INT32_MAX) {
        fault(value.line, "%.100s does not fit 32 bits", what);
        return false;
    }
    number = static_cast<int32_t>(wide);
    return true;
}

void tools::CheckedFile::check_survives(const char *text, size_t length, unsigned line,
                                        const char *what) const
{
    Reason why;
    if (!text_survives(text, length, why))
        fault(line, "%.100s: %s", what, why.text);
}

// ---- duplicates ----

tools::Seen::Seen(const CheckedFile &file, size_t count)
{
    while (size_ < count * 2)
        size_ *= 2;
    entries_ = static_cast<Entry *>(calloc(size_, sizeof(Entry)));
    if (entries_ == nullptr)
        file_trouble(file.path, "out of memory");
}

unsigned tools::Seen::note(uint32_t hash, const Entry &entry)
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

unsigned tools::Seen::add(const char *bytes, size_t length, unsigned line)
{
    return note(hash_of(bytes, length), {bytes, length, line});
}

unsigned tools::Seen::add(int32_t number, unsigned line)
{
    static constexpr char kNumber[] = "the bytes of every number";
    return note(hash_of(&number, sizeof(number)), {kNumber, static_cast<uint32_t>(number), line});
}
