// instruments/links: what is announced to the image display by itself, as `imgd enable` chose.
#pragma once

namespace kestrel::links {

// A module has been made (or filled anew), or its shape has changed. Nothing is sent, and no failure counts,
// for kinds of announcement that are not enabled.
void imgd_module_new(int cn, const char *name, int num_x, int num_y, int num_t);
void imgd_module_shape(int cn, const char *name, int num_x, int num_y, int num_t);

// Says that for want of memory the display was not told. The module is there all the same.
void imgd_not_told(int cn, const char *name);

// True when `display1d` and `display2d` of commands are to be passed on.
bool imgd_display_enabled();

} // namespace kestrel::links
