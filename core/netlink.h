// What the notifier asks of the driver's socket beyond the public calls.
#ifndef BV_CORE_NETLINK_H
#define BV_CORE_NETLINK_H

namespace bv {

// Whether a receive thread of this process has the socket.
bool netlink_runs();

// For a forked child, which has a copy of the parent's socket and no thread that reads it. Closes
// the copy: it would keep the parent's port id taken for as long as the child lives.
void netlink_after_fork();

} // namespace bv

#endif
