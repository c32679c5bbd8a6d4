// Making, clearing and changing single modules.
#include "instruments/links/imgd.h"
#include "modules/commands.h"
#include "modules/store/cut_guard.h"
#include "modules/store/headed.h"
#include "parser/call.h"
#include "parser/variables.h"
#include "server/output.h"

#include <cstddef>
#include <cstring>
#include <optional>

namespace kestrel {

namespace {

// Links a module and checks its header; the message for a missing one is the caller's format with its name.
int link_module(int cn, const char *name, const char *missing, module_link &link, module_view &view) {
    link = module_link(name);
    if (!link) {
        char text[512];
        std::snprintf(text, sizeof text, missing, name);
        sv_print(cn, text);
        return -1;
    }
    return mod_look(cn, name, link.head(), view);
}

constexpr const char *cannot_link = "! Cannot link to module '%s'\n";

} // namespace

int module_create(int quals, int cn, const char *name, int width, int height, const char *x_label,
                  const char *y_label, const char *t_label) {
    enum { q_header, q_size, q_float, q_double, q_num_t };
    const auto has = [quals](int q) { return (quals >> q & 1) != 0; };
    if (has(q_header) == has(q_size)) {
        sv_printf(cn, "# Format of the 'module create' command:\n"
                      "# (a)  module create <name> <width> <height> [<xlabel> <ylabel>] header\n"
                      "# (b)  module create <name> size <bytes>\n"
                      "! You must supply one of 'header' or 'size xxx'\n");
        return -1;
    }
    if (has(q_size))
        return mkmod_nohead(cn, name, Qualifier[q_size].IntArg);
    const mod_element data_float = has(q_double)  ? mod_element::float64
                                   : has(q_float) ? mod_element::float32
                                                  : mod_element::u_int32;
    const int made = has(q_num_t) ? mkmod_head3d(cn, name, width, height, Qualifier[q_num_t].IntArg, x_label,
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

int module_clear(int, int cn, const char *name) {
    module_link link;
    module_view view;
    if (link_module(cn, name, "! Cannot link to data module %s\n", link, view) != 0)
        return -1;
    return clear_mod(link.head());
}

namespace {

void unknown_type(int cn, const char *name, int type) {
    sv_printf(cn, "! ERROR: Unknow data type %d in module '%s'\n", type, name);
}

// Element (x, y, t) of the module, linked into `link`, or null after a message.
std::byte *point_of(int cn, const char *name, int x, int y, int t, module_link &link, module_view &view) {
    link = module_link(name);
    if (!link) {
        sv_printf(cn, cannot_link, name);
        return nullptr;
    }
    const std::optional<int> type = mod_data_type(link.head());
    if (type && kestrel_module_element_size(*type) == 0) {
        unknown_type(cn, name, *type);
        return nullptr;
    }
    if (mod_look(cn, name, link.head(), view) != 0)
        return nullptr;
    if (view.is_3d && !view.holds(x, y, t)) {
        sv_printf(cn, "! 3-d Offsets (%d, %d, %d) wrong. Module size is (%d, %d, %d)\n", x, y, t, view.num_x,
                  view.num_y, view.num_t);
        return nullptr;
    }
    if (!view.is_3d && !view.holds(x, y, 0)) {
        sv_printf(cn, "! Offsets (%d, %d) lie outside module size  (%d, %d)\n", x, y, view.num_x, view.num_y);
        return nullptr;
    }
    if (view.data_type != MOD_U_INT32 && view.data_type != MOD_FLOAT && view.data_type != MOD_DOUBLE) {
        unknown_type(cn, name, view.data_type);
        return nullptr;
    }
    return view.at(x, y, view.is_3d ? t : 0);
}

} // namespace

int module_set_point(int quals, int cn, const char *name, int x, int y, double value) {
    module_link link;
    module_view view;
    const int t = (quals & 1) != 0 ? Qualifier[0].IntArg : 0;
    std::byte *point = point_of(cn, name, x, y, t, link, view);
    if (point == nullptr)
        return -1;
    mod_put_element(point, view.data_type, value);
    return 0;
}

int module_get_point(int quals, int cn, const char *name, int x, int y, const char *variable) {
    const bool local = (quals & 1) != 0;
    const int t = (quals & 2) != 0 ? Qualifier[1].IntArg : 0;
    module_link link;
    module_view view;
    const std::byte *point = point_of(cn, name, x, y, t, link, view);
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
    if (link_module(cn, name, cannot_link, link, view) != 0)
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

} // namespace kestrel
