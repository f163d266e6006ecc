// SPDX-License-Identifier: ISC
// What bv-template reads: a template, then a line of four dashes and a data file for it.

#include "fuzz/input.h"

#include <cstdio>
#include <sys/stat.h>

#include "tools/template/checked_file.h"
#include "tools/template/data.h"
#include "tools/template/header.h"
#include "tools/template/library.h"

namespace {

constexpr char kFolder[] = "/scratch/templates";
constexpr char kTemplate[] = "/scratch/templates/family";
constexpr char kData[] = "/scratch/data.json";
constexpr char kMark[] = "\n----\n";

// A template without faults must give a header.
void check_template()
{
    tools::Family family;
    const unsigned faults = tools::fault_count();
    const bool usable = tools::read_family(kTemplate, family);
    FUZZ_CHECK(usable || tools::fault_count() > faults || tools::had_file_trouble());
    FUZZ_CHECK(family.count <= bv::kMaxParameters);
    if (!usable || tools::fault_count() > faults)
        return;
    char *text = nullptr;
    size_t length = 0;
    FILE *to = open_memstream(&text, &length);
    FUZZ_CHECK(to != nullptr);
    FUZZ_CHECK(tools::write_header(to, family, nullptr));
    FUZZ_CHECK(fclose(to) == 0 && length > 0);
    free(text);
}

void check_data()
{
    tools::Library templates;
    FUZZ_CHECK(templates.open(kFolder));
    tools::check_data(kData, templates);
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
