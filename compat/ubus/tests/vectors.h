// SPDX-License-Identifier: ISC
// Reader of vectors.txt: exchanges recorded on the bus socket.

#ifndef COMPAT_UBUS_TESTS_VECTORS_H
#define COMPAT_UBUS_TESTS_VECTORS_H

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/wire.h"

namespace vectors {

// One line of a group. Of a message, `peer` is the connection and `tokens` are the bytes: two hex
// digits, or the name of an id in braces.
struct Item {
    enum Kind { kToBus, kFromBus, kEnd } kind;
    std::string group;
    std::string peer;
    std::string type;
    std::vector<std::string> tokens;
};

struct File {
    std::map<std::string, wire::Bytes> ids; // as captured
    std::vector<Item> items;
};

inline void read_ends(const std::string &word, Item &item)
{
    size_t arrow = word.find('>');
    std::string from = word.substr(0, arrow);
    std::string to = word.substr(arrow + 1);
    item.kind = from == "BUS" ? Item::kFromBus : Item::kToBus;
    item.peer = from == "BUS" ? to : from;
}

inline File read()
{
    File file;
    std::ifstream in(BV_TEST_SOURCE_DIR "/../compat/ubus/tests/vectors.txt");
    std::string line, group;

    while (std::getline(in, line)) {
        std::istringstream words(line.substr(0, line.find(';')));
        std::string keyword, word;
        words >> keyword;
        if (keyword == "EXCHANGE") {
            words >> group;
        } else if (keyword == "ID") {
            std::string name, equals;
            words >> name >> equals >> word;
            file.ids[name] = from_hex<wire::Bytes>(word);
        } else if (keyword == "MSG" || keyword == "EOF") {
            Item item;
            item.group = group;
            words >> word >> item.type;
            read_ends(word, item);
            if (keyword == "EOF")
                item.kind = Item::kEnd;
            file.items.push_back(item);
        } else if (keyword == "X") {
            while (words >> word)
                file.items.back().tokens.push_back(word);
        }
    }
    return file;
}

inline bool is_name(const std::string &token)
{
    return token[0] == '{';
}
inline std::string name_of(const std::string &token)
{
    return token.substr(1, token.size() - 2);
}

// The bytes of a message with the ids filled in.
inline wire::Bytes bytes_of(const Item &item, const std::map<std::string, wire::Bytes> &ids)
{
    wire::Bytes bytes;
    for (const std::string &token : item.tokens) {
        if (!is_name(token))
            bytes.push_back(uint8_t(std::stoul(token, nullptr, 16)));
        else if (ids.count(name_of(token)) > 0)
            bytes = wire::operator+(bytes, ids.at(name_of(token)));
    }
    return bytes;
}

inline wire::Bytes attributes_of(const Item &item, const std::map<std::string, wire::Bytes> &ids)
{
    wire::Bytes bytes = bytes_of(item, ids);
    return wire::Bytes(bytes.begin() + 12, bytes.end());
}

} // namespace vectors

#endif
