// SPDX-License-Identifier: ISC
// AES-128-CBC of files.
//
// An encrypted file is a row of independent messages: 32 bytes of plaintext padded to 48 of
// ciphertext, each from a zero vector, the last one shorter. One by one, that would take a cipher
// set-up and two system calls for every 32 bytes. Here one context runs through the whole file in
// one chain, and each system call moves many messages.
//
// In a chain the cipher mixes (XOR) the previous ciphertext block C into every plaintext block P.
// The first block of a message needs the zero vector instead, which means nothing mixed in. So at
// the start of each message we mix C in ourselves, and mixing it in twice removes it: before the
// cipher when encrypting, E((P ^ C) ^ C) = E(P), and after it when decrypting, (D(X) ^ C) ^ C =
// D(X).

#include <bv/aes.h>

#include "crypto/aes_cipher.h"
#include "crypto/wipe.h"
#include "os/bytes.h"
#include "os/descriptor.h"
#include "os/inline.h"
#include "os/span.h"

#include <bv/os.h>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

using bv::AesCipher;
using bv::kAesBlockSize;

constexpr size_t kPlainChunk = 32;
constexpr size_t kCipherChunk = 48;

// Messages for each system call. The buffers are on the stack, 12 KiB together, so that it works
// when memory is short.
constexpr size_t kBatch = 128;
constexpr size_t kPlainBatch = kBatch * kPlainChunk;
constexpr size_t kCipherBatch = kBatch * kCipherChunk;
constexpr size_t kOutSize = kCipherBatch; // a damaged message may give up to 47 bytes

void mix_block(uint8_t *block, const uint8_t *with)
{
    for (size_t i = 0; i < kAesBlockSize; i += 4) // any order of a word's bytes will do
        bv::put_be32(block + i, bv::get_be32(block + i) ^ bv::get_be32(with + i));
}

// The ciphertext block that the chain mixes into the next one; at the start the zero vector.
class ChainEnd {
public:
    const uint8_t *block() const { return block_; }

    // Takes any run of whole ciphertext blocks.
    void move_to_end_of(const uint8_t *cipher, size_t length)
    {
        bv_os_memcpy(block_, sizeof(block_), cipher + length - kAesBlockSize, kAesBlockSize);
    }

private:
    uint8_t block_[kAesBlockSize] = {};
};

// Encrypts a batch of messages; only the last batch may end in a short message.
size_t encrypt_batch(AesCipher &cipher, ChainEnd &chain, const uint8_t *in, size_t length,
                     uint8_t *out)
{
    uint8_t padded[kCipherChunk];
    size_t written = 0;
    for (size_t at = 0; at < length; at += kPlainChunk) {
        const size_t count = std::min(length - at, kPlainChunk);
        const size_t total = kAesBlockSize * (count / kAesBlockSize + 1);
        const size_t padding = total - count;

        bv_os_memcpy(padded, sizeof(padded), in + at, static_cast<uint32_t>(count));
        memset(padded + count, static_cast<int>(padding), padding);
        mix_block(padded, chain.block());
        if (cipher.update(out + written, padded, total) == total) {
            chain.move_to_end_of(out + written, total);
            written += total;
        }
    }
    bv::wipe(padded);
    return written;
}

// Bytes of a decrypted message without its padding. With a wrong padding the last block is dropped.
size_t unpadded_length(const uint8_t *plain, size_t length)
{
    const size_t padding = plain[length - 1];
    if (padding < 1 || padding > kAesBlockSize)
        return length - kAesBlockSize;
    for (size_t i = 2; i <= padding; ++i)
        if (plain[length - i] != padding)
            return length - kAesBlockSize;
    return length - padding;
}

// Bytes of a decrypted message. One that is cut within a block has lost its padding: only its whole
// blocks count.
size_t message_length(const uint8_t *plain, size_t length)
{
    const size_t cut = length % kAesBlockSize;
    return cut != 0 ? length - cut : unpadded_length(plain, length);
}

