// ASCII columns: one line a point along x, its angle (or index) first, then one column for each (y, t).
#include "server/session.h"
#include "unified/element_text.h"
#include "unified/form.h"

#include <cstdio>
#include <vector>

namespace kestrel {

namespace {

constexpr std::size_t text_block = 64 * 1024;

class columns_form final : public form_worker {
  public:
    explicit columns_form(const column_angles &angles) : angles_(angles) {}

    int start(const _unif_format &format, const unified_box &box) override;
    int write(const _unif_format &format, const std::byte *elements, int dx, int dy, int dt) override;

  private:
    char *put_angle(char *out) const;
    template <int Radix, class T>
    int write_lines(const _unif_format &format, const std::byte *buffer, std::size_t width,
                    std::size_t columns);

    column_angles angles_;
    std::uint32_t next_ = 0; // index along x of the next line
    std::vector<char> text_;
};

int columns_form::start(const _unif_format &, const unified_box &) {
    next_ = 0;
    text_.resize(text_block + 2 * element_text_max);
    return 0;
}

char *columns_form::put_angle(char *out) const {
    if (!angles_.given) {
        out = put_decimal(out, next_);
        *out++ = ' ';
        return out;
    }
    out = put_g8(out, angles_.start + next_ * angles_.step);
    *out++ = ' ';
    return out;
}

template <int Radix, class T>
int columns_form::write_lines(const _unif_format &format, const std::byte *buffer, std::size_t width,
                              std::size_t columns) {
    char *const begin = text_.data();
    char *out = begin;
    UnifOutput &output = *format.output;
    for (std::size_t i = 0; i < width; ++i, ++next_) {
        out = put_angle(out);
        for (std::size_t column = 0; column < columns; ++column) {
            out = put_element<Radix>(out, load_element<T>(buffer, column * width + i));
            if (out < begin + text_block)
                continue;
            if (output.write(begin, static_cast<std::size_t>(out - begin)) != 0)
                return -1;
            out = begin;
        }
        *out++ = '\n';
    }
    return out == begin ? 0 : output.write(begin, static_cast<std::size_t>(out - begin));
}

int columns_form::write(const _unif_format &format, const std::byte *elements, int dx, int dy, int dt) {
    const auto columns = static_cast<std::size_t>(dy) * static_cast<std::size_t>(dt);
    int result = -1;
    const bool known = with_radix(sv_get_radix(format.output->cn), [&](auto radix) {
        with_element_type(format.data_type, [&](auto element) {
            result = write_lines<radix.value, decltype(element)>(format, elements,
                                                                 static_cast<std::size_t>(dx), columns);
        });
    });
    if (!known)
        std::fprintf(stderr, "unifascii.c: write: Internal error. Radix may only be 2, 10 or 16.\n");
    return result;
}

} // namespace

void ascii_col_setup_format(_unif_format &format, const column_angles &angles) {
    format.type = form_type::ascii_col;
    format.swapping = swap_never;
    format.max_dimension = 3;
    format.transpose_read = 1;
    format.worker = std::make_unique<columns_form>(angles);
}

} // namespace kestrel
