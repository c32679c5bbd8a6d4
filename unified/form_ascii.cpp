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

class ascii_form final : public form_worker {
  public:
    int start(const _unif_format &format, const unified_box &box) override;
    int write(const _unif_format &format, const std::byte *elements, int dx, int dy, int dt) override;

  private:
    template <int Radix, class T>
    int write_rows(const _unif_format &format, const std::byte *buffer, std::size_t count);

    std::size_t column_ = 0; // of the next element
    std::vector<char> text_;
};

int ascii_form::start(const _unif_format &, const unified_box &) {
    text_.resize(text_block + element_text_max + 1);
    return 0;
}

template <int Radix, class T>
int ascii_form::write_rows(const _unif_format &format, const std::byte *buffer, std::size_t count) {
    const auto width = static_cast<std::size_t>(format.nx);
    char *const begin = text_.data();
    char *const full = begin + text_block;
    char *out = begin;
    UnifOutput &output = *format.output;
    std::size_t column = column_;
    for (std::size_t i = 0; i < count;) {
        const std::size_t end = std::min(count, i + width - column);
        column += end - i;
        for (; i < end; ++i) {
            out = put_element<Radix>(out, load_element<T>(buffer, i));
            if (out >= full) {
                if (output.write(begin, static_cast<std::size_t>(out - begin)) != 0)
                    return -1;
                out = begin;
            }
        }
        if (column == width) {
            *out++ = '\n';
            column = 0;
        }
    }
    column_ = column;
    return out == begin ? 0 : output.write(begin, static_cast<std::size_t>(out - begin));
}

int ascii_form::write(const _unif_format &format, const std::byte *elements, int dx, int dy, int dt) {
    int result = -1;
    const bool known = with_radix(sv_get_radix(format.output->cn), [&](auto radix) {
        with_element_type(format.data_type, [&](auto element) {
            result = write_rows<radix.value, decltype(element)>(format, elements, form_elements(dx, dy, dt));
        });
    });
    if (!known)
        std::fprintf(stderr, "unifascii.c: write: Internal error. Radix may only be 2, 10 or 16.\n");
    return result;
}

} // namespace

void ascii_setup_format(_unif_format &format) {
    format.type = form_type::ascii;
    format.swapping = swap_never;
    format.max_dimension = 3;
    format.worker = std::make_unique<ascii_form>();
}

} // namespace kestrel
