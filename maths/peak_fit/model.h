// maths/peak_fit: the line shape of peak fitting, start patterns, and figures of merit of a fitted spectrum.
// Numbers only: no session, no handle.
#pragma once

#include <array>
#include <span>

namespace kestrel {

inline constexpr int peak_fit_max_peaks = 8;

// A peak: a Gaussian and a Lorentzian about the same centre.
struct peak_fit_peak_t {
    double posn = 0.0;      // centre, channels
    double height = 0.0;    // counts a channel at the centre
    double sigma = 0.0;     // width of the Gaussian, channels
    double lor_width = 0.0; // half width of the Lorentzian at half its height, channels
    double lor_frac = 0.0;  // its fraction of the height, 0..1
};

inline constexpr double peak_fit_usual_tail = 1.5; // half width of a Lorentzian by sigma, to start with

inline constexpr int peak_fit_tied_height = 1; // never on the first peak

// Where a peak is looked for.
struct peak_fit_seed_t {
    double rel_posn = 0.0; // position relative to the main peak's
    double rel_hgt = 0.0;  // height relative to the main peak's; 0: what the spectrum shows there
    int peak_flags = 0;    // peak_fit_tied_height: its ratio to the previous peak's height is kept
};

struct peak_fit_start_t {
    int num_peaks = 0;
    double lor_frac = 0.0; // Lorentzian fraction to start with; 0: it stays 0
    int fit_flags = 0;     // negative: one tolerance in every pass
    std::array<peak_fit_seed_t, 10> peak{};
};

// The model at channel x: the sum over the peaks of
// height ((1 - lor_frac) exp(-(x - posn)^2 / (2 sigma^2)) + lor_frac / ((x - posn)^2 / lor_width^2 + 1)),
// a pseudo-Voigt profile with free widths (Wertheim et al., Rev. Sci. Instrum. 45 (1974) 1369).
double peak_fit_calc_point(std::span<const peak_fit_peak_t> peaks, double x);

double peak_fit_area(const peak_fit_peak_t &peak); // counts
double peak_fit_fwhm(const peak_fit_peak_t &peak); // channels, full width where the peak is half its height

// Counts of the low-energy tail by counts of both lines: from channel int(0.85 p0), up to 0.95 p0 and up to
// 1.15 p1. Each sum is an integer, cut after every channel. -1 when a position lies outside the spectrum or
// nothing was counted.
double peak_fit_tail_total(std::span<const double> spectrum, double p0, double p1);

// Counts from int(0.85 p0) to int(1.15 p1); 0 where that is empty.
double peak_fit_peaks_total(std::span<const double> spectrum, double p0, double p1);

double peak_fit_mca_total(std::span<const double> spectrum);  // all channels
double peak_fit_most_total(std::span<const double> spectrum); // channels 200 on: without the noise peak

// The least mean of three neighbouring channels between two positions, by `height`; -1 when nothing lies
// between them or the height is not positive.
double peak_fit_valley_peak(std::span<const double> spectrum, double p0, double p1, double height);

} // namespace kestrel
