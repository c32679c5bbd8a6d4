#include "support/number_text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>

namespace kestrel {

using namespace number_text_detail;

constinit const std::array<std::uint32_t, 10000> number_text_detail::four_digits = [] {
    std::array<std::uint32_t, 10000> table{};
    for (std::uint32_t i = 0; i < table.size(); ++i)
        table[i] = i / 1000 | i / 100 % 10 << 8 | i / 10 % 10 << 16 | i % 10 << 24;
    return table;
}();

namespace {

// Powers of ten as a 64-bit mantissa (top bit set) and a binary exponent: 10^k = mantissa x 2^exponent,
// exact for k >= 0, less than one unit too small for k < 0.
constexpr int power_max = 27; // 5^27 is the last power of five that fits in 64 bits

struct power {
    std::uint64_t mantissa;
    int exponent;
};

constexpr std::array<power, 2 *power_max + 1> powers = [] {
    std::array<power, 2 * power_max + 1> table{};
    std::uint64_t five = 1;
    for (int k = 0; k <= power_max; ++k, five *= 5) {
        const int shift = std::countl_zero(five);
        const std::uint64_t mantissa = five << shift;
        table[static_cast<std::size_t>(power_max + k)] = {mantissa, k - shift};
        if (k == 0)
            continue;
        const auto inverse = static_cast<unsigned __int128>(1) << 127;
        table[static_cast<std::size_t>(power_max - k)] = {static_cast<std::uint64_t>(inverse / mantissa),
                                                          shift - k - 127};
    }
    return table;
}();

// value x 10^k (value = mantissa x 2^exponent), rounded to an integer: false when the fraction is too near to
// a half to be decided from 64-bit powers.
bool scaled(std::uint64_t mantissa, int exponent, int k, std::uint64_t &rounded) {
    const power &p = powers[static_cast<std::size_t>(power_max + k)];
    const unsigned __int128 product = static_cast<unsigned __int128>(mantissa) * p.mantissa;
    const int shift = -(exponent + p.exponent);
    if (shift < 64 || shift > 126)
        return false;
    rounded = static_cast<std::uint64_t>(product >> shift);
    const auto fraction = static_cast<std::uint64_t>(product >> (shift - 64));
    constexpr std::uint64_t half = std::uint64_t{1} << 63;
    // The power is wrong by less than 2^-63 of itself, the product by less than 2^53 units: in the fraction,
    // whose unit is 2^-64 and whose integer part has 27 bits, that is below 2^28.
    constexpr std::uint64_t doubt = std::uint64_t{1} << 29;
    if (fraction > half - doubt && fraction < half + doubt)
        return false;
    rounded += fraction >= half;
    return true;
}

// Exact up to 10^22, else the nearest double.
constexpr int ten_min = -20;
constexpr std::array<double, 56> tens = {
    1e-20, 1e-19, 1e-18, 1e-17, 1e-16, 1e-15, 1e-14, 1e-13, 1e-12, 1e-11, 1e-10, 1e-9, 1e-8, 1e-7,
    1e-6,  1e-5,  1e-4,  1e-3,  1e-2,  1e-1,  1e0,   1e1,   1e2,   1e3,   1e4,   1e5,  1e6,  1e7,
    1e8,   1e9,   1e10,  1e11,  1e12,  1e13,  1e14,  1e15,  1e16,  1e17,  1e18,  1e19, 1e20, 1e21,
    1e22,  1e23,  1e24,  1e25,  1e26,  1e27,  1e28,  1e29,  1e30,  1e31,  1e32,  1e33, 1e34, 1e35};

// `count` digits (as letters, the first lowest) of a number whose first digit counts 10^exponent.
char *put_fixed(char *out, std::uint64_t word, int count, int exponent) {
    if (exponent < 0) {
        std::memcpy(out, "0.000000", 8);
        put_word(out + 1 - exponent, word); // 0.ddd has exponent -1
        return out + 1 - exponent + count;
    }
    put_word(out, word);
    put_word(out + exponent + 2, (word >> 8 * exponent) >> 8);
    out[exponent + 1] = '.';
    return out + (count <= exponent + 1 ? exponent + 1 : count + 1);
}

char *put_scientific(char *out, std::uint64_t word, int count, int exponent) {
    out[0] = static_cast<char>(word & 0xff);
    out[1] = '.';
    put_word(out + 2, word >> 8);
    out += count > 1 ? count + 1 : 1;
    *out++ = 'e';
    *out++ = exponent < 0 ? '-' : '+';
    put_pair(out, static_cast<std::uint32_t>(std::abs(exponent)));
    return out + 2;
}

// Exact, whatever the value; the road for what the fast one cannot decide.
char *put_g8_exact(char *out, double value) {
    if (!std::isfinite(value)) {
        if (std::signbit(value))
            *out++ = '-';
        std::memcpy(out, std::isnan(value) ? "nan" : "inf", 3);
        return out + 3;
    }
    return std::to_chars(out, out + number_text_max, value, std::chars_format::general, 8).ptr;
}

} // namespace

char *put_digits(char *out, std::uint32_t value, int bits_a_digit, int width) {
    const int used = (static_cast<int>(std::bit_width(value)) + bits_a_digit - 1) / bits_a_digit;
    const int length = std::max({used, width, 1});
    for (int i = length - 1; i >= 0; --i) {
        out[i] = "0123456789ABCDEF"[value & ((1U << bits_a_digit) - 1)];
        value >>= bits_a_digit;
    }
    return out + length;
}

char *put_g8(char *out, double value) {
    const auto bits = std::bit_cast<std::uint64_t>(value);
    const int biased = static_cast<int>(bits >> 52 & 0x7ff);
    if (bits << 1 == 0) {
        if (std::signbit(value))
            *out++ = '-';
        *out++ = '0';
        return out;
    }
    const int binary = biased - 1023; // value = 1.xxx times 2^binary
    if (binary < -64 || binary > 110)
        return put_g8_exact(out, value);
    const std::uint64_t mantissa = (bits & ((std::uint64_t{1} << 52) - 1)) | std::uint64_t{1} << 52;
    int exponent = binary * 78913 >> 18; // log10(2) x 2^18: the decimal exponent or one less
    exponent += std::abs(value) >= tens[static_cast<std::size_t>(exponent + 1 - ten_min)] ? 1 : 0;
    std::uint64_t eight = 0;
    if (!scaled(mantissa, binary - 52, 7 - exponent, eight))
        return put_g8_exact(out, value);
    if (eight == 100000000) { // rounded up to the next power of ten
        eight = 10000000;
        ++exponent;
    }
    if (eight < 10000000 || eight > 100000000)
        return put_g8_exact(out, value);

    const std::uint64_t digits = eight_digits(static_cast<std::uint32_t>(eight));
    const int count = 8 - std::countl_zero(digits) / 8; // without zeros at the end
    *out = '-';
    out += bits >> 63;
    const bool fixed = exponent >= -4 && exponent < 8;
    return fixed ? put_fixed(out, digits + ascii_zeros, count, exponent)
                 : put_scientific(out, digits + ascii_zeros, count, exponent);
}

} // namespace kestrel
