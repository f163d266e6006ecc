// What bv-template reads: a template, then a line of four dashes and a data file for it.

#include "fuzz/input.h"

#include <cstdio>
#include <sys/stat.h>

extern "C" {
#include "tools/template/data.h"
#include "tools/template/fault.h"
#include "tools/template/header.h"
#include "tools/template/library.h"
}

namespace {

constexpr char kFolder[] = "/scratch/templates";
constexpr char kTemplate[] = "/scratch/templates/family";
constexpr char kData[] = "/scratch/data.json";
constexpr char kMark[] = "\n----\n";

// A template without faults must give a header.
void check_template()
{
    static family read;
    const unsigned faults = fault_count();
    const bool usable = family_read(&read, kTemplate);
    FUZZ_CHECK(usable || fault_count() > faults || had_file_trouble());
    FUZZ_CHECK(read.count <= PARAMETERS_MAX);
    if (usable && fault_count() == faults) {
        char *text = nullptr;
        size_t length = 0;
        FILE *to = open_memstream(&text, &length);
        FUZZ_CHECK(to != nullptr);
        FUZZ_CHECK(header_write(to, &read, nullptr));
        FUZZ_CHECK(fclose(to) == 0 && length > 0);
        free(text);
    }
    family_free(&read);
}

void check_data()
{
    FUZZ_CHECK(library_open(kFolder));
    data_check(kData);
    library_close();
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::silence_output();
    FUZZ_CHECK(mkdir(kFolder, 0700) == 0);
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string input(reinterpret_cast<const char *>(data), size);
    const size_t mark = input.find(kMark);
    const bool both = mark != std::string::npos;
    write_file(kTemplate, input.substr(0, mark));
    write_file(kData, both ? input.substr(mark + sizeof kMark - 1) : input);
    check_template();
    check_data();
    return 0;
}
