// pulsar3/lib/paths: registers of channels and cards, set by their fields.
#pragma once

#include "pulsar3/lib/paths/access.h"
#include "pulsar3/lib/registers/register_table.h"

namespace kestrel {

// Writes one register, the fields not given zero, of a channel or card (-1: all): 0, or a negative status with a text
// that begins with the function's name.
int plr3_set_register(const char *function, int path, int chan_or_card, std::span<const field_value> values);

// Sets all fields of a command, their values in the order of the table, of a channel or card (-1: all). Neighbouring
// words are one transfer. Bits that other commands set stay: one word is changed by the card itself, several are read
// before. Nothing is written when a value is out of range or the generation lacks a field.
int plr3_set_fields(const register_command &command, int path, int chan_or_card, std::span<const int> values);
// Sets some fields of one word, its other bits kept.
int plr3_change_fields(const char *function, int path, int chan_or_card, std::span<const field_value> values);

// Whether a path's cards have the field.
bool plr3_has_field(const PLR3Path &path, const register_field &field);

// Scaler window 0 or 1: events from `low` to `high`, energy bins of 16 bits; none when `low` is above.
int plr3_set_window(int path, int chan, int window, int low, int high);
// Events above this are good ones.
int plr3_set_good_thres(int path, int chan, int threshold);
// Whose run line the cards follow, kept with the path.
int plr3_set_sync_mode(int path, int mode);
// As the cards' registers have it; where they differ among each other, as it is kept. 0, or a negative status.
struct sync_state {
    int mode = 0;
    bool cards_differ = false;
};
int plr3_get_sync_mode(int path, sync_state &state);

} // namespace kestrel
