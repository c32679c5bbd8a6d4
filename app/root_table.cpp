#include "app/root_table.h"

#include "files/commands.h"
#include "instruments/links/commands.h"
#include "maths/commands.h"
#include "modules/commands.h"
#include "parser/builtins.h"
#include "unified/commands.h"

namespace kestrel {

// Ordered by hand, for people who read the list.
const PARSE_TREE main_parse_tree[] = {
    row_chd,
    row_cd,
    row_chx,
    row_dir,
    row_ls,
    row_echo,
    row_echo_on,
    row_echo_off,
    row_help,
    row_include,
    row_port,
    row_quit,
    row_radix,
    row_rem,
    row_retrieve_tree,
    row_shutdown,
    row_status,
    row_system,
    row_ustatus,
    row_macro,
    row_macro_list,
    row_set_func,
    row_set_int,
    row_set_double,
    row_set_string,
    row_set_qualifier,
    row_input,
    row_for,
    row_for_each,
    row_next,
    row_printf,
    row_return,
    row_if,
    row_do,
    row_while,
    row_eval,
    row_sleep,
    row_enc_password,
    row_read,
    row_enable,
    row_disable,
    row_clear,
    row_unif_get_nx,
    row_unif_get_ny,
    row_unif_get_nt,
    row_unif_get_type,
    row_unif_get_bsize,
    row_close,
    row_close_all,
    row_unif_set_correction,
    row_unif_set_dtc_mod,
    row_debug,
    row_ascii,
    pt_subtree("client", links::client_tree, "prefix for commands to other servers"),
    pt_subtree("ftp", links::ftp_tree, "prefix for FTP-specific functions"),
    row_module,
    pt_subtree("motor", links::motor_tree, "prefix for stepper-motor-specific functions"),
    pt_subtree("send", links::send_tree, "prefix to send commands directly to servers"),
    row_test,
    row_maths,
    row_peak_fit,
    row_file,
    links::row_remote_open,
    pt_subtree("imgd", links::imgd_tree, "prefix for Image Displayer functions"),
    pt_end(),
};

} // namespace kestrel
