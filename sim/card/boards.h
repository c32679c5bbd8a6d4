// sim/card: what a card's boards answer: clock generators, clock phases, the meter, sensors' limits, power, links to other
// cards. Called under the system's lock.
#pragma once

#include "sim/card/targets.h"

namespace kestrel {

void boards_power_up(card &c);
// What follows from a write to this space.
void boards_written(card &c, card_target target, std::uint32_t address, std::size_t items);

} // namespace kestrel
