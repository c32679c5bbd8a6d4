// The forms that hand out elements as bytes: raw, long, float, double.
#include "unified/form.h"

namespace kestrel {

int _unif_format::startfn(const unified_box &box, int type_written, UnifOutput &destination) {
    nx = box.dx;
    ny = box.dy;
    nt = box.dt;
    data_type = type_written;
    size = element_size(type_written);
    output = &destination;
    return worker->start(*this, box);
}

namespace {

class bytes_form final : public form_worker {
  public:
    int write(const _unif_format &format, const std::byte *elements, int dx, int dy, int dt) override {
        return format.output->write(elements,
                                    form_elements(dx, dy, dt) * static_cast<std::size_t>(format.size));
    }
};

void bytes_setup(_unif_format &format, form_type type, int required) {
    format.type = type;
    format.needs_conversion = required != el_none;
    format.data_type_required = required;
    format.swapping = swap_requested;
    format.max_dimension = 3;
    format.worker = std::make_unique<bytes_form>();
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
