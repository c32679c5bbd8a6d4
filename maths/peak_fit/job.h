// maths/peak_fit: fitting many spectra, on several threads at once. Workers read the spectra, write their own
// points of the result module and print; the calling thread waits for them and listens for ^C.
#pragma once

#include "maths/peak_fit/point.h"
#include "maths/peak_fit/results.h"

#include <chrono>
#include <string>

namespace kestrel {

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

// The progress line: from one second after its making on, every half second.
class peak_fit_progress {
  public:
    void show(int cn, int done, int total);

  private:
    std::chrono::steady_clock::time_point next_ = std::chrono::steady_clock::now() + std::chrono::seconds(1);
};

// Fits a part here, or where request.site says; `done` of `total` points were fitted before, for the progress line.
peak_fit_counts peak_fit_fit_part(const peak_fit_request &request, const peak_fit_part &part,
                                  const result_module &output, int done, int total);

// The closing line and the command's result: -1 with errors, else the number of warnings.
int peak_fit_close(int cn, const peak_fit_counts &counts, int total);

// The points that commands have fitted so far, as samples of metrics. Any thread.
void peak_fit_metrics(std::string &out);

} // namespace kestrel
