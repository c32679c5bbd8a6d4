// support: numbers as text, fast, for loops over elements. Uses nothing.
// Each writes at `out`, which must have the room stated, and returns the end of what it wrote (no NUL).
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kestrel {

inline constexpr std::size_t number_text_max = 64; // room that every writer below is content with

namespace number_text_detail {

inline constexpr std::array<char, 200> digit_pairs = [] {
    std::array<char, 200> pairs{};
    for (std::size_t i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}();

inline void put_pair(char *out, std::uint32_t value) {
    std::memcpy(out, &digit_pairs[2 * value], 2);
}

// The four decimal digits of every number below 10000, one a byte (0 to 9), the first in the lowest byte.
extern const std::array<std::uint32_t, 10000> four_digits;

// The same for eight digits of a value below 10^8. There is no branch to guess wrong.
inline std::uint64_t eight_digits(std::uint32_t value) {
    const std::uint32_t high = value / 10000;
    return four_digits[high] | static_cast<std::uint64_t>(four_digits[value - high * 10000]) << 32;
}

inline constexpr std::uint64_t ascii_zeros = 0x3030303030303030;

inline void put_word(char *out, std::uint64_t word) {
    if constexpr (std::endian::native == std::endian::big)
        word = __builtin_bswap64(word);
    std::memcpy(out, &word, sizeof word);
}

} // namespace number_text_detail

// As "%u". Inline: the call would cost as much as the digits.
inline char *put_decimal(char *out, std::uint32_t value) {
    using namespace number_text_detail;
    if (value >= 100000000) {
        const std::uint32_t top = value / 100000000; // 1 to 42
        const std::uint64_t rest = eight_digits(value - top * 100000000) + ascii_zeros;
        out[0] = static_cast<char>('0' + top / 10);
        out += top >= 10 ? 1 : 0; // a leading zero is written over
        out[0] = static_cast<char>('0' + top % 10);
        put_word(out + 1, rest);
        return out + 9;
    }
    const std::uint64_t digits = eight_digits(value);
    // Leading zeros are shifted out; the last digit stays, even if it is one.
    const int leading = std::countr_zero(digits | std::uint64_t{1} << 56) / 8;
    put_word(out, (digits + ascii_zeros) >> 8 * leading);
    return out + 8 - leading;
}

// Binary (bits a digit: 1) or hexadecimal (4) digits in upper case, at least `width` of them.
char *put_digits(char *out, std::uint32_t value, int bits_a_digit, int width = 1);

// As "%.8g" in the C locale, to the last digit.
char *put_g8(char *out, double value);

} // namespace kestrel
