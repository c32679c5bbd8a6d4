// `maths re-bin`: a region at a lower resolution.
#include "maths/kernels.h"
#include "maths/output.h"
#include "maths/reader.h"
#include "parser/tree.h"
#include "server/output.h"
#include "support/element.h"

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

// Sums the planes that make result plane `plane`. False when a read failed.
template <class T>
bool sum_plane(int cn, UMaths &r, const factors &by, int plane, int nx, int ny,
               std::vector<sum_of<T>> &sums) {
    for (int k = 0; k < by.t; ++k)
        for (int row = 0; row < ny * by.y; ++row) {
            const std::span<const T> line = umaths_row<T>(cn, row, plane * by.t + k, r);
            if (line.empty())
                return false;
            const std::size_t to = static_cast<std::size_t>(row / by.y) * static_cast<std::size_t>(nx);
            bin_row(line, static_cast<std::size_t>(by.x), static_cast<std::size_t>(nx), &sums[to]);
        }
    return true;
}

template <class T> int rebin(int cn, UMaths &r, const factors &by, const umaths_destination &to) {
    const int nx = r.dx / by.x, ny = r.dy / by.y, nt = r.dt / by.t;
    UMathsOutput out;
    if (umaths_start_output(cn, to, nx, ny, nt, out, RWMode::write,
                            std::is_floating_point_v<T> ? mod_element::float32 : mod_element::u_int32) != 0 ||
        umaths_stay_clear_of(cn, out.mod_head.head(), r) != 0)
        return -1;
    std::vector<sum_of<T>> sums(static_cast<std::size_t>(nx) * static_cast<std::size_t>(ny));
    for (int plane = 0; plane < nt; ++plane) {
        sums.assign(sums.size(), {});
        if (!sum_plane<T>(cn, r, by, plane, nx, ny, sums))
            return umaths_read_error(cn, r);
        for (int row = 0; row < ny; ++row) {
            T *line = reinterpret_cast<T *>(umaths_get_output(cn, row, plane, out));
            if (!line)
                return -1;
            const sum_of<T> *from = &sums[static_cast<std::size_t>(row) * static_cast<std::size_t>(nx)];
            for (int i = 0; i < nx; ++i)
                line[i] = static_cast<T>(from[i]);
        }
    }
    return 0;
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
