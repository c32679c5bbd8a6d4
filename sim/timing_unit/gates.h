// sim/timing_unit: the wires to simulated cards, over their gate connections (sim/card/gate_link.h). Used by the unit's
// thread once that runs.
#pragma once

#include <string>

namespace kestrel {

// Connects to a card simulator of this machine at its -gate port. False with the reason.
bool gates_connect(int port, std::string &why);

// Each returns when all cards have followed; one that does not within 2 s is given up, with a line on standard error.
void gates_open();
void gates_close();
void gates_end_frame();

} // namespace kestrel
