// pulsar3/lib/counts: dead times as the trigger's settings let expect them, for a start without a calibration.
#pragma once

#include "pulsar3/lib/paths/system.h"

namespace kestrel {

// Dead times in seconds, at every energy.
struct trigger_dead_times {
    double all_event = 0; // a count of all events is lost when another is nearer
    double in_window = 0; // an event has no energy when another is nearer, before or behind
};

// From the registers of a channel: trigger B, or C where that alone is enabled. `plus` ticks (0.5 or 1) stand for the
// clock's grain. With averages of n ticks, g apart, a pulse holds the trigger's difference above its threshold for
// max(n + g + over, hold) ticks, extended by each pulse that falls into it (the paralysable model: G. F. Knoll,
// "Radiation Detection and Measurement", 3rd edition, 4 VII A); an energy needs its shortest average and the gap free of
// other pulses on both sides (the same, 17 V B).
int plr3_dead_times_from_trigger(int path, int chan, double plus, trigger_dead_times &times);

} // namespace kestrel
