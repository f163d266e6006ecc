// SPDX-License-Identifier: ISC
// Strings: each function is one call, the bounded ones into the bounded-check library, the others
// into the C library.

#include <bv/os.h>

#include <securec.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

uint32_t bv_os_strlen(const char *str)
{
    return static_cast<uint32_t>(strlen(str));
}

int32_t bv_os_strcpy(char *dst, uint32_t dstsize, const char *src)
{
    return strcpy_s(dst, dstsize, src);
}

int32_t bv_os_strncpy(char *dst, uint32_t dstsize, const char *src, uint32_t count)
{
    return strncpy_s(dst, dstsize, src, count);
}

int32_t bv_os_strcat(char *dst, uint32_t dstsize, const char *src)
{
    return strcat_s(dst, dstsize, src);
}

int bv_os_strcmp(const char *a, const char *b)
{
    return strcmp(a, b);
}

int bv_os_strncmp(const char *a, const char *b, uint32_t n)
{
    return strncmp(a, b, n);
}

char *bv_os_strtok(char *str, const char *delimiters)
{
    return strtok(str, delimiters);
}

char *bv_os_strsep(char **stringp, const char *delimiters)
{
    return strsep(stringp, delimiters);
}

// C's strrchr() and strstr() take a const text and return a writable one; C++ has an overload for
// each.
char *bv_os_strrchr(const char *str, int ch)
{
    return const_cast<char *>(strrchr(str, ch));
}

char *bv_os_strstr(const char *haystack, const char *needle)
{
    return const_cast<char *>(strstr(haystack, needle));
}

long bv_os_strtol(const char *str, char **end, int base)
{
    return strtol(str, end, base);
}

int bv_os_atoi(const char *str)
{
    return atoi(str);
}

int bv_os_toupper(int ch)
{
    return toupper(ch);
}

int bv_os_tolower(int ch)
{
    return tolower(ch);
}

// Not isspace(): the result must not depend on a service's locale.
int32_t bv_os_isspace(uint32_t ch)
{
    return ch == ' ' || ch - '\t' < 5 ? 1 : 0;
}
