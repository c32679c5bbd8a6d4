#include "app/root_table.h"

#include "files/commands.h"
#include "instruments/bench/commands.h"
#include "instruments/links/commands.h"
#include "instruments/timing/commands.h"
#include "maths/commands.h"
#include "modules/commands.h"
#include "parser/builtins.h"
#include "pulsar3/server/commands.h"
#include "unified/commands.h"

namespace kestrel {

// Ordered by hand, for people who read the list.
constinit const PARSE_TREE main_parse_tree[] = {
    pt_row(row_chd),
    pt_row(row_cd),
    pt_row(row_chx),
    pt_row(row_dir),
    pt_row(row_ls),
    pt_row(row_echo),
    pt_row(row_echo_on),
    pt_row(row_echo_off),
    pt_row(row_help),
    pt_row(row_include),
    pt_row(row_port),
    pt_row(row_quit),
    pt_row(row_radix),
    pt_row(row_rem),
    pt_row(row_retrieve_tree),
    pt_row(row_shutdown),
    pt_row(row_status),
    pt_row(row_system),
    pt_row(row_ustatus),
    pt_row(row_macro),
    pt_row(row_macro_list),
    pt_row(row_set_func),
    pt_row(row_set_int),
    pt_row(row_set_double),
    pt_row(row_set_string),
    pt_row(row_set_qualifier),
    pt_row(row_input),
    pt_row(row_for),
    pt_row(row_for_each),
    pt_row(row_next),
    pt_row(row_printf),
    pt_row(row_return),
    pt_row(row_if),
    pt_row(row_do),
    pt_row(row_while),
    pt_row(row_eval),
    pt_row(row_sleep),
    pt_row(row_enc_password),
    pt_row(row_read),
    pt_row(row_enable),
    pt_row(row_disable),
    pt_row(row_clear),
    pt_row(row_unif_get_nx),
    pt_row(row_unif_get_ny),
    pt_row(row_unif_get_nt),
    pt_row(row_unif_get_type),
    pt_row(row_unif_get_bsize),
    pt_row(row_close),
    pt_row(row_close_all),
    pt_row(row_unif_set_correction),
    pt_row(row_unif_set_dtc_mod),
    pt_row(row_debug),
    pt_row(row_ascii),
    pt_subtree("client", links::client_tree, "prefix for commands to other servers"),
    pt_subtree("ftp", links::ftp_tree, "prefix for FTP-specific functions"),
    pt_row(row_module),
    pt_subtree("motor", links::motor_tree, "prefix for stepper-motor-specific functions"),
    pt_row(row_pulsar3),
    pt_subtree("send", links::send_tree, "prefix to send commands directly to servers"),
    pt_row(row_test),
    pt_row(row_maths),
    pt_row(row_peak_fit),
    pt_row(row_file),
    pt_row(links::row_remote_open),
    pt_subtree("imgd", links::imgd_tree, "prefix for Image Displayer functions"),
    pt_subtree("ke2700", bench::ke2700_tree, "prefix for keithly2700 functions"),
    pt_subtree("iseg", bench::iseg_tree, "prefix for ISEG-NHQ functions"),
    pt_subtree("ke2410", bench::ke2410_tree, "prefix for Keithley 2410 functions"),
    pt_row(row_kairo),
    pt_end(),
};

} // namespace kestrel
