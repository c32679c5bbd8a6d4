#include "pulsar3/lib/wire/resolve.h"

#include <netdb.h>
#include <sys/socket.h>

namespace kestrel {

std::optional<in_addr> plr3_resolve(const char *host) {
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM; // one answer an address, not one a kind of socket
    addrinfo *found = nullptr;
    if (::getaddrinfo(host, nullptr, &wanted, &found) != 0)
        return {};
    const in_addr address = reinterpret_cast<const sockaddr_in *>(found->ai_addr)->sin_addr;
    ::freeaddrinfo(found);
    return address;
}

} // namespace kestrel
