/* A buffer as large as a call can be. It stands in memory that is only touched as far as used. */
#include "call/bytes.h"

#include <string.h>

enum { BYTES_A_LINE = 16 };

bool bytes_add(struct bytes *bytes, const void *data, size_t length)
{
    if (length > BYTES_MAX - bytes->length)
        return false;
    memcpy(bytes->data + bytes->length, data, length);
    bytes->length += length;
    return true;
}

static int digit_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if ((c | 0x20) >= 'a' && (c | 0x20) <= 'f')
        return (c | 0x20) - 'a' + 10;
    return -1;
}

/* Forgets what was added since the buffer had a length. */
static bool take_back(struct bytes *bytes, size_t length)
{
    memset(bytes->data + length, 0, bytes->length - length);
    bytes->length = length;
    return false;
}

bool bytes_add_hex(struct bytes *bytes, const char *text)
{
    size_t before = bytes->length;

    while (*text != '\0') {
        int high = digit_value(text[0]);
        int low = high < 0 ? -1 : digit_value(text[1]);
        uint8_t byte = low < 0 ? 0 : (uint8_t)(high * 16 + low);

        if (strchr(" \t\n:", *text) != NULL) {
            text++;
            continue;
        }
        if (low < 0 || !bytes_add(bytes, &byte, 1))
            return take_back(bytes, before);
        text += 2;
    }
    return true;
}

bool bytes_add_file(struct bytes *bytes, FILE *file)
{
    size_t before = bytes->length;

    bytes->length += fread(bytes->data + before, 1, BYTES_MAX - before, file);
    if (!ferror(file) && (bytes->length < BYTES_MAX || getc(file) == EOF))
        return true;
    return take_back(bytes, before);
}

static void print_line(FILE *to, const uint8_t *data, size_t length)
{
    size_t i;

    for (i = 0; i < BYTES_A_LINE; i++) {
        if (i == BYTES_A_LINE / 2)
            fputc(' ', to);
        if (i < length)
            fprintf(to, " %02x", data[i]);
        else
            fputs("   ", to);
    }
    fputs("  |", to);
    for (i = 0; i < length; i++)
        fputc(data[i] >= 0x20 && data[i] < 0x7f ? data[i] : '.', to);
    fputs("|\n", to);
}

void print_hex(FILE *to, const uint8_t *data, size_t length)
{
    size_t at;

    for (at = 0; at < length; at += BYTES_A_LINE) {
        fprintf(to, "%08zx ", at);
        print_line(to, data + at, length - at < BYTES_A_LINE ? length - at : BYTES_A_LINE);
    }
}
