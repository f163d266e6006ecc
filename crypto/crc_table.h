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

#define BV_INLINE inline __attribute__((always_inline))

namespace bv {

// A workstation looks up many entries at once. The gateway takes one instruction after the other:
// there more tables save nothing, and only fill its data cache, of which four take an eighth.
constexpr unsigned kCrcSlices = sizeof(void *) == 8 ? 16 : 4;

// The inner loop does this many bytes a turn, whatever the slices, so that counting costs little.
constexpr unsigned kCrcStride = 16;

template <typename Word, unsigned Slices>
struct CrcTables {
    static_assert(kCrcStride % Slices == 0 && Slices % 4 == 0, "a stride is some slices of words");
    Word entry[Slices][256];
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

template <typename Word, Word Polynomial, unsigned Slices>
constexpr CrcTables<Word, Slices> make_crc_tables()
{
    CrcTables<Word, Slices> tables{};
    fill_plain_table<Word, Polynomial>(tables);
    fill_other_tables(tables);
    return tables;
}

// Four bytes from an address that is a multiple of four, the first byte the lowest.
BV_INLINE uint32_t load_le32(const uint8_t *data)
{
    struct __attribute__((may_alias)) Aligned {
        uint32_t word;
    };
    const uint32_t word = reinterpret_cast<const Aligned *>(data)->word;
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    return __builtin_bswap32(word);
#else
    return word;
#endif
}

// The sum over the four bytes of a slice from At on.
template <unsigned At, typename Word, unsigned Slices>
BV_INLINE uint32_t crc_word(const CrcTables<Word, Slices> &tables, uint32_t word)
{
    const Word(&first)[256] = tables.entry[Slices - 1 - At];
    const Word(&second)[256] = tables.entry[Slices - 2 - At];
    const Word(&third)[256] = tables.entry[Slices - 3 - At];
    const Word(&fourth)[256] = tables.entry[Slices - 4 - At];
    return uint32_t{first[word & 0xff]} ^ second[word >> 8 & 0xff] ^ third[word >> 16 & 0xff] ^
           fourth[word >> 24];
}

// Continues crc over the bytes of a stride from At on.
template <unsigned At = 0, typename Word, unsigned Slices>
BV_INLINE uint32_t crc_stride(const CrcTables<Word, Slices> &tables, uint32_t crc,
                              const uint8_t *data)
{
    if constexpr (At == kCrcStride) {
        return crc;
    } else {
        uint32_t word = load_le32(data + At);
        if constexpr (At % Slices == 0) {
            word ^= crc;
            crc = 0;
        }
        crc ^= crc_word<At % Slices>(tables, word);
        return crc_stride<At + 4>(tables, crc, data);
    }
}

// Continues crc over the data, without inverting it at either end.
template <typename Word, unsigned Slices>
inline Word crc_update(const CrcTables<Word, Slices> &tables, Word crc, const uint8_t *data,
                       size_t length)
{
    for (; length > 0 && reinterpret_cast<uintptr_t>(data) % 4 != 0; ++data, --length)
        crc = crc_byte(tables, crc, *data);
    for (; length >= kCrcStride; data += kCrcStride, length -= kCrcStride)
        crc = static_cast<Word>(crc_stride(tables, crc, data));
    for (; length > 0; ++data, --length)
        crc = crc_byte(tables, crc, *data);
    return crc;
}

} // namespace bv

#undef BV_INLINE

#endif
