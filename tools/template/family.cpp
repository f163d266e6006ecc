// Checks a template.
//
// The database takes what it can and says nothing: it skips an element that lacks something, and
// all that follow move up in the image. So everything that it would skip, cut or store as something
// else is a fault here.

#include "tools/template/family.h"

#include "tools/template/checked_file.h"
#include "tools/template/keys.h"
#include "tools/template/values.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace {

using namespace tools;

// The command that finds a template has 255 characters at most, and its output is trimmed.
constexpr size_t kMaxFoundName = 204;

// The family is found by its name with a shell command, and the name is a key of the data file.
void check_family_name(const CheckedFile &file, const char *name)
{
    const size_t length = strlen(name);
    Reason why;
    if (!text_survives(name, length, why))
        file.fault(1, "the file's name: %s", why.text);
    else if (strpbrk(name, "$`*?[") != nullptr)
        file.fault(1, "the file's name: the library does not find names with $ ` * ? [");
    else if (length > kMaxFoundName)
        file.fault(1, "the file's name: the library does not find more than %zu bytes",
                   kMaxFoundName);
    else if (length != 0 && name[length - 1] == ' ')
        file.fault(1, "the file's name: the library does not find a blank at the end");
}

// ---- one element ----

// An element of "para", of which the library needs all four members.
class Element {
public:
    Element(const CheckedFile &file, const Json &object)
        : file_(file), object_(object), name_(object.member("name")), type_(object.member("type")),
          len_(object.member("len")), value_(object.member("value"))
    {
    }

    // Checks the element. False when the library would skip it.
    bool read(Parameter &parameter, Seen &names) const
    {
        if (object_.kind != Json::Kind::Object) {
            file_.fault(object_.line, "an element of \"para\" is not an object: it is skipped");
            return false;
        }
        static constexpr const char *kKeys[] = {"name", "type", "len", "value"};
        file_.check_names_once(object_);
        check_keys(file_, object_, kKeys);
        if (!is_complete())
            return false;
        check_name(names);
        parameter = {name_->text, find_type(), 0};
        const bool has_len = file_.take_number(*len_, Label(*this, "len").text, parameter.len);
        if (has_len)
            check_len(parameter);
        check_value(parameter);
        return has_len && parameter.len <= bv::kMaxParameterLength && parameter.name != nullptr;
    }

private:
    // What is meant, as in: len of "mtu". The name may be missing.
    struct Label {
        char text[96];

        Label(const Element &element, const char *what)
        {
            const char *name = element.name_->text != nullptr ? element.name_->text : "";
            snprintf(text, sizeof(text), "%s of \"%.60s\"", what, name);
        }
    };

    bool is_complete() const
    {
        const struct {
            const char *what;
            const Json *value;
        } members[] = {{"name", name_}, {"type", type_}, {"len", len_}, {"value", value_}};
        bool complete = true;
        for (const auto &member : members) {
            if (member.value != nullptr)
                continue;
            file_.fault(object_.line, "%s is missing: the parameter is skipped",
                        name_ == nullptr ? member.what : Label(*this, member.what).text);
            complete = false;
        }
        return complete;
    }

    void check_name(Seen &names) const
    {
        if (file_.take_text(*name_, "name") == nullptr)
            return;
        if (name_->length == 0)
            file_.fault(name_->line, "name is empty");
        file_.check_survives(name_->text, name_->length, name_->line, "name");
        const unsigned first = names.add(name_->text, name_->length, name_->line);
        if (first != 0)
            file_.fault(name_->line, "duplicate parameter \"%.80s\", first in line %u", name_->text,
                        first);
    }

    const bv::ParameterType *find_type() const
    {
        const char *text = file_.take_text(*type_, "type");
        if (text == nullptr)
            return nullptr;
        const bv::ParameterType *type = bv::find_type(text);
        if (type != nullptr)
            return type;
        char known[96] = "";
        size_t at = 0;
        for (const bv::ParameterType &row : bv::kParameterTypes)
            at += static_cast<size_t>(snprintf(known + at, sizeof(known) - at, " %s", row.name));
        file_.fault(type_->line, "unknown type '%.60s', not one of%s", text, known);
        return nullptr;
    }

