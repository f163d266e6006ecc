/**
 * @file os.h
 * The platform layer: memory with an allocation limit, bounded copies and prints, shell commands
 * with captured output, console dumps and the record file, text and address helpers, digests and
 * checksums, and one wrapper for each system call that the library and its services use.
 *
 * True of every function here unless its own comment says otherwise:
 *  - nothing is kept after the call: no caller's pointer, no descriptor, no lock;
 *  - sizes and capacities are in bytes, and a destination's capacity is the size of the whole
 *    object, its terminating zero included; it comes right after the destination;
 *  - texts are zero-terminated;
 *  - a null pointer is looked for: the function fails, with the result that its comment gives, or
 *    does nothing. The plain string functions, bv_os_memcmp(), bv_os_printf(), bv_os_fprintf(), the
 *    conversions of IPv4 addresses and all system calls do not look: what they are given goes
 *    straight to the platform, which may crash on it;
 *  - it may be called from any thread, on buffers of that thread's own.
 *
 * Include this header before the C library's own ones where a program is compiled under strict
 * -std=c11: it then asks for the full set of platform types. When it comes late, it leaves out
 * bv_os_sigwaitinfo() and bv_os_sigtimedwait(), whose siginfo_t does not exist there.
 * `pkg-config --cflags bv` passes -D_GNU_SOURCE, which settles the matter for any order, and on
 * 32-bit glibc also -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64: the library is built with 64-bit
 * offsets and times, and struct stat and struct timeval must have the same shape on both sides.
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
 * The bounded calls (memcpy, memmove, memset here, strcpy, strncpy, strcat below) are one call
 * into the bounded-check library each. They return 0, or one of that library's codes, of which
 * only "not 0" should matter to a caller:
 *  - nothing is ever written past dstsize;
 *  - a dstsize of 0 or above 0x7fffffff, and a null dst, leave everything as it was;
 *  - any other failure leaves dst in a known state: the copies clear all dstsize bytes, the fill
 *    fills all dstsize bytes with its value, the string calls set the first byte to 0;
 *  - a null source is such a failure even when there is nothing to copy, and so are ranges that
 *    overlap, but for bv_os_memmove(). Copying an object to itself is fine; a text cannot be
 *    appended to itself.
 * @{
 */

/**
 * Allocates memory, not cleared.
 *
 * @param size  1 to 1310720 (0x140000) bytes; no single allocation of a service may be larger
 * @return the block, which the caller gives back with bv_os_free(), or null. A refusal prints a
 *         line on standard output: "malloc fail" when the system has no memory, "data size out of
 *         rang ui_size = N malloc fail" for a size outside the limits, where N is the size as a
 *         signed number
 */
BV_API void *bv_os_malloc(uint32_t size);

/** Gives back a block of bv_os_malloc(). @param ptr  the block; null is allowed and ignored */
BV_API void bv_os_free(void *ptr);

/**
 * Copies bytes between objects that do not overlap.
 *
 * @param dst      where to; overlapping src is a failure that clears dst
 * @param dstsize  capacity of dst
 * @param src      where from
 * @param count    bytes to copy, at most dstsize
 * @return 0, or not 0 as described above
 */
BV_API int32_t bv_os_memcpy(void *dst, uint32_t dstsize, const void *src, uint32_t count);

/**
 * Copies bytes; the two ranges may overlap.
 *
 * @param dst      where to
 * @param dstsize  capacity of dst
 * @param src      where from
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
 * @param count    bytes to fill; above dstsize only dstsize bytes are filled and the call fails
 * @return 0, or not 0 as described above
 */
BV_API int32_t bv_os_memset(void *dst, uint32_t dstsize, int value, uint32_t count);

/** memcmp(3) of the first n bytes: negative, 0 or positive. Neither pointer may be null. */
BV_API int bv_os_memcmp(const void *a, const void *b, uint32_t n);

/** @} */
/**
 * @name Strings
 *
 * What the plain ones (all but strcpy, strncpy and strcat) get, they pass to the C function of
 * the same name; a null pointer is the caller's fault.
 * @{
 */

/** strlen(3), as 32 bits. */
BV_API uint32_t bv_os_strlen(const char *str);

