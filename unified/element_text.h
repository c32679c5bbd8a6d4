// unified: elements as text, each with its separator, in a session's radix.
#pragma once

#include "support/number_text.h"
#include "unified/convert.h"

namespace kestrel {

inline constexpr std::size_t element_text_max = 2 * number_text_max + 2;

// Writes one element at `out` (which has element_text_max bytes of room); returns the end.
//   integers    radix 10 "%u" and a tab, radix 2 and 16 the digits and a tab
//   floats      "%.8g" and a blank
//   int48       its first 16 and following 32 bits as they lie in memory: radix 10 "%u:%u" and a blank,
//   int64       radix 2 and 16 the digits of both in turn and a tab; likewise its two 32-bit words
template <int Radix, class T> char *put_element(char *out, T value) {
    if constexpr (std::is_floating_point_v<T>) {
        out = put_g8(out, static_cast<double>(value));
        *out++ = ' ';
    } else if constexpr (sizeof(T) > 4) {
        constexpr std::size_t head = sizeof(T) - 4;
        std::uint32_t first = 0;
        std::uint32_t second = 0;
        const auto *bytes = reinterpret_cast<const std::byte *>(&value);
        if constexpr (head == 2)
            first = load_element<std::uint16_t>(bytes, 0);
        else
            first = load_element<std::uint32_t>(bytes, 0);
        std::memcpy(&second, bytes + head, sizeof second);
        if constexpr (Radix == 10) {
            out = put_decimal(out, first);
            *out++ = ':';
            out = put_decimal(out, second);
            *out++ = ' ';
        } else {
            constexpr int bits = Radix == 16 ? 4 : 1;
            out = put_digits(out, first, bits);
            out = put_digits(out, second, bits, 32 / bits);
            *out++ = '\t';
        }
    } else {
        if constexpr (Radix == 10)
            out = put_decimal(out, value);
        else
            out = put_digits(out, value, Radix == 16 ? 4 : 1);
        *out++ = '\t';
    }
    return out;
}

// Calls f with a constant of the radix; false for a radix that is not 2, 10 or 16.
template <class F> bool with_radix(int radix, F &&f) {
    switch (radix) {
    case 2:
        f(std::integral_constant<int, 2>{});
        return true;
    case 10:
        f(std::integral_constant<int, 10>{});
        return true;
    case 16:
        f(std::integral_constant<int, 16>{});
        return true;
    default:
        return false;
    }
}

} // namespace kestrel
