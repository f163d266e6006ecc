// Checks a data file.
//
//   {"FAMILY": [{"inst": "1", "para": {"NAME": "VALUE", ...}}, ...], ...}
//
// What the database skips when it loads the file, and what it fills in from elsewhere, is a fault.

#include "tools/template/data.h"

#include "tools/template/checked_file.h"
#include "tools/template/keys.h"
#include "tools/template/values.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace {

using namespace tools;

// Checks the instances of one family.
class Instances {
public:
    Instances(const CheckedFile &file, const Family &family, const Json &array)
        : file_(file), family_(family), array_(array), seen_(file, array.count())
    {
    }

    void check()
    {
        bool first = true;
        for (const Json &element : array_) {
            if (!check_number(element))
                continue;
            check_para(*element.member("para"), first);
            first = false;
        }
    }

private:
    // Checks the number of an element. False when the database would skip the element.
    bool check_number(const Json &element)
    {
        if (element.kind != Json::Kind::Object) {
            file_.fault(element.line, "an element is not an object: it is skipped");
            return false;
        }
        static constexpr const char *kKeys[] = {"inst", "para"};
        file_.check_names_once(element);
        check_keys(file_, element, kKeys);
        const Json *inst = element.member("inst");
        if (inst == nullptr || element.member("para") == nullptr) {
            file_.fault(element.line, "\"%s\" is missing: the element is skipped",
                        inst == nullptr ? "inst" : "para");
            return false;
        }
        int32_t number;
        if (!file_.take_number(*inst, "\"inst\"", number))
            return false;
        const unsigned line = seen_.add(number, element.line);
        if (line != 0)
            file_.fault(element.line,
                        "duplicate instance %" PRId32 ", first in line %u, which it replaces",
                        number, line);
        return true;
    }

    void check_value(const Json &member) const
    {
        const Parameter *parameter = family_.find(member.name);
        if (parameter == nullptr) {
            file_.fault(member.name_line, "%.60s has no parameter \"%.60s\"", family_.name,
                        member.name);
            return;
        }
        char label[96];
        snprintf(label, sizeof(label), "\"%.60s\"", member.name);
        if (file_.take_text(member, label) == nullptr)
            return;
        file_.check_survives(member.text, member.length, member.line, label);
        Reason why;
        if (parameter->type != nullptr && parameter->len > 0 &&
            !value_fits(*parameter->type, parameter->len, member.text, why))
            file_.fault(member.line, "%s: %s", label, why.text);
    }

    void check_para(const Json &para, bool first) const
    {
        if (para.kind != Json::Kind::Object) {
            file_.fault(para.line, "\"para\" is not an object");
            return;
        }
        file_.check_names_once(para);
        for (const Json &member : para)
            check_value(member);

        // A missing value is not the default: the database goes on with the text it had last.
        for (size_t i = 0; i < family_.count; ++i) {
            const char *name = family_.parameters[i].name;
            if (para.member(name) == nullptr)
                file_.fault(para.line, "\"%.60s\" is missing: it takes %s", name,
                            first ? "the template's default" : "the value of the element before");
        }
    }

    const CheckedFile &file_;
    const Family &family_;
    const Json &array_;
    Seen seen_;
};

void check_family(const CheckedFile &file, const Json &member, Library &templates)
{
    const char *name = member.name;
    file.check_survives(name, member.name_length, member.name_line, "name of a family");
    const Family *family = nullptr;
    switch (templates.find(name, family)) {
    case Library::Result::None:
        return file.fault(member.name_line, "unknown family \"%.80s\": there is no such template",
                          name);
    case Library::Result::Several:
        return file.fault(member.name_line, "several templates are called \"%.80s\": none is taken",
                          name);
    case Library::Result::Unusable:
        return file.fault(member.name_line, "the template of \"%.80s\" has no usable parameters",
                          name);
    case Library::Result::Found:
        break;
    }
    if (member.kind == Json::Kind::Array)
        Instances(file, *family, member).check();
    else
        file.fault(member.line, "\"%.80s\" is not an array: no instance is taken", name);
}

} // namespace

void tools::check_data(const char *path, Library &templates)
{
    const CheckedFile file = {path};
    JsonDocument document;
    if (!file.read(document))
        return;
    const Json &root = *document.root();
    if (root.kind != Json::Kind::Object)
        return file.fault(root.line, "a data file is an object of families");
    file.check_names_once(root);
    for (const Json &member : root)
        check_family(file, member, templates);
}
