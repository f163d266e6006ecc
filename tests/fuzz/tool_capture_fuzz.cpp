// A capture file, as bv-collect reads it. Every packet, written again, must read the same.

#include "fuzz/input.h"

#include <cstdio>
#include <vector>

extern "C" {
#include "tools/collect/capture.h"
#include "tools/collect/datagram.h"
#include "tools/common/visible.h"
}

namespace {

capture g_reader; // of 64 KiB

struct Seen {
    packet head;
    std::string carried;
};

void show(const packet &found, FILE *to)
{
    datagram message;
    if (datagram_read(&message, found.data, found.length) == nullptr)
        print_visible(to, message.text, message.length);
}

// Each datagram has memory of its own, so that the sanitizer sees where it ends.
std::vector<Seen> read_all(FILE *file, capture_result *end)
{
    std::vector<Seen> all;
    *end = CAPTURE_END;
    if (capture_open(&g_reader, file) != nullptr)
        return all;
    packet found;
    while ((*end = capture_next(&g_reader, &found)) == CAPTURE_PACKET) {
        Seen seen{found, {reinterpret_cast<const char *>(found.data), found.length}};
        fuzz::Block exact(seen.carried);
        found.data = exact.bytes();
        show(found, stdout);
        all.push_back(seen);
    }
    return all;
}

void check_same(const Seen &one, const Seen &other)
{
    FUZZ_CHECK(one.carried == other.carried);
    FUZZ_CHECK(one.head.time.tv_sec == other.head.time.tv_sec);
    FUZZ_CHECK(one.head.time.tv_nsec / 1000 == other.head.time.tv_nsec / 1000);
    FUZZ_CHECK(one.head.source.s_addr == other.head.source.s_addr);
    FUZZ_CHECK(one.head.destination.s_addr == other.head.destination.s_addr);
    FUZZ_CHECK(one.head.source_port == other.head.source_port);
    FUZZ_CHECK(one.head.destination_port == other.head.destination_port);
}

void check_written(const std::vector<Seen> &all)
{
    char *bytes = nullptr;
    size_t length = 0;
    FILE *file = open_memstream(&bytes, &length);
    FUZZ_CHECK(file != nullptr && capture_begin(file));
    for (const Seen &seen : all) {
        packet again = seen.head;
        again.data = reinterpret_cast<const uint8_t *>(seen.carried.data());
        FUZZ_CHECK(capture_append(file, &again));
    }
    FUZZ_CHECK(fclose(file) == 0);

    file = fmemopen(bytes, length, "r");
    FUZZ_CHECK(file != nullptr);
    capture_result end;
    const std::vector<Seen> read = read_all(file, &end);
    fclose(file);
    free(bytes);
    FUZZ_CHECK(end == CAPTURE_END && read.size() == all.size() && g_reader.skipped == 0);
    for (size_t i = 0; i < all.size(); ++i)
        check_same(all[i], read[i]);
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::silence_output();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Block copy(std::string(reinterpret_cast<const char *>(data), size));
    FILE *file = fmemopen(copy.bytes(), size, "r");
    if (file == nullptr)
        return 0;
    capture_result end;
    const std::vector<Seen> all = read_all(file, &end);
    fclose(file);
    check_written(all);
    return 0;
}
