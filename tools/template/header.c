/*
 * The header that services lay their images out with.
 *
 * The image is packed and in the order of the template. The assertions say so once more in
 * numbers: they catch a compiler that packs otherwise, and a header edited by hand.
 */
#include "template/header.h"

#include <ctype.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

#include "template/identifier.h"

/* Identifiers that the header defines, all different: the structure, the macros, which would
 * replace a member's name as well, and the members. */
enum { STRUCTURE, ASSERT_MACRO, GUARD_MACRO, FAMILY_MACRO, SIZE_MACRO, FIRST_MEMBER };

struct names {
    char *identifiers[FIRST_MEMBER + PARAMETERS_MAX];
    size_t count;
};

static bool add_name(struct names *names, const char *name, size_t length)
{
    char *identifier = identifier_make(name, length);

    if (identifier == NULL)
        return false;
    names->identifiers[names->count++] = identifier;
    identifier = identifier_distinguish(names->identifiers, names->count);
    if (identifier != NULL)
        names->identifiers[names->count - 1] = identifier;
    return identifier != NULL;
}

/* A family's file name without ".json". */
static size_t stem_length(const char *name)
{
    const char *dot = strrchr(name, '.');

    return dot != NULL && dot != name && strcmp(dot, ".json") == 0 ? (size_t)(dot - name)
                                                                   : strlen(name);
}

/* A macro's name: the structure's in capitals between two ends. */
static bool add_macro(struct names *names, const char *before, const char *after)
{
    size_t size = strlen(before) + strlen(names->identifiers[STRUCTURE]) + strlen(after) + 1;
    char *macro = malloc(size);
    bool added;
    char *at;

    if (macro == NULL)
        return false;
    snprintf(macro, size, "%s%s%s", before, names->identifiers[STRUCTURE], after);
    for (at = macro; *at != '\0'; at++)
        *at = (char)toupper((unsigned char)*at);
    added = add_name(names, macro, strlen(macro));
    free(macro);
    return added;
}

static bool make_names(struct names *names, const struct family *family, const char *structure)
{
    const char *name = structure != NULL ? structure : family->name;
    size_t i;

    if (!add_name(names, name, structure != NULL ? strlen(name) : stem_length(name)) ||
        !add_name(names, "FAMILY_ASSERT", 13) || !add_macro(names, "FAMILY_", "_H") ||
        !add_macro(names, "", "_FAMILY") || !add_macro(names, "", "_SIZE"))
        return false;
    for (i = 0; i < family->count; i++)
        if (!add_name(names, family->parameters[i].name, strlen(family->parameters[i].name)))
            return false;
    return true;
}

static void free_names(struct names *names)
{
    while (names->count > 0)
        free(names->identifiers[--names->count]);
}

static void write_top(FILE *to, const struct family *family, const struct names *names)
{
    fprintf(to,
            "/* Parameters of the family %s, packed as in its image. Written by bv-template. */\n"
            "#ifndef %s\n#define %s\n\n"
            "#include <stddef.h>\n#include <stdint.h>\n\n"
            "#define %s \"%s\"\n#define %s %" PRId64 "\n\n",
            family->name, names->identifiers[GUARD_MACRO], names->identifiers[GUARD_MACRO],
            names->identifiers[FAMILY_MACRO], family->name, names->identifiers[SIZE_MACRO],
            family->size);
}

static void write_structure(FILE *to, const struct family *family, const struct names *names)
{
    size_t i;

    fprintf(to, "struct %s {\n", names->identifiers[STRUCTURE]);
    for (i = 0; i < family->count; i++) {
        const struct parameter *parameter = &family->parameters[i];

        fprintf(to, "    %s %s", parameter->type->c_type, names->identifiers[FIRST_MEMBER + i]);
        if (parameter->type->kind != VALUE_NUMBER)
            fprintf(to, "[%" PRId32 "]", parameter->len);
        fprintf(to, "; /* %s */\n", parameter->type->name);
    }
    fputs("} __attribute__((packed));\n\n", to);
}

static void write_assertion(FILE *to, const struct names *names, const char *what, size_t member,
                            int64_t value)
{
    fprintf(to, "FAMILY_ASSERT(%s(struct %s", what, names->identifiers[STRUCTURE]);
    if (member != STRUCTURE)
        fprintf(to, ", %s", names->identifiers[member]);
    fprintf(to, ") == %" PRId64 ", \"%s\");\n", value,
            member != STRUCTURE ? names->identifiers[member] : "size");
}

static void write_assertions(FILE *to, const struct family *family, const struct names *names)
{
    int64_t offset = 0;
    size_t i;

    fputs("#ifdef __cplusplus\n#define FAMILY_ASSERT static_assert\n#else\n"
          "#define FAMILY_ASSERT _Static_assert\n#endif\n",
          to);
    write_assertion(to, names, "sizeof", STRUCTURE, family->size);
    for (i = 0; i < family->count; i++) {
        write_assertion(to, names, "offsetof", FIRST_MEMBER + i, offset);
        offset += family->parameters[i].len;
    }
    fputs("#undef FAMILY_ASSERT\n\n#endif\n", to);
}

bool header_write(FILE *to, const struct family *family, const char *structure)
{
    static struct names names;
    bool made;

    names.count = 0;
    made = make_names(&names, family, structure);
    if (made) {
        write_top(to, family, &names);
        write_structure(to, family, &names);
        write_assertions(to, family, &names);
    }
    free_names(&names);
    return made;
}
