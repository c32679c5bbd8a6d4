// `maths re-bin`: a region at a lower resolution.
#include "maths/kernels.h"
#include "maths/output.h"
#include "maths/reader.h"
#include "maths/share.h"
#include "parser/tree.h"
#include "server/output.h"
#include "support/element.h"

#include <algorithm>
#include <vector>

namespace kestrel {

namespace {

constexpr pt_format rebin_format(text_join<"%d %d %d %d %d %d %d x %d y %d t %d ", umaths_output_words>);
using rebin_qualifiers = pt_qualifiers<rebin_format>;

struct factors {
    int x = 1, y = 1, t = 1;
};

int check_factor(int cn, char axis, int factor, int length) {
    if (factor >= 2 && factor <= length / 2)
        return 0;
    sv_printf(cn, "! EROR Expected rebin %c to be in range 2 to %d not %d\n", axis, length / 2, factor);
    return -1;
}

int check_factors(int cn, const rebin_qualifiers &q, const factors &by, const UMaths &r) {
    if ((q.given("x") && check_factor(cn, 'X', by.x, r.dx) != 0) ||
        (q.given("y") && check_factor(cn, 'Y', by.y, r.dy) != 0) ||
        (q.given("t") && check_factor(cn, 'T', by.t, r.dt) != 0))
        return -1;
    return 0;
}

struct result_size {
    int nx, ny, nt;
};

// A result row: the sum of the rows of by.y lines in by.t planes; at(row, plane) is where one begins.
template <class T, class At>
void bin_into(T *out, const factors &by, const result_size &size, int row, int plane, bool past_cache,
              std::vector<const T *> &lines, At at) {
    lines.clear();
    for (int t = 0; t < by.t; ++t)
        for (int y = 0; y < by.y; ++y)
            lines.push_back(at(row * by.y + y, plane * by.t + t));
    umaths_loops_of<T>(umaths_loops())
        .bin(lines.data(), lines.size(), static_cast<std::size_t>(by.x), static_cast<std::size_t>(size.nx),
             out, past_cache);
}

template <class T>
int rebin_held(int cn, UMaths &r, const factors &by, const result_size &size, UMathsOutput &out) {
    constexpr int at_once = 64; // result rows of a part
    const auto rows = umaths_all_rows(cn, r);
    if (!rows)
        return umaths_read_error(cn, r);
    const auto to = umaths_all_output(cn, out);
    if (!to)
        return -1;
    const int blocks = (size.ny + at_once - 1) / at_once;
    const bool all = umaths_share(cn, r, blocks * size.nt, [&](int part) {
        const int plane = part / blocks, top = part % blocks * at_once,
                  end = std::min(top + at_once, size.ny);
        std::vector<const T *> lines;
        lines.reserve(static_cast<std::size_t>(by.y) * static_cast<std::size_t>(by.t));
        to->begin(top, plane, end - top);
        for (int row = top; row < end; ++row)
            bin_into(to->row<T>(row, plane), by, size, row, plane, to->past_cache, lines,
                     [&](int y, int t) { return rows->row<T>(y, t); });
        umaths_stores_done();
    });
    return all ? 0 : -1;
}

// Row by row: what is summed may not be held together.
template <class T>
int rebin_read(int cn, UMaths &r, const factors &by, const result_size &size, UMathsOutput &out) {
    const std::size_t nx = static_cast<std::size_t>(size.nx);
    std::vector<sum_of<T>> sums(nx * static_cast<std::size_t>(size.ny));
    for (int plane = 0; plane < size.nt; ++plane) {
        sums.assign(sums.size(), {});
        for (int t = plane * by.t; t < (plane + 1) * by.t; ++t)
            for (int row = 0; row < size.ny * by.y; ++row) {
                const std::span<const T> line = umaths_row<T>(cn, row, t, r);
                if (line.empty())
                    return umaths_read_error(cn, r);
                bin_row(line, static_cast<std::size_t>(by.x), nx,
                        &sums[static_cast<std::size_t>(row / by.y) * nx]);
            }
        for (int row = 0; row < size.ny; ++row) {
            T *const line = reinterpret_cast<T *>(umaths_get_output(cn, row, plane, out));
            if (!line)
                return -1;
            const sum_of<T> *from = &sums[static_cast<std::size_t>(row) * nx];
            std::transform(from, from + nx, line, [](sum_of<T> sum) { return static_cast<T>(sum); });
        }
    }
    return 0;
}

template <class T> int rebin(int cn, UMaths &r, const factors &by, const umaths_destination &to) {
    const result_size size{r.dx / by.x, r.dy / by.y, r.dt / by.t};
    UMathsOutput out;
    if (umaths_start_output(cn, to, size.nx, size.ny, size.nt, out, RWMode::write,
                            std::is_floating_point_v<T> ? mod_element::float32 : mod_element::u_int32) != 0 ||
        umaths_stay_clear_of(cn, out.mod_head.head(), r) != 0)
        return -1;
    return umaths_all_held(r) ? rebin_held<T>(cn, r, by, size, out) : rebin_read<T>(cn, r, by, size, out);
}

int umaths_rebin(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2) {
    const rebin_qualifiers q(quals);
    const factors by{q.number("x", 1), q.number("y", 1), q.number("t", 1)};
    const umaths_destination to = umaths_destination_of(q);
    UMaths r;
    if (umaths_start(cn, umaths_make_region(x1, y1, t1, x2, y2, t2), handle, r, 0) != 0)
        return -1;
    if (r.utype == el_double) {
        sv_printf(cn, "! Umaths rebin cannot handle double data yet\n");
        return -1;
    }
    if (check_factors(cn, q, by, r) != 0)
        return -1;
    return r.utype == el_long ? rebin<std::uint32_t>(cn, r, by, to) : rebin<float>(cn, r, by, to);
}

} // namespace

extern constinit const PARSE_TREE row_maths_rebin = pt_command<umaths_rebin>(
    "re-bin", rebin_format, "Rebin counts to lower resolution",
    text_join<"Unified handle/x1/y1/t1/x2/y2/t2/Factor for X/Factor for Y/Factor for T/",
              umaths_output_help>);

} // namespace kestrel
