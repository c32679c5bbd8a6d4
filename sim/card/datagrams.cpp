#include "sim/card/datagrams.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <netinet/udp.h>

namespace kestrel {

namespace {

constexpr std::size_t buffer_max = 65000; // bytes that one segmented buffer may have
constexpr std::size_t segments_max = 60;
constexpr int send_buffer = 4 << 20;

std::size_t size_of(const card_packet &p) {
    return p.bytes + (p.bare ? 0 : trailer_bytes);
}

} // namespace

unique_fd datagrams_socket(std::uint32_t address, std::uint16_t port) {
    unique_fd s(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int one = 1;
    ::setsockopt(s.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one); // a blast sends beside the card
    ::setsockopt(s.get(), SOL_SOCKET, SO_SNDBUF, &send_buffer, sizeof send_buffer);
    sockaddr_in bound{};
    bound.sin_family = AF_INET;
    bound.sin_addr.s_addr = address;
    bound.sin_port = port;
    if (!s || ::bind(s.get(), reinterpret_cast<const sockaddr *>(&bound), sizeof bound) != 0)
        return {};
    return s;
}

// Runs of packets of one size, the last of which may be shorter.
void datagram_sender::group(std::span<const card_packet> packets) {
    messages_.clear();
    for (std::size_t i = 0; i < packets.size();) {
        const std::size_t first = i, size = size_of(packets[i]);
        std::size_t total = size, before = size;
        for (++i; segments_ && i < packets.size() && before == size; ++i) {
            before = size_of(packets[i]);
            if (before > size || before == 0 || total + before > buffer_max || i - first >= segments_max)
                break;
            total += before;
        }
        messages_.push_back({first, i - first});
    }
}

void datagram_sender::fill(const sockaddr_in &to, std::span<const card_packet> packets) {
    to_ = to;
    pieces_.resize(2 * packets.size());
    headers_.assign(messages_.size(), {});
    controls_.resize(messages_.size());
    for (std::size_t i = 0; i < packets.size(); ++i) {
        const card_packet &p = packets[i];
        pieces_[2 * i] = {const_cast<std::uint8_t *>(p.payload), p.bytes};
        pieces_[2 * i + 1] = {const_cast<std::uint32_t *>(p.trailer), p.bare ? 0 : trailer_bytes};
    }
    for (std::size_t i = 0; i < messages_.size(); ++i) {
        msghdr &m = headers_[i].msg_hdr;
        m.msg_name = &to_;
        m.msg_namelen = sizeof to_;
        m.msg_iov = &pieces_[2 * messages_[i].first];
        m.msg_iovlen = 2 * messages_[i].packets;
        if (messages_[i].packets < 2)
            continue;
        m.msg_control = controls_[i].bytes;
        m.msg_controllen = sizeof controls_[i].bytes;
        cmsghdr *control = CMSG_FIRSTHDR(&m);
        control->cmsg_level = IPPROTO_UDP;
        control->cmsg_type = UDP_SEGMENT;
        control->cmsg_len = CMSG_LEN(sizeof(std::uint16_t));
        const auto size = static_cast<std::uint16_t>(size_of(packets[messages_[i].first]));
        std::memcpy(CMSG_DATA(control), &size, sizeof size);
    }
}

std::size_t datagram_sender::send(int socket, const sockaddr_in &to, std::span<const card_packet> packets) {
    group(packets);
    fill(to, packets);
    std::size_t taken = 0;
    for (std::size_t i = 0; i < headers_.size();) {
        const int n = ::sendmmsg(socket, &headers_[i], static_cast<unsigned>(headers_.size() - i), 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (!segments_ || messages_[i].packets < 2)
                return taken;
            segments_ = false; // no segmentation here: each packet on its own from now on
            return taken + send(socket, to, packets.subspan(messages_[i].first));
        }
        for (const std::size_t end = i + static_cast<std::size_t>(n); i < end; ++i)
            taken += messages_[i].packets;
    }
    return taken;
}

} // namespace kestrel
