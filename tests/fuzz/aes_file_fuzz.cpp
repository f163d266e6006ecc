// Files decrypted that were never encrypted, and files there and back.
//
// Input: 16 bytes key, then the file.

#include <bv/aes.h>

#include "fuzz/input.h"

namespace {

constexpr size_t kKeySize = 16;
constexpr char kIn[] = "/scratch/in";
constexpr char kOut[] = "/scratch/out";
constexpr char kBack[] = "/scratch/back";

void forget_results()
{
    unlink(kOut);
    unlink(kBack);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input input(data, size);
    std::string key_bytes = input.take(kKeySize);
    key_bytes.resize(kKeySize);
    fuzz::Block key(key_bytes);
    const std::string content = input.rest();
    fuzz::write_file(kIn, content);

    forget_results();
    FUZZ_CHECK(bv_aes_file_de(kIn, kOut, key.bytes()) == 0);
    FUZZ_CHECK(fuzz::read_file(kOut).size() <= content.size());

    forget_results();
    FUZZ_CHECK(bv_aes_file_en(kIn, kOut, key.bytes()) == 0);
    FUZZ_CHECK(bv_aes_file_de(kOut, kBack, key.bytes()) == 0);
    FUZZ_CHECK(fuzz::read_file(kBack) == content);
    return 0;
}
