// unified: output forms. A form says what it needs (type, byte order, dimensions) and turns elements into the
// bytes that it writes to its destination. One file a form: it fills in the record and has the worker.
#pragma once

#include "unified/handles/handles.h"
#include "unified/output.h"

#include <array>
#include <cstdint>
#include <memory>

namespace kestrel {

enum class form_type { ascii, ascii_col, raw, as_long, as_float, as_double, gel, det, otoko };

enum byte_swapping : int { swap_never = 0, swap_own = 1, swap_requested = 2 };

struct _unif_format;

// What a form does, one class a form, with its state. Every function gets the record that it belongs to,
// where the size, the type and the destination are found.
class form_worker {
  public:
    form_worker() = default;
    form_worker(const form_worker &) = delete;
    form_worker &operator=(const form_worker &) = delete;
    virtual ~form_worker() = default;

    // Prepares for the box; negative, after a message, to refuse.
    virtual int start(const _unif_format &, const unified_box &) { return 0; }
    // Takes dx x dy x dt elements, packed, that follow those before in the box's order. -1 on failure.
    virtual int write(const _unif_format &format, const std::byte *elements, int dx, int dy, int dt) = 0;
    // Finishes: sends what is held back. 0, or -1 after a message.
    virtual int stop(const _unif_format &, bool failed) {
        static_cast<void>(failed);
        return 0;
    }
};

// A setup function fills in the first part, startfn the second.
struct _unif_format {
    form_type type = form_type::ascii;
    int needs_conversion = 0;
    int data_type_required = el_none;
    int swapping = swap_never;
    int max_dimension = 3;
    int transpose_read = 0; // pieces are columns (all y and t of some x), each y,t line after the other
    std::unique_ptr<form_worker> worker;

    int nx = 0, ny = 0, nt = 0;
    int data_type = el_none; // of what write is handed
    int size = 0;
    UnifOutput *output = nullptr;

    int startfn(const unified_box &box, int type_written, UnifOutput &destination);
    int writefn(const void *elements, int dx, int dy, int dt) {
        return worker->write(*this, static_cast<const std::byte *>(elements), dx, dy, dt);
    }
    int stopfn(bool failed) { return worker->stop(*this, failed); }
};

// Elements in a piece.
inline std::size_t form_elements(int dx, int dy, int dt) {
    return static_cast<std::size_t>(dx) * static_cast<std::size_t>(dy) * static_cast<std::size_t>(dt);
}

void ascii_setup_format(_unif_format &format);
// Without an angle the columns start with the index.
struct column_angles {
    bool given = false;
    double start = 0.0;
    double step = 0.0;
};
void ascii_col_setup_format(_unif_format &format, const column_angles &angles);
void raw_setup_format(_unif_format &format);
void long_setup_format(_unif_format &format);
void float32_setup_format(_unif_format &format);
void float64_setup_format(_unif_format &format);
void gel_setup_format(_unif_format &format);
// source_type chooses what the file holds; details may be null.
void det_setup_format(_unif_format &format, int source_type, unified_details details, int path);
void otoko_setup_format(_unif_format &format);

// Grey levels of a GEL image: where in the 16-bit range its 17 steps stand.
inline constexpr std::array<std::uint16_t, 17> gel_grey_levels = [] {
    std::array<std::uint16_t, 17> levels{};
    for (std::uint32_t k = 0; k < 16; ++k)
        levels[k] = static_cast<std::uint16_t>(k * 65535 / 16);
    levels[16] = 65535;
    return levels;
}();

// Sends a form's whole temporary file to the destination in blocks of 4096: 0, or -1 after a message, which
// says what `kind` of file could not be sent.
int send_file(UnifOutput &output, const char *name, const char *kind);

} // namespace kestrel
