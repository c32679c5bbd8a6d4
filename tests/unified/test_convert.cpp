// Element conversion and the numbers of the corrections, worked by hand.
#include "unified/convert.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <vector>

using namespace kestrel;

namespace {

template <class T>
std::vector<T> converted(int from, const void *data, std::size_t count, int to, scaling s = {}) {
    std::vector<T> out(count);
    convert_elements(data, from, out.data(), to, count, s);
    return out;
}

} // namespace

TEST(convert, doubles_become_integers_cut_and_kept_within_limits) {
    const double inf = std::numeric_limits<double>::infinity();
    const double in[] = {2.9,   -0.9,         -2.9,         255.9, 256,  65535.5,
                         65536, 4294967295.5, 4294967296.0, inf,   -inf, std::nan("")};
    EXPECT_EQ(converted<std::uint32_t>(el_double, in, 12, el_long),
              (std::vector<std::uint32_t>{2, 0, 0, 255, 256, 65535, 65536, 4294967295, 4294967295, 4294967295,
                                          0, 0}));
    EXPECT_EQ(converted<std::uint16_t>(el_double, in, 12, el_short),
              (std::vector<std::uint16_t>{2, 0, 0, 255, 256, 65535, 65535, 65535, 65535, 65535, 0, 0}));
    EXPECT_EQ(converted<std::uint8_t>(el_double, in, 12, el_byte),
              (std::vector<std::uint8_t>{2, 0, 0, 255, 255, 255, 255, 255, 255, 255, 0, 0}));
    const double wide[] = {9.3e18, -9.3e18, -5.5};
    EXPECT_EQ(converted<std::int64_t>(el_double, wide, 3, el_int64),
              (std::vector<std::int64_t>{INT64_MAX, INT64_MIN, -5}));
}

TEST(convert, integers_keep_every_bit_they_can) {
    const std::int64_t in[] = {-1, 0x123456789, 70000, (std::int64_t{1} << 53) + 1};
    EXPECT_EQ(converted<std::uint32_t>(el_int64, in, 4, el_long),
              (std::vector<std::uint32_t>{0, 4294967295, 70000, 4294967295}));
    EXPECT_EQ(converted<std::int64_t>(el_int64, in, 4, el_int64)[3], in[3]);
    const unsigned char six[] = {1, 2, 3, 4, 5, 6, 255, 255, 255, 255, 255, 255};
    const auto values = converted<double>(el_int48, six, 2, el_double);
    EXPECT_EQ(values[0], 0x060504030201);
    EXPECT_EQ(values[1], 281474976710655.0);
    const std::uint32_t counts[] = {16777217, 4294967295};
    EXPECT_EQ(converted<float>(el_long, counts, 2, el_float), (std::vector<float>{16777216, 4294967296}));
    EXPECT_EQ(converted<double>(el_long, counts, 2, el_double), (std::vector<double>{16777217, 4294967295}));
}

TEST(convert, scaling_is_factor_first_then_constant_in_double) {
    const std::uint32_t counts[] = {0, 3, 4294967295};
    EXPECT_EQ(converted<std::uint32_t>(el_long, counts, 3, el_long, {true, 0.5, 1.75}),
              (std::vector<std::uint32_t>{1, 3, 2147483649}));
    EXPECT_EQ(converted<float>(el_long, counts, 2, el_float, {true, -2.0, 0.25}),
              (std::vector<float>{0.25, -5.75}));
    const float nan[] = {std::nanf("")};
    EXPECT_EQ(converted<std::uint16_t>(el_float, nan, 1, el_short, {true, 1.0, 5.0})[0], 0);
}

TEST(convert, narrowing_in_place_packs_and_limits) {
    std::uint32_t longs[] = {1, 300, 70000};
    cvt_ltos(longs, 3);
    const auto *shorts = reinterpret_cast<const std::uint16_t *>(longs);
    EXPECT_EQ((std::vector<std::uint16_t>(shorts, shorts + 3)), (std::vector<std::uint16_t>{1, 300, 65535}));
    cvt_stob(longs, 2);
    EXPECT_EQ(reinterpret_cast<const std::uint8_t *>(longs)[1], 255);
    std::uint32_t more[] = {7, 256};
    cvt_ltob(more, 2);
    EXPECT_EQ(reinterpret_cast<const std::uint8_t *>(more)[0], 7);
    EXPECT_EQ(reinterpret_cast<const std::uint8_t *>(more)[1], 255);
}
