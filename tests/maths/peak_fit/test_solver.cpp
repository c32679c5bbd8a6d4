// Fits of spectra whose truth is known.
#include "maths/peak_fit/job.h"
#include "maths/peak_fit/residuals.h"
#include "maths/peak_fit/solver.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <sys/resource.h>
#include <vector>

using namespace kestrel;

namespace {

std::vector<double> spectrum_of(std::span<const peak_fit_peak_t> peaks, int channels) {
    std::vector<double> spectrum;
    for (int x = 0; x < channels; ++x)
        spectrum.push_back(peak_fit_calc_point(peaks, x));
    return spectrum;
}

std::vector<double> poisson(std::span<const double> mean, std::mt19937 &random) {
    std::vector<double> spectrum;
    for (const double m : mean)
        spectrum.push_back(m > 1e-9 ? std::poisson_distribution<int>(m)(random) : 0);
    return spectrum;
}

class PeakSolver : public testing::Test {
  protected:
    peak_fit_fitted fit(std::span<const double> spectrum, std::string_view element) {
        request_.cn = -1;
        request_.tell = false;
        request_.lines = *peak_fit_find_element(element);
        request_.last = static_cast<int>(spectrum.size()) - 1;
        request_.stopped = [](const void *stop) { return *static_cast<const bool *>(stop); };
        request_.user = &stop_;
        return solver_.peak_fit_run_solver(request_, 0, spectrum);
    }
    peak_fit_request request_;
    bool stop_ = false;
    peak_fit_solver solver_;
};

TEST_F(PeakSolver, FindsTheTruthWithoutNoise) {
    const peak_fit_peak_t gauss[] = {{589.5, 5000, 6.0, 0, 0}, {650.1, 800, 6.4, 0, 0}};
    const peak_fit_peak_t mixed[] = {{589.5, 5000, 6.0, 12, 0.2}, {649.0, 700, 6.0, 12, 0.2}};
    for (const auto &truth : {gauss, mixed}) {
        const peak_fit_fitted f = fit(spectrum_of({truth, 2}, 2048), "fe55");
        ASSERT_EQ(f.status, peak_fit_status::fitted);
        for (std::size_t i = 0; i < 2; ++i) {
            EXPECT_NEAR(f.peak[i].posn, truth[i].posn, 1e-3);
            EXPECT_NEAR(f.peak[i].height, truth[i].height, 1e-3 * truth[i].height);
            EXPECT_NEAR(f.peak[i].sigma, truth[i].sigma, 1e-2);
            EXPECT_NEAR(f.peak[i].lor_frac, truth[i].lor_frac, 2e-3);
        }
    }
}

TEST_F(PeakSolver, TiedHeightsKeepTheirRatio) {
    const double gain = 0.02; // keV a channel
    const peak_fit_lines &mo = *peak_fit_find_element("mo");
    std::vector<peak_fit_peak_t> truth;
    for (std::size_t i = 0; i < 3; ++i)
        truth.push_back({mo.energy[i] / gain, 1e4 * mo.height[i], 5.0, 0, 0});
    const peak_fit_fitted f = fit(spectrum_of(truth, 2048), "mo");
    ASSERT_EQ(f.status, peak_fit_status::fitted);
    EXPECT_NEAR(f.peak[2].height / f.peak[1].height, mo.height[2] / mo.height[1], 1e-12);
    EXPECT_NEAR(f.peak[2].posn, truth[2].posn, 0.05);
}

// Gold's L-beta1 and L-beta2 stand half a FWHM apart: neither exchanged nor mistaken for each other.
TEST_F(PeakSolver, CloseLinesKeepTheirPlaces) {
    const double gain = 0.01181;
    const peak_fit_lines &au = *peak_fit_find_element("au");
    std::vector<peak_fit_peak_t> truth;
    for (std::size_t i = 0; i < 5; ++i)
        truth.push_back({au.energy[i] / gain, 1000 * au.height[i], 8.5, 0, 0});
    const std::vector<double> mean = spectrum_of(truth, 2048);
    std::mt19937 random(3);
    for (int n = 0; n < 40; ++n) {
        const peak_fit_fitted f = fit(poisson(mean, random), "au");
        ASSERT_EQ(f.status, peak_fit_status::fitted);
        for (std::size_t i = 0; i < 5; ++i) {
            EXPECT_NEAR(f.peak[i].posn, truth[i].posn, 5 * f.error[i].posn) << n << " " << i;
            EXPECT_NEAR(peak_fit_area(f.peak[i]), peak_fit_area(truth[i]), 5 * f.error[i].area)
                << n << " " << i;
        }
    }
}

TEST_F(PeakSolver, AnAbsentLineDoesNotSpoilTheCalibration) {
    const peak_fit_peak_t alpha{589.5, 600, 6.0, 0, 0};
    const std::vector<double> mean = spectrum_of({&alpha, 1}, 1024);
    std::mt19937 random(5);
    for (int n = 0; n < 100; ++n) {
        const peak_fit_fitted f = fit(poisson(mean, random), "fe55");
        ASSERT_EQ(f.status, peak_fit_status::fitted);
        EXPECT_EQ(f.error[1].posn, 0.0);
        EXPECT_NEAR(peak_fit_calibration(f, request_.lines), 0.01, 1e-5);
    }
}

// Work and memory grow with the channels, not with their square.
TEST_F(PeakSolver, WidePeaksInLargeSpectra) {
    const peak_fit_peak_t wide{15000, 500, 1500, 0, 0};
    const std::vector<double> spectrum = spectrum_of({&wide, 1}, 32768);
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    const peak_fit_fitted f = fit(spectrum, "mg");
    getrusage(RUSAGE_SELF, &after);
    EXPECT_NEAR(f.peak[0].posn, 15000, 0.01);
    EXPECT_GT(f.x2 - f.x1, 20000);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 500 * 1024); // KiB; the square would be some GiB
}

