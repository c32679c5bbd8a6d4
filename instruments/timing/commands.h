// instruments/timing: the `kairo` commands, for a root table to list. A row stands beside its handler; table.cpp lists
// them.
#pragma once

#include "parser/tree.h"

namespace kestrel {

extern const PARSE_TREE row_kairo; // the subtree

extern const PARSE_TREE row_kairo_config, row_kairo_get_version;
extern const PARSE_TREE row_kairo_setup, row_kairo_setup_groups, row_kairo_generate;
extern const PARSE_TREE row_kairo_setup_trig, row_kairo_setup_tfout, row_kairo_setup_veto,
    row_kairo_alternate_veto, row_kairo_setup_port;
extern const PARSE_TREE row_kairo_options, row_kairo_init, row_kairo_stop, row_kairo_list_seq,
    row_kairo_start, row_kairo_arm, row_kairo_cont, row_kairo_wait, row_kairo_clear_starts,
    row_kairo_scale_times;
extern const PARSE_TREE kairo_read_tree[], kairo_scan_tree[];

} // namespace kestrel
