// SPDX-License-Identifier: ISC
// The header as programs see it, and the shared object as the loader sees it.

#include <securec.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <dlfcn.h>
#include <set>
#include <string>

extern "C" void (*header_c11_functions[])();
extern "C" int header_checked(char *dest, size_t size);

namespace {

std::string output_of(const std::string &command)
{
    std::string output;
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return output;
    for (int c = getc(pipe); c != EOF; c = getc(pipe))
        output += static_cast<char>(c);
    pclose(pipe);
    return output;
}

const std::set<std::string> kFunctions = {
    "memcpy_s",   "memmove_s", "memset_s",  "strcpy_s",    "strncpy_s",  "strcat_s",
    "vsprintf_s", "vsscanf_s", "sprintf_s", "vsnprintf_s", "snprintf_s", "sscanf_s",
};

} // namespace

TEST(BoundscheckHeader, EveryFunctionOfACProgramComesFromTheLibrary)
{
    size_t count = 0;
    for (void (**function)() = header_c11_functions; *function != nullptr; ++function, ++count) {
        Dl_info info;
        ASSERT_NE(dladdr(reinterpret_cast<void *>(*function), &info), 0);
        EXPECT_NE(std::string(info.dli_fname).find("libboundscheck.so"), std::string::npos);
        EXPECT_EQ(kFunctions.count(info.dli_sname), 1u) << info.dli_sname;
    }
    EXPECT_EQ(count, kFunctions.size());
}

TEST(BoundscheckHeader, ProgramWithCheckedFormatsCallsTheSameFunctions)
{
    char text[4];
    EXPECT_EQ(header_checked(text, sizeof(text)), 2);
    EXPECT_STREQ(text, "42");
}

TEST(BoundscheckHeader, LibraryExportsItsFunctionsAndNothingElse)
{
    std::set<std::string> names;
    std::string output = output_of("nm -D --defined-only '" BOUNDSCHECK_LIBRARY "'");
    for (size_t at = 0; at < output.size();) {
        size_t end = output.find('\n', at);
        std::string line = output.substr(at, end - at);
        names.insert(line.substr(line.rfind(' ') + 1));
        at = end + 1;
    }
    EXPECT_EQ(names, kFunctions);
}

TEST(BoundscheckHeader, LibraryHasItsPlainNameAndNeedsOnlyTheCLibrary)
{
    std::string dynamic = output_of("readelf -d '" BOUNDSCHECK_LIBRARY "'");
    EXPECT_NE(dynamic.find("soname: [libboundscheck.so]"), std::string::npos) << dynamic;
#if !defined(BV_SANITIZED)
    // The loader is a part of the C library: on some machines the stack protector's value is there.
    for (size_t at = dynamic.find("(NEEDED)"); at != std::string::npos;
         at = dynamic.find("(NEEDED)", at + 1)) {
        const std::string needed = dynamic.substr(dynamic.find('[', at), 8);
        EXPECT_TRUE(needed == "[libc.so" || needed == "[ld-linu") << dynamic;
    }
#endif
}
