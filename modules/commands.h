// modules: the `module` commands, over the store and the unified handles. A row stands beside its handler;
// table.cpp lists them.
#pragma once

#include "parser/tree.h"

namespace kestrel {

extern const PARSE_TREE row_module; // the subtree, for a root table

extern const PARSE_TREE row_module_create, row_module_headed, row_module_resize;
extern const PARSE_TREE row_module_clear, row_module_set_point, row_module_get_point, row_module_set_aspect;
extern const PARSE_TREE row_module_open, row_module_close;
extern const PARSE_TREE row_module_load, row_module_save;
extern const PARSE_TREE row_module_get_remote;
extern const PARSE_TREE row_module_copy;

// Tells the image display, if it wants to know, of a module that was made or filled.
void module_announce(int cn, const char *name);

} // namespace kestrel
