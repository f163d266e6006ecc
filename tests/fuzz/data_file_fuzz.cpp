// SPDX-License-Identifier: ISC
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

// A family as its template made it: loading changes it for good.
struct Loaded {
    bv_db_family *family;
    std::vector<bv_db_para> para;
    std::string image;
};
std::vector<Loaded> g_families;

void restore(const Loaded &from)
{
    bv_db_family *family = from.family;
    bv_db_data_free(family);
    std::copy(from.para.begin(), from.para.end(), family->para);
    memcpy(family->working_image, from.image.data(), from.image.size());
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

void read_and_check(const char *path)
{
    bv_db_user_read(&g_st_db_mng.user_list, path);
    for (const Loaded &each : g_families)
        check(each.family);
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::silence_output();
    FUZZ_CHECK(chdir(BV_TEST_SOURCE_DIR "/../examples/template") == 0);
    FUZZ_CHECK(bv_db_init() == BV_OK);
    for (const char *name : kFamilies)
        FUZZ_CHECK(bv_db_reg_user(name) == BV_OK);
    bv_db_template_read(&g_st_db_mng.user_list);
    for (const char *name : kFamilies) {
        bv_db_family *family = bv_db_hash_find(name);
        FUZZ_CHECK(family != nullptr && family->image_size > 0);
        g_families.push_back({family,
                              {family->para, family->para + family->para_count},
                              {reinterpret_cast<char *>(family->working_image),
                               static_cast<size_t>(family->image_size)}});
    }
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    for (const Loaded &each : g_families)
        restore(each);
    write_file(kPath, std::string(reinterpret_cast<const char *>(data), size));
    read_and_check(kPath);

    // Nothing is escaped in what is written, so reading it again may fail, but not go wrong.
    FUZZ_CHECK(bv_db_user_write(&g_st_db_mng.user_list, kWritten) == BV_OK);
    read_and_check(kWritten);
    for (const Loaded &each : g_families)
        bv_db_data_free(each.family);
    return 0;
}
