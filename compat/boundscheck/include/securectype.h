/* SPDX-License-Identifier: ISC */
/**
 * Types, result codes and limits of the bounded-check functions. Included by securec.h; programs
 * name that header only.
 */
#ifndef SECURECTYPE_H
#define SECURECTYPE_H

#include <errno.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Programs that ask the C library for its own bounds-checking extension get errno_t from there. */
#if !defined(__STDC_WANT_LIB_EXT1__) || __STDC_WANT_LIB_EXT1__ == 0 ||                             \
    defined(SECUREC_NEED_ERRNO_TYPE)
/** Result of the memory and string functions: EOK or one of the codes below. */
typedef int errno_t;
#endif

#ifndef EOK
#define EOK 0 /**< success */
#endif
#ifndef EINVAL
#define EINVAL 22 /**< bad pointer; nothing was written */
#endif
#ifndef ERANGE
#define ERANGE 34 /**< bad destination size; nothing was written */
#endif
#ifndef EINVAL_AND_RESET
#define EINVAL_AND_RESET 150 /**< null source or unterminated destination; destination reset */
#endif
#ifndef ERANGE_AND_RESET
#define ERANGE_AND_RESET 162 /**< does not fit; destination reset */
#endif
#ifndef EOVERLAP_AND_RESET
#define EOVERLAP_AND_RESET 182 /**< source and destination overlap; destination reset */
#endif

/** Largest destination size that the memory functions accept, in bytes. */
#define SECUREC_MEM_MAX_LEN 0x7fffffffUL
/** Largest destination size that the string, printf and scanf functions accept, in bytes. */
#define SECUREC_STRING_MAX_LEN 0x7fffffffUL
/** The same limits counted in wide characters. */
#define SECUREC_WCHAR_MEM_MAX_LEN (SECUREC_MEM_MAX_LEN / sizeof(wchar_t))
#define SECUREC_WCHAR_STRING_MAX_LEN (SECUREC_STRING_MAX_LEN / sizeof(wchar_t))

#define SECUREC_API __attribute__((__visibility__("default")))

/*
 * The compiler checks format strings only for programs that ask for it: the accepted directives
 * differ a little from the C library's, and the scanf family takes extra size arguments.
 */
#if defined(SECUREC_SUPPORT_FORMAT_WARNING) && SECUREC_SUPPORT_FORMAT_WARNING
#define SECUREC_PRINTF(text, first) __attribute__((__format__(__printf__, text, first)))
#else
#define SECUREC_PRINTF(text, first)
#endif

#endif