    void check_len(const Parameter &parameter) const
    {
        const int32_t len = parameter.len;
        const int32_t size = parameter.type != nullptr ? parameter.type->size : 0;
        if (len > bv::kMaxParameterLength)
            file_.fault(len_->line,
                        "len %" PRId32 " is above %" PRId32 ": the parameter is skipped", len,
                        bv::kMaxParameterLength);
        else if (len < 0)
            file_.fault(len_->line, "len %" PRId32 " is negative: the image shrinks", len);
        else if (size != 0 && len != size)
            file_.fault(len_->line, "len %" PRId32 " does not fit type %s, which takes %" PRId32,
                        len, parameter.type->name, size);
        else if (len == 0)
            file_.fault(len_->line, "len 0 has no room for anything");
    }

    void check_value(const Parameter &parameter) const
    {
        const Label label(*this, "value");
        if (file_.take_text(*value_, label.text) == nullptr)
            return;
        file_.check_survives(value_->text, value_->length, value_->line, label.text);
        const bool has_room = parameter.len > 0 && parameter.len <= bv::kMaxParameterLength;
        Reason why;
        if (parameter.type != nullptr && has_room &&
            !value_fits(*parameter.type, parameter.len, value_->text, why))
            file_.fault(value_->line, "%s: %s", label.text, why.text);
    }

    const CheckedFile &file_;
    const Json &object_;
    const Json *name_;
    const Json *type_;
    const Json *len_;
    const Json *value_;
};

// ---- the whole ----

bool read_para(const CheckedFile &file, const Json &para, Family &family)
{
    const size_t count = para.count();
    if (count == 0)
        file.fault(para.line, "\"para\" is empty: the family holds nothing");
    if (count > bv::kMaxParameters)
        file.fault(para.line,
                   "%zu parameters are more than the %" PRIu32
                   " that the library takes: it takes none",
                   count, bv::kMaxParameters);

    Seen names(file, count);
    for (const Json &object : para) {
        Parameter parameter;
        if (!Element(file, object).read(parameter, names) || family.count == bv::kMaxParameters)
            continue;
        family.parameters[family.count++] = parameter;
        family.size += parameter.len;
    }
    return family.count > 0 && count <= bv::kMaxParameters;
}

// The names of the two functions are optional.
void check_function(const CheckedFile &file, const Json &root, const char *member)
{
    const Json *value = root.member(member);
    if (value != nullptr && file.take_text(*value, member) != nullptr && value->length > kMaxText)
        file.fault(value->line, "%s: its %zu bytes are more than %zu", member, value->length,
                   kMaxText);
}

} // namespace

bool tools::read_family(const char *path, Family &family)
{
    const CheckedFile file = {path};
    const char *slash = strrchr(path, '/');
    family.name = slash == nullptr ? path : slash + 1;
    family.count = 0;
    family.size = 0;
    check_family_name(file, family.name);
    if (!file.read(family.document))
        return false;
    const Json &root = *family.document.root();
    if (root.kind != Json::Kind::Object) {
        file.fault(root.line, "a template is an object with \"para\"");
        return false;
    }
    static constexpr const char *kKeys[] = {"para", "getfunc", "setfunc"};
    file.check_names_once(root);
    check_keys(file, root, kKeys);
    check_function(file, root, "getfunc");
    check_function(file, root, "setfunc");
    const Json *para = root.member("para");
    if (para != nullptr && para->kind == Json::Kind::Array)
        return read_para(file, *para, family);
    file.fault(para == nullptr ? root.line : para->line, "\"para\" is %s",
               para == nullptr ? "missing" : "not an array");
    return false;
}

const Parameter *Family::find(const char *wanted) const
{
    for (size_t i = 0; i < count; ++i)
        if (strcmp(parameters[i].name, wanted) == 0)
            return &parameters[i];
    return nullptr;
}
