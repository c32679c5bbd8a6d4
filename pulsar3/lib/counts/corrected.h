// pulsar3/lib/counts: counts as they would be without dead time.
#pragma once

#include "pulsar3/lib/counts/scalers.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace kestrel {

// Factors and corrected scalers of frames of all channels of the path, from their scalers; `corrected` is as large as
// `readings`, `factors` has one each.
int plr3_dtc_correct(int path, std::span<const std::uint32_t> readings, std::span<double> factors,
                     std::span<double> corrected, int num_tf);

// Regions of histograms as plr3_histogram_read4d and 3d copy them, each bin multiplied by the factor of its channel and
// frame, which follows from scalers that are read for it.
int plr3_hist_dtc_read4d(int path, double *buffer, int eng, int aux, int chan, int tf, int num_eng,
                         int num_aux, int num_chan, int num_tf);
int plr3_hist_dtc_read3d(int path, double *buffer, int eng, int aux, int chan, int num_eng, int num_aux,
                         int num_chan, int tf);
// Of sub-frames, of which there is one: others are refused.
int plr3_hist_dtc_read4d_sf(int path, double *buffer, int eng, int aux, int chan, int tf, int num_eng,
                            int num_aux, int num_chan, int num_tf, plr3_sub_frames sub);
int plr3_hist_dtc_read3d_sf(int path, double *buffer, int eng, int aux, int chan, int num_eng, int num_aux,
                            int num_chan, int tf, plr3_sub_frames sub);

// corrected = counts x factor. The counts may be the last half of `corrected`, where a row was read to: each is used
// before it is written over.
void plr3_dtc_multiply(const std::uint32_t *counts, double *corrected, std::size_t count, double factor);

} // namespace kestrel