// Decrypts a batch of messages. Decrypting a block does not wait for the previous one, so the
// cipher is called once for the whole batch.
size_t decrypt_batch(AesCipher &cipher, ChainEnd &chain, const uint8_t *in, size_t length,
                     uint8_t *out)
{
    const size_t whole = length - length % kAesBlockSize;
    if (whole == 0 || cipher.update(out, in, whole) != whole)
        return 0;

    size_t written = 0;
    for (size_t at = 0; at < whole; at += kCipherChunk) {
        mix_block(out + at, chain.block());
        const size_t left = length - at;
        const size_t count = message_length(out + at, std::min(left, kCipherChunk));
        bv_os_memmove(out + written, static_cast<uint32_t>(kOutSize - written), out + at,
                      static_cast<uint32_t>(count));
        written += count;
        if (left >= kCipherChunk)
            chain.move_to_end_of(in + at, kCipherChunk);
    }
    return written;
}

// Reads until the batch is full, the file ends or a read fails. All batches but the last must be
// full, and a read may return less than it was asked for in the middle of a file.
size_t read_batch(int fd, uint8_t *data, size_t wanted)
{
    size_t length = 0;
    while (length < wanted) {
        const ssize_t count = bv_os_read(fd, data + length, wanted - length);
        if (count <= 0)
            break;
        length += static_cast<size_t>(count);
    }
    return length;
}

// False when the file takes no more.
bool write_all(int fd, const uint8_t *data, size_t length)
{
    while (length > 0) {
        const ssize_t count = bv_os_write(fd, data, length);
        if (count <= 0)
            return false;
        data += count;
        length -= static_cast<size_t>(count);
    }
    return true;
}

void transform(int in, int out, AesCipher &cipher, AesCipher::Direction direction,
               bv::MutableBytes from, uint8_t *to)
{
    // Not bv_os_lseek(), whose offsets end at 2 GiB.
    off_t left = lseek(in, 0, SEEK_END);
    if (left < 1)
        return;
    lseek(in, 0, SEEK_SET);

    ChainEnd chain;
    while (left > 0) {
        const auto wanted = static_cast<size_t>(std::min<off_t>(left, from.length));
        const size_t length = read_batch(in, from.data, wanted);
        left = length == wanted ? left - static_cast<off_t>(length) : 0;
        const size_t made = direction == AesCipher::kEncrypt
                                ? encrypt_batch(cipher, chain, from.data, length, to)
                                : decrypt_batch(cipher, chain, from.data, length, to);
        if (!write_all(out, to, made))
            break;
    }
}

// Not inline: each way has its own depth of stack.
template <uint32_t InSize>
__attribute__((noinline)) void transform_with_buffers(int in, int out, AesCipher &cipher,
                                                      AesCipher::Direction direction)
{
    uint8_t from[InSize];
    uint8_t to[kOutSize];
    transform(in, out, cipher, direction, {from, InSize}, to);
    bv::wipe(from);
    bv::wipe(to);
}

int32_t transform_file(const char *in_path, const char *out_path, const uint8_t *key,
                       AesCipher::Direction direction)
{
    if (in_path == nullptr || out_path == nullptr || key == nullptr)
        return BV_OK;

    const bv::Descriptor in(bv::close_on_exec(bv_os_open(in_path, O_RDONLY | O_SYNC, 0666)));
    const bv::Descriptor out(bv::close_on_exec(bv_os_open(out_path, O_RDWR | O_CREAT, 0666)));
    AesCipher cipher(key, direction);
    if (cipher.valid()) {
        cipher.disable_padding();
        if (direction == AesCipher::kEncrypt)
            transform_with_buffers<kPlainBatch>(in.get(), out.get(), cipher, direction);
        else
            transform_with_buffers<kCipherBatch>(in.get(), out.get(), cipher, direction);
    }
    return BV_OK;
}

} // namespace

int32_t bv_aes_file_en(const char *in_path, const char *out_path, const uint8_t *key)
{
    return transform_file(in_path, out_path, key, AesCipher::kEncrypt);
}

int32_t bv_aes_file_de(const char *in_path, const char *out_path, const uint8_t *key)
{
    return transform_file(in_path, out_path, key, AesCipher::kDecrypt);
}
