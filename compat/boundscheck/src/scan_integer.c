// SPDX-License-Identifier: ISC
// Integers, pointers and %n.

#include "scan_internal.h"

#include <limits.h>
#include <string.h>

// Sign and magnitude as read. A magnitude beyond 64 bits is all ones and marked.
struct digits {
    bool negative;
    bool overflow;
    uint64_t magnitude;
};

static int digit_value(int c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return 16;
}

static void append_digit(struct digits *digits, unsigned int base, unsigned int digit)
{
    uint64_t value;
    digits->overflow = digits->overflow ||
                       __builtin_mul_overflow(digits->magnitude, base, &value) ||
                       __builtin_add_overflow(value, digit, &value);
    digits->magnitude = digits->overflow ? UINT64_MAX : value;
}

static void take_sign(struct scan_state *scan, size_t *width, struct digits *digits)
{
    int c = bc_look(scan);
    if (c != '+' && c != '-')
        return;
    digits->negative = c == '-';
    scan->next++;
    (*width)--;
    bc_look(scan); // also when the width is used up: a sign at the end of the input is an early end
}

// The base of x and i depends on how the number begins. True when a digit was taken: a 0 that is
// not part of 0x.
static bool take_base(struct scan_state *scan, size_t *width, char conversion, unsigned int *base)
{
    if ((conversion != 'x' && conversion != 'i') || *width == 0 || bc_look(scan) != '0')
        return false;
    scan->next++;
    (*width)--;
    if (*width != 0) {
        int c = bc_look(scan);
        if (c == 'x' || c == 'X') {
            scan->next++;
            (*width)--;
            *base = 16;
            return false;
        }
    }
    if (conversion == 'i')
        *base = 8;
    return true;
}

static bool take_digits(struct scan_state *scan, size_t width, char conversion, unsigned int base,
                        struct digits *digits)
{
    take_sign(scan, &width, digits);
    bool found = take_base(scan, &width, conversion, &base);
    for (; width != 0; width--) {
        unsigned int digit = (unsigned int)digit_value(bc_look(scan));
        if (digit >= base)
            break;
        append_digit(digits, base, digit);
        found = true;
        scan->next++;
    }
    return found;
}

// Size of an integer of this length, in bytes.
static size_t size_of(enum length length)
{
    switch (length) {
    case kLengthChar:
        return sizeof(char);
    case kLengthShort:
        return sizeof(short);
    case kLengthLong:
        return sizeof(long);
    case kLengthSize:
    case kLengthPtrdiff:
        return sizeof(size_t);
    case kLengthMax:
    case kLengthLlong:
        return sizeof(long long);
    case kLengthNone:
        break;
    }
    return sizeof(int);
}

// To how many bits a value is clamped before it is stored: long and larger types to their own
// width; types up to int to 64 bits, of which they keep the low ones.
static unsigned int clamp_bits(enum length length)
{
    bool small = length == kLengthNone || length == kLengthShort || length == kLengthChar;
    return small ? 64 : (unsigned int)(size_of(length) * CHAR_BIT);
}

static uint64_t signed_value(const struct digits *digits, unsigned int bits)
{
    uint64_t largest = UINT64_MAX >> (65 - bits);
    uint64_t limit = digits->negative ? largest + 1 : largest;
    uint64_t magnitude = digits->magnitude < limit ? digits->magnitude : limit;
    return digits->negative ? 0 - magnitude : magnitude;
}

static uint64_t unsigned_value(const struct digits *digits, enum length length, unsigned int bits)
{
    if (digits->overflow || digits->magnitude > UINT64_MAX >> (64 - bits))
        return UINT64_MAX;
    // Services rely on this: a plain unsigned with a minus sign saturates beyond 32 bits.
    if (length == kLengthNone && digits->negative && digits->magnitude > (uint64_t)1 << 32)
        return UINT64_MAX;
    return digits->negative ? 0 - digits->magnitude : digits->magnitude;
}

// Stores the low bits of value in an object of any type and alignment.
static void store(void *to, size_t size, uint64_t value)
{
    uint8_t value8 = (uint8_t)value;
    uint16_t value16 = (uint16_t)value;
    uint32_t value32 = (uint32_t)value;
    if (size == sizeof(value8))
        memcpy(to, &value8, sizeof(value8));
    else if (size == sizeof(value16))
        memcpy(to, &value16, sizeof(value16));
    else if (size == sizeof(value32))
        memcpy(to, &value32, sizeof(value32));
    else
        memcpy(to, &value, sizeof(value));
}

static unsigned int base_of(char conversion)
{
    if (conversion == 'x' || conversion == 'p')
        return 16;
    return conversion == 'o' ? 8 : 10;
}

enum scan_status bc_scan_integer(struct scan_state *scan, const struct scan_directive *directive)
{
    char conversion = directive->conversion;
    enum length length = conversion == 'p' ? kLengthPtrdiff : directive->length.strongest;
    struct digits digits = {0};
    if (!take_digits(scan, bc_width(directive), conversion, base_of(conversion), &digits))
        return kScanStop;

    if (!directive->suppressed) {
        void *to = va_arg(scan->arguments->list, void *);
        if (to == NULL)
            return kScanError;
        bool is_signed = conversion == 'd' || conversion == 'i';
        unsigned int bits = clamp_bits(length);
        store(to, size_of(length),
              is_signed ? signed_value(&digits, bits) : unsigned_value(&digits, length, bits));
        scan->stored++;
    }
    scan->completed++;
    return kScanOn;
}

enum scan_status bc_scan_count(struct scan_state *scan, const struct scan_directive *directive)
{
    if (!directive->suppressed) {
        void *to = va_arg(scan->arguments->list, void *);
        if (to == NULL)
            return kScanError;
        store(to, size_of(directive->length.strongest), (uint64_t)(scan->next - scan->input));
    }
    scan->completed++;
    return kScanOn;
}
