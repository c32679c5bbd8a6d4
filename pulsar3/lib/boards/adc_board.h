// pulsar3/lib/boards: a card's ADC boards: gain and offset of each channel, the terminations of the trigger lines, the
// guard against too much heat, revision and power supplies. All return 0, or a negative status with its text kept.
#pragma once

#include "pulsar3/lib/paths/system.h"

#include <cstdint>
#include <span>

namespace kestrel {

inline constexpr int plr3_gain_max = 15; // of each stage: 1 is a step of the switch

// Channels first_chan ... first_chan + num_chan - 1; stages 0..15.
int plr3_set_gain(int path, int first_chan, int num_chan, int stage1, int stage2);
// As many of each as there are channels to read.
int plr3_get_gain(int path, int first_chan, std::span<int> stage1, std::span<int> stage2);
// 0..65535.
int plr3_set_offset(int path, int first_chan, int num_chan, int offset);
int plr3_get_offset(int path, int first_chan, std::span<int> offset);

// The words of a channel that hold them, 16 bits.
int plr3_write_gain_word(int path, int chan, std::uint16_t word);
int plr3_read_gain_word(int path, int chan, std::uint16_t &word);
int plr3_write_offset_word(int path, int chan, std::uint16_t word);
int plr3_read_offset_word(int path, int chan, std::uint16_t &word);

// Terminations, a bit a line. Setting takes card -1 for all.
int plr3_set_trig_in_term(int path, int card, std::uint32_t flags);
int plr3_get_trig_in_term(int path, int card, std::uint32_t &flags);
int plr3_set_trig_out_term(int path, int card, std::uint32_t flags);
int plr3_get_trig_out_term(int path, int card, std::uint32_t &flags);

// Whether the ADC boards stay on when they are too hot; card -1 for all.
int plr3_set_ignore_over_temp(int path, int card, bool ignore);
int plr3_read_adc_revision(int path, int card, std::uint32_t &revision);
struct psu_state {
    std::uint32_t on = 0, good = 0; // a bit a supply
};
int plr3_read_psu_cont(int path, int card, psu_state &state);

} // namespace kestrel
