/* SPDX-License-Identifier: ISC */
#ifndef COMPAT_UBOX_TESTS_HEADER_C11_H
#define COMPAT_UBOX_TESTS_HEADER_C11_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

bool static_initialisers_work(void);

#ifdef __cplusplus
}
#endif

#endif
