// The forms that hand out elements as bytes: raw, long, float, double.
#include "unified/form.h"

namespace kestrel {

void form_start(_unif_format &format, const unified_box &box, int data_type, UnifOutput &output) {
    format.nx = box.dx;
    format.ny = box.dy;
    format.nt = box.dt;
    format.data_type = data_type;
    format.size = element_size(data_type);
    format.output = &output;
}

int form_stop_nothing(_unif_format &, bool) {
    return 0;
}

namespace {

int bytes_start(_unif_format &format, const unified_box &box, int data_type, UnifOutput &output) {
    form_start(format, box, data_type, output);
    return 0;
}

int bytes_write(_unif_format &format, const void *buffer, int dx, int dy, int dt) {
    const auto count =
        static_cast<std::size_t>(dx) * static_cast<std::size_t>(dy) * static_cast<std::size_t>(dt);
    return format.output->write(*format.output, buffer, count * static_cast<std::size_t>(format.size));
}

void bytes_setup(_unif_format &format, form_type type, int required) {
    format.type = type;
    format.startfn = bytes_start;
    format.stopfn = form_stop_nothing;
    format.writefn = bytes_write;
    format.needs_conversion = required != el_none;
    format.data_type_required = required;
    format.swapping = swap_requested;
    format.max_dimension = 3;
}

} // namespace

void raw_setup_format(_unif_format &format) {
    bytes_setup(format, form_type::raw, el_none);
}
void long_setup_format(_unif_format &format) {
    bytes_setup(format, form_type::as_long, el_long);
}
void float32_setup_format(_unif_format &format) {
    bytes_setup(format, form_type::as_float, el_float);
}
void float64_setup_format(_unif_format &format) {
    bytes_setup(format, form_type::as_double, el_double);
}

} // namespace kestrel
