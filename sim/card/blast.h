// sim/card: prepared frames as fast as they can be sent, to measure receivers. Command thread; needs the system's lock
// only to look at the registers.
#pragma once

#include <cstdint>

namespace kestrel {

struct card;

struct blast_order {
    int first_chan, channels;
    std::uint32_t first_frame, frames; // numbers of the frames of each channel
    double gigabits;                   // a second at most, 0: no limit
};

struct blast_result {
    std::uint64_t packets = 0, bytes = 0, unsent = 0; // bytes with trailers
    double seconds = 0;
    bool known = true; // where to send
};

inline constexpr std::uint32_t blast_patterns = 16; // frame n has the pattern of frame n modulo these

// Ends early when `interrupted` says so.
blast_result blast(card &c, const blast_order &order, bool (*interrupted)());

} // namespace kestrel
