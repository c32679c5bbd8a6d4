// ASCII columns: one line a point along x, its angle (or index) first, then one column for each (y, t).
#include "server/session.h"
#include "unified/element_text.h"
#include "unified/form.h"

#include <cstdio>
#include <vector>

namespace kestrel {

namespace {

constexpr std::size_t text_block = 64 * 1024;

struct column_state {
    column_angles angles;
    std::uint32_t next = 0; // index along x of the next line
    std::vector<char> text;
};

int col_start(_unif_format &format, const unified_box &box, int data_type, UnifOutput &output) {
    form_start(format, box, data_type, output);
    auto &state = *static_cast<column_state *>(format.specific.get());
    state.next = 0;
    state.text.resize(text_block + 2 * element_text_max);
    return 0;
}

char *put_angle(char *out, const column_state &state) {
    if (!state.angles.given) {
        out = put_decimal(out, state.next);
        *out++ = ' ';
        return out;
    }
    out = put_g8(out, state.angles.start + state.next * state.angles.step);
    *out++ = ' ';
    return out;
}

template <int Radix, class T>
int write_lines(_unif_format &format, const std::byte *buffer, std::size_t width, std::size_t columns) {
    auto &state = *static_cast<column_state *>(format.specific.get());
    char *const begin = state.text.data();
    char *out = begin;
    UnifOutput &output = *format.output;
    for (std::size_t i = 0; i < width; ++i, ++state.next) {
        out = put_angle(out, state);
        for (std::size_t column = 0; column < columns; ++column) {
            out = put_element<Radix>(out, load_element<T>(buffer, column * width + i));
            if (out < begin + text_block)
                continue;
            if (output.write(output, begin, static_cast<std::size_t>(out - begin)) != 0)
                return -1;
            out = begin;
        }
        *out++ = '\n';
    }
    return out == begin ? 0 : output.write(output, begin, static_cast<std::size_t>(out - begin));
}

int col_write(_unif_format &format, const void *buffer, int dx, int dy, int dt) {
    const auto columns = static_cast<std::size_t>(dy) * static_cast<std::size_t>(dt);
    int result = -1;
    const bool known = with_radix(sv_get_radix(format.output->cn), [&](auto radix) {
        with_element_type(format.data_type, [&](auto element) {
            result = write_lines<radix.value, decltype(element)>(
                format, static_cast<const std::byte *>(buffer), static_cast<std::size_t>(dx), columns);
        });
    });
    if (!known)
        std::fprintf(stderr, "unifascii.c: write: Internal error. Radix may only be 2, 10 or 16.\n");
    return result;
}

} // namespace

void ascii_col_setup_format(_unif_format &format, const column_angles &angles) {
    format.type = form_type::ascii_col;
    format.startfn = col_start;
    format.stopfn = form_stop_nothing;
    format.writefn = col_write;
    format.swapping = swap_never;
    format.max_dimension = 3;
    format.transpose_read = 1;
    auto state = std::make_shared<column_state>();
    state->angles = angles;
    format.specific = std::move(state);
}

} // namespace kestrel
