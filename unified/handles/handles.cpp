#include "unified/handles/handles.h"

#include "modules/store/view.h"
#include "server/output.h"
#include "unified/handles/run.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace kestrel {

namespace {

// A row of the table, of this file only.
struct _unif_open_tbl {
    int valid = 0;
    int cn = 0;
    int path = 0;
    int nx = 0, ny = 0, nt = 0; // nt 0: any frame is taken
    int data_type = 0;
    int elem_size = 0;
    std::string description;
    unified_source source;
    int corr_type = corr_none;
    const float *corr_data = nullptr; // set by a source: corr_order + 1 rows of nx
    double corr_scaling = 1.0;
    int corr_from_module = 0;
    int corr_frame = 0;     // frame of the correction module
    module_link corr_head;  // that module
    std::string corr_title; // its title then
    int dtc_type = 0;
    int corr_order = 0;
    unified_scale_hook corr_pre_post_scal = nullptr;
    void *mmapped = nullptr;
    std::recursive_mutex mutex;        // a reader that looks in place may read as well
    unified_details details = nullptr; // header details for the detector image form
};

std::array<_unif_open_tbl, unified_max_handles> table;
std::array<void (*)(), unified_max_clear_callbacks> clear_callbacks{};
std::atomic<int> open_handles{0};
std::string dtc_module = "kairo_times";
thread_local std::string explanation;

// The open row, or null for a number outside the table and a free handle.
_unif_open_tbl *entry_of(int handle) {
    if (handle < 0 || handle >= unified_max_handles)
        return nullptr;
    _unif_open_tbl &entry = table[static_cast<std::size_t>(handle)];
    return entry.valid != 0 ? &entry : nullptr;
}

_unif_open_tbl *entry_or_complain(int cn, int handle) {
    _unif_open_tbl *entry = entry_of(handle);
    if (entry == nullptr)
        sv_printf(cn, "! Invalid handle %d\n", handle);
    return entry;
}

void drop_correction(_unif_open_tbl &entry) {
    entry.corr_from_module = 0;
    entry.corr_head.reset();
    entry.corr_data = nullptr;
    entry.corr_type = corr_none;
    entry.corr_frame = 0;
    entry.corr_order = 0;
    entry.corr_scaling = 1.0;
}

void free_entry(_unif_open_tbl &entry) {
    drop_correction(entry);
    entry.source = {};
    entry.description.clear();
    entry.details = nullptr;
    entry.mmapped = nullptr;
    entry.corr_pre_post_scal = nullptr;
    entry.valid = 0;
    open_handles.fetch_sub(1, std::memory_order_relaxed);
}

void destroy_entry(_unif_open_tbl &entry, int handle) {
    if (entry.source.destroy != nullptr)
        entry.source.destroy(entry.path, handle);
    free_entry(entry);
}

// "! %s" with what the source has told, then the line of the layer that called it.
int failed(int cn, const char *line) {
    if (!explanation.empty())
        sv_printf(cn, "! %s\n", explanation.c_str());
    explanation.clear();
    sv_printf(cn, "%s", line);
    return -1;
}

// Every size in bytes that a reader works out, of any element type, stays far within 64 bits.
bool size_fits(int nx, int ny, int nt) {
    constexpr double bytes_max = 0x1p56;
    return nx >= 0 && ny >= 0 && nt >= 0 &&
           static_cast<double>(nx) * ny * std::max(nt, 1) * element_sizes[el_double] <= bytes_max;
}

} // namespace

int unified_open(int cn, int path, int nx, int ny, int nt, int data_type, const char *description,
                 const unified_source &source) {
    if (source.read == nullptr) {
        std::fprintf(stderr, "unified.c: unified_open: A read function must be specified.\n");
        std::exit(1);
    }
    if (!size_fits(nx, ny, nt)) {
        sv_printf(cn, "! A source of %d x %d x %d elements is too large\n", nx, ny, nt);
        return -1;
    }
    const auto entry =
        std::find_if(table.begin(), table.end(), [](const _unif_open_tbl &e) { return e.valid == 0; });
    if (entry == table.end()) {
        sv_printf(cn, "! No free unified handle, please close some\n");
        return -1;
    }
    entry->cn = cn;
    entry->path = path;
    entry->nx = nx;
    entry->ny = ny;
    entry->nt = nt;
    entry->data_type = data_type;
    entry->elem_size = element_size(data_type);
    entry->description = description != nullptr ? description : "";
    entry->source = source;
    entry->dtc_type = 0;
    entry->valid = 1;
    open_handles.fetch_add(1, std::memory_order_relaxed);
    return static_cast<int>(entry - table.begin());
}

