# SPDX-License-Identifier: ISC
# Writes the man page bv-formats(5) from docs/formats.md. scripts/man-pages runs it, after roff.awk,
# with the variables file, version and date.
#
# It knows headings, paragraphs, tables and blocks between ``` lines, and fails at any other
# Markdown, so that nothing is left out without notice.

function fail(what)
{
    print FILENAME ":" FNR ": " what > "/dev/stderr"
    failed = 1
    exit 1
}

# Of links to other pages the text is enough.
function without_links(text,    link)
{
    while (match(text, /\[[^][]+\]\([^)]+\)/)) {
        link = substr(text, RSTART + 1, RLENGTH - 2)
        sub(/\].*/, "", link)
        text = substr(text, 1, RSTART - 1) link substr(text, RSTART + RLENGTH)
    }
    return text
}

# A minus is not a hyphen.
function marked(word)
{
    if (word ~ /^[("]*-([0-9A-Za-z]|$)/)
        sub(/-/, "\\-", word)
    return word
}

# As wide as a terminal shows it.
function width(cell)
{
    gsub(/`|\*\*/, "", cell)
    return length(cell)
}

# As one argument of a macro.
function argument(cell)
{
    cell = inline(cell)
    gsub(/"/, "\"\"", cell)
    return "\"\\&" cell "\""
}

function end_paragraph()
{
    if (paragraph == "")
        return
    if (!after_heading)
        put(".Pp")
    put_text(without_links(paragraph))
    paragraph = ""
    after_heading = 0
}

# ---- tables: cells[row, column], row 1 is the heading ----

function add_row(line,    i, count, parts)
{
    gsub(/^\| *| *\|$/, "", line)
    count = split(line, parts, / *\| */)
    if (rows == 0)
        columns = count
    if (count > columns)
        fail("more cells than the heading")
    if (line ~ /^[-| ]+$/)
        return
    ++rows
    for (i = 1; i <= columns; ++i)
        cells[rows, i] = i > count ? "" : without_links(parts[i])
}

# Columns, when all but the last are narrow.
function put_columns(    i, j, line)
{
    line = ".Bl -column"
    for (j = 1; j <= columns; ++j)
        line = line " \"" (j < columns ? substr("xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx", 1, widest[j]) : "x") "\""
    put(line)
    for (i = 1; i <= rows; ++i) {
        line = ".It "
        for (j = 1; j <= columns; ++j)
            line = line (j > 1 ? " Ta " : "") argument(i == 1 && cells[i, j] != "" ? "**" cells[i, j] "**" : cells[i, j])
        put(line)
    }
    put(".El")
}

# Otherwise an entry for each row, in which further cells have their headings in front.
function put_entries(    i, j, line)
{
    put(".Bl -tag -width " (columns == 2 && widest[1] <= 24 ? "\"" substr("xxxxxxxxxxxxxxxxxxxxxxxx", 1, widest[1]) "\"" : "Ds"))
    for (i = 2; i <= rows; ++i) {
        put(".It " argument(cells[i, 1]))
        for (j = 2; j <= columns; ++j) {
            if (cells[i, j] == "")
                continue
            put_text((columns > 2 && cells[1, j] != "" ? cells[1, j] ": " : "") cells[i, j])
            if (j < columns && cells[i, j + 1] != "")
                put(".br")
        }
    }
    put(".El")
}

function end_table(    i, j, narrow)
{
    if (rows == 0)
        return
    narrow = 0
    for (j = 1; j <= columns; ++j) {
        widest[j] = 0
        for (i = 1; i <= rows; ++i)
            if (width(cells[i, j]) > widest[j])
                widest[j] = width(cells[i, j])
        if (j < columns)
            narrow += widest[j] + 2
    }
    if (columns > 2 && narrow <= 44)
        put_columns()
    else
        put_entries()
    rows = 0
    after_heading = 0
}

# ---- the page ----

BEGIN {
    put(".\\\" Made from docs/formats.md.")
    put_head("bv-formats", 5)
    put(".Sh NAME")
    put(".Nm bv-formats")
    put(".Nd templates, data files and messages of the gateway's services")
    put(".Sh DESCRIPTION")
    after_heading = 1
}

/^```/ {
    in_block = !in_block
    put(in_block ? ".Bd -literal" : ".Ed")
    after_heading = 0
    next
}

in_block {
    while (match($0, /\t/))
        $0 = substr($0, 1, RSTART - 1) "    " substr($0, RSTART + 1)
    line = literal($0)
    gsub(/→/, "\\(->  ", line)
    put(line)
    next
}

/^<!-- [a-z-]* -->$/ {
    end_paragraph()
    end_table()
    next
}

/^# / { next }

/^##+ / {
    end_paragraph()
    end_table()
    sub(/^#+ /, "")
    put(".Ss " escaped($0))
    after_heading = 1
    next
}

/^\|/ {
    end_paragraph()
    add_row($0)
    next
}

/^$/ {
    end_paragraph()
    end_table()
    next
}

/^([-*+>]|[0-9]+\.) / || /^    / || /^</ || /!\[/ { fail("not known here: " $0) }

{ paragraph = paragraph " " $0 }

END {
    if (failed)
        exit 1
    end_paragraph()
    end_table()
    put(".Sh SEE ALSO")
    put(".Xr bv-collect 1 ,")
    put(".Xr bv-ctl 1 ,")
    put(".Xr bv-template 1 ,")
    put(".Xr bv_service 3 ,")
    put(".Xr libbv 3")
}
