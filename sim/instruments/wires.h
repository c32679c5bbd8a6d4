// sim/instruments: the serial lines (as pseudo terminals) and TCP ports, served by one thread: it puts command lines
// together, lets the instruments answer and sends what they say, in its time and spoiled as asked.
#pragma once

#include "sim/instruments/instrument.h"

#include <string>

namespace kestrel {

// False with a reason when a wire cannot be had.
bool wires_start(std::string &why);
void wires_stop();

// Takes an instrument's wires away, or gives it new ones: the same port, another pseudo terminal. False when they
// cannot be had.
bool wires_present(instrument &target, bool present);

} // namespace kestrel
