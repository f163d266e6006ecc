// SPDX-License-Identifier: ISC
// Whether this build has a sanitizer in it: it is slower then, and memory tells nothing, since
// what was freed is kept.
#ifndef BV_TESTS_SUPPORT_SANITIZED_H
#define BV_TESTS_SUPPORT_SANITIZED_H

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

#endif
