/* Recursive descent over the bytes of a file; the depth limit bounds the recursion. */
#include "template/json.h"

#include <stdbool.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

enum { DEPTH_MAX = 31 };

struct scanner {
    const char *at;
    const char *end;
    unsigned line;
    unsigned depth;
    struct json_fault *fault;
};

static const char no_memory[] = "out of memory";

static bool scan_value(struct scanner *scanner, struct json *value);

/* Notes the first fault; false, so that callers can return it. */
static bool complain(struct scanner *scanner, const char *what)
{
    if (scanner->fault->what == NULL) {
        scanner->fault->line = scanner->line;
        scanner->fault->what = what;
    }
    return false;
}

/* The byte that comes next; 0 at the end, and for a zero byte, which nothing accepts. */
static char peek(const struct scanner *scanner)
{
    return scanner->at < scanner->end ? *scanner->at : '\0';
}

static bool take(struct scanner *scanner, char expected)
{
    if (peek(scanner) != expected)
        return false;
    scanner->at++;
    return true;
}

static void skip_space(struct scanner *scanner)
{
    for (;; scanner->at++) {
        char next = peek(scanner);

        if (next == '\n')
            scanner->line++;
        else if (next != ' ' && next != '\t' && next != '\r')
            return;
    }
}

/* ---- texts ---- */

/* Puts a character as UTF-8; the room is there, since an escape is longer than what it means. */
static char *put_utf8(char *to, uint32_t code)
{
    if (code < 0x80) {
        *to++ = (char)code;
    } else if (code < 0x800) {
        *to++ = (char)(0xc0 | code >> 6);
        *to++ = (char)(0x80 | (code & 0x3f));
    } else if (code < 0x10000) {
        *to++ = (char)(0xe0 | code >> 12);
        *to++ = (char)(0x80 | (code >> 6 & 0x3f));
        *to++ = (char)(0x80 | (code & 0x3f));
    } else {
        *to++ = (char)(0xf0 | code >> 18);
        *to++ = (char)(0x80 | (code >> 12 & 0x3f));
        *to++ = (char)(0x80 | (code >> 6 & 0x3f));
        *to++ = (char)(0x80 | (code & 0x3f));
    }
    return to;
}

static bool scan_hex4(struct scanner *scanner, uint32_t *code)
{
    int i;

    *code = 0;
    for (i = 0; i < 4; i++, scanner->at++) {
        char next = peek(scanner);

        if (next >= '0' && next <= '9')
            *code = *code << 4 | (uint32_t)(next - '0');
        else if ((next | 0x20) >= 'a' && (next | 0x20) <= 'f')
            *code = *code << 4 | (uint32_t)((next | 0x20) - 'a' + 10);
        else
            return complain(scanner, "\\u needs four hexadecimal digits");
    }
    return true;
}

/* Reads what follows \u. Characters above U+FFFF come as two halves, each an escape; a half alone
 * becomes the replacement character. */
static bool scan_unicode(struct scanner *scanner, char **to)
{
    uint32_t code, low;

    if (!scan_hex4(scanner, &code))
        return false;
    if (code >= 0xd800 && code <= 0xdbff && scanner->end - scanner->at >= 2 &&
        scanner->at[0] == '\\' && scanner->at[1] == 'u') {
        scanner->at += 2;
        if (!scan_hex4(scanner, &low))
            return false;
        if (low >= 0xdc00 && low <= 0xdfff)
            code = 0x10000 + ((code & 0x3ff) << 10) + (low & 0x3ff);
        else
            *to = put_utf8(*to, 0xfffd), code = low;
    }
    if (code >= 0xd800 && code <= 0xdfff)
        code = 0xfffd;
    *to = put_utf8(*to, code);
    return true;
}

static bool scan_escape(struct scanner *scanner, char **to)
{
    static const char letters[] = "\"\\/bfnrt";
    static const char meanings[] = "\"\\/\b\f\n\r\t";
    const char *letter;

    if (take(scanner, 'u'))
        return scan_unicode(scanner, to);
    letter = peek(scanner) == '\0' ? NULL : strchr(letters, peek(scanner));
    if (letter == NULL)
        return complain(scanner, "a backslash in front of nothing that can be escaped");
    scanner->at++;
    *(*to)++ = meanings[letter - letters];
    return true;
}

/* Decodes up to the closing quote. */
static bool scan_characters(struct scanner *scanner, char **to)
{
    while (!take(scanner, '"')) {
        char next = peek(scanner);

        if (next == '\0')
            return complain(scanner,
                            scanner->at == scanner->end ? "a text has no end" : "a zero byte");
        scanner->at++;
        if (next == '\\') {
            if (!scan_escape(scanner, to))
                return false;
            continue;
        }
        if (next == '\n')
            scanner->line++;
        *(*to)++ = next;
    }
    return true;
}

/* Bytes up to the quote that ends a text, or up to the end: decoding never needs more. */
static size_t raw_length(const struct scanner *scanner)
{
    const char *at = scanner->at;

    while (at < scanner->end && *at != '"')
        at += *at == '\\' && at + 1 < scanner->end ? 2 : 1;
    return (size_t)(at - scanner->at);
}

