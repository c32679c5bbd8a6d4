// maths: the commands that reduce one axis of a region: which one, and the line or plane that remains.
#pragma once

#include "maths/reader.h"

namespace kestrel {

enum axis_keyword : int { axis_x = 1, axis_y = 2, axis_t = 4 };

struct reduced_axis {
    int axis = 0;
    int nx = 1, ny = 1; // of what remains
};

// Takes exactly one of the keywords x, y, t (bits 0 to 2): 0, or -1 after a line.
int umaths_choose_axis(int cn, int quals, reduced_axis &out);

int umaths_axis_length(const UMaths &reader, const reduced_axis &a);

// Fills the size of what remains: without the axis, x before y before t, and an axis of length 1 in front of
// a longer one left out.
void umaths_size_rest(const UMaths &reader, reduced_axis &a);

// The same for an axis that must be longer than 1: 0, or -1 after a line.
int umaths_check_axis(int cn, const UMaths &reader, reduced_axis &out);

} // namespace kestrel
