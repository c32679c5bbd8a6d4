// Every version of the row loops gives the bits of plain single rows, for any length and any place in memory.
#include "maths/kernels.h"
#include "maths/loops.h"
#include "support/processor.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <vector>

using namespace kestrel;

namespace {

std::vector<const row_loops *> versions() {
    std::vector<const row_loops *> all{&loops_plain};
#ifdef __x86_64__
    if (processor_has_avx2())
        all.push_back(&loops_avx2);
    if (processor_has_avx512())
        all.push_back(&loops_avx512);
#endif
    return all;
}

constexpr std::size_t lengths[] = {1, 15, 16, 17, 63, 200, 1027};

template <class T> T random_element(std::mt19937 &random) {
    const double value = std::uniform_real_distribution<double>(0, 4e9)(random);
    if constexpr (std::is_integral_v<T>)
        return static_cast<T>(value);
    else
        return static_cast<T>(random() % 7 == 0 ? -0.0 : value / 3 - 1e9);
}

// Four rows that begin at odd places.
template <class T> struct some_rows {
    std::vector<T> data;
    four_rows<T> rows;
    some_rows(std::size_t count, unsigned seed) : data(4 * (count + 5)) {
        std::mt19937 random(seed);
        for (T &element : data)
            element = random_element<T>(random);
        for (std::size_t r = 0; r < 4; ++r)
            rows[r] = data.data() + r * (count + 1) + 1;
    }
    std::span<const T> row(std::size_t r, std::size_t count) const { return {rows[r], count}; }
};

template <class T> bool same_bits(const T *a, const T *b, std::size_t count) {
    return std::memcmp(a, b, count * sizeof(T)) == 0;
}

template <class T> void check_sums() {
    using S = sum_of<T>;
    for (const row_loops *version : versions())
        for (const std::size_t n : lengths) {
            SCOPED_TRACE(std::string(version->name) + ", length " + std::to_string(n));
            const auto &loops = umaths_loops_of<T>(*version);
            const some_rows<T> some(n, static_cast<unsigned>(n));
            S totals[4];
            moment moments[4];
            loops.totals(some.rows.data(), n, totals);
            loops.moments(some.rows.data(), n, 7.5, moments);
            std::vector<S> sums(n, S{3}), sums_singly = sums;
            std::vector<double> f(n, 1.0), fc(n, 2.0), f_singly = f, fc_singly = fc, weighted(n);
            loops.add(some.rows.data(), n, sums.data());
            loops.add_moments(some.rows.data(), n, 7.5, f.data(), fc.data());
            for (std::size_t r = 0; r < 4; ++r) {
                EXPECT_EQ(totals[r], row_total(some.row(r, n)));
                const moment one = row_moment(some.row(r, n), 7.5);
                EXPECT_TRUE(same_bits(&one, &moments[r], 1));
                add_row(some.row(r, n), sums_singly.data());
                add_moments(some.row(r, n), 7.5 + static_cast<double>(r), f_singly.data(), fc_singly.data());
            }
            EXPECT_TRUE(same_bits(sums.data(), sums_singly.data(), n));
            EXPECT_TRUE(same_bits(f.data(), f_singly.data(), n));
            EXPECT_TRUE(same_bits(fc.data(), fc_singly.data(), n));
        }
}

template <class T> void check_bins() {
    for (const row_loops *version : versions())
        for (const std::size_t n : lengths)
            for (const std::size_t factor : {1UL, 2UL, 3UL, 4UL, 7UL})
                for (const bool past_cache : {false, true}) {
                    SCOPED_TRACE(std::string(version->name) + ", bins " + std::to_string(n) + ", factor " +
                                 std::to_string(factor));
                    const some_rows<T> some(n * factor, static_cast<unsigned>(n));
                    std::vector<T> bins(n + 3, T{9});
                    std::vector<sum_of<T>> sums(n);
                    umaths_loops_of<T>(*version).bin(some.rows.data(), 3, factor, n, &bins[1], past_cache);
                    umaths_stores_done();
                    for (std::size_t r = 0; r < 3; ++r)
                        bin_row(some.row(r, n * factor), factor, n, sums.data());
                    for (std::size_t j = 0; j < n; ++j)
                        ASSERT_EQ(bins[j + 1], static_cast<T>(sums[j])) << j;
                    EXPECT_TRUE(bins[0] == T{9} && bins[n + 1] == T{9} && bins[n + 2] == T{9});
                }
}

float combined(float x, float y, const binary_operation &o) {
    const float s = o.scale;
    switch (o.code) {
    case bin_add:
        return s != 0 ? (x + y) * s : x + y;
    case bin_sub:
        return s != 0 ? (x - y) * s : x - y;
    case bin_mult:
        return s != 0 ? x * y * s : x * y;
    default:
        if (o.threshold > 0 && !(y > o.threshold))
            return 0;
        return s != 0 ? x * s / y : x / y;
    }
}

template <class A, class B> void check_combination(std::size_t pair) {
    for (const row_loops *version : versions())
        for (const std::size_t n : lengths)
            for (const auto code : {bin_add, bin_sub, bin_mult, bin_div})
                for (const binary_operation &o :
                     {binary_operation{code, 1.0F, 0.0F}, {code, 0.0F, 2.5F}, {code, 5e8F, 0.3F}})
                    for (const bool past_cache : {false, true}) {
                        SCOPED_TRACE(std::string(version->name) + ", length " + std::to_string(n));
                        const some_rows<A> a(n, 1);
                        const some_rows<B> b(n, 2);
                        std::vector<float> out(n + 2, -1.0F), wanted = out;
                        version->combine[pair](a.rows[0], b.rows[1], &out[1], n, o, past_cache);
                        umaths_stores_done();
                        for (std::size_t i = 0; i < n; ++i)
                            wanted[i + 1] = combined(static_cast<float>(a.rows[0][i]),
                                                     static_cast<float>(b.rows[1][i]), o);
                        EXPECT_TRUE(same_bits(out.data(), wanted.data(), n + 2)) << code;
                    }
}

TEST(RowLoops, SumRowsToTheSameBitsInEveryVersion) {
    check_sums<float>();
    check_sums<std::uint32_t>();
    for (const row_loops *version : versions()) {
        const some_rows<double> some(1027, 5);
        double totals[4];
        version->totals_of_double(some.rows.data(), 1027, totals);
        for (std::size_t r = 0; r < 4; ++r)
            EXPECT_EQ(totals[r], row_total(some.row(r, 1027))) << version->name;
    }
}

TEST(RowLoops, BinRowsToTheSameBitsInEveryVersionAndWriteNothingElse) {
    check_bins<float>();
    check_bins<std::uint32_t>();
}

TEST(RowLoops, CombineEveryPairOfTypesToTheSameBitsInEveryVersion) {
    using u32 = std::uint32_t;
    check_combination<u32, u32>(0);
    check_combination<float, u32>(1);
    check_combination<double, u32>(2);
    check_combination<u32, float>(3);
    check_combination<float, float>(4);
    check_combination<double, float>(5);
    check_combination<u32, double>(6);
    check_combination<float, double>(7);
    check_combination<double, double>(8);
}

} // namespace
