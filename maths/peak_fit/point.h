// maths/peak_fit: fits one point of a scan, with its neighbours where its own counts do not suffice; what fits on this
// machine's threads and on workers have in common. May print to the session.
#pragma once

#include "maths/peak_fit/solver.h"
#include "maths/peak_fit/spectra.h"

#include <vector>

namespace kestrel {

inline constexpr int peak_fit_most_neighbours = 16; // on each side, that are added to a poor spectrum

struct peak_fit_counts {
    int errors = 0;         // points that are left unfitted
    int insufficient = 0;   // too few counts to fit
    int near_ends = 0;      // peaks near x1 or x2
    int high_at_ends = 0;   // large values near x1 or x2
    bool stopped = false;   // by ^C
    bool abandoned = false; // the fits ended early, and the line that says why is printed
    peak_fit_counts &operator+=(const peak_fit_counts &other);
    bool ended() const { return stopped || abandoned; }
};

void peak_fit_count(peak_fit_counts &counts, peak_fit_status status, bool near_ends, bool high_at_ends);

// Belongs to one thread.
struct peak_fit_point {
    peak_fit_solver solver;
    std::vector<double> spectrum; // that was fitted last, with its neighbours

    // Fits point (q, s); `number` names it in messages.
    peak_fit_fitted fit(const peak_fit_request &request, const peak_spectra &spectra, int q, int s,
                        int number);
};

} // namespace kestrel
