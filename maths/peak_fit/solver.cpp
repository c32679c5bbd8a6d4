#include "maths/peak_fit/solver.h"

#include "maths/peak_fit/errors.h"
#include "maths/peak_fit/residuals.h"
#include "maths/peak_fit/search.h"
#include "server/output.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <minpack.h>

namespace kestrel {

namespace {

// A pass is a start pattern: how wide the peaks begin, by the width that was found, with which Lorentzian
// fraction, and which line the main peak is taken for (another one than the first only where the heights of
// the lines are not known). `onward` begins where the best pass yet ended, with the tails that it left over.
struct pass_variant {
    double width;
    double lor_frac;
    int main;
    bool onward = false;
};
constexpr pass_variant passes[] = {
    {1.0, 0.0, 0},  {0.6, 0.0, 0}, {1.7, 0.0, 0}, {1.0, 0.1, 0, true}, {0.6, 0.1, 0},
    {1.7, 0.1, 0},  {1.0, 0.4, 0}, {1.0, 0.0, 1}, {1.0, 0.0, 2}, // 0..8
    {0.35, 0.0, 0}, {3.0, 0.0, 0}, {1.0, 0.0, 3}, {1.0, 0.0, 4},       {1.0, 0.0, 5},
    {1.0, 0.0, 6},  {1.0, 0.0, 7},
};
constexpr int coarse_passes = 9; // the first ones need no more than a rough fit
constexpr double coarse = 1e-4, fine = 1e-5, final_tolerance = 1e-6;

constexpr double sigma_of_fwhm = 0.42466090014400953; // 1 / sqrt(8 ln 2)
constexpr double margin = 3.0;                        // FWHM around the outermost peaks that are fitted
constexpr double weak = 0.01;                         // of the main height, the least seed
constexpr int most_channels = 1 << 20;                // in one fit
constexpr double enough_for_tails = 3000.0;           // counts of the main peak; fewer do not show its tails
constexpr double area_of_unit_peak = 1.06447;         // of a Gaussian of FWHM 1 and height 1
constexpr double clear_tails = 1.5;                   // standard deviations; less is looked for in vain
constexpr int out_of_calls = 5;                       // MINPACK: no convergence

struct channel_range {
    int x1, x2;
};

channel_range region_of(std::span<const peak_fit_peak_t> peaks, double fwhm, std::size_t channels) {
    double low = peaks.front().posn, high = low;
    for (const peak_fit_peak_t &p : peaks) {
        low = std::min(low, p.posn);
        high = std::max(high, p.posn);
    }
    const double last = static_cast<double>(channels) - 1.0;
    return {static_cast<int>(std::clamp(std::floor(low - margin * fwhm), 0.0, last)),
            static_cast<int>(std::clamp(std::ceil(high + margin * fwhm), 0.0, last))};
}

double smoothed_at(const peak_fit_found &found, double posn) {
    const double channel = std::round(posn);
    if (!(channel >= 0.0 && channel < static_cast<double>(found.smoothed.size())))
        return 0.0;
    return found.smoothed[static_cast<std::size_t>(channel)];
}

double norm(std::span<double> residual) {
    int count = static_cast<int>(residual.size());
    return enorm_(&count, residual.data());
}

void tell_odd_values(int cn, std::span<const peak_fit_peak_t> peaks) {
    for (std::size_t i = 0; i < peaks.size(); ++i) {
        const peak_fit_peak_t &p = peaks[i];
        const int n = static_cast<int>(i);
        if (p.height < 0.0)
            sv_printf(cn, "# Peak height[%d]=%g < 0\n", n, p.height);
        if (p.sigma < 0.0)
            sv_printf(cn, "# Peak sigma[%d]=%g < 0\n", n, p.sigma);
        if (p.lor_frac < 0.0)
            sv_printf(cn, "# Peak lor_frac[%d]=%g < 0\n", n, p.lor_frac);
        if (p.lor_frac > 1.0)
            sv_printf(cn, "# Peak lor_frac[%d]=%g > 1\n", n, p.lor_frac);
        if (p.lor_frac != 0.0 && p.lor_width < p.sigma * 1.174)
            sv_printf(cn, "# Peak lor_wid[%d]=%g < sigma*1.174=%g\n", n, p.lor_width, p.sigma * 1.174);
    }
}

// The solver may end a little outside the parameters' ranges: what is stored lies inside. A line outside the
// spectrum has the height 0.
void put_in_range(std::span<peak_fit_peak_t> peaks, std::size_t channels) {
    for (peak_fit_peak_t &p : peaks) {
        const bool seen = p.posn >= 0.0 && p.posn < static_cast<double>(channels);
        p.height = seen ? std::max(p.height, 0.0) : 0.0;
        p.sigma = std::fabs(p.sigma);
        p.lor_frac = std::clamp(p.lor_frac, 0.0, 1.0);
        p.lor_width = p.lor_frac == 0.0 ? 0.0 : std::fabs(p.lor_width);
    }
}

constexpr double significant = 3.0; // standard deviations

void drop_meaningless_errors(std::span<const peak_fit_peak_t> peaks, std::span<peak_fit_sigmas> errors) {
    for (std::size_t i = 0; i < peaks.size(); ++i)
        if (!(peaks[i].height > significant * errors[i].height))
            errors[i].posn = errors[i].sigma = 0.0;
}

bool all_finite(std::span<const peak_fit_peak_t> peaks) {
    return std::all_of(peaks.begin(), peaks.end(), [](const peak_fit_peak_t &p) {
        return std::isfinite(p.posn) && std::isfinite(p.height) && std::isfinite(p.sigma) &&
               std::isfinite(p.lor_width) && std::isfinite(p.lor_frac);
    });
}

// Each is five times as high as the noise of one channel there.
bool all_stand_out(std::span<const peak_fit_peak_t> peaks) {
    return std::all_of(peaks.begin(), peaks.end(), [&](const peak_fit_peak_t &p) {
        return p.height > 5.0 * std::sqrt(std::max(peak_fit_calc_point(peaks, p.posn), 1.0));
    });
}

// Over the channels where the model counts at least one.
double chi_squared(std::span<const double> residual, std::span<const double> data, std::size_t parameters) {
    double sum = 0.0;
    std::size_t channels = 0;
    for (std::size_t i = 0; i < data.size(); ++i) {
        const double model = data[i] - residual[i];
        if (model < 1.0)
            continue;
        sum += residual[i] * residual[i] / model;
        ++channels;
    }
    return channels > parameters ? sum / static_cast<double>(channels - parameters) : 0.0;
}

} // namespace

int peak_fit_passes() {
    return static_cast<int>(std::size(passes));
}

// One spectrum on its way through the passes.
struct peak_fit_solver::state {
    using peak_list = std::array<peak_fit_peak_t, peak_fit_max_peaks>;

