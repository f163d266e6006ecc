// The header that services lay their images out with.
//
// The image is packed and in the order of the template. The assertions repeat it in numbers: they
// catch a compiler that packs differently, and a header edited by hand. What they cannot see, a
// template that is changed later, a function checks when the program runs.

#include "tools/template/header.h"

#include "tools/template/values.h"

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using tools::Family;
using tools::Parameter;

// ---- identifiers ----

// Keywords of both languages, types that the header itself uses, and what compilers define as
// macros without being asked. Blanks around each word.
constexpr char kClaimed[] =
    " EOF LANGUAGE_C MIPSEB MIPSEL NULL R3000 alignas alignof and and_eq asm assert auto "
    "bitand bitor bool break case catch char char16_t char32_t char8_t class co_await "
    "co_return co_yield compl concept const const_cast consteval constexpr constinit continue "
    "decltype default delete do double dynamic_cast else enum errno explicit export extern "
    "false float for friend goto i386 if inline int int16_t int32_t int8_t linux long mips "
    "mutable namespace new noexcept not not_eq nullptr offsetof operator or or_eq private "
    "protected public register reinterpret_cast requires restrict return short signed sizeof "
    "static static_assert static_cast stderr stdin stdout struct switch template this "
    "thread_local throw true try typedef typeid typename typeof typeof_unqual uint16_t "
    "uint32_t uint8_t union unix unsigned using virtual void volatile wchar_t while xor "
    "xor_eq ";

// Whether a list holds the word that is the first `length` bytes of a text.
bool is_listed(const char *list, const char *word, size_t length)
{
    for (const char *at = list; (at = strchr(at, ' ')) != nullptr; ++at)
        if (strncmp(at + 1, word, length) == 0 && at[1 + length] == ' ')
            return true;
    return false;
}

// The limits that <stdint.h> defines, which the header includes: INT8_MAX, INT_FAST8_MIN, ...
bool is_limit(const char *name)
{
    static constexpr char kTypes[][12] = {
        "INT8_",       "INT16_",   "INT32_",  "INT64_",  "INT_",  "INTPTR_",  "INTMAX_",
        "UINT8_",      "UINT16_",  "UINT32_", "UINT64_", "UINT_", "UINTPTR_", "UINTMAX_",
        "SIG_ATOMIC_", "PTRDIFF_", "SIZE_",   "WCHAR_",  "WINT_"};
    const char *end = strrchr(name, '_');
    if (end == nullptr || !is_listed(" _MAX _MIN _WIDTH ", end, strlen(end)))
        return false;
    for (const char *type : kTypes)
        if (strncmp(name, type, strlen(type)) == 0)
            return true;
    return false;
}

// What <bv/db.h> defines, which the header includes too: macros, and structures.
bool is_ours(const char *name, bool is_structure)
{
    return strncmp(name, "BV_", 3) == 0 || (is_structure && strncmp(name, "bv_", 3) == 0);
}

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
    // Turns a name into an identifier that compiles wherever the header is included. Other
    // characters become '_', a leading digit or '_' gets a letter before it, and claimed words get
    // a '_' after them. A number makes it differ from the others.
    bool add(const char *name, size_t length)
    {
        auto *identifier = static_cast<char *>(malloc(length + 16));
        if (identifier == nullptr)
            return false;
        char *to = identifier;
        if (length == 0 || isalpha(static_cast<unsigned char>(name[0])) == 0)
            *to++ = 'p';
        for (size_t i = 0; i < length; ++i)
            *to++ = isalnum(static_cast<unsigned char>(name[i])) != 0 ? name[i] : '_';
        *to = '\0';
        if (is_listed(kClaimed, identifier, strlen(identifier)) || is_limit(identifier) ||
            is_ours(identifier, count_ == kStructure))
            memcpy(to++, "_", 2);
        for (unsigned number = 2; is_taken(identifier); ++number)
            snprintf(to, 12, "_%u", number);
        identifiers_[count_++] = identifier;
        return true;
    }

    bool is_taken(const char *candidate) const
    {
        for (size_t i = 0; i < count_; ++i)
            if (strcmp(identifiers_[i], candidate) == 0)
                return true;
        return false;
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

// ---- the text ----

void write_top(FILE *to, const Family &family, const Names &names)
{
    fprintf(to,
            "/* Parameters of the family %s, packed as in its image. Written by bv-template. */\n"
            "#ifndef %s\n#define %s\n\n"
            "#include <bv/db.h>\n#include <stddef.h>\n#include <stdint.h>\n\n"
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
    fputs("#undef FAMILY_ASSERT\n\n", to);
}

// A template may change after the program was built. Copies of another size than the image's leave
// zeros or nothing, and no status tells.
void write_match(FILE *to, const Names &names)
{
    fprintf(
        to,
        "/* Returns 1 when the database has the family and its image has the structure's size.\n"
        " * Otherwise the template is missing or is not the one that this header was made from,\n"
        " * and instances must not be read or written with the structure. */\n"
        "static inline int %s_matches(void)\n{\n"
        "    const bv_db_family *family = bv_db_hash_find(%s);\n"
        "    return family && family->image_size == %s;\n}\n\n#endif\n",
        names[Names::kStructure], names[Names::kFamilyMacro], names[Names::kSizeMacro]);
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
    write_match(to, names);
    return true;
}
