// SPDX-License-Identifier: ISC
// Numbers, and lists of them as people write them: 0,2-4,7
#ifndef TOOLS_COMMON_NUMBERS_H
#define TOOLS_COMMON_NUMBERS_H

namespace tools {

// Reads a whole decimal number up to `highest`. False when the text is anything else.
bool parse_number(const char *text, unsigned highest, unsigned &number);

class NumberList {
public:
    // Adds what a text lists. False when it is not a list of numbers up to `highest`, or too long.
    bool add(const char *text, unsigned highest);

    // The empty list restricts nothing: it matches every number.
    bool matches(unsigned number) const;
    bool is_empty() const { return count_ == 0; }

private:
    struct Range {
        unsigned first, last; // both included
    };
    static constexpr unsigned kMaxRanges = 32;

    Range ranges_[kMaxRanges] = {};
    unsigned count_ = 0;
};

} // namespace tools

#endif
