// maths: the commands that reduce one axis of a region: which one, and the line or plane that remains.
#pragma once

#include "maths/reader.h"
#include "parser/qualifiers.h"
#include "server/output.h"

namespace kestrel {

enum region_axis : int { axis_x, axis_y, axis_t };

struct reduced_axis {
    region_axis axis = axis_x;
    int nx = 1, ny = 1; // of what remains
};

// Takes exactly one of the keywords x, y, t: 0, or -1 after a line.
template <const pt_format &Format>
int umaths_choose_axis(int cn, const pt_qualifiers<Format> &q, reduced_axis &out) {
    if (q.count({"x", "y", "t"}) != 1) {
        sv_printf(cn, "! Must specify exactly one of X, Y, T\n");
        return -1;
    }
    out.axis = static_cast<region_axis>(q.which({"x", "y", "t"}));
    return 0;
}

int umaths_axis_length(const UMaths &reader, const reduced_axis &a);

// Fills the size of what remains of dx x dy x dt: without the axis, x before y before t, and an axis of length 1 in front of
// a longer one left out.
void umaths_size_rest(int dx, int dy, int dt, reduced_axis &a);

// The same for an axis that must be longer than 1: 0, or -1 after a line.
int umaths_check_axis(int cn, const UMaths &reader, reduced_axis &out);

} // namespace kestrel
