// unified/handles: the table of unified handles. A source registers a record of callbacks; whoever reads a
// handle never asks what kind of source stands behind it.
//
// Opened, closed and queried by the command thread; read by any thread (each handle's mutex serialises its
// reads). May use parser/ and modules/store/, and what those may use.
#pragma once

#include "modules/store/store.h"
#include "support/element.h"
#include "support/tessera.h"

#include <cstddef>
#include <mutex>
#include <optional>
#include <span>
#include <string>

namespace kestrel {

inline constexpr int unified_max_handles = 20;
inline constexpr int unified_max_clear_callbacks = 10;

struct unified_box {
    int x = 0, y = 0, t = 0;
    int dx = 0, dy = 0, dt = 0;
};

// A source's elements where they lie: `first` is element (0, 0, 0), rows and frames follow at these distances
// in bytes, elements of a row follow each other.
struct unified_place {
    const std::byte *first = nullptr;
    std::size_t row_stride = 0;
    std::size_t frame_stride = 0;
    int nx = 0, ny = 0, nt = 0;  // what lies there now; a box must fit this, too
    const void *owner = nullptr; // the mapping it is part of: equal owners may overlap
};

// What a source can do. Every callback gets the source's own path; each returns a negative number on failure.
// Only read is required; null stands for "cannot".
struct unified_source {
    // Fills the buffer with a box, x fastest, then y, then t, in the source's type. Handle's mutex held.
    int (*read)(int path, void *buffer, int x, int y, int t, int dx, int dy, int dt) = nullptr;
    // The handle is closing: release the source.
    void (*destroy)(int path, int handle) = nullptr;
    int (*iminmax)(int path, int *minimum, int *maximum) = nullptr;
    int (*dminmax)(int path, double *minimum, double *maximum) = nullptr;
    // Like read, giving 16-bit elements for GEL files. Handle's mutex held.
    int (*readgel)(int path, void *buffer, int x, int y, int t, int dx, int dy, int dt) = nullptr;
    int (*clear)(int path, int x, int y, int t, int dx, int dy, int dt) = nullptr;
    int (*enable)(int path) = nullptr;
    int (*disable)(int path) = nullptr;
    // Where the elements lie, checked now. Handle's mutex held, and until the reader has done with them.
    int (*place)(int path, unified_place *place) = nullptr;
    // The descriptor of the file whose contents the elements are, which must not be written meanwhile.
    int (*file)(int path) = nullptr;
    // The run of counting that the elements come from (unified/handles/run.h).
    const struct run_source *run = nullptr;
};

// Run on every row of doubles before (after = 0) and after (1) the correction.
using unified_scale_hook = void (*)(int path, int after, std::span<double> row, int x, int y, int t);
using unified_details = void (*)(int path, tessera_details *details);

enum correction_type : int { corr_none, corr_mult1d, corr_div1d, corr_poly1d, corr_chebyshev1d };

// What a handle says of its data. A copy: sources whose size changes set it with unified_set_nx and its like.
struct unified_info {
    int path = 0;               // the source's own
    int nx = 0, ny = 0, nt = 0; // nt 0: any frame is taken
    int data_type = el_none;
    int elem_size = 0;
    bool knows_range = false;          // the source can tell its least and greatest element
    bool shows_elements = false;       // may let them be looked at where they lie
    bool reads_gel = false;            // has 16-bit elements for GEL files
    bool is_switched = false;          // can be enabled and disabled
    unified_details details = nullptr; // fills in header details for the detector image form, given the path
};

// What the read command does to a handle's data. The pointers are good while the handle stays as it is.
struct unified_correction {
    int type = corr_none;
    int order = 0;
    double scaling = 1.0;
    const float *data = nullptr; // of the source: order + 1 rows of nx; or
    void *module = nullptr;      // of a module, its header
    int frame = 0;               // of that module
    std::string title;           // its title when it was set
    unified_scale_hook pre_post = nullptr;
};

// Takes the lowest free handle; -1 after a message when all are in use or the source is too large. A source
// without read ends the process.
int unified_open(int cn, int path, int nx, int ny, int nt, int data_type, const char *description,
                 const unified_source &source);
int unified_close(int handle); // without the source's destroy
int unified_close_and_destroy(int cn, int handle);
void unified_close_all(int cn);
void unif_connection_lost(int cn); // destroys what that session opened

// How many handles are open; any thread.
int unified_open_count();

// Nothing for a number outside the table and a free handle.
std::optional<unified_info> unified_info_of(int handle);
std::optional<unified_correction> unified_correction_of(int handle);

// One field, or -1 where there is no such handle.
int unified_get_nx(int handle);
int unified_get_ny(int handle);
int unified_get_nt(int handle);
int unified_get_type(int handle);
int unified_get_bsize(int handle);
int unif_handle2path(int handle);
int unif_set_description(int handle, const char *text);
int unified_set_nx(int handle, int nx);
int unified_set_ny(int handle, int ny);
int unified_set_nt(int handle, int nt);
int unified_set_mmapped(int cn, int handle, void *buffer);
int unified_set_tessera_details_callback(int cn, int handle, unified_details details);

// Corrections; they act in the read command only. -1 and "! Invalid handle %d" for a bad handle.
int unified_set_corr_ptr(int cn, int handle, int type, const float *data, int order, double scaling);
int unified_set_corr_pre_post(int cn, int handle, unified_scale_hook hook);
// An empty link removes the correction.
int unified_set_corr_module(int cn, int handle, int type, module_link head, int frame, int order,
                            double scaling);
// The module that dead time correction takes its live times from.
int unified_set_dtc_module(int cn, const char *name);
const std::string &unified_dtc_module();

int unified_set_clear_callback(int cn, void (*fn)());
int unified_remove_clear_callback(int cn, void (*fn)());

// 0 when the box lies within the handle's data, else -1 after a message that names the request.
int unified_check_box(int cn, const char *request, int handle, const unified_box &box);

// Checked reads and actions for every room: 0, or -1 after a message.
int app_unified_read(int cn, int handle, void *buffer, int x, int y, int t, int dx, int dy, int dt);
// The source's 16-bit elements, of a box that has passed unified_check_box: 0, or -1 without a message.
int unified_read_gel(int handle, void *buffer, const unified_box &box);
// The descriptor of the file that the data are in, or -1 (see unified_source).
int unified_source_file(int handle);
int app_unified_clear(int cn, int handle, int x, int y, int t, int dx, int dy, int dt);
int app_unified_enable(int cn, int handle);
int app_unified_disable(int cn, int handle);

// Looks at a box in place, without a copy: holds the handle's mutex as long as it lives.
struct unified_look {
    std::unique_lock<std::recursive_mutex> lock;
    const std::byte *first = nullptr; // the box's first element
    std::size_t row_stride = 0;       // bytes
    std::size_t frame_stride = 0;
    const void *owner = nullptr;
    const std::byte *row(int y, int t) const {
        return first + static_cast<std::size_t>(y) * row_stride + static_cast<std::size_t>(t) * frame_stride;
    }
};
// Nothing when the source cannot show its elements (or not these, now): read a copy then. The box must have
// passed unified_check_box.
std::optional<unified_look> unified_look_at(int handle, const unified_box &box);

// A source's callback tells here why it fails; the next failure message of a handle shows it.
void unified_explain(const char *format, ...) __attribute__((format(printf, 1, 2)));

// One line for ustatus.
void unif_display_status(int cn, int handle);

} // namespace kestrel
