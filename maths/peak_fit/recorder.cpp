#include "maths/peak_fit/recorder.h"

#include "modules/store/headed.h"
#include "modules/store/result_module.h"
#include "server/output.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace kestrel {

namespace {

constexpr int level_of_files = 3;

std::vector<double> model(std::span<const peak_fit_peak_t> peaks, std::size_t channels) {
    std::vector<double> values(channels);
    for (std::size_t i = 0; i < channels; ++i)
        values[i] = peak_fit_calc_point(peaks, static_cast<double>(i));
    return values;
}

// keV at each channel, from the first peak's energy and position.
std::vector<double> energies(const peak_fit_trial &trial) {
    const double posn = trial.fitted[0].posn;
    const double gain = posn > 0.0 ? trial.energy[0] / posn : 0.0;
    std::vector<double> values(trial.spectrum.size());
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = gain * static_cast<double>(i);
    return values;
}

// A module of that name that something else in this server has linked must not be cleared.
bool in_use(const char *name) {
    const module_link link(name);
    return link && datamod_links(link.head()) > 1;
}

} // namespace

void peak_fit_recorder::begin(const peak_fit_request &request, peak_fit_solver &solver, int point) {
    cn_ = request.cn;
    files_ = request.debug >= level_of_files;
    solver.trial_hook = take;
    solver.trial_user = this;
    point_ = point;
    trials_ = 0;
    rows_.clear();
}

void peak_fit_recorder::take(void *self, const peak_fit_trial &trial) {
    auto &recorder = *static_cast<peak_fit_recorder *>(self);
    const std::size_t channels = trial.spectrum.size();
    recorder.channels_ = channels;
    const std::vector<double> function = model(trial.fitted, channels);
    std::vector<double> residuals(channels), pass(channels, 0.0);
    for (std::size_t i = 0; i < channels; ++i) {
        residuals[i] = trial.spectrum[i] - function[i];
        if (static_cast<int>(i) >= trial.x1 && static_cast<int>(i) <= trial.x2)
            pass[i] = trial.pass;
    }
    if (recorder.files_)
        recorder.write_file(trial, function);
    recorder.rows_.emplace_back(trial.spectrum.begin(), trial.spectrum.end());
    recorder.rows_.push_back(model(trial.seed, channels));
    recorder.rows_.push_back(std::move(residuals));
    recorder.rows_.push_back(function);
    recorder.rows_.push_back(energies(trial));
    recorder.rows_.push_back(std::move(pass));
    ++recorder.trials_;
}

void peak_fit_recorder::write_file(const peak_fit_trial &trial, const std::vector<double> &function) {
    char name[64];
    std::snprintf(name, sizeof name, "peak_attempt%03d_%02d_%03d.txt", point_, trial.pass,
                  static_cast<int>(trials_));
    std::FILE *file = std::fopen(name, "we");
    for (int i = trial.x1; file && i <= trial.x2; ++i) {
        const auto at = static_cast<std::size_t>(i);
        std::fprintf(file, "%d\t%g\t%g\n", i, trial.spectrum[at], function[at]);
    }
    const bool written = file && !std::ferror(file);
    if ((file && std::fclose(file) == 0 && written) || file_failed_)
        return;
    file_failed_ = true;
    sv_printf(cn_, "! Cannot write file '%s'\n", name);
}

void peak_fit_recorder::store() {
    if (trials_ == 0)
        return;
    char name[32];
    std::snprintf(name, sizeof name, "peakfit_debug%d", point_);
    if (in_use(name)) {
        sv_printf(cn_, "! Module '%s' is in use, trials of point %d are not stored\n", name, point_);
        return;
    }
    const int nx = static_cast<int>(channels_), ny = static_cast<int>(trials_);
    const std::string labels[rows_of_trial] = {"Attempt", "Seed", "Residuals", "Function", "Energy", "pass"};
    const module_plan plan{.element = mod_element::float64,
                           .num_x = -nx,
                           .num_y = -ny,
                           .num_t = static_cast<int>(rows_of_trial),
                           .is_3d = true,
                           .x_label = "Channel",
                           .y_label = "Trial",
                           .t_label = "",
                           .labels = labels};
    result_module to;
    if (to.make(cn_, name, plan) != 0)
        return;
    to.keep();
    clear_mod(to.head());
    const module_view &mod = to.view();
    for (std::size_t i = 0; i < rows_.size(); ++i) {
        const int y = static_cast<int>(i / rows_of_trial), t = static_cast<int>(i % rows_of_trial);
        for (int x = 0; x < nx && mod.holds(x, y, t); ++x)
            mod_put_element(mod.at(x, y, t), mod.data_type, rows_[i][static_cast<std::size_t>(x)]);
    }
}

} // namespace kestrel
