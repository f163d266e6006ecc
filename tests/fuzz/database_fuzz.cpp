// Sequences of database calls, each compared with a model of the database: families in three lists,
// templates that change, instances, data files written, damaged and read again.
//
// Input: steps. Each is a byte that picks it, and the bytes that it takes.

#include <bv/db.h>
#include <bv/os.h>

#include "fuzz/database_model.h"
#include "fuzz/input.h"

namespace {

constexpr const char *kNames[] = {"/etc/template/a", "/etc/template/b", "/etc/template/c",
                                  "/etc/template/d"};
constexpr const char *kTypes[] = {"string", "uint", "int",  "ushort", "uchar",
                                  "ip",     "mac",  "char", "short",  "blob"};
constexpr int32_t kNumbers[] = {1, 2, 3, 4, 5, 0, -1, 1000, INT32_MIN, INT32_MAX - 1};

// One registration list with its file. Some families are in two.
struct List {
    bv_list_head *names;
    const char *path;
    int32_t (*write)();
    std::vector<std::string> families;
    model::File file;
};

// The three lists in the order in which they are read.
List g_lists[] = {
    {&g_st_db_mng.factory_list, "/config/factory/factory.json", bv_db_factory, {}, {}},
    {&g_st_db_mng.user_list, "/config/work/userdata.json", bv_db_commit, {}, {}},
    {&g_st_db_mng.private_list, "/config/work/privdata.json", bv_db_private, {}, {}}};

std::map<std::string, model::Template> g_templates;
std::map<std::string, model::Family> g_families;

bv_db_family *record(const std::string &name)
{
    bv_db_family *family = bv_db_hash_find(name.c_str());
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

void set_template(const std::string &name, fuzz::Input &input)
{
    model::Template made;
    const uint8_t kind = input.byte();
    made.readable = kind < 0xf0;
    made.elements = kind % 7;
    std::string out = "{\"para\":[";
    for (int32_t i = 0; i < made.elements; i++) {
        model::Parameter p = {"p" + std::to_string(i), pick(input, kTypes), "", 0, false};
        const uint8_t length = input.byte();
        const int32_t odd[] = {0, -1, -3, 1, 5, 40, 1000, 1023, 1024, 5000, -200};
        p.len = p.type == "string" ? length % 24 : model::width_of(p.type);
        if (length >= 0xc0)
            p.len = odd[length % 11];
        p.value = text(input);
        out += (i == 0 ? "{\"name\":\"" : ",{\"name\":\"") + p.name + "\",\"type\":\"" + p.type +
               "\",\"value\":\"" + p.value + "\"";
        if (length != 0)
            out += ",\"len\":" + std::to_string(p.len);
        out += "}";
        if (length != 0 && p.len < 1024)
            made.valid.push_back(p);
    }
    out += "]}";
    fuzz::write_file(name.c_str(), made.readable ? out : kind % 2 == 0 ? "{" : "{\"para\":{}}");
    g_templates[name] = made;
}

// Default images stay allocated for ever, which is known; here it would drown other leaks.
void release_default_image(bv_db_family *family)
{
    bv_os_free(family->default_image);
    family->default_image = nullptr;
}

void check_family(const std::string &name)
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
    const auto same = [](const uint8_t *image, const std::string &bytes) {
        return (image != nullptr) == !bytes.empty() &&
               (bytes.empty() || memcmp(image, bytes.data(), bytes.size()) == 0);
    };
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

void write_data(List &list, const std::string &content)
{
    fuzz::write_file(list.path, content);
    list.file.there = true;
}

// Any data file at all, but a well-formed one.
void set_data(List &list, fuzz::Input &input)
{
    std::string out;
    list.file = {};
    for (const std::string &name : list.families) {
        const uint8_t kind = input.byte();
        if (kind >= 0xe0) // absent, and as good as absent
            out += kind % 2 == 0 ? "" : (out.empty() ? "\"" : ",\"") + name + "\":null";
        if (kind >= 0xe0)
            continue;
        std::vector<model::Element> &elements = list.file.families[name];
        out += (out.empty() ? "\"" : ",\"") + name + "\":[{\"inst\":\"7\"},null";
        for (int i = kind % 6; i > 0; i--) {
            model::Element element = {pick(input, kNumbers), {}};
            const uint8_t which = input.byte();
            std::string values;
            for (int p = 0; p < 7; p++)
                if ((which >> p & 1) != 0)
                    element.values.emplace_back("p" + std::to_string(p), text(input));
            for (const auto &value : element.values)
                values +=
                    (values.empty() ? "\"" : ",\"") + value.first + "\":\"" + value.second + "\"";
            const std::string number = std::to_string(element.number);
            out += ",{\"inst\":" + ((which & 0x80) == 0 ? number : "\"" + number + "\"") +
                   ",\"para\":{" + values + "}}";
            elements.push_back(element);
        }
        out += "]";
    }
    write_data(list, "{" + out + "}");
}

// A file that power or disk failed to complete.
void cut_data(List &list, uint8_t where)
{
    const std::string content = fuzz::read_file(list.path);
    const size_t end = content.rfind('}');
    if (end == std::string::npos)
        return;
    write_data(list, content.substr(0, end * where / 256));
    list.file.readable = false;
}

int32_t expect_load(const List &list)
{
    if (!list.file.there || !list.file.readable)
        return -1;
    for (const std::string &name : list.families)
        g_families[name].load(name, list.file);
    return BV_OK;
}

// What bv_db_start() reads of each list, or what the other two do.
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

void write_list(List &list, bool by_path)
{
    std::string expected = "{\n";
    model::File content;
    for (const std::string &name : list.families) {
        expected += (&name == &list.families[0] ? "\t\"" : ",\n\t\"") + name + "\":[\n";
        expected += g_families[name].write(content.families[name]) + "\n\t]";
    }
    expected += "\n}\n";
    FUZZ_CHECK((by_path ? bv_db_user_write(list.names, list.path) : list.write()) == BV_OK);
    FUZZ_CHECK(fuzz::read_file(list.path) == expected);

    // An odd template lets a text begin in a number's bytes: any character may come of that.
    bool harmful = false;
    for (const auto &family : content.families)
        for (const model::Element &element : family.second)
            for (const auto &value : element.values)
                harmful = harmful || harmless(value.second) != value.second;
    list.file = harmful ? model::File{} : content;
    write_data(list, harmful ? "{}" : expected);
}

// Bytes for an image: as many as it has, or some other number.
std::string image_bytes(const model::Family &family, fuzz::Input &input)
{
    const uint8_t kind = input.byte();
    const size_t size = kind < 0xc0 ? static_cast<size_t>(std::max(family.size, 1)) : 1 + kind % 64;
    std::string bytes = harmless(input.take(std::min<size_t>(size, 1 + kind % 48)));
    bytes.resize(size);
    return bytes;
}

void add(const std::string &name, model::Family &family, fuzz::Input &input, bool checked)
{
    const int32_t number = pick(input, kNumbers);
    const std::string bytes = image_bytes(family, input);
    const auto size = static_cast<uint32_t>(bytes.size());
    if (checked && family.find(number) != nullptr) {
        FUZZ_CHECK(bv_db_inst_add(name.c_str(), bytes.data(), size,
                                  static_cast<uint32_t>(number)) == BV_ERR_EXISTS);
        return;
    }
    FUZZ_CHECK(
        (checked ? bv_db_inst_add(name.c_str(), bytes.data(), size, static_cast<uint32_t>(number))
                 : bv_db_data_add_inst(record(name), bytes.data(), size, number)) == BV_OK);
    family.add(number, bytes);
}

void overwrite(const std::string &name, model::Family &family, fuzz::Input &input)
{
    const int32_t number = pick(input, kNumbers);
    const std::string bytes = image_bytes(family, input);
    model::Instance *instance = family.find(number);
    FUZZ_CHECK(bv_db_write(name.c_str(), bytes.data(), static_cast<uint32_t>(bytes.size()),
                           static_cast<uint32_t>(number)) ==
               (instance == nullptr ? BV_ERR_NO_INSTANCE : BV_OK));
    if (instance != nullptr)
        family.store(instance->image, bytes);
}

void remove(const std::string &name, model::Family &family, int32_t number)
{
    model::Instance *instance = family.find(number);
    FUZZ_CHECK(bv_db_inst_del(name.c_str(), static_cast<uint32_t>(number)) ==
               (instance == nullptr ? BV_ERR_NO_INSTANCE : BV_OK));
    if (instance == nullptr)
        return;
    family.instances.erase(family.instances.begin() + (instance - family.instances.data()));
    family.measure();
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

void read(const std::string &name, model::Family &family, fuzz::Input &input)
{
    const int32_t number = pick(input, kNumbers);
    const size_t size =
        input.byte() < 0x80 ? static_cast<size_t>(std::max(family.size, 1)) : 1 + input.byte();
    const model::Instance *instance = family.find(number);
    std::string expected(size, 'z');
    if (instance != nullptr)
        expected = read_copy(family, instance->image, size);
    else if (number == 1)
        expected = read_copy(family, family.defaults, size);

    fuzz::Block buffer(size, 'z');
    FUZZ_CHECK(bv_db_read(name.c_str(), buffer.bytes(), static_cast<uint32_t>(size),
                          static_cast<uint32_t>(number)) ==
               (instance == nullptr && number != 1 ? BV_ERR_NO_INSTANCE : BV_OK));
    FUZZ_CHECK(memcmp(buffer.bytes(), expected.data(), size) == 0);
}

// All instances in list order, as far as no number is there twice: then a walk goes round.
void walk(const std::string &name, model::Family &family)
{
    const auto size = static_cast<size_t>(std::max(family.size, 1));
    uint32_t number = 0;
    fuzz::Block buffer(size, 'z');
    int32_t status =
        bv_db_read_first(name.c_str(), buffer.bytes(), static_cast<uint32_t>(size), &number);
    for (const model::Instance &instance : family.instances) {
        FUZZ_CHECK(status == BV_OK && static_cast<int32_t>(number) == instance.number);
        const std::string expected = read_copy(family, instance.image, size);
        FUZZ_CHECK(memcmp(buffer.bytes(), expected.data(), size) == 0);
        if (family.find(instance.number) != &instance)
            return;
        status = bv_db_read_next(name.c_str(), buffer.bytes(), static_cast<uint32_t>(size), number,
                                 &number);
    }
    FUZZ_CHECK(status == BV_ERR_NO_INSTANCE);
}

void read_template_again(const std::string &name, model::Family &family)
{
    const model::Template &from = g_templates[name];
    if (from.readable)
        release_default_image(record(name));
    FUZZ_CHECK(bv_db_template_read_single(name.c_str(), record(name)) ==
               (from.readable ? BV_OK : BV_ERR_FAILED));
    if (from.readable)
        family.read(from);
}

// A service changes single parameters by their texts.
void convert(const std::string &name, model::Family &family, fuzz::Input &input)
{
    bv_db_family *its = record(name);
    for (size_t i = 0; i < family.para.size(); i++) {
        model::Parameter &p = family.para[i];
        p.selected = input.byte() % 2 == 0;
        p.value = text(input);
        its->para[i].selected = p.selected ? 1 : 2;
        memcpy(its->para[i].value, p.value.c_str(), p.value.size() + 1);
    }
    const int32_t mode = input.byte() % 2;
    FUZZ_CHECK(bv_db_user_fill_tomem(its, mode) == BV_OK);
    family.to_image(mode == 1);
}

void numbers(const std::string &name, const model::Family &family)
{
    uint32_t fresh = 0;
    FUZZ_CHECK(bv_db_inst_getnew(name.c_str(), &fresh) == BV_OK);
    FUZZ_CHECK(static_cast<int32_t>(fresh) == family.highest + 1);
    FUZZ_CHECK(bv_db_inst_getnum(name.c_str()) == static_cast<int32_t>(family.instances.size()));
}

void step(fuzz::Input &input)
{
    const uint8_t what = input.byte();
    const uint8_t which = input.byte();
    const std::string name = kNames[which % 4];
    List &list = g_lists[which % 3];
    model::Family &family = g_families[name];
    switch (what % 19) {
    case 0:
        return set_template(name, input);
    case 1:
        return read_template_again(name, family);
    case 2:
    case 3:
        return add(name, family, input, what % 19 == 2);
    case 4:
        return overwrite(name, family, input);
    case 5:
        return remove(name, family, pick(input, kNumbers));
    case 6:
        return read(name, family, input);
    case 7:
        return walk(name, family);
    case 8:
        return numbers(name, family);
    case 9:
    case 10:
        return write_list(list, what % 19 == 9);
    case 11:
        return reload(bv_db_start, true, true);
    case 12:
        return reload(bv_db_restore, true, false);
    case 13:
        return reload(bv_db_template, false, false);
    case 14:
        return set_data(list, input);
    case 15:
        return cut_data(list, input.byte());
    case 16:
        FUZZ_CHECK(bv_db_user_read(list.names, list.path) == expect_load(list));
        return;
    case 17:
        return convert(name, family, input);
    default:
        if (which < 0x80) {
            const uint32_t dump = 7 + which % 3;
            FUZZ_CHECK(bv_db_trigger(&dump) == BV_OK);
            return;
        }
        family.highest = which; // the record is public; the next add sets it right
        record(name)->inst_max = which;
    }
}

void start_once()
{
    fuzz::silence_output();
    FUZZ_CHECK(bv_db_init() == BV_OK);
    g_lists[0].families = {kNames[0], kNames[1]};
    g_lists[1].families = {kNames[1], kNames[2]};
    g_lists[2].families = {kNames[3], kNames[2]};
    for (const List &list : g_lists)
        for (const std::string &name : list.families)
            FUZZ_CHECK((list.names == &g_st_db_mng.factory_list ? bv_db_reg_factory(name.c_str())
                        : list.names == &g_st_db_mng.user_list
                            ? bv_db_reg_user(name.c_str())
                            : bv_db_reg_private(name.c_str())) == BV_OK);
    for (const char *name : kNames)
        fuzz::write_file(name, "{\"para\":[]}");
    bv_db_template();
    bv_db_ready();
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

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool started = (start_once(), true);
    FUZZ_CHECK(started);
    start_over();
    fuzz::Input input(data, size);
    for (int steps = 0; steps < 60 && !input.empty(); steps++) {
        step(input);
        for (const char *name : kNames)
            check_family(name);
    }
    for (const char *name : kNames)
        bv_db_data_free(record(name));
    return 0;
}
