// `imgd`: the image display. It maps the same modules; over its link it is told which.
#include "instruments/links/clients.h"
#include "instruments/links/commands.h"
#include "instruments/links/imgd.h"
#include "server/output.h"

#include <new>
#include <string>
#include <string_view>

namespace kestrel::links {

namespace {

enum imgd_keyword : int {
    imgd_reset = 1,
    imgd_all = 2,
    imgd_config = 4,
    imgd_set_shape = 8,
    imgd_auto_display = 16,
    imgd_display = 32,
    imgd_kairo = 64,
};
constexpr int imgd_kinds = imgd_config | imgd_set_shape | imgd_auto_display | imgd_display | imgd_kairo;
constexpr const char *kairo_times_module = "kairo_times";

int enabled = 0;

// `reset` first, then `all`, then the single kinds, so that one line can say exactly what it wants.
int enable(int quals, int cn) {
    if (quals & imgd_reset)
        enabled = 0;
    if (quals & imgd_all)
        enabled = imgd_kinds;
    enabled |= quals & imgd_kinds;
    if (quals == 0)
        sv_printf(cn, "# Enabled:%s%s%s%s%s\n", enabled & imgd_config ? " config" : "",
                  enabled & imgd_set_shape ? " set-shape" : "",
                  enabled & imgd_auto_display ? " auto-display" : "",
                  enabled & imgd_display ? " display" : "", enabled & imgd_kairo ? " kairo" : "");
    return 0;
}

// The frame-time table is announced only when asked for: it is remade with every set of frames.
bool announces(int kind, const char *name) {
    if (std::string_view(name) == kairo_times_module && !(enabled & imgd_kairo))
        return false;
    return enabled & kind;
}

std::string shape(int num_x, int num_y, int num_t) {
    return std::to_string(num_x) + " " + std::to_string(num_y) + " " + std::to_string(num_t);
}

std::string quoted(const char *name) {
    return std::string("'") + name + "'";
}

} // namespace

void imgd_not_told(int cn, const char *name) {
    sv_printf(cn, "# Warning: out of memory, the image display is not told of module '%s'\n", name);
}

bool imgd_display_enabled() {
    return enabled & imgd_display;
}

void imgd_module_new(int cn, const char *name, int num_x, int num_y, int num_t) try {
    if (announces(imgd_config, name))
        send_wait(cn, link_imgd, "module config " + quoted(name));
    if (announces(imgd_auto_display, name))
        send_wait(cn, link_imgd,
                  "module open " + quoted(name) + (num_y == 1 && num_t == 1 ? " display1d" : " display2d"));
    if (announces(imgd_set_shape, name))
        send_wait(cn, link_imgd, "module set-shape " + quoted(name) + " " + shape(num_x, num_y, num_t));
} catch (const std::bad_alloc &) {
    imgd_not_told(cn, name);
}

void imgd_module_shape(int cn, const char *name, int num_x, int num_y, int num_t) try {
    if (announces(imgd_set_shape, name))
        send_wait(cn, link_imgd, "module set-shape " + quoted(name) + " " + shape(num_x, num_y, num_t));
} catch (const std::bad_alloc &) {
    imgd_not_told(cn, name);
}

const PARSE_TREE imgd_tree[] = {
    pt_command<enable>(
        "enable", " reset all config set-shape auto-display display kairo = %d",
        "choose which image displayer commands are sent automatically",
        "Disable all first/Enable all/Configure new modules/Tell the shape of modules/"
        "Display new modules/Display modules when commands ask for it/Include the frame times"),
    pt_end(),
};

} // namespace kestrel::links
