// SPDX-License-Identifier: ISC
// Reads every input of vectors.txt from memory that ends at an unreadable page and compares what is
// found. Lengths of malformed headers that wrap are compared as they are.

#include "guarded_attr.h"
#include "vector_file.h"

#include <functional>
#include <gtest/gtest.h>
#include <libubox/blobmsg.h>
#include <map>

namespace {

// Runs one check for each vector of a kind, and makes sure that none is missing.
void for_each_vector(const char *kind, size_t expected,
                     const std::function<void(const Vector &, const GuardedAttr &)> &check)
{
    std::vector<Vector> vectors = load_vectors(kind);

    EXPECT_EQ(vectors.size(), expected);
    for (const Vector &vector : vectors) {
        SCOPED_TRACE(vector.name);
        check(vector, GuardedAttr(bytes_of(vector.text("in"))));
    }
}

std::string offset(const GuardedAttr &in, const void *at)
{
    return std::to_string(static_cast<const uint8_t *>(at) - in.data());
}

std::string joined(const Words &words)
{
    std::string line;

    for (size_t i = 1; i < words.size(); i++)
        line += (i > 1 ? " " : "") + words[i];
    return line;
}

std::string slots(const GuardedAttr &in, const std::vector<blob_attr *> &tb)
{
    std::string line;

    for (const blob_attr *attr : tb)
        line += (line.empty() ? "" : " ") + (attr ? offset(in, attr) : "-");
    return line;
}

std::string signed_len(size_t len)
{
    return std::to_string(static_cast<ssize_t>(len));
}

TEST(ReadVectors, AccessorsLocateEveryPart)
{
    for_each_vector("attr", 17, [](const Vector &v, const GuardedAttr &in) {
        const blob_attr *attr = in.attr();
        std::map<std::string, std::string> found = {
            {"id", std::to_string(blob_id(attr))},
            {"raw", std::to_string(blob_raw_len(attr))},
            {"len", signed_len(blob_len(attr))},
            {"pad", std::to_string(blob_pad_len(attr))},
            {"ext", std::to_string(blob_is_extended(attr))},
            {"next", offset(in, blob_next(attr))},
        };

        if (v.find("mtype")) {
            found["mtype"] = std::to_string(blobmsg_type(attr));
            found["mname"] = offset(in, blobmsg_name(attr));
            found["mdata"] = offset(in, blobmsg_data(attr));
            found["mlen"] = signed_len(blobmsg_data_len(attr));
            EXPECT_EQ(blobmsg_len(attr), blobmsg_data_len(attr));
        }
        for (const Words &line : v.lines) {
            if (line[0] != "in" && line[0] != "note") {
                EXPECT_EQ(found[line[0]], line[1]) << line[0];
            }
        }
    });
}

std::string read_value(const std::string &reader, blob_attr *attr)
{
    if (reader == "u8")
        return std::to_string(blobmsg_get_u8(attr));
    if (reader == "bool")
        return std::to_string(blobmsg_get_bool(attr));
    if (reader == "u16")
        return std::to_string(blobmsg_get_u16(attr));
    if (reader == "u32")
        return std::to_string(blobmsg_get_u32(attr));
    if (reader == "u64")
        return std::to_string(blobmsg_get_u64(attr));
    if (reader == "cast_u64")
        return std::to_string(blobmsg_cast_u64(attr));
    if (reader == "cast_s64")
        return std::to_string(blobmsg_cast_s64(attr));
    if (reader == "string")
        return "\"" + std::string(blobmsg_get_string(attr)) + "\"";
    if (reader == "blob_u8")
        return std::to_string(blob_get_u8(attr));
    if (reader == "blob_u16")
        return std::to_string(blob_get_u16(attr));
    if (reader == "blob_u32")
        return std::to_string(blob_get_u32(attr));
    if (reader == "blob_u64")
        return std::to_string(blob_get_u64(attr));
    return "unknown reader " + reader;
}

TEST(ReadVectors, ReadersGiveTheValues)
{
    for_each_vector("get", 24, [](const Vector &v, const GuardedAttr &in) {
        if (v.text("as") == "double") {
            EXPECT_EQ(blobmsg_get_double(in.attr()), strtod(v.text("value").c_str(), nullptr));
        } else {
            EXPECT_EQ(read_value(v.text("as"), in.attr()), v.text("value"));
        }
    });
}

TEST(ReadVectors, NameHeadersHaveTheseLengths)
{
    for_each_vector("hdrlen", 17, [](const Vector &v, const GuardedAttr &) {
        EXPECT_EQ(blobmsg_hdrlen(static_cast<unsigned int>(v.number("namelen"))), v.number("ret"));
    });
}

void expect_walk(const Vector &v, const std::string &at, long long count, long long rem)
{
    EXPECT_EQ(at, joined(*v.find("at")));
    EXPECT_EQ(count, v.number("count"));
    EXPECT_EQ(rem, v.number("rem"));
}

// Walks are written with an int or with a size_t for the rest; both must do.
template <typename Rem>
void walk(const Vector &v, const GuardedAttr &in)
{
    blob_attr *pos;
    Rem rem;
    long long count = 0;
    std::string at;

    if (v.kind == "iter") {
        blob_for_each_attr(pos, in.attr(), rem)
        {
            at += (count++ ? " " : "") + offset(in, pos);
        }
    } else {
        blobmsg_for_each_attr(pos, in.attr(), rem)
        {
            at += (count++ ? " " : "") + offset(in, pos);
        }
    }
    expect_walk(v, at, count, static_cast<long long>(rem));
}

TEST(ReadVectors, WalksVisitTheseAttributes)
{
    for (const char *kind : {"iter", "msgiter"}) {
        for_each_vector(kind, kind[0] == 'i' ? 9 : 3, [](const Vector &v, const GuardedAttr &in) {
            walk<int>(v, in);
            walk<unsigned int>(v, in);
            walk<size_t>(v, in);
        });
    }
}

TEST(ReadVectors, TypesAcceptTheseLengths)
{
    for_each_vector("check_type", 29, [](const Vector &v, const GuardedAttr &in) {
        EXPECT_EQ(blob_check_type(in.data(), static_cast<unsigned int>(in.size()),
                                  static_cast<int>(v.number("type"))),
                  v.number("ret") != 0);
    });
}

TEST(ReadVectors, ChecksTellWellFormedFieldsFromOthers)
{
    for (const char *kind : {"check_attr", "check_attr_len"}) {
        for_each_vector(kind, kind[10] ? 6 : 52, [](const Vector &v, const GuardedAttr &in) {
            size_t len = static_cast<size_t>(v.number("alen", static_cast<long long>(in.size())));

            for (const Words &line : v.lines) {
                if (line[0] != "ret")
                    continue;
                bool name = line[1] == "name=1";
                EXPECT_EQ(v.kind == "check_attr" ? blobmsg_check_attr(in.attr(), name)
                                                 : blobmsg_check_attr_len(in.attr(), name, len),
                          line[2] == "1")
                    << line[1];
            }
        });
    }
}

TEST(ReadVectors, ArraysHaveThisManyElements)
{
    for_each_vector("check_array", 10, [](const Vector &v, const GuardedAttr &in) {
        int type = static_cast<int>(v.number("type"));

        EXPECT_EQ(blobmsg_check_array(in.attr(), type), v.number("ret"));
        EXPECT_EQ(blobmsg_check_array_len(in.attr(), type, in.size()), v.number("ret"));
        EXPECT_EQ(blobmsg_check_attr_list(in.attr(), type), v.number("ret") != -1);
        EXPECT_EQ(blobmsg_check_attr_list_len(in.attr(), type, in.size()), v.number("ret") != -1);
    });
}

std::vector<blob_attr_info> infos(const Vector &v, size_t max)
{
    std::vector<blob_attr_info> infos(max);

    for (const Words &line : v.lines) {
        if (line[0] != "info")
            continue;
        size_t id = strtoul(line[1].c_str(), nullptr, 10);
        if (id >= infos.size())
            infos.resize(id + 1);
        blob_attr_info &info = infos[id];
        info.type = static_cast<unsigned int>(strtoul(line[2].c_str(), nullptr, 10));
        info.minlen = static_cast<unsigned int>(strtoul(line[3].c_str(), nullptr, 10));
        info.maxlen = static_cast<unsigned int>(strtoul(line[4].c_str(), nullptr, 10));
        if (line.size() > 5 && line[5] == "true")
            info.validate = [](const blob_attr_info *, blob_attr *) { return true; };
        else if (line.size() > 5)
            info.validate = [](const blob_attr_info *, blob_attr *) { return false; };
    }
    return infos;
}

TEST(ReadVectors, ChildrenAreSortedById)
{
    for_each_vector("blob_parse", 57, [](const Vector &v, const GuardedAttr &in) {
        size_t max = static_cast<size_t>(v.number("max"));
        std::vector<blob_attr_info> table = infos(v, max);
        std::vector<blob_attr *> tb(max, in.attr());

        EXPECT_EQ(blob_parse(in.attr(), tb.data(), v.find("info") ? table.data() : nullptr,
                             static_cast<int>(max)),
                  v.number("ret"));
        EXPECT_EQ(slots(in, tb), joined(*v.find("tb")));
    });
}

TEST(ReadVectors, ReceivedChildrenAreSortedByIdWithinTheirLength)
{
    for_each_vector("blob_parse_untrusted", 13, [](const Vector &v, const GuardedAttr &in) {
        size_t max = static_cast<size_t>(v.number("max"));
        size_t len = static_cast<size_t>(v.number("alen", static_cast<long long>(in.size())));
        std::vector<blob_attr_info> table = infos(v, max);
        blob_attr *const untouched = in.attr();
        std::vector<blob_attr *> tb(max, untouched);
        bool null = v.text("in") == "NULL";

        EXPECT_EQ(blob_parse_untrusted(null ? nullptr : in.attr(), len, tb.data(),
                                       v.find("info") ? table.data() : nullptr,
                                       static_cast<int>(max)),
                  v.number("ret"));
        if (v.text("tb") == "untouched") {
            EXPECT_EQ(tb, std::vector<blob_attr *>(max, untouched));
        } else {
            EXPECT_EQ(slots(in, tb), joined(*v.find("tb")));
        }
    });
}

struct Policies {
    std::vector<std::optional<std::string>> names;
    std::vector<blobmsg_policy> entries;
};

void read_policies(const Vector &v, Policies *p)
{
    std::vector<int> types;

    for (const Words &line : v.lines) {
        if (line[0] != "policy")
            continue;
        p->names.push_back(string_of(line[1]));
        types.push_back(static_cast<int>(strtol(line[2].c_str(), nullptr, 10)));
    }
    for (size_t i = 0; i < types.size(); i++)
        p->entries.push_back({p->names[i] ? p->names[i]->c_str() : nullptr,
                              static_cast<enum blobmsg_type>(types[i])});
}

TEST(ReadVectors, FieldsAreFoundByNameOrByPosition)
{
    for (const char *kind : {"blobmsg_parse", "blobmsg_parse_array"}) {
        for_each_vector(kind, kind[13] ? 7 : 69, [](const Vector &v, const GuardedAttr &in) {
            Policies policies;
            read_policies(v, &policies);
            int count = static_cast<int>(policies.entries.size());
            unsigned int len =
                static_cast<unsigned int>(v.number("dlen", static_cast<long long>(in.size())));
            std::vector<blob_attr *> tb(policies.entries.size(), in.attr());
            void *data = v.text("in") == "NULL" ? nullptr : in.data();

            EXPECT_EQ(
                v.kind == "blobmsg_parse"
                    ? blobmsg_parse(policies.entries.data(), count, tb.data(), data, len)
                    : blobmsg_parse_array(policies.entries.data(), count, tb.data(), data, len),
                v.number("ret"));
            if (const Words *line = v.find("tb")) {
                EXPECT_EQ(slots(in, tb), joined(*line));
            }
        });
    }
}

} // namespace
