// support: a TCP connection whose peer's host has vanished ends by itself. Idle peers that live answer probes
// and stay for ever; without an answer the connection fails with ETIMEDOUT after two minutes at most, whether
// or not something was on its way to them.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace kestrel {

// False when the system refuses an option; errno says why.
inline bool notice_vanished_peer(int fd) {
    constexpr int idle_seconds = 60, probe_seconds = 15, probes = 4;
    constexpr int unanswered_ms = (idle_seconds + probes * probe_seconds) * 1000;
    const auto set = [fd](int level, int option, int value) {
        return ::setsockopt(fd, level, option, &value, sizeof value) == 0;
    };
    return set(SOL_SOCKET, SO_KEEPALIVE, 1) && set(IPPROTO_TCP, TCP_KEEPIDLE, idle_seconds) &&
           set(IPPROTO_TCP, TCP_KEEPINTVL, probe_seconds) && set(IPPROTO_TCP, TCP_KEEPCNT, probes) &&
           set(IPPROTO_TCP, TCP_USER_TIMEOUT, unanswered_ms);
}

} // namespace kestrel
