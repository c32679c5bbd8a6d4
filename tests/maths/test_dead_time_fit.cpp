// Dead times come out of points as they went in, with errors that tell how far off they may be.
#include "maths/dead_time_fit.h"

#include <cmath>
#include <gtest/gtest.h>
#include <random>

using namespace kestrel;

namespace {

struct truth {
    double k, a, c, s, b, d;
};

// Points from a thousandth of the highest reference on; with a time, counts instead of what is expected.
std::vector<dead_time_point> points_of(const truth &t, int count, double highest, double time = 0,
                                       unsigned seed = 1) {
    std::mt19937 random(seed);
    const auto counted = [&](double rate) {
        return time > 0 ? static_cast<double>(std::poisson_distribution<long>(rate * time)(random)) / time
                        : rate;
    };
    std::vector<dead_time_point> points;
    for (int i = 0; i < count; ++i) {
        const double reference = highest * std::pow(10.0, 3.0 * i / (count - 1) - 3), x = t.k * reference;
        points.push_back({reference, counted(x * std::exp(-x * (t.a + t.b * x))),
                          counted(t.s * x * std::exp(-2 * x * (t.c + t.d * x)))});
    }
    return points;
}

const truth truths[] = {
    {1e4, 4e-7, 3e-7, 0.6, 0, 0},
    {1e-3, 4e-7, 3e-7, 1.0, 1e-14, 5e-15},
    {1, 2e-6, 1e-7, 0.01, -1e-12, 0},
    {3e5, 1e-7, 2e-7, 0.3, 1e-14, -1e-14},
};

TEST(DeadTimeFit, FindsTheParametersOfPointsWithoutNoise) {
    for (const truth &t : truths) {
        const bool rate_terms = t.b != 0;
        const auto fit = dead_time_fit(points_of(t, 12, 4e-1 / t.a / t.k), rate_terms, 0);
        ASSERT_TRUE(fit);
        EXPECT_NEAR(fit->value[dt_k] / t.k, 1, 1e-8);
        EXPECT_NEAR(fit->value[dt_a] / t.a, 1, 1e-6);
        EXPECT_NEAR(fit->value[dt_c] / t.c, 1, 1e-6);
        EXPECT_NEAR(fit->value[dt_s] / t.s, 1, 1e-8);
        EXPECT_NEAR((fit->value[dt_b] - t.b) / (t.a * t.a), 0, 1e-6);
        EXPECT_NEAR((fit->value[dt_d] - t.d) / (t.a * t.a), 0, 1e-6);
        EXPECT_LT(fit->chi2, 1e-6);
    }
}

TEST(DeadTimeFit, ErrorsAreThoseOfTheScatter) {
    const truth &t = truths[1];
    constexpr int trials = 300;
    double squares[dead_time_parameters] = {}, chi2 = 0;
    for (unsigned seed = 0; seed < trials; ++seed) {
        const auto fit = dead_time_fit(points_of(t, 16, 1e9, 2.0, seed), true, 2.0);
        ASSERT_TRUE(fit);
        const double wanted[] = {t.k, t.a, t.c, t.s, t.b, t.d};
        for (std::size_t i = 0; i < dead_time_parameters; ++i)
            squares[i] += std::pow((fit->value[i] - wanted[i]) / fit->error[i], 2);
        chi2 += fit->chi2;
    }
    for (const double sum : squares) // known to a twelfth
        EXPECT_NEAR(sum / trials, 1, 0.3);
    EXPECT_NEAR(chi2 / trials, 1, 0.06);
}

TEST(DeadTimeFit, RefusesPointsThatFixNothing) {
    const std::vector<dead_time_point> same(8, {1, 1e5, 1e4});
    EXPECT_FALSE(dead_time_fit(same, false, 1));
    EXPECT_FALSE(dead_time_fit({{1, 1e5, 1e4}, {2, 2e5, 2e4}}, false, 1));
    EXPECT_FALSE(dead_time_fit(points_of(truths[0], 3, 100), true, 1));
    // Rates that have nothing to do with the reference do no harm.
    dead_time_fit({{1e-300, 1e300, 1e-300}, {1, 1e-300, 1e300}, {1e300, 1, 1}, {2, 3, 4}, {1e10, 5, 6}}, true,
                  0);
}

} // namespace
