// ASCII rows: every element with its separator, a line feed after each row.
#include "server/session.h"
#include "unified/element_text.h"
#include "unified/form.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace kestrel {

namespace {

constexpr std::size_t text_block = 64 * 1024; // handed to the destination in pieces of about this

struct row_state {
    std::size_t column = 0; // of the next element
    std::vector<char> text;
};

int ascii_start(_unif_format &format, const unified_box &box, int data_type, UnifOutput &output) {
    form_start(format, box, data_type, output);
    auto state = std::make_shared<row_state>();
    state->text.resize(text_block + element_text_max + 1);
    format.specific = std::move(state);
    return 0;
}

template <int Radix, class T>
int write_rows(_unif_format &format, const std::byte *buffer, std::size_t count) {
    auto &state = *static_cast<row_state *>(format.specific.get());
    const auto width = static_cast<std::size_t>(format.nx);
    char *const begin = state.text.data();
    char *const full = begin + text_block;
    char *out = begin;
    UnifOutput &output = *format.output;
    for (std::size_t i = 0; i < count;) {
        const std::size_t end = std::min(count, i + width - state.column);
        state.column += end - i;
        for (; i < end; ++i) {
            out = put_element<Radix>(out, load_element<T>(buffer, i));
            if (out >= full) {
                if (output.write(output, begin, static_cast<std::size_t>(out - begin)) != 0)
                    return -1;
                out = begin;
            }
        }
        if (state.column == width) {
            *out++ = '\n';
            state.column = 0;
        }
    }
    return out == begin ? 0 : output.write(output, begin, static_cast<std::size_t>(out - begin));
}

int ascii_write(_unif_format &format, const void *buffer, int dx, int dy, int dt) {
    const auto count =
        static_cast<std::size_t>(dx) * static_cast<std::size_t>(dy) * static_cast<std::size_t>(dt);
    int result = -1;
    const bool known = with_radix(sv_get_radix(format.output->cn), [&](auto radix) {
        with_element_type(format.data_type, [&](auto element) {
            result = write_rows<radix.value, decltype(element)>(
                format, static_cast<const std::byte *>(buffer), count);
        });
    });
    if (!known)
        std::fprintf(stderr, "unifascii.c: write: Internal error. Radix may only be 2, 10 or 16.\n");
    return result;
}

} // namespace

void ascii_setup_format(_unif_format &format) {
    format.type = form_type::ascii;
    format.startfn = ascii_start;
    format.stopfn = form_stop_nothing;
    format.writefn = ascii_write;
    format.swapping = swap_never;
    format.max_dimension = 3;
}

} // namespace kestrel
