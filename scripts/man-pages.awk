# SPDX-License-Identifier: ISC
# Writes the man pages of section 3 from the comments in the public headers: a page for each header,
# and for each @name section of a header that has some. Prints each function and variable with its
# page. scripts/man-pages runs it, after roff.awk, with the variables folder, version and date
# (YYYY-MM-DD).
#
# It knows the Doxygen commands and the forms of declarations that the headers use, and fails at any
# other, so that nothing is left out without notice.

function fail(what)
{
    print FILENAME ":" FNR ": " what > "/dev/stderr"
    failed = 1
    exit 1
}

# ---- reading ----

function new_page(name, title, text)
{
    pages[++page_count] = name
    page_header[name] = header
    page_title[name] = title
    page_text[name] = text
    page = name
}

# The page of a section: bv_os_console for "Console and record file".
function section_page(title)
{
    sub(/,.*| and .*/, "", title)
    gsub(/ /, "_", title)
    return "bv_" header "_" tolower(title)
}

# kind: type, variable, macro or function.
function new_item(kind, name, declaration)
{
    items[++item_count] = name
    item_kind[item_count] = kind
    item_page[item_count] = page
    item_declaration[item_count] = declaration
    item_text[item_count] = comment
    if (kind == "function" || kind == "variable")
        page_of[name] = page
    comment = ""
}

# A comment is complete: the file's, the beginning or end of a section, or the next declaration's.
function end_comment(    title)
{
    if (comment ~ /@file/) {
        sub(/@file [^\n]*\n/, "", comment)
        header_text[header] = comment
        new_page("bv_" header, "", comment)
    } else if (comment ~ /@name/) {
        match(comment, /@name [^\n]*/)
        title = substr(comment, RSTART + 6, RLENGTH - 6)
        sub(/@name [^\n]*\n/, "", comment)
        sub(/@\{/, "", comment)
        new_page(section_page(title), title, comment)
        is_split[header] = 1
    } else if (comment ~ /@\}/) {
        page = "bv_" header
    } else {
        return
    }
    comment = ""
}

FNR == 1 {
    if (comment != "")
        fail("a comment of " header ".h without a declaration")
    header = FILENAME
    gsub(/.*\/|\.h$/, "", header)
    comment = declaration = reading = ""
}

header == "bv" { next } # libbv(3) describes it

reading == "comment" || /^\/\*\*/ {
    if (reading != "comment" && comment != "")
        fail("the comment before this one has no declaration")
    line = $0
    ends = sub(/ *\*\/$/, "", line)
    if (reading == "comment")
        sub(/^ \* ?/, "", line)
    else
        sub(/^\/\*\* ?/, "", line)
    comment = comment line "\n"
    reading = ends ? "" : "comment"
    if (ends)
        end_comment()
    next
}

reading == "remark" || /^\/\*/ {
    reading = /\*\/ *$/ ? "" : "remark"
    next
}

/^#define/ {
    line = $0
    if (match(line, /\/\*\*< .* \*\/$/)) {
        comment = substr(line, RSTART + 5, RLENGTH - 8)
        line = substr(line, 1, RSTART - 1)
    }
    if (comment != "") {
        sub(/^#define /, "", line)
        sub(/ +\\?$/, "", line)
        match(line, /^[A-Z_]+/)
        name = substr(line, 1, RLENGTH)
        if (comment ~ /@param/)
            sub(/\).*/, ")", line)
        else if (line ~ /__attribute__/)
            line = name
        new_item("macro", name, line)
    }
    next
}

reading == "body" { # of an inline function
    if (/^\}/)
        reading = ""
    next
}

