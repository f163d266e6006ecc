// SPDX-License-Identifier: ISC
// Builds every buffer of vectors.txt and compares it byte for byte.
//
// Left out, all marked as quirks there:
//   blob.put.null5.stale             shows bytes of an earlier use of the buffer
//   blob.limit.16777207.wraps        a put that makes the outermost length overflow: refused here
//                                    (BlobBuf.PutThatWouldOverflowTheLengthIsRefused)
//   msg.name.65536.truncated-field   a name whose length does not fit its field: refused here
//                                    (Blobmsg.NameTooLongForItsLengthFieldIsRefused)

#include "vector_file.h"

#include <gtest/gtest.h>
#include <libubox/blobmsg.h>

namespace {

// One buffer and the results of the call made on it last.
struct Builder {
    blob_buf buf = {};
    std::vector<void *> cookies;
    std::string result;

    ~Builder() { blob_buf_free(&buf); }

    bool run(const Words &words);

private:
    bool put(const std::string &call, const Words &words);
    bool add(const std::string &call, const Words &words);
    void open(void *cookie) { cookies.push_back(cookie); }
    void close();
    std::string offset(const blob_attr *attr) const;
};

int to_int(const std::string &word)
{
    return static_cast<int>(strtoll(word.c_str(), nullptr, 0));
}

unsigned long long to_u64(const std::string &word)
{
    return strtoull(word.c_str(), nullptr, 0);
}

std::string Builder::offset(const blob_attr *attr) const
{
    if (!attr)
        return "NULL";
    return "@" + std::to_string(reinterpret_cast<const char *>(attr) -
                                static_cast<const char *>(buf.buf));
}

void Builder::close()
{
    blob_nest_end(&buf, cookies.back());
    cookies.pop_back();
}

bool Builder::put(const std::string &call, const Words &words)
{
    if (call == "put_raw") {
        std::vector<uint8_t> raw = bytes_of(words[2]);
        bool null = words[2] == "NULL";
        unsigned int len = null ? static_cast<unsigned int>(to_u64(words[3]))
                                : static_cast<unsigned int>(raw.size());
        uint8_t none;
        result = offset(blob_put_raw(&buf, null ? nullptr : raw.empty() ? &none : raw.data(), len));
        return true;
    }

    int id = to_int(words[2]);
    const std::string &value = words[3];
    if (call == "put") {
        std::vector<uint8_t> bytes = bytes_of(value);
        result = offset(blob_put(&buf, id, bytes.data(), static_cast<unsigned int>(bytes.size())));
    } else if (call == "put_null") {
        result = offset(blob_put(&buf, id, nullptr, static_cast<unsigned int>(to_u64(value))));
    } else if (call == "put_u8") {
        result = offset(blob_put_u8(&buf, id, static_cast<uint8_t>(to_u64(value))));
    } else if (call == "put_u16") {
        result = offset(blob_put_u16(&buf, id, static_cast<uint16_t>(to_u64(value))));
    } else if (call == "put_u32") {
        result = offset(blob_put_u32(&buf, id, static_cast<uint32_t>(to_u64(value))));
    } else if (call == "put_u64") {
        result = offset(blob_put_u64(&buf, id, to_u64(value)));
    } else if (call == "put_string") {
        result = offset(blob_put_string(&buf, id, string_of(value)->c_str()));
    } else {
        return false;
    }
    return true;
}

bool Builder::add(const std::string &call, const Words &words)
{
    if (call == "add_blob") {
        std::vector<uint8_t> bytes = bytes_of(words[2]);
        result =
            std::to_string(blobmsg_add_blob(&buf, reinterpret_cast<blob_attr *>(bytes.data())));
        return true;
    }

    size_t name_at = call == "add" ? 3 : 2;
    std::optional<std::string> text = string_of(words[name_at]);
    const char *name = text ? text->c_str() : nullptr;
    const std::string &value = words[name_at + 1];
    int ret;
    if (call == "add") {
        std::vector<uint8_t> bytes = bytes_of(value);
        ret = blobmsg_add_field(&buf, to_int(words[2]), name, bytes.data(),
                                static_cast<unsigned int>(bytes.size()));
    } else if (call == "add_u8") {
        ret = blobmsg_add_u8(&buf, name, static_cast<uint8_t>(to_u64(value)));
    } else if (call == "add_u16") {
        ret = blobmsg_add_u16(&buf, name, static_cast<uint16_t>(to_u64(value)));
    } else if (call == "add_u32") {
        ret = blobmsg_add_u32(&buf, name, static_cast<uint32_t>(to_u64(value)));
    } else if (call == "add_u64") {
        ret = blobmsg_add_u64(&buf, name, to_u64(value));
    } else if (call == "add_double") {
        ret = blobmsg_add_double(&buf, name, strtod(value.c_str(), nullptr));
    } else if (call == "add_string") {
        ret = blobmsg_add_string(&buf, name, string_of(value)->c_str());
    } else {
        return false;
    }
    result = std::to_string(ret);
    return true;
}

bool Builder::run(const Words &words)
{
    const std::string &call = words[1];

    result.clear();
    if (call == "init")
        result = std::to_string(blob_buf_init(&buf, to_int(words[2])));
    else if (call == "nest")
        open(blob_nest_start(&buf, to_int(words[2])));
    else if (call == "table" || call == "array") {
        std::optional<std::string> name = string_of(words[2]);
        const char *text = name ? name->c_str() : nullptr;
        open(call == "table" ? blobmsg_open_table(&buf, text) : blobmsg_open_array(&buf, text));
    } else if (call == "nest_end" || call == "close")
        close();
    else if (call.compare(0, 3, "put") == 0)
        return put(call, words);
    else
        return add(call, words);
    return true;
}

std::string first_bytes(const blob_buf &buf, size_t count)
{
    return hex_of(buf.buf, count);
}

std::string last_bytes(const blob_buf &buf, size_t count)
{
    size_t size = blob_pad_len(static_cast<blob_attr *>(buf.buf));

    return hex_of(static_cast<char *>(buf.buf) + size - count, count);
}

void replay(const Vector &vector)
{
    Builder builder;

    for (const Words &line : vector.lines) {
        const blob_attr *whole = static_cast<blob_attr *>(builder.buf.buf);

        if (line[0] == "do") {
            ASSERT_TRUE(builder.run(line)) << line[1];
        } else if (line[0] == "ret") {
            EXPECT_EQ(builder.result, line[1]);
        } else if (line[0] == "rawlen") {
            EXPECT_EQ(std::to_string(blob_raw_len(whole)), line[1]);
        } else if (line[0] == "buflen") {
            EXPECT_EQ(std::to_string(builder.buf.buflen), line[1]);
        } else if (line[0] == "out") {
            EXPECT_EQ(first_bytes(builder.buf, blob_pad_len(whole)), line[1]);
        } else if (line[0] == "out64") {
            EXPECT_EQ(first_bytes(builder.buf, 64), line[1]);
        } else if (line[0] == "tail16") {
            EXPECT_EQ(last_bytes(builder.buf, 16), line[1]);
        } else {
            EXPECT_EQ(line[0], "note");
        }
    }
}

TEST(BuildVectors, EveryBufferHasTheseBytes)
{
    size_t replayed = 0, left_out = 0;

    for (const Vector &vector : load_vectors("build")) {
        SCOPED_TRACE(vector.name);
        if (vector.is_quirk()) {
            left_out++;
            continue;
        }
        replay(vector);
        replayed++;
    }
    EXPECT_EQ(replayed, 204u);
    EXPECT_EQ(left_out, 3u);
}

} // namespace
