// SPDX-License-Identifier: ISC
// The processes that the remote-call benchmarks call: an owner of the library's kind, and a bare
// object on the same bus that takes the same fields, answers with the same fields and completes in
// the same way.

#ifndef BV_BENCH_BUS_OWNERS_H
#define BV_BENCH_BUS_OWNERS_H

#include <bv/ubus.h>

#include <cstdint>

// Both serve until SIGTERM; the function is "echo", the bare object's name "bare".
void serve_bv();
void serve_bare();

// A caller of the bare object.
bool bare_connect(); // false while the object is not there
bool bare_call(uint8_t *data, uint32_t size);

#endif
