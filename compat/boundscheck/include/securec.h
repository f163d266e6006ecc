/* SPDX-License-Identifier: ISC */
/**
 * Memory, string, printf and scanf functions that know the size of their destination.
 *
 * True of every function here: sizes are in bytes and are the whole capacity of the destination,
 * the terminating NUL included; a size of 0 or above the limit of the family is refused without
 * touching the destination (memset_s with count 0 is the one exception); nothing is printed, no
 * handler is called, no state is shared, so any number of threads may call on different buffers.
 * On success the bytes after what was written keep their old values.
 *
 * Checks come in a fixed order: size, null pointers, fit, overlap (strcat_s looks at overlap
 * before fit). "Reset" means all destMax bytes in the memory functions and only the first byte in
 * the others.
 */
#ifndef SECUREC_H
#define SECUREC_H

#include "securectype.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Copies count bytes between ranges that do not overlap.
 *
 * @retval EOK                 copied; also for count 0 and for dest == src, where nothing is done
 * @retval ERANGE              destMax is 0 or above SECUREC_MEM_MAX_LEN
 * @retval EINVAL              dest is null
 * @retval EINVAL_AND_RESET    src is null, even with count 0; dest cleared
 * @retval ERANGE_AND_RESET    count is above destMax; dest cleared
 * @retval EOVERLAP_AND_RESET  the two ranges of count bytes share a byte; dest cleared
 */
SECUREC_API errno_t memcpy_s(void *dest, size_t destMax, const void *src, size_t count);

/** As memcpy_s(), but overlapping ranges are moved correctly and give EOK. */
SECUREC_API errno_t memmove_s(void *dest, size_t destMax, const void *src, size_t count);

/**
 * Sets count bytes to (unsigned char)c. The store is never optimised away, so this wipes secrets.
 *
 * @retval EOK               set; also for count 0, even if destMax is 0
 * @retval ERANGE            destMax is above SECUREC_MEM_MAX_LEN, or 0 with dest null or count > 0
 * @retval EINVAL            dest is null
 * @retval ERANGE_AND_RESET  count is above destMax; all destMax bytes are set to c
 */
SECUREC_API errno_t memset_s(void *dest, size_t destMax, int c, size_t count);

/**
 * Copies a string with its NUL.
 *
 * @retval EOK                 copied; nothing is done for strDest == strSrc
 * @retval ERANGE              destMax is 0 or above SECUREC_STRING_MAX_LEN
 * @retval EINVAL              strDest is null
 * @retval EINVAL_AND_RESET    strSrc is null
 * @retval ERANGE_AND_RESET    the string and its NUL do not fit; decided from destMax source bytes
 * @retval EOVERLAP_AND_RESET  the bytes to write and the bytes to read share one
 */
SECUREC_API errno_t strcpy_s(char *strDest, size_t destMax, const char *strSrc);

/**
 * Copies at most count characters of a string and adds a NUL; there is no padding. The source
 * need not be terminated if it has count bytes. With count == destMax - 1 the copy is truncated.
 *
 * @retval EOK                 copied; strDest == strSrc shortens the string in place
 * @retval ERANGE              destMax is 0 or above SECUREC_STRING_MAX_LEN
 * @retval EINVAL              strDest is null
 * @retval EINVAL_AND_RESET    strSrc is null
 * @retval ERANGE_AND_RESET    count is above SECUREC_STRING_MAX_LEN, or the characters and the
 *                             NUL do not fit
 * @retval EOVERLAP_AND_RESET  the distance between the pointers is at most what is copied
 */
SECUREC_API errno_t strncpy_s(char *strDest, size_t destMax, const char *strSrc, size_t count);

/**
 * Appends a string to the one in strDest.
 *
 * @retval EOK                 appended
 * @retval ERANGE              destMax is 0 or above SECUREC_STRING_MAX_LEN
 * @retval EINVAL              strDest is null
 * @retval EINVAL_AND_RESET    strSrc is null, or strDest is not terminated within destMax
 * @retval EOVERLAP_AND_RESET  what is read or written reaches from one string into the other
 * @retval ERANGE_AND_RESET    the result does not fit, or strDest == strSrc
 */
SECUREC_API errno_t strcat_s(char *strDest, size_t destMax, const char *strSrc);

/**
 * Prints into strDest, which afterwards holds the whole text or the empty string: there is no
 * truncating success.
 *
 * A directive is % flags(-+ #0) width .precision length(hh h l ll q L z Z j t) and one of
 * d i u o x X c s p e E f F g G S C, or %%. Everything else is refused when it is reached, %n, %a,
 * %m and positional arguments among it. A null %s prints "(null)", a null %p "(nil)".
 *
 * @return the length without the NUL; -1 if the text does not fit, a directive is refused, or an
 *         argument is bad. On -1 strDest[0] is NUL, unless strDest is null or destMax out of range
 */
SECUREC_API int vsprintf_s(char *strDest, size_t destMax, const char *format, va_list argList)
    SECUREC_PRINTF(3, 0);

/** vsprintf_s() with its arguments in the call. */
SECUREC_API int sprintf_s(char *strDest, size_t destMax, const char *format, ...)
    SECUREC_PRINTF(3, 4);

/**
 * As vsprintf_s(), but writes at most count characters. A longer text gives -1 and, if count is
 * below destMax, leaves its first count characters and a NUL. A count above
 * SECUREC_STRING_MAX_LEN - 1 is an error.
 */
SECUREC_API int vsnprintf_s(char *strDest, size_t destMax, size_t count, const char *format,
                            va_list argList) SECUREC_PRINTF(4, 0);

/** vsnprintf_s() with its arguments in the call. */
SECUREC_API int snprintf_s(char *strDest, size_t destMax, size_t count, const char *format, ...)
    SECUREC_PRINTF(4, 5);

/**
 * Reads values from a string.
 *
 * %c, %s, %[ and their wide forms take TWO arguments: the buffer and, as a size_t, its capacity in
 * elements. A text that does not fit ends the scan: its buffer becomes the empty string and the
 * result is the number of values stored before. Integers, %n and floats take a pointer as in the C
 * library; %f is a float, %lf a double, %Lf a long double.
 *
 * @return the number of values stored; -1 if the input ended before any conversion, if a
 *         directive is refused, or if a pointer is null. When several of these meet, an input that
 *         is used up after at least one conversion gives the count
 */
SECUREC_API int vsscanf_s(const char *buffer, const char *format, va_list argList);

/** vsscanf_s() with its arguments in the call. */
SECUREC_API int sscanf_s(const char *buffer, const char *format, ...);

#ifdef __cplusplus
}
#endif

#endif
