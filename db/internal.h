// SPDX-License-Identifier: ISC
// What the files of the database share: images, walks over instances, parameters and registrations,
// and the steps that the exported functions take once they have checked their arguments.
#ifndef BV_DB_INTERNAL_H
#define BV_DB_INTERNAL_H

#include <bv/db.h>
#include <bv/os.h>

#include "core/list.h"
#include "os/alloc.h"
#include "os/span.h"

#include <cstddef>

namespace bv {

// Images are allocated in steps of 32 bytes. A size that is 0 or negative (a template may claim
// negative lengths) has no image.
inline uint32_t image_allocation(int32_t image_size)
{
    if (image_size <= 0)
        return 0;
    return (static_cast<uint32_t>(image_size) + 31) & ~uint32_t{31};
}

// A zeroed image for a family; null if memory is short or there is nothing to hold.
inline uint8_t *make_image(int32_t image_size)
{
    const uint32_t allocation = image_allocation(image_size);
    return allocation == 0 ? nullptr : allocate_zeroed<uint8_t>(allocation);
}

// The list of a family's instances. A record that a service made has zeros for links where ours
// have an empty ring.
inline bv_list_head &instance_list(bv_db_family &family)
{
    if (family.inst_list.next == nullptr)
        list_init(family.inst_list);
    return family.inst_list;
}

inline auto instances_of(bv_db_family &family)
{
    return each<bv_db_inst>(instance_list(family));
}

// The descriptors of a table up to the first invalid one, for a range-for loop.
class Parameters {
public:
    struct End {};
    class Iterator {
    public:
        Iterator(bv_db_para *para, bv_db_para *last) : para_(para), last_(last) {}
        bv_db_para &operator*() const { return *para_; }
        void operator++() { ++para_; }
        bool operator!=(End) const { return para_ != last_ && para_->valid != 0; }

    private:
        bv_db_para *para_;
        bv_db_para *last_;
    };

    Parameters(bv_db_para *table, int32_t count)
        : first_(table), last_(table == nullptr || count < 0 ? table : table + count)
    {
    }
    explicit Parameters(const bv_db_family &family) : Parameters(family.para, family.para_count) {}
    Iterator begin() const { return Iterator(first_, last_); }
    static End end() { return End(); }

private:
    bv_db_para *first_;
    bv_db_para *last_;
};

// Ends the text of a descriptor's or family's field: a service may have filled it to the last byte.
template <size_t Size>
inline void terminate(char (&field)[Size])
{
    field[Size - 1] = '\0';
}

// As above, for every text of a family that a data file holds.
inline void terminate_texts(bv_db_family &family)
{
    terminate(family.name);
    for (bv_db_para &para : Parameters(family)) {
        terminate(para.name);
        terminate(para.value);
    }
}

// Finds the family of a name, which must not be null; registry.cpp.
bv_db_family *find_family(const char *name);

// Finds families one after the other. Most are created in the order of registration, so it first
// tries the one after the last one found: comparing names is cheaper than hashing the padded key,
// which would take a quarter of a commit. A record that a service put into the table itself is in
// no list: after it the next one is found by its hash.
class FamilyCursor {
public:
    bv_db_family *find(const char *name)
    {
        const bool at_end = next_ == &g_st_db_mng.family_list;
        bv_db_family *family = at_end ? nullptr : &record_of<bv_db_family>(next_);
        if (family == nullptr || bv_os_strcmp(family->name, name) != 0)
            family = find_family(name);
        if (family != nullptr)
            next_ = family->link.next != nullptr ? family->link.next : &g_st_db_mng.family_list;
        return family;
    }

private:
    bv_list_head *next_ = g_st_db_mng.family_list.next;
};

// Calls visit(family) for each name of a registration list, in order, whose family exists.
template <typename Visit>
inline void for_each_family(bv_list_head &list, Visit visit)
{
    FamilyCursor families;
    for (const bv_db_reg &registration : each<bv_db_reg>(list)) {
        bv_db_family *family = families.find(registration.name);
        if (family != nullptr)
            visit(*family);
    }
}

// Copies a text into room for `size` bytes, at least 1, cut to fit; convert.cpp. In place: names
// and values have a few characters, and measuring and copying each one with calls takes four times
// as long.
void copy_text(char *to, uint32_t size, const char *text);

// As bv_db_user_fill_frommem(), but reads only the image's `size` bytes; convert.cpp.
void image_to_text(const uint8_t *image, size_t size, bv_db_para *table, int32_t count);

// Decimal text of a number: up to 11 characters and the NUL.
void number_to_text(int32_t number, char *text);

// The first instance of a number, the first in the list, and the one after that of a number; null
// if there is none. These and the next five are in instance.cpp.
bv_db_inst *find_instance(bv_db_family &family, int32_t number);
bv_db_inst *first_instance(bv_db_family &family);
bv_db_inst *instance_after(bv_db_family &family, int32_t number);

// As bv_db_data_get_context() and bv_db_data_set_context().
int32_t copy_image_out(const bv_db_family &family, const uint8_t *image, MutableBytes buf);
int32_t copy_image_in(const bv_db_family &family, uint8_t *image, Bytes buf);

// As bv_db_data_add_inst() and bv_db_data_del_inst().
int32_t add_instance(bv_db_family &family, Bytes buf, int32_t number);
void remove_instance(bv_db_family &family, bv_db_inst &instance);

// As add_instance(), but leaves the highest number to the caller: a load adds many instances, and
// walking the list after each would take too long.
int32_t append_instance(bv_db_family &family, Bytes buf, int32_t number);

// Releases what a template gave a family, except the default image, which leaks; registry.cpp.
void release_parameters(bv_db_family &family);

// Releases a family's instances. A record that never had any keeps its highest number of 0.
void release_instances(bv_db_family &family);

} // namespace bv

#endif
