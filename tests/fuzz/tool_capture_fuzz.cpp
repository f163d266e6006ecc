// SPDX-License-Identifier: ISC
// A capture file, as bv-collect reads it. Every packet, written again, must read the same.

#include "fuzz/input.h"

#include <cstdio>
#include <vector>

#include "tools/collect/capture.h"
#include "tools/collect/datagram.h"
#include "tools/common/visible.h"

namespace {

using tools::Capture;
using tools::Packet;

Capture g_reader; // of 64 KiB

struct Seen {
    Packet head;
    std::string carried;
};

void show(const Packet &found, FILE *to)
{
    tools::Datagram message;
    if (tools::read_datagram(message, found.payload) == nullptr)
        tools::print_visible(to, message.text);
}

// Each datagram has memory of its own, so that the sanitizer sees where it ends.
std::vector<Seen> read_all(FILE *file, Capture::Result &end)
{
    std::vector<Seen> all;
    end = Capture::Result::End;
    if (g_reader.open(file) != nullptr)
        return all;
    Packet found;
    while ((end = g_reader.next(found)) == Capture::Result::Packet) {
        const bv::Bytes carried = found.payload;
        Seen seen{found, {reinterpret_cast<const char *>(carried.data), carried.length}};
        fuzz::Block exact(seen.carried);
        found.payload.data = exact.bytes();
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
    FUZZ_CHECK(file != nullptr && tools::begin_capture(file));
    for (const Seen &seen : all) {
        Packet again = seen.head;
        again.payload.data = reinterpret_cast<const uint8_t *>(seen.carried.data());
        FUZZ_CHECK(tools::append_packet(file, again));
    }
    FUZZ_CHECK(fclose(file) == 0);

    file = fmemopen(bytes, length, "r");
    FUZZ_CHECK(file != nullptr);
    Capture::Result end;
    const std::vector<Seen> read = read_all(file, end);
    fclose(file);
    free(bytes);
    FUZZ_CHECK(end == Capture::Result::End && read.size() == all.size() && g_reader.skipped == 0);
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
    Capture::Result end;
    const std::vector<Seen> all = read_all(file, end);
    fclose(file);
    check_written(all);
    return 0;
}
