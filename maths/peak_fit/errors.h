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

// The Lorentzian tails that the Gaussians of a solution leave over in the spectrum.
struct peak_fit_tails {
    double score = 0.0; // standard deviations above none; without tails seldom above 2
    double part = 0.0;  // to first order, their part of the heights with the usual half width
};

// Of the solution x: the score of one tail common to all peaks (C. R. Rao, Proc. Camb. Phil. Soc. 44 (1948) 50), for
// the one of a few half widths that scores most. All 0 where less is left over than expected.
peak_fit_tails peak_fit_find_tails(peak_residuals &residuals, const std::vector<double> &x);

} // namespace kestrel
