// The list of the `kairo` commands.
#include "instruments/timing/commands.h"

namespace kestrel {

namespace {

constinit const PARSE_TREE kairo_table[] = {
    pt_row(row_kairo_config),
    pt_row(row_kairo_get_version),
    pt_row(row_kairo_setup),
    pt_row(row_kairo_setup_groups),
    pt_row(row_kairo_options),
    pt_row(row_kairo_generate),
    pt_row(row_kairo_init),
    pt_row(row_kairo_setup_trig),
    pt_row(row_kairo_setup_tfout),
    pt_row(row_kairo_setup_veto),
    pt_row(row_kairo_alternate_veto),
    pt_row(row_kairo_setup_port),
    pt_row(row_kairo_stop),
    pt_row(row_kairo_list_seq),
    pt_row(row_kairo_start),
    pt_row(row_kairo_arm),
    pt_row(row_kairo_cont),
    pt_row(row_kairo_wait),
    pt_row(row_kairo_clear_starts),
    pt_row(row_kairo_scale_times),
    pt_subtree("read", kairo_read_tree, "KAIRO read functions"),
    pt_subtree("scan", kairo_scan_tree, "KAIRO controlled scans"),
    pt_end(),
};

} // namespace

constinit const PARSE_TREE row_kairo = pt_subtree("kairo", kairo_table, "prefix for KAIRO functions");

} // namespace kestrel
