/* SPDX-License-Identifier: ISC */
/*
 * Encrypts a file, so that others can neither read it nor change it unnoticed.
 *
 *   encrypt seal PASSWORD-FILE FROM TO    encrypts FROM into TO, and writes TO.seal beside it
 *   encrypt open PASSWORD-FILE FROM TO    checks FROM against FROM.seal and decrypts it into TO
 *
 * The password is the first line of its file: on a command line, every user of the box could see
 * it.
 *
 * This shows what bv_aes_file_en() leaves to its caller. It authenticates nothing, so an HMAC of
 * the ciphertext goes along. It always starts from the same state, so every file gets a key of its
 * own, made of the password and a random salt; equal 32-byte pieces within one file still look
 * equal. It reports no failure and does not shorten an older output, so sizes are compared and old
 * output is removed first.
 *
 * TO.seal is one line: salt (32 hexadecimal digits), the plain file's size, HMAC-SHA-256 (64).
 *
 * Exit status: 0 done, 1 failed (the reason is printed), 2 wrong usage.
 */
#include <stdio.h>
#include <string.h>

#include <bv/bv.h>

#define SALT_DIGITS 32
#define HMAC_DIGITS 64
#define ITERATIONS 10000 /* the more, the longer each guess at the password takes */

struct seal {
    char salt[SALT_DIGITS + 1];
    char hmac[HMAC_DIGITS + 1];
    int size;
};

/* One key for each purpose. */
struct keys {
    uint8_t cipher[16];
    uint8_t hmac[32];
};

static int fail(const char *what)
{
    fprintf(stderr, "encrypt: %s\n", what);
    return -1;
}

/* Derives both keys from the password and the seal's salt. */
static int make_keys(struct keys *keys, const char *password_file, const struct seal *seal)
{
    char password[256] = "";
    FILE *file = bv_os_fopen(password_file, "r");

    if (file != NULL) {
        if (bv_os_fgets(password, sizeof(password), file) != NULL)
            password[strcspn(password, "\n")] = '\0';
        bv_os_fclose(file);
    }
    if (password[0] == '\0')
        return fail("no password");
    bv_pkcs5_pbkdf2_hmac((const uint8_t *)password, bv_os_strlen(password),
                         (const uint8_t *)seal->salt, SALT_DIGITS, (uint8_t *)keys, sizeof(*keys),
                         ITERATIONS);
    explicit_bzero(password, sizeof(password));
    return 0;
}

/* The HMAC of salt, size and ciphertext, as digits: all that is needed for decrypting. */
static int compute_hmac(char *digits, const struct keys *keys, const struct seal *seal,
                        const char *ciphertext)
{
    sha2_context context;
    uint8_t bytes[4096];
    uint8_t hmac[32];
    size_t got;
    FILE *file = bv_os_fopen(ciphertext, "rb");

    if (file == NULL)
        return fail("the encrypted file cannot be read");
    sha2_hmac_starts(&context, keys->hmac, sizeof(keys->hmac), 0);
    bv_os_snprintf((char *)bytes, sizeof(bytes), "%s %d ", seal->salt, seal->size);
    sha2_hmac_update(&context, bytes, bv_os_strlen((const char *)bytes));
    while ((got = bv_os_fread(bytes, 1, sizeof(bytes), file)) > 0)
        sha2_hmac_update(&context, bytes, (uint32_t)got);
    sha2_hmac_finish(&context, hmac);
    explicit_bzero(&context, sizeof(context)); /* it holds the key */
    bv_os_fclose(file);
    return bv_os_tohexstr(hmac, sizeof(hmac), digits, HMAC_DIGITS + 1);
}

static const char *seal_path(const char *ciphertext)
{
    static char path[512];

    return bv_os_snprintf(path, sizeof(path), "%s.seal", ciphertext) < 0 ? "" : path;
}

