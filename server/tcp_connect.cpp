#include "server/tcp_connect.h"

#include "server/wait.h"

#include <cerrno>
#include <poll.h>
#include <string>

namespace kestrel {

unique_addresses sv_find_host(const char *host, int port) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *list = nullptr;
    if (getaddrinfo(host, std::to_string(port).c_str(), &hints, &list) != 0)
        return {};
    return unique_addresses(list);
}

int sv_tcp_connect(int fd, const sockaddr *address, socklen_t length, int patience_ms) {
    if (::connect(fd, address, length) == 0)
        return 0;
    if (errno != EINPROGRESS && errno != EINTR) // an interrupted one goes on by itself
        return errno;
    switch (sv_wait_fd(fd, POLLOUT, patience_ms)) {
    case wait_result::timeout:
        return ETIMEDOUT;
    case wait_result::interrupted:
        return EINTR;
    case wait_result::ready:
        break;
    }
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

} // namespace kestrel
