// SPDX-License-Identifier: ISC
// The output of commands, captured and trimmed.
//
// No shell runs: system() puts the input into the capture file that the command line names, and
// popen() gives the input as a stream. Input: a byte for the room the caller has, then the output.

#include <bv/os.h>

#include "fuzz/input.h"

namespace {

std::string g_output;

int run(const std::string &line)
{
    const size_t redirection = line.rfind(" > ");
    if (redirection != std::string::npos) {
        write_file(line.substr(redirection + 3), g_output);
        return 0;
    }
    constexpr char kRemove[] = "rm -f ";
    FUZZ_CHECK(line.compare(0, sizeof kRemove - 1, kRemove) == 0);
    const std::string path = line.substr(sizeof kRemove - 1);
    return unlink(path.substr(0, path.find(' ')).c_str());
}

// Gives the capture exactly so much room and checks what it put there.
template <typename Capture>
void check(uint32_t room, Capture capture)
{
    fuzz::Block out(room);
    const int32_t status = capture(out.text(), room);
    if (status == BV_OK)
        FUZZ_CHECK(room > 0 && strnlen(out.text(), room) < room);
}

void check_trim(const std::string &text)
{
    fuzz::Block block(text.substr(0, text.find('\0')) + '\0');
    const char *trimmed = bv_os_trim(block.text());
    const size_t length = strlen(trimmed);
    FUZZ_CHECK(trimmed >= block.text() && trimmed + length < block.text() + block.size());
    if (length > 0) {
        FUZZ_CHECK(bv_os_isspace(static_cast<unsigned char>(trimmed[0])) == 0);
        FUZZ_CHECK(bv_os_isspace(static_cast<unsigned char>(trimmed[length - 1])) == 0);
    }
    bv_os_match_special_char(trimmed);
}

} // namespace

extern "C" int system(const char *line)
{
    return run(line);
}

extern "C" FILE *popen(const char *, const char *)
{
    // Not every C library opens an empty stream. A line end gives what an empty one would give.
    static char line_end[] = "\n";
    return g_output.empty() ? fmemopen(line_end, 1, "r")
                            : fmemopen(g_output.data(), g_output.size(), "r");
}

extern "C" int pclose(FILE *stream)
{
    return fclose(stream);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input input(data, size);
    const uint32_t room = input.byte() * 2u;
    g_output = input.rest();

    check(room, [](char *out, uint32_t outsize) {
        return bv_os_systemex(out, outsize, "show %s", "status");
    });
    check(room, [](char *out, uint32_t outsize) {
        return bv_os_sysmatch(out, outsize, "inet", " ", "ip addr");
    });
    fuzz::Block line(room);
    bv_get_pipe("uptime", line.text(), room);
    check_trim(g_output);
    return 0;
}
