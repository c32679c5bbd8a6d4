// `imgd`: the image display. It maps the same modules; over its link it is told which.
#include "instruments/links/clients.h"
#include "instruments/links/commands.h"
#include "instruments/links/imgd.h"
#include "parser/qualifiers.h"
#include "server/output.h"

#include <new>
#include <string>
#include <string_view>

namespace kestrel::links {

namespace {

// Kinds of announcement.
enum imgd_kind : unsigned {
    imgd_config = 1,
    imgd_set_shape = 2,
    imgd_auto_display = 4,
    imgd_display = 8,
    imgd_kairo = 16,
    imgd_all_kinds = 31,
};

constexpr pt_format enable_format(" reset all config set-shape auto-display display kairo = %d");
using enable_quals = pt_qualifiers<enable_format>;
constexpr enable_quals::choice<imgd_kind> kind_words[] = {
    {"config", imgd_config},   {"set-shape", imgd_set_shape}, {"auto-display", imgd_auto_display},
    {"display", imgd_display}, {"kairo", imgd_kairo},
};

constexpr const char *kairo_times_module = "kairo_times";

unsigned enabled = 0; // the kinds

// `reset` first, then `all`, then the single kinds, so that one line can say exactly what it wants.
int enable(int quals, int cn) {
    const enable_quals q(quals);
    if (q.given("reset"))
        enabled = 0;
    if (q.given("all"))
        enabled = imgd_all_kinds;
    for (const auto &[word, kind] : kind_words)
        enabled |= q.given(word) ? kind : 0U;
    if (q.none())
        sv_printf(cn, "# Enabled:%s%s%s%s%s\n", enabled & imgd_config ? " config" : "",
                  enabled & imgd_set_shape ? " set-shape" : "",
                  enabled & imgd_auto_display ? " auto-display" : "",
                  enabled & imgd_display ? " display" : "", enabled & imgd_kairo ? " kairo" : "");
    return 0;
}

// The frame-time table is announced only when asked for: it is remade with every set of frames.
bool announces(imgd_kind kind, const char *name) {
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

constinit const PARSE_TREE imgd_tree[] = {
    pt_command<enable>(
        "enable", enable_format, "choose which image displayer commands are sent automatically",
        "Disable all first/Enable all/Configure new modules/Tell the shape of modules/"
        "Display new modules/Display modules when commands ask for it/Include the frame times"),
    pt_end(),
};

} // namespace kestrel::links
