// Making, clearing and changing single modules.
#include "instruments/links/imgd.h"
#include "modules/commands.h"
#include "modules/store/cut_guard.h"
#include "modules/store/headed.h"
#include "parser/qualifiers.h"
#include "parser/variables.h"
#include "server/output.h"

#include <cstddef>
#include <cstring>
#include <optional>

namespace kestrel {

namespace {

// Links a module and checks its header: 0, or -1 after a line.
int link_module(int cn, const char *name, module_link &link, module_view &view) {
    link = module_link(name);
    if (!link) {
        sv_printf(cn, "! Cannot link to module '%s'\n", name);
        return -1;
    }
    return mod_look(cn, name, link.head(), view);
}

// ---- making

constexpr pt_format create_format("%s + %d %d %s %s %s header size %d float double num-t %d = %d");

int module_create(int quals, int cn, const char *name, int width, int height, const char *x_label,
                  const char *y_label, const char *t_label) {
    const pt_qualifiers<create_format> q(quals);
    if (q.given("header") == q.given("size")) {
        sv_printf(cn, "# Format of the 'module create' command:\n"
                      "# (a)  module create <name> <width> <height> [<xlabel> <ylabel>] header\n"
                      "# (b)  module create <name> size <bytes>\n"
                      "! You must supply one of 'header' or 'size xxx'\n");
        return -1;
    }
    if (q.given("size"))
        return mkmod_nohead(cn, name, q.number("size"));
    const mod_element data_float = q.given("double")  ? mod_element::float64
                                   : q.given("float") ? mod_element::float32
                                                      : mod_element::u_int32;
    const int made = q.given("num-t") ? mkmod_head3d(cn, name, width, height, q.number("num-t"), x_label,
                                                     y_label, t_label, data_float)
                                      : mkmod_head(cn, name, width, height, x_label, y_label, data_float);
    if (made == 0)
        module_announce(cn, name);
    return made;
}

int module_headed(int, int cn, const char *name, int width, int height, const char *x_label,
                  const char *y_label) {
    const int made = mkmod_head(cn, name, width, height, x_label, y_label, mod_element::u_int32);
    if (made == 0)
        module_announce(cn, name);
    return made;
}

// ---- elements

int module_clear(int, int cn, const char *name) {
    const module_link link(name);
    if (!link) {
        sv_printf(cn, "! Cannot link to data module %s\n", name);
        return -1;
    }
    module_view view;
    return mod_look(cn, name, link.head(), view) == 0 ? clear_mod(link.head()) : -1;
}

void unknown_type(int cn, const char *name, int type) {
    sv_printf(cn, "! ERROR: Unknow data type %d in module '%s'\n", type, name);
}

int check_bounds(int cn, const mod_stored &m, int x, int y, int t) {
    const auto inside = [](int at, std::uint32_t size) {
        return at >= 0 && static_cast<std::uint32_t>(at) < size;
    };
    if (inside(x, m.num_x) && inside(y, m.num_y) && (!m.is_3d || inside(t, m.num_t)))
        return 0;
    if (m.is_3d)
        sv_printf(cn, "! 3-d Offsets (%d, %d, %d) wrong. Module size is (%d, %d, %d)\n", x, y, t,
                  static_cast<int>(m.num_x), static_cast<int>(m.num_y), static_cast<int>(m.num_t));
    else
        sv_printf(cn, "! Offsets (%d, %d) lie outside module size  (%d, %d)\n", x, y,
                  static_cast<int>(m.num_x), static_cast<int>(m.num_y));
    return -1;
}

// Element (x, y, t) of the module, linked into `link`, or null after a message.
std::byte *point_of(int cn, const char *name, int x, int y, int t, module_link &link, module_view &view) {
    link = module_link(name);
    if (!link) {
        sv_printf(cn, "! Cannot link to module '%s'\n", name);
        return nullptr;
    }
    // Bounds come before an unknown type, and that before whatever else is wrong with the header.
    const std::optional<mod_stored> stored = mod_read_header(link.head());
    if (stored && check_bounds(cn, *stored, x, y, t) != 0)
        return nullptr;
    if (stored && !mod_element_of_code(stored->data_type)) {
        unknown_type(cn, name, stored->data_type);
        return nullptr;
    }
    if (mod_look(cn, name, link.head(), view) != 0)
        return nullptr;
    const int frame = view.is_3d ? t : 0;
    if (view.holds(x, y, frame) && mod_element_of_code(view.data_type))
        return view.at(x, y, frame);
    sv_printf(cn, "! ERROR: module '%s' was changed by another process\n", name);
    return nullptr;
}

constexpr pt_format set_point_format("%s %d %d %f t %d = %d ");

int module_set_point(int quals, int cn, const char *name, int x, int y, double value) {
    module_link link;
    module_view view;
    const int t = pt_qualifiers<set_point_format>(quals).number("t");
    std::byte *point = point_of(cn, name, x, y, t, link, view);
    if (point == nullptr)
        return -1;
    mod_put_element(point, view.data_type, value);
    return 0;
}

constexpr pt_format get_point_format("%s %d %d %s local t %d = %d ");

int module_get_point(int quals, int cn, const char *name, int x, int y, const char *variable) {
    const pt_qualifiers<get_point_format> q(quals);
    const bool local = q.given("local");
    module_link link;
    module_view view;
    const std::byte *point = point_of(cn, name, x, y, q.number("t"), link, view);
    if (point == nullptr)
        return -1;
    const int cuts = cut_guard_count();
    const double value = mod_get_element(point, view.data_type);
    int count;
    std::memcpy(&count, point, sizeof count);
    if (cut_guard_count() != cuts)
        return -1; // the line comes with the command's end
    if (view.data_type != MOD_U_INT32)
        return set_double_variable(cn, variable, value, !local);
    return set_int_variable(cn, variable, count, !local);
}

int module_set_aspect(int, int cn, const char *name, double aspect) {
    module_link link;
    module_view view;
    if (link_module(cn, name, link, view) != 0)
        return -1;
    static_assert(offsetof(mod_header, aspect) == offsetof(mod_header3d, aspect));
    std::memcpy(view.head + offsetof(mod_header, aspect), &aspect, sizeof aspect);
    return 0;
}

int module_resize(int, int cn, const char *name, int num_x, int num_y, int num_t) {
    const module_link link(name);
    if (!link) {
        sv_printf(cn, " ERROR: Cannot link to module '%s'\n", name);
        return -1;
    }
    module_view view;
    if (mod_look(cn, name, link.head(), view) != 0 ||
        app_mod_resize(cn, link.head(), num_x, num_y, num_t) != 0)
        return -1;
    if (mod_look(link.head(), view) == nullptr)
        links::imgd_module_shape(cn, name, view.num_x, view.num_y, view.num_t);
    return 0;
}

} // namespace

constinit const PARSE_TREE row_module_create = pt_command<module_create>(
    "create", create_format, "create a data module and initialize it if 'header' given",
    "module name/width/height/X label/Y label/T labels if 3d/imgd compatible data module with header/"
    "optional initial size/floating point data/Double prec floating data/"
    "Create 3d module with specified num-t");
constinit const PARSE_TREE row_module_headed = pt_command<module_headed>(
    "headed", "%s %d %d + %s %s = %d", "create and initialize a headed module (backwards compatible)",
    "module name/width/height/X label/Y label");
constinit const PARSE_TREE row_module_clear = pt_command<module_clear>(
    "clear", "%s = %d", "save a data module into a local file (see also ftp functions)", "module name");
constinit const PARSE_TREE row_module_set_point =
    pt_command<module_set_point>("set-point", set_point_format, "Set a data point in a module",
                                 "Module name/X position/Y Position/Value/t coordiante for 3d modules");
constinit const PARSE_TREE row_module_get_point = pt_command<module_get_point>(
    "get-point", get_point_format, "Set a data point in a module",
    "Module name/X position/Y Position/Variable to set/Set local variable/t coordiante for 3d modules");
constinit const PARSE_TREE row_module_set_aspect = pt_command<module_set_aspect>(
    "set-aspect", "%s %f = %d ", "Set a data aspect ratio for a headed data module",
    "Module name/Aspect Ratio");
constinit const PARSE_TREE row_module_resize =
    pt_command<module_resize>("resize", "%s %d %d + %d = %d", "Resize data module",
                              "Module name/New num-x/New num-y/New num-t (omit or 1 for 2-d modules)");

} // namespace kestrel