    // The best of the passes so far.
    struct outcome {
        int pass = -1;
        peak_list peaks{};
        peak_vector vector;
        std::vector<double> x;
        double residual = std::numeric_limits<double>::infinity();
        bool at_noise = false;    // it leaves nothing but the spectrum's own noise
        bool names_lines = false; // at noise, and every line stands out: no other can be the main peak
        peak_fit_tails tails;     // what is left over of them, where they are asked for
    };

    peak_residuals residuals;
    std::vector<double> residual;
    const peak_fit_request *request = nullptr;
    std::span<const double> spectrum;
    peak_fit_found found;
    bool first_of_all = true;

    std::span<peak_fit_peak_t> used(peak_list &peaks) const {
        return {peaks.data(), static_cast<std::size_t>(request->lines.num_peaks)};
    }

    peak_list seed(const pass_variant &variant, const peak_fit_start_t &start) const;
    peak_vector vary(const pass_variant &variant, const peak_fit_start_t &start, peak_list &seeds) const;
    static bool is_inside(const outcome &tried);
    bool is_at_noise(std::size_t parameters) const;
    bool shows_tails() const { return area_of_unit_peak * found.height * found.fwhm >= enough_for_tails; }
    bool applies(int pass, const outcome &best) const;
    void find_tails(outcome &tried);
    void begin_onward(outcome &tried, const outcome &best) const;
    bool try_pass(int pass, peak_fit_solver &solver, outcome &best);
    int solve(const outcome &from, double tolerance, std::vector<double> &x);
    void keep_trial(peak_fit_solver &solver, int pass, peak_list seeds, peak_list fitted) const;
    void refine(peak_fit_solver &solver, outcome &best, peak_fit_fitted &result);
    void check_ends(int point, channel_range region, peak_list &seeds, peak_fit_fitted &result) const;
};

peak_fit_solver::state::peak_list peak_fit_solver::state::seed(const pass_variant &variant,
                                                               const peak_fit_start_t &start) const {
    peak_list seeds{};
    for (std::size_t i = 0; i < static_cast<std::size_t>(start.num_peaks); ++i) {
        const peak_fit_seed_t &s = start.peak[i];
        peak_fit_peak_t &p = seeds[i];
        p.posn = found.posn * s.rel_posn;
        p.height = s.rel_hgt > 0.0 ? found.height * s.rel_hgt : smoothed_at(found, p.posn);
        p.height = std::max(p.height, weak * found.height);
        p.sigma = found.fwhm * variant.width * sigma_of_fwhm;
        p.lor_frac = start.lor_frac;
        p.lor_width = start.lor_frac == 0.0 ? 0.0 : peak_fit_usual_tail * p.sigma;
    }
    return seeds;
}

// What the pass varies, and in which range. Seeds of tied heights are put into their ratio.
peak_vector peak_fit_solver::state::vary(const pass_variant &variant, const peak_fit_start_t &start,
                                         peak_list &seeds) const {
    peak_vector vector;
    vector.num_peaks = static_cast<std::size_t>(start.num_peaks);
    vector.main = static_cast<std::size_t>(variant.main);
    vector.lorentzian = start.lor_frac > 0.0;
    for (std::size_t i = 1; i < vector.num_peaks; ++i) {
        if (!(start.peak[i].peak_flags & peak_fit_tied_height))
            continue;
        vector.tie[i] = request->lines.height[i] / request->lines.height[i - 1];
        seeds[i].height = seeds[i - 1].height * vector.tie[i];
        if (request->debug >= 1)
            sv_printf(request->cn, "#  .. Scaling peak %d combined with previous hgt by %g, new hgt=%g\n",
                      static_cast<int>(i), vector.tie[i], seeds[i].height);
    }
    vector.set_ranges(used(seeds), found.fwhm, spectrum.size());
    return vector;
}

// No parameter is at the end of its range, where the solver may have been held up.
bool peak_fit_solver::state::is_inside(const outcome &tried) {
    for (std::size_t i = 0; i < tried.x.size(); ++i)
        if (tried.vector.outside(tried.x.data(), i) > 0.0)
            return false;
    return true;
}

// Chi-squared within its usual spread, of which a Poisson channel of mean m has the variance 2 + 1/m. Far below it the
// channels are no counts (a mean of many spectra, say), and nobody knows how noisy they are.
bool peak_fit_solver::state::is_at_noise(std::size_t parameters) const {
    constexpr double usual = 3.0; // standard deviations
    double excess = static_cast<double>(parameters), variance = 0.0;
    for (std::size_t i = 0; i < residuals.data.size(); ++i) {
        const double model = residuals.data[i] - residual[i];
        if (model < 1.0)
            continue;
        excess += residual[i] * residual[i] / model - 1.0;
        variance += 2.0 + 1.0 / model;
    }
    return variance > 0.0 && std::fabs(excess) <= usual * std::sqrt(variance);
}

void peak_fit_solver::state::find_tails(outcome &tried) {
    const bool asked = !(request->constraints & peak_fit_no_lor) && !tried.vector.lorentzian;
    if (asked && shows_tails())
        tried.tails = peak_fit_find_tails(residuals, tried.x);
}

void peak_fit_solver::state::begin_onward(outcome &tried, const outcome &best) const {
    constexpr double least = 0.02, most = 0.5;
    if (best.pass < 0 || best.vector.main != tried.vector.main || best.vector.lorentzian)
        return;
    tried.peaks = best.peaks;
    for (peak_fit_peak_t &p : used(tried.peaks)) {
        p.lor_frac = std::clamp(best.tails.part, least, most);
        p.lor_width = peak_fit_usual_tail * p.sigma;
    }
}

bool peak_fit_solver::state::applies(int pass, const outcome &best) const {
    const pass_variant &variant = passes[pass];
    if (request->single_pass >= 0)
        return pass == request->single_pass && variant.main < request->lines.num_peaks;
    if (variant.lor_frac > 0.0 && (request->constraints & peak_fit_no_lor || !shows_tails() ||
                                   (best.at_noise && best.tails.score < clear_tails)))
        return false;
    // It would only be left early; who watches the passes sees it so.
    const bool settled = best.at_noise && !best.vector.lorentzian && best.vector.main == 0;
    if (variant.main == 0)
        return !(settled && variant.lor_frac == 0.0 && request->debug == 0);
    return variant.main < request->lines.num_peaks && request->lines.height[0] == 0.0 && !best.names_lines;
}

int peak_fit_solver::state::solve(const outcome &from, double tolerance, std::vector<double> &x) {
    residuals.vector = &from.vector;
    x = from.x;
    return residuals.minimise(x, tolerance, residual);
}

void peak_fit_solver::state::keep_trial(peak_fit_solver &solver, int pass, peak_list seeds,
                                        peak_list fitted) const {
    if (!solver.trial_hook)
        return;
    const std::size_t count = used(seeds).size();
    solver.trial_hook(solver.trial_user,
                      {pass, residuals.x1, residuals.x1 + static_cast<int>(residuals.data.size()) - 1,
                       spectrum, used(seeds), used(fitted), std::span(request->lines.energy).first(count)});
}

// False when the solver was stopped.
bool peak_fit_solver::state::try_pass(int pass, peak_fit_solver &solver, outcome &best) {
    const pass_variant &variant = passes[pass];
    const bool lorentzian = !(request->constraints & peak_fit_no_lor);
    peak_fit_start_t start =
        peak_fit_pattern(request->lines, variant.main, lorentzian ? variant.lor_frac : 0.0);
    if (request->lines.height[0] == 0.0 || variant.onward)
        start.fit_flags = -1; // seeds from the spectrum alone are rough; small tails need the finer steps
    outcome tried;
    tried.pass = pass;
    tried.peaks = seed(variant, start);
    tried.vector = vary(variant, start, tried.peaks);
    if (variant.onward)
        begin_onward(tried, best);
    const peak_list seeds = tried.peaks;
    tried.x = tried.vector.pack(seeds);
    const double tolerance = pass < coarse_passes && start.fit_flags >= 0 ? coarse : fine;
    std::vector<double> x;
    const int info = solve(tried, tolerance, x);
    if (info < 0 && info != peak_fit_left_early)
        return false;
    tried.x = x;
    tried.vector.unpack(x.data(), tried.peaks);
    tried.residual = norm(residual);
    if (request->debug >= 1)
        sv_printf(request->cn, "# Pass %d, Solver returns %d after %d calls, tol =%g, residual=%g\n", pass,
                  info, residuals.calls, tolerance, tried.residual);
    if (request->debug >= 2)
        tell_odd_values(request->cn, used(tried.peaks));
    keep_trial(solver, pass, seeds, tried.peaks);
    if (info <= 0 || !all_finite(used(tried.peaks)))
        return true;
    tried.at_noise = shows_tails() && is_inside(tried) && is_at_noise(x.size());
    residuals.rivals.add(tried.vector.main, tried.x, tried.residual, tried.at_noise);
    if (tried.residual < best.residual) {
        tried.names_lines = tried.at_noise && all_stand_out(used(tried.peaks));
        find_tails(tried);
        best = std::move(tried);
    }
    return true;
}

// From the best pass on, over the channels that its peaks ask for.
void peak_fit_solver::state::refine(peak_fit_solver &solver, outcome &best, peak_fit_fitted &result) {
    const double fwhm = peak_fit_fwhm(best.peaks[best.vector.main]);
    const channel_range region = region_of(used(best.peaks), fwhm, spectrum.size());
    if (region.x2 - region.x1 < most_channels && region.x2 - region.x1 + 1 >= static_cast<int>(best.x.size()))
        residuals.set_region(spectrum, region.x1, region.x2);
    const peak_list seeds = best.peaks;
    std::vector<double> x;
    residuals.rivals.forget();
    const int info = solve(best, final_tolerance, x);
    const double reached = norm(residual);
    if (request->debug >= 1)
        sv_printf(request->cn,
                  "# Refining best pass=%d, Solver returns %d after %d calls, tol =%g, residual=%g\n",
                  best.pass, info, residuals.calls, final_tolerance, reached);
    if (info < 0) {
        result.status = peak_fit_status::stopped;
        return;
    }
    best.vector.unpack(x.data(), best.peaks);
    keep_trial(solver, peak_fit_passes(), seeds, best.peaks);
    if (info == 0 || info == out_of_calls || !std::isfinite(reached) || !all_finite(used(best.peaks)))
        return;
    result.chi2 = chi_squared(std::span(residual).first(residuals.data.size()), residuals.data, x.size());
    peak_fit_error_bars(residuals, x, result.error);
    put_in_range(used(best.peaks), spectrum.size());
    drop_meaningless_errors(used(best.peaks), result.error);
    result.peak = best.peaks;
    result.x1 = residuals.x1;
    result.x2 = residuals.x1 + static_cast<int>(residuals.data.size()) - 1;
    result.status = peak_fit_status::fitted;
}

// Warns of peaks that are cut off by the ends of the fitted channels, and of counts that come in there.
void peak_fit_solver::state::check_ends(int point, channel_range region, peak_list &seeds,
                                        peak_fit_fitted &result) const {
    const int cn = request->cn;
    const auto [x1, x2] = region;
    const double left = smoothed_at(found, x1), right = smoothed_at(found, x2);
    const double high = 0.1 * found.height + 3.0 * found.noise;
    if (left > high || right > high) {
        result.high_at_ends = true;
        if (request->tell)
            sv_printf(cn,
                      "# Warning: Point %d: At left data[%d]=%g or right data[%d]=%g is high compared to "
                      "max=%g\n",
                      point, x1, left, x2, right, found.height);
    }
    const std::span<peak_fit_peak_t> peaks = used(seeds);
    const auto [first, last] = std::minmax_element(
        peaks.begin(), peaks.end(), [](const auto &a, const auto &b) { return a.posn < b.posn; });
    if (first->posn - x1 < found.fwhm || x2 - last->posn < found.fwhm) {
        result.near_ends = true;
        if (request->tell)
            sv_printf(cn,
                      "# Warning: Point %d: First peak at %d seems close to x1=%d, or last peak at %d close "
                      "to x2=%d\n",
                      point, static_cast<int>(first->posn), x1, static_cast<int>(last->posn), x2);
    }
}

peak_fit_solver::peak_fit_solver() : state_(std::make_unique<state>()) {}
peak_fit_solver::~peak_fit_solver() = default;

peak_fit_fitted peak_fit_solver::peak_fit_run_solver(const peak_fit_request &request, int point,
                                                     std::span<const double> spectrum) {
    state &s = *state_;
    peak_fit_fitted result;
    result.num_peaks = request.lines.num_peaks;
    s.request = &request;
    s.spectrum = spectrum;
    s.found = peak_fit_search(spectrum, request.first, request.last, request.width);
    if (request.debug >= 1)
        sv_printf(request.cn, "# Searching Using smoothed data found posn=%d, height=%g, FWHM=%d\n",
                  s.found.posn, s.found.height, s.found.fwhm_smoothed);
    if (request.debug >= 2 && s.first_of_all)
        sv_printf(request.cn, "# Note machine precission = %g, sqrt(machine prec) = %g\n",
                  peak_fit_machine_precision(), std::sqrt(peak_fit_machine_precision()));
    s.first_of_all = false;
    const double least = peak_fit_least_height(s.found);
    if (!(s.found.height >= least)) {
        if (request.tell)
            sv_printf(request.cn, "# Found peak < %g height, so not trying fit\n", least);
        result.status = peak_fit_status::insufficient;
        return result;
    }
    state::peak_list seeds = s.seed(passes[0], peak_fit_pattern(request.lines, 0, 0.0));
    channel_range region = region_of(s.used(seeds), s.found.fwhm, spectrum.size());
    for (int main = 1; main < request.lines.num_peaks && request.lines.height[0] == 0.0; ++main) {
        state::peak_list other = s.seed(passes[0], peak_fit_pattern(request.lines, main, 0.0));
        const channel_range also = region_of(s.used(other), s.found.fwhm, spectrum.size());
        region = {std::min(region.x1, also.x1), std::max(region.x2, also.x2)};
    }
    const int parameters = 3 * request.lines.num_peaks + 2;
    if (region.x2 - region.x1 + 1 < parameters || region.x2 - region.x1 >= most_channels)
        return result;
    s.residuals.stopped = request.stopped;
    s.residuals.user = request.user;
    s.residuals.set_region(spectrum, region.x1, region.x2);
    s.residuals.rivals.forget();
    state::outcome best;
    for (int pass = 0; pass < peak_fit_passes(); ++pass) {
        if (s.applies(pass, best) && !s.try_pass(pass, *this, best)) {
            result.status = peak_fit_status::stopped;
            return result;
        }
    }
    if (best.pass < 0) {
        if (request.single_pass >= 0)
            sv_printf(request.cn, "# Pass %d gives no fit of %d peaks\n", request.single_pass,
                      request.lines.num_peaks);
        return result;
    }
    s.refine(*this, best, result);
    if (result.status == peak_fit_status::fitted)
        s.check_ends(point, {result.x1, result.x2}, best.peaks, result);
    return result;
}

} // namespace kestrel
