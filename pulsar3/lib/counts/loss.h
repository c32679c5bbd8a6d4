// pulsar3/lib/counts: what became of a run's frames, and the status of each time frame. All return 0 or more, or a
// negative status with its text kept.
#pragma once

#include "pulsar3/lib/paths/system.h"

#include <cstdint>
#include <span>

namespace kestrel {

// Frames of one channel in the last run: sent = whole + incomplete + missing. Packets beside them.
struct frame_loss {
    std::uint64_t sent = 0; // that is known of
    std::uint64_t whole = 0, incomplete = 0, missing = 0;
    std::uint64_t beyond = 0; // of the whole ones: the buffer has no place for them
    std::uint64_t kernel = 0, late = 0, repeated = 0, malformed = 0;
    std::uint64_t lost() const { return incomplete + missing; }
};
int plr3_histogram_get_loss(int path, int chan, frame_loss &loss);
// Frames of the channel that are incomplete or missing.
int plr3_histogram_get_dropped(int path, int chan);

// A time frame's status of one channel (frame_status), and of a block: channels fastest, then frames.
int plr3_histogram_get_tf_status(int path, int chan, int tf);
int plr3_histogram_get_tf_status_block(int path, std::span<std::uint32_t> status, int chan, int tf,
                                       int num_chan, int num_tf);
// The frames that the channel's buffer holds of the last run: from `first` up to, and without, `top`.
int plr3_histogram_get_tf_markers(int path, int chan, std::int64_t &first, std::int64_t &top);

// Circular buffers: frames below `tf` have been read, on every channel. What is overwritten without is an overrun.
int plr3_histogram_circ_ack(int path, std::int64_t tf);
int plr3_histogram_get_circ_overrun(int path, int chan, std::int64_t &first, std::int64_t &count);

} // namespace kestrel
