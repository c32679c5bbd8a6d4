// pulsar3/lib/boards: waiting until a generator or the phases of its clocks have locked.
#pragma once

#include "pulsar3/lib/boards/board_bus.h"

#include <cstdint>

namespace kestrel {

// Until bit 0 of that word is set: 0, or a negative status with its text kept when a second has gone by or ^C was typed.
// With `unchecked`, and for a dummy, 0 at once.
int plr3_wait_lock(const char *function, int path, int card, board_bus bus, std::uint32_t address,
                   bool unchecked);

} // namespace kestrel
