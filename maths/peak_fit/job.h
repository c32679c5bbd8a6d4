// maths/peak_fit: fitting many spectra, on several threads at once. Workers read the spectra, write their own
// points of the result module and print; the calling thread waits for them and listens for ^C.
#pragma once

#include "maths/peak_fit/results.h"
#include "maths/peak_fit/solver.h"
#include "maths/peak_fit/spectra.h"

#include <string>

namespace kestrel {

struct peak_fit_counts {
    int errors = 0;       // points that are left unfitted
    int insufficient = 0; // too few counts to fit
    int near_ends = 0;    // peaks near x1 or x2
    int high_at_ends = 0; // large values near x1 or x2
    bool stopped = false;
    peak_fit_counts &operator+=(const peak_fit_counts &other);
};

// A part of a scan that lies in memory: points q1..q2 of the spectra are fitted (the others are neighbours),
// for every s; they become points first_q.. and first_s.. of the result.
struct peak_fit_part {
    const peak_spectra *spectra = nullptr;
    int q1 = 0, q2 = 0;
    int first_q = 0, first_s = 0;
    int scan_nq = 0;     // points along the whole scan axis
    int first_point = 0; // number that messages give point (0, 0) of the result
};

// The points first..last in blocks of equal size, one a thread; the last block may be shorter.
struct peak_fit_block {
    int first, last;
};
std::vector<peak_fit_block> peak_fit_blocks(int first, int last, int max_threads);

// Fits a part; `done` of `total` points were fitted before, for the progress line.
peak_fit_counts peak_fit_fit_part(const peak_fit_request &request, const peak_fit_part &part,
                                  const result_module &output, int done, int total);

// The closing line and the command's result: -1 with errors, else the number of warnings.
int peak_fit_close(int cn, const peak_fit_counts &counts, int total);

// The points that commands have fitted so far, as samples of metrics. Any thread.
void peak_fit_metrics(std::string &out);

inline constexpr int peak_fit_most_neighbours = 16; // on each side, that are added to a poor spectrum

} // namespace kestrel
