// `maths pulsar-dtc`: the dead times of a pulse processor's channel from rates at a series of points.
#include "maths/dead_time_fit.h"
#include "parser/call.h"
#include "parser/qualifiers.h"
#include "parser/tree.h"
#include "parser/variables.h"
#include "server/output.h"
#include "unified/convert.h"
#include "unified/handles/handles.h"

#include <cmath>
#include <string>

namespace kestrel {

namespace {

constexpr pt_format pulsar_dtc_format("%d + %d %d frame %d rate-terms time %g path %d chan %d into %s = %d");
using dtc_quals = pt_qualifiers<pulsar_dtc_format>;

enum row : std::size_t { reference_row, all_row, window_row, rows };
constexpr int most_points = 1 << 16;

// Points first ... last of a handle: 0, or -1 after a line. Those where something is not above 0 are left out.
int read_points(int cn, int handle, int first, int last, int frame, std::vector<dead_time_point> &points) {
    const std::optional<unified_info> info = unified_info_of(handle);
    const long long points_asked = static_cast<long long>(last) - first + 1;
    if (info && (points_asked < 1 || points_asked > most_points)) {
        sv_printf(cn, "! Points %d to %d should be 1 to %d\n", first, last, most_points);
        return -1;
    }
    const int count = static_cast<int>(points_asked);
    if (unified_check_box(cn, "pulsar-dtc", handle, {first, 0, frame, count, rows, 1}) != 0)
        return -1;
    if (info->data_type == el_int48) {
        sv_printf(cn, "! Rates should not be 48-bit integers\n");
        return -1;
    }
    const std::size_t width = static_cast<std::size_t>(count);
    std::vector<std::byte> raw(rows * width * static_cast<std::size_t>(info->elem_size));
    if (app_unified_read(cn, handle, raw.data(), first, 0, frame, count, rows, 1) != 0)
        return -1;
    std::vector<double> values(rows * width);
    convert_elements(raw.data(), info->data_type, values.data(), el_double, values.size());
    for (std::size_t i = 0; i < width; ++i) {
        const dead_time_point p{values[reference_row * width + i], values[all_row * width + i],
                                values[window_row * width + i]};
        const auto is_usable = [](double v) { return v > 0 && std::isfinite(v); };
        if (is_usable(p.reference) && is_usable(p.all) && is_usable(p.window))
            points.push_back(p);
    }
    if (points.size() < width)
        sv_printf(cn, "# %zu points are left out: all three rows should be above 0\n", width - points.size());
    return 0;
}

struct told_parameter {
    dead_time_parameter which;
    const char *name, *unit, *what;
};
constexpr told_parameter told[] = {
    {dt_k, "k", "", "true rate of a unit of the reference"},
    {dt_a, "a", " s", "all events: dead time"},
    {dt_b, "b", " s^2", "all events: rate term"},
    {dt_s, "s", "", "share of the events in the window"},
    {dt_c, "c", " s", "in the window: dead time"},
    {dt_d, "d", " s^2", "in the window: rate term"},
};

// Variables: the prefix and a parameter's name, the same with _err, chi2, and the command that sets the parameters.
int store(int cn, const std::string &prefix, const dead_time_fit_result &fit, const std::string &command) {
    for (const told_parameter &p : told)
        if (set_double_variable(cn, prefix + p.name, fit.value[p.which], true) != 0 ||
            set_double_variable(cn, prefix + p.name + "_err", fit.error[p.which], true) != 0)
            return -1;
    if (set_double_variable(cn, prefix + "chi2", fit.chi2, true) != 0)
        return -1;
    return set_string_variable(cn, prefix + "command", command, true);
}

std::string command_of(const dtc_quals &q, const dead_time_fit_result &fit) {
    char text[256];
    const auto &v = fit.value;
    std::snprintf(text, sizeof text, "pulsar3 dtc set-params %d %d 0.0 %.9e 0.0 %.9e", q.number("path"),
                  q.number("chan", -1), v[dt_a], v[dt_c]);
    std::string command = text;
    if (q.given("rate-terms")) {
        std::snprintf(text, sizeof text, " all-rate-c %.9e win-rate-c %.9e", v[dt_b], v[dt_d]);
        command += text;
    }
    return command;
}

int pulsar_dtc(int quals, int cn, int handle, int first, int last) {
    const dtc_quals q(quals);
    const bool rate_terms = q.given("rate-terms");
    const double time = q.real("time");
    if (q.given("time") && !(time > 0)) {
        sv_printf(cn, "! The time of a point should be above 0, not %g\n", time);
        return -1;
    }
    if (OptionalArgumentCount < 2)
        last = unified_get_nx(handle) - 1;
    std::vector<dead_time_point> points;
    if (read_points(cn, handle, first, last, q.number("frame"), points) != 0)
        return -1;
    if (points.size() < dead_time_fit_least(rate_terms)) {
        sv_printf(cn, "! At least %zu points are needed, not %zu\n", dead_time_fit_least(rate_terms),
                  points.size());
        return -1;
    }
    const std::optional<dead_time_fit_result> fit = dead_time_fit(points, rate_terms, time);
    if (!fit) {
        sv_printf(cn, "! The points do not fix the dead times\n");
        return -1;
    }
    for (const told_parameter &p : told)
        if (rate_terms || (p.which != dt_b && p.which != dt_d))
            sv_printf(cn, "# %s = %.6g +- %.2g%s  %s\n", p.name, fit->value[p.which], fit->error[p.which],
                      p.unit, p.what);
    sv_printf(cn, "# chi^2 by degrees of freedom = %.4g, %zu points\n", fit->chi2, points.size());
    const std::string command = command_of(q, *fit);
    sv_printf(cn, "# %s\n", command.c_str());
    return store(cn, q.text("into", "pulsar_dtc_"), *fit, command);
}

} // namespace

extern constinit const PARSE_TREE row_maths_pulsar_dtc = pt_command<pulsar_dtc>(
    "pulsar-dtc", pulsar_dtc_format, "Calculate PULSAR dead time correction parameters from memory or file",
    "Unified handle whose rows are reference rate, all-event rate, in-window rate/First point/Last point/"
    "Frame of the handle/Fit the rate terms, too/Live time of each point (seconds)/"
    "Path in the command that sets the parameters/Channel in it, -1 if not given/"
    "Begin of the names of variables, pulsar_dtc_ if not given");

} // namespace kestrel
