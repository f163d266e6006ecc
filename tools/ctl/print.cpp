/* SPDX-License-Identifier: ISC */
#include "tools/common/visible.h"
#include "tools/ctl/ctl.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr size_t kMaxColumns = 24;
constexpr int kWidest = 20; // a longer value moves the rest of its own row only
constexpr const char *kGap = "  ";

bool has_colours()
{
    static int known = -1;
    if (known < 0) {
        const char *no_color = getenv("NO_COLOR");
        const char *terminal = getenv("TERM");
        known = isatty(STDOUT_FILENO) != 0 && (no_color == nullptr || *no_color == '\0') &&
                terminal != nullptr && strcmp(terminal, "dumb") != 0;
    }
    return known != 0;
}

// What switches the terminal to a style; "" where there are no colours.
const char *start_of(tools::Style style)
{
    if (style == tools::Style::Plain || !has_colours())
        return "";
    return style == tools::Style::Bold ? "\033[1m" : "\033[2m";
}

const char *end_of(const char *start)
{
    return *start != '\0' ? "\033[0m" : "";
}

// The text as print_visible() prints it.
json_object *visible_text(const char *text)
{
    char *bytes = nullptr;
    size_t length = 0;
    FILE *memory = open_memstream(&bytes, &length);
    if (memory == nullptr)
        return nullptr;
    tools::print_visible(memory, text);
    fclose(memory);
    json_object *visible = json_object_new_string(bytes);
    free(bytes);
    return visible;
}

// Data files have tabs, and no escaped slashes.
const char *json_text(json_object *value)
{
    return json_object_to_json_string_ext(value, JSON_C_TO_STRING_PRETTY |
                                                     JSON_C_TO_STRING_PRETTY_TAB |
                                                     JSON_C_TO_STRING_NOSLASHESCAPE);
}

// Characters of UTF-8.
int width_of(const char *text)
{
    int width = 0;
    for (; *text != '\0'; ++text)
        width += (*text & 0xc0) != 0x80 ? 1 : 0;
    return width;
}

} // namespace

void tools::print_line(Style style, const char *format, ...)
{
    char *text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length < 0)
        return;
    fputs(start_of(style), stdout);
    print_visible(stdout, text);
    puts(end_of(start_of(style)));
    free(text);
}

void tools::Table::start_row(Style style)
{
    json_object *row = json_object_new_array();
    append(row, json_object_new_string(start_of(style)));
    append(rows_, row);
}

void tools::Table::cell(const char *text)
{
    append(element(rows_, count_of(rows_) - 1), visible_text(text));
}

void tools::Table::row(Style style, ...)
{
    start_row(style);
    va_list cells;
    va_start(cells, style);
    while (const char *text = va_arg(cells, const char *))
        cell(text);
    va_end(cells);
}

void tools::Table::print()
{
    int widths[kMaxColumns] = {};
    for (size_t i = 0; i < count_of(rows_); ++i) {
        json_object *row = element(rows_, i);
        for (size_t k = 1; k < count_of(row) && k < kMaxColumns; ++k) {
            const int width = width_of(text_of(element(row, k)));
            if (width > widths[k] && (k == 1 || width <= kWidest))
                widths[k] = width;
        }
    }
    for (size_t i = 0; i < count_of(rows_); ++i) {
        json_object *row = element(rows_, i);
        const char *start = text_of(element(row, 0));
        size_t last = count_of(row) - 1; // empty cells at the end leave no blanks
        while (last > 0 && *text_of(element(row, last)) == '\0')
            --last;
        printf("%*s%s", indent_, "", start);
        for (size_t k = 1; k <= last; ++k) {
            const char *text = text_of(element(row, k));
            const int missing = k < kMaxColumns ? widths[k] - width_of(text) : 0;
            fputs(text, stdout);
            if (k < last)
                printf("%*s%s", missing > 0 ? missing : 0, "", kGap);
        }
        puts(end_of(start));
    }
}

void tools::print_json(json_object *value)
{
    print_visible_json(stdout, json_text(value));
    puts("");
}

bool tools::write_json(json_object *value, FILE *to)
{
    fprintf(to, "%s\n", json_text(value));
    return fflush(to) == 0 && ferror(to) == 0;
}

bool tools::has_services(json_object *services)
{
    if (has_members(services))
        return true;
    if (!g_failed)
        puts("No service with families is running.");
    return false;
}

int tools::done()
{
    if (g_options.json)
        puts("{}");
    return 0;
}
