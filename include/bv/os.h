/* SPDX-License-Identifier: ISC */
/**
 * @file os.h
 * The platform layer: memory with an allocation limit, bounded copies and prints, shell commands
 * with captured output, console dumps and the record file, text and address helpers, digests and
 * checksums, and one wrapper for each system call that the library and its services use.
 *
 * True of every function here unless its own comment says otherwise:
 *  - nothing is kept after the call: no pointer of the caller, no descriptor, no lock;
 *  - sizes and capacities are in bytes. The capacity of a destination is the size of the whole
 *    object, with its terminating zero, and is the argument after it;
 *  - texts are zero-terminated;
 *  - with a null pointer the function fails as its comment says, or does nothing. The plain string
 *    functions, bv_os_memcmp(), bv_os_printf(), bv_os_fprintf(), the conversions of IPv4 addresses
 *    and all system calls do not test for null: they pass it to the platform, which may crash;
 *  - any thread may call it, on its own buffers.
 *
 * A program that is compiled with strict -std=c11 includes this header before those of the C
 * library: it then asks for all platform types. Included later, it leaves out bv_os_sigwaitinfo()
 * and bv_os_sigtimedwait(), whose siginfo_t does not exist there. With -D_DEFAULT_SOURCE, or
 * -std=gnu11, any order works. On 32-bit glibc `pkg-config --cflags bv` passes
 * -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64: the library is built with 64-bit offsets and times, and
 * struct stat and struct timeval must have the same layout on both sides.
 */
#ifndef BV_OS_H
#define BV_OS_H

#if !defined(_GNU_SOURCE) && !defined(_FEATURES_H)
#define _GNU_SOURCE 1
#endif

#include <bv/base.h>
#include <bv/status.h>

#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/epoll.h>
#include <sys/ipc.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

struct itimerspec;
struct sembuf;
struct shmid_ds;
struct sigaction;

/**
 * @name Memory
 *
 * The bounded calls (memcpy, memmove and memset here, strcpy, strncpy and strcat under Strings) are
 * one call each into the bounded-check library. They return 0, or a code of that library; callers
 * should only test for 0:
 *  - nothing is ever written beyond dstsize;
 *  - with a dstsize of 0 or above 0x7fffffff, or a null dst, nothing changes;
 *  - any other failure leaves dst in a known state: the copies clear all dstsize bytes, the fill
 *    fills all dstsize bytes with its value, the string calls set the first byte to 0;
 *  - a null source is such a failure, even when there is nothing to copy. So are ranges that
 *    overlap, except for bv_os_memmove(). An object may be copied to itself; a text cannot be
 *    appended to itself.
 * @{
 */

/**
 * Allocates memory, not cleared.
 *
 * @param size  1 to 1310720 (0x140000) bytes; no single allocation of a service may be larger
 * @return the block, which the caller returns with bv_os_free(), or null. A failure prints a line
 *         on standard output: "malloc fail" when the system has no memory, "data size out of rang
 *         ui_size = N malloc fail" for a size outside the limits, where N is the size as a signed
 *         number
 */
BV_API void *bv_os_malloc(uint32_t size);

/** Frees a block. @param ptr  from bv_os_malloc(); null is ignored */
BV_API void bv_os_free(void *ptr);

/**
 * Copies bytes between objects that do not overlap.
 *
 * @param dst      the destination; when it overlaps src the call fails and clears it
 * @param dstsize  capacity of dst
 * @param src      the source
 * @param count    bytes to copy, at most dstsize
 * @return 0, or not 0 as described above
 */
BV_API int32_t bv_os_memcpy(void *dst, uint32_t dstsize, const void *src, uint32_t count);

/**
 * Copies bytes; the two ranges may overlap.
 *
 * @param dst      the destination
 * @param dstsize  capacity of dst
 * @param src      the source
 * @param count    bytes to copy, at most dstsize
 * @return 0, or not 0 as described above
 */
BV_API int32_t bv_os_memmove(void *dst, uint32_t dstsize, const void *src, uint32_t count);

/**
 * Fills bytes with one value.
 *
 * @param dst      what to fill
 * @param dstsize  capacity of dst
 * @param value    only its low 8 bits are used
 * @param count    bytes to fill; with more than dstsize, only dstsize bytes are filled and the
 *                 call fails
 * @return 0, or not 0 as described above
 */
BV_API int32_t bv_os_memset(void *dst, uint32_t dstsize, int value, uint32_t count);

/** memcmp(3) of the first n bytes: negative, 0 or positive. Neither pointer may be null. */
BV_API int bv_os_memcmp(const void *a, const void *b, uint32_t n);

/** @} */
/**
 * @name Strings
 *
 * All but strcpy, strncpy and strcat pass their arguments to the C function of the same name, and
 * do not test for null.
 * @{
 */

