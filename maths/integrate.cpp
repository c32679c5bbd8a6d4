// `maths integrate`: a region projected onto an axis or a plane by summation.
#include "maths/commands.h"
#include "maths/output.h"
#include "maths/row_groups.h"
#include "parser/call.h"
#include "server/output.h"
#include "support/element.h"

#include <algorithm>
#include <bit>
#include <vector>

namespace kestrel {

namespace {

enum integrate_keyword : int {
    to_x = 1,
    to_y = 2,
    to_t = 4,
    to_xy = 8,
    to_xt = 16,
    to_yt = 32,
    no_clear = 64,
    average = 128,
    min_last = 256,
};
constexpr int targets = to_x | to_y | to_t | to_xy | to_xt | to_yt;
constexpr int first_output_keyword = 9;
constexpr int min_last_keyword = 8;

// What is kept: a result of nx by ny (one plane).
struct projection {
    int target = 0;
    int nx = 1, ny = 1;
};

int check_target(int cn, const UMaths &r, projection &p) {
    static constexpr struct {
        int target;
        const char *message;
    } refusals[] = {
        {to_x, "! Cannot project on to X AXIS as it is 1 long\n"},
        {to_y, "! Cannot project on to Y AXIS as it is 1 long\n"},
        {to_t, "! Cannot project on to T AXIS as it is 1 long\n"},
        {to_xy, "! Cannot project on to XY PLANE as it is not 2D\n"},
        {to_xt, "! Cannot project on to XT PLANE as it is not 2D\n"},
        {to_yt, "! Cannot project on to YT PLANE as it is not 2D\n"},
    };
    const bool has_x = p.target & (to_x | to_xy | to_xt), has_t = p.target & (to_t | to_xt | to_yt);
    const bool has_y = p.target & (to_y | to_xy | to_yt);
    if ((has_x && r.dx == 1) || (has_y && r.dy == 1) || (has_t && r.dt == 1)) {
        for (const auto &refusal : refusals)
            if (refusal.target == p.target)
                sv_printf(cn, "%s", refusal.message);
        return -1;
    }
    p.nx = has_x ? r.dx : has_y ? r.dy : r.dt;
    p.ny = has_x && has_y ? r.dy : has_t && (has_x || has_y) ? r.dt : 1;
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
template <class T>
bool divisor(int cn, UMaths &r, const projection &p, int quals, double least, std::uint64_t &out) {
    out = summed(r, p);
    if (!(quals & min_last) || p.target != to_y)
        return true;
    const std::span<const T> line = umaths_row<T>(cn, r.dy - 1, r.dt - 1, r);
    if (line.empty())
        return false;
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
               bool add, UMathsOutput &out) {
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
int integrate_frames(int cn, UMaths &r, const projection &p, std::uint64_t by, bool add, UMathsOutput &out) {
    const int at_once = std::clamp(static_cast<int>(cached_sums / width_of(p)), 1, p.ny);
    std::vector<sum_of<T>> sums;
    for (int top = 0; top < p.ny; top += at_once) {
        const int count = std::min(at_once, p.ny - top);
        sums.assign(static_cast<std::size_t>(count) * width_of(p), {});
        if (!sum_frames<T>(cn, r, top, count, sums))
            return umaths_read_error(cn, r);
        if (write_rows<T>(cn, p, top, sums, by, add, out) != 0)
            return -1;
    }
    return 0;
}

template <class T>
int integrate(int cn, int quals, UMaths &r, const projection &p, double least, const umaths_destination &to) {
    UMathsOutput out;
    const bool add = quals & no_clear;
    if (umaths_start_output(cn, to, p.nx, p.ny, 1, out, add ? RWMode::read_then_write : RWMode::write,
                            std::is_floating_point_v<T> ? mod_element::float32 : mod_element::u_int32) != 0)
        return -1;
    if (umaths_stay_clear_of(cn, out.mod_head.head(), r) != 0)
        return -1;
    if (p.target == to_xy && umaths_all_held(r))
        return integrate_frames<T>(cn, r, p, quals & average ? summed(r, p) : 0, add, out);
    std::uint64_t by = 0;
    std::vector<sum_of<T>> sums(width_of(p) * static_cast<std::size_t>(p.ny));
    if (!sum_region<T>(cn, r, p, sums) || (quals & average && !divisor<T>(cn, r, p, quals, least, by)))
        return umaths_read_error(cn, r);
    return write_rows<T>(cn, p, 0, sums, by, add, out);
}

} // namespace

int umaths_integrate(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2) {
    projection p;
    p.target = quals & targets;
    if (!std::has_single_bit(static_cast<unsigned>(p.target))) {
        sv_printf(cn, "! Must specify exactly one of X, Y, T ,XY, XT, YT\n");
        return -1;
    }
    const umaths_destination to = umaths_destination_of(quals, first_output_keyword);
    const double least = quals & min_last ? Qualifier[min_last_keyword].DoubleArg : 0.0;
    UMaths reader;
    if (umaths_start(cn, umaths_make_region(x1, y1, t1, x2, y2, t2), handle, reader, 0) != 0)
        return -1;
    if (reader.utype == el_double) {
        sv_printf(cn, "! Umaths integrate cannot handle double data yet\n");
        return -1;
    }
    if (check_target(cn, reader, p) != 0)
        return -1;
    return reader.utype == el_long ? integrate<std::uint32_t>(cn, quals, reader, p, least, to)
                                   : integrate<float>(cn, quals, reader, p, least, to);
}

} // namespace kestrel
