// The library ignores a key that it does not know, so one with a typing mistake is only missed when
// it is needed. Keys of one's own are fine: this is a warning, not a fault.

#include "tools/template/keys.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace {

using tools::Json;

constexpr size_t kLongestKey = 16;

// The typing mistakes that make one word of another: letters left out, added, replaced, or two
// neighbours exchanged. Case does not count. Both words have at most kLongestKey letters.
size_t mistakes_between(const char *one, const char *other)
{
    size_t steps[kLongestKey + 1][kLongestKey + 1];
    const size_t rows = strlen(one);
    const size_t columns = strlen(other);
    const auto same = [&](size_t row, size_t column) {
        return tolower(static_cast<unsigned char>(one[row - 1])) ==
               tolower(static_cast<unsigned char>(other[column - 1]));
    };
    for (size_t row = 0; row <= rows; ++row) {
        for (size_t column = 0; column <= columns; ++column) {
            size_t &least = steps[row][column];
            if (row == 0 || column == 0) {
                least = row + column;
                continue;
            }
            least = std::min({steps[row - 1][column] + 1, steps[row][column - 1] + 1,
                              steps[row - 1][column - 1] + (same(row, column) ? 0 : 1)});
            if (row > 1 && column > 1 && same(row, column - 1) && same(row - 1, column))
                least = std::min(least, steps[row - 2][column - 2] + 1);
        }
    }
    return steps[rows][columns];
}

// Whether a name is likely meant to be a key: it has few mistakes, or one is the start of the
// other.
bool is_close(const char *name, const char *key)
{
    const size_t length = strlen(name);
    const size_t shorter = std::min(length, strlen(key));
    if (shorter >= 3 && strncasecmp(name, key, shorter) == 0)
        return true;
    return length <= kLongestKey && mistakes_between(name, key) <= (strlen(key) > 4 ? 2 : 1);
}

// The key that a name is likely meant to be, if the object lacks it.
const char *meant(const char *name, const Json &object, const char *const *known, size_t count)
{
    for (const char *const *key = known; key < known + count; ++key)
        if (object.member(*key) == nullptr && is_close(name, *key))
            return *key;
    return nullptr;
}

} // namespace

void tools::check_keys(const CheckedFile &file, const Json &object, const char *const *known,
                       size_t count)
{
    for (const Json &member : object) {
        const auto is_name = [&](const char *key) { return strcmp(key, member.name) == 0; };
        if (std::any_of(known, known + count, is_name))
            continue;
        const char *key = meant(member.name, object, known, count);
        if (key != nullptr)
            file.warn(member.name_line, "unknown key \"%.80s\", did you mean \"%s\"?", member.name,
                      key);
        else
            file.warn(member.name_line, "unknown key \"%.80s\" is ignored", member.name);
    }
}
