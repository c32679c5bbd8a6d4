// sim/card: the commands of the text port, one table a file. Command thread.
#pragma once

#include "parser/tree.h"
#include "sim/card/card.h"

namespace kestrel {

extern const PARSE_TREE commands_state[];   // registers, memory, what was seen and counted
extern const PARSE_TREE commands_control[]; // faults of the control link, power

// The card at this position of the system; null after a line when there is none.
card *commands_card(int cn, int position);

// The same for a channel of it.
card *commands_channel(int cn, int position, int chan);

} // namespace kestrel
