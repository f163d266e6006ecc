/* SPDX-License-Identifier: ISC */
/** Byte order, attribute shorthands, and one allocation for several pieces. */
#ifndef LIBUBOX_UTILS_H
#define LIBUBOX_UTILS_H

#include <byteswap.h>
#include <endian.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef ARRAY_SIZE
#define ARRAY_SIZE(arr) (sizeof(arr) / sizeof((arr)[0]))
#endif

#ifndef __packed
#define __packed __attribute__((packed))
#endif

#ifndef __hidden
#define __hidden __attribute__((visibility("hidden")))
#endif

/** Not in C++, whose own headers have other uses for these two words. */
#ifndef __cplusplus
#ifndef __constructor
#define __constructor __attribute__((constructor))
#endif

#ifndef __destructor
#define __destructor __attribute__((destructor))
#endif
#endif

#ifndef fallthrough
#define fallthrough __attribute__((__fallthrough__))
#endif

/**
 * Allocates one zeroed block for several pieces. Arguments come in pairs after the first
 * length: the address of a pointer, and a size_t length. Each piece starts at a multiple of
 * sizeof(size_t) and its address is stored in its pointer. Returns the first piece, which is
 * freed for all of them, or NULL; the pointers are then untouched.
 */
void *__calloc_a(size_t len, ...);
#define calloc_a(...) __calloc_a(__VA_ARGS__, (void *)0)

/** Host order to big-endian or little-endian and back. The argument is evaluated once. */
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define cpu_to_be64(x) __builtin_bswap64((uint64_t)(x))
#define cpu_to_be32(x) __builtin_bswap32((uint32_t)(x))
#define cpu_to_be16(x) __builtin_bswap16((uint16_t)(x))
#define cpu_to_le64(x) ((uint64_t)(x))
#define cpu_to_le32(x) ((uint32_t)(x))
#define cpu_to_le16(x) ((uint16_t)(x))
#else
#define cpu_to_be64(x) ((uint64_t)(x))
#define cpu_to_be32(x) ((uint32_t)(x))
#define cpu_to_be16(x) ((uint16_t)(x))
#define cpu_to_le64(x) __builtin_bswap64((uint64_t)(x))
#define cpu_to_le32(x) __builtin_bswap32((uint32_t)(x))
#define cpu_to_le16(x) __builtin_bswap16((uint16_t)(x))
#endif

#define be64_to_cpu(x) cpu_to_be64(x)
#define be32_to_cpu(x) cpu_to_be32(x)
#define be16_to_cpu(x) cpu_to_be16(x)
#define le64_to_cpu(x) cpu_to_le64(x)
#define le32_to_cpu(x) cpu_to_le32(x)
#define le16_to_cpu(x) cpu_to_le16(x)

#ifdef __cplusplus
}
#endif

#endif
