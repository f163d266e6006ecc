// SPDX-License-Identifier: ISC
// What libcrypto and zlib make of the same input.
#ifndef BV_TESTS_CRYPTO_REFERENCE_H
#define BV_TESTS_CRYPTO_REFERENCE_H

#include "crypto/vectors.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <string>

namespace reference {

inline std::string digest(const EVP_MD *kind, const std::string &message)
{
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(message.data(), message.size(), out, &length, kind, nullptr);
    return std::string(reinterpret_cast<char *>(out), length);
}

inline const EVP_MD *sha2(bool is224)
{
    return is224 ? EVP_sha224() : EVP_sha256();
}

inline std::string hmac(bool is224, const std::string &key, const std::string &message)
{
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(sha2(is224), key.data(), static_cast<int>(key.size()), u8(message), message.size(), out,
         &length);
    return std::string(reinterpret_cast<char *>(out), length);
}

inline std::string pbkdf2(const std::string &password, const std::string &salt, unsigned iterations,
                          size_t length)
{
    std::string key(length, 0);
    PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), u8(salt),
                      static_cast<int>(salt.size()), static_cast<int>(iterations), EVP_sha256(),
                      static_cast<int>(length), reinterpret_cast<unsigned char *>(&key[0]));
    return key;
}

// One message, from a zero vector. With a wrong padding, what came before the last block.
inline std::string aes(bool encrypt, const std::string &key, const std::string &in)
{
    static const unsigned char zero[16] = {};
    std::string out(in.size() + 32, 0);
    auto *to = reinterpret_cast<unsigned char *>(&out[0]);
    int updated = 0, finished = 0;

    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    EVP_CipherInit_ex(ctx, EVP_aes_128_cbc(), nullptr, u8(key), zero, encrypt);
    EVP_CipherUpdate(ctx, to, &updated, u8(in), static_cast<int>(in.size()));
    if (EVP_CipherFinal_ex(ctx, to + updated, &finished) != 1)
        finished = 0;
    EVP_CIPHER_CTX_free(ctx);
    out.resize(static_cast<size_t>(updated + finished));
    return out;
}

} // namespace reference

#endif