/** strlen(3), as 32 bits. */
BV_API uint32_t bv_os_strlen(const char *str);

/**
 * Copies a text with its terminator.
 *
 * @param dst      the destination
 * @param dstsize  capacity of dst
 * @param src      the text; with dstsize characters or more it does not fit
 * @return 0, or not 0 as described under Memory
 */
BV_API int32_t bv_os_strcpy(char *dst, uint32_t dstsize, const char *src);

/**
 * Copies at most count characters of a text and terminates the copy.
 *
 * @param dst      the destination; bytes after the terminator do not change
 * @param dstsize  capacity of dst
 * @param src      the text; needs no terminator when it has count characters
 * @param count    most characters to copy. dstsize - 1 cuts a text to what fits; with dstsize or
 *                 more a text that does not fit is a failure, and above 0x7fffffff any text is
 * @return 0, or not 0 as described under Memory
 */
BV_API int32_t bv_os_strncpy(char *dst, uint32_t dstsize, const char *src, uint32_t count);

/**
 * Appends a text.
 *
 * @param dst      a terminated text to append to
 * @param dstsize  capacity of dst, including its present text
 * @param src      the text to append; when both do not fit, dst becomes empty
 * @return 0, or not 0 as described under Memory
 */
BV_API int32_t bv_os_strcat(char *dst, uint32_t dstsize, const char *src);

/** strcmp(3): negative, 0 or positive. */
BV_API int bv_os_strcmp(const char *a, const char *b);
/** strncmp(3) of at most n characters: negative, 0 or positive. */
BV_API int bv_os_strncmp(const char *a, const char *b, uint32_t n);
/** strtok(3). Not thread-safe: the position between calls is the C library's, one per process. */
BV_API char *bv_os_strtok(char *str, const char *delimiters);
/** strsep(3): cuts off the next field and moves *stringp on, to null after the last field. */
BV_API char *bv_os_strsep(char **stringp, const char *delimiters);
/** strrchr(3): the last ch in str, or null. */
BV_API char *bv_os_strrchr(const char *str, int ch);
/** strstr(3): the first needle in haystack, or null. */
BV_API char *bv_os_strstr(const char *haystack, const char *needle);
/** strtol(3): base 0 or 2 to 36; *end, when end is not null, gets the first character not used. */
BV_API long bv_os_strtol(const char *str, char **end, int base);
/** atoi(3): the leading decimal number, 0 without one. */
BV_API int bv_os_atoi(const char *str);
/** toupper(3). @param ch  an unsigned char or EOF, nothing else */
BV_API int bv_os_toupper(int ch);
/** tolower(3). @param ch  an unsigned char or EOF, nothing else */
BV_API int bv_os_tolower(int ch);

/**
 * Tests whether a character is white space, in the same way in every locale.
 *
 * @param ch  the character; pass a char as (unsigned char)
 * @return 1 for space, tab, line feed, vertical tab, form feed and carriage return; 0 for every
 *         other value, also above 255
 */
BV_API int32_t bv_os_isspace(uint32_t ch);

/** @} */
/**
 * @name Formatted text
 * @{
 */

/**
 * printf(3) on standard output, with every directive of the C library. Format and texts must not be
 * null.
 * @return characters printed, or a negative number
 */
BV_API int bv_os_printf(const char *format, ...) BV_PRINTF(1, 2);

/** fprintf(3); as bv_os_printf(), and stream must not be null. */
BV_API int bv_os_fprintf(FILE *stream, const char *format, ...) BV_PRINTF(2, 3);

/**
 * Prints into a buffer. A text is never cut: one that does not fit leaves the buffer empty.
 *
 * Rely on these directives only: flags - + space # 0, width and precision (also as *), lengths
 * hh h l ll q L j z t, conversions d i u o x X c s p e E f F g G, their wide forms lc and ls, and
 * %%. The bounded-check library refuses %n in every form, %a %A, %m, %b, positional arguments, the
 * ' flag, unknown letters, a format that ends within a directive, widths and precisions above
 * 214748360, and wide characters that the locale cannot express. A null text prints as (null), an
 * integer with at most 512 digits even with a larger precision, a pointer without sign and
 * precision.
 *
 * @param dst      the buffer; after a failure its first byte is 0, and the beginning of the text
 *                 may follow that byte
 * @param dstsize  capacity of dst, 1 to 0x7fffffff; any other leaves dst unchanged
 * @param format   what to print
 * @return characters printed without the terminator; -1 when the text does not fit, a directive is
 *         refused, dst or format is null, or dstsize is out of range
 */
BV_API int bv_os_sprintf(char *dst, uint32_t dstsize, const char *format, ...) BV_PRINTF(3, 4);