int unified_open_count() {
    return open_handles.load(std::memory_order_relaxed);
}

int unified_close(int handle) {
    _unif_open_tbl *entry = entry_of(handle);
    if (entry == nullptr)
        return -1;
    free_entry(*entry);
    return 0;
}

int unified_close_and_destroy(int cn, int handle) {
    _unif_open_tbl *entry = entry_or_complain(cn, handle);
    if (entry == nullptr)
        return -1;
    destroy_entry(*entry, handle);
    return 0;
}

void unified_close_all(int) {
    for (int handle = 0; handle < unified_max_handles; ++handle)
        if (_unif_open_tbl *entry = entry_of(handle))
            destroy_entry(*entry, handle);
}

void unif_connection_lost(int cn) {
    for (int handle = 0; handle < unified_max_handles; ++handle)
        if (_unif_open_tbl *entry = entry_of(handle); entry != nullptr && entry->cn == cn)
            destroy_entry(*entry, handle);
}

// ---- fields

namespace {

int field(int handle, int _unif_open_tbl::*member) {
    const _unif_open_tbl *entry = entry_of(handle);
    return entry != nullptr ? entry->*member : -1;
}

int set_field(int handle, int _unif_open_tbl::*member, int value) {
    _unif_open_tbl *entry = entry_of(handle);
    if (entry == nullptr)
        return -1;
    entry->*member = value;
    return 0;
}

} // namespace

std::optional<unified_info> unified_info_of(int handle) {
    const _unif_open_tbl *entry = entry_of(handle);
    if (entry == nullptr)
        return std::nullopt;
    const unified_source &source = entry->source;
    return unified_info{.path = entry->path,
                        .nx = entry->nx,
                        .ny = entry->ny,
                        .nt = entry->nt,
                        .data_type = entry->data_type,
                        .elem_size = entry->elem_size,
                        .knows_range = source.iminmax != nullptr || source.dminmax != nullptr,
                        .shows_elements = source.place != nullptr,
                        .reads_gel = source.readgel != nullptr,
                        .is_switched = source.enable != nullptr && source.disable != nullptr,
                        .details = entry->details};
}

std::optional<unified_correction> unified_correction_of(int handle) {
    const _unif_open_tbl *entry = entry_of(handle);
    if (entry == nullptr)
        return std::nullopt;
    return unified_correction{.type = entry->corr_type,
                              .order = entry->corr_order,
                              .scaling = entry->corr_scaling,
                              .data = entry->corr_data,
                              .module = entry->corr_head.head(),
                              .frame = entry->corr_frame,
                              .title = entry->corr_title,
                              .pre_post = entry->corr_pre_post_scal};
}

int unified_get_nx(int handle) {
    return field(handle, &_unif_open_tbl::nx);
}
int unified_get_ny(int handle) {
    return field(handle, &_unif_open_tbl::ny);
}
int unified_get_nt(int handle) {
    return field(handle, &_unif_open_tbl::nt);
}
int unified_get_type(int handle) {
    return field(handle, &_unif_open_tbl::data_type);
}
int unified_get_bsize(int handle) {
    return field(handle, &_unif_open_tbl::elem_size);
}
int unif_handle2path(int handle) {
    return field(handle, &_unif_open_tbl::path);
}
int unified_set_nx(int handle, int nx) {
    return set_field(handle, &_unif_open_tbl::nx, nx);
}
int unified_set_ny(int handle, int ny) {
    return set_field(handle, &_unif_open_tbl::ny, ny);
}
int unified_set_nt(int handle, int nt) {
    return set_field(handle, &_unif_open_tbl::nt, nt);
}

int unif_set_description(int handle, const char *text) {
    _unif_open_tbl *entry = entry_of(handle);
    if (entry == nullptr)
        return -1;
    entry->description = text;
    return 0;
}

int unified_set_mmapped(int cn, int handle, void *buffer) {
    _unif_open_tbl *entry = entry_or_complain(cn, handle);
    if (entry == nullptr)
        return -1;
    entry->mmapped = buffer;
    return 0;
}

int unified_set_tessera_details_callback(int cn, int handle, unified_details details) {
    _unif_open_tbl *entry = entry_or_complain(cn, handle);
    if (entry == nullptr)
        return -1;
    entry->details = details;
    return 0;
}

