// support: the model of a channel's dead time, for whoever corrects counts and whoever fits its parameters.
//
// Of x events a second of live time, dead_time_seen() are seen at all, and of those that the spectrum would have had
// dead_time_kept() land in it. Dead times in seconds, rate terms in seconds squared.
#pragma once

#include <cmath>

namespace kestrel {

// All events: each is lost to another one within the dead time a, which itself moves with the rate by b.
inline double dead_time_seen(double x, double a, double b) {
    return x * std::exp(-x * (b * x + a));
}

// The reciprocal of what a window of the spectrum keeps: the dead time c counts twice, before and after an event.
inline double dead_time_loss(double x, double c, double d) {
    return std::exp(2.0 * x * (c + d * x));
}

inline double dead_time_kept(double x, double c, double d) {
    return std::exp(-2.0 * x * (c + d * x));
}

} // namespace kestrel
