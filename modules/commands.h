// modules: the `module` commands, over the store and the unified handles.
#pragma once

#include "parser/tree.h"

namespace kestrel {

extern const PARSE_TREE row_module;

// Handlers; one family a file, all listed in table.cpp.
int module_create(int quals, int cn, const char *name, int width, int height, const char *x_label,
                  const char *y_label, const char *t_label);
int module_clear(int quals, int cn, const char *name);
int module_headed(int quals, int cn, const char *name, int width, int height, const char *x_label,
                  const char *y_label);
int module_set_point(int quals, int cn, const char *name, int x, int y, double value);
int module_get_point(int quals, int cn, const char *name, int x, int y, const char *variable);
int module_set_aspect(int quals, int cn, const char *name, double aspect);
int module_resize(int quals, int cn, const char *name, int num_x, int num_y, int num_t);
int module_open(int quals, int cn, const char *name);
int module_close(int quals, int cn, int handle);
int module_load(int quals, int cn, const char *file, const char *name);
int module_save(int quals, int cn, const char *name, const char *file);
int module_get_remote(int quals, int cn, const char *remote, const char *local);
int module_copy(int quals, int cn, const char *from, const char *to);

// Tells the image display, if it wants to know, of a module that was made or filled.
void module_announce(int cn, const char *name);

} // namespace kestrel