int unified_set_corr_ptr(int cn, int handle, int type, const float *data, int order, double scaling) {
    _unif_open_tbl *entry = entry_or_complain(cn, handle);
    if (entry == nullptr)
        return -1;
    drop_correction(*entry);
    entry->corr_type = data != nullptr ? type : corr_none;
    entry->corr_data = data;
    entry->corr_order = order;
    entry->corr_scaling = scaling;
    return 0;
}

int unified_set_corr_pre_post(int cn, int handle, unified_scale_hook hook) {
    _unif_open_tbl *entry = entry_or_complain(cn, handle);
    if (entry == nullptr)
        return -1;
    entry->corr_pre_post_scal = hook;
    return 0;
}

int unified_set_corr_module(int cn, int handle, int type, module_link head, int frame, int order,
                            double scaling) {
    _unif_open_tbl *entry = entry_or_complain(cn, handle);
    if (entry == nullptr)
        return -1;
    drop_correction(*entry);
    if (!head)
        return 0;
    entry->corr_type = type;
    entry->corr_from_module = 1;
    entry->corr_head = std::move(head);
    entry->corr_title = mod_title(entry->corr_head.head());
    entry->corr_frame = frame;
    entry->corr_order = order;
    entry->corr_scaling = scaling;
    return 0;
}

int unified_set_dtc_module(int, const char *name) {
    dtc_module = name;
    return 0;
}

const std::string &unified_dtc_module() {
    return dtc_module;
}

// ---- clear callbacks

int unified_set_clear_callback(int cn, void (*fn)()) {
    if (std::find(clear_callbacks.begin(), clear_callbacks.end(), fn) != clear_callbacks.end())
        return 0;
    const auto slot = std::find(clear_callbacks.begin(), clear_callbacks.end(), nullptr);
    if (slot == clear_callbacks.end()) {
        sv_printf(cn, "ERROR: Too many clear call backs registered, cannot register this one\n");
        return -1;
    }
    *slot = fn;
    return 0;
}

int unified_remove_clear_callback(int cn, void (*fn)()) {
    const auto slot = std::find(clear_callbacks.begin(), clear_callbacks.end(), fn);
    if (slot == clear_callbacks.end()) {
        sv_printf(cn, "ERROR: Cannot find clear callback to remove\n");
        return -1;
    }
    *slot = nullptr;
    return 0;
}

// ---- boxes

namespace {

// first .. first + count within 0 .. size, without overflow.
bool within(int first, int count, int size) {
    return first >= 0 && count >= 0 && first < size && count <= size - first;
}

} // namespace

int unified_check_box(int cn, const char *request, int handle, const unified_box &b) {
    const _unif_open_tbl *entry = entry_of(handle);
    if (entry == nullptr) {
        sv_printf(cn, "! Device handle is stale (passed %d).\n", handle);
        return -1;
    }
    const bool frames = entry->nt != 0;
    if (!within(b.x, b.dx, entry->nx) || !within(b.y, b.dy, entry->ny) ||
        (frames && !within(b.t, b.dt, entry->nt))) {
        sv_printf(cn,
                  "! This %s request does not lie within the boundaries of the image, read (%d, %d, %d) for "
                  "(%d, %d, %d)\n",
                  request, b.x, b.y, b.t, b.dx, b.dy, b.dt);
        sv_printf(cn, "# The size of the image is %dx%dx%d.\n", entry->nx, entry->ny, entry->nt);
        return -1;
    }
    if (b.dx == 0 || b.dy == 0 || (frames && b.dt == 0)) {
        sv_printf(cn, "! dx, dy and dt must all be greater than zero.");
        return -1;
    }
    return 0;
}

int app_unified_read(int cn, int handle, void *buffer, int x, int y, int t, int dx, int dy, int dt) {
    if (unified_check_box(cn, "app-read", handle, {x, y, t, dx, dy, dt}) != 0)
        return -1;
    _unif_open_tbl &entry = *entry_of(handle);
    std::unique_lock lock(entry.mutex, std::defer_lock);
    try {
        lock.lock();
    } catch (const std::system_error &error) {
        sv_printf(cn, "! ERROR app_unified_read: acquiring lock, r=%d\n", error.code().value());
        return -1;
    }
    explanation.clear();
    if (entry.source.read(entry.path, buffer, x, y, t, dx, dy, dt) < 0)
        return failed(cn, "! Device read failed.\n");
    return 0;
}

