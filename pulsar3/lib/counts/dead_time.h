// pulsar3/lib/counts: dead-time correction: each channel's parameters, and from its scalers the true rate and the factor
// that its counts in windows and histograms are to be multiplied by.
//
// Counts are corrected with the parameters and the energy that are set when they are read, not when they were counted.
#pragma once

#include "pulsar3/lib/paths/system.h"

#include <cstdint>
#include <span>

namespace kestrel {

// The scalers of a channel and time frame that matter here.
enum plr3_scaler : std::size_t {
    plr3_scaler_time = 0,  // ticks of the frame
    plr3_scaler_reset = 1, // of these, lost to resets of the detector
    plr3_scaler_all_event = 3,
    plr3_scaler_all_good = 4,
    plr3_scaler_in_window0 = 5,
    plr3_scaler_in_window1 = 6,
};

// Sets parameters of a channel (-1: all of the path): the four of the first kind keep those of rates. All must be
// finite. 0, plr3_invalid_path or plr3_out_of_range.
int plr3_setDeadtimeCorrectionParameters(int path, int chan, int flags,
                                         double processDeadTimeAllEventGradient,
                                         double processDeadTimeAllEventOffset,
                                         double processDeadTimeInWindowOffset,
                                         double processDeadTimeInWindowGradient);
int plr3_setDeadtimeCorrectionParameters2(int path, int chan, const ChannelDTC &parameters);
// A channel's parameters; the first kind leaves those of rates in `parameters` as they were.
int plr3_getDeadtimeCorrectionParameters(int path, int chan, ChannelDTC &parameters);
int plr3_getDeadtimeCorrectionParameters2(int path, int chan, ChannelDTC &parameters);
int plr3_getDeadtimeCorrectionFlags(int path, int chan, int &flags);

// The energy at which parameters are taken, in the unit that the gradients are given by; a node's cards get it, too.
int plr3_setDeadtimeCalculationEnergy(int path, double energy);
int plr3_getDeadtimeCalculationEnergy(int path, double &energy);

// A parameter at an energy.
inline double plr3_dtc_at_energy(double gradient, double offset, double energy) {
    return gradient == 0 || energy == 0 ? offset : gradient * energy + offset;
}

// The path is open and has the channel, which may be `least` or more (-1 stands for all): 0, or a status with a text of
// the function's.
int plr3_check_channel(const char *function, int path, int chan, int least);

// The correction factor of one channel and frame, from its events, ticks of resets and ticks, and its dead times at the
// energy: all events, and what they gain by a unit of rate; events in windows, likewise. May be infinite or NaN.
// The input counts of the whole frame go to `inpEst`, unless it is null. plr3_invalid_path where there is no such path.
double plr3_dtc(int path, std::uint32_t all, std::uint32_t reset, std::uint32_t time,
                double processDeadTimeAllEvent, double processDeadTimeAllEventRate,
                double processDeadTimeInWindow, double processDeadTimeInWindowRate, double *inpEst);

// Factors and input estimates of all frames and channels first_chan ... first_chan + num_chan - 1. The readings are 9
// scalers a channel, channel by channel, frame by frame, factors and estimates one each; inpEst may be empty. An omitted
// channel has factor and estimate 0; a factor that is not finite becomes 1, its estimate the counts themselves.
int plr3_calculateDeadtimeCorrectionFactors(int path, std::span<const std::uint32_t> hardwareScalerReadings,
                                            std::span<double> dtcFactors, std::span<double> inpEst,
                                            int num_tf, int first_chan, int num_chan);

// The same on so many threads; above it is as many as the work is worth.
int plr3_calculateDeadtimeCorrectionFactors(int path, std::span<const std::uint32_t> hardwareScalerReadings,
                                            std::span<double> dtcFactors, std::span<double> inpEst,
                                            int num_tf, int first_chan, int num_chan, unsigned threads);

} // namespace kestrel
