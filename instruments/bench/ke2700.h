// instruments/bench: the multimeter: its state, and what it is asked and told.
#pragma once

#include "instruments/bench/keithley.h"
#include "instruments/bench/numbers.h"
#include "parser/tree.h"

#include <atomic>
#include <optional>
#include <string>

namespace kestrel::bench {

struct ke2700_state {
    line wire;
    logger log;
    std::string device = default_device;
    std::atomic<bool> card = false; // the switching card in slot 1
    statistics last{};              // of the last `measure`
};
extern ke2700_state ke2700;

// The instrument for one exchange or several; false after a line.
class ke2700_turn : public turn {
  public:
    explicit ke2700_turn(const waiter &who);
};

// Each prints what went wrong and then returns false or nothing.
bool ke2700_tell(turn &t, const std::string &command);
std::optional<std::string> ke2700_ask(turn &t, const std::string &command, int wait_ms = patience_ms);

// Samples of one channel of the card, or of the input without it.
std::optional<statistics> ke2700_measure(turn &t, int samples, int channel);

// True for a channel that the card measures; false after a line.
bool ke2700_channel_fits(int cn, int channel);

extern const PARSE_TREE row_ke2700_set_range, row_ke2700_set_filter;
extern const PARSE_TREE row_ke2700_start_log, row_ke2700_stop_log, row_ke2700_pause_log,
    row_ke2700_continue_log;
extern const PARSE_TREE row_tti_open, row_tti_close, row_tti_set;

void tti_exit();

} // namespace kestrel::bench
