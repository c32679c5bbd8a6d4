// pulsar3/lib/counts: the shape of what is counted. The channels' formats (energy bins, auxiliary bins) say how large a
// frame is, the memory of num_tf spectra of 4096 words how many frames a channel has; modules follow channel 0.
#pragma once

#include "pulsar3/lib/paths/system.h"

#include <cstdint>

namespace kestrel {

inline constexpr int plr3_format_offset = 28; // the channels' register

// Energy bins, auxiliary bins and time frames.
struct channel_shape {
    int energies = 0, auxiliaries = 0, frames = 0;
    bool operator==(const channel_shape &) const = default;
    std::size_t frame_words() const {
        return static_cast<std::size_t>(energies) * static_cast<std::size_t>(auxiliaries);
    }
};
channel_shape plr3_channel_shape(const PLR3Path &card, int chan_of_card);
// Of a system channel: 0, or a status with its text.
int plr3_shape_of(int path, int chan, channel_shape &shape);
// The shape that num_chan channels from `first` have in common; a refusal with its text names two that differ.
int plr3_common_shape(const char *function, int path, int first, int num_chan, channel_shape &shape);

// Whether frames come here by themselves: not to a mini model that sends neither frames nor events.
bool plr3_has_histograms(const PLR3Path &card);
bool plr3_sends_scalers(const PLR3Path &card);

// The records of a card's channels, with the default format. `card` is its number in the system.
void plr3_make_channels(PLR3Path &card, int path, int card_number);
// The card's modules in the shape that the channels' formats say, and the places of its frames. None may be counting.
int plr3_histogram_mkmod(PLR3Path &card);
// Where the scalers go that a mini model sends.
void plr3_place_scalers(PLR3Path &card);
void plr3_keep_card_modules(PLR3Path &card);

// Reads the formats that the cards from `first` up to, and without, `end` have now; where a shape has changed, its
// modules are made anew. None of these may be counting.
int plr3_follow_formats(int path, int first, int end);

// The format of one channel, or of all (-1): a field below 0 stays as it is. Refused while a run is on.
struct format_request {
    int nbits_eng = -1, nbits_aux1 = -1, nbits_aux2 = -1, aux1_mode = -1, aux2_mode = -1;
};
int plr3_format_run(int path, int chan, const format_request &request);

} // namespace kestrel
