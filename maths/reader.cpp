#include "maths/reader.h"

#include "server/output.h"
#include "support/element.h"

#include <algorithm>
#include <limits>
#include <new>

namespace kestrel {

int umaths_quiet = 0;

namespace {

constexpr std::size_t buffer_max = 0x10000000; // bytes

std::size_t size_of(int count) {
    return static_cast<std::size_t>(count);
}

bool inside(int start, int count, int size) {
    return start >= 0 && count >= 1 && count <= size - start;
}

// Shares `wanted` elements out to whole planes, or else to whole lines.
void share_out(UMaths &r, std::size_t wanted) {
    const std::size_t line = size_of(r.dx), plane = line * size_of(r.dy);
    r.num_planes = static_cast<int>(wanted / plane);
    r.num_lines = r.num_planes > 0 ? 0 : static_cast<int>(wanted / line);
}

// The elements that the buffer is to hold.
std::size_t elements_held(const UMaths &r) {
    const std::size_t line = size_of(r.dx);
    return r.num_planes > 0 ? size_of(r.num_planes) * line * size_of(r.dy) : size_of(r.num_lines) * line;
}

int make_buffer(int cn, UMaths &r) {
    const std::size_t line = size_of(r.dx);
    const std::size_t all = line * size_of(r.dy) * size_of(r.dt);
    for (std::size_t wanted = std::min(all, buffer_max / size_of(r.elem_size)); wanted >= line; wanted /= 2) {
        share_out(r, wanted);
        r.ptr.reset(new (std::nothrow) std::byte[elements_held(r) * size_of(r.elem_size)]);
        if (r.ptr)
            return 0;
    }
    sv_printf(cn, "! Insufficient memory to make a buffer for umaths\n");
    return -1;
}

bool aligned(const std::byte *first, const UMaths &r) {
    return reinterpret_cast<std::uintptr_t>(first) % size_of(r.elem_size) == 0;
}

// True when the elements can be read where they lie.
bool look_in_place(UMaths &r) {
    if (r.elem_size == 6)
        return false; // 48-bit integers have no type of their own
    r.look = unified_look_at(r.handle, {r.x, r.y, r.t, r.dx, r.dy, r.dt});
    if (r.look && !aligned(r.look->first, r))
        r.look.reset();
    return r.look.has_value();
}

int read_box(int cn, int row, int plane, int rows, int planes, UMaths &r) {
    const int result =
        app_unified_read(cn, r.handle, r.ptr.get(), r.x, r.y + row, r.t + plane, r.dx, rows, planes);
    r.current_plane = result < 0 ? -1 : plane;
    r.current_line = result < 0 ? -1 : row;
    return result;
}

const std::byte *plane_mode_line(int cn, int row, int plane, UMaths &r) {
    if (r.current_plane < 0 || plane < r.current_plane || plane >= r.current_plane + r.num_planes) {
        const int planes = std::min(r.num_planes, r.dt - plane);
        if (!umaths_quiet)
            sv_printf(cn, "# Reading %d planes from handle %d \n", planes, r.handle);
        if (r.look)
            r.current_plane = plane;
        else if (read_box(cn, 0, plane, r.dy, planes, r) < 0)
            return nullptr;
    }
    if (r.look)
        return r.look->row(row, plane);
    const std::size_t line = size_of(plane - r.current_plane) * size_of(r.dy) + size_of(row);
    return r.ptr.get() + line * size_of(r.dx) * size_of(r.elem_size);
}

const std::byte *line_mode_line(int cn, int row, int plane, UMaths &r) {
    if (plane != r.current_plane || row < r.current_line || row >= r.current_line + r.num_lines) {
        const int lines = std::min(r.num_lines, r.dy - row);
        if (!umaths_quiet)
            sv_printf(cn, "# Reading %d lines \n", lines);
        if (r.look) {
            r.current_plane = plane;
            r.current_line = row;
        } else if (read_box(cn, row, plane, lines, 1, r) < 0) {
            return nullptr;
        }
    }
    if (r.look)
        return r.look->row(row, plane);
    return r.ptr.get() + size_of(row - r.current_line) * size_of(r.dx) * size_of(r.elem_size);
}

void put_in_order(int &first, int &last) {
    if (first > last)
        std::swap(first, last);
}

// One more than the distance, kept in range for corners that lie outside any image anyway.
int extent(int first, int last) {
    const long long count = static_cast<long long>(last) - first + 1;
    return static_cast<int>(std::min<long long>(count, std::numeric_limits<int>::max()));
}

} // namespace

umaths_region umaths_make_region(int x1, int y1, int t1, int x2, int y2, int t2) {
    put_in_order(x1, x2);
    put_in_order(y1, y2);
    put_in_order(t1, t2);
    return {x1, y1, t1, extent(x1, x2), extent(y1, y2), extent(t1, t2)};
}

umaths_region umaths_whole(int handle) {
    return {0, 0, 0, unified_get_nx(handle), unified_get_ny(handle), std::max(1, unified_get_nt(handle))};
}

int umaths_check_region(int cn, const umaths_region &region, int handle, int any_type) {
    const auto entry = unified_info_of(handle);
    if (!entry) {
        sv_printf(cn, "! Invalid unified handle\n");
        return -1;
    }
    const int nt = entry->nt;
    if (!inside(region.x, region.dx, entry->nx) || !inside(region.y, region.dy, entry->ny) ||
        !inside(region.t, region.dt, nt)) {
        sv_printf(
            cn, "! ERROR: Requested region (%d, %d, %d) + (%d, %d, %d) does not fit in memory (%d, %d, %d)\n",
            region.x, region.y, region.t, region.dx, region.dy, region.dt, entry->nx, entry->ny, nt);
        return -1;
    }
    const bool usual =
        entry->data_type == el_long || entry->data_type == el_float || entry->data_type == el_double;
    if (!usual && !any_type) {
        sv_printf(cn, "! Can only handle float or long and some double data for umaths\n");
        return -1;
    }
    return 0;
}

int umaths_start_any(int cn, const umaths_region &region, int handle, UMaths &r, int quiet, int any_type) {
    umaths_quiet = quiet;
    r.interrupted = false;
    if (umaths_check_region(cn, region, handle, any_type) != 0)
        return -1;
    const auto entry = unified_info_of(handle);
    r.utype = entry->data_type;
    r.elem_size = entry->elem_size;
    r.handle = handle;
    r.x = region.x;
    r.y = region.y;
    r.t = region.t;
    r.dx = region.dx;
    r.dy = region.dy;
    r.dt = region.dt;
    r.progress = {};
    const std::size_t all = size_of(r.dx) * size_of(r.dy) * size_of(r.dt);
    if (look_in_place(r))
        share_out(r, std::max(std::min(all, buffer_max / size_of(r.elem_size)), size_of(r.dx)));
    else if (make_buffer(cn, r) != 0)
        return -1;
    if (!quiet)
        sv_printf(cn, "# umaths_start gives num_lines = %d, num_planes = %d\n", r.num_lines, r.num_planes);
    return 0;
}

int umaths_start(int cn, const umaths_region &region, int handle, UMaths &reader, int quiet) {
    return umaths_start_any(cn, region, handle, reader, quiet, 0);
}

const std::byte *umaths_get_line(int cn, int row, int plane, UMaths &r) {
    if (row < 0 || row >= r.dy || plane < 0 || plane >= r.dt) {
        sv_printf(cn, "! Attempt to read illegal row %d, plane %d\n", row, plane);
        return nullptr;
    }
    if (row == 0 && !r.progress.go_on(cn, plane, r.dt)) {
        r.interrupted = true;
        return nullptr;
    }
    return r.num_planes > 0 ? plane_mode_line(cn, row, plane, r) : line_mode_line(cn, row, plane, r);
}

bool umaths_all_held(const UMaths &r) {
    return r.look.has_value() || r.num_planes >= r.dt;
}

std::optional<umaths_rows> umaths_all_rows(int cn, UMaths &r) {
    const int planes = std::max(r.num_planes, 1), lines = r.num_planes > 0 ? r.dy : r.num_lines;
    for (int plane = 0; plane < r.dt; plane += planes)
        for (int row = 0; row < r.dy; row += lines)
            if (!umaths_get_line(cn, row, plane, r))
                return std::nullopt;
    if (r.look)
        return umaths_rows{r.look->first, r.look->row_stride, r.look->frame_stride};
    const std::size_t row = size_of(r.dx) * size_of(r.elem_size);
    return umaths_rows{r.ptr.get(), row, row * size_of(r.dy)};
}

int umaths_stay_clear_of(int cn, const void *owner, UMaths &r) {
    if (!r.look || r.look->owner != owner)
        return 0;
    r.look.reset();
    r.current_line = r.current_plane = -1;
    return make_buffer(cn, r);
}

int umaths_read_error(int cn) {
    sv_printf(cn, "! Read returned error\n");
    return -1;
}

int umaths_read_error(int cn, const UMaths &r) {
    return r.interrupted ? -1 : umaths_read_error(cn);
}

} // namespace kestrel
