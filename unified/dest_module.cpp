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

class module_destination final : public output_destination {
  public:
    int init(UnifOutput &output, const _unif_format &format) override;
    int write(UnifOutput &output, const std::byte *bytes, std::size_t count) override;
    int term(UnifOutput &output, bool failed) override;
    const void *owner() const override { return module_.head(); }

  private:
    int check_existing(const UnifOutput &output, int data_type);
    int make_headed(const UnifOutput &output, mod_element element);
    int init_headed(const UnifOutput &output, const _unif_format &format);
    int check_headless(const UnifOutput &output, std::uint64_t bytes) const;
    int init_headless(const UnifOutput &output, const _unif_format &format);
    int whole_or_complain(const UnifOutput &output) const;
    int put_in_box(const UnifOutput &output, const std::byte *bytes, std::size_t count);
    int put_plain(const UnifOutput &output, const std::byte *bytes, std::size_t count);
    int clear_all(const UnifOutput &output);

    result_module module_;
    unified_box box_; // where it goes, in the module
    std::size_t element_ = 0;
    std::uint64_t position_ = 0; // bytes of the box that have come
    bool cleared_ = false;
};

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

int module_destination::check_existing(const UnifOutput &output, int data_type) {
    const unified_box &b = box_;
    const char *name = output.modulename.c_str();
    if (module_.look(output.cn) != 0)
        return refuse(datamod_is_whole(module_.head()) ? EINVAL : ENXIO);
    const module_view &view = module_.view();
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

int module_destination::make_headed(const UnifOutput &output, mod_element element) {
    const unified_box &b = box_;
    const bool flat = b.dt == 1 && !output.start_t_given;
    const module_plan plan{element, b.x + b.dx, b.y + b.dy, flat ? 1 : b.t + b.dt, !flat};
    return module_.make(output.cn, output.modulename.c_str(), plan);
}

int module_destination::init_headed(const UnifOutput &output, const _unif_format &format) {
    const auto element = mod_element_of_handle_type(format.data_type);
    if (!element) {
        sv_printf(output.cn, "! A headed module holds long, float or double data, not %s\n",
                  element_names[format.data_type]);
        return refuse(EINVAL);
    }
    int end = 0;
    if (!end_of(output.start_x, format.nx, end) || !end_of(output.start_y, format.ny, end) ||
        !end_of(output.start_t, format.nt, end)) {
        sv_printf(output.cn, "! ERROR: start (%d, %d, %d) in module '%s' is out of range\n", output.start_x,
                  output.start_y, output.start_t, output.modulename.c_str());
        return refuse(EINVAL);
    }
    box_ = {output.start_x, output.start_y, output.start_t, format.nx, format.ny, format.nt};
    if (module_.find(output.modulename.c_str()))
        return check_existing(output, mod_code_of(*element));
    return make_headed(output, *element);
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
int module_destination::check_headless(const UnifOutput &output, std::uint64_t bytes) const {
    void *const head = module_.head();
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

int module_destination::init_headless(const UnifOutput &output, const _unif_format &format) {
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
    if (!module_.find(name) && module_.make_plain(output.cn, name, static_cast<int>((bytes + 3) / 4)) != 0)
        return -1;
    return check_headless(output, bytes);
}

int module_destination::init(UnifOutput &output, const _unif_format &format) {
    element_ = static_cast<std::size_t>(format.size);
    const int result = output.mod_header ? init_headed(output, format) : init_headless(output, format);
    if (result != 0) {
        const int error = errno;
        module_.reset();
        errno = error;
    }
    return result;
}

int module_destination::whole_or_complain(const UnifOutput &output) const {
    if (datamod_is_whole(module_.head()))
        return 0;
    sv_printf(output.cn, "! ERROR: module '%s' was cut short by another process\n",
              output.modulename.c_str());
    return -1;
}

// Row by row into the place of the box; a piece may begin and end anywhere in a row.
int module_destination::put_in_box(const UnifOutput &output, const std::byte *bytes, std::size_t count) {
    const unified_box &b = box_;
    module_view view;
    if (mod_look(output.cn, output.modulename.c_str(), module_.head(), view) != 0)
        return -1;
    if (view.element_size != element_ || !box_fits(view, b, view.data_type)) {
        sv_printf(output.cn, "! ERROR: module '%s' was changed by another process\n",
                  output.modulename.c_str());
        return -1;
    }
    const std::uint64_t row_bytes = static_cast<std::uint64_t>(b.dx) * element_;
    while (count > 0) {
        const std::uint64_t row = position_ / row_bytes;
        const std::uint64_t skip = position_ % row_bytes;
        const auto take = static_cast<std::size_t>(std::min<std::uint64_t>(count, row_bytes - skip));
        const int y = static_cast<int>(row % static_cast<std::uint64_t>(b.dy));
        const int t = static_cast<int>(row / static_cast<std::uint64_t>(b.dy));
        if (t >= b.dt)
            return -1;
        std::memcpy(view.at(b.x, b.y + y, b.t + t) + skip, bytes, take);
        bytes += take;
        count -= take;
        position_ += take;
    }
    return 0;
}

int module_destination::put_plain(const UnifOutput &output, const std::byte *bytes, std::size_t count) {
    void *head = module_.head();
    const auto capacity = static_cast<std::uint64_t>(datamod_mod_size(head));
    if (whole_or_complain(output) != 0 || count > capacity - std::min(capacity, position_))
        return -1;
    std::memcpy(static_cast<std::byte *>(head) + position_, bytes, count);
    position_ += count;
    return 0;
}

int module_destination::clear_all(const UnifOutput &output) {
    void *head = module_.head();
    if (whole_or_complain(output) != 0)
        return -1;
    if (output.mod_header)
        return clear_mod(head);
    std::memset(head, 0, static_cast<std::size_t>(datamod_mod_size(head)));
    return 0;
}

// The module is cleared at the first write, not at init: the data may come from this very module, and a read
// that fails before then leaves it as it was.
int module_destination::write(UnifOutput &output, const std::byte *bytes, std::size_t count) {
    if (output.clear_first && !cleared_ && clear_all(output) != 0)
        return -1;
    cleared_ = true;
    return output.mod_header ? put_in_box(output, bytes, count) : put_plain(output, bytes, count);
}

// A module that this read made is kept only when all of the data are in it.
int module_destination::term(UnifOutput &, bool failed) {
    if (!failed)
        module_.keep();
    module_.reset();
    return 0;
}

} // namespace

void module_setup_output(UnifOutput &output) {
    output.to = output_to::module;
    output.destination = std::make_unique<module_destination>();
}

} // namespace kestrel
