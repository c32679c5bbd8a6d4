// The list of the `module` commands.
#include "modules/commands.h"

namespace kestrel {

namespace {

constinit const PARSE_TREE module_table[] = {
    pt_row(row_module_create),     pt_row(row_module_clear),
    pt_row(row_module_save),       pt_row(row_module_load),
    pt_row(row_module_headed),     pt_row(row_module_open),
    pt_row(row_module_close),      pt_row(row_module_get_remote),
    pt_row(row_module_set_point),  pt_row(row_module_get_point),
    pt_row(row_module_set_aspect), pt_row(row_module_copy),
    pt_row(row_module_resize),     pt_end(),
};

} // namespace

constinit const PARSE_TREE row_module =
    pt_subtree("module", module_table, "prefix for module-specific functions");

} // namespace kestrel