/* Reads a text, whose opening quote comes next, into memory of its own. */
static bool scan_text(struct scanner *scanner, char **text, size_t *length)
{
    char *to;

    if (!take(scanner, '"'))
        return complain(scanner, "a text in double quotes is expected");
    to = *text = malloc(raw_length(scanner) + 1);
    if (to == NULL)
        return complain(scanner, no_memory);
    if (!scan_characters(scanner, &to)) {
        *to = '\0';
        return false;
    }
    *to = '\0';
    *length = (size_t)(to - *text);
    return true;
}

/* ---- numbers and words ---- */

static bool skip_digits(struct scanner *scanner)
{
    const char *start = scanner->at;

    while (peek(scanner) >= '0' && peek(scanner) <= '9')
        scanner->at++;
    return scanner->at != start;
}

static bool skip_number(struct scanner *scanner)
{
    take(scanner, '-');
    if (!take(scanner, '0') && !skip_digits(scanner))
        return false;
    if (take(scanner, '.') && !skip_digits(scanner))
        return false;
    if (!take(scanner, 'e') && !take(scanner, 'E'))
        return true;
    if (!take(scanner, '+'))
        take(scanner, '-');
    return skip_digits(scanner);
}

static bool scan_number(struct scanner *scanner, struct json *value)
{
    const char *start = scanner->at;

    if (!skip_number(scanner))
        return complain(scanner, "a value is expected");
    value->type = JSON_NUMBER;
    value->length = (size_t)(scanner->at - start);
    value->text = malloc(value->length + 1);
    if (value->text == NULL)
        return complain(scanner, no_memory);
    memcpy(value->text, start, value->length);
    value->text[value->length] = '\0';
    return true;
}

static bool take_word(struct scanner *scanner, const char *word)
{
    size_t length = strlen(word);

    if ((size_t)(scanner->end - scanner->at) < length || memcmp(scanner->at, word, length) != 0)
        return false;
    scanner->at += length;
    return true;
}

/* ---- arrays and objects ---- */

static bool scan_member(struct scanner *scanner, struct json *member)
{
    skip_space(scanner);
    member->name_line = scanner->line;
    if (!scan_text(scanner, &member->name, &member->name_length))
        return false;
    skip_space(scanner);
    if (!take(scanner, ':'))
        return complain(scanner, "':' is expected");
    return scan_value(scanner, member);
}

/* Reads what stands between the brackets, and the closing one. */
static bool scan_contents(struct scanner *scanner, struct json *value, char closing)
{
    struct json **tail = &value->first;

    skip_space(scanner);
    if (take(scanner, closing))
        return true;
    if (scanner->depth > DEPTH_MAX)
        return complain(scanner, "nested too deep");
    do {
        *tail = calloc(1, sizeof(**tail));
        if (*tail == NULL)
            return complain(scanner, no_memory);
        if (!(closing == '}' ? scan_member(scanner, *tail) : scan_value(scanner, *tail)))
            return false;
        tail = &(*tail)->next;
        skip_space(scanner);
    } while (take(scanner, ','));
    return take(scanner, closing) ||
           complain(scanner, closing == '}' ? "',' or '}' is expected" : "',' or ']' is expected");
}

static bool scan_nested(struct scanner *scanner, struct json *value, char closing)
{
    bool done;

    scanner->at++;
    scanner->depth++;
    value->type = closing == '}' ? JSON_OBJECT : JSON_ARRAY;
    done = scan_contents(scanner, value, closing);
    scanner->depth--;
    return done;
}

static bool scan_value(struct scanner *scanner, struct json *value)
{
    skip_space(scanner);
    value->line = scanner->line;
    switch (peek(scanner)) {
    case '{':
        return scan_nested(scanner, value, '}');
    case '[':
        return scan_nested(scanner, value, ']');
    case '"':
        value->type = JSON_TEXT;
        return scan_text(scanner, &value->text, &value->length);
    }
    if (take_word(scanner, "null"))
        return true;
    if (take_word(scanner, "true") || take_word(scanner, "false")) {
        value->type = JSON_TRUTH;
        return true;
    }
    return scan_number(scanner, value);
}

struct json *json_parse(const char *bytes, size_t length, struct json_fault *fault)
{
    struct scanner scanner = {bytes, bytes + length, 1, 0, fault};
    struct json *root = calloc(1, sizeof(*root));

    memset(fault, 0, sizeof(*fault));
    if (root == NULL) {
        complain(&scanner, no_memory);
        return NULL;
    }
    if (scan_value(&scanner, root)) {
        skip_space(&scanner);
        if (scanner.at == scanner.end)
            return root;
        complain(&scanner, "something follows the end");
    }
    json_free(root);
    return NULL;
}

void json_free(struct json *value)
{
    while (value != NULL) {
        struct json *next = value->next;

        json_free(value->first);
        free(value->name);
        free(value->text);
        free(value);
        value = next;
    }
}

struct json *json_member(const struct json *object, const char *name)
{
    struct json *found = NULL;
    struct json *member;

    if (object->type != JSON_OBJECT)
        return NULL;
    for (member = object->first; member != NULL; member = member->next)
        if (strcmp(member->name, name) == 0)
            found = member;
    return found != NULL && found->type != JSON_NULL ? found : NULL;
}
