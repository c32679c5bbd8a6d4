#include "support/number_text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>

namespace kestrel {

namespace {

constexpr std::array<char, 200> digit_pairs = [] {
    std::array<char, 200> pairs{};
    for (std::size_t i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}();

void put_pair(char *out, std::uint32_t value) {
    std::memcpy(out, &digit_pairs[2 * value], 2);
}

int decimal_length(std::uint32_t value) {
    int length = 1;
    for (std::uint64_t limit = 10; value >= limit; limit *= 10)
        ++length;
    return length;
}

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

char *put_fixed(char *out, const char *digits, int count, int exponent) {
    if (exponent < 0) {
        std::memcpy(out, "0.000", 5);
        out += 1 - exponent; // 0.ddd has exponent -1
        std::memcpy(out, digits, static_cast<std::size_t>(count));
        return out + count;
    }
    if (count <= exponent + 1) {
        std::memcpy(out, digits, static_cast<std::size_t>(exponent + 1));
        return out + exponent + 1;
    }
    std::memcpy(out, digits, static_cast<std::size_t>(exponent + 1));
    out += exponent + 1;
    *out++ = '.';
    std::memcpy(out, digits + exponent + 1, static_cast<std::size_t>(count - exponent - 1));
    return out + count - exponent - 1;
}

char *put_scientific(char *out, const char *digits, int count, int exponent) {
    *out++ = digits[0];
    if (count > 1) {
        *out++ = '.';
        std::memcpy(out, digits + 1, static_cast<std::size_t>(count - 1));
        out += count - 1;
    }
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

char *put_decimal(char *out, std::uint32_t value) {
    const int length = decimal_length(value);
    char *at = out + length;
    while (value >= 100) {
        at -= 2;
        put_pair(at, value % 100);
        value /= 100;
    }
    if (value >= 10)
        put_pair(at - 2, value);
    else
        at[-1] = static_cast<char>('0' + value);
    return out + length;
}

char *put_digits(char *out, std::uint32_t value, int bits_a_digit, int width) {
    const int used = (std::bit_width(value) + bits_a_digit - 1) / bits_a_digit;
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
    std::uint64_t eight = 0;
    if (!scaled(mantissa, binary - 52, 7 - exponent, eight))
        return put_g8_exact(out, value);
    if (eight >= 100000000) {
        ++exponent;
        if (!scaled(mantissa, binary - 52, 7 - exponent, eight))
            return put_g8_exact(out, value);
    }
    if (eight < 10000000 || eight >= 100000000)
        return put_g8_exact(out, value);

    char digits[8];
    auto rest = static_cast<std::uint32_t>(eight);
    for (int i = 6; i >= 0; i -= 2, rest /= 100)
        put_pair(digits + i, rest % 100);
    int count = 8;
    const bool fixed = exponent >= -4 && exponent < 8;
    while (count > 1 && digits[count - 1] == '0')
        --count;
    if (bits >> 63 != 0)
        *out++ = '-';
    return fixed ? put_fixed(out, digits, count, exponent) : put_scientific(out, digits, count, exponent);
}

} // namespace kestrel
