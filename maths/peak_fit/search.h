// maths/peak_fit: finding the main peak of a spectrum, before any fit. Numbers only: no session, no handle.
#pragma once

#include <span>
#include <vector>

namespace kestrel {

struct peak_fit_found {
    int posn = -1;                // channel of the highest smoothed point
    double height = 0.0;          // there
    int fwhm_smoothed = 0;        // channels, of the smoothed peak
    double fwhm = 1.0;            // of the peak itself, without the smoothing
    std::vector<double> smoothed; // the whole spectrum
    double noise = 0.0;           // standard deviation of a smoothed point as high as the peak
};

// Searches channels first..last (inside the spectrum) for the highest point after smoothing, by two running
// means of a third of `width` (typical FWHM in channels) each; of as many channels as hold counts enough,
// when width is 0.
peak_fit_found peak_fit_search(std::span<const double> spectrum, int first, int last, double width);

// The least smoothed height that is worth a fit: a peak of that width and height holds 30 counts.
double peak_fit_least_height(const peak_fit_found &found);

} // namespace kestrel
