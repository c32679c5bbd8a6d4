// maths: reading a box of any unified handle row by row. Elements that lie in a mapped module are looked at
// where they are, without a copy; everything else comes through a buffer of at most 256 MiB, whole planes or
// runs of lines at a time. One reader a command; used by one thread.
#pragma once

#include "maths/progress.h"
#include "unified/handles/handles.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

namespace kestrel {

// Silences the reader's "# Reading" lines for the duration of a command.
extern int umaths_quiet;

// A box of elements: where it begins, and how many.
struct umaths_region {
    int x = 0, y = 0, t = 0;
    int dx = 0, dy = 0, dt = 0;
};

// The box between two corners, both in it, in any order.
umaths_region umaths_make_region(int x1, int y1, int t1, int x2, int y2, int t2);

// All that a handle has, a source without frames being one; sizes below 1 where there is no such handle.
umaths_region umaths_whole(int handle);

struct UMaths {
    int utype = 0;
    int x = 0, y = 0, t = 0;
    int dx = 0, dy = 0, dt = 0;
    std::unique_ptr<std::byte[]> ptr; // the buffer, none while the elements are looked at in place
    int elem_size = 0;
    int num_lines = 0;  // held by the buffer in line mode, 0 in plane mode
    int num_planes = 0; // held by the buffer in plane mode, 0 in line mode
    int current_line = -1;
    int current_plane = -1;
    int handle = -1;
    bool interrupted = false; // ^C ended the reading
    std::optional<unified_look> look;
    umaths_progress progress;
};

// The region lies inside the handle's data, which are long, float or double unless any type will do: 0, or -1
// after a line.
int umaths_check_region(int cn, const umaths_region &region, int handle, int any_type);

// Opens a region: 0, or -1 after a line. With any_type 0 the elements must be long, float or double.
int umaths_start_any(int cn, const umaths_region &region, int handle, UMaths &reader, int quiet,
                     int any_type);
int umaths_start(int cn, const umaths_region &region, int handle, UMaths &reader, int quiet);

// The first element of a region's row (0 based, dx elements follow); null on failure or ^C, after a line.
const std::byte *umaths_get_line(int cn, int row, int plane, UMaths &reader);

// True when every row of the region can be had at no cost, in any order.
bool umaths_all_held(const UMaths &reader);

// Where all rows are, for loops that need not ask for each, and for worker threads.
struct umaths_rows {
    const std::byte *first = nullptr;
    std::size_t row_apart = 0, plane_apart = 0; // bytes
    const std::byte *at(int row, int plane) const {
        return first + static_cast<std::size_t>(row) * row_apart +
               static_cast<std::size_t>(plane) * plane_apart;
    }
    template <class T> const T *row(int row, int plane) const {
        return reinterpret_cast<const T *>(at(row, plane));
    }
};

// The rows of a region that is all held, after the lines that reading it prints. Good until the reader reads
// anything else. Nothing on failure or ^C, after a line.
std::optional<umaths_rows> umaths_all_rows(int cn, UMaths &reader);

// True when the rows of one plane can be held at the same time.
inline bool umaths_plane_held(const UMaths &reader) {
    return reader.num_planes > 0;
}

// Reads copies from now on if the rows lie in the mapping that starts at `owner`: the result goes there.
// 0, or -1 after a line when there is no memory for them.
int umaths_stay_clear_of(int cn, const void *owner, UMaths &reader);

// A row of elements of type T; empty on failure.
template <class T> std::span<const T> umaths_row(int cn, int row, int plane, UMaths &reader) {
    const std::byte *first = umaths_get_line(cn, row, plane, reader);
    if (!first)
        return {};
    return {reinterpret_cast<const T *>(first), static_cast<std::size_t>(reader.dx)};
}

// "! Read returned error" unless ^C ended the reading, which has its own line; -1.
int umaths_read_error(int cn, const UMaths &reader);

// The same where the elements were read by other means.
int umaths_read_error(int cn);

} // namespace kestrel
