// support: the part of finding true rates that is done for several values at a time.
#pragma once

#include "support/rate_solver.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace kestrel {

inline constexpr std::size_t dtc_block = 64; // values; a multiple of every width

// Values on their way through the lanes, each member an array. All come from terms that are plain.
struct dtc_lanes_block {
    using row = std::array<double, dtc_block>;
    alignas(64) row seen, a, b, range, margin, floor;
    alignas(64) row guess;
    alignas(64) row x, step; // results: where the bisection stands, and its next step
    std::array<std::uint32_t, dtc_block> place;
    std::size_t used = 0;
};

// Relative rounding of a double.
inline constexpr double dtc_unit = 0x1p-53;

// Relative errors. A rate by std::exp: 2 units in the last place for the exponential (glibc: below 1), one for the
// product, and what the exponent's three roundings make of it, 3 times the exponent. A rate by the lanes' own exponential
// has 3 units in the last place for that. Together, for exponents up to `u`, at most 4:
constexpr double dtc_margin(double u) {
    return (14.0 + 6.2 * u) * dtc_unit;
}

// Takes the bisection of each value up to the first step whose outcome is not certain. There must be values.
void dtc_solve_block(dtc_lanes_block &s, dtc_lanes width);

} // namespace kestrel
