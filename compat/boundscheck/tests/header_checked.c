/* SPDX-License-Identifier: ISC */
/* Programs may ask the compiler to check the format strings of the printf family. */
#define SECUREC_SUPPORT_FORMAT_WARNING 1
#include <securec.h>

#if defined(__GNUC__) && !defined(__clang__)
_Static_assert(__builtin_has_attribute(sprintf_s, format(printf, 3, 4)), "sprintf_s");
_Static_assert(__builtin_has_attribute(snprintf_s, format(printf, 4, 5)), "snprintf_s");
_Static_assert(__builtin_has_attribute(vsprintf_s, format(printf, 3, 0)), "vsprintf_s");
_Static_assert(__builtin_has_attribute(vsnprintf_s, format(printf, 4, 0)), "vsnprintf_s");
_Static_assert(!__builtin_has_attribute(sscanf_s, format), "the scanf family takes sizes");
#endif

int header_checked(char *dest, size_t size);
int header_checked(char *dest, size_t size)
{
    return sprintf_s(dest, size, "%d", 42);
}
