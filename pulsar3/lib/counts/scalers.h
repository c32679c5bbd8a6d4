// pulsar3/lib/counts: the scalers of a path: 9 counters a channel and time frame. They lie in each card's memory, from
// where they are read over the control link into the card's module plr3_scalers%d, so that other programs see what was
// read last. A mini model that sends its scalers has put them into that module itself; those of a dummy are what its
// module holds.
#pragma once

#include "pulsar3/lib/paths/system.h"

#include <cstdint>
#include <span>

namespace kestrel {

// A box of scalers of a path: channels are numbered as the path does.
struct plr3_scaler_box {
    int scaler = 0, chan = 0, frame = 0;
    int num_scaler = plr3_nr_scalers, num_chan = 0, num_frame = 0;

    std::size_t size() const {
        return static_cast<std::size_t>(num_scaler) * static_cast<std::size_t>(num_chan) *
               static_cast<std::size_t>(num_frame);
    }
};

enum class plr3_scaler_from {
    usual,  // the module, where the card puts them there, else the card
    direct, // the card
};

// Time frames of scalers, or plr3_invalid_path.
int plr3_get_scaler_num_tf(int path);

// Fills `buffer` with the box, scaler fastest, then channel, then frame. ^C ends a long one. 0, or a negative status.
int plr3_scaler_read(int path, std::span<std::uint32_t> buffer, const plr3_scaler_box &box,
                     plr3_scaler_from from = plr3_scaler_from::usual);

// The same as doubles, corrected: scalers 5 and 6 times the channel's factor, scaler 3 (or 4, where that counts its
// events) replaced by the input counts.
int plr3_scaler_dtc_read(int path, std::span<double> buffer, const plr3_scaler_box &box,
                         plr3_scaler_from from = plr3_scaler_from::usual);

// Zeroes a box in the cards' memory and their modules.
int plr3_scaler_clear(int path, const plr3_scaler_box &box);

// Sub-frames `first` ... `first + count - 1` of each frame, of which there is one: others are refused.
struct plr3_sub_frames {
    int first = 0, count = 1;
};
int plr3_scaler_read_sf(int path, std::span<std::uint32_t> buffer, const plr3_scaler_box &box,
                        plr3_sub_frames sub);
int plr3_scaler_dtc_read_sf(int path, std::span<double> buffer, const plr3_scaler_box &box,
                            plr3_sub_frames sub);
int plr3_check_sub_frames(const char *function, int path, plr3_sub_frames sub);

} // namespace kestrel
