// SPDX-License-Identifier: ISC
// A template file, read twice into one family, which is written to a data file in between.

#include <bv/db.h>
#include <bv/os.h>

#include "fuzz/input.h"

#include <json-c/json.h>

namespace {

constexpr char kPath[] = "/scratch/template.json";
constexpr char kWritten[] = "/scratch/written.json";

// A sum of lengths that does not fit an image size ends the process on purpose. Only negative
// lengths add up to that: positive ones are below 1024, and there are not enough of them.
bool ends_the_process(const char *path)
{
    json_object *tree = json_object_from_file(path);
    json_object *para = nullptr;
    int64_t sum = 0;
    if (json_object_object_get_ex(tree, "para", &para) &&
        json_object_is_type(para, json_type_array)) {
        for (size_t i = 0; i < json_object_array_length(para); ++i) {
            json_object *len = nullptr;
            json_object_object_get_ex(json_object_array_get_idx(para, i), "len", &len);
            sum += std::min(json_object_get_int(len), 0);
        }
    }
    json_object_put(tree);
    return sum < INT32_MIN;
}

// Default images are never freed, as is known; here they would hide other leaks.
void release_default_image(bv_db_family *family)
{
    bv_os_free(family->default_image);
    family->default_image = nullptr;
}

void check(const bv_db_family *family)
{
    FUZZ_CHECK((family->default_image == nullptr) == (family->image_size <= 0));
    FUZZ_CHECK((family->working_image == nullptr) == (family->image_size <= 0));
    FUZZ_CHECK(family->para_count >= 0);
    for (int32_t i = 0; i < family->para_count; ++i) {
        const bv_db_para &para = family->para[i];
        FUZZ_CHECK(para.valid <= 1 && (para.valid == 0 || para.len < 1024));
        for (const auto *text : {&para.name, &para.type, &para.value})
            FUZZ_CHECK(memchr(*text, '\0', sizeof *text) != nullptr);
    }
    if (family->image_size > 0)
        fuzz::touch(family->default_image, static_cast<size_t>(family->image_size));
}

void use(bv_db_family *family)
{
    const auto size = static_cast<uint32_t>(std::max(family->image_size, 0));
    FUZZ_CHECK(bv_db_data_add_inst(family, family->working_image, size, 1) == BV_OK);
    FUZZ_CHECK(bv_db_user_write(&g_st_db_mng.user_list, kWritten) == BV_OK);
    fuzz::Block image(size);
    bv_db_read("family", image.bytes(), size, 1);
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***)
{
    FUZZ_CHECK(bv_db_init() == BV_OK && bv_db_reg_user("family") == BV_OK);
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    write_file(kPath, std::string(reinterpret_cast<const char *>(data), size));
    if (ends_the_process(kPath))
        return 0;

    bv_db_family *family = bv_db_hash_add("family");
    FUZZ_CHECK(family != nullptr);
    const int32_t first = bv_db_template_read_single(kPath, family);
    check(family);
    if (first == BV_OK)
        use(family);

    release_default_image(family);
    const int32_t second = bv_db_template_read_single(kPath, family);
    FUZZ_CHECK(second == first);
    if (second == BV_OK)
        check(family);
    release_default_image(family);
    bv_db_hash_free();
    return 0;
}
