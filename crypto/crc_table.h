// SPDX-License-Identifier: ISC
// Reflected cyclic redundancy checks by table, several bytes at a time ("slicing").
//
// Table k holds, for each byte value, the CRC of that byte followed by k zero bytes. CRCs are
// linear, so the CRC of a whole slice is the XOR of one entry for each byte, from table Slices - 1
// for the first byte to table 0 for the last. These look-ups do not wait for one another, while in
// the plain method each waits for the one before. Table 0 is the table of the plain method.
#ifndef BV_CRYPTO_CRC_TABLE_H
#define BV_CRYPTO_CRC_TABLE_H

#include <cstddef>
#include <cstdint>
#include <utility>

#define BV_INLINE inline __attribute__((always_inline))

namespace bv {

// 16 tables of CRC-32 take 16 KiB: a third of a server's first-level data cache, but half of the
// gateway's, where 8 tables leave more room for the data.
constexpr unsigned kCrcSlices = sizeof(void *) == 8 ? 16 : 8;

// Each slice waits for the one before. A processor that runs many instructions at once has time
// left then, so it works on two neighbouring stretches of this many bytes at once.
constexpr size_t kCrcStretch = 256;
constexpr bool kCrcPaired = sizeof(void *) == 8;
constexpr unsigned kCrcSkipSize = kCrcPaired ? 256 : 1; // no room on the gateway for unused tables

template <typename Word, unsigned Slices>
struct CrcTables {
    Word entry[Slices][256];
    Word skip[sizeof(Word)][kCrcSkipSize]; // byte j of a CRC, after kCrcStretch zero bytes
};

template <typename Word, unsigned Slices>
constexpr Word crc_byte(const CrcTables<Word, Slices> &tables, Word crc, uint8_t byte)
{
    return static_cast<Word>(crc >> 8 ^ tables.entry[0][(crc ^ byte) & 0xff]);
}

// The table of the plain method. Polynomial is in reflected form: the coefficient of x^0 is the
// highest bit.
template <typename Word, Word Polynomial, unsigned Slices>
constexpr void fill_plain_table(CrcTables<Word, Slices> &tables)
{
    for (unsigned byte = 0; byte < 256; ++byte) {
        Word crc = static_cast<Word>(byte);
        for (int bit = 0; bit < 8; ++bit)
            crc = static_cast<Word>(crc & 1 ? crc >> 1 ^ Polynomial : crc >> 1);
        tables.entry[0][byte] = crc;
    }
}

template <typename Word, unsigned Slices>
constexpr void fill_other_tables(CrcTables<Word, Slices> &tables)
{
    for (unsigned k = 1; k < Slices; ++k)
        for (unsigned byte = 0; byte < 256; ++byte)
            tables.entry[k][byte] = crc_byte(tables, tables.entry[k - 1][byte], 0);
}

template <typename Word, unsigned Slices>
constexpr Word skip_stretch(const CrcTables<Word, Slices> &tables, Word crc)
{
    for (size_t i = 0; i < kCrcStretch; ++i)
        crc = crc_byte(tables, crc, 0);
    return crc;
}

// The entry of a byte with several bits is the sum of its lowest bit's and the other bits' entries.
template <typename Word, unsigned Slices>
constexpr void fill_skips(CrcTables<Word, Slices> &tables)
{
    for (unsigned j = 0; j < sizeof(Word); ++j) {
        for (unsigned byte = 1; byte < kCrcSkipSize; ++byte) {
            const unsigned others = byte & (byte - 1);
            const unsigned lowest = byte ^ others;
            tables.skip[j][byte] =
                others == 0 ? skip_stretch(tables, static_cast<Word>(lowest << (8 * j)))
                            : static_cast<Word>(tables.skip[j][others] ^ tables.skip[j][lowest]);
        }
    }
}

template <typename Word, Word Polynomial, unsigned Slices>
constexpr CrcTables<Word, Slices> make_crc_tables()
{
    CrcTables<Word, Slices> tables{};
    fill_plain_table<Word, Polynomial>(tables);
    fill_other_tables(tables);
    fill_skips(tables);
    return tables;
}

// A machine word's bytes, the first the lowest, from any alignment.
BV_INLINE size_t load_little_endian(const uint8_t *data)
{
    struct __attribute__((packed, may_alias)) Unaligned {
        size_t word;
    };
    const size_t word = reinterpret_cast<const Unaligned *>(data)->word;
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    return sizeof(word) == 8 ? static_cast<size_t>(__builtin_bswap64(word))
                             : __builtin_bswap32(static_cast<uint32_t>(word));
#else
    return word;
#endif
}

// Adds to sum the bytes of a slice from At on, which are the lowest of word. Two bytes at a time,
// and the empty assembler keeps the steps in order: otherwise the compiler takes each byte from the
// original word by its own copy and shift, and has no registers left for the sums.
template <unsigned At, unsigned Left = sizeof(size_t), typename Word, unsigned Slices>
BV_INLINE uint32_t crc_add(const CrcTables<Word, Slices> &tables, uint32_t sum, size_t word)
{
    sum ^= tables.entry[Slices - 1 - At][word & 0xff];
    if constexpr (Left == 2) {
        return sum ^ tables.entry[Slices - 2 - At][word >> 8];
    } else {
        sum ^= tables.entry[Slices - 2 - At][word >> 8 & 0xff];
        word >>= 16;
        __asm__("" : "+r"(word), "+r"(sum));
        return crc_add<At + 2, Left - 2>(tables, sum, word);
    }
}

template <typename Word, unsigned Slices, unsigned... I>
BV_INLINE Word crc_slice(const CrcTables<Word, Slices> &tables, Word crc, const uint8_t *data,
                         std::integer_sequence<unsigned, I...>)
{
    constexpr unsigned kWord = sizeof(size_t);
    uint32_t sum = 0;
    ((sum = crc_add<(I + 1) * kWord>(tables, sum, load_little_endian(data + (I + 1) * kWord))),
     ...);
    return static_cast<Word>(crc_add<0>(tables, sum, crc ^ load_little_endian(data)));
}

template <typename Word, unsigned Slices>
BV_INLINE Word crc_slice(const CrcTables<Word, Slices> &tables, Word crc, const uint8_t *data)
{
    return crc_slice(tables, crc, data,
                     std::make_integer_sequence<unsigned, Slices / unsigned{sizeof(size_t)} - 1>());
}

// What crc becomes over kCrcStretch zero bytes: the sum of what each of its bytes becomes.
template <typename Word, unsigned Slices, unsigned... J>
BV_INLINE Word crc_skip(const CrcTables<Word, Slices> &tables, Word crc,
                        std::integer_sequence<unsigned, J...>)
{
    return static_cast<Word>((tables.skip[J][crc >> (8 * J) & 0xff] ^ ...));
}

// Two stretches, A and B. Let crc(c, X) be the CRC that continues c over X. CRCs are linear, so
// crc(c, AB) = crc(c, A 0...0) ^ crc(0, B), with as many zero bytes as B has bytes.
template <typename Word, unsigned Slices>
BV_INLINE Word crc_pair(const CrcTables<Word, Slices> &tables, Word crc, const uint8_t *data)
{
    Word second = 0;
    for (size_t at = 0; at < kCrcStretch; at += Slices) {
        crc = crc_slice(tables, crc, data + at);
        second = crc_slice(tables, second, data + kCrcStretch + at);
    }
    return crc_skip(tables, crc, std::make_integer_sequence<unsigned, unsigned{sizeof(Word)}>()) ^
           second;
}

// Continues crc over the data, without inverting it at either end.
template <typename Word, unsigned Slices>
inline Word crc_update(const CrcTables<Word, Slices> &tables, Word crc, const uint8_t *data,
                       size_t length)
{
    if constexpr (kCrcPaired) {
        for (; length >= 2 * kCrcStretch; data += 2 * kCrcStretch, length -= 2 * kCrcStretch)
            crc = crc_pair(tables, crc, data);
    }
    for (; length >= Slices; data += Slices, length -= Slices)
        crc = crc_slice(tables, crc, data);
    for (; length > 0; ++data, --length)
        crc = crc_byte(tables, crc, *data);
    return crc;
}

} // namespace bv

#undef BV_INLINE

#endif
