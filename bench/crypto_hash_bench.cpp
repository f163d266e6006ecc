// SPDX-License-Identifier: ISC
// Hashes and checksums beside other libraries' portable code.
//
// The gateway has neither vector nor SHA instructions, so the peers are measured without theirs:
// the program starts itself again with the settings that switch them off. Names are
// WORK/SIZE/LIBRARY; compare rows of one WORK/SIZE within one run.

#include <bv/os.h>
#include <bv/sha2.h>

#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include <openssl/evp.h>
#include <openssl/hmac.h>
#ifdef BV_PEER_GCRYPT
#include <gcrypt.h>
#endif
#ifdef BV_PEER_NETTLE
#include <nettle/hmac.h>
#include <nettle/sha2.h>
#endif
#ifdef BV_PEER_MBEDTLS
#include <mbedtls/md.h>
#include <mbedtls/pkcs5.h>
#include <mbedtls/sha256.h>
#endif
#ifdef BV_PEER_ZLIB
#include <zlib.h>
#endif

namespace {

const uint8_t kKey[20] = "nineteen characters";

// Work on a buffer; the result ends in out.
using Work = void (*)(const uint8_t *data, uint32_t size, uint8_t *out);

void sha256_bv(const uint8_t *data, uint32_t size, uint8_t *out)
{
    sha2_context ctx;
    sha2_starts(&ctx, 0);
    sha2_update(&ctx, data, size);
    sha2_finish(&ctx, out);
}

void sha256_openssl(const uint8_t *data, uint32_t size, uint8_t *out)
{
    static EVP_MD_CTX *ctx = EVP_MD_CTX_new();
    EVP_DigestInit_ex(ctx, EVP_sha256(), nullptr);
    EVP_DigestUpdate(ctx, data, size);
    EVP_DigestFinal_ex(ctx, out, nullptr);
}

void hmac_bv(const uint8_t *data, uint32_t size, uint8_t *out)
{
    sha2_hmac(kKey, sizeof(kKey), data, size, out, 0);
}

void hmac_openssl(const uint8_t *data, uint32_t size, uint8_t *out)
{
    HMAC(EVP_sha256(), kKey, sizeof(kKey), data, size, out, nullptr);
}

template <uint32_t kIterations>
void pbkdf2_bv(const uint8_t *data, uint32_t size, uint8_t *out)
{
    bv_pkcs5_pbkdf2_hmac(kKey, sizeof(kKey), data, size, out, 32, kIterations);
}

void crc32_bv(const uint8_t *data, uint32_t size, uint8_t *out)
{
    out[0] = static_cast<uint8_t>(bv_os_crc32(out[0], data, size));
}

void crc16_bv(const uint8_t *data, uint32_t size, uint8_t *out)
{
    out[0] = static_cast<uint8_t>(bv_os_crc16(out[0], data, size));
}

// One table, a byte at a time.
void crc16_plain(const uint8_t *data, uint32_t size, uint8_t *out)
{
    static const auto table = [] {
        std::vector<uint16_t> entries(256);
        for (unsigned byte = 0; byte < 256; byte++) {
            unsigned crc = byte;
            for (int bit = 0; bit < 8; bit++)
                crc = crc & 1 ? crc >> 1 ^ 0xa001 : crc >> 1;
            entries[byte] = static_cast<uint16_t>(crc);
        }
        return entries;
    }();
    const uint16_t *entries = table.data();
    unsigned crc = out[0];
    for (uint32_t i = 0; i < size; i++)
        crc = crc >> 8 ^ entries[(crc ^ data[i]) & 0xff];
    out[0] = static_cast<uint8_t>(crc);
}

#ifdef BV_PEER_GCRYPT
void sha256_gcrypt(const uint8_t *data, uint32_t size, uint8_t *out)
{
    gcry_md_hash_buffer(GCRY_MD_SHA256, out, data, size);
}
#endif

#ifdef BV_PEER_NETTLE
void sha256_nettle(const uint8_t *data, uint32_t size, uint8_t *out)
{
    sha256_ctx ctx;
    sha256_init(&ctx);
    sha256_update(&ctx, size, data);
    sha256_digest(&ctx, 32, out);
}

void hmac_nettle(const uint8_t *data, uint32_t size, uint8_t *out)
{
    hmac_sha256_ctx ctx;
    hmac_sha256_set_key(&ctx, sizeof(kKey), kKey);
    hmac_sha256_update(&ctx, size, data);
    hmac_sha256_digest(&ctx, 32, out);
}
#endif

#ifdef BV_PEER_MBEDTLS
void sha256_mbedtls(const uint8_t *data, uint32_t size, uint8_t *out)
{
    mbedtls_sha256_context ctx;
    mbedtls_sha256_init(&ctx);
    mbedtls_sha256_starts_ret(&ctx, 0);
    mbedtls_sha256_update_ret(&ctx, data, size);
    mbedtls_sha256_finish_ret(&ctx, out);
}

void hmac_mbedtls(const uint8_t *data, uint32_t size, uint8_t *out)
{
    mbedtls_md_hmac(mbedtls_md_info_from_type(MBEDTLS_MD_SHA256), kKey, sizeof(kKey), data, size,
                    out);
}

template <uint32_t kIterations>
void pbkdf2_mbedtls(const uint8_t *data, uint32_t size, uint8_t *out)
{
    mbedtls_md_context_t ctx;
    mbedtls_md_init(&ctx);
    mbedtls_md_setup(&ctx, mbedtls_md_info_from_type(MBEDTLS_MD_SHA256), 1);
    mbedtls_pkcs5_pbkdf2_hmac(&ctx, kKey, sizeof(kKey), data, size, kIterations, 32, out);
    mbedtls_md_free(&ctx);
}
#endif

#ifdef BV_PEER_ZLIB
void crc32_zlib(const uint8_t *data, uint32_t size, uint8_t *out)
{
    out[0] = static_cast<uint8_t>(crc32(out[0], data, size));
}
#endif

std::string size_name(uint32_t size)
{
    if (size >= 1 << 20)
        return std::to_string(size >> 20) + "MiB";
    return size >= 1 << 10 ? std::to_string(size >> 10) + "KiB" : std::to_string(size) + "B";
}

void add(const std::string &name, uint32_t size, const std::string &library, Work work)
{
    auto run = [work, size](benchmark::State &state) {
        std::vector<uint8_t> data(size);
        for (uint32_t i = 0; i < size; i++)
            data[i] = static_cast<uint8_t>(i * 2654435761u >> 24);
        uint8_t out[64] = {};
        for (auto _ : state) {
            work(data.data(), size, out);
            benchmark::DoNotOptimize(out);
        }
    };
    benchmark::RegisterBenchmark((name + "/" + size_name(size) + "/" + library).c_str(), run);
}

void add_all()
{
    for (uint32_t size : {64u, 1u << 20}) {
        add("SHA-256", size, "bv", sha256_bv);
        add("SHA-256", size, "OpenSSL", sha256_openssl);
#ifdef BV_PEER_GCRYPT
        add("SHA-256", size, "libgcrypt", sha256_gcrypt);
#endif
#ifdef BV_PEER_NETTLE
        add("SHA-256", size, "nettle", sha256_nettle);
#endif
#ifdef BV_PEER_MBEDTLS
        add("SHA-256", size, "mbedTLS", sha256_mbedtls);
#endif
    }
    for (uint32_t size : {64u, 1024u}) {
        add("HMAC-SHA-256", size, "bv", hmac_bv);
        add("HMAC-SHA-256", size, "OpenSSL", hmac_openssl);
#ifdef BV_PEER_NETTLE
        add("HMAC-SHA-256", size, "nettle", hmac_nettle);
#endif
#ifdef BV_PEER_MBEDTLS
        add("HMAC-SHA-256", size, "mbedTLS", hmac_mbedtls);
#endif
    }
    add("PBKDF2-100", 16, "bv", pbkdf2_bv<100>);
    add("PBKDF2-10000", 16, "bv", pbkdf2_bv<10000>);
#ifdef BV_PEER_MBEDTLS
    add("PBKDF2-10000", 16, "mbedTLS", pbkdf2_mbedtls<10000>);
#endif
    for (uint32_t size : {64u, 1024u, 65536u, 1u << 20}) {
        add("CRC-32", size, "bv", crc32_bv);
#ifdef BV_PEER_ZLIB
        add("CRC-32", size, "zlib", crc32_zlib);
#endif
        add("CRC-16", size, "bv", crc16_bv);
        add("CRC-16", size, "one-table", crc16_plain);
    }
}

} // namespace

int main(int argc, char **argv)
{
    // Both libraries look at these only while they are loaded.
    if (getenv("BV_BENCH_SCALAR") == nullptr) {
        setenv("BV_BENCH_SCALAR", "1", 1);
        setenv("OPENSSL_ia32cap", "0:0", 1);
        setenv("NETTLE_FAT_OVERRIDE", "vendor:intel,sha_ni:0", 1);
        execv("/proc/self/exe", argv);
    }
#ifdef BV_PEER_GCRYPT
    gcry_control(GCRYCTL_DISABLE_HWF, "all");
    gcry_check_version(nullptr);
#endif
    add_all();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