/**
 * The same as bv_os_sprintf(). Unlike snprintf(3) it does not cut the text or return the length
 * that would have been needed.
 */
BV_API int bv_os_snprintf(char *dst, uint32_t dstsize, const char *format, ...) BV_PRINTF(3, 4);

/**
 * Scans a text. After each buffer of %s, %c and %[ comes one more argument, its size in bytes as a
 * size_t, so compilers cannot check these formats like scanf's:
 * @code
 * bv_os_sscanf(line, "%15s %d", name, sizeof(name), &number);
 * @endcode
 *
 * Rely on these directives only: conversions d i u o x X p e E f g G s c [ n and %%, a width,
 * lengths hh h l ll q L j z t, and * to store nothing (which takes no argument, not even a size).
 * The bounded-check library refuses %a %A, %m, positional arguments, flags, precisions and unknown
 * letters. Unlike scanf(3) it does not read inf, nan, hexadecimal floats or a 0x before %p, needs
 * digits after the 0x of %x and %i, and stores another number for one that is too large for its
 * type.
 *
 * @param str     the text
 * @param format  what to look for
 * @return conversions stored. A field too long for its buffer ends the scan and empties the buffer;
 *         a buffer size of 0 or above 0x7fffffff ends the scan and leaves the buffer unchanged. -1
 *         when str or format is null, when str is empty (if the format starts with a buffer, that
 *         becomes empty), when the text ends before the first conversion, and, even if something
 *         was stored before, when a directive is refused or a pointer is null before the end of the
 *         text
 */
BV_API int bv_os_sscanf(const char *str, const char *format, ...);

/** @} */
/**
 * @name Shell commands
 *
 * Each function takes a printf-style command, as bv_os_sprintf() does, runs it in a shell and waits
 * until it ends. The formatted command, and the line that is made of it, must fit in 255 characters
 * each. If one does not fit, or the format is null or has a refused directive, it becomes empty,
 * and no part of the command runs:
 *  - with an empty command bv_os_system(), bv_os_systemnull() and bv_os_systembk() return 0;
 *    bv_os_sysprocess() still runs su(1) and returns its result;
 *  - with an empty line all four return 0;
 *  - the capturing functions say what they return.
 *
 * So keep commands short: a result of 0 does not prove that anything was done.
 *
 * The line is the command with something after it. A redirection, pipe or & there applies only to
 * the last of several commands (a; b); use parentheses to make them one.
 *
 * Nothing is quoted or escaped, and the names of the capture files can be guessed: pass only text
 * that the service made or checked itself, never text from a user or the network.
 *
 * Each call starts a shell, the capturing functions also rm(1): use them for configuration, not on
 * hot paths. The result of the others is that of system(3): the wait status, or -1.
 *
 * The capturing functions use a file under /tmp, named after the process (the low 16 bits of its
 * id) and an 8-bit sequence number that both share. They take no lock: threads that capture at the
 * same moment may get each other's output, so callers serialise them.
 * @{
 */

/** Runs a command unchanged. @return the wait status */
BV_API int bv_os_system(const char *format, ...) BV_PRINTF(1, 2);

/**
 * Runs a command and discards its output and errors. That takes 16 characters of the line.
 * @return the wait status
 */
BV_API int bv_os_systemnull(const char *format, ...) BV_PRINTF(1, 2);

/**
 * Starts a command in the background, discards its output and errors, and does not wait for it. It
 * is not a child of the caller, so it never becomes its zombie. That takes 18 characters of the
 * line.
 * @return the wait status of that shell, not of the command
 */
BV_API int bv_os_systembk(const char *format, ...) BV_PRINTF(1, 2);

/**
 * Runs a command as the user BROVAN, with the caller's environment:
 * su -p BROVAN -c "COMMAND". The command is between double quotes, so the shell that runs su
 * already expands $ and ` in it. The line takes 18 characters besides the command.
 * @return the wait status of su, which also fails when there is no such user
 */
BV_API int bv_os_sysprocess(const char *format, ...) BV_PRINTF(1, 2);

/**
 * Runs a command and captures what it prints on standard output: the first 256 bytes, up to the
 * first zero byte, without white space at both ends.
 *
 * @param out      gets the text
 * @param outsize  capacity of out. A text that does not fit is not cut; every text fits in 257
 *                 bytes
 * @param format   the command
 *
 * @retval BV_OK           out holds the text, whatever the command's exit status
 * @retval BV_ERR_FAILED   the command printed only white space or nothing (or was empty, see
 *                         above), the file cannot be read, or the text does not fit: out is empty.
 *                         Also for a null out or an outsize of 0 or above 0x7fffffff, after the
 *                         command ran: out is unchanged
 * @retval BV_ERR_NO_FILE  the capture file cannot be opened, or the command fits in 255 characters
 *                         but not with its redirection, which takes 22 to 24 of them: out is
 *                         unchanged
 */
