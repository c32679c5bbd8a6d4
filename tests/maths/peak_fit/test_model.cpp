// The line shape and the figures of merit, with numbers worked by hand.
#include "maths/peak_fit/model.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

using namespace kestrel;

namespace {

// Area under a profile by the midpoint rule.
double integral(const peak_fit_peak_t &peak, double reach) {
    const double step = 0.01;
    double sum = 0.0;
    for (double x = peak.posn - reach + step / 2; x < peak.posn + reach; x += step)
        sum += peak_fit_calc_point({&peak, 1}, x) * step;
    return sum;
}

TEST(PeakModel, ProfileAtChosenPoints) {
    const peak_fit_peak_t gauss{10, 100, 2, 0, 0};
    EXPECT_DOUBLE_EQ(peak_fit_calc_point({&gauss, 1}, 10), 100);
    EXPECT_NEAR(peak_fit_calc_point({&gauss, 1}, 12), 60.653065971263342, 1e-12); // exp(-1/2)
    const peak_fit_peak_t lorentz{10, 100, 2, 3, 1};
    EXPECT_DOUBLE_EQ(peak_fit_calc_point({&lorentz, 1}, 13), 50);
    const peak_fit_peak_t both[] = {{10, 100, 2, 3, 0.25}, {13, 40, 1, 0, 0}};
    EXPECT_NEAR(peak_fit_calc_point(both, 13), 75 * std::exp(-9.0 / 8) + 12.5 + 40, 1e-12);
}

TEST(PeakModel, AreaAndWidth) {
    const peak_fit_peak_t gauss{0, 50, 4, 0, 0}, mixed{0, 50, 4, 9, 0.3}, narrow{0, 50, 4, 2.5, 0.6};
    EXPECT_NEAR(peak_fit_area(gauss), integral(gauss, 60), 1e-6);
    EXPECT_NEAR(peak_fit_area(mixed) - integral(mixed, 2000), 0.3 * 50 * 9 * 2 * 9 / 2000, 1e-3); // the rest
    EXPECT_NEAR(peak_fit_fwhm(gauss), 4 * 2.3548200450309493, 1e-12);
    for (const peak_fit_peak_t &p : {mixed, narrow})
        EXPECT_NEAR(peak_fit_calc_point({&p, 1}, peak_fit_fwhm(p) / 2), 25, 1e-9);
    EXPECT_NEAR(peak_fit_fwhm({0, 1, 4, 9, 1}), 18, 1e-12);
}

TEST(PeakModel, TailByTotalCutsAfterEveryChannel) {
    // p0 20, p1 24: from channel 17, the tail to 19, the total to 27.
    std::vector<double> spectrum(40, 1.75);
    EXPECT_DOUBLE_EQ(peak_fit_tail_total(spectrum, 20, 24), 3.0 / 11);
    spectrum.assign(40, 2.0);
    EXPECT_DOUBLE_EQ(peak_fit_tail_total(spectrum, 20, 24), 6.0 / 22);
    for (const auto &[p0, p1] : {std::pair{-0.1, 24.0}, {40.0, 24.0}, {20.0, -1.0}, {20.0, 40.0}})
        EXPECT_EQ(peak_fit_tail_total(spectrum, p0, p1), -1.0);
    EXPECT_EQ(peak_fit_tail_total(spectrum, std::nan(""), 24), -1.0);
    EXPECT_EQ(peak_fit_tail_total(std::vector<double>(40, 0.0), 20, 24), -1.0);
}

TEST(PeakModel, Totals) {
    std::vector<double> spectrum(201, 1.5);
    EXPECT_EQ(peak_fit_mca_total(spectrum), 301.5);
    EXPECT_EQ(peak_fit_most_total(spectrum), 1.5);
    EXPECT_EQ(peak_fit_most_total({spectrum.data(), 200}), 0.0);
    EXPECT_EQ(peak_fit_peaks_total(spectrum, 20, 24), 11 * 1.5);   // 17..27
    EXPECT_EQ(peak_fit_peaks_total(spectrum, 200, 300), 31 * 1.5); // 170..200
    EXPECT_EQ(peak_fit_peaks_total(spectrum, -50, 2), 3 * 1.5);    // 0..2
    EXPECT_EQ(peak_fit_peaks_total(spectrum, 1e300, 1e300), 0.0);  // far outside
    EXPECT_EQ(peak_fit_peaks_total(spectrum, 100, 20), 0.0);       // empty
}

TEST(PeakModel, ValleyByPeak) {
    std::vector<double> spectrum(30, 9.0);
    spectrum[14] = 3.0;
    EXPECT_DOUBLE_EQ(peak_fit_valley_peak(spectrum, 10, 20, 70), 0.1);
    EXPECT_DOUBLE_EQ(peak_fit_valley_peak(spectrum, 20, 10, 70), 0.1);
    EXPECT_EQ(peak_fit_valley_peak(spectrum, 10, 10, 70), -1.0);
    EXPECT_EQ(peak_fit_valley_peak(spectrum, 10, 20, 0), -1.0);
}

} // namespace
