// pulsar3/lib/paths: registers of channels and cards, set by their fields.
#pragma once

#include "pulsar3/lib/paths/access.h"
#include "pulsar3/lib/registers/register_table.h"

namespace kestrel {

// Writes one register, the fields not given zero, of a channel or card (-1: all): 0, or a negative status with a text
// that begins with the function's name.
int plr3_set_register(const char *function, int path, int chan_or_card, std::span<const field_value> values);

// Scaler window 0 or 1: events from `low` to `high`, energy bins of 16 bits.
int plr3_set_window(int path, int chan, int window, int low, int high);
// Events above this are good ones.
int plr3_set_good_thres(int path, int chan, int threshold);

} // namespace kestrel