BV_API int32_t bv_os_systemex(char *out, uint32_t outsize, const char *format, ...) BV_PRINTF(3, 4);

/**
 * Runs a command and captures the second field of every line of its output that matches the
 * pattern. The text is then treated as by bv_os_systemex().
 *
 * @param out        gets the fields, one on each line
 * @param outsize    capacity of out; every text fits in 257 bytes
 * @param pattern    a grep(1) pattern, without single quotes; null is the text (null)
 * @param delimiter  an awk(1) field separator, without single quotes; null as above
 * @param format     the command
 *
 * @retval BV_OK           out holds the text
 * @retval BV_ERR_FAILED   no line matched or had a second field, or the text does not fit: out is
 *                         empty. Also for a wrong out or outsize, as from bv_os_systemex()
 * @retval BV_ERR_NO_FILE  the capture file cannot be opened; the command does not fit in 255
 *                         characters (it is then empty, and the shell prints a syntax error for the
 *                         pipe), or not with the filter, which takes 55 to 59 of them besides
 *                         pattern and delimiter: out is unchanged
 */
BV_API int32_t bv_os_sysmatch(char *out, uint32_t outsize, const char *pattern,
                              const char *delimiter, const char *format, ...) BV_PRINTF(5, 6);

/**
 * Runs a command and reads the first line of its output through a pipe.
 *
 * @param command  the shell command, run unchanged, of any length; null runs nothing
 * @param out      gets the line with its newline, or as much of it as fits. It is unchanged when
 *                 the command cannot be started or prints nothing (but with an outsize of 1 it is
 *                 empty). Signals that the process handles do not cut the line
 * @param outsize  capacity of out; 0 leaves it unchanged, more than INT_MAX counts as INT_MAX
 */
BV_API void bv_get_pipe(const char *command, char *out, uint32_t outsize);

/** @} */
/**
 * @name Console and record file
 *
 * For a person at the device: dumps on standard output, and the record file /tmp/remoteprint.
 * Background services append text to it, which can later be copied to the terminal that is named in
 * /tmp/tty.
 * @{
 */

/**
 * Dumps memory on standard output in lines of four words. Each line starts with the address (its
 * low 32 bits). On a little-endian machine each word shows its four bytes in the order of memory.
 *
 * @param address  what to dump, normally 4-byte aligned; null prints an empty line
 * @param length   bytes, rounded up to whole words: up to 3 bytes after them are read too. Below 1
 *                 an empty line is printed
 * @return result of the last print, 2
 */
BV_API int32_t bv_os_printb(const void *address, int32_t length);

/**
 * Prints a text on standard output, and blanks after it up to a width, without a newline.
 *
 * @param text   printed whole, even when it is longer than width; null prints nothing, not even
 *               blanks
 * @param width  columns; nothing is padded when it is negative
 */
BV_API void bv_os_printa(const char *text, int32_t width);

/** Deletes the record file. @return the wait status of the shell; 0 also without such a file */
BV_API int32_t bv_os_record_init(void);

/**
 * Appends formatted text to the record file, without a newline. Each call opens and closes the
 * file, in append mode, so records of several processes and threads do not mix as long as each fits
 * in the C library's stream buffer (1 KiB with musl).
 *
 * @param format  as for printf(3); null writes nothing
 * @return characters written; BV_ERR_RECORD when the file cannot be opened; another negative number
 *         when format is null (-1) or the text cannot be formatted. A full /tmp may not be reported
 */
BV_API int32_t bv_os_record(const char *format, ...) BV_PRINTF(1, 2);

/**
 * Copies the record file, if there is one, to the terminal that is named in /tmp/tty (at most 31
 * characters). The record file stays. The name is not checked: without /tmp/tty, or with a longer
 * name in it, the shell complains about an empty redirection and nothing else happens. The name is
 * read with bv_os_systemex(), so threads must be serialised in the same way.
 */
BV_API void bv_os_record_output(void);

/** @} */
/**
 * @name Text and addresses
 * @{
 */

/**
 * Looks for a POSIX extended regular expression in a text.
 *
 * @param text     the text to search
 * @param pattern  the expression; without anchors it may match anywhere
 * @retval BV_OK          found
 * @retval BV_ERR_FAILED  not found, an argument is null, or the pattern is not a valid expression
 */
BV_API int32_t bv_os_match(const char *text, const char *pattern);

/**
 * Looks for ASCII punctuation, a space, or one of the characters 9 to 13. Other control characters
 * and bytes above 127 do not count, in any locale.
 *
 * @param text  the text to search
 * @retval BV_OK          found
 * @retval BV_ERR_FAILED  not found, or text is null
 */
BV_API int32_t bv_os_match_special_char(const char *text);

