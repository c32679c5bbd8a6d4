// maths/peak_fit: what a peak fit leaves in its result module: which quantities, and where each goes.
#pragma once

#include "maths/peak_fit/solver.h"
#include "modules/store/result_module.h"

#include <span>
#include <string>
#include <vector>

namespace kestrel {

// The labels of the result module's frames, for that many peaks.
std::vector<std::string> peak_fit_labels(int num_peaks);

// One number a label. A spectrum that was not fitted has the position -1, totals, and zeros.
std::vector<double> peak_fit_values(const peak_fit_fitted &fitted, const peak_fit_lines &lines,
                                    std::span<const double> spectrum);

// keV a channel: the slope of the straight line through the lines whose position is determined, weighted by
// its error; with one such line, and where the slope makes no sense, energy by position. 0 when no energy is
// known.
double peak_fit_calibration(const peak_fit_fitted &fitted, const peak_fit_lines &lines);

// Links or makes the result module for nq x ns points: point along x, second scan axis along y, one frame a
// quantity. 0, or -1 after a line.
int peak_fit_start_output(int cn, const char *name, int nq, int ns, int num_peaks, result_module &out);
// Every point as one that was not fitted: what a fit that ends early leaves.
void peak_fit_clear(const result_module &out, int nq, int ns, int num_peaks);
void peak_fit_put(const result_module &out, int q, int s, std::span<const double> values);

} // namespace kestrel
