// bench: the least that a select loop can do: accept, look, receive, send back. The bound for line_client.
//   echo_server PORT      ends with the process
#include "support/fd.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>

namespace kestrel {

namespace {

unique_fd listen_on(int port) {
    unique_fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    if (!fd || ::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(fd.get(), 4) != 0)
        return {};
    return fd;
}

void accept_one(int listening, fd_set &open, int &highest) {
    const int fd = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0 || fd >= FD_SETSIZE)
        return;
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    FD_SET(fd, &open);
    highest = std::max(highest, fd);
}

void echo(int fd, fd_set &open) {
    static char block[64 * 1024];
    const ssize_t n = ::recv(fd, block, sizeof block, 0);
    if (n > 0 && ::send(fd, block, static_cast<std::size_t>(n), MSG_NOSIGNAL) == n)
        return;
    FD_CLR(fd, &open);
    ::close(fd);
}

} // namespace

int echo_server(int port) {
    const unique_fd listening = listen_on(port);
    if (!listening) {
        std::perror("echo_server");
        return 1;
    }
    fd_set open;
    FD_ZERO(&open);
    FD_SET(listening.get(), &open);
    int highest = listening.get();
    for (;;) {
        fd_set ready = open;
        if (::select(highest + 1, &ready, nullptr, nullptr, nullptr) < 0)
            return 1;
        if (FD_ISSET(listening.get(), &ready))
            accept_one(listening.get(), open, highest);
        for (int fd = listening.get() + 1; fd <= highest; ++fd) {
            if (FD_ISSET(fd, &ready) && FD_ISSET(fd, &open))
                echo(fd, open);
        }
    }
}

} // namespace kestrel

int main(int argc, char **argv) {
    return kestrel::echo_server(argc > 1 ? std::atoi(argv[1]) : 0);
}
