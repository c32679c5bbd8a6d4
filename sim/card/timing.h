// sim/card: the run line, the time frames, and the thread that ends them. Called under the system's lock but for the
// first two.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kestrel {

struct card;

void timing_start();
void timing_stop();

// A write to registers of channels or globals: what follows from it has happened on return, so that the answer to a
// stop says that the last time frame has ended.
void timing_registers_written(card &c);

// A write to the data link's registers from `first` on.
void timing_link_written(card &c, std::uint32_t first, std::size_t words);

} // namespace kestrel
