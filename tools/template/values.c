/* What the database stores of a value without complaint is not always what was meant; this is
 * stricter: a text fits when it comes back out as the same value. */
#include "template/values.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const struct value_type types[] = {
    {"string", VALUE_STRING, 0, 0, 0, "char"},
    {"char", VALUE_NUMBER, 1, INT8_MIN, INT8_MAX, "int8_t"},
    {"uchar", VALUE_NUMBER, 1, 0, UINT8_MAX, "uint8_t"},
    {"short", VALUE_NUMBER, 2, INT16_MIN, INT16_MAX, "int16_t"},
    {"ushort", VALUE_NUMBER, 2, 0, UINT16_MAX, "uint16_t"},
    {"int", VALUE_NUMBER, 4, INT32_MIN, INT32_MAX, "int32_t"},
    {"uint", VALUE_NUMBER, 4, 0, UINT32_MAX, "uint32_t"},
    {"mac", VALUE_MAC, 6, 0, 0, "uint8_t"},
    {"ip", VALUE_IP, 4, 0, 0, "uint8_t"},
};

const struct value_type *value_type_find(const char *name)
{
    size_t i;

    for (i = 0; i < sizeof(types) / sizeof(types[0]); i++)
        if (strcmp(types[i].name, name) == 0)
            return &types[i];
    return NULL;
}

bool value_number(const char *text, int64_t *number)
{
    bool negative = *text == '-';
    const char *at = text + (*text == '-' || *text == '+');

    *number = 0;
    if (*at == '\0')
        return false;
    for (; *at >= '0' && *at <= '9'; at++) {
        if (*number > (INT64_MAX - 9) / 10)
            return false;
        *number = *number * 10 + (*at - '0');
    }
    if (negative)
        *number = -*number;
    return *at == '\0';
}

static bool number_fits(const struct value_type *type, const char *text, char why[WHY_SIZE])
{
    int64_t number;

    if (!value_number(text, &number)) {
        snprintf(why, WHY_SIZE, "'%.40s' is not a number", text);
        return false;
    }
    if (number >= type->lowest && number <= type->highest)
        return true;
    snprintf(why, WHY_SIZE, "%.40s does not fit type %s (%" PRId64 " to %" PRId64 ")", text,
             type->name, type->lowest, type->highest);
    return false;
}

static bool string_fits(int32_t len, const char *text, char why[WHY_SIZE])
{
    size_t length = strlen(text);

    if (len > 0 && length < (size_t)len)
        return true;
    snprintf(why, WHY_SIZE,
             "text of %zu byte%s is too long for len %" PRId32
             ", which counts the zero byte at its end",
             length, length == 1 ? "" : "s", len);
    return false;
}

/* Six groups of one or two hexadecimal digits. */
static bool mac_fits(const char *text, char why[WHY_SIZE])
{
    const char *at = text;
    int group;

    for (group = 0; group < 6; group++) {
        int digits = 0;

        while (digits < 2 && isxdigit((unsigned char)*at))
            at++, digits++;
        if (digits == 0 || *at != (group < 5 ? ':' : '\0')) {
            snprintf(why, WHY_SIZE, "'%.40s' is no MAC address", text);
            return false;
        }
        at++;
    }
    return true;
}

static bool ip_fits(const char *text, char why[WHY_SIZE])
{
    struct in_addr address;

    if (inet_pton(AF_INET, text, &address) == 1)
        return true;
    snprintf(why, WHY_SIZE, "'%.40s' is no IPv4 address", text);
    return false;
}

bool value_fits(const struct value_type *type, int32_t len, const char *text, char why[WHY_SIZE])
{
    switch (type->kind) {
    case VALUE_STRING:
        return string_fits(len, text, why);
    case VALUE_NUMBER:
        return number_fits(type, text, why);
    case VALUE_MAC:
        return mac_fits(text, why);
    case VALUE_IP:
        return ip_fits(text, why);
    }
    return false;
}

bool text_survives(const char *text, size_t length, char why[WHY_SIZE])
{
    size_t i;

    for (i = 0; i < length; i++) {
        unsigned char byte = (unsigned char)text[i];
        const char *what = byte == '"'    ? "a double quote"
                           : byte == '\\' ? "a backslash"
                           : byte < 0x20  ? "a control character"
                                          : NULL;

        if (what != NULL) {
            snprintf(why, WHY_SIZE, "%s in it does not survive a rewrite of the data file", what);
            return false;
        }
    }
    if (length <= FIELD_MAX)
        return true;
    snprintf(why, WHY_SIZE, "its %zu bytes are more than %d", length, FIELD_MAX);
    return false;
}
