// What the files of the database share: from links to records, images, walks over registrations.
#ifndef BV_DB_INTERNAL_H
#define BV_DB_INTERNAL_H

#include <bv/db.h>
#include <bv/os.h>

#include "core/list.h"

#include <cstddef>

namespace bv {

// Images are allocated in whole steps of 32 bytes. A size that is 0 or negative (a template may
// claim negative lengths) has no image at all.
inline uint32_t image_allocation(int32_t image_size)
{
    if (image_size <= 0)
        return 0;
    return (static_cast<uint32_t>(image_size) + 31) & ~uint32_t{31};
}

// A zeroed image for a family, or null: no room, or nothing to keep.
inline uint8_t *make_image(int32_t image_size)
{
    uint32_t allocation = image_allocation(image_size);
    if (allocation == 0)
        return nullptr;
    auto *image = static_cast<uint8_t *>(bv_os_malloc(allocation));
    if (image != nullptr)
        bv_os_memset(image, allocation, 0, allocation);
    return image;
}

// The instances of a family. A record that a service made has zeros for links where ours have an
// empty ring.
inline bv_list_head &instances_of(bv_db_family &family)
{
    if (family.inst_list.next == nullptr)
        list_init(family.inst_list);
    return family.inst_list;
}

// Ends the text of a descriptor's or family's field, which a service may have filled whole.
template <size_t Size>
inline void terminate(char (&field)[Size])
{
    field[Size - 1] = '\0';
}

// As above, for all that a data file has of a family.
inline void terminate_texts(bv_db_family &family)
{
    terminate(family.name);
    if (family.para == nullptr)
        return;
    for (int32_t i = 0; i < family.para_count && family.para[i].valid != 0; ++i) {
        terminate(family.para[i].name);
        terminate(family.para[i].value);
    }
}

inline bv_db_reg *registration_of(bv_list_head *link)
{
    return list_record<bv_db_reg>(link, offsetof(bv_db_reg, link));
}

inline bv_db_family *family_of(bv_list_head *link)
{
    return list_record<bv_db_family>(link, offsetof(bv_db_family, link));
}

inline bv_db_inst *instance_of(bv_list_head *link)
{
    return list_record<bv_db_inst>(link, offsetof(bv_db_inst, link));
}

// Finds families one after the other. They are mostly created in the order of registration, so
// the one after the last one found is tried first: a comparison of names instead of a hash over
// the padded key, which would take a quarter of a commit. A record that a service put into the
// table itself is in no list, and ends what is linked.
class FamilyCursor {
public:
    bv_db_family *find(const char *name)
    {
        bv_db_family *family = next_ == &g_st_db_mng.family_list ? nullptr : family_of(next_);
        if (family == nullptr || bv_os_strcmp(family->name, name) != 0)
            family = bv_db_hash_find(name);
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
    for (bv_list_head *link = list.next; link != &list; link = link->next) {
        bv_db_family *family = families.find(registration_of(link)->name);
        if (family != nullptr)
            visit(*family);
    }
}

// As bv_db_user_fill_frommem(), but reads nothing outside the image's `size` bytes; convert.cpp.
void image_to_text(const uint8_t *image, int64_t size, bv_db_para *table, int32_t count);

// Decimal text of a number: up to 11 characters and the NUL.
void number_to_text(int32_t number, char *text);

// As bv_db_data_add_inst(), but leaves the highest number to the caller: a load adds many, and
// walking the list after each would take too long.
int32_t append_instance(bv_db_family &family, const void *buf, uint32_t buflen, int32_t number);

// Copies an image of the family out, as bv_db_data_get_context() does; nothing when it has none.
int32_t copy_image_out(const bv_db_family &family, const uint8_t *image, void *buf,
                       uint32_t buflen);

// Releases what a template gave a family; the default image is left to leak.
void release_parameters(bv_db_family &family);

// Releases a family's instances. A record that never had any keeps its highest number of 0.
void release_instances(bv_db_family &family);

} // namespace bv

#endif
