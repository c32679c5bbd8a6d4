#include "maths/peak_fit/results.h"

#include "modules/store/headed.h"
#include "server/output.h"

namespace kestrel {

namespace {

// A quantity that each peak has, or the whole spectrum.
struct quantity {
    const char *label;
    bool of_each_peak;
};
constexpr quantity quantities[] = {
    {"posn", true},         {"height", true},      {"sigma", true},        {"lor_wid", true},
    {"lor_frac", true},     {"eng_cal", false},    {"fwhm_codes", true},   {"fwhm_kev", true},
    {"valley_peak", false}, {"tail_total", false}, {"peaks_total", false}, {"mca_total", false},
    {"most_total", false},  {"chi2", false},       {"area", true},         {"posn_err", true},
    {"height_err", true},   {"sigma_err", true},   {"area_err", true},
};

// The values of the quantities, appended in the order of that list.
struct value_list {
    std::vector<double> values;
    std::size_t peaks;
    template <class F> void each(F of) {
        for (std::size_t i = 0; i < peaks; ++i)
            values.push_back(of(i));
    }
};

int refuse(int cn, const char *line) {
    sv_print(cn, line);
    return -1;
}

} // namespace

std::vector<std::string> peak_fit_labels(int num_peaks) {
    std::vector<std::string> labels;
    for (const quantity &q : quantities) {
        if (!q.of_each_peak)
            labels.emplace_back(q.label);
        for (int i = 0; q.of_each_peak && i < num_peaks; ++i)
            labels.push_back(std::string(q.label) + "[" + std::to_string(i) + "]");
    }
    return labels;
}

double peak_fit_calibration(const peak_fit_fitted &fitted, const peak_fit_lines &lines) {
    double sw = 0.0, sx = 0.0, sy = 0.0;
    std::size_t used = 0, first = 0;
    const auto count = static_cast<std::size_t>(fitted.num_peaks);
    const auto weight = [&](std::size_t i) {
        const double error = fitted.error[i].posn;
        return error > 0.0 && lines.energy[i] > 0.0 ? 1.0 / (error * error) : 0.0;
    };
    for (std::size_t i = count; i-- > 0;) {
        if (!(weight(i) > 0.0))
            continue;
        ++used;
        first = i;
        sw += weight(i);
        sx += weight(i) * fitted.peak[i].posn;
        sy += weight(i) * lines.energy[i];
    }
    double sxx = 0.0, sxy = 0.0;
    for (std::size_t i = 0; i < count && used > 1; ++i) {
        const double dx = fitted.peak[i].posn - sx / sw;
        sxx += weight(i) * dx * dx;
        sxy += weight(i) * dx * (lines.energy[i] - sy / sw);
    }
    if (sxx > 0.0 && sxy > 0.0)
        return sxy / sxx;
    return fitted.peak[first].posn > 0.0 ? lines.energy[first] / fitted.peak[first].posn : 0.0;
}

std::vector<double> peak_fit_values(const peak_fit_fitted &fitted, const peak_fit_lines &lines,
                                    std::span<const double> spectrum) {
    peak_fit_fitted f = fitted;
    if (f.status != peak_fit_status::fitted) {
        f.peak = {};
        f.error = {};
        f.chi2 = 0.0;
        for (peak_fit_peak_t &p : f.peak)
            p.posn = -1.0;
    }
    const bool ok = f.status == peak_fit_status::fitted;
    const double gain = ok ? peak_fit_calibration(f, lines) : 0.0;
    const double p0 = f.peak[0].posn, p1 = f.peak[f.num_peaks > 1 ? 1 : 0].posn;
    const auto fwhm = [&](std::size_t i) { return ok ? peak_fit_fwhm(f.peak[i]) : 0.0; };
    value_list v{{}, static_cast<std::size_t>(f.num_peaks)};
    v.each([&](std::size_t i) { return f.peak[i].posn; });
    v.each([&](std::size_t i) { return f.peak[i].height; });
    v.each([&](std::size_t i) { return f.peak[i].sigma; });
    v.each([&](std::size_t i) { return f.peak[i].lor_width; });
    v.each([&](std::size_t i) { return f.peak[i].lor_frac; });
    v.values.push_back(gain);
    v.each([&](std::size_t i) { return fwhm(i); });
    v.each([&](std::size_t i) { return fwhm(i) * gain; });
    v.values.push_back(peak_fit_valley_peak(spectrum, p0, p1, f.peak[0].height));
    v.values.push_back(peak_fit_tail_total(spectrum, p0, p1));
    v.values.push_back(ok ? peak_fit_peaks_total(spectrum, p0, p1) : 0.0);
    v.values.push_back(peak_fit_mca_total(spectrum));
    v.values.push_back(peak_fit_most_total(spectrum));
    v.values.push_back(f.chi2);
    v.each([&](std::size_t i) { return peak_fit_area(f.peak[i]); });
    v.each([&](std::size_t i) { return f.error[i].posn; });
    v.each([&](std::size_t i) { return f.error[i].height; });
    v.each([&](std::size_t i) { return f.error[i].sigma; });
    v.each([&](std::size_t i) { return f.error[i].area; });
    return v.values;
}

int peak_fit_start_output(int cn, const char *name, int nq, int ns, int num_peaks, result_module &out) {
    const std::vector<std::string> labels = peak_fit_labels(num_peaks);
    const int frames = static_cast<int>(labels.size());
    if (!out.find(name)) {
        const module_plan plan{.element = mod_element::float64,
                               .num_x = nq,
                               .num_y = ns,
                               .num_t = frames,
                               .is_3d = true,
                               .x_label = "Point",
                               .y_label = "Scan",
                               .t_label = "Quantity",
                               .labels = labels};
        if (out.make(cn, name, plan) != 0)
            return -1;
        out.keep();
        return 0;
    }
    if (out.look(cn) != 0)
        return -1;
    const module_view &mod = out.view();
    if (mod.num_x < nq || mod.num_y < ns || mod.num_t < frames)
        return refuse(cn, "! Out of space in result mod\n");
    if (mod.data_type != MOD_DOUBLE && mod.data_type != MOD_FLOAT)
        return refuse(cn, "! The result module must hold float or double elements\n");
    mod_set_labels(out.head(), labels); // as far as it has room for them
    return 0;
}

void peak_fit_clear(const result_module &out, int nq, int ns, int num_peaks) {
    peak_fit_fitted nothing;
    nothing.num_peaks = num_peaks;
    const std::vector<double> values = peak_fit_values(nothing, {}, {});
    for (int s = 0; s < ns; ++s)
        for (int q = 0; q < nq; ++q)
            peak_fit_put(out, q, s, values);
}

void peak_fit_put(const result_module &out, int q, int s, std::span<const double> values) {
    const module_view &mod = out.view();
    for (std::size_t frame = 0; frame < values.size(); ++frame)
        mod_put_element(mod.at(q, s, static_cast<int>(frame)), mod.data_type, values[frame]);
}

} // namespace kestrel
