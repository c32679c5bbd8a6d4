// server: an outgoing TCP connection, opened within a time and until ^C.
#pragma once

#include "support/fd.h"

#include <memory>
#include <netdb.h>
#include <sys/socket.h>

namespace kestrel {

struct free_addresses {
    void operator()(addrinfo *list) const { freeaddrinfo(list); }
};
using unique_addresses = std::unique_ptr<addrinfo, free_addresses>;

// The addresses of a host by number or name; empty when there is none. Numeric addresses and names of the hosts
// file cost nothing; the resolver's own time-outs bound the rest.
unique_addresses sv_find_host(const char *host, int port);

// Connects a non-blocking, close-on-exec socket, waiting at most patience_ms (-1: for ever) and until ^C (EINTR).
// 0, or the error number.
int sv_tcp_connect(int fd, const sockaddr *address, socklen_t length, int patience_ms);

} // namespace kestrel
