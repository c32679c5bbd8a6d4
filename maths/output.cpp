#include "maths/output.h"

#include "parser/call.h"
#include "server/output.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <sys/mman.h>
#include <unistd.h>

namespace kestrel {

namespace {

constexpr std::size_t touched_from = 1 << 20; // bytes
constexpr std::size_t past_cache_from = 16
                                        << 20; // bytes; the last level of cache is shared with other programs

int link_existing(int cn, const umaths_destination &to, UMathsOutput &out) {
    const auto refuse = [&out] {
        umaths_stop_output(out);
        return -1;
    };
    if (out.mod_head.look(cn) != 0)
        return refuse();
    const module_view &mod = out.mod_head.view();
    const long long x = static_cast<long long>(out.start_x) + out.nx;
    if (!mod.is_3d) {
        if (to.has_start_t) {
            sv_printf(cn, "! Module '%s' is  only 2D, do not specify start t\n", to.name);
            return refuse();
        }
        const long long y = out.start_y + static_cast<long long>(out.ny) * out.nt;
        if (mod.num_x < x || mod.num_y < y) {
            sv_printf(cn,
                      "! Error, module '%s' exists but is too small (%d,%d)\n! Require at least (%d, %d)\n",
                      to.name, mod.num_x, mod.num_y, static_cast<int>(x), static_cast<int>(y));
            return refuse();
        }
    } else {
        const long long y = static_cast<long long>(out.start_y) + out.ny;
        const long long t = static_cast<long long>(out.start_t) + out.nt;
        if (mod.num_x < x || mod.num_y < y || mod.num_t < t) {
            sv_printf(
                cn,
                "! Error, module '%s' exists but is too small (%d,%d,%d)\n! Require at least (%d, %d,%d)\n",
                to.name, mod.num_x, mod.num_y, mod.num_t, static_cast<int>(x), static_cast<int>(y),
                static_cast<int>(t));
            return refuse();
        }
    }
    const int wanted = mod_code_of(out.data_float);
    if (mod.data_type != wanted) {
        sv_printf(cn, "! Error, module '%s' exists but is wrong data type %d not %d\n", to.name,
                  mod.data_type, wanted);
        return refuse();
    }
    return 0;
}

bool fits(long long a, long long b) {
    return a + b <= INT_MAX;
}

int make_new(int cn, const umaths_destination &to, UMathsOutput &out) {
    if (!fits(out.start_x, out.nx) || !fits(out.start_y, out.ny) || !fits(out.start_t, out.nt)) {
        sv_printf(cn, "! Cannot create data module \"%s\", errno = %d.\n", to.name, EFBIG);
        umaths_stop_output(out);
        return -1;
    }
    module_plan plan{out.data_float, out.start_x + out.nx, out.start_y + out.ny};
    plan.is_3d = to.has_start_t || out.nt >= 2;
    if (plan.is_3d)
        plan.num_t = out.start_t + out.nt;
    sv_printf(cn, "# Module '%s' not found, making it as %s module\n", to.name, plan.is_3d ? "3D" : "2D");
    if (out.mod_head.make(cn, to.name, plan) == 0)
        return 0;
    umaths_stop_output(out);
    return -1;
}

std::size_t size_of(int count) {
    return static_cast<std::size_t>(count);
}

// Where a result row goes; null after a line when it does not fit.
std::byte *find_row(int cn, int row, int plane, const UMathsOutput &out) {
    if (out.type != UMOutputType::module) {
        sv_printf(cn, "! Unknown output type %d\n", static_cast<int>(out.type));
        return nullptr;
    }
    const module_view &mod = out.mod_head.view();
    const bool flat = !mod.is_3d; // planes lie below each other
    const int y = out.start_y + row + (flat ? plane * out.ny : 0);
    const int t = flat ? 0 : out.start_t + plane;
    if (row < 0 || plane < 0 || !mod.holds(out.start_x, y, t)) {
        sv_printf(cn, "! Tried to write past end of image\n");
        return nullptr;
    }
    return mod.at(out.start_x, y, t);
}

// Where somebody else has the module linked its pages are likely to be mapped already.
bool worth_touching(const UMathsOutput &out, std::size_t bytes) {
    const module_view &mod = out.mod_head.view();
    return bytes >= touched_from && size_of(out.nx) * 2 >= size_of(mod.num_x) &&
           datamod_links(out.mod_head.head()) == 1;
}

} // namespace

int umaths_start_output(int cn, const umaths_destination &to, int nx, int ny, int nt, UMathsOutput &out,
                        RWMode rw_mode, mod_element data_float) {
    if (!to.module || to.other) {
        sv_printf(cn, "! Only support module mode output at the moment\n");
        return -1;
    }
    if (to.start_x < 0 || to.start_y < 0 || to.start_t < 0) {
        sv_printf(cn, "! Start point of the result should be >= 0, not (%d, %d, %d)\n", to.start_x,
                  to.start_y, to.start_t);
        return -1;
    }
    out.nx = nx;
    out.ny = ny;
    out.nt = nt;
    out.start_x = to.start_x;
    out.start_y = to.start_y;
    out.start_t = to.start_t;
    out.data_float = data_float;
    out.rw_mode = rw_mode;
    const bool found = out.mod_head.find(to.name);
    if (!found && rw_mode == RWMode::read_then_write) {
        sv_printf(cn, "! UMATHS OUTPUT, specified Read then write, but cannot link to module '%s'\n",
                  to.name);
        return -1;
    }
    if ((found ? link_existing(cn, to, out) : make_new(cn, to, out)) != 0)
        return -1;
    out.type = UMOutputType::module;
    out.full_x = out.mod_head.view().num_x;
    out.full_y = out.mod_head.view().num_y;
    out.full_t = out.mod_head.view().num_t;
    return 0;
}

std::byte *umaths_get_output(int cn, int row, int plane, UMathsOutput &out) {
    std::byte *const found = find_row(cn, row, plane, out);
    if (found)
        out.written = true;
    return found;
}

std::optional<umaths_result_rows> umaths_all_output(int cn, UMathsOutput &out) {
    if (!find_row(cn, 0, 0, out) || !find_row(cn, out.ny - 1, out.nt - 1, out))
        return std::nullopt;
    const module_view &mod = out.mod_head.view();
    const std::size_t row = size_of(mod.num_x) * mod.element_size;
    const std::size_t bytes = size_of(out.nx) * size_of(out.ny) * size_of(out.nt) * mod.element_size;
    umaths_result_rows rows;
    rows.first = mod.at(out.start_x, out.start_y, mod.is_3d ? out.start_t : 0);
    rows.row_apart = row;
    rows.plane_apart = row * size_of(mod.is_3d ? mod.num_y : out.ny);
    rows.past_cache = bytes >= past_cache_from;
    rows.untouched = worth_touching(out, bytes);
    rows.written = &out.written;
    return rows;
}

void umaths_result_rows::begin([[maybe_unused]] int row, [[maybe_unused]] int plane,
                               [[maybe_unused]] int rows) const {
    written->store(true, std::memory_order_relaxed);
#ifdef MADV_POPULATE_READ
    if (!untouched || rows < 1)
        return;
    const std::uintptr_t page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    const std::uintptr_t first_byte = reinterpret_cast<std::uintptr_t>(this->row<std::byte>(row, plane));
    const std::uintptr_t from = first_byte / page * page, end = first_byte + size_of(rows) * row_apart;
    ::madvise(reinterpret_cast<void *>(from), end - from, MADV_POPULATE_READ);
#endif
}

UMathsOutput::~UMathsOutput() {
    umaths_stop_output(*this);
}

void umaths_stop_output(UMathsOutput &out) {
    if (out.written)
        out.mod_head.keep();
    out.mod_head.reset();
    out.type = UMOutputType::none;
}

} // namespace kestrel
