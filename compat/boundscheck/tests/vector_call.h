// SPDX-License-Identifier: ISC
// Makes the recorded printf and scanf calls, whose argument lists are known only at run time.

#ifndef COMPAT_BOUNDSCHECK_TESTS_VECTOR_CALL_H
#define COMPAT_BOUNDSCHECK_TESTS_VECTOR_CALL_H

#include <string>
#include <vector>

// Both entries of a family are replayed: arguments in the call, and as a va_list.
enum class Entry { kEllipsis, kList };

// Calls sprintf_s or vsprintf_s with arguments in the file's "type:value" form. Fails the test if
// no call with these argument types is known.
int call_print(Entry entry, char *dest, size_t size, const char *format,
               const std::vector<std::string> &arguments);

// Calls sscanf_s or vsscanf_s with up to six pointer-sized arguments.
int call_scan(Entry entry, const char *input, const char *format,
              const std::vector<uintptr_t> &words);

#endif
