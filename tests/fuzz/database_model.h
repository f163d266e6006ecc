// SPDX-License-Identifier: ISC
// What the database should hold, worked out by itself: strings for images, vectors for lists, and
// nothing shared with the library but the conversion of MAC addresses.
#ifndef BV_TESTS_FUZZ_DATABASE_MODEL_H
#define BV_TESTS_FUZZ_DATABASE_MODEL_H

#include <bv/os.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace model {

struct Parameter {
    std::string name, type, value;
    int32_t len;
    bool selected;
};

// What the text of a template means; `readable` is false when it cannot be parsed.
struct Template {
    bool readable = true;
    int32_t elements = 0;
    std::vector<Parameter> valid;
};

struct Instance {
    int32_t number;
    std::string image;
};

// One element of a data file.
struct Element {
    int32_t number;
    std::vector<std::pair<std::string, std::string>> values;
};

// A data file: none at all, one that cannot be parsed, or elements by family.
struct File {
    bool there = false;
    bool readable = true;
    std::map<std::string, std::vector<Element>> families;
};

inline std::string quoted(const std::string &text)
{
    return "\"" + text + "\"";
}

inline void append(std::string &list, const std::string &item, const char *separator = ",")
{
    list += (list.empty() ? "" : separator) + item;
}

inline uint32_t number_of(const std::string &text)
{
    size_t i = text.find_first_not_of(" \t\n\v\f\r");
    if (i == std::string::npos)
        return 0;
    const bool negative = text[i] == '-';
    i += text[i] == '-' || text[i] == '+';
    uint32_t number = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; i++)
        number = number * 10 + static_cast<uint32_t>(text[i] - '0');
    return negative ? 0 - number : number;
}

inline int32_t width_of(const std::string &type)
{
    static const std::map<std::string, int32_t> widths = {{"char", 1},   {"uchar", 1}, {"short", 2},
                                                          {"ushort", 2}, {"int", 4},   {"uint", 4},
                                                          {"mac", 6},    {"ip", 4}};
    const auto found = widths.find(type);
    return found == widths.end() ? 0 : found->second;
}

// A value's bytes in the image, where a string has room for so many.
inline std::string bytes_of(const Parameter &para, int64_t room)
{
    if (para.type == "string")
        return room < 1 ? "" : para.value.substr(0, static_cast<size_t>(room - 1)) + '\0';
    char bytes[6] = {};
    const uint32_t number = number_of(para.value);
    if (para.type == "mac")
        bv_os_mac_pton(para.value.c_str(), reinterpret_cast<uint8_t *>(bytes));
    else if (para.type == "ip" && inet_pton(AF_INET, para.value.c_str(), bytes) != 1)
        memset(bytes, 0, sizeof bytes);
    else if (para.type != "ip")
        memcpy(bytes, &number, sizeof number); // the low bytes come first here
    return std::string(bytes, static_cast<size_t>(width_of(para.type)));
}

// The value that an image has from a position on. Outside of the image everything is zero.
inline std::string text_at(const std::string &type, const std::string &image, int64_t position,
                           const std::string &before)
{
    const auto at = [&](int64_t i) {
        return i >= 0 && i < static_cast<int64_t>(image.size()) ? image[static_cast<size_t>(i)]
                                                                : '\0';
    };
    if (type == "string") {
        std::string text;
        for (int64_t i = position; at(i) != '\0'; i++)
            text += at(i);
        return text.size() < 1024 ? text : "";
    }
    uint8_t b[8] = {};
    for (int32_t i = 0; i < width_of(type); i++)
        b[i] = static_cast<uint8_t>(at(position + i));
    uint32_t number;
    memcpy(&number, b, sizeof number);
    if (type == "char")
        return std::to_string(static_cast<int8_t>(number));
    if (type == "short")
        return std::to_string(static_cast<int16_t>(number));
    if (type == "int")
        return std::to_string(static_cast<int32_t>(number));
    if (type == "uchar" || type == "ushort" || type == "uint")
        return std::to_string(number);
    char text[32];
    if (type == "mac")
        snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4],
                 b[5]);
    else if (type == "ip")
        snprintf(text, sizeof text, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
    else
        return before;
    return text;
}

