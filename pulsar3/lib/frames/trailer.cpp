#include "pulsar3/lib/frames/trailer.h"

#include "support/byte_order.h"

#include <algorithm>
#include <cstring>

namespace kestrel {

namespace {

constexpr std::uint32_t start_of_frame = 1U << 31;
constexpr std::uint32_t end_of_frame = 1U << 30;
constexpr std::uint32_t padded_packet = 1U << 29;
constexpr std::uint32_t packet_number = (1U << 28) - 1;

// The word that ends so many bytes before the packet's end.
std::uint32_t word_before_end(std::span<const std::byte> tail, std::size_t bytes) {
    static_assert(machine_is_intel);
    std::uint32_t word;
    std::memcpy(&word, tail.data() + tail.size() - bytes - sizeof word, sizeof word);
    return word;
}

} // namespace

packet_info plr3_walk_packet(std::span<const std::byte> packet, bool farm_mode) {
    return plr3_walk_tail(packet.last(std::min(packet.size(), packet_tail_bytes)), packet.size(), farm_mode);
}

packet_info plr3_walk_tail(std::span<const std::byte> tail, std::size_t packet_bytes, bool farm_mode) {
    packet_info info;
    if (packet_bytes < trailer_bytes || packet_bytes % 4 != 0)
        return info;
    const std::uint32_t word = word_before_end(tail, 0);
    info.state = packet_state::good;
    info.frame = word_before_end(tail, 4);
    info.packet = word & packet_number;
    info.starts = word & start_of_frame;
    info.ends = word & end_of_frame;
    info.payload = packet_bytes - trailer_bytes;
    if (!farm_mode || !(word & padded_packet))
        return info;
    info.pad_words = info.payload > 0 ? static_cast<int>(word_before_end(tail, trailer_bytes)) : 0;
    if (info.pad_words < 0)
        info.state = packet_state::negative_pads;
    else if (static_cast<std::size_t>(info.pad_words) >= info.payload / 4)
        info.state = packet_state::all_pads;
    info.payload =
        info.state == packet_state::good ? info.payload - 4 * static_cast<std::size_t>(info.pad_words) : 0;
    return info;
}

} // namespace kestrel