static int write_seal(const struct seal *seal, const char *ciphertext)
{
    FILE *file = bv_os_fopen(seal_path(ciphertext), "w");
    int written;

    if (file == NULL)
        return fail("the seal cannot be written");
    written = bv_os_fprintf(file, "%s %d %s\n", seal->salt, seal->size, seal->hmac);
    return bv_os_fclose(file) != 0 || written < 0 ? fail("the seal cannot be written") : 0;
}

static int read_seal(struct seal *seal, const char *ciphertext)
{
    char line[128] = "";
    FILE *file = bv_os_fopen(seal_path(ciphertext), "r");

    if (file == NULL)
        return fail("there is no seal");
    bv_os_fgets(line, sizeof(line), file);
    bv_os_fclose(file);
    /* The bounded scan wants the size of each text after its address. */
    if (bv_os_sscanf(line, "%32[0-9a-f] %d %64[0-9a-f]", seal->salt, sizeof(seal->salt),
                     &seal->size, seal->hmac, sizeof(seal->hmac)) != 3)
        return fail("the seal is damaged");
    return 0;
}

/* Takes equally long wherever the difference is, so the time does not tell how much was right. */
static int same_hmac(const char *a, const char *b)
{
    int difference = 0;
    int i;

    for (i = 0; i < HMAC_DIGITS; i++)
        difference |= a[i] ^ b[i];
    return difference == 0;
}

/* 32 bytes become 48, the last 1 to 32 of them 16, 32 or 48. */
static int encrypted_size(int size)
{
    return size / 32 * 48 + (size % 32 == 0 ? 0 : 16 * (size % 32 / 16 + 1));
}

static int seal_with(const struct keys *keys, struct seal *seal, const char *from, const char *to)
{
    bv_os_remove(to);
    bv_aes_file_en(from, to, keys->cipher);
    if (bv_get_filesize(to) != encrypted_size(seal->size))
        return fail("the encrypted file could not be written whole");
    if (compute_hmac(seal->hmac, keys, seal, to) != 0)
        return -1;
    return write_seal(seal, to);
}

static int seal_file(const char *password_file, const char *from, const char *to)
{
    struct seal seal;
    struct keys keys;
    int result;

    memset(&seal, 0, sizeof(seal));
    seal.size = bv_get_filesize(from);
    if (seal.size <= 0)
        return fail("no such file, or nothing in it");
    if (bv_os_random((uint8_t *)seal.salt, SALT_DIGITS) != 1)
        return fail("no random numbers");
    if (make_keys(&keys, password_file, &seal) != 0)
        return -1;
    result = seal_with(&keys, &seal, from, to);
    explicit_bzero(&keys, sizeof(keys));
    return result;
}

static int open_with(const struct keys *keys, const struct seal *seal, const char *from,
                     const char *to)
{
    char hmac[HMAC_DIGITS + 1];

    if (compute_hmac(hmac, keys, seal, from) != 0)
        return -1;
    if (!same_hmac(hmac, seal->hmac))
        return fail("wrong password, or the file was changed");
    bv_os_remove(to);
    bv_aes_file_de(from, to, keys->cipher);
    if (bv_get_filesize(to) != seal->size)
        return fail("the decrypted file could not be written whole");
    return 0;
}

static int open_file(const char *password_file, const char *from, const char *to)
{
    struct seal seal;
    struct keys keys;
    int result;

    memset(&seal, 0, sizeof(seal));
    if (read_seal(&seal, from) != 0 || make_keys(&keys, password_file, &seal) != 0)
        return -1;
    result = open_with(&keys, &seal, from, to);
    explicit_bzero(&keys, sizeof(keys));
    return result;
}

int main(int argc, char **argv)
{
    if (argc == 5 && bv_os_strcmp(argv[1], "seal") == 0)
        return seal_file(argv[2], argv[3], argv[4]) == 0 ? 0 : 1;
    if (argc == 5 && bv_os_strcmp(argv[1], "open") == 0)
        return open_file(argv[2], argv[3], argv[4]) == 0 ? 0 : 1;
    fputs("usage: encrypt seal|open PASSWORD-FILE FROM TO\n", stderr);
    return 2;
}
