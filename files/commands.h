// files: the `file` commands. Data files as unified handles, and the index that numbers the files of a
// folder. A row stands beside its handler; table.cpp lists them.
#pragma once

#include "parser/tree.h"
#include "unified/file_hooks.h"

namespace kestrel {

extern const PARSE_TREE row_file; // the subtree, for a root table

extern const PARSE_TREE row_file_open, row_file_close;
extern const PARSE_TREE row_file_get_next_index;

// For unified_file_hooks.
file_hooks files_hooks();

} // namespace kestrel
