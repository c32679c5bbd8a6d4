#include "maths/peak_fit/residuals.h"

#include "maths/peak_fit/loops.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <minpack.h>
#include <numeric>

namespace kestrel {

namespace {

// A Gaussian further out is below 3e-18 of its height: nothing beside any count that a double holds.
constexpr double gauss_reach = 9.0; // sigma
constexpr double sigma_least = 0.3; // channels; nothing narrower is a peak
// A Lorentzian narrower than the Gaussian (half widths at half height) would be no tail.
constexpr double ratio_least = 1.174, ratio_most = 20.0;
constexpr double wall_strength = 10.0;
constexpr double too_close = 0.8; // FWHM

// MINPACK hands no pointer of the caller's to its callback, so each thread keeps here which fit it runs.
thread_local peak_residuals *fit_of_thread = nullptr;

void peak_fit_residuals(int *m, int *, double *x, double *fvec, int *iflag) noexcept {
    peak_residuals &fit = *fit_of_thread;
    ++fit.calls;
    if (fit.stopped && fit.stopped(fit.user)) {
        *iflag = -1;
        return;
    }
    // Derivatives are asked for at a point that was taken: the last one that was tried.
    constexpr int step = 1, derivative = 2;
    const bool arrived = *iflag == derivative && fit.last_flag == step;
    fit.last_flag = *iflag;
    if (arrived && fit.cannot_win(x)) {
        *iflag = peak_fit_left_early;
        return;
    }
    fit.evaluate(x, fvec);
    if (*iflag == step)
        fit.last_residual = enorm_(m, fvec);
}

// A parameter of a range is varied as the angle whose square of the sine it is, between the range's ends: the solver
// cannot leave the range, and meets no wall in which its steps get lost (F. James & M. Roos, Comput. Phys. Commun. 10
// (1975) 343).
double angle_of(double value, double low, double high) {
    return std::asin(std::sqrt(std::clamp((value - low) / (high - low), 0.0, 1.0)));
}
double value_of(double angle, double low, double high) {
    const double sine = std::sin(angle);
    return low + (high - low) * sine * sine;
}

double beyond(double value, double low, double high) {
    return value < low ? low - value : value > high ? value - high : 0.0;
}

std::size_t clamp_channel(double channel, std::size_t count) {
    return static_cast<std::size_t>(std::clamp(channel, 0.0, static_cast<double>(count)));
}

void fill_gauss(peak_profile::values &v, int x1, std::size_t count) {
    const double centre = v.posn - x1, reach = gauss_reach * v.width;
    v.from = clamp_channel(std::ceil(centre - reach), count);
    v.to = std::max(v.from, clamp_channel(std::floor(centre + reach) + 1.0, count));
    peak_fit_best_loops().gauss(v.at.data(), centre, 1.0 / (2.0 * v.width * v.width), v.from, v.to);
}

void fill_lorentz(peak_profile::values &v, int x1, std::size_t count) {
    v.from = 0;
    v.to = count;
    peak_fit_best_loops().lorentz(v.at.data(), v.posn - x1, 1.0 / (v.width * v.width), count);
}

void subtract(std::span<double> residual, const peak_profile::values &v, double height) {
    peak_fit_best_loops().subtract(residual.data() + v.from, v.at.data() + v.from, height, v.to - v.from);
}

} // namespace

void peak_vector::set_ranges(std::span<const peak_fit_peak_t> seeds, double fwhm, std::size_t channels) {
    sigma_most = static_cast<double>(channels);
    for (std::size_t i = 0; i < num_peaks; ++i) {
        posn_middle[i] = seeds[i].posn;
        posn_reach[i] = 1.5 * fwhm + 0.05 * std::fabs(seeds[i].posn - seeds[main].posn);
    }
    find_leaders(seeds, fwhm);
    list_parameters();
}

// The main peak leads its group, the highest seed any other.
void peak_vector::follow(std::span<const std::size_t> group, std::span<const peak_fit_peak_t> seeds) {
    const auto less = [&](std::size_t i, std::size_t j) {
        return j == main || (i != main && seeds[i].height < seeds[j].height);
    };
    const std::size_t first = *std::max_element(group.begin(), group.end(), less);
    for (const std::size_t i : group) {
        if (i == first || !(seeds[first].posn > 0.0))
            continue;
        leader[i] = static_cast<int>(first);
        leader_ratio[i] = seeds[i].posn / seeds[first].posn;
    }
}

// Energies are nearly proportional to channels: leaders keep about their distances, and never change places.
void peak_vector::find_leaders(std::span<const peak_fit_peak_t> seeds, double fwhm) {
    std::array<std::size_t, peak_fit_max_peaks> order{};
    std::iota(order.begin(), order.end(), std::size_t{0});
    const std::span<std::size_t> used = std::span(order).first(num_peaks);
    std::stable_sort(used.begin(), used.end(),
                     [&](std::size_t i, std::size_t j) { return seeds[i].posn < seeds[j].posn; });
    leader.fill(-1);
    below.fill(-1);
    for (std::size_t begin = 0, end = 0; begin < num_peaks; begin = end) {
        for (end = begin + 1; end < num_peaks; ++end)
            if (seeds[used[end]].posn - seeds[used[end - 1]].posn >= too_close * fwhm)
                break;
        follow(used.subspan(begin, end - begin), seeds);
    }
    int last = -1;
    for (const std::size_t i : used) {
        if (leader[i] >= 0)
            continue;
        below[i] = last;
        if (last >= 0) {
            gap[i] = seeds[i].posn - seeds[static_cast<std::size_t>(last)].posn;
            gap_reach[i] = std::min(0.2 * gap[i] + 0.2 * fwhm, 0.8 * gap[i]);
        }
        last = static_cast<int>(i);
    }
}

void peak_vector::list_parameters() {
    using kind = peak_parameter::kind;
    parameters.clear();
    for (std::size_t i = 0; i < num_peaks; ++i) {
        posn_at_[i] = parameters.size();
        if (leader[i] < 0)
            parameters.push_back({kind::posn, i});
        if (tie[i] == 0.0)
            parameters.push_back({kind::height, i});
        sigma_at_[i] = parameters.size();
        if (leader[i] < 0)
            parameters.push_back({kind::sigma, i});
    }
    if (!lorentzian)
        return;
    parameters.push_back({kind::lor_frac, main});
    parameters.push_back({kind::lor_ratio, main});
}

std::vector<double> peak_vector::pack(std::span<const peak_fit_peak_t> peaks) const {
    using kind = peak_parameter::kind;
    std::vector<double> x;
    for (const peak_parameter &p : parameters) {
        const peak_fit_peak_t &peak = peaks[p.peak];
        x.push_back(p.what == kind::posn     ? peak.posn
                    : p.what == kind::height ? peak.height
                    : p.what == kind::sigma  ? peak.sigma
                    : p.what == kind::lor_frac
                        ? angle_of(peak.lor_frac, 0.0, 1.0)
                        : angle_of(peak.lor_width / peak.sigma, ratio_least, ratio_most));
    }
    return x;
}

void peak_vector::unpack(const double *x, std::span<peak_fit_peak_t> peaks) const {
    using kind = peak_parameter::kind;
    double frac = 0.0, ratio = 0.0;
    for (const peak_parameter &p : parameters) {
        const double value = *x++;
        if (p.what == kind::posn)
            peaks[p.peak].posn = value;
        else if (p.what == kind::height)
            peaks[p.peak].height = value;
        else if (p.what == kind::sigma)
            peaks[p.peak].sigma = value;
        else if (p.what == kind::lor_frac)
            frac = value_of(value, 0.0, 1.0);
        else
            ratio = value_of(value, ratio_least, ratio_most);
    }
    for (std::size_t i = 0; i < num_peaks; ++i) {
        if (tie[i] != 0.0)
            peaks[i].height = peaks[i - 1].height * tie[i];
        if (leader[i] >= 0) {
            const peak_fit_peak_t &first = peaks[static_cast<std::size_t>(leader[i])];
            peaks[i].posn = first.posn * leader_ratio[i];
            peaks[i].sigma = first.sigma;
        }
        peaks[i].lor_frac = frac;
        peaks[i].lor_width = ratio * peaks[i].sigma;
    }
}

double peak_vector::outside(const double *x, std::size_t index) const {
    using kind = peak_parameter::kind;
    const peak_parameter &p = parameters[index];
    const double value = x[index];
    switch (p.what) {
    case kind::posn: {
        const std::size_t i = p.peak;
        const double far = beyond(value - posn_middle[i], -posn_reach[i], posn_reach[i]) / posn_reach[i];
        if (below[i] < 0)
            return far;
        const double other = x[posn_at_[static_cast<std::size_t>(below[i])]];
        return far + beyond(value - other - gap[i], -gap_reach[i], gap_reach[i]) / gap_reach[i];
    }
    case kind::height: // evaluate() drives a negative height back itself
    case kind::lor_frac:
    case kind::lor_ratio:
        return 0.0;
    case kind::sigma: {
        if (p.peak == main)
            return beyond(value, sigma_least, sigma_most) / sigma_least;
        // The resolution of a detector changes slowly with energy.
        const double other = std::max(x[sigma_at_[main]], sigma_least);
        return beyond(value, 0.5 * other, 2.0 * other) / other;
    }
    }
    return 0.0;
}

void peak_rivals::add(std::size_t main, const std::vector<double> &x, double residual, bool at_noise) {
    ends_.push_back({main, x, residual, at_noise});
}

// Fewer parameters that came further, by more than a unit of chi-squared, show that the end is not where these can
// come to.
bool peak_rivals::is_settled(const peak_vector &vector, std::size_t channels) const {
    const std::size_t count = vector.parameters.size();
    double best = std::numeric_limits<double>::infinity();
    for (const end &other : ends_)
        if (other.x.size() <= count)
            best = std::min(best, other.residual);
    const double enough = best * std::sqrt(1.0 + 1.0 / static_cast<double>(channels));
    return std::any_of(ends_.begin(), ends_.end(), [&](const end &other) {
        return other.at_noise && other.main == vector.main && other.x.size() == count &&
               other.residual <= enough;
    });
}

// By a small part of a peak's width and height, with the same things varied.
bool peak_rivals::is_near(const peak_vector &vector, const double *x, const end &other) {
    using kind = peak_parameter::kind;
    constexpr double part = 0.02;
    if (vector.main != other.main || vector.parameters.size() != other.x.size())
        return false;
    double sigma = 0.0;
    for (std::size_t i = other.x.size(); i-- > 0;) { // a peak's sigma comes after its position
        const kind what = vector.parameters[i].what;
        if (what == kind::sigma)
            sigma = std::fabs(other.x[i]);
        const double scale = what == kind::posn       ? sigma
                             : what == kind::lor_frac ? 1.0
                                                      : std::fabs(other.x[i]);
        if (!(std::fabs(x[i] - other.x[i]) <= part * scale))
            return false;
    }
    return true;
}

bool peak_rivals::cannot_be_beaten(const peak_vector &vector, const double *x, double residual,
                                   std::size_t channels) {
    constexpr double same = 0.01;  // of a unit of chi-squared: a tenth of the errors
    constexpr double enough = 0.1; // of the distance, in the last steps
    if (is_settled(vector, channels))
        return true;
    double &oldest = reached_[steps_++ % remembered];
    const double before = oldest;
    oldest = residual;
    double best = std::numeric_limits<double>::infinity();
    for (const end &other : ends_) {
        best = std::min(best, other.residual);
        const double worse = residual * residual - other.residual * other.residual;
        if (worse >= 0.0 && worse * static_cast<double>(channels) <= same * other.residual * other.residual &&
            is_near(vector, x, other))
            return true;
    }
    return residual >= best && steps_ > remembered && before - residual < enough * (residual - best);
}

void peak_profile::prepare(std::size_t count) {
    for (values &v : slot_) {
        v.width = 0.0; // no profile has it, so the next one is worked out
        v.at.resize(count);
    }
}

const peak_profile::values &peak_profile::get(shape s, double posn, double width, int x1,
                                              std::size_t count) noexcept {
    for (std::size_t i = 0; i < slot_.size(); ++i) {
        if (slot_[i].posn == posn && slot_[i].width == width) {
            newest_ = i;
            return slot_[i];
        }
    }
    newest_ = 1 - newest_;
    values &v = slot_[newest_];
    v.posn = posn;
    v.width = width;
    if (s == shape::gauss)
        fill_gauss(v, x1, count);
    else
        fill_lorentz(v, x1, count);
    return v;
}

void peak_residuals::set_region(std::span<const double> spectrum, int first, int last) {
    x1 = first;
    data = spectrum.subspan(static_cast<std::size_t>(first), static_cast<std::size_t>(last - first + 1));
    const double highest = std::max(*std::max_element(data.begin(), data.end()), 1.0);
    wall = wall_strength * highest * std::sqrt(static_cast<double>(data.size()));
}

void peak_residuals::prepare() {
    for (std::size_t i = 0; i < vector->num_peaks; ++i) {
        gauss[i].prepare(data.size());
        lorentz[i].prepare(vector->lorentzian ? data.size() : 0);
    }
}

void peak_residuals::evaluate(const double *x, double *residual) noexcept {
    std::array<peak_fit_peak_t, peak_fit_max_peaks> peaks{};
    vector->unpack(x, peaks);
    const std::span<double> channels(residual, data.size());
    std::copy(data.begin(), data.end(), channels.begin());
    for (std::size_t i = 0; i < vector->num_peaks; ++i) {
        const peak_fit_peak_t &p = peaks[i];
        // Outside its range a parameter is driven back by outside(); the model need only stay finite.
        const double sigma = std::max(std::fabs(p.sigma), 0.1 * sigma_least);
        subtract(channels, gauss[i].get(peak_profile::shape::gauss, p.posn, sigma, x1, data.size()),
                 p.height * (1.0 - p.lor_frac));
        if (p.lor_frac == 0.0)
            continue;
        const double width = std::max(std::fabs(p.lor_width), 0.1 * sigma_least);
        subtract(channels, lorentz[i].get(peak_profile::shape::lorentz, p.posn, width, x1, data.size()),
                 p.height * p.lor_frac);
    }
    for (std::size_t i = 0; i < vector->parameters.size(); ++i) {
        const peak_parameter &p = vector->parameters[i];
        const bool is_height = p.what == peak_parameter::kind::height;
        residual[data.size() + i] = is_height ? wall_strength * std::min(peaks[p.peak].height, 0.0) *
                                                    std::sqrt(static_cast<double>(data.size()))
                                              : wall * vector->outside(x, i);
    }
}

int peak_residuals::minimise(std::vector<double> &x, double tolerance, std::vector<double> &residual) {
    int m = static_cast<int>(count()), n = static_cast<int>(x.size()), info = 0;
    int lwa = m * n + 5 * n + m;
    residual.resize(count());
    integers_.resize(x.size());
    work_.resize(static_cast<std::size_t>(lwa));
    calls = 0;
    last_flag = 0;
    rivals.begin();
    prepare();
    fit_of_thread = this;
    lmdif1_(peak_fit_residuals, &m, &n, x.data(), residual.data(), &tolerance, &info, integers_.data(),
            work_.data(), &lwa);
    fit_of_thread = nullptr;
    return info;
}

double peak_fit_machine_precision() {
    int which = 1;
    return dpmpar_(&which);
}

} // namespace kestrel
