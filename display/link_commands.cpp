// display: the commands that the image-display link sends, for pages to follow.
#include "display/announced.h"
#include "display/modules_seen.h"
#include "display/root_table.h"
#include "parser/builtins.h"
#include "parser/qualifiers.h"
#include "server/output.h"

namespace kestrel::display {

namespace {

constexpr pt_format open_format("%s display1d display2d = %d");

bool is_there(int cn, const char *name) {
    const bool there = static_cast<bool>(open_for_reading(name).fd);
    if (!there)
        sv_printf(cn, "! No module '%s' that can be shown\n", name);
    return there;
}

int config(int, int cn, const char *name) {
    if (!is_there(cn, name))
        return -1;
    announce(name, "config");
    return 0;
}

int open(int quals, int cn, const char *name) {
    const pt_qualifiers<open_format> q(quals);
    if (!is_there(cn, name))
        return -1;
    announce(name, q.given("display1d") ? "display1d" : q.given("display2d") ? "display2d" : "config");
    return 0;
}

// The shape stands in the module itself: what is told here only says that it is new.
int set_shape(int, int cn, const char *name, int num_x, int num_y, int num_t) {
    if (num_x < 1 || num_y < 1 || num_t < 0) {
        sv_printf(cn, "! A module of %d x %d x %d elements cannot be shown\n", num_x, num_y, num_t);
        return -1;
    }
    if (!is_there(cn, name))
        return -1;
    announce(name, "shape");
    return 0;
}

constinit const PARSE_TREE module_tree[] = {
    pt_command<config>("config", "%s = %d", "list a module", "Module name"),
    pt_command<open>("open", open_format, "show a module on the pages that follow the server",
                     "Module name/As spectra/As an image"),
    pt_command<set_shape>("set-shape", "%s %d %d %d = %d", "tell that a module has a new shape",
                          "Module name/X/Y/T"),
    pt_end(),
};

} // namespace

constinit const PARSE_TREE root_table[] = {
    pt_row(row_help),   pt_row(row_echo),     pt_row(row_quit),
    pt_row(row_status), pt_row(row_shutdown), pt_subtree("module", module_tree, "modules to show"),
    pt_end(),
};

} // namespace kestrel::display
