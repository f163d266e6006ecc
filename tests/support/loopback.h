// SPDX-License-Identifier: ISC
// Addresses of the loopback interface.
#ifndef BV_TESTS_SUPPORT_LOOPBACK_H
#define BV_TESTS_SUPPORT_LOOPBACK_H

#include <cstdint>
#include <netinet/in.h>
#include <sys/socket.h>

inline sockaddr_in loopback(uint16_t port = 0)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// As the socket calls want it.
inline sockaddr *generic(sockaddr_in &address)
{
    return reinterpret_cast<sockaddr *>(&address);
}

#endif
