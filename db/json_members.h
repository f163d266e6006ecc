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
    explicit JsonMembers(json_object *object) : object_(object), next_(nullptr)
    {
        const lh_table *table = json_object_get_object(object);
        if (table != nullptr)
            next_ = table->head;
    }

    // The member's value; null if it is absent or JSON's null.
    json_object *get(const char *key)
    {
        if (next_ == nullptr ||
            bv_os_strcmp(static_cast<const char *>(lh_entry_k(next_)), key) != 0)
            return bv_json_object_object_get(object_, key);
        auto *value = static_cast<json_object *>(lh_entry_v(next_));
        next_ = next_->next;
        return value;
    }

private:
    json_object *object_;
    lh_entry *next_; // null after the last
};

} // namespace bv

#endif
