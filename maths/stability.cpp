// `maths stability`: how steady each element is as one axis varies.
#include "maths/axis.h"
#include "maths/output.h"
#include "parser/tree.h"
#include "server/output.h"
#include "support/element.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace kestrel {

namespace {

constexpr pt_format
    stability_format(text_join<"%d %d %d %d %d %d %d x y t signed skip %d ", umaths_output_words>);

// For each element of what remains: its first value, the mean of the distances from that and the sum of
// squares about it so far (Welford, Technometrics 4, 1962), smallest and largest. With the first value taken
// off, a small spread on a large mean loses nothing. A NaN spoils the mean and the spread, not the limits.
struct series {
    std::vector<double> first, mean, squares, lowest, highest;
    explicit series(const reduced_axis &a)
        : first(static_cast<std::size_t>(a.nx) * static_cast<std::size_t>(a.ny)), mean(first.size()),
          squares(first.size()), lowest(first.size(), std::numeric_limits<double>::quiet_NaN()),
          highest(lowest) {}

    // The nth value (from 1) of the element at `at`.
    void take(std::size_t at, double n, double value) {
        if (n == 1.0)
            first[at] = value;
        const double distance = value - first[at] - mean[at];
        mean[at] += distance / n;
        squares[at] += distance * (value - first[at] - mean[at]);
        lowest[at] = value >= lowest[at] || std::isnan(value) ? lowest[at] : value;
        highest[at] = value <= highest[at] || std::isnan(value) ? highest[at] : value;
    }

    // The sums become mean and deviation.
    void finish(double n) {
        for (std::size_t at = 0; at < first.size(); ++at) {
            mean[at] += first[at];
            squares[at] = std::sqrt(squares[at] / n);
        }
    }
};

std::size_t size_of(int count) {
    return static_cast<std::size_t>(count);
}

// A row's place in the series and its values. `skip` values of the axis are left out in front.
template <class T>
void take_row(const UMaths &r, region_axis axis, std::span<const T> line, int row, int plane, int skip,
              series &s) {
    if (axis == axis_x) {
        const std::size_t at = size_of(plane) * size_of(r.dy) + size_of(row);
        for (std::size_t i = size_of(skip); i < line.size(); ++i)
            s.take(at, static_cast<double>(i - size_of(skip)) + 1.0, static_cast<double>(line[i]));
        return;
    }
    const int step = (axis == axis_y ? row : plane) - skip;
    const std::size_t at = size_of(axis == axis_y ? plane : row) * line.size();
    for (std::size_t i = 0; step >= 0 && i < line.size(); ++i)
        s.take(at + i, step + 1.0, static_cast<double>(line[i]));
}

template <class T> bool take_region(int cn, UMaths &r, region_axis axis, int skip, series &s) {
    for (int plane = axis == axis_t ? skip : 0; plane < r.dt; ++plane)
        for (int row = 0; row < r.dy; ++row) {
            const std::span<const T> line = umaths_row<T>(cn, row, plane, r);
            if (line.empty())
                return false;
            take_row(r, axis, line, row, plane, skip, s);
        }
    return true;
}

bool take_region(int cn, UMaths &r, region_axis axis, int skip, bool with_sign, series &s) {
    if (r.utype == el_float)
        return take_region<float>(cn, r, axis, skip, s);
    if (r.utype == el_double)
        return take_region<double>(cn, r, axis, skip, s);
    return with_sign ? take_region<std::int32_t>(cn, r, axis, skip, s)
                     : take_region<std::uint32_t>(cn, r, axis, skip, s);
}

// A line that remains gives four rows, a plane four planes.
int write_result(int cn, const reduced_axis &a, const series &s, UMathsOutput &out) {
    const std::vector<double> *const quantities[] = {&s.mean, &s.squares, &s.lowest, &s.highest};
    for (int q = 0; q < 4; ++q)
        for (int row = 0; row < a.ny; ++row) {
            std::byte *to = umaths_get_output(cn, a.ny > 1 ? row : q, a.ny > 1 ? q : 0, out);
            if (!to)
                return -1;
            std::copy_n(quantities[q]->data() + size_of(row) * size_of(a.nx), a.nx,
                        reinterpret_cast<double *>(to));
        }
    if (s.mean.size() == 1)
        sv_printf(cn, "# Aver = %g, Stdev = %g, Min = %g, Max = %g\n", s.mean[0], s.squares[0], s.lowest[0],
                  s.highest[0]);
    return 0;
}

int check_length(int cn, const UMaths &r, const reduced_axis &a, int skip) {
    const int length = umaths_axis_length(r, a);
    const char letter = a.axis == axis_x ? 'X' : a.axis == axis_y ? 'Y' : 'T';
    if (length < 2) {
        sv_printf(cn, "! Nothing varies along %c AXIS as it is 1 long\n", letter);
        return -1;
    }
    if (skip < 0 || skip > length - 2) {
        sv_printf(cn, "! Skip should be in range 0 to %d, not %d\n", length - 2, skip);
        return -1;
    }
    return 0;
}

int umaths_stability(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2) {
    const pt_qualifiers<stability_format> q(quals);
    reduced_axis a;
    if (umaths_choose_axis(cn, q, a) != 0)
        return -1;
    const int skip = q.number("skip");
    const umaths_destination to = umaths_destination_of(q);
    UMaths r;
    UMathsOutput out;
    if (umaths_start(cn, umaths_make_region(x1, y1, t1, x2, y2, t2), handle, r, 0) != 0 ||
        check_length(cn, r, a, skip) != 0)
        return -1;
    umaths_size_rest(r.dx, r.dy, r.dt, a);
    const bool plane = a.ny > 1;
    if (umaths_start_output(cn, to, a.nx, plane ? a.ny : 4, plane ? 4 : 1, out, RWMode::write,
                            mod_element::float64) != 0 ||
        umaths_stay_clear_of(cn, out.mod_head.head(), r) != 0)
        return -1;
    series s(a);
    if (!take_region(cn, r, a.axis, skip, q.given("signed"), s))
        return umaths_read_error(cn, r);
    s.finish(umaths_axis_length(r, a) - skip);
    return write_result(cn, a, s, out);
}

} // namespace

extern constinit const PARSE_TREE row_maths_stability = pt_command<umaths_stability>(
    "stability", stability_format, "Measure 'DC' signal aver, Stdev, min and max as 1 dimension varies",
    text_join<"Unified handle/x1/y1/t1/x2/y2/t2/As X varies/As Y varies/As T varies/Long data are signed/"
              "Leave out this many elements at the start/",
              umaths_output_help>);

} // namespace kestrel
