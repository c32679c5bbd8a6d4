// unified: the commands on handles, for a root table to list.
#pragma once

#include "parser/tree.h"

namespace kestrel {

extern const PARSE_TREE row_ustatus;
extern const PARSE_TREE row_read, row_enable, row_disable, row_clear;
extern const PARSE_TREE row_unif_get_nx, row_unif_get_ny, row_unif_get_nt, row_unif_get_type,
    row_unif_get_bsize;
extern const PARSE_TREE row_close, row_close_all;
extern const PARSE_TREE row_unif_set_correction, row_unif_set_dtc_mod;
extern const PARSE_TREE row_test; // the test patterns' own table

} // namespace kestrel
