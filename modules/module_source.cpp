// Modules as sources of unified handles: the module paths, and opening and closing them.
#include "modules/commands.h"
#include "modules/store/element.h"
#include "modules/store/view.h"
#include "parser/qualifiers.h"
#include "server/output.h"
#include "unified/handles/handles.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace kestrel {

namespace {

constexpr int module_paths = 31; // numbered from 1

// What a path stands for while it is open; the module stays linked.
struct module_path {
    module_link link;
    int data_type = 0; // when it was opened
    int handle = -1;
};

std::array<module_path, module_paths + 1> mod_ptrs;

void *head_of(int path, const char *caller) {
    if (path >= 1 && path <= module_paths && mod_ptrs[static_cast<std::size_t>(path)].link)
        return mod_ptrs[static_cast<std::size_t>(path)].link.head();
    std::fprintf(stderr, "Invalid path sent to %s value %d\n", caller, path);
    return nullptr;
}

// The open module, with all of the box inside it; false after the cause was told.
bool look_at_box(int path, const char *caller, const unified_box &b, module_view &view) {
    void *head = head_of(path, caller);
    if (head == nullptr)
        return false;
    if (const char *fault = mod_look(head, view)) {
        unified_explain("Module of path %d %s", path, fault);
        return false;
    }
    if (!mod_element_of_code(view.data_type)) {
        std::fprintf(stderr, "Invalid data type in module_read, type %d\n", view.data_type);
        unified_explain("Module of path %d has data type %d now", path, view.data_type);
        return false;
    }
    // Readers have made room for elements of the type that the handle was opened with.
    if (view.data_type != mod_ptrs[static_cast<std::size_t>(path)].data_type) {
        unified_explain("Module of path %d has data type %d now", path, view.data_type);
        return false;
    }
    if (!view.holds(b.x, b.y, b.t) || !view.holds(b.x + b.dx - 1, b.y + b.dy - 1, b.t + b.dt - 1)) {
        unified_explain("Module of path %d is (%d, %d, %d) now", path, view.num_x, view.num_y, view.num_t);
        return false;
    }
    return true;
}

std::size_t row_bytes(const module_view &view, int dx) {
    return static_cast<std::size_t>(dx) * view.element_size;
}

int read_box(int path, void *buffer, const unified_box &b) {
    module_view view;
    if (!look_at_box(path, "module_read", b, view))
        return -1;
    auto *out = static_cast<std::byte *>(buffer);
    const std::size_t row = row_bytes(view, b.dx);
    for (int t = b.t; t < b.t + b.dt; ++t)
        for (int y = b.y; y < b.y + b.dy; ++y, out += row)
            std::memcpy(out, view.at(b.x, y, t), row);
    return 0;
}

int clear_box(int path, const unified_box &b) {
    module_view view;
    if (!look_at_box(path, "mod_clear", b, view))
        return -1;
    for (int t = b.t; t < b.t + b.dt; ++t)
        for (int y = b.y; y < b.y + b.dy; ++y)
            std::memset(view.at(b.x, y, t), 0, row_bytes(view, b.dx));
    return 0;
}

// A 2-D module has one frame, whatever frame is asked for.
int module_read(int path, void *buffer, int x, int y, int, int dx, int dy, int) {
    return read_box(path, buffer, {x, y, 0, dx, dy, 1});
}

int module_read3d(int path, void *buffer, int x, int y, int t, int dx, int dy, int dt) {
    return read_box(path, buffer, {x, y, t, dx, dy, dt});
}

int mod_clear(int path, int x, int y, int, int dx, int dy, int) {
    return clear_box(path, {x, y, 0, dx, dy, 1});
}

int mod_clear3d(int path, int x, int y, int t, int dx, int dy, int dt) {
    return clear_box(path, {x, y, t, dx, dy, dt});
}

int module_place(int path, unified_place *place) {
    module_view view;
    if (!look_at_box(path, "module_read", {0, 0, 0, 1, 1, 1}, view))
        return -1;
    place->first = view.data();
    place->row_stride = row_bytes(view, view.num_x);
    place->frame_stride = place->row_stride * static_cast<std::size_t>(view.num_y);
    place->nx = view.num_x;
    place->ny = view.num_y;
    place->nt = view.num_t;
    place->owner = view.head;
    return 0;
}

void module_destroy(int path, int) {
    if (head_of(path, "module_destroy") != nullptr)
        mod_ptrs[static_cast<std::size_t>(path)] = {};
}

constexpr unified_source source_2d = {
    .read = module_read, .destroy = module_destroy, .clear = mod_clear, .place = module_place};
constexpr unified_source source_3d = {
    .read = module_read3d, .destroy = module_destroy, .clear = mod_clear3d, .place = module_place};

bool is_module_handle(int handle) {
    return std::any_of(mod_ptrs.begin(), mod_ptrs.end(),
                       [handle](const module_path &path) { return path.link && path.handle == handle; });
}

// The header's kind, before the header is trusted with more.
int check_kind(int cn, const char *name, const void *head) {
    std::int32_t disp_type = 0;
    if (datamod_mod_size(head) >= static_cast<off_t>(sizeof(mod_header)) && datamod_is_whole(head))
        std::memcpy(&disp_type, static_cast<const std::byte *>(head) + offsetof(mod_header, disp_type),
                    sizeof disp_type);
    const auto kind = static_cast<std::uint32_t>(disp_type) >> 16;
    if (kind <= 1)
        return 0;
    sv_printf(cn, "! ERROR: unknown data module type %s for '%s'\n", std::to_string(kind).c_str(), name);
    return -1;
}

// ---- commands

constexpr pt_format open_format("%s header  = %d");

int module_open(int quals, int cn, const char *name) {
    if (!pt_qualifiers<open_format>(quals).given("header")) {
        sv_printf(cn, "# Only headed modules accepted at the moment, please specify headed qualifier\n");
        return -1;
    }
    int path = 1;
    while (path <= module_paths && mod_ptrs[static_cast<std::size_t>(path)].link)
        ++path;
    if (path > module_paths) {
        sv_printf(cn, "# ERROR: no free module paths, please close some \n");
        return -1;
    }
    module_link link(name);
    if (!link) {
        sv_printf(cn, "# Cannot open path to module %s\n", name);
        return -1;
    }
    void *const head = link.head();
    module_view view;
    const std::optional<int> stored = mod_data_type(head);
    if (stored && !mod_element_of_code(*stored)) {
        sv_printf(cn, "# Cannot handle module data type %d\n", *stored);
        return -1;
    }
    if (check_kind(cn, name, head) != 0 || mod_look(cn, name, head, view) != 0)
        return -1;
    const auto element = mod_element_of_code(view.data_type);
    const int type = element ? mod_handle_type_of(*element) : el_none;
    const int handle = unified_open(cn, path, view.num_x, view.num_y, view.num_t, type,
                                    mod_title(head).c_str(), view.is_3d ? source_3d : source_2d);
    if (handle < 0)
        return -1;
    unified_set_mmapped(cn, handle, view.data());
    mod_ptrs[static_cast<std::size_t>(path)] = {std::move(link), view.data_type, handle};
    return handle;
}

// Closes any handle; a module path is given back by its destroy callback's work.
int module_close(int, int cn, int handle) {
    if (!is_module_handle(handle))
        std::fprintf(stderr, "Invalid path sent to module_destroy value %d\n", unif_handle2path(handle));
    return unified_close_and_destroy(cn, handle);
}

} // namespace

constinit const PARSE_TREE row_module_open = pt_command<module_open>(
    "open", open_format, "open a unified read connection to a module currently must be headed",
    "module name");
constinit const PARSE_TREE row_module_close = pt_command<module_close>(
    "close", "%d  = %d", "close a unified read connection to a module", "Unified path number");

} // namespace kestrel
