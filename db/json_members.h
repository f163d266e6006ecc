// SPDX-License-Identifier: ISC
// Members of a JSON object, looked up in their usual order.
//
// Data files name parameters in template order, and templates have one order of keys. So one
// comparison with the next member usually replaces hashing the key, which costs as much as parsing
// the member did: without this, starting the database takes 4 % more instructions. Any other order
// works too, at the price of the look-up.
#ifndef BV_DB_JSON_MEMBERS_H
#define BV_DB_JSON_MEMBERS_H

#include <bv/os.h>
#include <bv/ubus.h>

namespace bv {

class JsonMembers {
public:
    // A value that is not an object has no members.
    explicit JsonMembers(json_object *object)
        : object_(object), next_(json_object_iter_init_default()), left_(0)
    {
        if (bv_json_object_is_type(object, json_type_object) == 0)
            return;
        next_ = json_object_iter_begin(object);
        left_ = json_object_object_length(object);
    }

    // The member's value; null if it is absent or JSON's null.
    json_object *get(const char *key)
    {
        if (left_ == 0 || bv_os_strcmp(json_object_iter_peek_name(&next_), key) != 0)
            return bv_json_object_object_get(object_, key);
        json_object *value = json_object_iter_peek_value(&next_);
        json_object_iter_next(&next_);
        --left_;
        return value;
    }

private:
    json_object *object_;
    json_object_iterator next_;
    int left_; // members from next_ on
};

} // namespace bv

#endif