/**
 * Copies a text with its terminator.
 *
 * @param dst      where to
 * @param dstsize  capacity of dst
 * @param src      the text; one of dstsize characters or more does not fit
 * @return 0, or not 0 as described under Memory
 */
BV_API int32_t bv_os_strcpy(char *dst, uint32_t dstsize, const char *src);

/**
 * Copies at most count characters of a text and terminates the copy.
 *
 * @param dst      where to; nothing is padded after the terminator
 * @param dstsize  capacity of dst
 * @param src      the text; needs no terminator when it has count characters
 * @param count    most characters to take; dstsize - 1 cuts a text to what fits, dstsize or more
 *                 fails with a text that does not fit, and above 0x7fffffff with any
 * @return 0, or not 0 as described under Memory
 */
BV_API int32_t bv_os_strncpy(char *dst, uint32_t dstsize, const char *src, uint32_t count);

/**
 * Appends a text.
 *
 * @param dst      a terminated text to append to
 * @param dstsize  capacity of dst, the present text included
 * @param src      the text to append; when both do not fit together, dst is emptied
 * @return 0, or not 0 as described under Memory
 */
BV_API int32_t bv_os_strcat(char *dst, uint32_t dstsize, const char *src);

/** strcmp(3): negative, 0 or positive. */
BV_API int bv_os_strcmp(const char *a, const char *b);
/** strncmp(3) of at most n characters: negative, 0 or positive. */
BV_API int bv_os_strncmp(const char *a, const char *b, uint32_t n);
/** strtok(3). Not thread-safe: the position between calls is the C library's, one per process. */
BV_API char *bv_os_strtok(char *str, const char *delimiters);
/** strsep(3): cuts the next field out of *stringp and moves it on, to null behind the last one. */
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
 * Tells whether a character is white space, in the same way in every locale.
 *
 * @param ch  the character; pass a char as (unsigned char)
 * @return 1 for space, tab, line feed, vertical tab, form feed and carriage return; 0 for every
 *         other value, those above 255 included
 */
BV_API int32_t bv_os_isspace(uint32_t ch);

/** @} */
/**
 * @name Formatted text
 * @{
 */

/**
 * printf(3) on standard output, with all that the C library knows. Format and texts must not be
 * null.
 * @return characters printed, or a negative number
 */
BV_API int bv_os_printf(const char *format, ...) BV_PRINTF(1, 2);

/** fprintf(3), as bv_os_printf(); nor must stream be null. */
BV_API int bv_os_fprintf(FILE *stream, const char *format, ...) BV_PRINTF(2, 3);

/**
 * Prints into a buffer. There is no cut text: it fits whole or the buffer is emptied.
 *
 * Rely on these directives only: flags - + space # 0, width and precision (also as *), lengths
 * hh h l ll q L j z t, conversions d i u o x X c s p e E f F g G, their wide forms lc and ls, and
 * %%. The bounded-check library refuses %n in every form, %a %A, %m, %b, positional arguments, the
 * ' flag, letters that it does not know, a format that ends within a directive, widths and
 * precisions above 214748360, and wide characters that the locale cannot express. A null text
 * prints as (null), an integer with at most 512 digits whatever its precision, a pointer without
 * sign and precision.
 *
 * @param dst      the buffer; on failure its first byte is 0, and what had been printed so far may
 *                 follow that byte
 * @param dstsize  capacity of dst, 1 to 0x7fffffff; any other leaves dst as it was
 * @param format   what to print
 * @return characters printed without the terminator; -1 when the text does not fit, a directive is
 *         refused, dst or format is null, or dstsize is out of range
 */
BV_API int bv_os_sprintf(char *dst, uint32_t dstsize, const char *format, ...) BV_PRINTF(3, 4);

/**
 * The same call as bv_os_sprintf(), argument for argument. Unlike snprintf(3) it neither cuts the
 * text nor tells the length that would have been needed.
 */
BV_API int bv_os_snprintf(char *dst, uint32_t dstsize, const char *format, ...) BV_PRINTF(3, 4);

