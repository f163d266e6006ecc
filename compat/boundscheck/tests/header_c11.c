/* SPDX-License-Identifier: ISC */
/* The header compiles on its own in strict C11, and its names are functions with addresses. */
#include <securec.h>

_Static_assert(EOK == 0 && EINVAL == 22 && ERANGE == 34, "plain codes");
_Static_assert(EINVAL_AND_RESET == 150 && ERANGE_AND_RESET == 162 && EOVERLAP_AND_RESET == 182,
               "reset codes");
_Static_assert(SECUREC_MEM_MAX_LEN == 2147483647 && SECUREC_STRING_MAX_LEN == 2147483647,
               "limits in bytes");
_Static_assert(SECUREC_WCHAR_MEM_MAX_LEN == 536870911 && SECUREC_WCHAR_STRING_MAX_LEN == 536870911,
               "limits in wide characters");
_Static_assert(_Generic(SECUREC_MEM_MAX_LEN, unsigned long : 1, default : 0), "type of a limit");
_Static_assert(_Generic((errno_t)0, int : 1, default : 0), "errno_t");

#if defined(__GNUC__) && !defined(__clang__)
_Static_assert(!__builtin_has_attribute(sprintf_s, format), "formats are checked on request only");
#endif

typedef void (*any_function)(void);

any_function header_c11_functions[] = {
    (any_function)memcpy_s,
    (any_function)memmove_s,
    (any_function)memset_s,
    (any_function)strcpy_s,
    (any_function)strncpy_s,
    (any_function)strcat_s,
    (any_function)vsprintf_s,
    (any_function)vsscanf_s,
    (any_function)sprintf_s,
    (any_function)vsnprintf_s,
    (any_function)snprintf_s,
    (any_function)sscanf_s,
    NULL,
};

errno_t (*header_c11_memcpy)(void *, size_t, const void *, size_t) = memcpy_s;
errno_t (*header_c11_memset)(void *, size_t, int, size_t) = memset_s;
errno_t (*header_c11_strncpy)(char *, size_t, const char *, size_t) = strncpy_s;
errno_t (*header_c11_strcat)(char *, size_t, const char *) = strcat_s;
int (*header_c11_vsprintf)(char *, size_t, const char *, va_list) = vsprintf_s;
int (*header_c11_vsscanf)(const char *, const char *, va_list) = vsscanf_s;
int (*header_c11_snprintf)(char *, size_t, size_t, const char *, ...) = snprintf_s;
