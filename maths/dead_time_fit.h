// maths: dead times from a series of points at different rates. Numbers only: no session, no handle.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

namespace kestrel {

// A point: a reference that is in proportion to the true rate, in any unit, and the rates, events a second of live time,
// of all events that are seen and of those that land in a window of the spectrum. All above 0.
struct dead_time_point {
    double reference, all, window;
};

// The parameters of the model (support/dead_time.h): the true rate of a unit of the reference, the window's share of the
// events, dead times and rate terms.
enum dead_time_parameter : std::size_t { dt_k, dt_a, dt_c, dt_s, dt_b, dt_d, dead_time_parameters };

struct dead_time_fit_result {
    std::array<double, dead_time_parameters> value{}, error{}; // errors: standard deviations
    double chi2 = 0; // by degrees of freedom; 1 is as good as counting can be where the time is known
};

// Fits the points, `time` seconds of live time each (0: not known; the errors follow from the scatter then), with
// rate terms or without. Nothing where the points do not fix the parameters.
std::optional<dead_time_fit_result> dead_time_fit(const std::vector<dead_time_point> &points, bool rate_terms,
                                                  double time);

// As many points are needed.
constexpr std::size_t dead_time_fit_least(bool rate_terms) {
    return rate_terms ? 4 : 3;
}

} // namespace kestrel
