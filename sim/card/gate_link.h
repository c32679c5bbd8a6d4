// sim/card: a timing unit that gates the cards over a connection of its own, from this machine only. It sends one byte an
// event, `o` the gate opens, `c` it closes, `e` the time frame ends, and gets the byte back when that has happened. When
// the unit leaves, the gate closes. A thread of its own.
#pragma once

#include <string>

namespace kestrel {

// Listens at this port of 127.0.0.1; 0: nowhere. False with the reason when the port cannot be had.
bool gate_link_start(int port, std::string &why);
void gate_link_stop();

} // namespace kestrel
