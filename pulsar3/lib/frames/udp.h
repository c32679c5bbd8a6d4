// pulsar3/lib/frames: the host's end of a data link. A socket is read only by the one thread that owns it.
#pragma once

#include "support/fd.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <sys/uio.h>

namespace kestrel {

inline constexpr int udp_packet_max = 9000; // trailer included
inline constexpr int udp_default_buffer = 8 << 20;
inline constexpr std::chrono::milliseconds udp_wait{100}; // the longest that one look at the socket blocks

struct UDPconnection {
    unique_fd socket;
    int hostPort = 0;
    int femPort = 0;
    int tos = 0;     // no type-of-service marking
    int recvBuf = 0; // bytes wanted for the socket's buffer, 0 for the default; then what the system gave
    int packetSize = udp_packet_max;
    int dataSize = udp_packet_max;
    int timeout = 30; // s
    int sentPackets = 0, recvPackets = 0;
    int sentLoss = 0, recvLoss = 0;
    std::uint64_t sentBytes = 0, recvBytes = 0;
    std::uint64_t elapsedTime = 0; // us spent receiving
};

// Opens the host's end: bound to the host's address and port, connected to the card's. Sizes, time-out and counters
// start anew, `recvBuf` stays what was asked for. 0, or a status with its text and no socket open.
int plr3_udp_init(UDPconnection &connection, const char *host_address, int host_port,
                  const char *card_address, int card_port);

// The socket's buffer, in bytes that count: what the system gave for the asked size (past its usual limit where we may),
// what it is now, or -1.
int plr3_udp_set_buffer(int fd, int wanted);
int plr3_udp_get_buffer(int fd);

// One packet into the parts: its size, which is more than theirs when it did not fit, or -1 with errno: EAGAIN after
// udp_wait. That nobody listened at the card's port is no error of ours.
ssize_t plr3_udp_receive(UDPconnection &connection, std::span<iovec> parts);

} // namespace kestrel