/**
 * Trims white space (see bv_os_isspace()) from both ends of a text, in place: it skips leading
 * white space and overwrites trailing white space with zeros.
 *
 * @param text  changed only after its last other character
 * @return the first other character in text, or its terminator when there is none; null for null
 */
BV_API char *bv_os_trim(char *text);

/**
 * Converts a MAC address from text. Groups are read as "%02x" reads them: a group may have one
 * digit, or a sign or blanks before it, and anything after the sixth is ignored.
 *
 * @param text  six groups of hexadecimal digits separated by colons. From the first missing or
 *              malformed group on the bytes are 0; with a null text all are
 * @param out   gets 6 bytes
 */
BV_API void bv_os_mac_pton(const char *text, void *out);

/**
 * Converts a MAC address to lower-case text, "00:1a:2b:3c:4d:5e".
 *
 * @param mac      6 bytes
 * @param out      gets the text; empty when it does not fit or mac is null
 * @param outsize  capacity of out, 18 to 0x7fffffff; 0 or a larger one leaves out unchanged
 */
BV_API void bv_os_mac_ntop(const void *mac, char *out, uint32_t outsize);

/**
 * inet_pton(3) of an IPv4 address.
 *
 * @param text  four decimal numbers separated by dots
 * @param out   gets 4 bytes in network order; unchanged after a failure
 * @return 1, or 0 when text is not an address
 */
BV_API int bv_os_inet_pton(const char *text, void *out);

/**
 * inet_ntop(3) of an IPv4 address.
 *
 * @param address  4 bytes in network order
 * @param out      gets the text
 * @param outsize  capacity of out; every address fits in 16
 * @return out, or null with errno ENOSPC when the text does not fit: out is unchanged
 */
BV_API const char *bv_os_inet_ntop(const void *address, char *out, uint32_t outsize);

/** inet_addr(3): the IPv4 address in network order, or 0xffffffff when text is not an address. */
BV_API uint32_t bv_os_inet_addr(const char *text);

/**
 * Writes up to 255 bytes as lower-case hexadecimal text.
 *
 * The text starts again at every 256th byte: 256 bytes give an empty text, 300 bytes the digits of
 * the last 44. Write longer data in pieces.
 *
 * @param data     the bytes; null counts as none
 * @param length   how many
 * @param out      gets the text and zeros after it, min(outsize, 512) bytes in all; a small outsize
 *                 cuts the text without a terminator
 * @param outsize  capacity of out; 0 or above 0x7fffffff leaves out unchanged
 * @return 0
 */
BV_API int32_t bv_os_tohexstr(const void *data, uint32_t length, char *out, uint32_t outsize);

/** @} */
/**
 * @name Digests, checksums and random text
 * @{
 */

/**
 * SHA-256 (FIPS 180-4) of a text, as text. Nothing happens when an argument is null.
 *
 * @param out   gets 64 lower-case hexadecimal digits and a terminator: at least 65 bytes
 * @param text  hashed without its terminator. Below 2^29 bytes the digest is the standard one; of a
 *              longer text only the low 32 bits of the length in bits are hashed
 */
BV_API void bv_os_sha256(char *out, const char *text);

/**
 * SM3 (GB/T 32905) of a buffer, as text.
 *
 * @param data    the bytes
 * @param length  how many, at least 1
 * @param out     gets 64 lower-case hexadecimal digits and no terminator: pass 65 zeroed bytes to
 *                get a text
 *
 * @retval BV_OK           out holds the digest
 * @retval BV_ERR_INVALID  data or out is null, or length is 0: out is unchanged
 * @retval BV_ERR_MEMORY   libcrypto has no memory, or was built without SM3: out is unchanged
 */
BV_API uint32_t bv_os_sm3_str(const uint8_t *data, uint32_t length, char *out);

/**
 * SM3 (GB/T 32905) of a file of any size, as text.
 *
 * @param path  the file; a read error counts as its end, so a directory has the digest of no bytes
 * @param out   gets 64 lower-case hexadecimal digits and no terminator, as from bv_os_sm3_str()
 *
 * @retval BV_OK           out holds the digest
 * @retval BV_ERR_NO_FILE  the file does not exist, a folder on its path may not be searched, or an
 *                         argument is null
 * @retval BV_ERR_OPEN     the file cannot be opened
 * @retval BV_ERR_MEMORY   no memory for the read buffer of 64 KiB (the allocator prints its line on
 *                         standard output); or as from bv_os_sm3_str()
 *
 * A failure leaves out unchanged.
 */
BV_API uint32_t bv_os_sm3_file(const char *path, char *out);

