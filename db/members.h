// Members of a JSON object, looked up in the order in which they usually stand.
//
// Files of ours name parameters in template order, and templates their keys in one order. One
// comparison with the next member then replaces hashing the key, which would cost as much as
// parsing the member did. Any other order works too, at the price of the look-up.
#ifndef BV_DB_MEMBERS_H
#define BV_DB_MEMBERS_H

#include <bv/os.h>
#include <bv/ubus.h>

namespace bv {

class Members {
public:
    // What is no object has no members.
    explicit Members(json_object *object) : object_(object)
    {
        lh_table *table = json_object_get_object(object);
        next_ = table == nullptr ? nullptr : lh_table_head(table);
    }

    // The member's value; null if it is absent or JSON's null.
    json_object *get(const char *key)
    {
        if (next_ == nullptr ||
            bv_os_strcmp(static_cast<const char *>(lh_entry_k(next_)), key) != 0)
            return bv_json_object_object_get(object_, key);
        auto *value = static_cast<json_object *>(const_cast<void *>(lh_entry_v(next_)));
        next_ = lh_entry_next(next_);
        return value;
    }

private:
    json_object *object_;
    lh_entry *next_;
};

} // namespace bv

#endif