TEST_F(PeakSolver, SpectraThatCannotBeFitted) {
    EXPECT_EQ(fit(std::vector<double>(1024, 0.0), "fe55").status, peak_fit_status::insufficient);
    std::vector<double> one(1024, 0.0);
    one[500] = 10; // counts of a peak, but too few
    EXPECT_EQ(fit(one, "fe55").status, peak_fit_status::insufficient);
    EXPECT_NE(fit(std::vector<double>(4, 1e6), "mo").status, peak_fit_status::fitted); // 4 channels, 3 peaks
    stop_ = true;
    const peak_fit_peak_t peak{500, 1000, 8, 0, 0};
    EXPECT_EQ(fit(spectrum_of({&peak, 1}, 1024), "fe55").status, peak_fit_status::stopped);
}

peak_vector one_peak(bool lorentzian) {
    peak_vector vector;
    vector.num_peaks = 1;
    vector.lorentzian = lorentzian;
    vector.set_ranges(std::vector<peak_fit_peak_t>{{200.0, 1000.0, 5.0, 0.0, 0.0}}, 12.0, 500);
    return vector;
}

TEST(PeakRivals, LetARunGoOnThatMayWin) {
    const peak_vector plain = one_peak(false), tails = one_peak(true);
    const std::vector<double> near{200.01, 1001.0, 5.01}, far{203.0, 1000.0, 5.0},
        with_tails{200.0, 1000.0, 5.0, 0.1, 1.5};
    peak_rivals rivals;
    EXPECT_FALSE(rivals.cannot_be_beaten(plain, near.data(), 10.0, 100)) << "nobody to beat";
    rivals.add(0, {200.0, 1000.0, 5.0}, 10.0, false);
    rivals.begin();
    EXPECT_FALSE(rivals.cannot_be_beaten(plain, far.data(), 10.0001, 100)) << "another valley";
    EXPECT_FALSE(rivals.cannot_be_beaten(plain, near.data(), 9.9, 100)) << "better already";
    EXPECT_FALSE(rivals.cannot_be_beaten(tails, with_tails.data(), 10.0001, 100)) << "other parameters";
    rivals.add(0, with_tails, 12.0, true);
    EXPECT_FALSE(rivals.cannot_be_beaten(tails, with_tails.data(), 14.0, 100))
        << "fewer parameters came further";
    rivals.begin();
    for (double residual = 40.0; residual > 12.0; residual -= 4.0)
        EXPECT_FALSE(rivals.cannot_be_beaten(plain, far.data(), residual, 100))
            << "gets nearer: " << residual;
}

