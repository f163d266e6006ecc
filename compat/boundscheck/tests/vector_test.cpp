// SPDX-License-Identifier: ISC
// Replays every recorded call in vectors.txt and compares the result and every byte of every
// buffer.

#include "vector_file.h"

#include "vector_call.h"

#include <gtest/gtest.h>
#include <securec.h>

#include <functional>
#include <memory>

namespace {

// One call of a memory or string function; pointers into the arena, or null.
struct ArenaCall {
    char *dst;
    const char *src;
    size_t dmax;
    size_t count;
    int c;
};

void replay_in_arena(const std::string &function, size_t expected,
                     const std::function<int(const ArenaCall &)> &call)
{
    std::vector<Vector> vectors = vectors_of(function);
    ASSERT_EQ(vectors.size(), expected);
    for (const Vector &vector : vectors) {
        SCOPED_TRACE(vector.name());
        std::string arena = vector.bytes("arena");
        auto pointer = [&](const char *key) -> char * {
            bool null = vector.fields.count(key) == 0 || vector.text(key) == "NULL";
            return null ? nullptr : &arena[vector.size(key)];
        };
        auto number = [&](const char *key) {
            return vector.fields.count(key) == 0 ? 0 : vector.size(key);
        };
        int c = vector.fields.count("c") == 0 ? 0 : vector.integer("c");
        ArenaCall arguments = {pointer("dst"), pointer("src"), number("dmax"), number("count"), c};
        EXPECT_EQ(call(arguments), vector.integer("ret"));
        EXPECT_EQ(arena, vector.bytes("after"));
    }
}

void replay_prints(Entry entry)
{
    std::vector<Vector> vectors = vectors_of("vsprintf_s");
    ASSERT_EQ(vectors.size(), 229u);
    for (const Vector &vector : vectors) {
        SCOPED_TRACE(vector.name());
        std::string array(vector.size("cap"), '\xee');
        std::optional<std::string> format = vector.quoted("fmt");
        int result = call_print(entry, vector.text("dst") == "NULL" ? nullptr : array.data(),
                                vector.size("dmax"), format ? format->c_str() : nullptr,
                                vector.numbered("arg"));
        EXPECT_EQ(result, vector.integer("ret"));
        EXPECT_EQ(array, vector.bytes("after"));
    }
}

// The objects of a scan and the words its arguments make. Each object is followed by bytes that
// must stay as they are.
class ScanObjects {
public:
    explicit ScanObjects(const std::vector<std::string> &arguments)
    {
        for (const std::string &argument : arguments)
            add(argument);
    }

    const std::vector<uintptr_t> &words() const { return words_; }

    void expect_contents(const Vector &vector) const
    {
        std::vector<std::string> outs = vector.numbered("out");
        ASSERT_EQ(outs.size(), objects_.size());
        for (size_t i = 0; i < outs.size(); ++i) {
            SCOPED_TRACE("object " + std::to_string(i + 1));
            std::string expected = vector.bytes("out" + std::to_string(i + 1));
            if (outs[i] == "-")
                continue;
            std::string guard(kSlack, kOld);
            EXPECT_EQ(std::string(objects_[i]->bytes, sizes_[i] + kSlack), expected + guard);
        }
    }

private:
    static constexpr char kOld = '\xa5';
    static constexpr size_t kSlack = 16;

    struct Object {
        alignas(16) char bytes[64 + kSlack];
    };

    void add(const std::string &argument)
    {
        size_t colon = argument.find(':');
        std::string type = argument.substr(0, colon);
        size_t last = argument.rfind(':');
        auto object = std::make_unique<Object>();
        memset(object->bytes, kOld, sizeof(object->bytes));
        bool null = type == "null" || type == "nullsz";
        words_.push_back(null ? 0 : reinterpret_cast<uintptr_t>(object->bytes));
        sizes_.push_back(null ? 0 : std::strtoul(argument.c_str() + colon + 1, nullptr, 10));
        objects_.push_back(std::move(object));

        uintptr_t size = std::strtoull(argument.c_str() + last + 1, nullptr, 10);
        if (type == "buf" || type == "nullsz")
            words_.push_back(size);
        if (type == "bufi") // the upper half of an int argument may hold anything
            words_.push_back(size | static_cast<uintptr_t>(UINT64_C(0xdeadbeef00000000)));
    }

    std::vector<std::unique_ptr<Object>> objects_;
    std::vector<size_t> sizes_;
    std::vector<uintptr_t> words_;
};

void replay_scans(Entry entry)
{
    std::vector<Vector> vectors = vectors_of("vsscanf_s");
    ASSERT_EQ(vectors.size(), 272u);
    for (const Vector &vector : vectors) {
        SCOPED_TRACE(vector.name());
        std::optional<std::string> input = vector.quoted("in");
        std::optional<std::string> format = vector.quoted("fmt");
        ScanObjects objects(vector.numbered("arg"));
        int result = call_scan(entry, input ? input->c_str() : nullptr,
                               format ? format->c_str() : nullptr, objects.words());
        EXPECT_EQ(result, vector.integer("ret"));
        objects.expect_contents(vector);
    }
}

} // namespace

TEST(BoundscheckVectors, Memcpy)
{
    replay_in_arena("memcpy_s", 35, [](const ArenaCall &call) {
        return memcpy_s(call.dst, call.dmax, call.src, call.count);
    });
}

TEST(BoundscheckVectors, Memmove)
{
    replay_in_arena("memmove_s", 23, [](const ArenaCall &call) {
        return memmove_s(call.dst, call.dmax, call.src, call.count);
    });
}

TEST(BoundscheckVectors, Memset)
{
    replay_in_arena("memset_s", 24, [](const ArenaCall &call) {
        return memset_s(call.dst, call.dmax, call.c, call.count);
    });
}

TEST(BoundscheckVectors, Strcpy)
{
    replay_in_arena("strcpy_s", 30,
                    [](const ArenaCall &call) { return strcpy_s(call.dst, call.dmax, call.src); });
}

TEST(BoundscheckVectors, Strncpy)
{
    replay_in_arena("strncpy_s", 42, [](const ArenaCall &call) {
        return strncpy_s(call.dst, call.dmax, call.src, call.count);
    });
}

TEST(BoundscheckVectors, Strcat)
{
    replay_in_arena("strcat_s", 39,
                    [](const ArenaCall &call) { return strcat_s(call.dst, call.dmax, call.src); });
}

TEST(BoundscheckVectors, PrintWithArgumentsInTheCall)
{
    replay_prints(Entry::kEllipsis);
}
TEST(BoundscheckVectors, PrintWithAList)
{
    replay_prints(Entry::kList);
}
TEST(BoundscheckVectors, ScanWithArgumentsInTheCall)
{
    replay_scans(Entry::kEllipsis);
}
TEST(BoundscheckVectors, ScanWithAList)
{
    replay_scans(Entry::kList);
}
