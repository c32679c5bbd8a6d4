// sim/card: what a time frame leaves: scalers and histograms in the card's memory, packets, messages of a mini model's
// readout. Under the system's lock.
#pragma once

#include "sim/card/spectrum.h"

#include <cstdint>
#include <vector>

namespace kestrel {

struct card;

void frames_end(card &c, std::uint64_t ticks, bool histograms, bool scalers);

// The format of a channel as its registers say; more than one frame can hold gives no words.
channel_format frames_format(card &c, int chan);

// Where a channel's histogram of a time frame lies in the card's memory, in words; the frames that it has place for
// (0: for none).
std::uint32_t frames_place(card &c, int chan, std::uint32_t time_frame);
std::uint32_t frames_kept(card &c);

} // namespace kestrel
