// Main of a fuzz target outside the fuzz build: every file of the folders named runs once.

#include "fuzz/input.h"

#include <dirent.h>
#include <vector>

namespace {

std::vector<std::string> files_in(const std::string &folder)
{
    std::vector<std::string> paths;
    DIR *dir = opendir(folder.c_str());
    if (dir == nullptr) {
        perror(folder.c_str());
        exit(1);
    }
    while (const dirent *entry = readdir(dir))
        if (entry->d_name[0] != '.')
            paths.push_back(folder + "/" + entry->d_name);
    closedir(dir);
    std::sort(paths.begin(), paths.end());
    return paths;
}

void replay(const std::string &path)
{
    fprintf(stderr, "%s\n", path.c_str()); // the last one printed is the one that failed
    const std::string content = fuzz::read_file(path.c_str());
    fuzz::Block input(content);
    LLVMFuzzerTestOneInput(input.bytes(), input.size());
}

} // namespace

int main(int argc, char **argv)
{
    LLVMFuzzerTestOneInput(nullptr, 0);
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const std::string &path : files_in(argv[i])) {
            replay(path);
            ++count;
        }
    }
    fprintf(stderr, "%zu inputs\n", count);
    return count > 0 ? 0 : 1;
}