/**
 * CRC-32 (IEEE 802.3, as in zlib), whole or in pieces.
 *
 * @param crc  0 to start, or the result for the piece before this one; the result when there is
 *             nothing to add
 * @param buf  the bytes; not read when len is 0. Null counts as no bytes
 * @param len  how many
 * @return the checksum so far
 */
BV_API uint32_t bv_os_crc32(uint32_t crc, const uint8_t *buf, uint32_t len);

/**
 * CRC-16/ARC, whole or in pieces.
 *
 * @param crc  0 to start, or the result for the piece before this one; the result when there is
 *             nothing to add
 * @param buf  the bytes; not read when len is 0. Null counts as no bytes
 * @param len  how many; when buf + len wraps around the address space, crc is the result
 * @return the checksum so far
 */
BV_API uint16_t bv_os_crc16(uint16_t crc, const uint8_t *buf, uint32_t len);

/**
 * Makes random text: lower-case hexadecimal digits, not raw bytes, so num characters hold 4 * num
 * random bits.
 *
 * @param buf  gets num characters and no terminator
 * @param num  0 to 256. With 0 buf is unchanged and may be null, but the generator is still called
 *
 * @retval 1                buf holds random text
 * @retval 0                num is negative, or buf is null and num is 1 to 256: buf is unchanged
 * @retval BV_ERR_TOO_LONG  num is above 256: buf is unchanged
 *
 * When the random generator, libcrypto's RAND_bytes(), fails, the result is what it returned, 0 or
 * another number but 1, and buf holds num digits that are not random.
 */
BV_API uint32_t bv_os_random(uint8_t *buf, int32_t num);

/** @} */
/**
 * @name System calls
 *
 * Each wrapper passes its arguments to the platform function that it is named after and returns its
 * result, with errno as the platform set it: no check (also for null), no retry, no message. The
 * platform's manual page is true of the wrapper too, also about threads and ownership. Five differ
 * and say how: bv_os_msleep(), bv_os_shutdown(), bv_os_lseek(), bv_os_dev_open() and
 * bv_get_filesize().
 * @{
 */

/** mktime(3): broken-down local time to seconds since 1970. */
BV_API time_t bv_os_mktime(struct tm *tm);
/** time(2): seconds since 1970, also in *out when out is not null. */
BV_API time_t bv_os_time(time_t *out);
/** localtime(3). Not thread-safe: the result is the C library's one record. */
BV_API struct tm *bv_os_localtime(const time_t *t);
/** difftime(3): end - start in seconds. */
BV_API double bv_os_difftime(time_t end, time_t start);
/** strftime(3): characters written without the terminator, 0 when max bytes are too few. */
BV_API size_t bv_os_strftime(char *s, size_t max, const char *format, const struct tm *tm);
/** strptime(3): the first character not used, or null. */
BV_API char *bv_os_strptime(const char *s, const char *format, struct tm *tm);
/** usleep(3): waits microseconds. */
BV_API int bv_os_usleep(unsigned int usec);
/** sleep(3): waits seconds; the result is what was left when a signal came. */
BV_API unsigned int bv_os_sleep(unsigned int seconds);

/**
 * Waits milliseconds, through usleep(3).
 *
 * @param ms  milliseconds. ms * 1000 is modulo 2^32, so 4294967 is the longest exact wait and
 *            4294968 waits 704 microseconds
 * @return 0, or -1 with errno
 */
BV_API int bv_os_msleep(uint32_t ms);

/** setitimer(2). */
BV_API int bv_os_setitimer(int which, const struct itimerval *value, struct itimerval *old);
/** timer_settime(2). */
BV_API int bv_os_timer_settime(timer_t timer, int flags, const struct itimerspec *value,
                               struct itimerspec *old);

/** socket(2): a descriptor that the caller closes. */
BV_API int bv_os_socket(int domain, int type, int protocol);
/** bind(2). */
BV_API int bv_os_bind(int fd, const struct sockaddr *addr, socklen_t len);
/** listen(2). */
BV_API int bv_os_listen(int fd, int backlog);
/** accept(2): a descriptor that the caller closes. */
BV_API int bv_os_accept(int fd, struct sockaddr *addr, socklen_t *len);
/** connect(2). */
BV_API int bv_os_connect(int fd, const struct sockaddr *addr, socklen_t len);
/** shutdown(2) of both directions, always: there is no second argument. */
BV_API int bv_os_shutdown(int fd);
/** send(2). */
BV_API ssize_t bv_os_send(int fd, const void *buf, size_t len, int flags);
/** sendto(2). */
BV_API ssize_t bv_os_sendto(int fd, const void *buf, size_t len, int flags,
                            const struct sockaddr *addr, socklen_t addrlen);
