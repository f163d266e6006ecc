// SPDX-License-Identifier: ISC
// Values as text.
//
// Each value is converted alone, by the library, in a room of its own that is cleared before as far
// as the value goes: a text never takes along what was after another one's NUL, and a conversion
// never reads past the value's own bytes.

#include "service/internal.h"

#include "tools/template/values.h"

namespace {

using namespace bv::service;

constexpr size_t kRoom = 2 * bv::kParameterTextSize;

// As much of a type's name as tells it from the others; a zero byte is always after it.
constexpr size_t kTypeSize = 8;
static_assert(kTypeSize > sizeof(bv::ParameterType::name),
              "it holds every name of a type and a zero byte");

bv_db_para g_one; // of the one value that is converted: too large for a small stack
bv_db_family g_family;
uint8_t g_room[kRoom];

const bv_service_family *find_family(const char *name, size_t length)
{
    for (const bv_service_family &listed : families())
        if (strncmp(listed.name, name, length) == 0 && listed.name[length] == '\0')
            return &listed;
    return nullptr;
}

// The type is known unless a handler has read another template since the start.
bool is_string(const bv_db_para &para)
{
    const bv::ParameterType *type = bv::find_type(para.type);
    return type == nullptr || type->kind == bv::TypeKind::String;
}

// Takes of the descriptor what a conversion needs: all of it would be 3 KB for each value.
void prepare(const bv_db_para &para)
{
    g_one.valid = 1;
    g_one.len = para.len;
    memcpy(g_one.type, para.type, kTypeSize);
    g_one.value[0] = '\0';
    memset(g_room, 0, static_cast<size_t>(para.len) + 1);
}

void put_value(const bv_db_para &para, uint8_t *value, const char *text)
{
    prepare(para);
    snprintf(g_one.value, sizeof g_one.value, "%s", text);
    g_family.para = &g_one;
    g_family.para_count = 1;
    g_family.image_size = para.len;
    g_family.working_image = g_room;
    bv_db_user_fill_tomem(&g_family, 0);
    memcpy(value, g_room, static_cast<size_t>(para.len));
}

// The descriptor of a parameter with its place in the image; null if there is none of that name.
const bv_db_para *find_parameter(const Family &family, const char *name, int32_t &position)
{
    position = 0;
    for (const bv_db_para &para : parameters(family)) {
        if (strcmp(para.name, name) == 0)
            return &para;
        position += para.len;
    }
    return nullptr;
}

} // namespace

bool bv::service::is_stored(uint32_t store, const char *name, size_t length)
{
    const bv_service_family *listed = find_family(name, length);
    return listed != nullptr && listed->store == store;
}

const bv_service_family *bv::service::find_listed(const char *family, Words &words)
{
    const char *name = family != nullptr ? family : "";
    const bv_service_family *listed =
        g_service != nullptr ? find_family(name, strlen(name)) : nullptr;
    if (listed == nullptr)
        words.refuse(0, "%.80s: the service does not have this family", name);
    return listed;
}

const char *bv::service::value_text(const bv_db_para &para, const uint8_t *value)
{
    prepare(para);
    memcpy(g_room, value, static_cast<size_t>(para.len));
    bv_db_user_fill_frommem(g_room, 1, &g_one);
    return g_one.value;
}

int32_t bv::service::check_image(const Family &family, const uint8_t *image, Words &words)
{
    for (const bv_db_para &para : parameters(family)) {
        const auto *text = reinterpret_cast<const char *>(image);
        const auto len = static_cast<size_t>(para.len);
        tools::Reason why;
        if (is_string(para) && memchr(text, '\0', len) == nullptr)
            why.set("the text has no end within its %zu bytes", len);
        else if (!is_string(para) || tools::text_survives(text, strlen(text), why))
            why.text[0] = '\0';
        if (why.text[0] != '\0')
            return words.refuse(BV_ERR_INVALID, "%s.%s: %s", family.name(), para.name, why.text);
        image += len;
    }
    return BV_OK;
}

int32_t bv::service::set_value(const Family &family, uint8_t *image, const Members::Member &member,
                               Words &words)
{
    int32_t position;
    size_t length;
    tools::Reason why;
    const bv_db_para *para = find_parameter(family, member.name(), position);
    const char *text = text_of(member.value(), length);
    const ParameterType *type = para != nullptr ? find_type(para->type) : nullptr;
    if (type == nullptr) {
        why.set("no such parameter");
    } else if (text == nullptr) {
        why.set("the value must be a text");
    } else if (tools::text_survives(text, length, why) &&
               tools::value_fits(*type, para->len, text, why)) {
        put_value(*para, image + position, text);
        return BV_OK;
    }
    if (para != nullptr)
        memcpy(image + position, family.record->default_image + position,
               static_cast<size_t>(para->len));
    return words.refuse(BV_ERR_INVALID, "%s.%.80s: %s", family.name(), member.name(), why.text);
}

bool bv::service::same_values(const Family &family, const uint8_t *a, const uint8_t *b)
{
    for (const bv_db_para &para : parameters(family)) {
        const auto len = static_cast<size_t>(para.len);
        const int difference = is_string(para) ? strncmp(reinterpret_cast<const char *>(a),
                                                         reinterpret_cast<const char *>(b), len)
                                               : memcmp(a, b, len);
        if (difference != 0)
            return false;
        a += len;
        b += len;
    }
    return true;
}

void bv::service::put_instance(Text &out, const Family &family, int32_t number,
                               const uint8_t *image)
{
    out.item("{\"inst\":\"%" PRId32 "\",\"para\":{", number);
    for (const bv_db_para &para : parameters(family)) {
        if (family.is_hidden())
            break;
        out.item("\"%s\":", para.name);
        out.quote(value_text(para, image));
        image += para.len;
    }
    out.put("}}");
}
