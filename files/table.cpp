// The list of the `file` commands.
#include "files/commands.h"

namespace kestrel {

namespace {

constinit const PARSE_TREE file_table[] = {
    pt_row(row_file_open),
    pt_row(row_file_close),
    pt_row(row_file_get_next_index),
    pt_row(row_write_kiln_header),
    pt_row(row_write_nexus),
    pt_row(row_kiln_default_saxs_det),
    pt_row(row_kiln_default_waxs_det),
    pt_row(row_kiln_default_cal_chan),
    pt_row(row_kiln_default_saxs_serial),
    pt_row(row_kiln_default_waxs_serial),
    pt_row(row_kiln_title),
    pt_row(row_kiln_data),
    pt_end(),
};

} // namespace

constinit const PARSE_TREE row_file = pt_subtree("file", file_table, "Open/Close unified path to files");

} // namespace kestrel
