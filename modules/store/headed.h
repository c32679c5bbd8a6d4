// modules/store: making and finding headed modules, for every room that keeps its results in them.
// Messages go to the session.
#pragma once

#include "modules/store/element.h"
#include "modules/store/view.h"

#include <span>
#include <string>

namespace kestrel {

// Make a headed module, or find one that fits. A size n > 0 is exact, -n at least n (and made n), 0 any (and
// made 0: a header alone). Null labels are "X", "Y", "T". Null after a message, mod_head as it was; else mod_head is
// the module's link, and is_new() tells which it was. An existing module is left as it is. What writes a
// result uses result_module, which does this and takes a module back that was not written.
MOD_IMAGE *app_mkmod_head(int cn, const char *name, int num_x, int num_y, const char *x_lab,
                          const char *y_lab, mod_element data_float, module_link &mod_head);

// The same with frames; `labels` is a null-ended list of one label a frame, or null.
MOD_IMAGE3D *app_mkmod3d(int cn, const char *name, int num_x, int num_y, int num_t, const char *x_lab,
                         const char *y_lab, const char *t_lab, const char *const *labels,
                         mod_element data_float, module_link &mod_head);

// The same for any data_type that a header can have; false after a message. `mark` begins the line of a 3-D module that
// cannot be made.
struct mod_axes3d {
    int num_x, num_y, num_t;
    const char *x_lab, *y_lab, *t_lab;
};
bool mod_make_2d(int cn, const char *name, int num_x, int num_y, const char *x_lab, const char *y_lab,
                 int data_type, module_link &mod_head);
bool mod_make_3d(int cn, const char *name, const mod_axes3d &axes, const char *const *labels, int data_type,
                 const char *mark, module_link &mod_head);

// The same, unlinked at once: 0 or -1.
int mkmod_head(int cn, const char *name, int num_x, int num_y, const char *x_lab, const char *y_lab,
               mod_element data_float);
int mkmod_head3d(int cn, const char *name, int num_x, int num_y, int num_t, const char *x_lab,
                 const char *y_lab, const char *t_lab, mod_element data_float);

// A module of 4 x n bytes without a header, or the one that exists, whatever its size. Empty after a message.
module_link app_mkmod_nohead(int cn, const char *name, int n);
// The same, unlinked at once: 0 or -1.
int mkmod_nohead(int cn, const char *name, int n);

// New dimensions for a linked module, within its capacity; num_t 0 counts as 1. The data stay where they are.
int app_mod_resize(int cn, void *head, int num_x, int num_y, int num_t);

// Replaces the frame labels of a linked 3-D module; false when it has no room for them (or is none).
bool mod_set_labels(void *head, std::span<const std::string> labels);

// Every element of a linked module becomes zero; -1 when its header cannot be used.
int clear_mod(void *head);

} // namespace kestrel
