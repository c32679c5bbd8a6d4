// bench: the least that a loop can do: accept, look, receive, send back. The bound for line_client.
//   echo_server PORT [epoll]      looks with select, or epoll_wait; ends with the process
#include "support/fd.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string_view>
#include <sys/epoll.h>
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

int accept_one(int listening) {
    const int fd = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

bool echo(int fd) {
    static char block[64 * 1024];
    const ssize_t n = ::recv(fd, block, sizeof block, 0);
    return n > 0 && ::send(fd, block, static_cast<std::size_t>(n), MSG_NOSIGNAL) == n;
}

int select_loop(int listening) {
    fd_set open;
    FD_ZERO(&open);
    FD_SET(listening, &open);
    int highest = listening;
    for (;;) {
        fd_set ready = open;
        if (::select(highest + 1, &ready, nullptr, nullptr, nullptr) < 0)
            return 1;
        for (int fd = listening + 1; fd <= highest; ++fd) {
            if (FD_ISSET(fd, &ready) && !echo(fd)) {
                FD_CLR(fd, &open);
                ::close(fd);
            }
        }
        const int fd = FD_ISSET(listening, &ready) ? accept_one(listening) : -1;
        if (fd < 0 || fd >= FD_SETSIZE)
            continue;
        FD_SET(fd, &open);
        highest = std::max(highest, fd);
    }
}

bool watch(const unique_fd &set, int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    return ::epoll_ctl(set.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

int epoll_loop(int listening) {
    const unique_fd set(::epoll_create1(EPOLL_CLOEXEC));
    if (!watch(set, listening))
        return 1;
    for (;;) {
        epoll_event events[64];
        const int count = ::epoll_wait(set.get(), events, 64, -1);
        if (count < 0)
            return 1;
        for (int i = 0; i < count; ++i) {
            const int fd = events[i].data.fd;
            if (fd == listening)
                watch(set, accept_one(listening));
            else if (!echo(fd))
                ::close(fd);
        }
    }
}

} // namespace

int echo_server(int port, bool with_epoll) {
    const unique_fd listening = listen_on(port);
    if (!listening) {
        std::perror("echo_server");
        return 1;
    }
    return with_epoll ? epoll_loop(listening.get()) : select_loop(listening.get());
}

} // namespace kestrel

int main(int argc, char **argv) {
    const bool with_epoll = argc > 2 && std::string_view(argv[2]) == "epoll";
    return kestrel::echo_server(argc > 1 ? std::atoi(argv[1]) : 0, with_epoll);
}
