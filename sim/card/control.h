// sim/card: the sockets of all control links, and the thread that serves them. It also serves the readout connections
// of mini models (readout.h).
#pragma once

#include <string>

namespace kestrel {

// Opens the control port of every card and starts the thread. False with the reason when a port cannot be had.
bool control_start(std::string &why);
void control_stop();

// After a change of `alive` or with something to send: has the thread look at everything again, and waits until it
// has. Not under the system's lock. False when a card's port could not be opened.
bool control_update();

// The same from any thread, without waiting.
void control_wake();

} // namespace kestrel