/**
 * Scans a text. Each buffer pointer of %s, %c and %[ is followed by one more argument, the
 * buffer's size in bytes as a size_t, so compilers cannot check these formats as they do scanf's:
 * @code
 * bv_os_sscanf(line, "%15s %d", name, sizeof name, &number);
 * @endcode
 *
 * Rely on these directives only: conversions d i u o x X p e E f g G s c [ n and %%, a width,
 * lengths hh h l ll q L j z t, and * to store nothing (which takes no arguments, no size either).
 * The bounded-check library refuses %a %A, %m, positional arguments, flags, precisions and letters
 * that it does not know. Unlike scanf(3) it reads neither inf, nan and hexadecimal floats nor a 0x
 * before %p, needs digits after the 0x of %x and %i, and stores some other number for one that is
 * too large for its type.
 *
 * @param str     the text
 * @param format  what to look for
 * @return conversions stored. A field too long for its buffer ends the scan and empties that
 *         buffer; a buffer size of 0 or above 0x7fffffff ends it too, with the buffer as it was.
 *         -1 when str or format is null, when str is empty (the first buffer is then emptied, if
 *         the format starts with one), when the text ends before the first conversion, and,
 *         however much was stored before, when a directive is refused or a pointer is null while
 *         some of the text is left
 */
BV_API int bv_os_sscanf(const char *str, const char *format, ...);

/** @} */
/**
 * @name Shell commands
 *
 * Each takes a printf-style command, as for bv_os_sprintf(), and runs it in a shell, waiting for it
 * to end. The formatted command and the line that is made of it must fit in 255 characters each.
 * What does not fit, a directive that is refused and a null format are not cut but become empty,
 * and nothing of the command runs:
 *  - an empty command has result 0 from bv_os_system(), bv_os_systemnull() and bv_os_systembk().
 *    bv_os_sysprocess() still runs su(1), whose result it is;
 *  - an empty line has result 0 from all four;
 *  - what the capturing ones return is said there.
 *
 * So keep commands short: a result of 0 does not prove that anything was done.
 *
 * The line is the command with something after it. Where that is a redirection, a pipe or an &, it
 * applies to the last of several commands (a; b) only; parentheses make them one.
 *
 * Nothing is quoted or escaped, and the capture files have names that can be guessed: pass only
 * text that the service itself made or has checked, never text from a user or the network.
 *
 * Each call starts a shell, the capturing ones also rm(1): for configuration work, not for hot
 * paths. The result of the plain ones is that of system(3): the wait status, or -1.
 *
 * The capturing ones go through a file under /tmp named for the process (the low 16 bits of its
 * id) and an 8-bit sequence number that both share. The number is not locked: threads that
 * capture at the same moment may take each other's output, so callers serialise them.
 * @{
 */

/** Runs a command as it is. @return the wait status */
BV_API int bv_os_system(const char *format, ...) BV_PRINTF(1, 2);

/**
 * Runs a command with its output and errors thrown away. That takes 16 characters of the line.
 * @return the wait status
 */
BV_API int bv_os_systemnull(const char *format, ...) BV_PRINTF(1, 2);

/**
 * Starts a command in the background, its output and errors thrown away, and does not wait for
 * it. The shell that started it has ended, so it never becomes a zombie of the caller. That takes
 * 18 characters of the line.
 * @return the wait status of that shell, not of the command
 */
BV_API int bv_os_systembk(const char *format, ...) BV_PRINTF(1, 2);

/**
 * Runs a command as the user BROVAN, with the caller's environment:
 * su -p BROVAN -c "COMMAND". The command is put between double quotes as it is, so the shell that
 * runs su already expands $ and ` in it. The line takes 18 characters besides the command.
 * @return the wait status of su, which also fails when the user does not exist
 */
BV_API int bv_os_sysprocess(const char *format, ...) BV_PRINTF(1, 2);

/**
 * Runs a command and captures what it prints on standard output: the first 256 bytes, up to the
 * first zero byte, without leading and trailing white space; newlines between lines stay.
 *
 * @param out      gets the text
 * @param outsize  capacity of out. A text that does not fit is not cut: 257 bytes hold any
 * @param format   the command
 *
 * @retval 0               out holds the text; the command's own exit status is not looked at
 * @retval BV_ERR_FAILED   nothing was printed but white space (nor by an empty command, see above),
 *                         it cannot be read, or it does not fit: out is empty. Also, always, with a
 *                         null out or an outsize of 0 or above 0x7fffffff, though the command ran:
 *                         out is as it was
 * @retval BV_ERR_NO_FILE  the capture file could not be opened, or the command fits in 255
 *                         characters but not with its redirection, which takes 22 to 24 of them:
 *                         out is as it was
 */
