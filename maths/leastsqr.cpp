// `maths leastsqr-fit`: a straight line through points of a module's row.
#include "maths/module_rows.h"
#include "maths/results.h"
#include "parser/qualifiers.h"
#include "parser/tree.h"
#include "server/output.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <vector>

namespace kestrel {

namespace {

constexpr pt_format
    leastsqr_format("%s %d %d %d + %s errors %d fit %d extrapolate x-row %d const-zero cross-x0 %g = %d");

struct LinLeastSqrFit {
    double m = 0.0; // slope
    double c = 0.0; // intercept
    double max_error = 0.0;
    int worst_point = 0;
    int error = 0; // the points do not fix a line
};

// One x does not fix a line, nor does x = 0 one through the origin; rounding would hide it from the sums
// below.
bool fixes_line(const std::vector<double> &x, bool through_zero) {
    const auto [least, most] = std::minmax_element(x.begin(), x.end());
    return through_zero ? *least != 0.0 || *most != 0.0 : x.size() > 1 && *least != *most;
}

// The straight line of least squares: Press et al., Numerical Recipes, section 15.2, with equal weights. The
// slope is written through the sample variance of x.
void leastsqr_fit(const std::vector<double> &x, const std::vector<double> &y, bool through_zero,
                  LinLeastSqrFit &fit) {
    const double n = static_cast<double>(x.size());
    double sx = 0.0, sy = 0.0, sxx = 0.0, sxy = 0.0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        sx += x[i];
        sy += y[i];
        sxx += x[i] * x[i];
        sxy += x[i] * y[i];
    }
    if (through_zero) {
        fit.m = sxy / sxx;
        fit.c = 0.0;
    } else {
        fit.m = (n * sxy - sx * sy) / (n * (n - 1) * ((sxx - sx * sx / n) / (n - 1)));
        fit.c = sy / n - sx * fit.m / n;
    }
    fit.error = !fixes_line(x, through_zero) || !std::isfinite(fit.m) || !std::isfinite(fit.c);
}

struct fit_request {
    int cn;
    int first, last, row;
    std::optional<int> errors_row, fit_row, x_row;
    bool extrapolate;         // the results fill the whole row
    bool const_zero;          // the intercept is 0
    std::optional<double> x0; // where the line is 0

    bool through_zero() const { return const_zero || x0; }
};

int check(const fit_request &q, const linked_module &module) {
    const module_view &mod = module.view;
    if (umaths_check_row(q.cn, "Row", module, q.row) != 0 ||
        (q.x_row && umaths_check_row(q.cn, "X Row", module, *q.x_row) != 0) ||
        (q.errors_row && umaths_check_row(q.cn, "Error Row", module, *q.errors_row) != 0) ||
        (q.fit_row && umaths_check_row(q.cn, "Fit Row", module, *q.fit_row) != 0))
        return -1;
    if (q.first < 0 || q.first >= mod.num_x || q.last < 0 || q.last >= mod.num_x) {
        sv_printf(q.cn, "! First and last should be in range 0 to %d, not %d, %d\n", mod.num_x - 1, q.first,
                  q.last);
        return -1;
    }
    if (q.last < q.first || (q.last == q.first && !q.through_zero())) {
        sv_printf(q.cn, "! A straight line needs at least 2 points, not %d to %d\n", q.first, q.last);
        return -1;
    }
    return 0;
}

double element(const module_view &mod, int point, int row) {
    return mod_get_element(mod.at(point, row, 0), mod.data_type);
}

double x_of(const fit_request &q, const module_view &mod, int point) {
    const double x = q.x_row ? element(mod, point, *q.x_row) : point;
    return q.x0 ? x - *q.x0 : x;
}

double fitted(const fit_request &q, const module_view &mod, const LinLeastSqrFit &fit, int point) {
    return fit.m * x_of(q, mod, point) + fit.c;
}

void find_worst(const fit_request &q, const module_view &mod, LinLeastSqrFit &fit) {
    fit.worst_point = q.first;
    for (int point = q.first; point <= q.last; ++point) {
        const double error = std::fabs(element(mod, point, q.row) - fitted(q, mod, fit, point));
        if (error <= fit.max_error)
            continue;
        fit.max_error = error;
        fit.worst_point = point;
    }
}

// The rows may be the ones that were fitted, so both values are worked out before either is stored.
void store_rows(const fit_request &q, const module_view &mod, const LinLeastSqrFit &fit) {
    const int from = q.extrapolate ? 0 : q.first, to = q.extrapolate ? mod.num_x - 1 : q.last;
    for (int point = from; point <= to; ++point) {
        const double value = fitted(q, mod, fit, point);
        const double residual = element(mod, point, q.row) - value;
        if (q.errors_row)
            mod_put_element(mod.at(point, *q.errors_row, 0), mod.data_type, residual);
        if (q.fit_row)
            mod_put_element(mod.at(point, *q.fit_row, 0), mod.data_type, value);
    }
}

int leastsqr_fit_command(int quals, int cn, const char *module, int first, int last, int row,
                         const char *variable) {
    const pt_qualifiers<leastsqr_format> given(quals);
    const fit_request q{cn,
                        first,
                        last,
                        row,
                        given.number_if_given("errors"),
                        given.number_if_given("fit"),
                        given.number_if_given("x-row"),
                        given.given("extrapolate"),
                        given.given("const-zero"),
                        given.real_if_given("cross-x0")};
    linked_module linked;
    if (umaths_link_module(cn, module, linked) != 0 || check(q, linked) != 0)
        return -1;
    const module_view &mod = linked.view;
    std::vector<double> x, y;
    for (int point = first; point <= last; ++point) {
        x.push_back(x_of(q, mod, point));
        y.push_back(element(mod, point, row));
    }
    LinLeastSqrFit fit;
    leastsqr_fit(x, y, q.through_zero(), fit);
    if (fit.error) {
        sv_printf(cn, "! The points %d to %d do not fix a straight line\n", first, last);
        return -1;
    }
    find_worst(q, mod, fit);
    sv_printf(cn, "# Max error is %g at point %d\n", fit.max_error, fit.worst_point);
    sv_printf(cn, "# y = %g*x+%g\n", fit.m, fit.c);
    set_var(cn, variable, "m", fit.m);
    set_var(cn, variable, "c", fit.c);
    store_rows(q, mod, fit);
    return 0;
}

} // namespace

extern constinit const PARSE_TREE row_maths_leastsqr_fit = pt_command<leastsqr_fit_command>(
    "leastsqr-fit", leastsqr_format, "Perform a least squares fit of points in data module",
    "Module name/First point/Last point/Row number/Optional variable to save results/"
    "Module row to store residuals/Module row to store the fitted line/"
    "Fill whole row with the fit and its error/Take x from this row/Force the intercept to 0/"
    "Force the line through (x0, 0)");

} // namespace kestrel
