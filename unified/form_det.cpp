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

struct det_state {
    unified_details details = nullptr;
    int path = 0;
    tessera_writer file;
    std::size_t line_bytes = 0;
    line_assembler assembler{1};
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

int det_start(_unif_format &format, const unified_box &box, int data_type, UnifOutput &output) {
    form_start(format, box, data_type, output);
    auto &state = *static_cast<det_state *>(format.specific.get());
    tessera_type type;
    if (!file_type_for(data_type, type)) {
        sv_printf(
            output.cn,
            "! DET files may only contain 16-bit [u]int, 32-bit or 64-bit floating point information.\n");
        return -1;
    }
    tessera_details details;
    if (state.details != nullptr)
        state.details(state.path, &details);
    const tessera_shape shape = shape_for(box);
    state.line_bytes = static_cast<std::size_t>(shape.nx) * static_cast<std::size_t>(format.size);
    state.assembler = line_assembler(state.line_bytes);
    ::unlink(det_file);
    if (!state.file.open(det_file, type, shape, det_title, details)) {
        state.file.close();
        ::unlink(det_file);
        sv_printf(output.cn, "! Cannot open dummy DET file for output.\n");
        return -1;
    }
    return 0;
}

int det_write(_unif_format &format, const void *buffer, int dx, int dy, int dt) {
    auto &state = *static_cast<det_state *>(format.specific.get());
    const auto count =
        static_cast<std::size_t>(dx) * static_cast<std::size_t>(dy) * static_cast<std::size_t>(dt);
    const auto width = state.line_bytes / static_cast<std::size_t>(format.size);
    const bool done = state.assembler.add(
        static_cast<const std::byte *>(buffer), count * static_cast<std::size_t>(format.size),
        [&](const std::byte *lines, std::size_t n) { return state.file.write(lines, n * width); });
    if (!done)
        sv_printf(format.output->cn, "! Failed when writing the temporary file %s.\n", det_file);
    return done ? 0 : -1;
}

int det_stop(_unif_format &format, bool failed) {
    auto &state = *static_cast<det_state *>(format.specific.get());
    const bool whole = state.file.lines_written() == state.file.lines_total();
    const bool closed = state.file.close();
    if (failed || !whole || !closed) {
        if (!failed)
            sv_printf(format.output->cn, "! Failed when writing the temporary file %s.\n", det_file);
        ::unlink(det_file);
        return -1;
    }
    return send_file(*format.output, det_file, "! Failed to re-read temporary file %s.\n",
                     "! Failed when writing DET to output.\n");
}

} // namespace

void det_setup_format(_unif_format &format, int source_type, unified_details details, int path) {
    format.type = form_type::det;
    format.startfn = det_start;
    format.stopfn = det_stop;
    format.writefn = det_write;
    format.needs_conversion = 1;
    format.data_type_required = source_type == el_double  ? el_double
                                : source_type == el_short ? el_short
                                                          : el_float;
    format.swapping = swap_own;
    format.max_dimension = 3;
    auto state = std::make_shared<det_state>();
    state->details = details;
    state->path = path;
    format.specific = std::move(state);
}

} // namespace kestrel
