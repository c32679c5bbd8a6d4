// ASCII rows: every element with its separator, a line feed after each row.
#include "server/session.h"
#include "unified/element_text.h"
#include "unified/form.h"
#include "unified/text_pieces.h"

#include <algorithm>
#include <cstdio>

namespace kestrel {

namespace {

constexpr std::size_t piece_elements = 4096; // made into text at a time

class ascii_form final : public form_worker {
  public:
    int write(const _unif_format &format, const std::byte *elements, int dx, int dy, int dt) override;

  private:
    std::size_t column_ = 0; // of the next element
};

// Elements on their way to text.
struct ascii_rows {
    const std::byte *elements;
    std::size_t count, width;
    std::size_t column; // of the first one
    UnifOutput &output;
};

template <int Radix, class T> std::size_t put_rows(const void *user, int piece, char *room) {
    const auto &rows = *static_cast<const ascii_rows *>(user);
    char *out = room;
    std::size_t i = static_cast<std::size_t>(piece) * piece_elements;
    const std::size_t last = std::min(rows.count, i + piece_elements);
    for (std::size_t column = (rows.column + i) % rows.width; i < last;) {
        const std::size_t end = std::min(last, i + rows.width - column);
        column += end - i;
        for (; i < end; ++i)
            out = put_element<Radix>(out, load_element<T>(rows.elements, i));
        if (column == rows.width) {
            *out++ = '\n';
            column = 0;
        }
    }
    return static_cast<std::size_t>(out - room);
}

int hand_on(const void *user, const char *text, std::size_t length) {
    return static_cast<const ascii_rows *>(user)->output.write(text, length);
}

int ascii_form::write(const _unif_format &format, const std::byte *elements, int dx, int dy, int dt) {
    const ascii_rows rows{elements, form_elements(dx, dy, dt), static_cast<std::size_t>(format.nx), column_,
                          *format.output};
    text_pieces pieces{.count = static_cast<int>((rows.count + piece_elements - 1) / piece_elements),
                       .room = piece_elements * (element_text_max + 1),
                       .make = nullptr,
                       .take = hand_on,
                       .user = &rows};
    const bool known = with_radix(sv_get_radix(format.output->cn), [&](auto radix) {
        with_element_type(format.data_type,
                          [&](auto element) { pieces.make = put_rows<radix.value, decltype(element)>; });
    });
    if (!known)
        std::fprintf(stderr, "unifascii.c: write: Internal error. Radix may only be 2, 10 or 16.\n");
    if (!pieces.make || unified_make_text(pieces) != 0)
        return -1;
    column_ = (column_ + rows.count) % rows.width;
    return 0;
}

} // namespace

void ascii_setup_format(_unif_format &format) {
    format.type = form_type::ascii;
    format.swapping = swap_never;
    format.max_dimension = 3;
    format.worker = std::make_unique<ascii_form>();
}

} // namespace kestrel
