// pulsar3/lib/saved: a channel's dead times as they are saved: 72 bytes, the flags' word, four bytes of zero, eight doubles.
// The older file has 40, without those of rates.
#pragma once

#include "pulsar3/lib/paths/system.h"
#include "pulsar3/lib/saved/files.h"

namespace kestrel {

inline constexpr std::size_t old_dead_time_bytes = 40;

// Record number `index` of a file.
void put_dead_times(std::span<std::byte> bytes, int index, const ChannelDTC &record);
ChannelDTC get_dead_times(std::span<const std::byte> bytes, int index);
bool dead_times_are_sound(std::span<const std::byte> bytes);
// The four bytes of each record that mean nothing become zero.
void clear_dead_time_gaps(std::span<std::byte> bytes);
// The older file's records as those of now.
saved_bytes renew_dead_times(std::span<const std::byte> old);

} // namespace kestrel
