// pulsar3/lib/frames: a file of a mini model's events, written by the readout threads while they are histogrammed.
//
// The file is a run of records, each a head of four 32-bit words and its events:
//   magic 0x4D534C4B ("KLSM"), channel of the system, time frame, number of events
// An event is the card's 8 bytes: bits 0..15 energy bin, 16..31 auxiliary bin, 32..62 time stamp in ticks, 63 last event
// of the time frame. A record that cannot be written whole is taken back and ends the file; what a killed server leaves
// behind its last record is shorter than its head says.
#pragma once

#include "support/fd.h"

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>

namespace kestrel {

inline constexpr std::uint32_t list_mode_magic = 0x4D534C4B;

struct list_mode_file {
    std::mutex mutex; // guards the rest, but for name and fd
    std::string name;
    unique_fd fd;
    std::uint64_t bytes = 0, records = 0, events = 0;
    int error = 0; // that ended the writing; the records before it stay
};

// Makes the file, which must not exist: 0, or an errno.
int plr3_list_mode_create(list_mode_file &file, const std::string &name);

// Adds the events of a message, 8 bytes each. The first that fails ends the writing: true for that one only.
bool plr3_list_mode_add(list_mode_file &file, std::uint32_t chan, std::uint32_t time_frame,
                        std::span<const std::byte> events);

} // namespace kestrel
