// SPDX-License-Identifier: ISC
// Recursive descent over the bytes of a file; the depth limit bounds the recursion. Strings are
// decoded where they are: an escape is longer than what it means, and the closing quote makes room
// for the NUL. A number moves one byte forward for its NUL, over the bracket, comma, colon or space
// that comes before it.

#include "tools/template/json.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

using tools::Json;
using tools::JsonFault;

constexpr unsigned kMaxDepth = 31;
constexpr char kNoMemory[] = "out of memory";

// Puts a character as UTF-8.
char *put_utf8(char *to, uint32_t code)
{
    if (code < 0x80) {
        *to++ = static_cast<char>(code);
        return to;
    }
    const int more = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
    const uint32_t mark = 0xff00U >> (more + 1) & 0xff;
    *to++ = static_cast<char>(mark | code >> 6 * more);
    for (int i = more - 1; i >= 0; --i)
        *to++ = static_cast<char>(0x80 | (code >> 6 * i & 0x3f));
    return to;
}

class Scanner {
public:
    Scanner(char *bytes, size_t length, JsonFault &fault)
        : at_(bytes), end_(bytes + length), fault_(fault)
    {
        fault_ = {};
    }

    bool scan_whole(Json &root)
    {
        if (!scan_value(root))
            return false;
        skip_space();
        return at_ == end_ || complain("something follows the end");
    }

private:
    // Notes the first fault. Returns false, so that callers can return that.
    bool complain(const char *what)
    {
        if (fault_.what == nullptr)
            fault_ = {line_, what};
        return false;
    }

    // Returns the next byte; 0 at the end, and for a zero byte, which nothing accepts.
    char peek() const { return at_ < end_ ? *at_ : '\0'; }

    bool take(char expected)
    {
        const bool taken = peek() == expected;
        at_ += taken ? 1 : 0;
        return taken;
    }

    bool take_word(const char *word)
    {
        const size_t length = strlen(word);
        const bool taken =
            static_cast<size_t>(end_ - at_) >= length && memcmp(at_, word, length) == 0;
        at_ += taken ? length : 0;
        return taken;
    }

    void skip_space()
    {
        for (;; ++at_) {
            const char next = peek();
            if (next == '\n')
                ++line_;
            else if (next != ' ' && next != '\t' && next != '\r')
                return;
        }
    }

    // ---- strings ----

    bool scan_hex4(uint32_t &code)
    {
        code = 0;
        for (int i = 0; i < 4; ++i, ++at_) {
            const char next = peek();
            const int lower = next | 0x20;
            if (next >= '0' && next <= '9')
                code = code << 4 | static_cast<uint32_t>(next - '0');
            else if (lower >= 'a' && lower <= 'f')
                code = code << 4 | static_cast<uint32_t>(lower - 'a' + 10);
            else
                return complain("\\u needs four hexadecimal digits");
        }
        return true;
    }

    // Reads what follows \u. Characters above U+FFFF come as two halves, each an escape; half of
    // one becomes the replacement character.
    bool scan_unicode(char *&to)
    {
        uint32_t code;
        if (!scan_hex4(code))
            return false;
        if (code >= 0xd800 && code <= 0xdbff && take_word("\\u")) {
            uint32_t low;
            if (!scan_hex4(low))
                return false;
            if (low >= 0xdc00 && low <= 0xdfff) {
                code = 0x10000 + ((code & 0x3ff) << 10) + (low & 0x3ff);
            } else {
                to = put_utf8(to, 0xfffd);
                code = low;
            }
        }
        to = put_utf8(to, code >= 0xd800 && code <= 0xdfff ? 0xfffd : code);
        return true;
    }

    bool scan_escape(char *&to)
    {
        static constexpr char kLetters[] = "\"\\/bfnrt";
        static constexpr char kMeanings[] = "\"\\/\b\f\n\r\t";
        if (take('u'))
            return scan_unicode(to);
        const char *letter = peek() == '\0' ? nullptr : strchr(kLetters, peek());
        if (letter == nullptr)
            return complain("a backslash before something that cannot be escaped");
        ++at_;
        *to++ = kMeanings[letter - kLetters];
        return true;
    }

    // Decodes up to the closing quote.
    bool scan_characters(char *&to)
    {
        while (!take('"')) {
            const char next = peek();
            if (next == '\0')
                return complain(at_ == end_ ? "a string has no end" : "a zero byte");
            ++at_;
            line_ += next == '\n' ? 1 : 0;
            if (next != '\\')
                *to++ = next;
            else if (!scan_escape(to))
                return false;
        }
        return true;
    }

