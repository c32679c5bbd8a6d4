// The fast number writers against printf.
#include "support/number_text.h"

#include <bit>
#include <cmath>
#include <cstdio>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>

using namespace kestrel;

namespace {

std::string g8(double value) {
    char text[number_text_max];
    return {text, put_g8(text, value)};
}

std::string printed(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.8g", value);
    return text;
}

std::string decimal(std::uint32_t value) {
    char text[number_text_max];
    return {text, put_decimal(text, value)};
}

std::string digits(std::uint32_t value, int bits, int width = 1) {
    char text[number_text_max];
    return {text, put_digits(text, value, bits, width)};
}

} // namespace

TEST(number_text, floats_read_as_printf_writes_them_at_every_edge) {
    constexpr double inf = std::numeric_limits<double>::infinity();
    const double nan = std::nan("");
    const double cases[] = {0.0,          -0.0,       1,
                            -1,           0.1,        100,
                            12345678,     123456789,  99999999.5,
                            99999998.5,   999999995,  9999999.95,
                            0.0001,       0.00001,    0.000099999999999,
                            1.5,          2.5e-7,     1e15,
                            1e22,         1e23,       1e-20,
                            1.00000005,   1.00000015, 16777216,
                            4294967295.0, 5e-324,     1.7976931348623157e308,
                            1e100,        inf,        -inf,
                            nan,          -nan};
    for (const double value : cases)
        EXPECT_EQ(g8(value), printed(value));
}

TEST(number_text, floats_read_as_printf_writes_them_at_random) {
    std::mt19937_64 random(20261121);
    for (int i = 0; i < 300000; ++i) {
        const std::uint64_t bits = random();
        // any double, any float, and short decimals, which are where ties lie
        const double values[] = {std::bit_cast<double>(bits),
                                 static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bits))),
                                 static_cast<double>(bits % 2000000000) *
                                         std::pow(10, static_cast<int>(bits >> 40 & 15) - 9) +
                                     0.5};
        for (const double value : values)
            ASSERT_EQ(g8(value), printed(value)) << std::hex << std::bit_cast<std::uint64_t>(value);
    }
}

TEST(number_text, integers_in_every_radix) {
    for (const std::uint32_t value : {0U, 9U, 10U, 99U, 100U, 12345U, 999999999U, 1000000000U, 4294967295U})
        EXPECT_EQ(decimal(value), std::to_string(value));
    EXPECT_EQ(digits(255, 4), "FF");
    EXPECT_EQ(digits(0, 4), "0");
    EXPECT_EQ(digits(5, 1), "101");
    EXPECT_EQ(digits(0, 1), "0");
    EXPECT_EQ(digits(0x1A, 4, 8), "0000001A");
    EXPECT_EQ(digits(4294967295U, 1), std::string(32, '1'));
}
