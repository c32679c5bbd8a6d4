// support: numbers as text, fast, for loops over elements. Uses nothing.
// Each writes at `out`, which must have the room stated, and returns the end of what it wrote (no NUL).
#pragma once

#include <cstddef>
#include <cstdint>

namespace kestrel {

inline constexpr std::size_t number_text_max = 64; // room that every writer below is content with

char *put_decimal(char *out, std::uint32_t value); // as "%u"

// Binary (bits a digit: 1) or hexadecimal (4) digits in upper case, at least `width` of them.
char *put_digits(char *out, std::uint32_t value, int bits_a_digit, int width = 1);

// As "%.8g" in the C locale, to the last digit.
char *put_g8(char *out, double value);

} // namespace kestrel
