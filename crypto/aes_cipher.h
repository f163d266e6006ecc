// AES-128-CBC with libcrypto.
#ifndef BV_CRYPTO_AES_CIPHER_H
#define BV_CRYPTO_AES_CIPHER_H

#include <cstddef>
#include <cstdint>
#include <openssl/evp.h>

namespace bv {

constexpr size_t kAesBlockSize = 16;
constexpr size_t kAesKeySize = 16;
constexpr uint8_t kAesZeroVector[kAesBlockSize] = {};

// Owns a cipher context that starts from a zero initialisation vector. valid() is false when
// libcrypto could not make one; then nothing else may be called.
class AesCipher {
public:
    enum Direction { kDecrypt = 0, kEncrypt = 1 };

    AesCipher(const uint8_t *key, Direction direction) : ctx_(EVP_CIPHER_CTX_new())
    {
        // Passed explicitly: a null vector means "unchanged", which is not zero in every libcrypto.
        valid_ = ctx_ != nullptr && EVP_CipherInit_ex(ctx_, EVP_aes_128_cbc(), nullptr, key,
                                                      kAesZeroVector, direction) == 1;
    }
    ~AesCipher() { EVP_CIPHER_CTX_free(ctx_); } // clears the key schedule too
    AesCipher(const AesCipher &) = delete;
    AesCipher &operator=(const AesCipher &) = delete;

    bool valid() const { return valid_; }

    // From here on every whole block comes out at once: nothing is padded or held back.
    void disable_padding() { EVP_CIPHER_CTX_set_padding(ctx_, 0); }

    // Both return the bytes produced, 0 after a failure.
    size_t update(uint8_t *out, const uint8_t *in, size_t length)
    {
        int produced = 0;
        EVP_CipherUpdate(ctx_, out, &produced, in, static_cast<int>(length));
        return static_cast<size_t>(produced);
    }

    size_t finish(uint8_t *out)
    {
        int produced = 0;
        if (EVP_CipherFinal_ex(ctx_, out, &produced) != 1)
            return 0;
        return static_cast<size_t>(produced);
    }

private:
    EVP_CIPHER_CTX *ctx_;
    bool valid_;
};

} // namespace bv

#endif
