// instruments/bench: the two-channel high-voltage supply: its state, and how it is asked. It echoes each command;
// nothing is believed of an exchange whose echo is another.
#pragma once

#include "instruments/bench/line.h"
#include "instruments/bench/numbers.h"

#include <array>
#include <optional>
#include <string>

namespace kestrel::bench {

struct iseg_state {
    line wire;
    std::string device = default_device;
    module_id id{};
    std::array<int, 2> limit{}; // software limits, volts: 0 until set
};
extern iseg_state iseg;

class iseg_turn : public turn {
  public:
    explicit iseg_turn(const waiter &who);
};

// The line behind the echo; nothing after a line.
std::optional<std::string> iseg_ask(turn &t, const std::string &command);
std::optional<double> iseg_number(turn &t, const std::string &command);

// The status of a channel, "S1=L2H" and what is behind the "=".
struct iseg_status {
    std::string whole, text;
};
std::optional<iseg_status> iseg_get_status(turn &t, int channel);

// Asks for the status until no ramp goes on any more, or ^C, and shows it meanwhile unless `quiet`: the last text.
// Nothing after a line.
std::optional<std::string> iseg_wait(int cn, int channel, bool quiet);

} // namespace kestrel::bench
