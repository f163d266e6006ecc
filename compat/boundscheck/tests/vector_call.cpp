/* SPDX-License-Identifier: ISC */
#include "vector_file.h"

#include "vector_call.h"

#include <gtest/gtest.h>
#include <securec.h>

#include <cmath>
#include <functional>

namespace {

struct Destination {
    Entry entry;
    char *dest;
    size_t size;
    const char *format;
};

int print(const Destination *to, ...)
{
    va_list list;
    va_start(list, to);
    int result = vsprintf_s(to->dest, to->size, to->format, list);
    va_end(list);
    return result;
}

template <typename... Arguments>
int print_both(const Destination &to, Arguments... arguments)
{
    if (to.entry == Entry::kEllipsis)
        return sprintf_s(to.dest, to.size, to.format, arguments...);
    return print(&to, arguments...);
}

int scan(const char *input, const char *format, ...)
{
    va_list list;
    va_start(list, format);
    int result = vsscanf_s(input, format, list);
    va_end(list);
    return result;
}

// The values of a call, parsed, and a letter for how each one travels: i as int, w in a word as
// long, size_t and pointers do, q in 64 bits, d and L as floats.
class Arguments {
public:
    explicit Arguments(const std::vector<std::string> &arguments)
    {
        strings_.reserve(arguments.size());
        for (const std::string &argument : arguments) {
            size_t colon = argument.find(':');
            add(argument.substr(0, colon), argument.substr(colon + 1));
        }
    }

    const std::string &signature() const { return signature_; }
    int i(size_t at) const { return static_cast<int>(words_[at]); }
    uintptr_t w(size_t at) const { return static_cast<uintptr_t>(words_[at]); }
    uint64_t q(size_t at) const { return words_[at]; }
    double d(size_t at) const { return static_cast<double>(floats_[at]); }
    long double L(size_t at) const { return floats_[at]; }

private:
    void add(const std::string &type, const std::string &value)
    {
        uint64_t word = 0;
        long double number = 0;
        if (type == "str") {
            word = add_string(value);
            signature_ += 'w';
        } else if (type == "double" || type == "ldouble") {
            number = std::strtold(value.c_str(), nullptr);
            signature_ += type == "double" ? 'd' : 'L';
        } else {
            bool negative = value[0] == '-';
            word = negative ? static_cast<uint64_t>(std::strtoll(value.c_str(), nullptr, 0))
                            : std::strtoull(value.c_str(), nullptr, 0);
            signature_ += letter_of(type);
        }
        words_.push_back(word);
        floats_.push_back(number);
    }

    static char letter_of(const std::string &type)
    {
        if (type == "int" || type == "uint" || type == "char" || type == "wint")
            return 'i';
        bool wide = type == "llong" || type == "ullong" || type == "intmax" || type == "uintmax";
        return wide ? 'q' : 'w';
    }

    uint64_t add_string(const std::string &value)
    {
        std::optional<std::string> text = parse_quoted(value);
        if (!text)
            return 0;
        strings_.push_back(*text);
        return reinterpret_cast<uintptr_t>(strings_.back().c_str());
    }

    std::string signature_;
    std::vector<std::string> strings_;
    std::vector<uint64_t> words_;
    std::vector<long double> floats_;
};

using Call = std::function<int(const Destination &, const Arguments &)>;

const std::map<std::string, Call> &calls()
{
    static const std::map<std::string, Call> kCalls = {
        {"", [](auto &to, auto &) { return print_both(to); }},
        {"i", [](auto &to, auto &a) { return print_both(to, a.i(0)); }},
        {"w", [](auto &to, auto &a) { return print_both(to, a.w(0)); }},
        {"q", [](auto &to, auto &a) { return print_both(to, a.q(0)); }},
        {"d", [](auto &to, auto &a) { return print_both(to, a.d(0)); }},
        {"L", [](auto &to, auto &a) { return print_both(to, a.L(0)); }},
        {"ii", [](auto &to, auto &a) { return print_both(to, a.i(0), a.i(1)); }},
        {"iw", [](auto &to, auto &a) { return print_both(to, a.i(0), a.w(1)); }},
        {"iii", [](auto &to, auto &a) { return print_both(to, a.i(0), a.i(1), a.i(2)); }},
        {"iid", [](auto &to, auto &a) { return print_both(to, a.i(0), a.i(1), a.d(2)); }},
        {"wid", [](auto &to, auto &a) { return print_both(to, a.w(0), a.i(1), a.d(2)); }},
        {"wiii", [](auto &to, auto &a) { return print_both(to, a.w(0), a.i(1), a.i(2), a.i(3)); }},
        {"iiii", [](auto &to, auto &a) { return print_both(to, a.i(0), a.i(1), a.i(2), a.i(3)); }},
        {"iwiw", [](auto &to, auto &a) { return print_both(to, a.i(0), a.w(1), a.i(2), a.w(3)); }},
        {"iiiiii",
         [](auto &to, auto &a) {
             return print_both(to, a.i(0), a.i(1), a.i(2), a.i(3), a.i(4), a.i(5));
         }},
    };
    return kCalls;
}

} // namespace

int call_print(Entry entry, char *dest, size_t size, const char *format,
               const std::vector<std::string> &arguments)
{
    Arguments parsed(arguments);
    auto call = calls().find(parsed.signature());
    if (call == calls().end()) {
        ADD_FAILURE() << "no call for the argument types " << parsed.signature();
        return 0;
    }
    return call->second(Destination{entry, dest, size, format}, parsed);
}

int call_scan(Entry entry, const char *input, const char *format,
              const std::vector<uintptr_t> &words)
{
    std::vector<uintptr_t> six = words;
    six.resize(6, 0);
    if (entry == Entry::kEllipsis)
        return sscanf_s(input, format, six[0], six[1], six[2], six[3], six[4], six[5]);
    return scan(input, format, six[0], six[1], six[2], six[3], six[4], six[5]);
}
