// SPDX-License-Identifier: ISC
// What the notifier asks about the driver's socket, beyond the public calls.
#ifndef BV_CORE_NETLINK_H
#define BV_CORE_NETLINK_H

namespace bv {

// Whether a receive thread of this process has the socket.
bool netlink_runs();

// For a forked child: closes its copy of the parent's socket, which no thread of the child reads.
// The copy would keep the parent's port id in use for as long as the child lives.
void netlink_after_fork();

} // namespace bv

#endif
