// maths: the commands that work on data modules by name: opening one, making one for a result, its rows by
// number (frames lie below each other) and its elements as doubles.
#pragma once

#include "modules/store/result_module.h"

#include <span>

namespace kestrel {

// A module that exists, linked as long as this lives and looked at once.
struct linked_module {
    module_link link;
    module_view view;

    int rows() const; // frames below each other; at most INT_MAX
};

// 0, or -1 after a line.
int umaths_link_module(int cn, const char *name, linked_module &out);

// A module for a result of the same size as `like`, made with that element type where it does not exist; one
// that exists keeps its type. 0, or -1 after a line.
int umaths_module_like(int cn, const char *name, const module_view &like, mod_element element,
                       result_module &out);

// A row of the module: 0, or -1 after a line that calls it `what`, as in "X Row".
int umaths_check_row(int cn, const char *what, const linked_module &module, int row);

// Elements of row y of frame t from x on; all of them must lie in it. In frame 0, y may be a row of a later
// one.
void umaths_get_elements(const module_view &view, int x, int y, int t, std::span<double> values);

// Stores a result: to the nearest whole number where the elements are integers.
void umaths_put_elements(const module_view &view, int x, int y, int t, std::span<const double> values);

} // namespace kestrel