BV_API int32_t bv_os_systemex(char *out, uint32_t outsize, const char *format, ...) BV_PRINTF(3, 4);

/**
 * Runs a command and captures one field of its output: of every line that holds the pattern, the
 * second field. The text is then treated as in bv_os_systemex().
 *
 * @param out        gets the fields, one a line
 * @param outsize    capacity of out; 257 bytes hold any text
 * @param pattern    a grep(1) pattern, without single quotes; null is the text (null)
 * @param delimiter  an awk(1) field separator, without single quotes; null as above
 * @param format     the command
 *
 * @retval 0               out holds the text
 * @retval BV_ERR_FAILED   no line matched or had a second field, or the text does not fit: out is
 *                         empty. Also as in bv_os_systemex() for the sake of out and outsize
 * @retval BV_ERR_NO_FILE  the capture file could not be opened; the command did not fit in 255
 *                         characters (an empty one before a pipe is a syntax error, and the shell
 *                         says so), or not with the filter, which takes 55 to 59 of them besides
 *                         pattern and delimiter: out is as it was
 */
BV_API int32_t bv_os_sysmatch(char *out, uint32_t outsize, const char *pattern,
                              const char *delimiter, const char *format, ...) BV_PRINTF(5, 6);

/**
 * Runs a command and reads the first line of its output through a pipe.
 *
 * @param command  the shell command as it is, of any length; null runs nothing
 * @param out      gets the line with its newline, or as much of it as fits; keeps what it held
 *                 when the command cannot be started or prints nothing (with an outsize of 1 it is
 *                 empty then, too). Signals that the process handles meanwhile do not cut it
 * @param outsize  capacity of out; 0 leaves it alone, more than INT_MAX counts as INT_MAX
 */
BV_API void bv_get_pipe(const char *command, char *out, uint32_t outsize);

/** @} */
/**
 * @name Console and record file
 *
 * Help for a person at the device: dumps on standard output, and a record file,
 * /tmp/remoteprint, to which a background service appends text that can later be copied to the
 * terminal named in /tmp/tty.
 * @{
 */

/**
 * Dumps memory on standard output in lines of four words, each line headed by the address (its
 * low 32 bits) and each word showing its four bytes in the order in which they lie in memory on a
 * little-endian machine.
 *
 * @param address  what to dump, normally 4-byte aligned; null prints as an empty line
 * @param length   bytes; rounded up to whole words, so that up to 3 bytes behind it are read too;
 *                 below 1 an empty line is printed
 * @return result of the last print, 2
 */
BV_API int32_t bv_os_printb(const void *address, int32_t length);

/**
 * Prints a text on standard output and blanks behind it up to a width; no newline.
 *
 * @param text   printed whole, even when it is longer; null prints nothing, blanks neither
 * @param width  columns; a negative one pads nothing
 */
BV_API void bv_os_printa(const char *text, int32_t width);

/** Deletes the record file. @return the wait status of the shell, 0 also when there was none */
BV_API int32_t bv_os_record_init(void);

/**
 * Appends formatted text to the record file; no newline is added. The file is opened and closed
 * by each call, in append mode, so records of several processes and threads stay whole as long as
 * they fit in the C library's stream buffer (1 KiB with musl).
 *
 * @param format  as for printf(3); null writes nothing
 * @return characters written, a negative number when they could not be formatted, or
 *         BV_ERR_RECORD when the file cannot be opened. A full /tmp may go unnoticed
 */
BV_API int32_t bv_os_record(const char *format, ...) BV_PRINTF(1, 2);

/**
 * Copies the record file, when there is one, to the terminal named in /tmp/tty (31 characters at
 * most). The record file stays. The name is not checked: with no /tmp/tty, or a longer name in it,
 * the shell complains about an empty redirection, and nothing else happens. The name is read with
 * bv_os_systemex(), whose word on threads holds here too.
 */
BV_API void bv_os_record_output(void);

/**
 * Tells a file's size.
 *
 * @param path  the file
 * @return its size cut to a signed 32-bit number (a file of 4 GiB has 0), or -1 when it cannot be
 *         looked at
 */
BV_API int32_t bv_get_filesize(const char *path);

