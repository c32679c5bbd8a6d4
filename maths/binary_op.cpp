// `maths binary-op`: two volumes combined element by element, in single precision.
#include "maths/loops.h"
#include "maths/output.h"
#include "maths/reader.h"
#include "maths/share.h"
#include "parser/tree.h"
#include "server/output.h"
#include "support/element.h"

#include <algorithm>
#include <limits>
#include <span>

namespace kestrel {

namespace {

constexpr pt_format binary_format(
    text_join<"%d %d + %d %d %d %d %d %d %d %d %d %d %d %d add sub mult div threshold %g scale %g ",
              umaths_output_words>);

struct volumes {
    umaths_region a, b;
};

// ---------------------------------------------------------------- which volumes

void list_forms(int cn) {
    for (const char *line :
         {"! Acceptable numbers of optional Arguments are:\n",
          "! NONE          => Whole image A, repeat B if necessary\n",
          "! nt(ny)        => nt planes of A, or ny if A 2D\n",
          "! t1 t2         => planes t1 to t2 or lines t1 to t2\n",
          "! x1 y1 t1 x2 y2 t1 => Same Volume in A and B\n", "! x1 y1 t1 x2 y2 t1 x' y' t' =>\n",
          "!       Specific volume in A and different start point in B (may be same image)\n",
          "! x1 y1 t1 x2 y2 t1 x1' y1' t1' x2' y2' t2' =>\n", "!       Fully specified volumes in A and B\n"})
        sv_printf(cn, "%s", line);
}

// The part of B that goes with a part of A: from B's origin and as large as A's, or what there is of B: whether
// the shapes go together is asked later.
umaths_region matching(const umaths_region &size_b, const umaths_region &a) {
    return {0, 0, 0, std::min(size_b.dx, a.dx), std::min(size_b.dy, a.dy), std::min(size_b.dt, a.dt)};
}

// Planes first to last of A, or lines of a 2-D A.
umaths_region part_of(const umaths_region &size, int first, int last) {
    return size.dt > 1 ? umaths_make_region(0, 0, first, size.dx - 1, size.dy - 1, last)
                       : umaths_make_region(0, first, 0, size.dx - 1, last, 0);
}

int resolve(int cn, std::span<const pt_value> v, const umaths_region &size_a, const umaths_region &size_b,
            volumes &out) {
    const int given =
        static_cast<int>(std::count_if(v.begin(), v.end(), [](const pt_value &x) { return x.type; }));
    const auto region_at = [&v](std::size_t i) {
        return umaths_make_region(v[i].i, v[i + 1].i, v[i + 2].i, v[i + 3].i, v[i + 4].i, v[i + 5].i);
    };
    switch (given) {
    case 0:
        out.a = size_a;
        out.b = size_b;
        return 0;
    case 1:
        out.a = part_of(size_a, 0, std::max(v[0].i, -std::numeric_limits<int>::max()) - 1);
        out.b = matching(size_b, out.a);
        return 0;
    case 2:
        out.a = part_of(size_a, v[0].i, v[1].i);
        out.b = matching(size_b, out.a);
        return 0;
    case 6:
        out.a = out.b = region_at(0);
        return 0;
    case 9:
        out.a = out.b = region_at(0);
        out.b.x = v[6].i;
        out.b.y = v[7].i;
        out.b.t = v[8].i;
        return 0;
    case 12:
        out.a = region_at(0);
        out.b = region_at(6);
        return 0;
    default:
        list_forms(cn);
        return -1;
    }
}

// The regions are not known to lie in the images yet: their ends may be beyond an int.
void announce(int cn, const umaths_region &a, const umaths_region &b) {
    const auto last = [](int first, int count) { return static_cast<long long>(first) + count - 1; };
    sv_printf(cn, "# Processing Image A (%d, %d, %d) to (%lld, %lld, %lld)\n", a.x, a.y, a.t, last(a.x, a.dx),
              last(a.y, a.dy), last(a.t, a.dt));
    sv_printf(cn, "# With       Image B (%d, %d, %d) to (%lld, %lld, %lld)\n", b.x, b.y, b.t, last(b.x, b.dx),
              last(b.y, b.dy), last(b.t, b.dt));
}

int check_shapes(int cn, const umaths_region &a, const umaths_region &b) {
    if (a.dx != b.dx) {
        sv_printf(cn, "! ERROR: Image widths are different (%d and %d)\n", a.dx, b.dx);
        return -1;
    }
    if (a.dy != b.dy && b.dy != 1) {
        sv_printf(cn, "! ERROR: Image number of lines are different (%d and %d)\n", a.dy, b.dy);
        return -1;
    }
    if (a.dy != b.dy)
        sv_printf(cn, "# Repeating line of image B\n");
    if (a.dt != b.dt && b.dt != 1) {
        sv_printf(cn, "! ERROR: Image number of frame are different (%d and %d)\n", a.dt, b.dt);
        return -1;
    }
    if (a.dt != b.dt)
        sv_printf(cn, "# Repeating frames of image B\n");
    return 0;
}

// ---------------------------------------------------------------- the work

std::size_t type_code(int utype) {
    return utype == el_long ? 0 : utype == el_float ? 1 : 2;
}

int combine_held(int cn, UMaths &a, UMaths &b, UMathsOutput &out, combine_loop loop,
                 const binary_operation &o) {
    constexpr int at_once = 64; // rows of a part
    const auto rows_a = umaths_all_rows(cn, a);
    const auto rows_b = rows_a ? umaths_all_rows(cn, b) : std::nullopt;
    if (!rows_b)
        return umaths_read_error(cn, rows_a ? b : a);
    const auto to = umaths_all_output(cn, out);
    if (!to)
        return -1;
    const int blocks = (a.dy + at_once - 1) / at_once;
    const bool all = umaths_share(cn, a, blocks * a.dt, [&](int part) {
        const int plane = part / blocks, top = part % blocks * at_once, end = std::min(top + at_once, a.dy);
        to->begin(top, plane, end - top);
        for (int row = top; row < end; ++row)
            loop(rows_a->at(row, plane), rows_b->at(b.dy == 1 ? 0 : row, b.dt == 1 ? 0 : plane),
                 to->row<float>(row, plane), static_cast<std::size_t>(a.dx), o, to->past_cache);
        umaths_stores_done();
    });
    return all ? 0 : -1;
}

// Row by row: they may not be held together.
int combine_read(int cn, UMaths &a, UMaths &b, UMathsOutput &out, combine_loop loop,
                 const binary_operation &o) {
    for (int plane = 0; plane < a.dt; ++plane)
        for (int row = 0; row < a.dy; ++row) {
            const std::byte *from_a = umaths_get_line(cn, row, plane, a);
            const std::byte *from_b =
                from_a ? umaths_get_line(cn, b.dy == 1 ? 0 : row, b.dt == 1 ? 0 : plane, b) : nullptr;
            if (!from_b)
                return umaths_read_error(cn, from_a ? b : a);
            std::byte *const to = umaths_get_output(cn, row, plane, out);
            if (!to)
                return -1;
            loop(from_a, from_b, reinterpret_cast<float *>(to), static_cast<std::size_t>(a.dx), o, false);
        }
    return 0;
}

int combine_volumes(int cn, UMaths &a, UMaths &b, UMathsOutput &out, const binary_operation &o) {
    const combine_loop loop = umaths_loops().combine[type_code(a.utype) + 3 * type_code(b.utype)];
    return umaths_all_held(a) && umaths_all_held(b) ? combine_held(cn, a, b, out, loop, o)
                                                    : combine_read(cn, a, b, out, loop, o);
}

int umaths_bin_op(int quals, int cn, int handle_a, int handle_b, std::span<const pt_value> arguments) {
    const pt_qualifiers<binary_format> q(quals);
    if (q.count({"add", "sub", "mult", "div"}) != 1) {
        sv_printf(cn, "! ERROR: Must specify one of add, sub, mult, div\n");
        return -1;
    }
    const binary_operation o{static_cast<binary_operator>(q.which({"add", "sub", "mult", "div"})),
                             static_cast<float>(q.real("threshold", 1.0)),
                             static_cast<float>(q.real("scale"))};
    const umaths_destination to = umaths_destination_of(q);
    const umaths_region size_a = umaths_whole(handle_a), size_b = umaths_whole(handle_b);
    if (size_a.dx < 1 || size_a.dy < 1 || size_b.dx < 1 || size_b.dy < 1) {
        sv_printf(cn, "! Something wrong with unified handles\n");
        return -1;
    }
    volumes v;
    if (resolve(cn, arguments, size_a, size_b, v) != 0)
        return -1;
    announce(cn, v.a, v.b);
    if (check_shapes(cn, v.a, v.b) != 0)
        return -1;
    UMaths a, b;
    UMathsOutput out;
    if (umaths_start(cn, v.a, handle_a, a, 0) != 0 || umaths_start(cn, v.b, handle_b, b, 0) != 0 ||
        umaths_start_output(cn, to, v.a.dx, v.a.dy, v.a.dt, out, RWMode::write, mod_element::float32) != 0 ||
        umaths_stay_clear_of(cn, out.mod_head.head(), a) != 0 ||
        umaths_stay_clear_of(cn, out.mod_head.head(), b) != 0)
        return -1;
    return combine_volumes(cn, a, b, out, o);
}

} // namespace

extern constinit const PARSE_TREE row_maths_binary_op = pt_command<umaths_bin_op>(
    "binary-op", binary_format, "Perform binary operation (add/sub/mult div)",
    text_join<"Unified handle A/Unified handle B/x1 or nt [ny] or t1 [y1]/y1 or         t2 [y2]/t1/x2/y2/t2/"
              "x1_b/y1_b/t1_b/x2_b/y2_b/t2_b/Calculate A+B/Calculate A-B/Calculate A*B/Calculate A div B/"
              "Threshold for division/Scaling factor/",
              umaths_output_help>);

} // namespace kestrel
