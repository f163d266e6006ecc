// crypto_work NAME COUNT: does one piece of work COUNT times, for counting its instructions.

#include <bv/os.h>
#include <bv/sha2.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

uint8_t g_data[1 << 20];
uint8_t g_out[32];

void sha256(uint32_t size)
{
    sha2_context ctx;
    sha2_starts(&ctx, 0);
    sha2_update(&ctx, g_data, size);
    sha2_finish(&ctx, g_out);
}

void sha256_1mib(unsigned count)
{
    for (unsigned i = 0; i < count; i++)
        sha256(sizeof(g_data));
}

void sha256_64b(unsigned count)
{
    for (unsigned i = 0; i < count; i++)
        sha256(64);
}

void pbkdf2_iteration(unsigned count)
{
    bv_pkcs5_pbkdf2_hmac(g_data, 20, g_data, 16, g_out, sizeof(g_out), count);
}

void crc32_64kib(unsigned count)
{
    for (unsigned i = 0; i < count; i++)
        g_out[0] = static_cast<uint8_t>(bv_os_crc32(g_out[0], g_data, 65536));
}

void crc16_64kib(unsigned count)
{
    for (unsigned i = 0; i < count; i++)
        g_out[0] = static_cast<uint8_t>(bv_os_crc16(g_out[0], g_data, 65536));
}

constexpr struct {
    const char *name;
    void (*run)(unsigned count);
} kWork[] = {{"sha256_1mib", sha256_1mib},
             {"sha256_64b", sha256_64b},
             {"pbkdf2_iteration", pbkdf2_iteration},
             {"crc32_64kib", crc32_64kib},
             {"crc16_64kib", crc16_64kib}};

} // namespace

int main(int argc, char **argv)
{
    for (const auto &work : kWork) {
        if (argc == 3 && strcmp(argv[1], work.name) == 0) {
            work.run(static_cast<unsigned>(atoi(argv[2])));
            return 0;
        }
    }
    fprintf(stderr, "usage: crypto_work NAME COUNT; names are\n");
    for (const auto &work : kWork)
        fprintf(stderr, "  %s\n", work.name);
    return 2;
}
