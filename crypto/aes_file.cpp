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
#include "os/descriptor.h"

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

// Messages for each system call. Both buffers are on the stack, 10 KiB for encrypting and 12 KiB
// for decrypting, so that it works when memory is short.
constexpr size_t kBatch = 128;
constexpr size_t kPlainBatch = kBatch * kPlainChunk;
constexpr size_t kCipherBatch = kBatch * kCipherChunk;

void mix_block(uint8_t *block, const uint8_t *with)
{
    for (size_t i = 0; i < kAesBlockSize; ++i)
        block[i] = static_cast<uint8_t>(block[i] ^ with[i]);
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

// Encrypts a batch of messages with each call; only the last batch may end in a short message.
class FileEncryptor {
public:
    static constexpr AesCipher::Direction kDirection = AesCipher::kEncrypt;
    static constexpr size_t kInSize = kPlainBatch;
    static constexpr size_t kOutSize = kCipherBatch;

    explicit FileEncryptor(AesCipher &cipher) : cipher_(cipher) {}
    ~FileEncryptor() { bv::wipe(padded_); }

    size_t run(const uint8_t *in, size_t length, uint8_t *out)
    {
        size_t written = 0;
        for (size_t at = 0; at < length; at += kPlainChunk)
            written += encrypt(in + at, std::min(length - at, kPlainChunk), out + written);
        return written;
    }

private:
    size_t encrypt(const uint8_t *plain, size_t length, uint8_t *out)
    {
        const size_t total = kAesBlockSize * (length / kAesBlockSize + 1);
        const size_t padding = total - length;

        bv_os_memcpy(padded_, sizeof(padded_), plain, static_cast<uint32_t>(length));
        memset(padded_ + length, static_cast<int>(padding), padding);
        mix_block(padded_, chain_.block());
        if (cipher_.update(out, padded_, total) != total)
            return 0;
        chain_.move_to_end_of(out, total);
        return total;
    }

    AesCipher &cipher_;
    ChainEnd chain_;
    uint8_t padded_[kCipherChunk];
};

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

// Decrypts a batch of messages with each call. Decrypting a block does not wait for the previous
// one, so the cipher is called once for the whole batch.
class FileDecryptor {
public:
    static constexpr AesCipher::Direction kDirection = AesCipher::kDecrypt;
    static constexpr size_t kInSize = kCipherBatch;
    static constexpr size_t kOutSize = kCipherBatch; // a damaged message may give up to 47 bytes

    explicit FileDecryptor(AesCipher &cipher) : cipher_(cipher) {}

    size_t run(const uint8_t *in, size_t length, uint8_t *out)
    {
        const size_t whole = length - length % kAesBlockSize;
        if (whole == 0 || cipher_.update(out, in, whole) != whole)
            return 0;

        size_t written = 0;
        for (size_t at = 0; at < whole; at += kCipherChunk) {
            mix_block(out + at, chain_.block());
            const size_t left = length - at;
            const size_t count = message_length(out + at, std::min(left, kCipherChunk));
            bv_os_memmove(out + written, static_cast<uint32_t>(kOutSize - written), out + at,
                          static_cast<uint32_t>(count));
            written += count;
            if (left >= kCipherChunk)
                chain_.move_to_end_of(in + at, kCipherChunk);
        }
        return written;
    }

private:
    // A message that is cut within a block has lost its padding: only its whole blocks count.
    static size_t message_length(const uint8_t *plain, size_t length)
    {
        const size_t cut = length % kAesBlockSize;
        return cut != 0 ? length - cut : unpadded_length(plain, length);
    }

    AesCipher &cipher_;
    ChainEnd chain_;
};

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

template <typename Worker>
void transform(int in, int out, Worker &worker)
{
    // Not bv_os_lseek(), whose offsets end at 2 GiB.
    off_t left = lseek(in, 0, SEEK_END);
    if (left < 1)
        return;
    lseek(in, 0, SEEK_SET);

    uint8_t from[Worker::kInSize];
    uint8_t to[Worker::kOutSize];
    while (left > 0) {
        const auto wanted = static_cast<size_t>(std::min<off_t>(left, sizeof(from)));
        const size_t length = read_batch(in, from, wanted);
        left = length == wanted ? left - static_cast<off_t>(length) : 0;
        if (!write_all(out, to, worker.run(from, length, to)))
            break;
    }
    bv::wipe(from);
    bv::wipe(to);
}

template <typename Worker>
int32_t transform_file(const char *in_path, const char *out_path, const uint8_t *key)
{
    if (in_path == nullptr || out_path == nullptr || key == nullptr)
        return BV_OK;

    const bv::Descriptor in(bv::close_on_exec(bv_os_open(in_path, O_RDONLY | O_SYNC, 0666)));
    const bv::Descriptor out(bv::close_on_exec(bv_os_open(out_path, O_RDWR | O_CREAT, 0666)));
    AesCipher cipher(key, Worker::kDirection);
    if (cipher.valid()) {
        cipher.disable_padding();
        Worker worker(cipher);
        transform(in.get(), out.get(), worker);
    }
    return BV_OK;
}

} // namespace

int32_t bv_aes_file_en(const char *in_path, const char *out_path, const uint8_t *key)
{
    return transform_file<FileEncryptor>(in_path, out_path, key);
}

int32_t bv_aes_file_de(const char *in_path, const char *out_path, const uint8_t *key)
{
    return transform_file<FileDecryptor>(in_path, out_path, key);
}
