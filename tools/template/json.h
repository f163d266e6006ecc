// SPDX-License-Identifier: ISC
// JSON with line numbers.
//
// A tree of what a file says and where. Names that occur twice in an object stay in it twice, and
// control characters in strings are accepted, so that both can be reported. Everything else is as
// strict as JSON is.
#ifndef TOOLS_TEMPLATE_JSON_H
#define TOOLS_TEMPLATE_JSON_H

#include <cstddef>

namespace tools {

struct Json {
    enum class Kind { Null, Truth, Number, String, Array, Object };

    Kind kind;
    unsigned line;
    unsigned name_line;
    const char *text; // a decoded string, or a number as it was written; terminated; else null
    size_t length;    // of the text, which may contain zero bytes
    const char *name; // of an object's member, terminated; else null
    size_t name_length;
    Json *first; // member or element
    Json *next;  // in the same object or array

    // The member of that name; of several the last, as the library takes it. Null when there is
    // none, when it is JSON's null, or when this is not an object.
    const Json *member(const char *wanted) const;
    size_t count() const;

    // Walks members or elements.
    struct Iterator {
        const Json *at;
        const Json &operator*() const { return *at; }
        bool operator!=(const Iterator &other) const { return at != other.at; }
        Iterator &operator++()
        {
            at = at->next;
            return *this;
        }
    };
    Iterator begin() const { return {first}; }
    static Iterator end() { return {nullptr}; }
};

struct JsonFault {
    unsigned line;
    const char *what;
};

// A file's text with its tree, whose strings are in the text.
class JsonDocument {
public:
    JsonDocument() = default;
    ~JsonDocument() { clear(); }
    JsonDocument(const JsonDocument &) = delete;
    JsonDocument &operator=(const JsonDocument &) = delete;

    // Takes a block from malloc(): a free byte, then `length` bytes with one value and white space
    // around it. Returns false with the first fault when the text is not JSON, when memory is
    // short, or beyond 31 nested arrays and objects, where the library stops reading too.
    bool parse(char *block, size_t length, JsonFault &fault);

    const Json *root() const { return root_; } // null until a text was parsed
    void clear();

private:
    char *block_ = nullptr;
    Json *root_ = nullptr;
};

} // namespace tools

#endif
