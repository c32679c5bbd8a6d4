// pulsar3/lib/counts: cutting regions out of the histograms, clearing them, filling them with a pattern. A region's
// copy is dense: energy fastest, then auxiliary bin, then channel, then time frame. All return 0, or a negative status
// with its text kept.
#pragma once

#include "pulsar3/lib/paths/system.h"

#include <cstdint>

namespace kestrel {

int plr3_histogram_read4d(int path, std::uint32_t *buffer, int eng, int aux, int chan, int tf, int num_eng,
                          int num_aux, int num_chan, int num_tf);
// Whether the region can be read.
int plr3_histogram_check4d(int path, int eng, int aux, int chan, int tf, int num_eng, int num_aux,
                           int num_chan, int num_tf);
// One time frame.
int plr3_histogram_read3d(int path, std::uint32_t *buffer, int eng, int aux, int chan, int num_eng,
                          int num_aux, int num_chan, int tf);
// One channel: energy fastest, then auxiliary bin, then time frame.
int plr3_histogram_read_chan(int path, std::uint32_t *buffer, int chan, int eng, int aux, int tf, int num_eng,
                             int num_aux, int num_tf);

int plr3_histogram_clear(int path, int first_chan, int num_chan, int first_frame, int num_frames);

// `inc`: each bin its own index in the channel; else 1000 x channel + frame + bin.
int plr3_histogram_test_pattern(int path, bool inc);

} // namespace kestrel
