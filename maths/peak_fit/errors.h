// maths/peak_fit: error bars of a peak fit. Numbers only: no session, no handle.
#pragma once

#include "maths/peak_fit/solver.h"

#include <span>
#include <vector>

namespace kestrel {

struct peak_residuals;

// Standard deviations of the peaks at the solution x, for counts with Poisson statistics in every channel:
// the covariance (J'J)^-1 J' diag(counts) J (J'J)^-1 of least squares without weights. Work and memory grow
// with the channels, not with their square.
void peak_fit_error_bars(peak_residuals &residuals, const std::vector<double> &x,
                         std::span<peak_fit_sigmas> errors);

} // namespace kestrel
