// `maths histogram`: how often pairs of values from two rows of a module occur, as an image.
#include "maths/module_rows.h"
#include "maths/progress.h"
#include "parser/qualifiers.h"
#include "parser/tree.h"
#include "server/output.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <vector>

namespace kestrel {

namespace {

constexpr pt_format histogram_format(" %s %s x-row %d y-row %d num %d hist-x %d hist-y %d min-x %g max-x %g "
                                     "min-y %g max-y %g = %d");

constexpr int usual_bins = 256;
constexpr long long most_bins = 0x4000000; // more is a mistake, and would cost the machine its memory

// One axis of the histogram. The last bin includes its upper end.
struct bins {
    double least = 0.0, most = 0.0;
    int count = 0;

    bool holds(double value) const { return value >= least && value <= most; }
    std::size_t index(double value) const {
        const double place = (value - least) / (most - least) * count;
        return std::min(static_cast<std::size_t>(place), static_cast<std::size_t>(count) - 1);
    }
};

// The ends of an axis that the user gave.
struct given_range {
    std::optional<double> least, most;
};

struct request {
    int x_row, y_row, points;
    std::optional<int> hist_x, hist_y; // where not given, as large as the module is
    bins x, y;
};

int check_source(int cn, const linked_module &from, const request &q) {
    if (umaths_check_row(cn, "X Row", from, q.x_row) != 0 ||
        umaths_check_row(cn, "Y Row", from, q.y_row) != 0)
        return -1;
    if (q.points < 1 || q.points > from.view.num_x) {
        sv_printf(cn, "! Number of points should be in range 1 to %d, not %d\n", from.view.num_x, q.points);
        return -1;
    }
    return 0;
}

// The range of an axis. An end that was not given is that of the row's finite values; where they are all one
// value, half a unit to its side.
int find_range(int cn, const given_range &given, const char *axis, std::span<const double> row, bins &b) {
    double least = std::numeric_limits<double>::max(), most = -least;
    for (const double value : row)
        if (std::isfinite(value)) {
            least = std::min(least, value);
            most = std::max(most, value);
        }
    if (least > most && !(given.least && given.most)) {
        sv_printf(cn, "! No range for %s, its row holds no numbers\n", axis);
        return -1;
    }
    if (least == most) {
        least -= 0.5;
        most += 0.5;
    }
    b.least = given.least.value_or(least);
    b.most = given.most.value_or(most);
    if (b.least < b.most && std::isfinite(b.most - b.least))
        return 0;
    sv_printf(cn, "! Histogram of %s needs a range from less to more, not %g to %g\n", axis, b.least, b.most);
    return -1;
}

int check_bins(int cn, int x, int y) {
    if (x >= 1 && y >= 1 && static_cast<long long>(x) * y <= most_bins)
        return 0;
    sv_printf(cn, "! Histogram should have 1 to %lld bins, not %d by %d\n", most_bins, x, y);
    return -1;
}

// Links the destination, made as counts of hist_x by hist_y where it does not exist, and settles the sizes.
int link_destination(int cn, const char *name, request &q, result_module &to) {
    if (to.find(name)) {
        if (to.look(cn) != 0)
            return -1;
    } else {
        const int x = q.hist_x.value_or(usual_bins), y = q.hist_y.value_or(usual_bins);
        if (check_bins(cn, x, y) != 0)
            return -1;
        sv_printf(cn, "# Module '%s' not found, making it as 2D module\n", name);
        if (to.make(cn, name, {mod_element::u_int32, x, y}) != 0)
            return -1;
    }
    const module_view &mod = to.view();
    q.x.count = q.hist_x.value_or(mod.num_x);
    q.y.count = q.hist_y.value_or(mod.num_y);
    if (check_bins(cn, q.x.count, q.y.count) != 0)
        return -1;
    if (q.x.count <= mod.num_x && q.y.count <= mod.num_y)
        return 0;
    sv_printf(cn, "! Error, module '%s' exists but is too small (%d,%d), require at least (%d,%d)\n", name,
              mod.num_x, mod.num_y, q.x.count, q.y.count);
    return -1;
}

// False when ^C came.
bool fill(int cn, const request &q, std::span<const double> x, std::span<const double> y,
          std::vector<std::uint32_t> &counts) {
    constexpr std::size_t between_polls = 1 << 16;
    umaths_progress progress;
    long long counted = 0, outside = 0, none = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        if (i % between_polls == 0 && !progress.go_on(cn, static_cast<long long>(i), q.points))
            return false;
        if (std::isnan(x[i]) || std::isnan(y[i])) {
            ++none;
        } else if (!q.x.holds(x[i]) || !q.y.holds(y[i])) {
            ++outside;
        } else {
            ++counts[q.y.index(y[i]) * static_cast<std::size_t>(q.x.count) + q.x.index(x[i])];
            ++counted;
        }
    }
    sv_printf(cn, "# X from %g to %g in %d bins\n", q.x.least, q.x.most, q.x.count);
    sv_printf(cn, "# Y from %g to %g in %d bins\n", q.y.least, q.y.most, q.y.count);
    sv_printf(cn, "# %lld points counted, %lld outside, %lld not numbers\n", counted, outside, none);
    return true;
}

void write_counts(std::span<const std::uint32_t> counts, const request &q, const module_view &to) {
    std::vector<double> line(static_cast<std::size_t>(q.x.count));
    for (int row = 0; row < q.y.count; ++row, counts = counts.subspan(line.size())) {
        std::copy_n(counts.begin(), line.size(), line.begin());
        umaths_put_elements(to, 0, row, 0, line);
    }
}

int umaths_histogram(int quals, int cn, const char *from_name, const char *to_name) {
    const pt_qualifiers<histogram_format> given(quals);
    const given_range range_x{given.real_if_given("min-x"), given.real_if_given("max-x")};
    const given_range range_y{given.real_if_given("min-y"), given.real_if_given("max-y")};
    linked_module from;
    result_module to;
    if (umaths_link_module(cn, from_name, from) != 0)
        return -1;
    request q{given.number("x-row", 0),
              given.number("y-row", 1),
              given.number("num", from.view.num_x),
              given.number_if_given("hist-x"),
              given.number_if_given("hist-y"),
              {},
              {}};
    if (check_source(cn, from, q) != 0)
        return -1;
    std::vector<double> x(static_cast<std::size_t>(q.points)), y(x.size());
    umaths_get_elements(from.view, 0, q.x_row, 0, x);
    umaths_get_elements(from.view, 0, q.y_row, 0, y);
    if (find_range(cn, range_x, "X", x, q.x) != 0 || find_range(cn, range_y, "Y", y, q.y) != 0 ||
        link_destination(cn, to_name, q, to) != 0)
        return -1;
    std::vector<std::uint32_t> counts(static_cast<std::size_t>(q.x.count) *
                                      static_cast<std::size_t>(q.y.count));
    if (!fill(cn, q, x, y, counts))
        return -1;
    to.keep();
    write_counts(counts, q, to.view());
    return 0;
}

} // namespace

extern constinit const PARSE_TREE row_maths_histogram = pt_command<umaths_histogram>(
    "histogram", histogram_format, "Histogram list of X-Y values from data mod to data mod",
    "Source module/Destination module/Row with X values/Row with Y values/Number of points/"
    "Number of bins in X/Number of bins in Y/Lower end of X/Upper end of X/Lower end of Y/Upper end of Y");

} // namespace kestrel
