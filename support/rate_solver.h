// support: from the rate that a channel sees to the rate that it was given: the root of the dead-time model.
// Numbers only.
//
// The root is what 56 steps of bisection end at, to the last bit: dtc_rate_by_bisection() takes them one by one,
// dtc_solve() finds the same number by knowing most of the steps' outcomes beforehand.
#pragma once

#include <span>

namespace kestrel {

inline constexpr int dtc_steps = 56;

// A channel's effective parameters and what follows from them.
struct dtc_terms {
    double a = 0, b = 0; // all events: dead time, seconds, and rate term, seconds squared
    double c = 0, d = 0; // events in the windows

    double range = 0, peak = 0;   // the search's range of true rates, and the rate seen at its end
    bool is_limit = false;        // a = b = 0: the true rate is the one seen
    bool depends_on_rate = false; // the model has no peak: the range follows from the rate seen
    bool is_plain = false;        // one rise from 0 to the range, in numbers of a usual size
    double margin = 0,
           floor = 0; // relative error of a computed rate, and the least that is seen near the range's end
    double start_p = 0, start_c = 0; // of a first guess
};
dtc_terms dtc_make_terms(double a, double b, double c, double d);

// One value: the rate seen (events a second of live time, any double) and the true rate that is found for it.
struct dtc_rate {
    const dtc_terms *terms;
    double seen;
    double found = 0;
};
double dtc_rate_by_bisection(const dtc_terms &terms, double seen);
void dtc_solve(std::span<dtc_rate> rates);

// The instructions that dtc_solve may use; it takes the widest that this machine has. Tests try each.
enum class dtc_lanes { two, four };
dtc_lanes dtc_widest_lanes();
void dtc_solve(std::span<dtc_rate> rates, dtc_lanes lanes);

} // namespace kestrel
