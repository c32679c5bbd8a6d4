// files: the `file` commands. Data files as unified handles, and the index that numbers the files of a
// folder. A row stands beside its handler; table.cpp lists them.
#pragma once

#include "parser/tree.h"
#include "unified/file_hooks.h"

namespace kestrel {

extern const PARSE_TREE row_file; // the subtree, for a root table

extern const PARSE_TREE row_file_open, row_file_close;
extern const PARSE_TREE row_file_get_next_index;
extern const PARSE_TREE row_write_kiln_header;
extern const PARSE_TREE row_write_nexus;
extern const PARSE_TREE row_kiln_default_saxs_det, row_kiln_default_waxs_det, row_kiln_default_cal_chan,
    row_kiln_default_saxs_serial, row_kiln_default_waxs_serial, row_kiln_title;
extern const PARSE_TREE row_kiln_data;

// Files that are written while runs go on: called once at the start; around every command and for a session that has
// ended; at the end.
void files_init();
void files_turn(int cn);
void files_connection_lost(int cn);
void files_exit();

// For unified_file_hooks.
file_hooks files_hooks();

} // namespace kestrel
