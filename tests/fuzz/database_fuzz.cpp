// SPDX-License-Identifier: ISC
// Sequences of database calls, each compared with a model of the database: families in three lists,
// templates that change, instances, data files written, damaged and read again.
//
// Input: steps. Each is a byte that picks it from kActions, a byte that picks family and list, and
// the bytes that it takes.

#include <bv/db.h>
#include <bv/os.h>

#include "fuzz/database_model.h"
#include "fuzz/input.h"

namespace {

using model::append;
using model::quoted;

constexpr const char *kNames[] = {"/etc/template/a", "/etc/template/b", "/etc/template/c",
                                  "/etc/template/d"};
constexpr const char *kTypes[] = {"string", "uint", "int",  "ushort", "uchar",
                                  "ip",     "mac",  "char", "short",  "blob"};
constexpr int32_t kNumbers[] = {1, 2, 3, 4, 5, 0, -1, 1000, INT32_MIN, INT32_MAX - 1};

// A registration list with its file. Some families are in two.
struct List {
    bv_list_head &names;
    const char *path;
    int32_t (*enter)(const char *);
    int32_t (*write)();
    std::vector<std::string> families;
    model::File file = {};
};

// In the order in which they are read.
List g_lists[] = {{g_st_db_mng.factory_list,
                   "/config/factory/factory.json",
                   bv_db_reg_factory,
                   bv_db_factory,
                   {kNames[0], kNames[1]}},
                  {g_st_db_mng.user_list,
                   "/config/work/userdata.json",
                   bv_db_reg_user,
                   bv_db_commit,
                   {kNames[1], kNames[2]}},
                  {g_st_db_mng.private_list,
                   "/config/work/privdata.json",
                   bv_db_reg_private,
                   bv_db_private,
                   {kNames[3], kNames[2]}}};

std::map<std::string, model::Template> g_templates;
std::map<std::string, model::Family> g_families;

// One step of an input, and what it is about.
struct Step {
    fuzz::Input &input;
    uint8_t which;
    const char *name;
    bv_db_family *record;
    model::Family &family;
    List &list;
};

bv_db_family *record(const char *name)
{
    bv_db_family *family = bv_db_hash_find(name);
    FUZZ_CHECK(family != nullptr);
    return family;
}

template <typename T, size_t N>
const T &pick(fuzz::Input &input, const T (&from)[N])
{
    return from[input.byte() % N];
}

// Nothing is escaped in data files: what would break one is left out of texts and images.
std::string harmless(std::string bytes)
{
    for (char &c : bytes)
        if (c == '"' || c == '\\')
            c++;
    return bytes;
}

std::string text(fuzz::Input &input)
{
    const char *const common[] = {
        "", "0", "1", "-1", "4294967295", "x9", " 7", "192.168.1.1", "aa:bb:cc:dd:ee:ff", "65536"};
    const uint8_t kind = input.byte();
    if (kind < 0xc0)
        return common[kind % 10];
    std::string bytes = harmless(input.piece());
    for (char &c : bytes)
        if (static_cast<unsigned char>(c) < ' ')
            c = ' ';
    return bytes;
}

void set_template(const char *name, fuzz::Input &input)
{
    model::Template made;
    const uint8_t kind = input.byte();
    made.readable = kind < 0xf0;
    made.elements = kind % 7;
    std::string para;
    for (int32_t i = 0; i < made.elements; i++) {
        model::Parameter p = {"p" + std::to_string(i), pick(input, kTypes), "", 0, false};
        const uint8_t length = input.byte();
        const int32_t odd[] = {0, -1, -3, 1, 5, 40, 1000, 1023, 1024, 5000, -200};
        p.len = p.type == "string" ? length % 24 : model::width_of(p.type);
        if (length >= 0xc0)
            p.len = odd[length % 11];
        p.value = text(input);
        append(para, "{\"name\":" + quoted(p.name) + ",\"type\":" + quoted(p.type) +
                         ",\"value\":" + quoted(p.value) +
                         (length == 0 ? "" : ",\"len\":" + std::to_string(p.len)) + "}");
        if (length != 0 && p.len < 1024)
            made.valid.push_back(p);
    }
    write_file(name, made.readable   ? "{\"para\":[" + para + "]}"
                     : kind % 2 == 0 ? "{"
                                     : "{\"para\":{}}");
    g_templates[name] = made;
}

// Default images are never freed, as is known; here they would hide other leaks.
void release_default_image(bv_db_family *family)
{
    bv_os_free(family->default_image);
    family->default_image = nullptr;
}

bool same(const uint8_t *image, const std::string &bytes)
{
    return image == nullptr ? bytes.empty()
                            : !bytes.empty() && memcmp(image, bytes.data(), bytes.size()) == 0;
}

void check_family(const char *name)
{
    const model::Family &expected = g_families[name];
    const bv_db_family *family = record(name);
    FUZZ_CHECK(family->image_size == expected.size);
    FUZZ_CHECK(family->para_count == expected.elements);
    FUZZ_CHECK(family->inst_count == static_cast<int32_t>(expected.instances.size()));
    FUZZ_CHECK(family->inst_max == expected.highest);
    for (size_t i = 0; i < expected.para.size(); i++) {
        FUZZ_CHECK(family->para[i].valid == 1);
        FUZZ_CHECK(family->para[i].value == expected.para[i].value);
    }
    FUZZ_CHECK(same(family->working_image, expected.working));
    FUZZ_CHECK(same(family->default_image, expected.defaults));

    const bv_list_head *link = family->inst_list.next;
    for (const model::Instance &instance : expected.instances) {
        FUZZ_CHECK(link != &family->inst_list);
        const auto *found = reinterpret_cast<const bv_db_inst *>(link);
        FUZZ_CHECK(found->number == instance.number);
        FUZZ_CHECK(same(found->image, instance.image));
        link = link->next;
    }
    FUZZ_CHECK(link == &family->inst_list);
}

// ---- data files ----

void write_data(List &list, const std::string &content)
{
    write_file(list.path, content);
    list.file.there = true;
}

// Any data file, as long as it is well formed.
void set_data(Step &step)
{
    fuzz::Input &input = step.input;
    std::string out;
    step.list.file = {};
    for (const std::string &name : step.list.families) {
        const uint8_t kind = input.byte();
        if (kind >= 0xe0) { // absent, or null, which counts as absent
            if (kind % 2 != 0)
                append(out, quoted(name) + ":null");
            continue;
        }
        std::string array = "{\"inst\":\"7\"},null";
        std::vector<model::Element> &elements = step.list.file.families[name];
        for (int i = kind % 6; i > 0; i--) {
            model::Element element = {pick(input, kNumbers), {}};
            const uint8_t which = input.byte();
            std::string values;
            for (int p = 0; p < 7; p++) {
                if ((which >> p & 1) == 0)
                    continue;
                element.values.emplace_back("p" + std::to_string(p), text(input));
                append(values, quoted(element.values.back().first) + ":" +
                                   quoted(element.values.back().second));
            }
            const std::string number = std::to_string(element.number);
            append(array, "{\"inst\":" + ((which & 0x80) == 0 ? number : quoted(number)) +
                              ",\"para\":{" + values + "}}");
            elements.push_back(element);
        }
        append(out, quoted(name) + ":[" + array + "]");
    }
    write_data(step.list, "{" + out + "}");
}

// A file that was not written to its end.
void cut_data(Step &step)
{
    const size_t where = step.input.byte();
    const std::string content = read_file(step.list.path);
    const size_t end = content.rfind('}');
    if (end == std::string::npos)
        return;
    write_data(step.list, content.substr(0, end * where / 256));
    step.list.file.readable = false;
}

int32_t expect_load(const List &list)
{
    if (!list.file.there || !list.file.readable)
        return -1;
    for (const std::string &name : list.families)
        g_families[name].load(name, list.file);
    return BV_OK;
}

void read_data(Step &step)
{
    FUZZ_CHECK(bv_db_user_read(&step.list.names, step.list.path) == expect_load(step.list));
}

// The three calls that read all templates, and then the data of some lists.
void reload(int32_t (*call)(), bool factory_data, bool other_data)
{
    for (const char *name : kNames)
        release_default_image(record(name));
    FUZZ_CHECK(call() == BV_OK);

    g_families.clear();
    for (List &list : g_lists) {
        for (const std::string &name : list.families)
            if (g_families.count(name) == 0 && g_templates[name].readable)
                g_families[name].read(g_templates[name]);
            else
                g_families[name]; // as it is, or new without parameters
        if (&list == g_lists ? factory_data : other_data)
            expect_load(list);
    }
}

void write_list(List &list, int32_t status)
{
    std::string expected;
    model::File content;
    for (const std::string &name : list.families)
        append(expected,
               "\t" + quoted(name) + ":[\n" + g_families[name].write(content.families[name]) +
                   "\n\t]",
               ",\n");
    expected = "{\n" + expected + "\n}\n";
    FUZZ_CHECK(status == BV_OK);
    FUZZ_CHECK(read_file(list.path) == expected);

    // With an odd template a text may begin in the bytes of a number, and have any character.
    bool harmful = false;
    for (const auto &family : content.families)
        for (const model::Element &element : family.second)
            for (const auto &value : element.values)
                harmful = harmful || harmless(value.second) != value.second;
    list.file = harmful ? model::File{} : content;
    write_data(list, harmful ? "{}" : expected);
}

// ---- instances ----

// Bytes for an image: as many as it has, or some other number.
std::string image_bytes(Step &step)
{
    const uint8_t kind = step.input.byte();
    const size_t size =
        kind < 0xc0 ? static_cast<size_t>(std::max(step.family.size, 1)) : 1 + kind % 64;
    std::string bytes = harmless(step.input.take(std::min<size_t>(size, 1 + kind % 48)));
    bytes.resize(size);
    return bytes;
}

void add(Step &step, bool checked)
{
    const int32_t number = pick(step.input, kNumbers);
    const std::string bytes = image_bytes(step);
    const auto size = static_cast<uint32_t>(bytes.size());
    const bool refused = checked && step.family.find(number) != nullptr;
    const int32_t status =
        checked ? bv_db_inst_add(step.name, bytes.data(), size, static_cast<uint32_t>(number))
                : bv_db_data_add_inst(step.record, bytes.data(), size, number);
    FUZZ_CHECK(status == (refused ? BV_ERR_EXISTS : BV_OK));
    if (!refused)
        step.family.add(number, bytes);
}

void overwrite(Step &step)
{
    const int32_t number = pick(step.input, kNumbers);
    const std::string bytes = image_bytes(step);
    model::Instance *instance = step.family.find(number);
    FUZZ_CHECK(bv_db_write(step.name, bytes.data(), static_cast<uint32_t>(bytes.size()),
                           static_cast<uint32_t>(number)) ==
               (instance == nullptr ? BV_ERR_NO_INSTANCE : BV_OK));
    if (instance != nullptr)
        step.family.store(instance->image, bytes);
}

void remove(Step &step)
{
    const int32_t number = pick(step.input, kNumbers);
    FUZZ_CHECK(bv_db_inst_del(step.name, static_cast<uint32_t>(number)) ==
               (step.family.find(number) == nullptr ? BV_ERR_NO_INSTANCE : BV_OK));
    step.family.remove(number);
}

// What a read leaves in a buffer of so many bytes.
std::string read_copy(const model::Family &family, const std::string &image, size_t size)
{
    if (family.size <= 0)
        return std::string(size, 'z');
    if (size < image.size())
        return std::string(size, '\0');
    return image + std::string(size - image.size(), 'z');
}

void read(Step &step)
{
    const int32_t number = pick(step.input, kNumbers);
    const size_t size = step.input.byte() < 0x80
                            ? static_cast<size_t>(std::max(step.family.size, 1))
                            : 1 + step.input.byte();
    const model::Instance *instance = step.family.find(number);
    const bool found = instance != nullptr || number == 1; // the first one has default values
    const std::string expected =
        !found ? std::string(size, 'z')
               : read_copy(step.family, instance ? instance->image : step.family.defaults, size);

    fuzz::Block buffer(size, 'z');
    FUZZ_CHECK(bv_db_read(step.name, buffer.bytes(), static_cast<uint32_t>(size),
                          static_cast<uint32_t>(number)) == (found ? BV_OK : BV_ERR_NO_INSTANCE));
    FUZZ_CHECK(memcmp(buffer.bytes(), expected.data(), size) == 0);
}

// All instances in list order, up to a number that is there twice: from it a walk goes round.
void walk(Step &step)
{
    const auto size = static_cast<uint32_t>(std::max(step.family.size, 1));
    uint32_t number = 0;
    fuzz::Block buffer(size, 'z');
    int32_t status = bv_db_read_first(step.name, buffer.bytes(), size, &number);
    for (const model::Instance &instance : step.family.instances) {
        FUZZ_CHECK(status == BV_OK && static_cast<int32_t>(number) == instance.number);
        const std::string expected = read_copy(step.family, instance.image, size);
        FUZZ_CHECK(memcmp(buffer.bytes(), expected.data(), size) == 0);
        if (step.family.find(instance.number) != &instance)
            return;
        status = bv_db_read_next(step.name, buffer.bytes(), size, number, &number);
    }
    FUZZ_CHECK(status == BV_ERR_NO_INSTANCE);
}

void count(Step &step)
{
    uint32_t fresh = 0;
    FUZZ_CHECK(bv_db_inst_getnew(step.name, &fresh) == BV_OK);
    FUZZ_CHECK(static_cast<int32_t>(fresh) == step.family.highest + 1);
    FUZZ_CHECK(bv_db_inst_getnum(step.name) == static_cast<int32_t>(step.family.instances.size()));
}

void read_template_again(Step &step)
{
    const model::Template &from = g_templates[step.name];
    if (from.readable)
        release_default_image(step.record);
    FUZZ_CHECK(bv_db_template_read_single(step.name, step.record) ==
               (from.readable ? BV_OK : BV_ERR_FAILED));
    if (from.readable)
        step.family.read(from);
}

// A service changes single parameters by their texts.
void convert(Step &step)
{
    for (size_t i = 0; i < step.family.para.size(); i++) {
        model::Parameter &p = step.family.para[i];
        p.selected = step.input.byte() % 2 == 0;
        p.value = text(step.input);
        step.record->para[i].selected = p.selected ? 1 : 2;
        memcpy(step.record->para[i].value, p.value.c_str(), p.value.size() + 1);
    }
    const int32_t mode = step.input.byte() % 2;
    FUZZ_CHECK(bv_db_user_fill_tomem(step.record, mode) == BV_OK);
    step.family.to_image(mode == 1);
}

// Prints the database, or sets the highest number: the record is public, and the next add corrects
// it.
void dump_or_disturb(Step &step)
{
    if (step.which < 0x80) {
        const uint32_t dump = 7 + step.which % 3;
        FUZZ_CHECK(bv_db_trigger(&dump) == BV_OK);
        return;
    }
    step.family.highest = step.record->inst_max = step.which;
}

// The order is part of the input format.
constexpr void (*kActions[])(Step &) = {
    [](Step &step) { set_template(step.name, step.input); },
    read_template_again,
    [](Step &step) { add(step, true); },
    [](Step &step) { add(step, false); },
    overwrite,
    remove,
    read,
    walk,
    count,
    [](Step &step) { write_list(step.list, bv_db_user_write(&step.list.names, step.list.path)); },
    [](Step &step) { write_list(step.list, step.list.write()); },
    [](Step &) { reload(bv_db_start, true, true); },
    [](Step &) { reload(bv_db_restore, true, false); },
    [](Step &) { reload(bv_db_template, false, false); },
    set_data,
    cut_data,
    read_data,
    convert,
    dump_or_disturb};

void take_step(fuzz::Input &input)
{
    const uint8_t what = input.byte();
    const uint8_t which = input.byte();
    const char *name = kNames[which % 4];
    Step step = {input, which, name, record(name), g_families[name], g_lists[which % 3]};
    kActions[what % std::size(kActions)](step);
}

// Every input begins with these templates and no data files.
void start_over()
{
    constexpr uint8_t kFirst[][12] = {{3, 1, 1, 0, 0, 9, 1, 4, 1, 2, 3, 4},
                                      {2, 0, 8, 7, 3, 1, 9, 0, 0, 0, 0, 0},
                                      {4, 5, 1, 7, 6, 1, 8, 7, 1, 1, 8, 1},
                                      {1, 0, 20, 5, 0, 0, 0, 0, 0, 0, 0, 0}};
    for (size_t i = 0; i < 4; i++) {
        fuzz::Input input(kFirst[i], sizeof kFirst[i]);
        set_template(kNames[i], input);
    }
    for (List &list : g_lists) {
        unlink(list.path);
        list.file = {};
    }
    reload(bv_db_template, false, false);
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::silence_output();
    FUZZ_CHECK(bv_db_init() == BV_OK);
    for (const List &list : g_lists)
        for (const std::string &name : list.families)
            FUZZ_CHECK(list.enter(name.c_str()) == BV_OK);
    for (const char *name : kNames)
        write_file(name, "{\"para\":[]}");
    bv_db_template();
    bv_db_ready();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    start_over();
    fuzz::Input input(data, size);
    for (int steps = 0; steps < 60 && !input.empty(); steps++) {
        take_step(input);
        for (const char *name : kNames)
            check_family(name);
    }
    for (const char *name : kNames)
        bv_db_data_free(record(name));
    return 0;
}
