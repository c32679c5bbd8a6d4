// maths/peak_fit: fitting one spectrum with MINPACK's Levenberg-Marquardt solver. May print to the session;
// knows no handle and no module. A solver object belongs to one thread.
#pragma once

#include "maths/peak_fit/lines.h"
#include "maths/peak_fit/model.h"

#include <array>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace kestrel {

int peak_fit_passes(); // how many there are

enum peak_fit_constraint : unsigned { peak_fit_no_lor = 1, peak_fit_by_top_sum = 2 };

// What is looked for, where, and by which settings: all that a fit knows of the command that asked for it.
struct peak_fit_request {
    int cn = 0;
    int debug = 0;            // 0 little is said, 1 every pass, 2 trials are kept in modules, 3 in files, too
    int single_pass = -1;     // the only pass to try, -1 for all
    int max_threads = 1;      // 1..64
    unsigned constraints = 0; // of peak_fit_constraint
    peak_fit_lines lines;
    int first = 0, last = 0; // channels that are searched for the main peak
    double width = 0.0;      // typical FWHM, channels; 0 unknown
    bool tell = true;        // a line about each point and its warnings
    std::string site;        // whose workers fit; empty: this process does
    // Asked at every call of the solver: an interrupt ends it.
    bool (*stopped)(const void *user) = nullptr;
    const void *user = nullptr;
};

enum class peak_fit_status { fitted, insufficient, failed, stopped };

struct peak_fit_sigmas {
    double posn = 0.0, height = 0.0, sigma = 0.0, area = 0.0;
};

// A fitted spectrum. The errors are standard deviations of the fitted values for Poisson counts: the
// propagated variance of each channel, as fits without weights need it (G. A. F. Seber & C. J. Wild,
// Nonlinear Regression (1989), section 2.8.2). 0 for what the spectrum does not determine; a peak below three
// times the error of its height has neither position nor width.
struct peak_fit_fitted {
    peak_fit_status status = peak_fit_status::failed;
    int num_peaks = 0;
    std::array<peak_fit_peak_t, peak_fit_max_peaks> peak{};
    std::array<peak_fit_sigmas, peak_fit_max_peaks> error{};
    int x1 = 0, x2 = 0;        // the channels that were fitted
    double chi2 = 0.0;         // sum of (data - model)^2 / model, by the degrees of freedom, where model >= 1
    bool high_at_ends = false; // the spectrum is high at x1 or x2
    bool near_ends = false;    // the first or the last peak is close to x1 or x2
    std::span<const peak_fit_peak_t> peaks() const {
        return {peak.data(), static_cast<std::size_t>(num_peaks)};
    }
};

// One solver call with what it began and ended at; for whoever wants to look at every trial.
struct peak_fit_trial {
    int pass; // peak_fit_passes() for the refinement
    int x1, x2;
    std::span<const double> spectrum;
    std::span<const peak_fit_peak_t> seed, fitted;
    std::span<const double> energy; // keV of the peaks
};
using peak_fit_trial_hook = void (*)(void *user, const peak_fit_trial &trial);

class peak_fit_solver {
  public:
    peak_fit_solver();
    ~peak_fit_solver();
    peak_fit_solver(const peak_fit_solver &) = delete;
    peak_fit_solver &operator=(const peak_fit_solver &) = delete;

    // Runs every pass on a spectrum of finite numbers and refines the best one. `point` names the spectrum
    // in messages. Any number of channels is taken; too few for the peaks is "failed".
    peak_fit_fitted peak_fit_run_solver(const peak_fit_request &request, int point,
                                        std::span<const double> spectrum);

    peak_fit_trial_hook trial_hook = nullptr;
    void *trial_user = nullptr;

  private:
    struct state;
    std::unique_ptr<state> state_;
};

} // namespace kestrel
