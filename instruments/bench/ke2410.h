// instruments/bench: the source-meter: its state, and what it is asked and told. ke2410_set.cpp alone sets voltages.
#pragma once

#include "instruments/bench/keithley.h"
#include "parser/tree.h"

#include <optional>
#include <string>

namespace kestrel::bench {

inline constexpr double ke2410_volts_max = 1100.0; // that it can source

struct ke2410_state {
    line wire;
    logger log;
    std::string device = default_device;
    double min_volts = 0.0, max_volts = 0.0; // software limits; both 0: none were set
    bool current_source = false;
    bool initialised = false; // on this connection, or found to be driving a voltage

    bool has_limits() const { return min_volts != 0.0 || max_volts != 0.0; }
    bool within_limits(double volts) const { return volts >= min_volts && volts <= max_volts; }
};
extern ke2410_state ke2410;

// The instrument for one exchange or several; false after a line.
class ke2410_turn : public turn {
  public:
    explicit ke2410_turn(const waiter &who);
};

// Each prints what went wrong and then returns false or nothing. Numbers are finite.
bool ke2410_tell(turn &t, const std::string &command);
std::optional<std::string> ke2410_ask(turn &t, const std::string &command);
std::optional<double> ke2410_number(turn &t, const std::string &command);
std::optional<double> ke2410_level(turn &t);   // set point, volts
std::optional<bool> ke2410_output_on(turn &t); // output state

struct ke2410_reading {
    double volts = 0.0, amperes = 0.0;
};
std::optional<ke2410_reading> ke2410_read(turn &t); // measures

// True when the set point may come out: it is within the software limits, or low. Protections and compliance, behind
// which another may be held back, are changed only then. False after a line.
bool ke2410_may_unleash(turn &t);

// Sets a voltage within the software limits, gently unless `at_once`: 0, or -1 after a line.
int ke2410_set_volts(int cn, double volts, bool at_once);

extern const PARSE_TREE row_ke2410_set_limit, row_ke2410_enable, row_ke2410_set;
extern const PARSE_TREE row_ke2410_start_log, row_ke2410_stop_log, row_ke2410_pause_log,
    row_ke2410_continue_log;
extern const PARSE_TREE row_ke2410_set_mode, row_ke2410_set_i_range, row_ke2410_set_v_range,
    row_ke2410_set_src_v_limit;

} // namespace kestrel::bench