reading == "declaration" || /^(typedef|BV_API|extern BV_API|static inline) / {
    declaration = (reading == "declaration" ? declaration " " : "") $0
    reading = "declaration"
    if (declaration ~ /^typedef struct/ ? !/^\}/ : declaration ~ /^static/ ? !/^\{/ : !/;/)
        next
    reading = declaration ~ /^static/ ? "body" : ""
    gsub(/ +| \{$/, " ", declaration)
    if (comment == "")
        fail("no comment: " declaration)
    if (declaration ~ /^typedef/) {
        line = declaration
        if (declaration ~ /^typedef struct/)
            gsub(/.*\} |;/, "", line)
        new_item("type", line, declaration)
        next
    }
    kind = declaration ~ /^extern/ ? "variable" : "function"
    gsub(/extern |BV_API |static inline | $|;$| ?BV_PRINTF\([0-9, ]*\)/, "", declaration)
    if (!match(declaration, kind == "variable" ? "[a-z0-9_]+$" : "[a-z0-9_]+[(]"))
        fail("no name: " declaration)
    name = substr(declaration, RSTART, RLENGTH)
    sub(/\($/, "", name)
    new_item(kind, name, declaration)
}

# ---- text ----

# A word: function names are bold, and a minus is not a hyphen. Remembers the pages that are meant.
function marked(word,    before, name)
{
    if (match(word, /[a-z0-9_]+\(\)/)) {
        before = substr(word, 1, RSTART - 1)
        name = substr(word, RSTART, RLENGTH - 2)
        if (name in page_of)
            mentioned[page_of[name]] = 1
        return before "\\fB" name "\\fP" substr(word, RSTART + RLENGTH - 2)
    }
    if (word ~ /BV_ERR_/)
        mentioned["bv_status"] = 1
    if (word ~ /^[("]*-([0-9A-Za-z]|$)/)
        sub(/-/, "\\-", word)
    return word
}

function capital(text)
{
    return toupper(substr(text, 1, 1)) substr(text, 2)
}

# ---- a comment as blocks of text and lists ----

# What was collected for the block that ends: the text of a paragraph, or the last item's.
function end_text()
{
    if (block == "list") {
        if (collected != "")
            entry[entries] = collected
    } else if (collected != "") {
        if (block == "return") {
            collected = (after_results ? capital(collected) : "Result: " collected) (collected ~ /[.:]$/ ? "" : ".")
            before_results = 1
        }
        if (something)
            put(".Pp")
        put_text(collected)
        something = 1
    }
    collected = ""
}

function end_list(    i, width)
{
    end_text()
    block = ""
    if (entries == 0)
        return
    if (something)
        put(".Pp")
    if (list == "retval" && !before_results)
        put("Results:")
    after_results = list == "retval"
    width = ""
    for (i = 1; i <= entries; ++i)
        if (length(tag[i]) > length(width))
            width = tag[i]
    put(list == "bullet" ? ".Bl -bullet -compact" : ".Bl -tag -width \"" width "\" -compact")
    for (i = 1; i <= entries; ++i) {
        name = tag[i]
        gsub(/,/, "", name) # the macro puts it back
        put(list == "bullet" ? ".It" : ".It " (list == "param" ? "Fa " : name ~ /^BV_/ ? "Dv " : "Li ") name)
        put_text(entry[i])
    }
    put(".El")
    something = 1
    entries = 0
}

function new_entry(kind, name, text)
{
    end_text()
    if (list != kind)
        end_list()
    list = kind
    block = "list"
    tag[++entries] = name
    collected = text
}

# Prints a comment. With `begun` there is text before it, from which a paragraph is set off.
function put_comment(text, begun,    count, i, line, lines, display, last)
{
    gsub(/ +@param /, "\n@param ", text)
    gsub(/ +@return /, "\n@return ", text)
    count = split(text, lines, "\n")
    something = begun
    collected = block = list = last = ""
    entries = before_results = after_results = display = 0
    for (i = 1; i <= count; ++i) {
        line = lines[i]
        if (display && (line ~ /^@endcode/ || (display == 1 && line !~ /^(    |\|)/))) {
            put(".Ed")
            something = 1
            display = 0
            if (line ~ /^@/)
                continue
        }
        if (!display && (line ~ /^@code/ || (block == "" && line ~ /^(    |\|)/))) {
            end_list()
            put(".Bd -literal -offset indent")
            display = line ~ /^@code/ ? 2 : 1
            if (display == 2)
                continue
        }
        if (display) {
            gsub(/^    |^\| ?| ?\|$/, "", line)
            put(literal(line))
        } else if (line ~ /^ *$/) {
            if (list != "bullet" || lines[i + 1] !~ /^ ?- /)
                end_list()
        } else if (match(line, /^@param [a-z0-9_, ]*  /)) {
            name = substr(line, 8, RLENGTH - 7)
            sub(/ +$/, "", name)
            new_entry("param", name, substr(line, RLENGTH + 1))
        } else if (match(line, /^@retval [^ ]+ +/)) {
            name = substr(line, 9, RLENGTH - 8)
            sub(/ +$/, "", name)
            new_entry("retval", name, substr(line, RLENGTH + 1))
        } else if (line ~ /^@return /) {
            end_list()
            block = "return"
            collected = substr(line, 9)
        } else if (line ~ /^ ?- / && (list == "bullet" || last ~ /^ *$|:$/)) {
            new_entry("bullet", "", substr(line, index(line, "-") + 2))
        } else if (line ~ /^@/) {
            print "man-pages: unknown: " line > "/dev/stderr"
            failed = 1
        } else {
            if (block == "")
                block = "paragraph"
            collected = collected " " line
        }
        last = line
    }
    end_list()
}

# ---- declarations ----

# Prints a function's declaration as macros; `joint` goes between the type and the name.
function put_prototype(declaration, joint,    before, arguments, depth, i, c, argument)
{
    match(declaration, /[a-z0-9_]+\(/)
    before = substr(declaration, 1, RSTART - 1)
    if (before ~ /\(/) { # it returns a pointer to a function, for which there are no macros
        put(".Vt \"" declaration "\"")
        return
    }
    arguments = substr(declaration, RSTART + RLENGTH)
    sub(/ +$/, "", before)
    put(".Ft \"" before "\"" (before ~ /\*$/ ? joint : ""))
    put(".Fo " substr(declaration, RSTART, RLENGTH - 1))
    depth = 0
    argument = ""
    for (i = 1; i <= length(arguments); ++i) {
        c = substr(arguments, i, 1)
        if (depth == 0 && (c == "," || c == ")")) {
            sub(/^ /, "", argument)
            put(".Fa \"" argument "\"")
            argument = ""
        } else {
            depth += (c == "(") - (c == ")")
            argument = argument c
        }
    }
    put(".Fc")
}

# Prints a structure's members with their comments.
function put_members(declaration,    count, i, members, member, about)
{
    sub(/[^{]*\{ /, "", declaration)
    sub(/ ?\}[^}]*$/, "", declaration)
    count = split(declaration, members, / ?\*\/ ?/)
    put(".Pp")
    put(".Bl -tag -width Ds -compact")
    for (i = 1; i <= count; ++i) {
        if (members[i] ~ /^ *$/)
            continue
        if (!match(members[i], /; \/\*\*< /)) {
            print "man-pages: member without a comment: " members[i] > "/dev/stderr"
            failed = 1
        }
        member = substr(members[i], 1, RSTART - 1)
        about = substr(members[i], RSTART + RLENGTH)
        put(".It Vt \"" member "\"")
        put_text(about)
    }
    put(".El")
}

# ---- pages ----

# The first sentence of a header's comment, for one line; of a long one what is before its colon.
function brief(text)
{
    gsub(/\n/, " ", text)
    gsub(/^ +|\. .*|\. *$/, "", text)
    if (length(text) > 100)
        sub(/:.*/, "", text)
    if (text ~ /^[A-Z][a-z ]/)
        text = tolower(substr(text, 1, 1)) substr(text, 2)
    return text
}

function title_in_text(title)
{
    return title ~ /^[A-Z][a-z]/ ? tolower(substr(title, 1, 1)) substr(title, 2) : title
}

# The items of one kind, as a section; none without any.
function put_items(page, kind, heading,    i, any)
{
    for (i = 1; i <= item_count; ++i) {
        if (item_page[i] != page || item_kind[i] != kind)
            continue
        if (!any) {
            put(".Sh " heading)
            put(".Bl -tag -width Ds")
            any = 1
        }
        if (kind == "function") {
            put(".It Xo")
            put_prototype(item_declaration[i], " Ns")
            put(".Xc")
        } else if (kind == "macro")
            put(".It Dv \"" item_declaration[i] "\"")
        else if (kind == "variable")
            put(".It Vt \"" item_declaration[i] "\"")
        else
            put(".It Vt \"" items[i] "\"")
        put_comment(item_text[i], 0)
        if (item_declaration[i] ~ /^typedef struct/)
            put_members(item_declaration[i])
    }
    if (any)
        put(".El")
}

function put_see_also(page,    other, i, j, count, names)
{
    delete mentioned[page]
    mentioned["libbv"] = 1
    count = 0
    for (other in mentioned) {
        for (i = ++count; i > 1 && names[i - 1] > other; --i)
            names[i] = names[i - 1]
        names[i] = other
    }
    put(".Sh SEE ALSO")
    for (i = 1; i <= count; ++i)
        put(".Xr " names[i] " 3" (i < count ? " ," : ""))
}

function put_page(page,    i, other, header, title, about)
{
    header = page_header[page]
    title = page_title[page]
    about = title == "" ? brief(header_text[header]) : title_in_text(title) ", from bv/" header ".h"
    file = folder "/" page ".3"
    split("", mentioned)

    put_head(page, 3)
    put(".Sh NAME")
    other = page
    for (i = 1; i <= item_count; ++i)
        if (item_page[i] == page && items[i] in page_of) {
            put(".Nm " other " ,")
            other = items[i]
        }
    put(".Nm " other)
    put(".Nd " about)
    put(".Sh LIBRARY")
    put(".Ql $(pkg-config --cflags --libs bv" (header == "service" ? "-service" : "") ")")
    put(".Sh SYNOPSIS")
    put(".In bv/" header ".h")
    for (i = 1; i <= item_count; ++i) {
        if (item_page[i] != page)
            continue
        if (item_kind[i] == "variable")
            put(".Vt extern " item_declaration[i] ";")
        else if (item_kind[i] == "function")
            put_prototype(item_declaration[i], "")
    }

    put(".Sh DESCRIPTION")
    put_comment(page_text[page], 0)
    if (title != "") {
        if (something)
            put(".Ss Everything in bv/" header ".h")
        put_comment(header_text[header], 0)
        mentioned["bv_" header] = 1
    } else if (is_split[header]) {
        put(".Pp")
        put("The functions are in these pages:")
        put(".Pp")
        put(".Bl -tag -width Ds -compact")
        for (i = 1; i <= page_count; ++i)
            if (page_header[pages[i]] == header && pages[i] != page) {
                put(".It Xr " pages[i] " 3")
                put_text(title_in_text(page_title[pages[i]]))
            }
        put(".El")
    }
    put_items(page, "macro", "MACROS")
    put_items(page, "type", "TYPES")
    put_items(page, "variable", "VARIABLES")
    put_items(page, "function", "FUNCTIONS")
    put_see_also(page)
    close(file)
}

END {
    if (failed)
        exit 1
    for (i = 1; i <= page_count; ++i)
        put_page(pages[i])
    for (i = 1; i <= item_count; ++i) {
        if (!(items[i] in page_of))
            continue
        if (items[i] in page_title) {
            print "man-pages: a page and a function have the name " items[i] > "/dev/stderr"
            failed = 1
        }
        print items[i], page_of[items[i]]
    }
    exit failed
}