TEST(PeakRivals, EndARunThatCannotWin) {
    const peak_vector plain = one_peak(false);
    const std::vector<double> near{200.01, 1001.0, 5.01}, far{203.0, 1000.0, 5.0};
    peak_rivals rivals;
    rivals.add(0, {200.0, 1000.0, 5.0}, 10.0, false);
    rivals.begin();
    EXPECT_TRUE(rivals.cannot_be_beaten(plain, near.data(), 10.0001, 100)) << "comes to the same end";
    rivals.begin();
    for (int step = 0; step < 4; ++step)
        EXPECT_FALSE(rivals.cannot_be_beaten(plain, far.data(), 20.0 - 0.1 * step, 100)) << step;
    EXPECT_TRUE(rivals.cannot_be_beaten(plain, far.data(), 19.6, 100))
        << "four steps, a twentieth of the way";
    rivals.add(0, {200.0, 1000.0, 5.0}, 10.0, true);
    rivals.begin();
    EXPECT_TRUE(rivals.cannot_be_beaten(plain, far.data(), 50.0, 100)) << "nothing but noise is left";
    rivals.forget();
    EXPECT_FALSE(rivals.cannot_be_beaten(plain, far.data(), 50.0, 100)) << "another spectrum";
}

TEST(PeakBlocks, CoverEveryPointOnce) {
    EXPECT_EQ(peak_fit_blocks(0, 64, 8).size(), 8u);
    EXPECT_EQ(peak_fit_blocks(0, 64, 8)[0].last, 8); // nine points each, but the last
    EXPECT_EQ(peak_fit_blocks(0, 64, 8)[7].first, 63);
    EXPECT_EQ(peak_fit_blocks(0, 64, 64).size(), 33u); // two each
    for (int threads = 1; threads <= 64; ++threads) {
        int next = 16;
        for (const peak_fit_block &block : peak_fit_blocks(16, 116, threads)) {
            EXPECT_EQ(block.first, next);
            EXPECT_LE(block.first, block.last);
            next = block.last + 1;
        }
        EXPECT_EQ(next, 117);
    }
}

// Whatever comes: an end, and numbers.
TEST_F(PeakSolver, OddSpectraGiveNumbers) {
    std::mt19937 random(7);
    std::vector<std::vector<double>> spectra = {std::vector<double>(300, 1.0), std::vector<double>(300, -5.0),
                                                std::vector<double>(300, 1e30), std::vector<double>(1, 1e6)};
    spectra.emplace_back(300, 0.0).front() = 1e7; // all counts in the first channel
    spectra.emplace_back(300, 0.0).back() = 1e7;
    spectra.emplace_back();
    for (int i = 0; i < 300; ++i)
        spectra.back().push_back(1e5 * (i % 2));
    for (int i = 0; i < 20; ++i) {
        spectra.emplace_back();
        for (int x = 0; x < 200; ++x)
            spectra.back().push_back(std::uniform_int_distribution<int>(0, 1 << (i % 20))(random));
    }
    for (std::size_t i = 0; i < spectra.size(); ++i) {
        for (const char *element : {"fe55", "pt", "mg"}) {
            const peak_fit_fitted f = fit(spectra[i], element);
            if (f.status != peak_fit_status::fitted)
                continue;
            for (const peak_fit_peak_t &p : f.peaks())
                EXPECT_TRUE(std::isfinite(p.posn) && p.height >= 0 && p.sigma > 0 && p.lor_frac >= 0 &&
                            p.lor_frac <= 1 && std::isfinite(peak_fit_area(p)))
                    << i << " " << element;
            for (const double value : peak_fit_values(f, request_.lines, spectra[i]))
                EXPECT_TRUE(std::isfinite(value)) << i << " " << element;
        }
    }
}

} // namespace
