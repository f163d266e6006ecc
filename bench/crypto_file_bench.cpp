// SPDX-License-Identifier: ISC
// Files in memory (/dev/shm): the AES helpers beside a context and two system calls for each chunk
// of 32 bytes, which gives the same bytes, and the SM3 of a file beside that of the same bytes in
// memory. Names are WORK/SIZE/WAY; compare rows of one WORK/SIZE within one run.

#include <bv/aes.h>
#include <bv/os.h>

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <openssl/evp.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t kSize = 4 << 20;
const uint8_t kKey[17] = "sixteen byte key";

std::string g_folder;

std::string path(const char *name)
{
    return g_folder + "/" + name;
}

void chunk_by_chunk(const std::string &from, const std::string &to, bool encrypt)
{
    static const uint8_t zero[16] = {};
    const size_t size = encrypt ? 32 : 48;
    const int in = open(from.c_str(), O_RDONLY | O_SYNC);
    const int out = open(to.c_str(), O_RDWR | O_CREAT, 0666);
    uint8_t chunk[48], result[64 + 16];
    for (;;) {
        const ssize_t got = read(in, chunk, size);
        if (got <= 0)
            break;
        int updated = 0, finished = 0;
        EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
        EVP_CipherInit_ex(ctx, EVP_aes_128_cbc(), nullptr, kKey, zero, encrypt);
        EVP_CipherUpdate(ctx, result, &updated, chunk, static_cast<int>(got));
        EVP_CipherFinal_ex(ctx, result + updated, &finished);
        EVP_CIPHER_CTX_free(ctx);
        const auto count = static_cast<size_t>(updated + finished);
        if (write(out, result, count) != static_cast<ssize_t>(count))
            abort();
    }
    close(in);
    close(out);
}

std::string content(const std::string &name)
{
    std::string bytes(2 * kSize, 0);
    FILE *file = fopen(name.c_str(), "rb");
    bytes.resize(file == nullptr ? 0 : fread(&bytes[0], 1, bytes.size(), file));
    if (file != nullptr)
        fclose(file);
    return bytes;
}

void aes(benchmark::State &state, bool encrypt, bool ours)
{
    const std::string from = path(encrypt ? "plain" : "cipher"), to = path("out");
    for (auto _ : state) {
        if (!ours)
            chunk_by_chunk(from, to, encrypt);
        else if (encrypt)
            bv_aes_file_en(from.c_str(), to.c_str(), kKey);
        else
            bv_aes_file_de(from.c_str(), to.c_str(), kKey);
    }
    if (content(to) != content(path(encrypt ? "cipher" : "plain")))
        state.SkipWithError("wrong bytes");
    unlink(to.c_str());
}

void sm3_file(benchmark::State &state)
{
    char out[65] = {};
    for (auto _ : state)
        bv_os_sm3_file(path("plain").c_str(), out);
}

void sm3_memory(benchmark::State &state)
{
    const std::string bytes = content(path("plain"));
    uint8_t out[EVP_MAX_MD_SIZE];
    for (auto _ : state)
        EVP_Digest(bytes.data(), bytes.size(), out, nullptr, EVP_sm3(), nullptr);
}

void make_files()
{
    std::vector<uint8_t> bytes(kSize);
    for (size_t i = 0; i < kSize; i++)
        bytes[i] = static_cast<uint8_t>(i * 2654435761u >> 13);
    FILE *file = fopen(path("plain").c_str(), "wb");
    if (file == nullptr || fwrite(bytes.data(), 1, kSize, file) != kSize)
        abort();
    fclose(file);
    chunk_by_chunk(path("plain"), path("cipher"), true);
}

} // namespace

int main(int argc, char **argv)
{
    char folder[] = "/dev/shm/bench_crypto_XXXXXX";
    if (mkdtemp(folder) == nullptr)
        abort();
    g_folder = folder;
    make_files();

    for (bool encrypt : {true, false}) {
        for (bool ours : {true, false}) {
            const std::string name = std::string("AES file ") +
                                     (encrypt ? "encrypted" : "decrypted") + "/4MiB/" +
                                     (ours ? "bv" : "chunk-by-chunk");
            benchmark::RegisterBenchmark(name.c_str(), aes, encrypt, ours);
        }
    }
    benchmark::RegisterBenchmark("SM3/4MiB/bv", sm3_file);
    benchmark::RegisterBenchmark("SM3/4MiB/OpenSSL-memory", sm3_memory);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();

    for (const char *name : {"plain", "cipher", "out"})
        unlink(path(name).c_str());
    rmdir(folder);
    return 0;
}
