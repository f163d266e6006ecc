// SPDX-License-Identifier: ISC
// The members of a JSON object, in their order, for a range-for loop; none of anything else.
#ifndef TOOLS_COMMON_JSON_MEMBERS_H
#define TOOLS_COMMON_JSON_MEMBERS_H

#include <bv/ubus.h>

namespace tools {

class Members {
public:
    struct Member {
        lh_entry *at;
        const char *name() const { return static_cast<const char *>(lh_entry_k(at)); }
        // Null for JSON's null.
        json_object *value() const { return static_cast<json_object *>(lh_entry_v(at)); }

        const Member &operator*() const { return *this; }
        void operator++() { at = at->next; } // lh_entry_next() is new in json-c 0.16
        bool operator!=(const Member &other) const { return at != other.at; }
    };
    explicit Members(json_object *object)
        : first_(bv_json_object_is_type(object, json_type_object) != 0
                     ? json_object_get_object(object)->head
                     : nullptr)
    {
    }
    Member begin() const { return {first_}; }
    static Member end() { return {nullptr}; }

private:
    lh_entry *first_;
};

} // namespace tools

#endif