/** sendmsg(2). */
BV_API ssize_t bv_os_sendmsg(int fd, const struct msghdr *msg, int flags);
/** recv(2). */
BV_API ssize_t bv_os_recv(int fd, void *buf, size_t len, int flags);
/** recvfrom(2). */
BV_API ssize_t bv_os_recvfrom(int fd, void *buf, size_t len, int flags, struct sockaddr *addr,
                              socklen_t *addrlen);
/** recvmsg(2). */
BV_API ssize_t bv_os_recvmsg(int fd, struct msghdr *msg, int flags);
/** setsockopt(2). */
BV_API int bv_os_setsockopt(int fd, int level, int option, const void *value, socklen_t len);
/** ioctl(2). One argument after request is always fetched, with the size of a pointer. */
BV_API int bv_os_ioctl(int fd, unsigned long request, ...);
/** select(2). */
BV_API int bv_os_select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds,
                        struct timeval *timeout);
/** epoll_create(2): a descriptor that the caller closes. */
BV_API int bv_os_epoll_create(int size);
/** epoll_ctl(2). */
BV_API int bv_os_epoll_ctl(int epfd, int op, int fd, struct epoll_event *event);
/** epoll_wait(2): timeout in milliseconds, -1 for ever. */
BV_API int bv_os_epoll_wait(int epfd, struct epoll_event *events, int maxevents, int timeout_ms);

/** fopen(3): a stream that the caller gives to bv_os_fclose(). */
BV_API FILE *bv_os_fopen(const char *path, const char *mode);
/** fclose(3). */
BV_API int bv_os_fclose(FILE *stream);
/** fread(3): whole items read. */
BV_API size_t bv_os_fread(void *ptr, size_t size, size_t n, FILE *stream);
/** fwrite(3): whole items written. */
BV_API size_t bv_os_fwrite(const void *ptr, size_t size, size_t n, FILE *stream);
/** fseek(3). */
BV_API int bv_os_fseek(FILE *stream, long offset, int whence);
/** fgets(3): s, or null when nothing was read. */
BV_API char *bv_os_fgets(char *s, int size, FILE *stream);
/** feof(3). */
BV_API int bv_os_feof(FILE *stream);
/** popen(3): a stream that the caller gives to bv_os_pclose(). */
BV_API FILE *bv_os_popen(const char *command, const char *type);
/** pclose(3): the command's wait status. */
BV_API int bv_os_pclose(FILE *stream);

/** open(2). The mode, a mode_t, is always fetched and passed on, also with flags that need none. */
BV_API int bv_os_open(const char *path, int flags, ...);
/** The same as bv_os_open(), under the name that services use for device nodes. */
BV_API int bv_os_dev_open(const char *path, int flags, ...);
/** creat(2): a descriptor that the caller closes. */
BV_API int bv_os_creat(const char *path, mode_t mode);
/** close(2). */
BV_API int bv_os_close(int fd);
/** read(2). */
BV_API ssize_t bv_os_read(int fd, void *buf, size_t count);
/** write(2). */
BV_API ssize_t bv_os_write(int fd, const void *buf, size_t count);

/**
 * lseek(2) for files that fit in 31 bits.
 *
 * @param fd      the descriptor
 * @param offset  bytes, may be negative
 * @param whence  SEEK_SET, SEEK_CUR, SEEK_END
 * @return the low 32 bits of the new position, as a signed number; -1 is a failure. Other negative
 *         numbers are positions above 2 GiB
 */
BV_API int32_t bv_os_lseek(int fd, int32_t offset, int whence);

/** flock(2). */
BV_API int bv_os_flock(int fd, int operation);
/** chdir(2). */
BV_API int bv_os_chdir(const char *path);
/** mkfifo(3). */
BV_API int bv_os_mkfifo(const char *path, mode_t mode);
/** pipe(2): two descriptors that the caller closes. */
BV_API int bv_os_pipe(int fds[2]);
/** access(2). */
BV_API int bv_os_access(const char *path, int mode);
/** remove(3). */
BV_API int bv_os_remove(const char *path);
/** rename(2). */
BV_API int bv_os_rename(const char *from, const char *to);
/** stat(2). */
BV_API int bv_os_stat(const char *path, struct stat *st);
/** fstat(2). */
BV_API int bv_os_fstat(int fd, struct stat *st);

/**
 * Returns a file's size.
 *
 * @param path  the file
 * @return the low 32 bits of its size in bytes, as a signed number (0 for a file of 4 GiB), or -1
 *         when path is null or stat(2) fails
 */
BV_API int32_t bv_get_filesize(const char *path);

/** getpid(2). */
BV_API pid_t bv_os_getpid(void);

