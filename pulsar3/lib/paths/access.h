// pulsar3/lib/paths: registers of channels and cards, by path. What each call does to a card's registers is one
// transfer under that card's mutex.
//
// Channel -1 and card -1 mean every one of the path; the status is then that of the last, and a failure before it is
// told. All return 0, or a negative status with its text kept. Offsets count 32-bit words and, with what follows them, lie below 65536.
#pragma once

#include "pulsar3/lib/paths/system.h"

#include <cstdint>
#include <span>

namespace kestrel {

inline constexpr int plr3_max_regions = 16;
inline constexpr int plr3_region_words = 65536;
inline constexpr int plr3_global_chan = 15, plr3_global_region = 15; // of a generation-3 card

// Says a failure that the status of a later channel or card will hide; none is not said.
void plr3_tell_failure(int path, int status, const char *unit, int number);

int plr3_write_reg(int path, int chan, int region, int offset, std::span<const std::uint32_t> values);
// Channel -1 leaves the last channel's values.
int plr3_read_reg(int path, int chan, int region, int offset, std::span<std::uint32_t> values);
// new = (old & mask) | value, done by the card in region 0; the new value in `result`.
int plr3_rmw_chan_reg(int path, int chan, int offset, std::uint32_t mask, std::uint32_t value,
                      std::uint32_t &result);

// Registers of a card: these of generation 3, 3V7 and mini ...
int plr3_write_glob_reg(int path, int card, int offset, std::span<const std::uint32_t> values);
int plr3_read_glob_reg(int path, int card, int offset, std::span<std::uint32_t> values);
int plr3_rmw_glob_reg(int path, int card, int offset, std::uint32_t mask, std::uint32_t value,
                      std::uint32_t &result);
// ... and these of generation 4.
int plr4_write_glob_reg(int path, int card, int offset, std::span<const std::uint32_t> values);
int plr4_read_glob_reg(int path, int card, int offset, std::span<std::uint32_t> values);
int plr4_rmw_glob_reg(int path, int card, int offset, std::uint32_t mask, std::uint32_t value,
                      std::uint32_t &result);

// Whichever of the two suits the path's generation.
int plr3_write_card_reg(int path, int card, int offset, std::span<const std::uint32_t> values);
int plr3_read_card_reg(int path, int card, int offset, std::span<std::uint32_t> values);
int plr3_rmw_card_reg(int path, int card, int offset, std::uint32_t mask, std::uint32_t value,
                      std::uint32_t &result);

// The leaf path of a card, for accesses that are not registers of the above; negative after a text that begins with
// the function's name.
int plr3_card_path(const char *function, int path, int card);

} // namespace kestrel
