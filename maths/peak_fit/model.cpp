#include "maths/peak_fit/model.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <numeric>

namespace kestrel {

namespace {

constexpr std::size_t noise_channels = 200;

// A fitted position as a channel, kept in the range of an int.
int channel(double position) {
    constexpr double most = std::numeric_limits<int>::max() / 2.0;
    return std::isnan(position) ? -1 : static_cast<int>(std::clamp(position, -most, most));
}

// Part of the height that is left at a distance from the centre.
double profile(const peak_fit_peak_t &peak, double distance) {
    return peak_fit_calc_point({{{0.0, 1.0, peak.sigma, peak.lor_width, peak.lor_frac}}}, distance);
}

bool inside(double position, std::size_t channels) {
    return position >= 0.0 && position < static_cast<double>(channels);
}

} // namespace

double peak_fit_calc_point(std::span<const peak_fit_peak_t> peaks, double x) {
    double sum = 0.0;
    for (const peak_fit_peak_t &p : peaks) {
        const double d = x - p.posn;
        sum += p.height * (1.0 - p.lor_frac) * std::exp(-d * d / (2.0 * p.sigma * p.sigma));
        if (p.lor_frac != 0.0)
            sum += p.height * p.lor_frac / (d * d / (p.lor_width * p.lor_width) + 1.0);
    }
    return sum;
}

double peak_fit_area(const peak_fit_peak_t &p) {
    const double gauss = (1.0 - p.lor_frac) * p.sigma * std::sqrt(2.0 * std::numbers::pi);
    return p.height * (gauss + p.lor_frac * std::numbers::pi * p.lor_width);
}

double peak_fit_fwhm(const peak_fit_peak_t &p) {
    const double gauss = p.sigma * std::sqrt(2.0 * std::numbers::ln2);
    if (p.lor_frac == 0.0)
        return 2.0 * gauss;
    // The profile falls all the way, and both parts are at one half between their own half widths.
    double low = std::min(gauss, p.lor_width), high = std::max(gauss, p.lor_width);
    for (int step = 0; step < 60 && high - low > 1e-14 * high; ++step) {
        const double middle = 0.5 * (low + high);
        (profile(p, middle) > 0.5 ? low : high) = middle;
    }
    return low + high;
}

double peak_fit_tail_total(std::span<const double> spectrum, double p0, double p1) {
    if (!inside(p0, spectrum.size()) || !inside(p1, spectrum.size()))
        return -1.0;
    const int last = static_cast<int>(spectrum.size()) - 1;
    long long tail = 0, total = 0;
    for (int i = channel(0.85 * p0); i <= last && i <= 1.15 * p1; ++i) {
        const double value = std::clamp(spectrum[static_cast<std::size_t>(i)], -1e15, 1e15);
        if (i <= 0.95 * p0)
            tail = static_cast<long long>(static_cast<double>(tail) + value);
        total = static_cast<long long>(static_cast<double>(total) + value);
    }
    return total == 0 ? -1.0 : static_cast<double>(tail) / static_cast<double>(total);
}

double peak_fit_peaks_total(std::span<const double> spectrum, double p0, double p1) {
    const int first = std::max(0, channel(std::floor(0.85 * p0)));
    const int last = std::min(channel(std::floor(1.15 * p1)), static_cast<int>(spectrum.size()) - 1);
    double sum = 0.0;
    for (int i = first; i <= last; ++i)
        sum += spectrum[static_cast<std::size_t>(i)];
    return sum;
}

double peak_fit_mca_total(std::span<const double> spectrum) {
    return std::accumulate(spectrum.begin(), spectrum.end(), 0.0);
}

double peak_fit_most_total(std::span<const double> spectrum) {
    return spectrum.size() <= noise_channels ? 0.0 : peak_fit_mca_total(spectrum.subspan(noise_channels));
}

double peak_fit_valley_peak(std::span<const double> spectrum, double p0, double p1, double height) {
    const int first = std::max(1, channel(std::min(p0, p1)) + 1);
    const int last = std::min(channel(std::max(p0, p1)), static_cast<int>(spectrum.size()) - 2);
    if (first > last || !(height > 0.0))
        return -1.0;
    double least = std::numeric_limits<double>::infinity();
    for (auto i = static_cast<std::size_t>(first); i <= static_cast<std::size_t>(last); ++i)
        least = std::min(least, (spectrum[i - 1] + spectrum[i] + spectrum[i + 1]) / 3.0);
    return least / height;
}

} // namespace kestrel
