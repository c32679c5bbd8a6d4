// pulsar3/lib/frames: what the end of a data packet says of it. A packet is payload words and a trailer of two words,
// little-endian. Pure functions; a packet may hold anything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kestrel {

inline constexpr std::size_t trailer_bytes = 8;
inline constexpr std::size_t packet_tail_bytes = trailer_bytes + 4; // with the last payload word

enum class packet_state {
    good,
    no_trailer,    // too short, or not of whole words
    negative_pads, // the pads say nonsense: no payload
    all_pads,
};

struct packet_info {
    packet_state state = packet_state::no_trailer;
    std::uint32_t frame = 0;
    std::uint32_t packet = 0; // within the frame, from 0
    bool starts = false;      // the first of its frame
    bool ends = false;        // the last
    int pad_words = 0;
    std::size_t payload = 0; // bytes, without pads
};

// `farm_mode`: the card's feature, without which the pad bit means nothing.
packet_info plr3_walk_packet(std::span<const std::byte> packet, bool farm_mode);

// The same of a packet that does not lie in one piece: its last bytes (as many as there are, up to
// packet_tail_bytes), and its size.
packet_info plr3_walk_tail(std::span<const std::byte> tail, std::size_t packet_bytes, bool farm_mode);

} // namespace kestrel