/** @} */
/**
 * @name Text and addresses
 * @{
 */

/**
 * Looks for a POSIX extended regular expression in a text.
 *
 * @param text     the text to search
 * @param pattern  the expression; it may match anywhere unless it has anchors of its own
 * @retval  0  found
 * @retval -1  not found, an argument is null, or the pattern is no valid expression
 */
BV_API int32_t bv_os_match(const char *text, const char *pattern);

/**
 * Looks for a character that is neither letter nor digit: ASCII punctuation, space, or one of the
 * characters 9 to 13. Other control characters and bytes above 127 do not count, in any locale.
 *
 * @retval  0  text holds one
 * @retval -1  text holds none, is empty or null
 */
BV_API int32_t bv_os_match_special_char(const char *text);

/**
 * Cuts white space (see bv_os_isspace()) off both ends of a text, in place: zeros are written over
 * what trails, what leads is skipped.
 *
 * @param text  changed only behind its last other character
 * @return the first other character inside text, or its terminator when there is none; null for
 *         null
 */
BV_API char *bv_os_trim(char *text);

/**
 * Converts a MAC address from text. Groups are read as "%02x" reads them: a group may have one
 * digit, a sign or blanks before it, and what follows the sixth is ignored.
 *
 * @param text  six groups of hexadecimal digits with colons between; from the first group that is
 *              missing or malformed on, the bytes are 0, and of a null text all of them
 * @param out   gets 6 bytes
 */
BV_API void bv_os_mac_pton(const char *text, void *out);

/**
 * Converts a MAC address to lower-case text, "00:1a:2b:3c:4d:5e".
 *
 * @param mac      6 bytes
 * @param out      gets the text; empty when it does not fit or mac is null
 * @param outsize  capacity of out, 18 to 0x7fffffff; with 0 or a larger one out is as it was
 */
BV_API void bv_os_mac_ntop(const void *mac, char *out, uint32_t outsize);

/**
 * inet_pton(3) of an IPv4 address.
 *
 * @param text  four decimal numbers with dots between
 * @param out   gets 4 bytes in network order; as it was on failure
 * @return 1, or 0 when text is no address
 */
BV_API int bv_os_inet_pton(const char *text, void *out);

/**
 * inet_ntop(3) of an IPv4 address.
 *
 * @param address  4 bytes in network order
 * @param out      gets the text
 * @param outsize  capacity of out; 16 holds every address
 * @return out, or null with errno ENOSPC when the text does not fit: out is as it was
 */
BV_API const char *bv_os_inet_ntop(const void *address, char *out, uint32_t outsize);

/** inet_addr(3): the IPv4 address in network order, or 0xffffffff when text is none. */
BV_API uint32_t bv_os_inet_addr(const char *text);

/**
 * Renders bytes as lower-case hexadecimal text, for up to 255 of them.
 *
 * The text restarts from empty at every 256th byte: of 256 bytes nothing is left, of 300 the last
 * 44. Whoever renders more does it in pieces.
 *
 * @param data     the bytes; null counts as none
 * @param length   how many
 * @param out      gets the text and zeros after it, in all min(outsize, 512) bytes; a smaller
 *                 outsize cuts the text without a terminator
 * @param outsize  capacity of out; 0 or above 0x7fffffff leaves out as it was
 * @return 0, always
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
 * @param text  its terminator does not count; the digest is the standard's for texts below 2^29
 *              bytes. Of longer ones only the low 32 bits of the length in bits are hashed
 */
BV_API void bv_os_sha256(char *out, const char *text);

/**
 * SM3 (GB/T 32905) of a buffer, as text.
 *
 * @param data    the bytes
 * @param length  how many, at least 1
 * @param out     gets 64 lower-case hexadecimal digits and no terminator: pass 65 zeroed bytes to
 *                have a text
 *
 * @retval BV_OK           out holds the digest
 * @retval BV_ERR_INVALID  data or out is null, or length is 0: out is as it was
 * @retval BV_ERR_MEMORY   libcrypto has no memory, or was built without SM3: out is as it was
 */
BV_API uint32_t bv_os_sm3_str(const uint8_t *data, uint32_t length, char *out);

