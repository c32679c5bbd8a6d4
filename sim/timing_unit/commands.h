// sim/timing_unit: the commands, one table or list of rows a file. Command thread.
#pragma once

#include "parser/tree.h"

namespace kestrel {

// Rows of the `kairo` table.
extern const PARSE_TREE row_config, row_setup_groups, row_generate, row_list_seq;
extern const PARSE_TREE row_options, row_init, row_start, row_arm, row_cont, row_wait, row_stop,
    row_clear_starts;
extern const PARSE_TREE row_setup_trig, row_setup_tfout, row_setup_veto, row_alternate_veto, row_setup_port;
extern const PARSE_TREE commands_read[]; // where the unit is

// Rows of the root table.
extern const PARSE_TREE row_trigger;
extern const PARSE_TREE commands_module[]; // the frame times as a module
extern const PARSE_TREE row_read_times, row_get_nx, row_get_ny, row_get_nt, row_get_type;

// False, after a line, before a unit was configured.
bool unit_ready(int cn);

// After a new table: the variable num_tf, and the frame times for so many laps and starts. 0 or -1.
int times_renew(int cn);

} // namespace kestrel
