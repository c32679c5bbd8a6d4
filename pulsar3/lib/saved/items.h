// pulsar3/lib/saved: what is saved: one item a file, in the order in which they are saved and restored, and how the bytes
// of each are read from the system and written to it.
#pragma once

#include "pulsar3/lib/saved/files.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel {

enum class saved_kind {
    region, // of a channel: its control registers or a block memory
    roi,    // of a channel: its table of regions of interest
    globals,
    terminations,
    dead_times, // of all cards
    gain,
    offset,
    clocks,
    scope_processors,
    hist_processors,
    sync_mode,
};

struct saved_item {
    saved_kind kind;
    int number; // of the channel or card
    int region; // of a region or table
    std::string file;
    std::size_t bytes;
    bool is_default = false; // there was no file
};

// The items of an open path, in order; none, with a text kept, when the table of block memories cannot be right.
std::vector<saved_item> plr3_saved_items(int path);

// The item as the system has it now, or a negative status with its text kept.
int plr3_read_item(int path, const saved_item &item, saved_bytes &bytes);
// Puts it into the system. The bytes are of the item's size and sound.
int plr3_write_item(int path, const saved_item &item, std::span<const std::byte> bytes);

// Whether what a file holds can be: bounds of what does not go to the card as it is.
bool plr3_item_is_sound(const saved_item &item, std::span<const std::byte> bytes);

// Clears what a restore does not write: the words that a card puts there itself, run bits, number of time frames, and what
// lies in the gaps of a table. The bytes must be sound.
void plr3_keep_restored(const saved_item &item, std::span<std::byte> bytes);

// Words of a channel's control registers, the first of which and the last four are the card's own.
inline constexpr int plr3_control_words = 64;

} // namespace kestrel
