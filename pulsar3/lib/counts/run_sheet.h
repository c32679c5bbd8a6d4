// pulsar3/lib/counts: the cards' modules "plr3_run%d", from which programs that follow a run know it
// (modules/store/run_sheet.h). Command thread.
#pragma once

#include "pulsar3/lib/paths/system.h"

#include <cstdint>
#include <vector>

namespace kestrel {

int plr3_make_run_sheet(PLR3Path &card); // 0, or a status with its text

// The cards from `first` up to, and without, `end`: no run stands there while one is prepared; one has begun; one card's is over after so many time frames.
void plr3_sheets_clear(int path, int first, int end);
void plr3_sheets_begin(int path, int first, int end);
void plr3_sheet_end(PLR3Path &card, std::uint64_t frames);

// Scalers that are fetched from the card's memory are its last where their frame had ended before: the frames from `first`
// on whose histograms are final now ...
std::vector<bool> plr3_frames_over(const PLR3Path &card, int first, int count);
// ... have final scalers, once these have been put into the module, of `num_chan` channels from `chan` on.
void plr3_mark_scalers(PLR3Path &card, int first, const std::vector<bool> &over, int chan, int num_chan);

} // namespace kestrel