/**
 * SM3 (GB/T 32905) of a file of any size, as text.
 *
 * @param path  the file; a read error counts as its end, so that a directory has the digest of
 *              nothing
 * @param out   gets 64 lower-case hexadecimal digits and no terminator, as in bv_os_sm3_str()
 *
 * @retval BV_OK           out holds the digest
 * @retval BV_ERR_NO_FILE  the file does not exist, a folder on its path may not be searched, or an
 *                         argument is null
 * @retval BV_ERR_OPEN     the file cannot be opened
 * @retval BV_ERR_MEMORY   no memory for the read buffer of 64 KiB (the allocator prints that on
 *                         standard output); or as in bv_os_sm3_str()
 *
 * A failure leaves out as it was.
 */
BV_API uint32_t bv_os_sm3_file(const char *path, char *out);

/**
 * CRC-32 (IEEE 802.3, as in zlib), whole or in pieces.
 *
 * @param crc  0 to start, or the result for the piece before this one; comes back unchanged when
 *             there is nothing to add
 * @param buf  the bytes; not looked at when len is 0. Null counts as none
 * @param len  how many
 * @return the checksum so far
 */
BV_API uint32_t bv_os_crc32(uint32_t crc, const uint8_t *buf, uint32_t len);

/**
 * CRC-16/ARC, whole or in pieces.
 *
 * @param crc  0 to start, or the result for the piece before this one; comes back unchanged when
 *             there is nothing to add
 * @param buf  the bytes; not looked at when len is 0. Null counts as none
 * @param len  how many; crc comes back unchanged when buf + len wraps around the address space
 * @return the checksum so far
 */
BV_API uint16_t bv_os_crc16(uint16_t crc, const uint8_t *buf, uint32_t len);

/**
 * Makes random text: lower-case hexadecimal digits, not raw bytes, so num characters hold 4 * num
 * random bits.
 *
 * @param buf  gets num characters and no terminator
 * @param num  0 to 256; 0 leaves buf, which may then be null, as it was, and the generator is
 *             asked all the same
 *
 * @retval 1                buf holds random text
 * @retval 0                num is negative, or buf is null and num is 1 to 256: buf is as it was
 * @retval BV_ERR_TOO_LONG  num is above 256: buf is as it was
 *
 * 0 or anything else is also what the random generator, libcrypto's RAND_bytes(), returns when it
 * fails. After that buf holds num digits that are not random.
 */
BV_API uint32_t bv_os_random(uint8_t *buf, int32_t num);

/** @} */
/**
 * @name System calls
 *
 * Each wrapper passes its arguments on to the platform function that it is named after and
 * returns that function's result unchanged, with errno as the platform set it: no check (null
 * pointers go to the platform too), no retry, no message. What the platform's manual page says of
 * the function holds for the wrapper, thread safety and ownership included. Only four differ:
 * bv_os_msleep(), bv_os_shutdown(), bv_os_lseek() and bv_os_dev_open() say how.
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
 * @param ms  milliseconds; ms * 1000 is taken modulo 2^32, so 4294967 is the longest exact wait
 *            and 4294968 waits 704 microseconds
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
/** ioctl(2). The one argument after request is always fetched, as a pointer-sized one. */
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

/** open(2). The mode, a mode_t, is always fetched and passed on; flags that need none ignore it. */
BV_API int bv_os_open(const char *path, int flags, ...);
/** The same as bv_os_open(), under the name that is used for device nodes. */
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
 * @param offset  bytes, may be negative: it is widened with its sign
 * @param whence  SEEK_SET, SEEK_CUR, SEEK_END
 * @return the new position cut to a signed 32-bit number. Exactly -1 is failure; past 2 GiB other
 *         negative numbers are positions that were cut
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
/** sigismember(3): 1 or 0; for no such signal -1, but 0 with musl. */
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
#ifdef SI_USER /* the C library has given us siginfo_t: see the top */
/** sigwaitinfo(2): the signal, or -1. */
BV_API int bv_os_sigwaitinfo(const sigset_t *set, siginfo_t *info);
/** sigtimedwait(2): the signal, or -1 with EAGAIN when none came in time. */
BV_API int bv_os_sigtimedwait(const sigset_t *set, siginfo_t *info, const struct timespec *timeout);
#endif
/** signal(2): the handler before, or SIG_ERR. */
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
 * on; commands that use none ignore it.
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
