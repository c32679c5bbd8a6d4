// The loops of the fits give the same bits in every version, and what they are to give.
#include "maths/peak_fit/loops.h"
#include "support/processor.h"

#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <minpack.h>
#include <random>
#include <vector>

using namespace kestrel;

extern "C" void qrfac_(int *m, int *n, double *a, int *lda, int *pivot, int *ipvt, int *lipvt, double *rdiag,
                       double *acnorm, double *wa);

namespace {

std::vector<const peak_fit_loops *> versions() {
    std::vector<const peak_fit_loops *> all{&peak_fit_loops_plain};
#ifdef __x86_64__
    if (processor_has_avx2())
        all.push_back(&peak_fit_loops_avx2);
    if (processor_has_avx512())
        all.push_back(&peak_fit_loops_avx512);
#endif
    return all;
}

std::vector<double> noise(std::size_t count, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<double> some(count);
    for (double &value : some)
        value = std::normal_distribution<double>()(random);
    return some;
}

bool same_bits(const std::vector<double> &a, const std::vector<double> &b) {
    return std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0;
}

TEST(FitLoops, GiveTheSameBitsInEveryVersion) {
    for (const std::size_t n : {1UL, 7UL, 8UL, 9UL, 490UL, 491UL}) {
        const std::vector<double> a = noise(n, 1), b = noise(n, 2);
        std::vector<double> gauss(n), lorentz(n), rest = a, part = a;
        peak_fit_loops_plain.gauss(gauss.data(), 100.3, 1e-4, 0, n);
        peak_fit_loops_plain.lorentz(lorentz.data(), 100.3, 0.01, n);
        peak_fit_loops_plain.subtract(rest.data(), b.data(), 1.7, n);
        peak_fit_loops_plain.divide(part.data(), 0.7, n);
        long double exact = 0, weighted = 0, all = 0;
        for (std::size_t i = 0; i < n; ++i) {
            exact += static_cast<long double>(a[i]) * b[i];
            weighted += static_cast<long double>(a[i]) * b[i] * lorentz[i];
            all += std::fabs(static_cast<long double>(a[i]) * b[i]);
        }
        const double dot = peak_fit_loops_plain.dot(a.data(), b.data(), n);
        const double of_three = peak_fit_loops_plain.weighted_dot(a.data(), b.data(), lorentz.data(), n);
        EXPECT_NEAR(dot, static_cast<double>(exact), 1e-15 * static_cast<double>(all));
        EXPECT_NEAR(of_three, static_cast<double>(weighted), 1e-15 * static_cast<double>(all));
        for (const peak_fit_loops *loops : versions()) {
            std::vector<double> g(n), l(n), r = a, p = a, here = a, there = b;
            loops->gauss(g.data(), 100.3, 1e-4, 0, n);
            loops->lorentz(l.data(), 100.3, 0.01, n);
            loops->subtract(r.data(), b.data(), 1.7, n);
            loops->divide(p.data(), 0.7, n);
            loops->exchange(here.data(), there.data(), n);
            EXPECT_TRUE(same_bits(p, part) && same_bits(here, b) && same_bits(there, a)) << n;
            EXPECT_EQ(loops->dot(a.data(), b.data(), n), dot);
            EXPECT_EQ(loops->weighted_dot(a.data(), b.data(), lorentz.data(), n), of_three);
            EXPECT_TRUE(same_bits(g, gauss) && same_bits(l, lorentz) && same_bits(r, rest)) << n;
        }
    }
}

TEST(FitLoops, AGaussianIsExactAsFarAsItReaches) {
    for (const double sigma : {0.3, 0.9, 1.0, 1.1, 5.0, 9.0, 33.0, 1500.0}) {
        const auto reach = static_cast<std::size_t>(9 * sigma);
        const std::size_t first = 300, count = 2 * reach + 1;
        const double centre = static_cast<double>(first + reach) + 0.3;
        std::vector<double> at(first + count + 1);
        peak_fit_loops_plain.gauss(at.data(), centre, 0.5 / (sigma * sigma), first, first + count);
        for (std::size_t i = first; i < first + count; ++i) {
            const double d = (static_cast<double>(i) - centre) / sigma, exact = std::exp(-0.5 * d * d);
            EXPECT_NEAR(at[i], exact, 1e-13 * exact) << sigma << " " << i;
        }
        EXPECT_EQ(at[first - 1], 0.0);
        EXPECT_EQ(at[first + count], 0.0);
    }
}

TEST(FitLoops, ANormNeitherOverflowsNorVanishes) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    for (const double scale : {1.0, 1e200, 1e-200, 0.0, infinity}) {
        double x[] = {3.0 * scale, 4.0 * scale};
        int n = 2;
        if (scale == 0.0 || scale == infinity)
            EXPECT_EQ(enorm_(&n, x), scale);
        else
            EXPECT_DOUBLE_EQ(enorm_(&n, x) / scale, 5.0);
    }
}

// For a matrix A with its columns in the order of the pivots: R'R = A'A, and the diagonal falls.
TEST(FitLoops, AFactorisationHasTheMatrixsOwnProducts) {
    constexpr int m = 40, n = 6;
    const std::vector<double> a = [] {
        std::vector<double> some = noise(m * n, 3);
        for (int i = 0; i < m; ++i)
            some[static_cast<std::size_t>(4 * m + i)] = 2.0 * some[static_cast<std::size_t>(m + i)]; // rank 5
        return some;
    }();
    std::vector<double> qr = a, rdiag(n), lengths(n), work(n);
    std::vector<int> order(n);
    int rows = m, columns = n, pivot = 1;
    qrfac_(&rows, &columns, qr.data(), &rows, &pivot, order.data(), &columns, rdiag.data(), lengths.data(),
           work.data());
    const auto r = [&](int i, int j) {
        return i == j  ? rdiag[static_cast<std::size_t>(i)]
               : i < j ? qr[static_cast<std::size_t>(j * m + i)]
                       : 0.0;
    };
    for (int j = 0; j < n; ++j)
        for (int k = 0; k < n; ++k) {
            const double *of_j = &a[static_cast<std::size_t>((order[static_cast<std::size_t>(j)] - 1) * m)];
            const double *of_k = &a[static_cast<std::size_t>((order[static_cast<std::size_t>(k)] - 1) * m)];
            double product = 0.0, product_of_r = 0.0;
            for (int i = 0; i < m; ++i)
                product += of_j[i] * of_k[i];
            for (int i = 0; i < n; ++i)
                product_of_r += r(i, j) * r(i, k);
            EXPECT_NEAR(product, product_of_r, 1e-12 * m * 4) << j << " " << k;
        }
    for (std::size_t j = 1; j < n; ++j)
        EXPECT_GE(std::fabs(rdiag[j - 1]) + 1e-12, std::fabs(rdiag[j]));
    EXPECT_NEAR(rdiag[n - 1], 0.0, 1e-12);
}

} // namespace
