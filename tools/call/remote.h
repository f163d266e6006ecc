// SPDX-License-Identifier: ISC
// One call over the bus.
#ifndef TOOLS_CALL_REMOTE_H
#define TOOLS_CALL_REMOTE_H

#include "tools/call/buffer.h"

namespace tools {

struct Remote {
    const char *socket; // of the bus; null: the default one
    const char *object;
    const char *function;
    int timeout_ms;
};

// Calls a function with `bytes` and replaces them with what came back. Returns null, with the
// function's result in `result`, or why there was no answer. If the bus takes longer than the
// timeout before the call itself, SIGALRM comes.
const char *call_remote(const Remote &remote, Buffer &bytes, uint32_t &result);

} // namespace tools

#endif
