// SPDX-License-Identifier: ISC
// Digests as hexadecimal text: SHA-256 with our own code, SM3 with libcrypto.

#include <bv/os.h>

#include "crypto/sha256_block.h"
#include "crypto/wipe.h"
#include "os/alloc.h"
#include "os/bytes.h"
#include "os/descriptor.h"

#include <cstring>
#include <fcntl.h>
#include <openssl/evp.h>

namespace {

constexpr size_t kDigestSize = 32; // of both
constexpr uint32_t kPieceSize = 65536;

// More than libcrypto's functions use of the stack to finish a digest, which they hold there as
// words.
constexpr size_t kLibcryptoDepth = 1024;

// Straight into the caller's buffer: printing or converting elsewhere would leave the text on the
// stack, and a password's digest may be as good as the password.
void put_digits(char *out, const uint8_t (&digest)[kDigestSize])
{
    for (size_t i = 0; i < kDigestSize; ++i)
        bv::put_hex(out + 2 * i, digest[i]);
}

// An SM3 digest. It is invalid when libcrypto was built without SM3 or has no memory for it, and
// then ignores its input.
class Sm3 {
public:
    Sm3() : ctx_(EVP_MD_CTX_new())
    {
        valid_ = ctx_ != nullptr && EVP_DigestInit_ex(ctx_, EVP_sm3(), nullptr) == 1;
    }
    ~Sm3() { EVP_MD_CTX_free(ctx_); }
    Sm3(const Sm3 &) = delete;
    Sm3 &operator=(const Sm3 &) = delete;

    bool valid() const { return valid_; }

    void update(const void *data, size_t length)
    {
        valid_ = valid_ && EVP_DigestUpdate(ctx_, data, length) == 1;
    }

    // 64 digits and no terminator: callers pass a zeroed buffer of 65 bytes. BV_ERR_MEMORY leaves
    // out unchanged.
    uint32_t finish(char *out)
    {
        uint8_t digest[kDigestSize];
        const bool done = valid_ && EVP_DigestFinal_ex(ctx_, digest, nullptr) == 1;
        if (done)
            put_digits(out, digest);
        bv::wipe(digest);
        bv::wipe_stack<kLibcryptoDepth>();
        return done ? BV_OK : BV_ERR_MEMORY;
    }

private:
    EVP_MD_CTX *ctx_;
    bool valid_;
};

// Only reads, never seeks: the offsets of bv_os_lseek() end at 2 GiB. A read error, such as that of
// a directory, counts as the end of the file.
uint32_t sm3_descriptor(int fd, uint8_t *piece, char *out)
{
    Sm3 sm3;
    for (;;) {
        const ssize_t count = bv_os_read(fd, piece, kPieceSize);
        if (count <= 0)
            return sm3.finish(out);
        sm3.update(piece, static_cast<size_t>(count));
    }
}

} // namespace

void bv_os_sha256(char *out, const char *text)
{
    if (out == nullptr || text == nullptr)
        return;

    const size_t length = strlen(text); // bv_os_strlen() would cut it to 32 bits
    const size_t whole = length / bv::kSha256BlockSize;
    const size_t rest = length % bv::kSha256BlockSize;
    const size_t tail_blocks = rest < 56 ? 1 : 2;

    uint8_t tail[2 * bv::kSha256BlockSize] = {};
    bv_os_memcpy(tail, sizeof(tail), text + length - rest, static_cast<uint32_t>(rest));
    tail[rest] = 0x80;
    // Only the low word of the length in bits: a text of 2^29 bytes or more has another digest here
    // than elsewhere, and services compare such digests with each other.
    bv::put_be32(tail + tail_blocks * bv::kSha256BlockSize - 4, static_cast<uint32_t>(length) << 3);

    uint32_t h[8];
    for (size_t i = 0; i < 8; ++i)
        h[i] = bv::kSha256Initial[i];
    bv::sha256_blocks(h, reinterpret_cast<const uint8_t *>(text), whole);
    bv::sha256_blocks(h, tail, tail_blocks);
    bv::wipe(tail);

    uint8_t digest[kDigestSize];
    for (size_t i = 0; i < 8; ++i)
        bv::put_be32(digest + 4 * i, h[i]);
    put_digits(out, digest);
    out[2 * kDigestSize] = '\0';
    bv::wipe(h);
    bv::wipe(digest);
}

uint32_t bv_os_sm3_str(const uint8_t *data, uint32_t length, char *out)
{
    if (data == nullptr || length == 0 || out == nullptr)
        return BV_ERR_INVALID;

    Sm3 sm3;
    sm3.update(data, length);
    return sm3.finish(out);
}

uint32_t bv_os_sm3_file(const char *path, char *out)
{
    if (path == nullptr || out == nullptr || bv_os_access(path, F_OK) != 0)
        return BV_ERR_NO_FILE;

    const bv::Descriptor fd(bv::close_on_exec(bv_os_open(path, O_RDONLY, 0666)));
    if (!fd)
        return BV_ERR_OPEN;
    const bv::Block<uint8_t> piece(bv::allocate<uint8_t>(kPieceSize));
    return piece ? sm3_descriptor(fd.get(), piece.get(), out) : BV_ERR_MEMORY;
}
