// SPDX-License-Identifier: ISC
// Files decrypted that were never encrypted, and files there and back.
//
// Input: 16 bytes key, then the file.

#include <bv/aes.h>

#include "fuzz/input.h"

namespace {

constexpr char kIn[] = "/scratch/in";
constexpr char kOut[] = "/scratch/out";
constexpr char kBack[] = "/scratch/back";

// The result of a call that makes one file of another.
template <typename Call>
std::string result_of(Call call, const char *from, const char *to, fuzz::Block &key)
{
    unlink(to);
    FUZZ_CHECK(call(from, to, key.bytes()) == 0);
    return read_file(to);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input input(data, size);
    fuzz::Block key(input.fixed(16));
    const std::string content = input.rest();
    write_file(kIn, content);

    FUZZ_CHECK(result_of(bv_aes_file_de, kIn, kOut, key).size() <= content.size());
    result_of(bv_aes_file_en, kIn, kOut, key);
    FUZZ_CHECK(result_of(bv_aes_file_de, kOut, kBack, key) == content);
    return 0;
}