int unified_read_gel(int handle, void *buffer, const unified_box &b) {
    _unif_open_tbl *entry = entry_of(handle);
    if (entry == nullptr || entry->source.readgel == nullptr)
        return -1;
    const std::lock_guard lock(entry->mutex);
    return entry->source.readgel(entry->path, buffer, b.x, b.y, b.t, b.dx, b.dy, b.dt) < 0 ? -1 : 0;
}

int unified_source_file(int handle) {
    const _unif_open_tbl *entry = entry_of(handle);
    return entry != nullptr && entry->source.file != nullptr ? entry->source.file(entry->path) : -1;
}

std::optional<run_handle> unified_run_of(int cn, int handle) {
    const _unif_open_tbl *entry = entry_or_complain(cn, handle);
    if (entry == nullptr)
        return std::nullopt;
    if (entry->source.run == nullptr) {
        sv_printf(cn, "! ERROR: handle %d is not of a path of the pulse processor\n", handle);
        return std::nullopt;
    }
    return run_handle{entry->source.run, entry->path};
}

bool unified_is_run(int handle, const run_handle &run) {
    const _unif_open_tbl *entry = entry_of(handle);
    return entry != nullptr && entry->source.run == run.source && entry->path == run.path;
}

int unified_run_failed(int cn) {
    return failed(cn, "");
}

int app_unified_clear(int cn, int handle, int x, int y, int t, int dx, int dy, int dt) {
    if (unified_check_box(cn, "app-clear", handle, {x, y, t, dx, dy, dt}) != 0)
        return -1;
    const _unif_open_tbl &entry = *entry_of(handle);
    if (entry.source.clear == nullptr) {
        sv_printf(cn, "! No clear function is defined for handle %d.\n", handle);
        return -1;
    }
    explanation.clear();
    if (entry.source.clear(entry.path, x, y, t, dx, dy, dt) < 0)
        return failed(cn, "! Device clear failed.\n");
    for (void (*callback)() : clear_callbacks)
        if (callback != nullptr)
            callback();
    return 0;
}

int app_unified_enable(int cn, int handle) {
    if (unified_check_box(cn, "enable", handle, {0, 0, 0, 1, 1, 1}) != 0)
        return -1;
    const _unif_open_tbl &entry = *entry_of(handle);
    if (entry.source.enable == nullptr) {
        sv_printf(cn, "! No enable function is defined for handle %d.\n", handle);
        return -1;
    }
    explanation.clear();
    return entry.source.enable(entry.path) < 0 ? failed(cn, "! Device enable failed.\n") : 0;
}

int app_unified_disable(int cn, int handle) {
    if (unified_check_box(cn, "disable", handle, {0, 0, 0, 1, 1, 1}) != 0)
        return -1;
    const _unif_open_tbl &entry = *entry_of(handle);
    if (entry.source.disable == nullptr) {
        sv_printf(cn, "! No disable function is defined for handle %d.\n", handle);
        return -1;
    }
    explanation.clear();
    return entry.source.disable(entry.path) < 0 ? failed(cn, "! Device disable failed.\n") : 0;
}

std::optional<unified_look> unified_look_at(int handle, const unified_box &b) {
    _unif_open_tbl *entry = entry_of(handle);
    if (entry == nullptr || entry->source.place == nullptr)
        return std::nullopt;
    unified_look look;
    look.lock = std::unique_lock(entry->mutex);
    unified_place place;
    if (entry->source.place(entry->path, &place) < 0 || !within(b.x, b.dx, place.nx) ||
        !within(b.y, b.dy, place.ny) || !within(b.t, b.dt, place.nt))
        return std::nullopt;
    look.row_stride = place.row_stride;
    look.frame_stride = place.frame_stride;
    look.owner = place.owner;
    look.first = place.first;
    look.first =
        look.row(b.y, b.t) + static_cast<std::size_t>(b.x) * static_cast<std::size_t>(entry->elem_size);
    return look;
}

void unified_explain(const char *format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    explanation = text;
}

void unif_display_status(int cn, int handle) {
    const _unif_open_tbl *entry = entry_of(handle);
    if (entry == nullptr) {
        sv_printf(cn, "# %2d Unused\n", handle);
        return;
    }
    sv_printf(cn, "# %2d %4d x %4d x %4d %-6s %s\n", handle, entry->nx, entry->ny, entry->nt,
              element_names[entry->data_type], entry->description.c_str());
}

} // namespace kestrel
