// A data file, loaded into the families of the examples and written back.

#include <bv/db.h>
#include <bv/os.h>

#include "fuzz/input.h"

#include <vector>

namespace {

constexpr char kPath[] = "/scratch/data.json";
constexpr char kWritten[] = "/scratch/written.json";
constexpr const char *kFamilies[] = {"lan.json", "wireless.json", "dhcp-host.json", "board.json",
                                     "wan.json"};

// What loading changes in a family and nothing sets back.
struct Snapshot {
    bv_db_family *family;
    std::vector<bv_db_para> para;
    std::string image;
};

std::vector<Snapshot> load_templates()
{
    fuzz::silence_output();
    FUZZ_CHECK(chdir(BV_TEST_SOURCE_DIR "/../examples/template") == 0);
    FUZZ_CHECK(bv_db_init() == BV_OK);
    for (const char *name : kFamilies)
        FUZZ_CHECK(bv_db_reg_user(name) == BV_OK);
    bv_db_template_read(&g_st_db_mng.user_list);

    std::vector<Snapshot> all;
    for (const char *name : kFamilies) {
        bv_db_family *family = bv_db_hash_find(name);
        FUZZ_CHECK(family != nullptr && family->image_size > 0);
        all.push_back({family,
                       {family->para, family->para + family->para_count},
                       {reinterpret_cast<char *>(family->working_image),
                        static_cast<size_t>(family->image_size)}});
    }
    return all;
}

void restore(const Snapshot &before)
{
    bv_db_family *family = before.family;
    bv_db_data_free(family);
    std::copy(before.para.begin(), before.para.end(), family->para);
    memcpy(family->working_image, before.image.data(), before.image.size());
}

void check(bv_db_family *family)
{
    int32_t number = 0;
    int32_t count = 0;
    bv_list_head &list = family->inst_list;
    for (bv_list_head *link = list.next; link != &list; link = link->next)
        ++count;
    FUZZ_CHECK(count == family->inst_count);
    FUZZ_CHECK(family->inst_max == bv_db_data_get_inst_max(family));

    bv_db_inst *first = bv_db_data_get_inst_first(family, &number);
    FUZZ_CHECK((first == nullptr) == (count == 0));
    if (first != nullptr)
        fuzz::touch(first->image, static_cast<size_t>(family->image_size));
    for (int32_t i = 0; i < family->para_count; ++i)
        FUZZ_CHECK(memchr(family->para[i].value, '\0', sizeof family->para[i].value) != nullptr);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::vector<Snapshot> families = load_templates();
    for (const Snapshot &before : families)
        restore(before);

    fuzz::write_file(kPath, std::string(reinterpret_cast<const char *>(data), size));
    bv_db_user_read(&g_st_db_mng.user_list, kPath);
    for (const Snapshot &before : families)
        check(before.family);

    // Nothing is escaped in what is written, so reading it again may fail, but not go wrong.
    FUZZ_CHECK(bv_db_user_write(&g_st_db_mng.user_list, kWritten) == BV_OK);
    bv_db_user_read(&g_st_db_mng.user_list, kWritten);
    for (const Snapshot &before : families)
        check(before.family);
    for (const Snapshot &before : families)
        bv_db_data_free(before.family);
    return 0;
}
