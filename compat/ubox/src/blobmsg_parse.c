// SPDX-License-Identifier: ISC
// Checking and finding fields in bytes that other processes sent. Every length is compared with
// what is known to be readable before anything after it is read.

#include <libubox/blobmsg.h>

// The blob type whose length rules hold for the data of each message type.
static const int kBlobType[__BLOBMSG_TYPE_LAST] = {
    [BLOBMSG_TYPE_UNSPEC] = BLOB_ATTR_UNSPEC, [BLOBMSG_TYPE_ARRAY] = BLOB_ATTR_NESTED,
    [BLOBMSG_TYPE_TABLE] = BLOB_ATTR_NESTED,  [BLOBMSG_TYPE_STRING] = BLOB_ATTR_STRING,
    [BLOBMSG_TYPE_INT64] = BLOB_ATTR_INT64,   [BLOBMSG_TYPE_INT32] = BLOB_ATTR_INT32,
    [BLOBMSG_TYPE_INT16] = BLOB_ATTR_INT16,   [BLOBMSG_TYPE_INT8] = BLOB_ATTR_INT8,
    [BLOBMSG_TYPE_DOUBLE] = BLOB_ATTR_DOUBLE,
};

static bool name_ok(const struct blob_attr *attr, bool name)
{
    if (!blob_is_extended(attr))
        return !name;
    if (blob_len(attr) < sizeof(struct blobmsg_hdr))
        return false;

    const struct blobmsg_hdr *hdr = blob_data(attr);
    unsigned int namelen = blobmsg_namelen(hdr);
    if (name && namelen == 0)
        return false;
    if (blob_len(attr) < (size_t)blobmsg_hdrlen(namelen))
        return false;
    return hdr->name[namelen] == '\0';
}

bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len)
{
    if (len < sizeof(struct blob_attr))
        return false;
    if (blob_raw_len(attr) < sizeof(struct blob_attr) || blob_raw_len(attr) > len)
        return false;
    if (!name_ok(attr, name))
        return false;
    if (blob_id(attr) > BLOBMSG_TYPE_LAST)
        return false;

    return blob_check_type(blobmsg_data(attr), (unsigned int)blobmsg_data_len(attr),
                           kBlobType[blob_id(attr)]);
}

bool blobmsg_check_attr(const struct blob_attr *attr, bool name)
{
    return blobmsg_check_attr_len(attr, name, blob_raw_len(attr));
}

int blobmsg_check_array_len(const struct blob_attr *attr, int type, size_t len)
{
    const struct blob_attr *pos;
    size_t rem;
    int count = 0;

    if (type > BLOBMSG_TYPE_LAST || !blobmsg_check_attr_len(attr, false, len))
        return -1;

    int container = blobmsg_type(attr);
    if (container != BLOBMSG_TYPE_TABLE && container != BLOBMSG_TYPE_ARRAY)
        return -1;

    blobmsg_for_each_attr(pos, attr, rem)
    {
        if (type != BLOBMSG_TYPE_UNSPEC && blobmsg_type(pos) != type)
            return -1;
        if (!blobmsg_check_attr_len(pos, container == BLOBMSG_TYPE_TABLE, rem))
            return -1;
        count++;
    }
    return count;
}

int blobmsg_check_array(const struct blob_attr *attr, int type)
{
    return blobmsg_check_array_len(attr, type, blob_raw_len(attr));
}

bool blobmsg_check_attr_list_len(const struct blob_attr *attr, int type, size_t len)
{
    return blobmsg_check_array_len(attr, type, len) != -1;
}

bool blobmsg_check_attr_list(const struct blob_attr *attr, int type)
{
    return blobmsg_check_array(attr, type) != -1;
}

static void clear_slots(struct blob_attr **tb, int count)
{
    for (int i = 0; i < count; i++)
        tb[i] = NULL;
}

static bool takes_type(const struct blobmsg_policy *policy, unsigned int type)
{
    if (policy->type == BLOBMSG_TYPE_UNSPEC || (unsigned int)policy->type == type)
        return true;

    return policy->type == BLOBMSG_CAST_INT64 && type >= BLOBMSG_TYPE_INT64 &&
           type <= BLOBMSG_TYPE_INT8;
}

static bool takes_name(const struct blobmsg_policy *policy, const struct blobmsg_hdr *hdr)
{
    size_t namelen = blobmsg_namelen(hdr);

    // Longer names can be sent, but by an old agreement among the users of the format they
    // are never found.
    if (policy->name == NULL || namelen > UINT8_MAX || strlen(policy->name) != namelen)
        return false;
    return memcmp(policy->name, hdr->name, namelen) == 0;
}

int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
                  void *data, unsigned int len)
{
    struct blob_attr *attr;
    size_t rem = len;
    clear_slots(tb, policy_len);
    if (data == NULL || len == 0)
        return -EINVAL;

    __blob_for_each_attr(attr, data, rem)
    {
        if (!blobmsg_check_attr_len(attr, false, rem))
            return -1;
        if (!blob_is_extended(attr))
            continue;

        for (int i = 0; i < policy_len; i++) {
            if (tb[i] == NULL && takes_type(&policy[i], blob_id(attr)) &&
                takes_name(&policy[i], blob_data(attr)))
                tb[i] = attr;
        }
    }
    return 0;
}

int blobmsg_parse_array(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
                        void *data, unsigned int len)
{
    struct blob_attr *attr;
    size_t rem = data != NULL ? len : 0;
    int i = 0;

    clear_slots(tb, policy_len);
    __blob_for_each_attr(attr, data, rem)
    {
        if (i >= policy_len)
            break;
        if (policy[i].type != BLOBMSG_TYPE_UNSPEC && blob_id(attr) != policy[i].type)
            continue;
        if (!blobmsg_check_attr_len(attr, false, rem))
            return -1;
        tb[i++] = attr;
    }
    return 0;
}
