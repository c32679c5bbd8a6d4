// maths: fits the spectra of a module or a handle and keeps the results, from the first read to the closing
// line.
#pragma once

#include "maths/peak_job.h"

#include <array>

namespace kestrel {

// A region of a handle by its axes: energy, scan, second scan. Sizes and origins are in the order x, y, t.
struct peak_fit_scan {
    int handle = -1;
    std::array<int, 3> origin{}, size{};
    std::size_t energy = 0, q = 1, s = 2;
    int channels() const { return size[energy]; }
    int nq() const { return size[q]; }
    int ns() const { return size[s]; }
};

// Both give the command's result: -1 after a line, else the number of warnings. A module that could not be
// fitted at all is not made.
// Points q1..q2 of spectra in memory, which lie in the mapping that starts at `owner`.
int peak_fit_fit_rows(const peak_fit_request &request, const peak_spectra &spectra, int q1, int q2,
                      const void *owner, const char *result);
// A region that passed umaths_check_region.
int peak_fit_fit_scan(const peak_fit_request &request, const peak_fit_scan &sc, const char *result);

} // namespace kestrel
