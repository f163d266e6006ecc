// Files parsed beforehand. The JSON parser does not survive a refused allocation, and its own
// blocks are not the library's: from now on the library gets the finished tree of such a file.
#ifndef BV_TESTS_DB_PARSED_H
#define BV_TESTS_DB_PARSED_H

#include "support/fault_points.h"

#include <gtest/gtest.h>

#include <json-c/json.h>
#include <map>
#include <string>

inline std::map<std::string, json_object *> g_parsed;

// Lets go of the trees; nothing else may hold one.
inline void forget_parsed()
{
    for (const auto &file : g_parsed)
        EXPECT_EQ(json_object_put(file.second), 1) << "someone still holds " << file.first;
    g_parsed.clear();
}

inline json_object *parse(const char *path)
{
    return next_function<json_object *(const char *)>("json_object_from_file")(path);
}

inline void parse_beforehand(const std::string &path)
{
    json_object *tree = parse(path.c_str());
    ASSERT_NE(tree, nullptr) << path;
    g_parsed[path] = tree;
}

// Only one source file of a program includes this.
extern "C" json_object *json_object_from_file(const char *path)
{
    for (const auto &file : g_parsed) // no copy of the path: allocations are counted here
        if (file.first == path)
            return json_object_get(file.second);
    return parse(path);
}

#endif