struct Family {
    int32_t elements = 0;
    int32_t size = 0;
    int32_t highest = 0;
    std::vector<Parameter> para;
    std::string working, defaults;
    std::vector<Instance> instances;

    Instance *find(int32_t number)
    {
        for (Instance &instance : instances)
            if (instance.number == number)
                return &instance;
        return nullptr;
    }

    void add(int32_t number, const std::string &bytes)
    {
        instances.push_back({number, ""});
        store(instances.back().image, bytes);
        measure();
    }

    void remove(int32_t number)
    {
        const Instance *instance = find(number);
        if (instance == nullptr)
            return;
        instances.erase(instances.begin() + (instance - instances.data()));
        measure();
    }

    // What a copy into an image makes of it.
    void store(std::string &image, const std::string &bytes) const
    {
        if (size <= 0)
            return;
        image.resize(static_cast<size_t>(size));
        if (bytes.size() > image.size())
            image.assign(image.size(), '\0');
        else
            image.replace(0, bytes.size(), bytes);
    }

    void to_image(bool selected_only)
    {
        int64_t position = 0;
        const auto end = static_cast<int64_t>(working.size());
        for (const Parameter &p : para) {
            const bool string_outside = p.type == "string" && position < 0;
            std::string bytes;
            if ((!selected_only || p.selected) && !string_outside)
                bytes = bytes_of(p, std::min<int64_t>(p.len, end - position));
            int64_t to = position;
            for (const char byte : bytes) {
                if (to >= 0 && to < end)
                    working[static_cast<size_t>(to)] = byte;
                to++;
            }
            position += p.len;
        }
    }

    void to_text(const std::string &image)
    {
        int64_t position = 0;
        for (Parameter &p : para) {
            if (size > 0)
                p.value = text_at(p.type, image, position, p.value);
            position += p.len;
        }
    }

    void read(const Template &from)
    {
        const int32_t before = size;
        elements = from.elements;
        para = from.valid;
        size = 0;
        for (const Parameter &p : para)
            size += p.len;
        working.assign(static_cast<size_t>(std::max(size + 31, 0) / 32 * 32), '\0');
        to_image(false);
        defaults = working_bytes();
        if (size != before && !instances.empty()) {
            instances.clear();
            highest = 1;
        }
    }

    void load(const std::string &name, const File &file)
    {
        if (size == 0)
            return;
        const auto found = file.families.find(name);
        if (found == file.families.end()) {
            if (find(1) == nullptr)
                add(1, working_bytes());
            return;
        }
        for (const Element &element : found->second)
            load(element);
    }

    // Its part of a data file, as text and as what a reader makes of it.
    std::string write(std::vector<Element> &content)
    {
        std::string blocks;
        const auto block = [&](int32_t number, const std::string &image) {
            std::string values;
            to_text(image);
            content.push_back({number, {}});
            for (const Parameter &p : para) {
                append(values, "\t\t\t\t" + quoted(p.name) + ":" + quoted(p.value), ",\n");
                content.back().values.emplace_back(p.name, p.value);
            }
            append(blocks,
                   "\t\t{\n\t\t\t\"inst\":" + quoted(std::to_string(number)) +
                       ",\n\t\t\t\"para\":{\n" + values + "\n\t\t\t}\n\t\t}",
                   ",\n");
        };
        if (instances.empty() && elements != 0)
            block(1, defaults);
        for (const Instance &instance : instances)
            block(instance.number, instance.image);
        return blocks;
    }

private:
    void measure()
    {
        highest = 1;
        for (const Instance &instance : instances)
            highest = std::max(highest, instance.number);
    }

    void load(const Element &element)
    {
        for (Parameter &p : para)
            for (const auto &value : element.values)
                if (value.first == p.name)
                    p.value = value.second;
        to_image(false);
        Instance *instance = find(element.number);
        if (instance == nullptr)
            add(element.number, working_bytes());
        else
            store(instance->image, working_bytes());
    }

    std::string working_bytes() const
    {
        return working.substr(0, static_cast<size_t>(std::max(size, 0)));
    }
};

} // namespace model

#endif
