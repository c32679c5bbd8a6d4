// maths/peak_fit: spectra that lie in memory, whatever axis of their source is energy.
#pragma once

#include "support/element.h"

#include <cstddef>
#include <vector>

namespace kestrel {

// Points 0..nq-1 along the scan axis and 0..ns-1 along the second one; each has `channels` elements.
struct peak_spectra {
    const std::byte *first = nullptr;                    // channel 0 of point (0, 0)
    int type = el_none;                                  // long, float or double
    std::size_t energy_step = 0, q_step = 0, s_step = 0; // bytes
    int channels = 0, nq = 0, ns = 0;

    // Sets (or adds to) the spectrum of a point as doubles.
    void get(int q, int s, std::vector<double> &spectrum) const;
    void add(int q, int s, std::vector<double> &spectrum) const;
};

} // namespace kestrel
