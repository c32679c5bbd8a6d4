// pulsar3/lib/counts: scope data: what a card has captured in its memory, sent over the data link into the path's scope
// module, a row a channel.
#pragma once

#include <cstdint>
#include <span>

namespace kestrel {

// Of one card, or of all (-1); these side by side, unless threading is disabled. 0, or a negative status with its text
// kept. ^C ends it.
int plr3_read_scope_data(int path, int card);

// A channel's row of the module, as it is now.
int plr3_scope_row(int path, int chan, std::span<const std::uint32_t> &row);

} // namespace kestrel
