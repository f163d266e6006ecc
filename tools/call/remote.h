// One call over the bus.
#ifndef TOOLS_CALL_REMOTE_H
#define TOOLS_CALL_REMOTE_H

#include "tools/call/bytes.h"

namespace tools {

struct Remote {
    const char *socket; // of the bus; null: the default one
    const char *object;
    const char *function;
    int timeout_ms;
};

// Calls a function with `bytes` and replaces them with what came back. Why there was no answer, or
// null: then `result` is the function's. A bus that takes longer than the timeout before the call
// itself raises SIGALRM.
const char *call_remote(const Remote &remote, Bytes &bytes, uint32_t &result);

} // namespace tools

#endif
