// pulsar3/lib/paths: the block memories of channels, tables of 32-bit words that a card looks up.
//
// Channel -1 means every one of the path. All return 0, or a negative status with its text kept.
#pragma once

#include "pulsar3/lib/paths/access.h"
#include "pulsar3/lib/registers/register_table.h"

namespace kestrel {

// The memory of that name, which must be in the table.
const block_memory &plr3_block_memory(std::string_view name);

// Writes a table from the memory's first word on; what it does not fill becomes zero. Too many words are refused.
int plr3_load_memory(int path, int chan, const block_memory &memory, std::span<const std::uint32_t> words);

// Every memory zero: no correction, no region of interest.
int plr3_init_brams(int path, int chan);

// The tail of a pulse that decays by e in `ticks`: word t is exp(-t / ticks) of the event, in 2^-16.
int plr3_init_event_tail(int path, int chan, double ticks);

// Every channel hears its two neighbours on the card: their words are 1, the others 0.
int plr3_init_xtk_map(int path, int chan);

// By what a memory's words are addressed, "event-lead" and "event-tail": the event's width, or the time before it.
// Other memories are refused.
int plr3_set_by_width(int path, int chan, const block_memory &memory, bool by_width);

} // namespace kestrel
