#include "app/root_table.h"

#include "parser/builtins.h"

namespace kestrel {

// Ordered by hand, for people who read the list.
const PARSE_TREE main_parse_tree[] = {
    row_chd,      row_cd,           row_chx,        row_dir,        row_ls,
    row_echo,     row_echo_on,      row_echo_off,   row_help,       row_include,
    row_port,     row_quit,         row_radix,      row_rem,        row_retrieve_tree,
    row_shutdown, row_status,       row_system,     row_macro,      row_macro_list,
    row_set_func, row_set_int,      row_set_double, row_set_string, row_set_qualifier,
    row_input,    row_for,          row_for_each,   row_next,       row_printf,
    row_return,   row_if,           row_do,         row_while,      row_eval,
    row_sleep,    row_enc_password, row_debug,      row_ascii,      pt_end(),
};

} // namespace kestrel
