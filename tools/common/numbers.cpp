/* SPDX-License-Identifier: ISC */
#include "tools/common/numbers.h"

namespace {

// Reads digits and returns where they end; null when there are none or the number is too big.
const char *read_number(const char *text, unsigned highest, unsigned &number)
{
    const char *at = text;
    for (number = 0; *at >= '0' && *at <= '9'; ++at) {
        number = number * 10 + static_cast<unsigned>(*at - '0');
        if (number > highest)
            return nullptr;
    }
    return at == text ? nullptr : at;
}

} // namespace

bool tools::parse_number(const char *text, unsigned highest, unsigned &number)
{
    const char *end = read_number(text, highest, number);
    return end != nullptr && *end == '\0';
}

bool tools::NumberList::add(const char *text, unsigned highest)
{
    for (const char *at = text;; ++at) {
        Range range;
        at = read_number(at, highest, range.first);
        range.last = range.first;
        if (at != nullptr && *at == '-')
            at = read_number(at + 1, highest, range.last);
        if (at == nullptr || range.last < range.first || count_ == kMaxRanges)
            return false;
        ranges_[count_++] = range;
        if (*at != ',')
            return *at == '\0';
    }
}

bool tools::NumberList::matches(unsigned number) const
{
    for (unsigned i = 0; i < count_; ++i)
        if (number >= ranges_[i].first && number <= ranges_[i].last)
            return true;
    return is_empty();
}
