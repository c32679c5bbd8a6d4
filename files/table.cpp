// The list of the `file` commands.
#include "files/commands.h"

namespace kestrel {

namespace {

constinit const PARSE_TREE file_table[] = {
    pt_row(row_file_open),
    pt_row(row_file_close),
    pt_row(row_file_get_next_index),
    pt_end(),
};

} // namespace

constinit const PARSE_TREE row_file = pt_subtree("file", file_table, "Open/Close unified path to files");

} // namespace kestrel