/** sigemptyset(3). */
BV_API int bv_os_sigemptyset(sigset_t *set);
/** sigfillset(3). */
BV_API int bv_os_sigfillset(sigset_t *set);
/** sigaddset(3). */
BV_API int bv_os_sigaddset(sigset_t *set, int sig);
/** sigdelset(3). */
BV_API int bv_os_sigdelset(sigset_t *set, int sig);
/** sigismember(3): 1 or 0; -1 for an unknown signal, but 0 with musl. */
BV_API int bv_os_sigismember(const sigset_t *set, int sig);
/** sigaction(2). */
BV_API int bv_os_sigaction(int sig, const struct sigaction *act, struct sigaction *old);
/** sigprocmask(2). */
BV_API int bv_os_sigprocmask(int how, const sigset_t *set, sigset_t *old);
/** sigpending(2). */
BV_API int bv_os_sigpending(sigset_t *set);
/** sigsuspend(2): returns -1 with EINTR once a handler has run. */
BV_API int bv_os_sigsuspend(const sigset_t *mask);
/** sigwait(3): 0, or an error number. */
BV_API int bv_os_sigwait(const sigset_t *set, int *sig);
#ifdef SI_USER /* siginfo_t exists: see the top */
/** sigwaitinfo(2): the signal, or -1. */
BV_API int bv_os_sigwaitinfo(const sigset_t *set, siginfo_t *info);
/** sigtimedwait(2): the signal, or -1 with EAGAIN when none came in time. */
BV_API int bv_os_sigtimedwait(const sigset_t *set, siginfo_t *info, const struct timespec *timeout);
#endif
/** signal(2): the previous handler, or SIG_ERR. */
BV_API void (*bv_os_signal(int sig, void (*handler)(int)))(int);

/** sem_init(3). */
BV_API int bv_os_sem_init(sem_t *sem, int pshared, unsigned int value);
/** sem_open(3). Mode and value (mode_t, unsigned int) are always fetched and passed on. */
BV_API sem_t *bv_os_sem_open(const char *name, int oflag, ...);
/** sem_close(3). */
BV_API int bv_os_sem_close(sem_t *sem);
/** sem_unlink(3). */
BV_API int bv_os_sem_unlink(const char *name);
/** sem_destroy(3). */
BV_API int bv_os_sem_destroy(sem_t *sem);
/** sem_wait(3): -1 with EINTR when a signal came. */
BV_API int bv_os_sem_wait(sem_t *sem);
/** sem_trywait(3): -1 with EAGAIN instead of waiting. */
BV_API int bv_os_sem_trywait(sem_t *sem);
/** sem_post(3). */
BV_API int bv_os_sem_post(sem_t *sem);

/** semget(2). */
BV_API int bv_os_semget(key_t key, int nsems, int flags);
/** semop(2). */
BV_API int bv_os_semop(int semid, struct sembuf *ops, size_t nops);
/**
 * semctl(2). The fourth argument, a union semun or one of its members, is always fetched and passed
 * on, also with commands that need none.
 */
BV_API int bv_os_semctl(int semid, int semnum, int cmd, ...);
/** shmat(2): the address, or (void *)-1. There is no wrapper for shmget(2). */
BV_API void *bv_os_shmat(int shmid, const void *addr, int flags);
/** shmdt(2). */
BV_API int bv_os_shmdt(const void *addr);
/** shmctl(2). */
BV_API int bv_os_shmctl(int shmid, int cmd, struct shmid_ds *buf);

/** pthread_create(3), joinable unless attr says otherwise: 0, or an error number. */
BV_API int bv_os_pthread_create(pthread_t *thread, const pthread_attr_t *attr,
                                void *(*start)(void *), void *arg);
/** pthread_detach(3): 0, or an error number. */
BV_API int bv_os_pthread_detach(pthread_t thread);
/** pthread_join(3): 0, or an error number. */
BV_API int bv_os_pthread_join(pthread_t thread, void **result);
/** pthread_kill(3): 0, or an error number. */
BV_API int bv_os_pthread_kill(pthread_t thread, int sig);
/** pthread_sigmask(3): 0, or an error number. */
BV_API int bv_os_pthread_sigmask(int how, const sigset_t *set, sigset_t *old);
/** pthread_mutex_init(3), attr null for defaults: 0, or an error number. */
BV_API int bv_os_pthread_mutex_init(pthread_mutex_t *m, const pthread_mutexattr_t *attr);
/** pthread_mutex_destroy(3): 0, or an error number. */
BV_API int bv_os_pthread_mutex_destroy(pthread_mutex_t *m);
/** pthread_mutex_trylock(3): 0, or EBUSY instead of waiting. */
BV_API int bv_os_pthread_mutex_trylock(pthread_mutex_t *m);
/** pthread_mutex_lock(3): 0, or an error number. */
BV_API int bv_os_pthread_mutex_lock(pthread_mutex_t *m);
/** pthread_mutex_unlock(3): 0, or an error number. */
BV_API int bv_os_pthread_mutex_unlock(pthread_mutex_t *m);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
