// sim/card: many datagrams with few system calls. A sender belongs to one thread at a time.
#pragma once

#include "sim/card/packet_faults.h"
#include "support/fd.h"

#include <netinet/in.h>
#include <span>
#include <sys/socket.h>
#include <sys/uio.h>
#include <vector>

namespace kestrel {

// A UDP socket bound to an address; empty on failure, with errno set.
unique_fd datagrams_socket(std::uint32_t address, std::uint16_t port);

class datagram_sender {
  public:
    // Sends the packets, each with its trailer, in order; runs of equal ones leave as one buffer that the kernel
    // (or the receiver's GRO) cuts. Returns how many were taken.
    std::size_t send(int socket, const sockaddr_in &to, std::span<const card_packet> packets);

  private:
    struct message {
        std::size_t first, packets;
    };
    void group(std::span<const card_packet> packets);
    void fill(const sockaddr_in &to, std::span<const card_packet> packets);

    struct alignas(cmsghdr) segment_control {
        char bytes[CMSG_SPACE(sizeof(std::uint16_t))];
    };
    std::vector<message> messages_;
    std::vector<mmsghdr> headers_;
    std::vector<iovec> pieces_;
    std::vector<segment_control> controls_;
    sockaddr_in to_{};
    bool segments_ = true; // until the kernel refuses
};

} // namespace kestrel
