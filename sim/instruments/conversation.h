// sim/instruments: one wire's conversation: command lines are put together, the instrument answers, and what it says
// waits until it is due, spoiled as asked. The lock guards all of it.
#pragma once

#include "sim/instruments/instrument.h"
#include "support/fd.h"

#include <chrono>
#include <deque>
#include <string>

namespace kestrel {

struct piece {
    std::chrono::steady_clock::time_point due;
    std::string bytes;
};

struct wire {
    instrument *owner;
    unique_fd fd;
    unique_fd far_end; // a serial line's, held open so that the line stands while nobody uses it
    std::string in{};
    std::deque<piece> out{};
};

// Takes the whole lines out of `in`. False when the instrument vanishes instead of answering.
bool conversation_take_lines(wire &w);

// Sends what is due, as far as the other end takes it.
void conversation_send_due(wire &w);

} // namespace kestrel
