// DET: a detector image file, made as a temporary file line by line and then sent.
#include "server/output.h"
#include "support/tessera.h"
#include "unified/form.h"
#include "unified/line_assembler.h"

#include <unistd.h>

namespace kestrel {

namespace {

constexpr const char *det_file = ".utemp.det";
constexpr const char *det_title = "DET file produced by Unified read system.";

class det_form final : public form_worker {
  public:
    det_form(unified_details details, int path) : details_(details), path_(path) {}

    int start(const _unif_format &format, const unified_box &box) override;
    int write(const _unif_format &format, const std::byte *elements, int dx, int dy, int dt) override;
    int stop(const _unif_format &format, bool failed) override;

  private:
    unified_details details_;
    int path_;
    tessera_writer file_;
    std::size_t line_bytes_ = 0;
    line_assembler assembler_{1};
};

bool file_type_for(int data_type, tessera_type &type) {
    type = data_type == el_short    ? tessera_type::uint16
           : data_type == el_double ? tessera_type::float64
                                    : tessera_type::float32;
    return data_type == el_short || data_type == el_float || data_type == el_double;
}

tessera_shape shape_for(const unified_box &box) {
    if (box.dx == 1)
        return {box.dy, box.dt, 1};
    if (box.dy == 1)
        return {box.dx, box.dt, 1};
    return {box.dx, box.dy, box.dt};
}

int det_form::start(const _unif_format &format, const unified_box &box) {
    tessera_type type;
    if (!file_type_for(format.data_type, type)) {
        sv_printf(
            format.output->cn,
            "! DET files may only contain 16-bit [u]int, 32-bit or 64-bit floating point information.\n");
        return -1;
    }
    tessera_details details;
    if (details_ != nullptr)
        details_(path_, &details);
    const tessera_shape shape = shape_for(box);
    line_bytes_ = static_cast<std::size_t>(shape.nx) * static_cast<std::size_t>(format.size);
    assembler_ = line_assembler(line_bytes_);
    ::unlink(det_file);
    if (!file_.open(det_file, type, shape, det_title, details)) {
        file_.close();
        ::unlink(det_file);
        sv_printf(format.output->cn, "! Cannot open dummy DET file for output.\n");
        return -1;
    }
    return 0;
}

int det_form::write(const _unif_format &format, const std::byte *elements, int dx, int dy, int dt) {
    const auto size = static_cast<std::size_t>(format.size);
    const auto width = line_bytes_ / size;
    const bool done =
        assembler_.add(elements, form_elements(dx, dy, dt) * size,
                       [&](const std::byte *lines, std::size_t n) { return file_.write(lines, n * width); });
    if (!done)
        sv_printf(format.output->cn, "! Failed when writing the temporary file %s.\n", det_file);
    return done ? 0 : -1;
}

int det_form::stop(const _unif_format &format, bool failed) {
    const bool whole = file_.lines_written() == file_.lines_total();
    const bool closed = file_.close();
    if (failed || !whole || !closed) {
        if (!failed)
            sv_printf(format.output->cn, "! Failed when writing the temporary file %s.\n", det_file);
        ::unlink(det_file);
        return -1;
    }
    return send_file(*format.output, det_file, "DET");
}

} // namespace

void det_setup_format(_unif_format &format, int source_type, unified_details details, int path) {
    format.type = form_type::det;
    format.needs_conversion = 1;
    format.data_type_required = source_type == el_double  ? el_double
                                : source_type == el_short ? el_short
                                                          : el_float;
    format.swapping = swap_own;
    format.max_dimension = 3;
    format.worker = std::make_unique<det_form>(details, path);
}

} // namespace kestrel
