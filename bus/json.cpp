// SPDX-License-Identifier: ISC
// JSON wrappers: arguments and results pass through unchanged.

#include <bv/ubus.h>

json_object *bv_json_object_from_file(const char *path)
{
    return json_object_from_file(path);
}

json_object *bv_json_tokener_parse(const char *str)
{
    return json_tokener_parse(str);
}

json_object *bv_json_object_object_get(const json_object *obj, const char *key)
{
    return json_object_object_get(obj, key);
}

size_t bv_json_object_array_length(const json_object *obj)
{
    return json_object_array_length(obj);
}

json_object *bv_json_object_array_get_idx(const json_object *obj, size_t index)
{
    return json_object_array_get_idx(obj, index);
}

const char *bv_json_object_get_string(json_object *obj)
{
    return json_object_get_string(obj);
}

int32_t bv_json_object_get_int(const json_object *obj)
{
    return json_object_get_int(obj);
}

int bv_json_object_is_type(const json_object *obj, json_type type)
{
    return json_object_is_type(obj, type);
}

int bv_json_object_put(json_object *obj)
{
    return json_object_put(obj);
}
