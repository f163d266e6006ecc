# SPDX-License-Identifier: ISC
# Text as roff, for man-pages.awk and formats-page.awk. Output goes to the variable file; version
# and date (YYYY-MM-DD) are variables too. The program defines marked(word), which every word of a
# paragraph passes.

function put(line)
{
    print line > file
}

# Characters that roff or a terminal would change.
function escaped(text)
{
    gsub(/\\/, "\\e", text)
    gsub(/\^/, "\\(ha", text)
    gsub(/~/, "\\(ti", text)
    return text
}

function literal(text)
{
    text = escaped(text)
    gsub(/-/, "\\-", text)
    gsub(/'/, "\\(aq", text)
    gsub(/`/, "\\(ga", text)
    return text ~ /^\./ ? "\\&" text : text
}

# Inline Markdown: code and emphasis are bold.
function inline(text)
{
    text = escaped(text)
    while (match(text, /`[^`]+`/))
        text = substr(text, 1, RSTART - 1) "\\fB" literal(substr(text, RSTART + 1, RLENGTH - 2)) "\\fP" \
            substr(text, RSTART + RLENGTH)
    while (match(text, /\*\*[^*]+\*\*/))
        text = substr(text, 1, RSTART - 1) "\\fB" substr(text, RSTART + 2, RLENGTH - 4) "\\fP" \
            substr(text, RSTART + RLENGTH)
    return text
}

# Prints a paragraph, each sentence on lines of its own.
function put_text(text,    count, i, line, word, words)
{
    count = split(inline(text), words, " ")
    line = ""
    for (i = 1; i <= count; ++i) {
        word = marked(words[i])
        if (line != "" && (length(line) + length(word) >= 79 || (line ~ /[.?][)"]*$/ && word ~ /^[("]*[A-Z0-9]/))) {
            put(line)
            line = ""
        }
        if (line == "" && word ~ /^[.']/)
            word = "\\&" word
        line = line (line == "" ? "" : " ") word
    }
    if (line != "")
        put(line)
}

# The macros that a page begins with. Without the string older versions of groff call the system BSD
# in the title line.
function put_head(page, section,    months, day)
{
    split("January February March April May June July August September October November December", months, " ")
    split(date, day, "-")
    put(".Dd " months[day[2] + 0] " " (day[3] + 0) ", " day[1])
    put(".ds doc-volume-operating-system libbv")
    put(".Dt " toupper(page) " " section)
    put(".Os libbv " version)
}
