#include "pulsar3/lib/frames/udp.h"

#include "pulsar3/lib/wire/error.h"
#include "pulsar3/lib/wire/resolve.h"

#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace kestrel {

namespace {

// 0, or a status with its text.
int end_point(const char *name, int port, sockaddr_in &address) {
    if (port < 0 || port > 0xFFFF)
        return plr3_fail(plr3_failed, "plr3_udp_init: port %d must be in 0..65535", port);
    const auto found = plr3_resolve(name);
    if (!found)
        return plr3_fail(plr3_failed, "Unable to resolve server name %s!", name);
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr = *found;
    return 0;
}

bool set_options(int fd, int tos) {
    const timeval wait{0, std::chrono::microseconds(udp_wait).count()};
    return ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait) == 0 &&
           (tos == 0 || ::setsockopt(fd, IPPROTO_IP, IP_TOS, &tos, sizeof tos) == 0);
}

int open_socket(UDPconnection &c, const sockaddr_in &host, const sockaddr_in &card) {
    const auto *here = reinterpret_cast<const sockaddr *>(&host);
    const auto *there = reinterpret_cast<const sockaddr *>(&card);
    unique_fd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd || !set_options(fd.get(), c.tos))
        return plr3_fail(plr3_failed, "Error creating udp socket (errno %d)", errno);
    c.recvBuf = plr3_udp_set_buffer(fd.get(), c.recvBuf > 0 ? c.recvBuf : udp_default_buffer);
    if (c.recvBuf < c.packetSize)
        return plr3_fail(plr3_failed, "Error UDP socket RCVBUF size 0x%x is too small",
                         static_cast<unsigned>(c.recvBuf));
    if (::bind(fd.get(), here, sizeof host) != 0)
        return plr3_fail(plr3_failed, "Binding client udp socket (errno %d)", errno);
    if (::connect(fd.get(), there, sizeof card) != 0)
        return plr3_fail(plr3_failed, "Error connecting udp socket (errno %d)", errno);
    c.socket = std::move(fd);
    return 0;
}

} // namespace

// The kernel tells twice what it was asked for: its own records take the other half.
int plr3_udp_get_buffer(int fd) {
    int given = -1;
    socklen_t size = sizeof given;
    return ::getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &given, &size) == 0 ? given / 2 : -1;
}

int plr3_udp_set_buffer(int fd, int wanted) {
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &wanted, sizeof wanted) != 0)
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof wanted);
    return plr3_udp_get_buffer(fd);
}

int plr3_udp_init(UDPconnection &connection, const char *host_address, int host_port,
                  const char *card_address, int card_port) {
    const int wanted = connection.recvBuf;
    connection = {};
    connection.recvBuf = wanted;
    connection.hostPort = host_port;
    connection.femPort = card_port;
    sockaddr_in host{}, card{};
    if (const int rc = end_point(host_address, host_port, host))
        return rc;
    if (const int rc = end_point(card_address, card_port, card))
        return rc;
    return open_socket(connection, host, card);
}

ssize_t plr3_udp_receive(UDPconnection &connection, std::span<iovec> parts) {
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    ssize_t got = -1;
    do
        got = ::recvmsg(connection.socket.get(), &message, MSG_TRUNC);
    while (got < 0 && errno == ECONNREFUSED);
    if (got < 0)
        return -1;
    ++connection.recvPackets;
    connection.recvBytes += static_cast<std::uint64_t>(got);
    return got;
}

} // namespace kestrel
