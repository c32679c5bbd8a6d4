#include "server/data_channel.h"

#include "server/client_descriptor.h"
#include "server/output.h"
#include "server/tcp_connect.h"
#include "server/wait.h"
#include "support/fd.h"
#include "support/poll_now.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <poll.h>
#include <sys/socket.h>

namespace kestrel {

namespace {

constexpr int connect_wait_ms = 10'000;

// Bytes in one call: during a call the peer's acknowledgements wait, and longer ones leave its window closed
// (on loopback 8 MiB a call are a quarter slower).
constexpr std::size_t send_most = 1 << 20;

// For callers, which find the error in errno.
int failed_with(int error) {
    errno = error;
    return -1;
}

int not_connected() {
    std::fprintf(stderr, "server: Not connected to client's data port yet.\n");
    return failed_with(ENOTCONN);
}

bool has_channel(int cn) {
    return sv_is_valid(cn) && client[cn].channel.data_port >= 0 && client[cn].channel.data >= 0;
}

// 0, or the error that kept the connection from standing.
int connect_to(int fd, sockaddr_in address, int port) {
    if (port < 1 || port > 65535)
        return EINVAL;
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return sv_tcp_connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address, connect_wait_ms);
}

// Until the socket is ready again after a call that would have blocked; false, with errno, when it is not to
// be.
bool wait_for_progress(int cn, short events) {
    if (errno == EINTR)
        return true;
    if (errno != EAGAIN && errno != EWOULDBLOCK)
        return false;
    const auto wait = sv_wait_fd(client[cn].channel.data, events, static_cast<int>(sv_patience.count()));
    errno = wait == wait_result::interrupted ? EINTR : ETIMEDOUT;
    return wait == wait_result::ready;
}

// Not broken, as far as can be seen: a client that has closed its end looks like one that only has no more to
// send, until bytes are sent to it.
bool is_good(int fd) {
    return poll_now(fd, 0) == 0;
}

void close_and_report(int cn) {
    if (sv_is_valid(cn) && !sv_channel_close(client[cn].channel))
        sv_printf(cn, "! Error on shutdown, sock_errno = %d\n", errno);
}

} // namespace

bool sv_channel_close(session_channel &channel) {
    if (channel.data < 0)
        return true;
    const int error = ::shutdown(channel.data, SHUT_RDWR) == 0 ? 0 : errno;
    ::close(channel.data);
    channel.data = -1;
    errno = error;
    return error == 0;
}

void sv_data_setport(int cn, int port) {
    if (!sv_is_valid(cn))
        return;
    session_channel &channel = client[cn].channel;
    sv_channel_close(channel);
    channel.data_port = port;
}

int sv_data_open(int cn) {
    if (!sv_is_valid(cn) || client[cn].channel.data_port < 0)
        return not_connected();
    session_channel &channel = client[cn].channel;
    if (channel.data >= 0 && is_good(channel.data))
        return channel.data;
    sv_channel_close(channel);
    sv_flush_all(cn);
    unique_fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) {
        const int error = errno;
        std::fprintf(stderr, "server: sv_data: Failed when creating a socket. (sock_errno=%d)\n", error);
        return failed_with(error);
    }
    if (const int error = connect_to(fd.get(), client[cn].addr, channel.data_port)) {
        std::fprintf(stderr, "server: sv_data: Failed to connect to data socket (sock_errno=%d).\n", error);
        return failed_with(error);
    }
    channel.data = fd.release();
    return channel.data;
}

ssize_t sv_data_write(int cn, const void *buffer, std::size_t len) {
    if (!has_channel(cn))
        return not_connected();
    sv_flush_all(cn);
    const char *bytes = static_cast<const char *>(buffer);
    std::size_t sent = 0;
    while (sent < len) {
        const ssize_t n =
            ::send(client[cn].channel.data, bytes + sent, std::min(len - sent, send_most), MSG_NOSIGNAL);
        if (n >= 0)
            sent += static_cast<std::size_t>(n);
        else if (!wait_for_progress(cn, POLLOUT))
            return -1;
    }
    return static_cast<ssize_t>(sent);
}

ssize_t sv_data_read(int cn, void *buffer, std::size_t len) {
    if (!has_channel(cn))
        return not_connected();
    sv_flush_all(cn);
    for (;;) {
        const ssize_t n = ::recv(client[cn].channel.data, buffer, len, 0);
        if (n >= 0)
            return n;
        if (!wait_for_progress(cn, POLLIN))
            return -1;
    }
}

void sv_data_close(int cn) {
    close_and_report(cn);
}
void sv_data_abort(int cn) {
    close_and_report(cn);
}
int sv_get_data_sock(int cn) {
    return sv_is_valid(cn) ? client[cn].channel.data : -1;
}

} // namespace kestrel
