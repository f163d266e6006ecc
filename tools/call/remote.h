/* One call over the bus. */
#ifndef TOOLS_CALL_REMOTE_H
#define TOOLS_CALL_REMOTE_H

#include <stdint.h>

#include "call/bytes.h"

struct remote {
    const char *socket; /* of the bus; NULL: the default one */
    const char *object;
    const char *function;
    int timeout_ms;
};

/* Calls a function with `bytes` and puts what came back into their place. Gives back why there was
 * no answer, or NULL: then `result` is the function's. A bus that lets it wait for longer than the
 * timeout before the call raises SIGALRM. */
const char *remote_call(const struct remote *remote, struct bytes *bytes, uint32_t *result);

#endif
