// support: texts that the compiler puts together, so that what several constants share is written once:
//
//     constexpr fixed_text output_words("module %s start-x %d = %d");
//     constexpr const char *sum_format = text_join<"%d %d x y ", output_words>;
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>

namespace kestrel {

template <std::size_t Size> struct fixed_text {
    char text[Size] = {};
    static constexpr std::size_t length = Size - 1;

    consteval fixed_text(const char (&literal)[Size]) { std::copy_n(literal, Size, text); }
};

namespace text_join_detail {

template <fixed_text... Pieces> consteval auto join() {
    std::array<char, (Pieces.length + ... + 1)> all{};
    char *at = all.data();
    ((at = std::copy_n(Pieces.text, Pieces.length, at)), ...);
    return all;
}

template <fixed_text... Pieces> inline constexpr auto joined = join<Pieces...>();

} // namespace text_join_detail

template <fixed_text... Pieces>
inline constexpr const char *text_join = text_join_detail::joined<Pieces...>.data();

} // namespace kestrel
