// `maths integrate`: a region projected onto an axis or a plane by summation.
#include "maths/output.h"
#include "maths/row_groups.h"
#include "parser/tree.h"
#include "server/output.h"
#include "support/element.h"

#include <algorithm>
#include <optional>
#include <vector>

namespace kestrel {

namespace {

constexpr pt_format integrate_format(
    text_join<"%d %d %d %d %d %d %d x y t xy xt yt no-clear average min-last %g ", umaths_output_words>);

enum projection_target : int { to_x, to_y, to_t, to_xy, to_xt, to_yt };

// What is kept: a result of nx by ny (one plane), and how each of its elements comes about.
struct projection {
    projection_target target = to_x;
    int nx = 1, ny = 1;
    bool add = false;               // to what stands there
    bool average = false;           // by the number of elements summed,
    std::optional<double> min_last; // or of those of the last row that are above this
};

int check_target(int cn, const UMaths &r, projection &p) {
    // By target: the axes that it keeps.
    static constexpr struct {
        bool x, y, t;
        const char *refusal;
    } targets[] = {
        {true, false, false, "! Cannot project on to X AXIS as it is 1 long\n"},
        {false, true, false, "! Cannot project on to Y AXIS as it is 1 long\n"},
        {false, false, true, "! Cannot project on to T AXIS as it is 1 long\n"},
        {true, true, false, "! Cannot project on to XY PLANE as it is not 2D\n"},
        {true, false, true, "! Cannot project on to XT PLANE as it is not 2D\n"},
        {false, true, true, "! Cannot project on to YT PLANE as it is not 2D\n"},
    };
    const auto &keeps = targets[p.target];
    if ((keeps.x && r.dx == 1) || (keeps.y && r.dy == 1) || (keeps.t && r.dt == 1)) {
        sv_printf(cn, "%s", keeps.refusal);
        return -1;
    }
    p.nx = keeps.x ? r.dx : keeps.y ? r.dy : r.dt;
    p.ny = keeps.x && keeps.y ? r.dy : keeps.t && (keeps.x || keeps.y) ? r.dt : 1;
    return 0;
}

std::size_t width_of(const projection &p) {
    return static_cast<std::size_t>(p.nx);
}

// Adds every row to the line of sums of its plane, or to the one line that there is. Parts are columns, so that
// each sum adds its elements in order.
template <class T> bool add_held_lines(int cn, UMaths &r, bool one_line, sum_of<T> *sums) {
    constexpr int columns = 1024; // of a part: their sums stay in the nearest cache
    const auto rows = umaths_all_rows(cn, r);
    if (!rows)
        return false;
    const int blocks = (r.dx + columns - 1) / columns;
    return umaths_share(cn, r, one_line ? blocks : blocks * r.dt, [&](int part) {
        const int x = part % blocks * columns, first = part / blocks, end = one_line ? r.dt : first + 1;
        const std::size_t from = static_cast<std::size_t>(x);
        const std::size_t count = static_cast<std::size_t>(std::min(columns, r.dx - x));
        sum_of<T> *const to = sums + static_cast<std::size_t>(first) * static_cast<std::size_t>(r.dx) + from;
        for (int plane = first; plane < end; ++plane) {
            int row = 0;
            for (; row + 4 <= r.dy; row += 4) {
                four_rows<T> four = umaths_four_rows<T>(*rows, row, 1, plane, 0);
                for (const T *&line : four)
                    line += from;
                add_rows(four, count, to);
            }
            for (; row < r.dy; ++row)
                add_row(std::span(rows->row<T>(row, plane) + from, count), to);
        }
    });
}

// Adds every row to the line of sums where it belongs.
template <class T> bool add_lines(int cn, UMaths &r, const projection &p, sum_of<T> *sums) {
    if (p.target != to_xy && umaths_all_held(r))
        return add_held_lines<T>(cn, r, p.target == to_x, sums);
    for (int plane = 0; plane < r.dt; ++plane)
        for (int row = 0; row < r.dy; ++row) {
            const std::span<const T> line = umaths_row<T>(cn, row, plane, r);
            if (line.empty())
                return false;
            const int to = p.target == to_xy ? row : p.target == to_xt ? plane : 0;
            add_row(line, sums + static_cast<std::size_t>(to) * line.size());
        }
    return true;
}

template <class T> bool sum_region(int cn, UMaths &r, const projection &p, std::vector<sum_of<T>> &sums) {
    if (p.target == to_x || p.target == to_xt || p.target == to_xy)
        return add_lines<T>(cn, r, p, sums.data());
    return umaths_row_totals<T>(cn, r, [&](sum_of<T> total, int row, int plane) {
        const std::size_t y = static_cast<std::size_t>(row), t = static_cast<std::size_t>(plane);
        sums[p.target == to_y ? y : p.target == to_t ? t : t * width_of(p) + y] += total;
    });
}

// How many elements each result sums.
std::uint64_t summed(const UMaths &r, const projection &p) {
    const std::uint64_t all = static_cast<std::uint64_t>(r.dx) * static_cast<std::uint64_t>(r.dy) *
                              static_cast<std::uint64_t>(r.dt);
    return all / (static_cast<std::uint64_t>(p.nx) * static_cast<std::uint64_t>(p.ny));
}

// The number by which each result is divided.
template <class T> bool divisor(int cn, UMaths &r, const projection &p, std::uint64_t &out) {
    out = summed(r, p);
    if (!p.min_last || p.target != to_y)
        return true;
    const std::span<const T> line = umaths_row<T>(cn, r.dy - 1, r.dt - 1, r);
    if (line.empty())
        return false;
    const double least = *p.min_last;
    const auto above = std::count_if(line.begin(), line.end(), [least](T value) { return value > least; });
    out = above > 0 ? static_cast<std::uint64_t>(above) * static_cast<std::uint64_t>(r.dt) : 1;
    return true;
}

std::uint32_t divided(std::uint64_t sum, std::uint64_t by) {
    return static_cast<std::uint32_t>(sum / by);
}
float divided(double sum, std::uint64_t by) {
    const float reciprocal = 1.0F / static_cast<float>(by);
    return static_cast<float>(sum) * reciprocal;
}

// One result: what was summed here, by itself or added to what stands there.
std::uint32_t result_of(std::uint64_t sum, std::uint64_t by, const std::uint32_t *before) {
    return (by ? divided(sum, by) : static_cast<std::uint32_t>(sum)) + (before ? *before : 0U);
}
float result_of(double sum, std::uint64_t by, const float *before) {
    if (by)
        return divided(sum, by) + (before ? *before : 0.0F);
    return static_cast<float>(sum + (before ? static_cast<double>(*before) : 0.0));
}

// Writes result rows from `top` on, as many as there are sums.
template <class T>
void write_rows(const projection &p, int top, std::span<const sum_of<T>> sums, std::uint64_t by,
                const umaths_result_rows &out) {
    const bool add = p.add;
    for (int row = top; !sums.empty(); ++row, sums = sums.subspan(width_of(p))) {
        T *line = out.row<T>(row, 0);
        for (std::size_t i = 0; i < width_of(p); ++i)
            line[i] = result_of(sums[i], by, add ? &line[i] : nullptr);
    }
}

// Rows whose sums fit the cache together are summed over all frames, four at a time, and written before the
// next ones. Each result adds its elements in order of frames.
constexpr std::size_t cached_sums = 16384;

template <class T>
void sum_frames(const UMaths &r, const umaths_rows &rows, int top, int count, std::vector<sum_of<T>> &sums) {
    const std::size_t width = static_cast<std::size_t>(r.dx);
    const auto place = [&](int row) { return &sums[static_cast<std::size_t>(row) * width]; };
    umaths_over_frames<T>(
        r, rows, top, count,
        [&](const four_rows<T> &lines, int row, int) { add_rows(lines, width, place(row)); },
        [&](std::span<const T> line, int row, int) { add_row(line, place(row)); });
}

template <class T>
int integrate_frames(int cn, UMaths &r, const projection &p, std::uint64_t by, UMathsOutput &out) {
    const auto rows = umaths_all_rows(cn, r);
    if (!rows)
        return umaths_read_error(cn, r);
    const auto to = umaths_all_output(cn, out);
    if (!to)
        return -1;
    const int at_once = std::clamp(static_cast<int>(cached_sums / width_of(p)), 1, p.ny);
    const bool all = umaths_share(cn, r, (p.ny + at_once - 1) / at_once, [&](int part) {
        const int top = part * at_once, count = std::min(at_once, p.ny - top);
        std::vector<sum_of<T>> sums(static_cast<std::size_t>(count) * width_of(p));
        to->begin(top, 0, count);
        sum_frames<T>(r, *rows, top, count, sums);
        write_rows<T>(p, top, sums, by, *to);
    });
    return all ? 0 : -1;
}

template <class T> int integrate(int cn, UMaths &r, const projection &p, const umaths_destination &to) {
    UMathsOutput out;
    if (umaths_start_output(cn, to, p.nx, p.ny, 1, out, p.add ? RWMode::read_then_write : RWMode::write,
                            std::is_floating_point_v<T> ? mod_element::float32 : mod_element::u_int32) != 0)
        return -1;
    if (umaths_stay_clear_of(cn, out.mod_head.head(), r) != 0)
        return -1;
    if (p.target == to_xy && umaths_all_held(r))
        return integrate_frames<T>(cn, r, p, p.average ? summed(r, p) : 0, out);
    std::uint64_t by = 0;
    std::vector<sum_of<T>> sums(width_of(p) * static_cast<std::size_t>(p.ny));
    if (!sum_region<T>(cn, r, p, sums) || (p.average && !divisor<T>(cn, r, p, by)))
        return umaths_read_error(cn, r);
    const auto rows = umaths_all_output(cn, out);
    if (!rows)
        return -1;
    rows->begin(0, 0, p.ny);
    write_rows<T>(p, 0, sums, by, *rows);
    return 0;
}

int umaths_integrate(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2) {
    const pt_qualifiers<integrate_format> q(quals);
    if (q.count({"x", "y", "t", "xy", "xt", "yt"}) != 1) {
        sv_printf(cn, "! Must specify exactly one of X, Y, T ,XY, XT, YT\n");
        return -1;
    }
    projection p;
    p.target = static_cast<projection_target>(q.which({"x", "y", "t", "xy", "xt", "yt"}));
    p.add = q.given("no-clear");
    p.average = q.given("average");
    p.min_last = q.real_if_given("min-last");
    const umaths_destination to = umaths_destination_of(q);
    UMaths reader;
    if (umaths_start(cn, umaths_make_region(x1, y1, t1, x2, y2, t2), handle, reader, 0) != 0)
        return -1;
    if (reader.utype == el_double) {
        sv_printf(cn, "! Umaths integrate cannot handle double data yet\n");
        return -1;
    }
    if (check_target(cn, reader, p) != 0)
        return -1;
    return reader.utype == el_long ? integrate<std::uint32_t>(cn, reader, p, to)
                                   : integrate<float>(cn, reader, p, to);
}

} // namespace

extern constinit const PARSE_TREE row_maths_integrate = pt_command<umaths_integrate>(
    "integrate", integrate_format, "Integrate counts from volume to plane or line",
    text_join<"Unified handle/x1/y1/t1/x2/y2/t2/Project on to X axis/Project on to Y axis/"
              "Project on to T axis/Project on to XY plane/Project on to XT plane/Project on to YT plane/"
              "Accumulate data over current contents/Divide by number of elements summed/"
              "With y and average, count elements of the last row above this/",
              umaths_output_help>);

} // namespace kestrel
