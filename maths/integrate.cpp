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

// Adds all rows of a plane to one line of sums, by fours where they can be held together.
template <class T> bool add_to_line(int cn, UMaths &r, int plane, sum_of<T> *sums) {
    int row = 0;
    for (; umaths_plane_held(r) && row + 4 <= r.dy; row += 4) {
        four_rows<T> rows;
        if (!umaths_four_rows(cn, row, 1, plane, 0, r, rows))
            return false;
        add_rows(rows, static_cast<std::size_t>(r.dx), sums);
    }
    for (; row < r.dy; ++row) {
        const std::span<const T> line = umaths_row<T>(cn, row, plane, r);
        if (line.empty())
            return false;
        add_row(line, sums);
    }
    return true;
}

// Adds each row of a plane to the line of sums of its own.
template <class T> bool add_to_lines(int cn, UMaths &r, int plane, sum_of<T> *sums) {
    for (int row = 0; row < r.dy; ++row) {
        const std::span<const T> line = umaths_row<T>(cn, row, plane, r);
        if (line.empty())
            return false;
        add_row(line, sums + static_cast<std::size_t>(row) * line.size());
    }
    return true;
}

// Adds the totals of a plane's rows to where they belong.
template <class T>
bool add_totals(int cn, UMaths &r, const projection &p, int plane, std::vector<sum_of<T>> &totals,
                std::vector<sum_of<T>> &sums) {
    if (!umaths_plane_totals<T>(cn, plane, r, totals))
        return false;
    const std::size_t t = static_cast<std::size_t>(plane);
    for (std::size_t y = 0; y < totals.size(); ++y)
        sums[p.target == to_y ? y : p.target == to_t ? t : t * width_of(p) + y] += totals[y];
    return true;
}

template <class T> bool sum_region(int cn, UMaths &r, const projection &p, std::vector<sum_of<T>> &sums) {
    std::vector<sum_of<T>> totals;
    bool read = true;
    for (int plane = 0; read && plane < r.dt; ++plane)
        switch (p.target) {
        case to_x:
            read = add_to_line<T>(cn, r, plane, sums.data());
            break;
        case to_xt:
            read = add_to_line<T>(cn, r, plane, &sums[static_cast<std::size_t>(plane) * width_of(p)]);
            break;
        case to_xy:
            read = add_to_lines<T>(cn, r, plane, sums.data());
            break;
        default:
            read = add_totals<T>(cn, r, p, plane, totals, sums);
        }
    return read;
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
int write_rows(int cn, const projection &p, int top, std::span<const sum_of<T>> sums, std::uint64_t by,
               UMathsOutput &out) {
    const bool add = p.add;
    for (int row = top; !sums.empty(); ++row, sums = sums.subspan(width_of(p))) {
        T *line = reinterpret_cast<T *>(umaths_get_output(cn, row, 0, out));
        if (!line)
            return -1;
        for (std::size_t i = 0; i < width_of(p); ++i)
            line[i] = result_of(sums[i], by, add ? &line[i] : nullptr);
    }
    return 0;
}

// Rows whose sums fit the cache together are summed over all frames, four at a time, and written before the
// next ones. Each result adds its elements in order of frames.
constexpr std::size_t cached_sums = 16384;

template <class T> bool sum_frames(int cn, UMaths &r, int top, int rows, std::vector<sum_of<T>> &sums) {
    const std::size_t width = static_cast<std::size_t>(r.dx);
    const auto place = [&](int row) { return &sums[static_cast<std::size_t>(row) * width]; };
    return umaths_over_frames<T>(
        cn, r, top, rows,
        [&](const four_rows<T> &lines, int row, int) { add_rows(lines, width, place(row)); },
        [&](std::span<const T> line, int row, int) { add_row(line, place(row)); });
}

template <class T>
int integrate_frames(int cn, UMaths &r, const projection &p, std::uint64_t by, UMathsOutput &out) {
    const int at_once = std::clamp(static_cast<int>(cached_sums / width_of(p)), 1, p.ny);
    std::vector<sum_of<T>> sums;
    for (int top = 0; top < p.ny; top += at_once) {
        const int count = std::min(at_once, p.ny - top);
        sums.assign(static_cast<std::size_t>(count) * width_of(p), {});
        if (!sum_frames<T>(cn, r, top, count, sums))
            return umaths_read_error(cn, r);
        if (write_rows<T>(cn, p, top, sums, by, out) != 0)
            return -1;
    }
    return 0;
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
    return write_rows<T>(cn, p, 0, sums, by, out);
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