    bool scan_string(const char *&text, size_t &length)
    {
        if (!take('"'))
            return complain("a string in double quotes is expected");
        char *const start = at_;
        char *to = start;
        if (!scan_characters(to))
            return false;
        *to = '\0';
        text = start;
        length = static_cast<size_t>(to - start);
        return true;
    }

    // ---- numbers ----

    bool skip_digits()
    {
        const char *start = at_;
        while (peek() >= '0' && peek() <= '9')
            ++at_;
        return at_ != start;
    }

    bool skip_number()
    {
        take('-');
        if (!take('0') && !skip_digits())
            return false;
        if (take('.') && !skip_digits())
            return false;
        if (!take('e') && !take('E'))
            return true;
        if (!take('+'))
            take('-');
        return skip_digits();
    }

    bool scan_number(Json &value)
    {
        char *const start = at_;
        if (!skip_number())
            return complain("a value is expected");
        value.kind = Json::Kind::Number;
        value.length = static_cast<size_t>(at_ - start);
        memmove(start - 1, start, value.length);
        at_[-1] = '\0';
        value.text = start - 1;
        return true;
    }

    // ---- arrays and objects ----

    bool scan_member(Json &member)
    {
        skip_space();
        member.name_line = line_;
        if (!scan_string(member.name, member.name_length))
            return false;
        skip_space();
        return take(':') ? scan_value(member) : complain("':' is expected");
    }

    // Reads up to and including the closing bracket.
    bool scan_contents(Json &value, char closing)
    {
        skip_space();
        if (take(closing))
            return true;
        if (depth_ > kMaxDepth)
            return complain("nested too deep");
        Json **tail = &value.first;
        do {
            auto *child = static_cast<Json *>(calloc(1, sizeof(Json)));
            if (child == nullptr)
                return complain(kNoMemory);
            *tail = child;
            tail = &child->next;
            if (!(closing == '}' ? scan_member(*child) : scan_value(*child)))
                return false;
            skip_space();
        } while (take(','));
        return take(closing) ||
               complain(closing == '}' ? "',' or '}' is expected" : "',' or ']' is expected");
    }

    bool scan_nested(Json &value, Json::Kind kind, char closing)
    {
        ++at_;
        ++depth_;
        value.kind = kind;
        const bool done = scan_contents(value, closing);
        --depth_;
        return done;
    }

    bool scan_value(Json &value)
    {
        skip_space();
        value.line = line_;
        switch (peek()) {
        case '{':
            return scan_nested(value, Json::Kind::Object, '}');
        case '[':
            return scan_nested(value, Json::Kind::Array, ']');
        case '"':
            value.kind = Json::Kind::String;
            return scan_string(value.text, value.length);
        default:
            break;
        }
        if (take_word("null"))
            return true;
        if (!take_word("true") && !take_word("false"))
            return scan_number(value);
        value.kind = Json::Kind::Truth;
        return true;
    }

    char *at_;
    char *const end_;
    unsigned line_ = 1;
    unsigned depth_ = 0;
    JsonFault &fault_;
};

void release(Json *value)
{
    while (value != nullptr) {
        Json *next = value->next;
        release(value->first);
        free(value);
        value = next;
    }
}

} // namespace

bool tools::JsonDocument::parse(char *block, size_t length, JsonFault &fault)
{
    clear();
    block_ = block;
    Scanner scanner(block + 1, length, fault);
    root_ = static_cast<Json *>(calloc(1, sizeof(Json)));
    if (root_ == nullptr)
        fault = {1, kNoMemory};
    else if (scanner.scan_whole(*root_))
        return true;
    clear();
    return false;
}

void tools::JsonDocument::clear()
{
    release(root_);
    free(block_);
    root_ = nullptr;
    block_ = nullptr;
}

const Json *tools::Json::member(const char *wanted) const
{
    if (kind != Kind::Object)
        return nullptr;
    const Json *found = nullptr;
    for (const Json &child : *this)
        if (strcmp(child.name, wanted) == 0)
            found = &child;
    return found != nullptr && found->kind != Kind::Null ? found : nullptr;
}

size_t tools::Json::count() const
{
    size_t children = 0;
    for (const Json *child = first; child != nullptr; child = child->next)
        ++children;
    return children;
}
