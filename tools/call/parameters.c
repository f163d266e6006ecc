/*
 * Parameters by name. The library converts them, with the template that services use, so that what
 * is sent and shown here is what its database would store and write.
 */
#include "call/parameters.h"

#include <string.h>
#include <unistd.h>

#include <bv/bv.h>

#include "common/visible.h"
#include "template/values.h"

/*
 * How far a template can lead beyond the beginning of its image: the library reads types in their
 * own width and texts up to their NUL, whatever the lengths say.
 */
enum { REACH = 425 * 1023 + 1024 };

static bv_db_family family;
static const char *template_name; /* as given */

static bool fail(const char *what, const char *why)
{
    fprintf(stderr, "bv-call: %s: %s\n", what, why);
    return false;
}

static size_t image_size(void)
{
    return (size_t)family.image_size;
}

/* The lengths of the parameters, added up by the library, end the process below 32 bits. */
static bool lengths_add_up(struct json_object *para)
{
    int64_t sum = 0;
    size_t i;

    if (bv_json_object_is_type(para, json_type_array) == 0)
        return true;
    for (i = 0; i < bv_json_object_array_length(para); i++) {
        int32_t len = bv_json_object_get_int(
            bv_json_object_object_get(bv_json_object_array_get_idx(para, i), "len"));

        sum += len < 0 ? len : 0;
    }
    return sum >= INT32_MIN;
}

static bool read_template(const char *path)
{
    struct json_object *tree = bv_json_object_from_file(path);
    bool readable = tree != NULL && lengths_add_up(bv_json_object_object_get(tree, "para"));

    bv_json_object_put(tree);
    return readable && bv_db_template_read_single(path, &family) == BV_OK;
}

bool parameters_open(const char *name)
{
    char in_folder[1024];
    const char *path = name;

    template_name = name;
    if (access(path, F_OK) != 0) {
        snprintf(in_folder, sizeof(in_folder), "/etc/template/%s", name);
        path = in_folder;
        if (access(path, F_OK) != 0)
            return fail(name, "there is no such template, nor one in /etc/template");
    }
    if (!read_template(path))
        return fail(path, "cannot be read as a template");
    if (family.image_size <= 0 || family.default_image == NULL)
        return fail(path, "has no parameters");
    return true;
}

bool parameters_place(struct bytes *bytes, size_t offset)
{
    size_t end = offset + image_size(); /* both are far below what would wrap */
    size_t given;

    if (end > BYTES_MAX)
        return fail("--offset", "the image does not fit into a call");
    given = bytes->length > offset ? bytes->length - offset : 0;
    if (given < image_size())
        memcpy(bytes->data + offset + given, family.default_image + given, image_size() - given);
    if (bytes->length < end)
        bytes->length = end;
    return true;
}

/* The parameter whose name is the first `length` bytes of a text. */
static bv_db_para *find(const char *name, size_t length)
{
    int32_t i;

    for (i = 0; i < family.para_count && family.para[i].valid != 0; i++)
        if (strlen(family.para[i].name) == length && memcmp(family.para[i].name, name, length) == 0)
            return &family.para[i];
    return NULL;
}

/* The library would store something else instead; here it is a slip of whoever types. */
static bool check_value(const bv_db_para *para, const char *assignment, const char *value)
{
    const struct value_type *type = value_type_find(para->type);
    char why[WHY_SIZE];

    if (type == NULL)
        return fail(assignment, "the template gives it a type that nothing converts to");
    return value_fits(type, para->len, value, why) ? true : fail(assignment, why);
}

bool parameters_set(struct bytes *bytes, size_t offset, const char *assignment)
{
    const char *equals = strchr(assignment, '=');
    bv_db_para *para = equals == NULL ? NULL : find(assignment, (size_t)(equals - assignment));

    if (para == NULL)
        return fail(assignment, equals == NULL ? "is not of the form NAME=VALUE"
                                               : "the template has no such parameter");
    if (!check_value(para, assignment, equals + 1))
        return false;
    bv_os_strcpy(para->value, sizeof(para->value), equals + 1);

    para->selected = 1;
    memcpy(family.working_image, bytes->data + offset, image_size());
    bv_db_user_fill_tomem(&family, 1); /* the selected one only */
    memcpy(bytes->data + offset, family.working_image, image_size());
    para->selected = 0;
    return true;
}

bool parameters_print(const struct bytes *bytes, size_t offset)
{
    static uint8_t image[REACH]; /* zero after the image */
    int32_t i;

    if (bytes->length < offset + image_size())
        return fail(template_name, "less came back than the family's image");
    memcpy(image, bytes->data + offset, image_size());
    bv_db_user_fill_frommem(image, family.para_count, family.para);
    for (i = 0; i < family.para_count && family.para[i].valid != 0; i++) {
        const bv_db_para *para = &family.para[i];

        print_visible(stdout, (const uint8_t *)para->name, strlen(para->name));
        putchar('=');
        print_visible(stdout, (const uint8_t *)para->value, strlen(para->value));
        putchar('\n');
    }
    return true;
}
