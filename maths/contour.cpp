// `maths mark-contour`: outlines of what reaches a level.
#include "maths/module_rows.h"
#include "maths/progress.h"
#include "parser/qualifiers.h"
#include "parser/tree.h"
#include "server/output.h"

#include <vector>

namespace kestrel {

namespace {

constexpr pt_format contour_format("%s %s %d %d clear cumulative = %d");

// Whether each element of a row reaches the level; one more on either side, which does not.
using row_flags = std::vector<char>;

void find_reached(const module_view &from, int y, int t, double level, std::vector<double> &values,
                  row_flags &reached) {
    if (y >= from.num_y) {
        reached.assign(reached.size(), 0);
        return;
    }
    umaths_get_elements(from, 0, y, t, values);
    for (std::size_t i = 0; i < values.size(); ++i)
        reached[i + 1] = values[i] >= level;
}

struct contour_pen {
    double value;
    bool clear, add;

    void mark(std::byte *at, int type) const {
        mod_put_element(at, type, value + (add && !clear ? mod_get_element(at, type) : 0.0));
    }
    void leave(std::byte *at, int type) const {
        if (clear)
            mod_put_element(at, type, 0.0);
    }
};

// Draws a row of the contour; the number of its points.
long long draw_row(const row_flags (&reached)[3], const contour_pen &pen, const module_view &to, int y,
                   int t) {
    long long points = 0;
    std::byte *at = to.at(0, y, t);
    for (std::size_t i = 1; i + 1 < reached[1].size(); ++i, at += to.element_size) {
        const bool inner = reached[1][i - 1] && reached[1][i + 1] && reached[0][i] && reached[2][i];
        if (reached[1][i] && !inner) {
            pen.mark(at, to.data_type);
            ++points;
        } else {
            pen.leave(at, to.data_type);
        }
    }
    return points;
}

// A frame is read one row ahead of the row that is drawn: both may be the same module. The number of points,
// or -1 when ^C came.
long long draw_frame(int cn, const module_view &from, int t, double level, const contour_pen &pen,
                     result_module &to, umaths_progress &progress) {
    std::vector<double> values(static_cast<std::size_t>(from.num_x));
    const row_flags none(values.size() + 2, 0);
    row_flags reached[3] = {none, none, none}; // of the rows above, at and below y
    find_reached(from, 0, t, level, values, reached[2]);
    long long points = 0;
    for (int y = 0; y < from.num_y; ++y) {
        if (!progress.go_on(cn, static_cast<long long>(t) * from.num_y + y,
                            static_cast<long long>(from.num_t) * from.num_y))
            return -1;
        reached[0].swap(reached[1]);
        reached[1].swap(reached[2]);
        find_reached(from, y + 1, t, level, values, reached[2]);
        to.keep();
        points += draw_row(reached, pen, to.view(), y, t);
    }
    return points;
}

int umaths_mark_contour(int quals, int cn, const char *from_name, const char *to_name, int level, int value) {
    const pt_qualifiers<contour_format> q(quals);
    linked_module from;
    result_module to;
    if (umaths_link_module(cn, from_name, from) != 0 ||
        umaths_module_like(cn, to_name, from.view, mod_element::u_int32, to) != 0)
        return -1;
    const contour_pen pen{static_cast<double>(value), q.given("clear"), q.given("cumulative")};
    umaths_progress progress;
    long long points = 0;
    for (int t = 0; t < from.view.num_t; ++t) {
        const long long drawn = draw_frame(cn, from.view, t, level, pen, to, progress);
        if (drawn < 0)
            return -1;
        points += drawn;
    }
    sv_printf(cn, "# Contour has %lld points\n", points);
    return 0;
}

} // namespace

extern constinit const PARSE_TREE row_maths_mark_contour = pt_command<umaths_mark_contour>(
    "mark-contour", contour_format, "Find contour on source module and draw it onto a destination module",
    "Source module/Destination module/Level/Value to draw/Clear destination module/"
    "Add value to destination module");

} // namespace kestrel
