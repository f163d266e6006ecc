// The header that services lay their images out with.
//
// The image is packed and in the order of the template. The assertions repeat it in numbers: they
// catch a compiler that packs differently, and a header edited by hand.

#include "tools/template/header.h"

#include "tools/template/identifier.h"
#include "tools/template/values.h"

#include <cctype>
#include <cinttypes>
#include <cstdlib>
#include <cstring>

namespace {

using tools::Family;
using tools::Parameter;

// A family's file name without ".json".
size_t stem_length(const char *name)
{
    const char *dot = strrchr(name, '.');
    const bool json = dot != nullptr && dot != name && strcmp(dot, ".json") == 0;
    return json ? static_cast<size_t>(dot - name) : strlen(name);
}

// Identifiers that the header defines, all different: the structure; the macros, which would
// replace a member's name as well; the members.
class Names {
public:
    enum { kStructure, kAssertMacro, kGuardMacro, kFamilyMacro, kSizeMacro, kFirstMember };

    Names() = default;
    ~Names()
    {
        while (count_ > 0)
            free(identifiers_[--count_]);
    }
    Names(const Names &) = delete;
    Names &operator=(const Names &) = delete;

    const char *operator[](size_t i) const { return identifiers_[i]; }

    // False when memory is short.
    bool make(const Family &family, const char *structure)
    {
        const char *name = structure != nullptr ? structure : family.name;
        if (!add(name, structure != nullptr ? strlen(name) : stem_length(name)) ||
            !add("FAMILY_ASSERT", strlen("FAMILY_ASSERT")) || !add_macro("FAMILY_", "_H") ||
            !add_macro("", "_FAMILY") || !add_macro("", "_SIZE"))
            return false;
        for (size_t i = 0; i < family.count; ++i)
            if (!add(family.parameters[i].name, strlen(family.parameters[i].name)))
                return false;
        return true;
    }

private:
    bool add(const char *name, size_t length)
    {
        char *identifier = tools::make_identifier(name, length);
        if (identifier == nullptr)
            return false;
        identifiers_[count_++] = identifier;
        identifier = tools::distinguish_last(identifiers_, count_);
        if (identifier != nullptr)
            identifiers_[count_ - 1] = identifier;
        return identifier != nullptr;
    }

    // A macro's name: the structure's in capitals, with something before and after it.
    bool add_macro(const char *before, const char *after)
    {
        char *macro;
        if (asprintf(&macro, "%s%s%s", before, identifiers_[kStructure], after) < 0)
            return false;
        for (char *at = macro; *at != '\0'; ++at)
            *at = static_cast<char>(toupper(static_cast<unsigned char>(*at)));
        const bool added = add(macro, strlen(macro));
        free(macro);
        return added;
    }

    char *identifiers_[kFirstMember + bv::kMaxParameters];
    size_t count_ = 0;
};

void write_top(FILE *to, const Family &family, const Names &names)
{
    fprintf(to,
            "/* Parameters of the family %s, packed as in its image. Written by bv-template. */\n"
            "#ifndef %s\n#define %s\n\n"
            "#include <stddef.h>\n#include <stdint.h>\n\n"
            "#define %s \"%s\"\n#define %s %" PRId64 "\n\n",
            family.name, names[Names::kGuardMacro], names[Names::kGuardMacro],
            names[Names::kFamilyMacro], family.name, names[Names::kSizeMacro], family.size);
}

void write_member(FILE *to, const Parameter &parameter, const char *name)
{
    const bv::ParameterType &type = *parameter.type;
    if (tools::is_number(type))
        fprintf(to, "    %sint%d_t %s", type.kind == bv::TypeKind::Unsigned ? "u" : "",
                8 * type.size, name);
    else
        fprintf(to, "    %s %s[%" PRId32 "]",
                type.kind == bv::TypeKind::String ? "char" : "uint8_t", name, parameter.len);
    fprintf(to, "; /* %s */\n", type.name);
}

void write_structure(FILE *to, const Family &family, const Names &names)
{
    fprintf(to, "struct %s {\n", names[Names::kStructure]);
    for (size_t i = 0; i < family.count; ++i)
        write_member(to, family.parameters[i], names[Names::kFirstMember + i]);
    fputs("} __attribute__((packed));\n\n", to);
}

void write_assertions(FILE *to, const Family &family, const Names &names)
{
    const char *structure = names[Names::kStructure];
    fputs("#ifdef __cplusplus\n#define FAMILY_ASSERT static_assert\n#else\n"
          "#define FAMILY_ASSERT _Static_assert\n#endif\n",
          to);
    fprintf(to, "FAMILY_ASSERT(sizeof(struct %s) == %" PRId64 ", \"size\");\n", structure,
            family.size);
    int64_t offset = 0;
    for (size_t i = 0; i < family.count; ++i) {
        const char *name = names[Names::kFirstMember + i];
        fprintf(to, "FAMILY_ASSERT(offsetof(struct %s, %s) == %" PRId64 ", \"%s\");\n", structure,
                name, offset, name);
        offset += family.parameters[i].len;
    }
    fputs("#undef FAMILY_ASSERT\n\n#endif\n", to);
}

} // namespace

bool tools::write_header(FILE *to, const Family &family, const char *structure)
{
    Names names;
    if (!names.make(family, structure))
        return false;
    write_top(to, family, names);
    write_structure(to, family, names);
    write_assertions(to, family, names);
    return true;
}
