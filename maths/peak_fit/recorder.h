// maths/peak_fit: keeps the trials of peak fits for whoever looks for the reason of a bad one.
#pragma once

#include "maths/peak_fit/solver.h"

#include <vector>

namespace kestrel {

// Collects the trials of one point at a time and stores them in the module "peakfit_debug<point>": x the
// channel, y the trial, and frames "Attempt" (the spectrum), "Seed" (the model it began with), "Residuals",
// "Function" (the model it ended with), "Energy" (keV, by the fitted lines), "pass" (its number, where the
// channel was fitted). From debug level 3 on each trial is a file, too.
class peak_fit_recorder {
  public:
    void begin(const peak_fit_request &request, peak_fit_solver &solver, int point);
    void store(); // after the point is fitted

  private:
    static constexpr std::size_t rows_of_trial = 6;
    static void take(void *self, const peak_fit_trial &trial);
    void write_file(const peak_fit_trial &trial, const std::vector<double> &function);

    int cn_ = 0;
    bool files_ = false; // each trial is a file, too
    int point_ = 0;
    bool file_failed_ = false; // and its line is printed
    std::size_t channels_ = 0, trials_ = 0;
    std::vector<std::vector<double>> rows_; // rows_of_trial of each trial
};

} // namespace kestrel
