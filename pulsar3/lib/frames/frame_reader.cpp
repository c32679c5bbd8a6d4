#include "pulsar3/lib/frames/frame_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/udp.h>

namespace kestrel {

void plr3_prepare_reader_socket(int fd) {
    const int on = 1; // without it packets come one by one, which is only slower
    ::setsockopt(fd, IPPROTO_UDP, UDP_GRO, &on, sizeof on);
}

std::uint32_t plr3_socket_drops(int fd) {
    std::uint32_t words[SK_MEMINFO_VARS]{};
    socklen_t size = sizeof words;
    return ::getsockopt(fd, SOL_SOCKET, SO_MEMINFO, words, &size) == 0 ? words[SK_MEMINFO_DROPS] : 0;
}

frame_reader::frame_reader() : spill_(std::make_unique_for_overwrite<std::byte[]>(batch_ * message_max_)) {}

// A message ends with its frame, so that the next begins with the next frame. In a circular buffer few places are
// opened at once: what lies there is lost to readers.
std::size_t frame_reader::lay_out(frame_assembler &frames) {
    const frame_area &area = frames.area();
    const std::uint64_t last =
        frames.expected_frame() + (area.circular ? std::max<std::uint64_t>(area.frames() / 4, 1) : batch_);
    frame_assembler::slot slot = frames.next();
    std::size_t count = 0;
    for (; count < wanted_ && slot.frame < last; ++count) {
        message &m = messages_[count];
        m.slots = 0;
        std::size_t parts = 0;
        for (bool ended = false; slot.place && !ended && m.slots < merged_; slot = frames.after(slot)) {
            ended = slot.ends;
            frames.open(slot);
            m.slot[m.slots] = slot;
            m.parts[parts++] = {slot.place, slot.bytes};
            m.parts[parts++] = {m.trailer[m.slots].data(), trailer_bytes};
            ++m.slots;
        }
        m.parts[parts++] = {spill_.get() + count * message_max_, message_max_};
        headers_[count].msg_hdr = {
            nullptr, 0, m.parts.data(), parts, controls_[count].bytes, sizeof controls_[count].bytes, 0};
    }
    return count;
}

frame_reader::got frame_reader::receive(UDPconnection &connection, frame_assembler &frames) {
    const std::size_t wanted = lay_out(frames);
    const int n = ::recvmmsg(connection.socket.get(), headers_.data(), static_cast<unsigned>(wanted),
                             MSG_DONTWAIT, nullptr);
    if (n < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? got::nothing
               : errno == ECONNREFUSED                                   ? got::some
                                                                         : got::error;
    const auto count = static_cast<std::size_t>(n);
    wanted_ = std::min(2 * wanted_, batch_);
    for (std::size_t i = 0; i < count; ++i) {
        connection.recvBytes += headers_[i].msg_len;
        std::size_t taken = 0;
        if (take_in_place(i, frames, taken))
            continue;
        take_up(i, taken, count, frames);
        break;
    }
    connection.recvPackets += n;
    return count == wanted ? got::more : got::some;
}

std::size_t frame_reader::merged_size(std::size_t i) const {
    const msghdr &header = headers_[i].msg_hdr;
    for (cmsghdr *c = CMSG_FIRSTHDR(&header); c; c = CMSG_NXTHDR(const_cast<msghdr *>(&header), c)) {
        if (c->cmsg_level != IPPROTO_UDP || c->cmsg_type != UDP_GRO)
            continue;
        int size = 0;
        std::memcpy(&size, CMSG_DATA(c), sizeof size);
        if (size > 0)
            return static_cast<std::size_t>(size);
    }
    return std::max<std::size_t>(headers_[i].msg_len, 1);
}

// Packets lie where they were foreseen as long as each has the size of its slot.
bool frame_reader::take_in_place(std::size_t i, frame_assembler &frames, std::size_t &taken) {
    const message &m = messages_[i];
    const std::size_t size = merged_size(i), all = headers_[i].msg_len;
    std::size_t begin = 0;
    for (; begin < all && taken < m.slots; begin += size, ++taken) {
        const std::size_t bytes = std::min(size, all - begin);
        const frame_assembler::slot &slot = m.slot[taken];
        if (bytes != slot.bytes + trailer_bytes)
            return false;
        std::array<std::byte, packet_tail_bytes> tail;
        std::memcpy(tail.data(), slot.place + slot.bytes - 4, 4);
        std::memcpy(tail.data() + 4, m.trailer[taken].data(), trailer_bytes);
        const packet_info packet = plr3_walk_tail(tail, bytes, frames.area().farm_mode);
        if (!frames.take_in_place(slot, packet))
            return false;
    }
    return all > 0 && begin >= all && taken == m.slots;
}

void frame_reader::gather(std::size_t i, std::vector<std::byte> &bytes) {
    std::size_t left = headers_[i].msg_len;
    const msghdr &header = headers_[i].msg_hdr;
    for (std::size_t part = 0; part < header.msg_iovlen && left > 0; ++part) {
        const iovec &v = header.msg_iov[part];
        const std::size_t n = std::min(left, v.iov_len);
        const auto *from = static_cast<const std::byte *>(v.iov_base);
        bytes.insert(bytes.end(), from, from + n);
        left -= n;
    }
}

// From packet `taken` of message `first` on, all is copied out of the places where it does not belong, these are
// cleared, and each packet goes its own way.
void frame_reader::take_up(std::size_t first, std::size_t taken, std::size_t count, frame_assembler &frames) {
    std::vector<std::byte> &bytes = taken_up_;
    bytes.clear();
    sizes_.clear();
    wanted_ = 1;
    std::size_t in_place = taken;
    for (std::size_t i = first; i < count; ++i, in_place = 0) {
        const std::size_t size = merged_size(i), all = headers_[i].msg_len, before = bytes.size();
        gather(i, bytes);
        bytes.erase(bytes.begin() + static_cast<std::ptrdiff_t>(before),
                    bytes.begin() + static_cast<std::ptrdiff_t>(before + std::min(in_place * size, all)));
        for (std::size_t begin = in_place * size; begin < all || all == 0; begin += size) {
            sizes_.push_back(std::min(size, all - begin));
            if (all == 0)
                break;
        }
        std::size_t lands = in_place * size; // what has been written to
        for (std::size_t slot = in_place; slot < messages_[i].slots && lands < all; ++slot) {
            std::memset(messages_[i].slot[slot].place, 0, messages_[i].slot[slot].bytes);
            lands += messages_[i].slot[slot].bytes + trailer_bytes;
        }
    }
    merged_ = std::clamp<std::size_t>((headers_[first].msg_len + merged_size(first) - 1) / merged_size(first),
                                      1, merged_max_);
    std::span<const std::byte> rest(bytes);
    for (const std::size_t size : sizes_) {
        frames.take(rest.first(size));
        rest = rest.subspan(size);
    }
}

bool frame_reader::drain(int fd) {
    for (;;) {
        std::byte nothing;
        if (::recv(fd, &nothing, sizeof nothing, MSG_DONTWAIT | MSG_TRUNC) < 0 && errno != ECONNREFUSED)
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    }
}

} // namespace kestrel
