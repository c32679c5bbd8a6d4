// maths: fits the spectra of a unified handle, looked at in place or read piece by piece.
#pragma once

#include "maths/peak_fit/scan.h"

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

// Fits a region that passed umaths_check_region. The command's result: -1 after a line, else the number of
// warnings. A module that could not be fitted at all is not made.
int peak_fit_fit_scan(const peak_fit_request &request, const peak_fit_scan &sc, const char *result);

} // namespace kestrel
