#include "maths/peak_fit/search.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace kestrel {

namespace {

constexpr double least_area = 30.0; // counts of a peak
constexpr double enough_counts = 300.0;
constexpr double area_of_unit_peak = 1.06447; // of a Gaussian of FWHM 1 and height 1: sqrt(pi / (4 ln 2))

// sums[i] is the sum of the channels below i.
class channel_sums {
  public:
    explicit channel_sums(std::span<const double> spectrum) : sums_(spectrum.size() + 1, 0.0) {
        for (std::size_t i = 0; i < spectrum.size(); ++i)
            sums_[i + 1] = sums_[i] + spectrum[i];
    }
    // Of the channels first..last, as far as they exist.
    double sum(int first, int last) const {
        const int n = static_cast<int>(sums_.size()) - 1;
        const int from = std::clamp(first, 0, n), to = std::clamp(last + 1, from, n);
        return sums_[static_cast<std::size_t>(to)] - sums_[static_cast<std::size_t>(from)];
    }

  private:
    std::vector<double> sums_;
};

// Half width of the shortest run of channels that holds enough counts somewhere: 300, so that the highest run
// is known to 6 %, or of a poor spectrum a quarter of all.
int half_width_of_smoothing(std::span<const double> spectrum, int first, int last) {
    const channel_sums sums(spectrum);
    const double wanted = std::min(enough_counts, 0.25 * sums.sum(first, last));
    for (int half = 0; half < last - first; half += 1 + half / 4)
        for (int i = first; i <= last; ++i)
            if (sums.sum(i - half, i + half) >= wanted)
                return half;
    return 0;
}

// Means over i - half .. i + half, as far as the channels exist.
std::vector<double> box(std::span<const double> spectrum, int half) {
    const channel_sums sums(spectrum);
    const int n = static_cast<int>(spectrum.size());
    std::vector<double> smooth(spectrum.size());
    for (int i = 0; i < n; ++i) {
        const int from = std::max(0, i - half), to = std::min(n - 1, i + half);
        smooth[static_cast<std::size_t>(i)] = sums.sum(from, to) / (to - from + 1);
    }
    return smooth;
}

// Channels from the left half height to the right one.
int full_width(std::span<const double> smooth, int posn) {
    const auto at = [&](int i) { return smooth[static_cast<std::size_t>(i)]; };
    const double half = 0.5 * at(posn);
    const int n = static_cast<int>(smooth.size());
    int left = posn, right = posn;
    while (left > 0 && at(left) > half)
        --left;
    while (right < n - 1 && at(right) > half)
        ++right;
    return std::max(1, right - left);
}

} // namespace

peak_fit_found peak_fit_search(std::span<const double> spectrum, int first, int last, double width) {
    peak_fit_found found;
    const int n = static_cast<int>(spectrum.size());
    const int half = width > 0.0 ? static_cast<int>(std::min(width, 0.5 * n) / 6.0)
                                 : half_width_of_smoothing(spectrum, first, last);
    found.smoothed =
        half > 0 ? box(box(spectrum, half), half) : std::vector<double>(spectrum.begin(), spectrum.end());
    const auto begin = found.smoothed.begin();
    const auto highest = std::max_element(begin + first, begin + last + 1);
    found.posn = static_cast<int>(highest - begin);
    found.height = *highest;
    found.fwhm_smoothed = full_width(found.smoothed, found.posn);
    // Two boxes of w channels add 2 (w^2 - 1) / 12 to the variance of the peak.
    const double w = 2.0 * half + 1.0;
    const double added = 8.0 * std::log(2.0) * (w * w - 1.0) / 6.0;
    const double measured = found.fwhm_smoothed;
    found.fwhm = std::sqrt(std::max(measured * measured - added, 0.25 * measured * measured));
    found.noise = std::sqrt(std::max(found.height, 0.0) * 2.0 / (3.0 * w)); // a triangle of half width w
    return found;
}

double peak_fit_least_height(const peak_fit_found &found) {
    return least_area / (area_of_unit_peak * found.fwhm);
}

} // namespace kestrel
