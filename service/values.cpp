// SPDX-License-Identifier: ISC
// Values as text.
//
// Each value is converted alone, by the library, in a room of its own that is cleared before: a
// text never takes along what was after another one's NUL, and a conversion never reads past the
// value's own bytes.

#include "service/internal.h"

#include "tools/template/values.h"

namespace {

using namespace bv::service;

constexpr size_t kRoom = 2 * bv::kParameterTextSize;

bv_db_para g_one; // of the one value that is converted: too large for a small stack
bv_db_family g_family;
uint8_t g_room[kRoom];

} // namespace

const bv_service_family *bv::service::find_listed(const char *family)
{
    for (uint32_t i = 0; g_service != nullptr && i < g_service->n_families; ++i)
        if (strcmp(g_service->families[i].name, family) == 0)
            return &g_service->families[i];
    return nullptr;
}

const bv_db_para *bv::service::find_parameter(const bv_db_family &family, const char *name,
                                              int32_t &position)
{
    position = 0;
    for (const bv_db_para &para : parameters(family)) {
        if (strcmp(para.name, name) == 0)
            return &para;
        position += para.len;
    }
    return nullptr;
}

const char *bv::service::value_text(const bv_db_para &para, const uint8_t *value)
{
    g_one = para;
    memset(g_room, 0, sizeof g_room);
    memcpy(g_room, value, static_cast<size_t>(para.len));
    bv_db_user_fill_frommem(g_room, 1, &g_one);
    return g_one.value;
}

void bv::service::put_value(const bv_db_para &para, uint8_t *value, const char *text)
{
    g_one = para;
    snprintf(g_one.value, sizeof g_one.value, "%s", text);
    memset(g_room, 0, sizeof g_room);
    g_family.para = &g_one;
    g_family.para_count = 1;
    g_family.image_size = para.len;
    g_family.working_image = g_room;
    bv_db_user_fill_tomem(&g_family, 0);
    memcpy(value, g_room, static_cast<size_t>(para.len));
}

bool bv::service::value_fits(const bv_db_para &para, const char *text, size_t length, Words &words)
{
    const ParameterType *type = find_type(para.type);
    tools::Reason why;
    if (type != nullptr && tools::text_survives(text, length, why) &&
        tools::value_fits(*type, para.len, text, why))
        return true;
    words.refuse(0, "%s", type == nullptr ? "its type is unknown" : why.text);
    return false;
}

int32_t bv::service::check_image(const bv_db_family &family, const uint8_t *image, Words &words)
{
    for (const bv_db_para &para : parameters(family)) {
        const auto len = static_cast<size_t>(para.len);
        const ParameterType *type = find_type(para.type);
        if (type == nullptr || type->kind == TypeKind::String) {
            const auto *text = reinterpret_cast<const char *>(image);
            const size_t length = strnlen(text, len);
            tools::Reason why;
            if (length == len)
                return words.refuse(BV_ERR_INVALID,
                                    "%s.%s: the text has no end within its %zu bytes", family.name,
                                    para.name, len);
            if (!tools::text_survives(text, length, why))
                return words.refuse(BV_ERR_INVALID, "%s.%s: %s", family.name, para.name, why.text);
        }
        image += len;
    }
    return BV_OK;
}

int32_t bv::service::set_value(const bv_db_family &family, uint8_t *image, const char *parameter,
                               const char *text, size_t length, Words &words)
{
    int32_t position;
    const bv_db_para *para = find_parameter(family, parameter, position);
    Words why;
    why.refuse(0, "no such parameter");
    if (para == nullptr || !value_fits(*para, text, length, why))
        return words.refuse(BV_ERR_INVALID, "%s.%.80s: %s", family.name, parameter, why.text);
    put_value(*para, image + position, text);
    return BV_OK;
}

int32_t bv::service::set_value(const bv_db_family &family, uint8_t *image,
                               const Members::Member &member, Words &words)
{
    const json_type type = json_object_get_type(member.value);
    const char *text = bv_json_object_get_string(member.value);
    if (text == nullptr || type == json_type_object || type == json_type_array)
        return words.refuse(BV_ERR_INVALID, "%s.%.80s: the value must be a text", family.name,
                            member.name);
    const size_t length = type == json_type_string
                              ? static_cast<size_t>(json_object_get_string_len(member.value))
                              : strlen(text);
    return set_value(family, image, member.name, text, length, words);
}

bool bv::service::same_values(const bv_db_family &family, const uint8_t *a, const uint8_t *b)
{
    for (const bv_db_para &para : parameters(family)) {
        const auto len = static_cast<size_t>(para.len);
        const ParameterType *type = find_type(para.type);
        const bool is_text = type != nullptr && type->kind == TypeKind::String;
        if (is_text ? strncmp(reinterpret_cast<const char *>(a), reinterpret_cast<const char *>(b),
                              len) != 0
                    : memcmp(a, b, len) != 0)
            return false;
        a += len;
        b += len;
    }
    return true;
}

void bv::service::put_instance(Text &out, const bv_db_family &family, const uint8_t *image,
                               int32_t number, bool hidden)
{
    char start[48];
    snprintf(start, sizeof start, "{\"inst\":\"%d\",\"para\":{", number);
    out.put(start);
    bool first = true;
    for (const bv_db_para &para : parameters(family)) {
        if (hidden)
            break;
        if (!first)
            out.put(",", 1);
        first = false;
        out.put_quoted(para.name);
        out.put(":", 1);
        out.put_quoted(value_text(para, image));
        image += para.len;
    }
    out.put("}}", 2);
}
