// SPDX-License-Identifier: ISC
// Main of a fuzz target outside the fuzz build: every file of the folders named runs once.

#include "fuzz/input.h"

extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

int main(int argc, char **argv)
{
    if (LLVMFuzzerInitialize != nullptr)
        LLVMFuzzerInitialize(&argc, &argv);
    LLVMFuzzerTestOneInput(nullptr, 0);
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const std::string &name : list_folder(argv[i])) {
            const std::string path = std::string(argv[i]) + "/" + name;
            fprintf(stderr, "%s\n", path.c_str()); // the last one printed is the one that failed
            fuzz::Block input(read_file(path));
            LLVMFuzzerTestOneInput(input.bytes(), input.size());
            ++count;
        }
    }
    fprintf(stderr, "%zu inputs\n", count);
    return count > 0 ? 0 : 1;
}
