// Destination: a data module. The box is placed at (start_x, start_y, start_t) of a headed module, or goes as
// it is into a module without a header. A module is made if there is none, and goes again if the read fails.
#include "modules/store/headed.h"
#include "modules/store/result_module.h"
#include "server/output.h"
#include "unified/form.h"
#include "unified/output.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

namespace kestrel {

namespace {

struct module_state {
    result_module module;
    unified_box box; // where it goes, in the module
    std::size_t element = 0;
    std::uint64_t position = 0; // bytes of the box that have come
    bool cleared = false;
};

module_state &state_of(UnifOutput &output) {
    return *static_cast<module_state *>(output.specific.get());
}

// The end of the box along one axis, or nothing that fits an int.
bool end_of(int start, int count, int &end) {
    return start >= 0 && !__builtin_add_overflow(start, count, &end);
}

bool box_fits(const module_view &view, const unified_box &b, int data_type) {
    return view.data_type == data_type && b.x + b.dx <= view.num_x && b.y + b.dy <= view.num_y &&
           b.t + b.dt <= view.num_t;
}

// After the line that says why.
int refuse(int error) {
    errno = error;
    return -1;
}

int check_existing(const UnifOutput &output, result_module &module, const unified_box &b, int data_type) {
    const char *name = output.modulename.c_str();
    if (module.look(output.cn) != 0)
        return refuse(datamod_is_whole(module.head()) ? EINVAL : ENXIO);
    const module_view &view = module.view();
    if (view.data_type != data_type) {
        sv_printf(output.cn, "! Error, module '%s' exists but is wrong data type %d not %d\n", name,
                  view.data_type, data_type);
        return refuse(EINVAL);
    }
    if (!box_fits(view, b, data_type)) {
        sv_printf(
            output.cn,
            "! Error, module '%s' exists but (%d, %d, %d) is too small for (%d, %d, %d) at (%d, %d, %d)\n",
            name, view.num_x, view.num_y, view.num_t, b.dx, b.dy, b.dt, b.x, b.y, b.t);
        return refuse(ENOSPC);
    }
    return 0;
}

int make_headed(UnifOutput &output, const unified_box &b, mod_element element) {
    const bool flat = b.dt == 1 && !output.start_t_given;
    const module_plan plan{element, b.x + b.dx, b.y + b.dy, flat ? 1 : b.t + b.dt, !flat};
    return state_of(output).module.make(output.cn, output.modulename.c_str(), plan);
}

int init_headed(UnifOutput &output, const _unif_format &format) {
    const auto element = mod_element_of_handle_type(format.data_type);
    if (!element) {
        sv_printf(output.cn, "! A headed module holds long, float or double data, not %s\n",
                  element_names[format.data_type]);
        return refuse(EINVAL);
    }
    module_state &state = state_of(output);
    int end = 0;
    if (!end_of(output.start_x, format.nx, end) || !end_of(output.start_y, format.ny, end) ||
        !end_of(output.start_t, format.nt, end)) {
        sv_printf(output.cn, "! ERROR: start (%d, %d, %d) in module '%s' is out of range\n", output.start_x,
                  output.start_y, output.start_t, output.modulename.c_str());
        return refuse(EINVAL);
    }
    state.box = {output.start_x, output.start_y, output.start_t, format.nx, format.ny, format.nt};
    if (state.module.find(output.modulename.c_str()))
        return check_existing(output, state.module, state.box, mod_code_of(*element));
    return make_headed(output, state.box, *element);
}

// A header as the server makes them: plain numbers hardly ever look like one.
bool has_header(void *head) {
    module_view view;
    if (mod_look(head, view) != nullptr)
        return false;
    mod_header copy;
    std::memcpy(&copy, head, sizeof copy);
    return (copy.disp_type & 0xFFFF) == MOD_DISP_2D && view.elements() > 0;
}

// Another program that has the module mapped would lose its header, or meet data beyond the end.
int check_headless(const UnifOutput &output, void *head, std::uint64_t bytes) {
    const char *name = output.modulename.c_str();
    if (has_header(head)) {
        sv_printf(output.cn, "! ERROR: module '%s' has a header\n", name);
        return refuse(EINVAL);
    }
    const off_t capacity = datamod_mod_size(head);
    if (static_cast<std::uint64_t>(capacity) < bytes) {
        sv_printf(output.cn, "! Error, module '%s' exists but has %zd bytes, %zd are needed\n", name,
                  static_cast<ssize_t>(capacity), static_cast<ssize_t>(bytes));
        return refuse(ENOSPC);
    }
    return 0;
}

int init_headless(UnifOutput &output, const _unif_format &format) {
    const std::uint64_t elements =
        static_cast<std::uint64_t>(format.nx) * static_cast<std::uint64_t>(format.ny);
    std::uint64_t bytes = 0;
    const char *name = output.modulename.c_str();
    if (__builtin_mul_overflow(
            elements, static_cast<std::uint64_t>(format.nt) * static_cast<std::uint64_t>(format.size),
            &bytes) ||
        bytes > std::uint64_t{4} * INT_MAX) {
        sv_printf(output.cn, "! ERROR: module '%s' would be too large\n", name);
        return refuse(EFBIG);
    }
    result_module &module = state_of(output).module;
    if (!module.find(name) && module.make_plain(output.cn, name, static_cast<int>((bytes + 3) / 4)) != 0)
        return -1;
    return check_headless(output, module.head(), bytes);
}

int module_init(UnifOutput &output, const _unif_format &format) {
    auto state = std::make_shared<module_state>();
    state->element = static_cast<std::size_t>(format.size);
    output.specific = std::move(state);
    const int result = output.mod_header ? init_headed(output, format) : init_headless(output, format);
    if (result != 0) {
        const int error = errno;
        output.specific.reset();
        errno = error;
    }
    return result;
}

int whole_or_complain(const UnifOutput &output, const void *head) {
    if (datamod_is_whole(head))
        return 0;
    sv_printf(output.cn, "! ERROR: module '%s' was cut short by another process\n",
              output.modulename.c_str());
    return -1;
}

// Row by row into the place of the box; a piece may begin and end anywhere in a row.
int put_in_box(UnifOutput &output, const std::byte *bytes, std::size_t count) {
    module_state &state = state_of(output);
    const unified_box &b = state.box;
    module_view view;
    if (mod_look(output.cn, output.modulename.c_str(), state.module.head(), view) != 0)
        return -1;
    if (view.element_size != state.element || !box_fits(view, b, view.data_type)) {
        sv_printf(output.cn, "! ERROR: module '%s' was changed by another process\n",
                  output.modulename.c_str());
        return -1;
    }
    const std::uint64_t row_bytes = static_cast<std::uint64_t>(b.dx) * state.element;
    while (count > 0) {
        const std::uint64_t row = state.position / row_bytes;
        const std::uint64_t skip = state.position % row_bytes;
        const auto take = static_cast<std::size_t>(std::min<std::uint64_t>(count, row_bytes - skip));
        const int y = static_cast<int>(row % static_cast<std::uint64_t>(b.dy));
        const int t = static_cast<int>(row / static_cast<std::uint64_t>(b.dy));
        if (t >= b.dt)
            return -1;
        std::memcpy(view.at(b.x, b.y + y, b.t + t) + skip, bytes, take);
        bytes += take;
        count -= take;
        state.position += take;
    }
    return 0;
}

int put_plain(UnifOutput &output, const std::byte *bytes, std::size_t count) {
    module_state &state = state_of(output);
    void *head = state.module.head();
    const auto capacity = static_cast<std::uint64_t>(datamod_mod_size(head));
    if (whole_or_complain(output, head) != 0 || count > capacity - std::min(capacity, state.position))
        return -1;
    std::memcpy(static_cast<std::byte *>(head) + state.position, bytes, count);
    state.position += count;
    return 0;
}

int clear_all(UnifOutput &output) {
    void *head = state_of(output).module.head();
    if (whole_or_complain(output, head) != 0)
        return -1;
    if (output.mod_header)
        return clear_mod(head);
    std::memset(head, 0, static_cast<std::size_t>(datamod_mod_size(head)));
    return 0;
}

// Cleared only now: the data may have been read from this very module, and a failed read clears nothing.
int module_write(UnifOutput &output, const void *bytes, std::size_t count) {
    module_state &state = state_of(output);
    if (output.clear_first && !state.cleared && clear_all(output) != 0)
        return -1;
    state.cleared = true;
    const auto *at = static_cast<const std::byte *>(bytes);
    return output.mod_header ? put_in_box(output, at, count) : put_plain(output, at, count);
}

// One that this read made stays with all of the data in it only.
int module_term(UnifOutput &output, bool failed) {
    if (!failed)
        state_of(output).module.keep();
    output.specific.reset();
    return 0;
}

} // namespace

const void *output_owner(const UnifOutput &output) {
    if (output.to != output_to::module || !output.specific)
        return nullptr;
    return static_cast<const module_state *>(output.specific.get())->module.head();
}

void module_setup_output(UnifOutput &output) {
    output.to = output_to::module;
    output.init = module_init;
    output.write = module_write;
    output.term = module_term;
}

} // namespace kestrel
