// SPDX-License-Identifier: ISC
// Files for tests: whole contents in and out.
#ifndef BV_TESTS_SUPPORT_FILES_H
#define BV_TESTS_SUPPORT_FILES_H

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

// The file's bytes; empty also when there is no such file.
inline std::string read_file(const std::string &path)
{
    std::string content;
    FILE *file = fopen(path.c_str(), "rb");
    if (file == nullptr)
        return content;
    char buffer[4096];
    size_t got;
    while ((got = fread(buffer, 1, sizeof buffer, file)) > 0)
        content.append(buffer, got);
    fclose(file);
    return content;
}

// Makes the file anew. A test that cannot set its scene up has nothing to say, so failure aborts.
inline void write_file(const std::string &path, const std::string &content)
{
    FILE *file = fopen(path.c_str(), "wb");
    if (file == nullptr || fwrite(content.data(), 1, content.size(), file) != content.size() ||
        fclose(file) != 0) {
        perror(path.c_str());
        abort();
    }
}

inline bool file_exists(const std::string &path)
{
    return access(path.c_str(), F_OK) == 0;
}

// The names in a folder, sorted, without "." and "..".
inline std::vector<std::string> list_folder(const std::string &path)
{
    std::vector<std::string> names;
    DIR *dir = opendir(path.c_str());
    if (dir == nullptr)
        return names;
    while (dirent *entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

#endif
