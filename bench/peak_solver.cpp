// Solver runs on two-peak spectra, timed: peak_solver COUNT FILE
// Writes the spectra and where each fit begins to FILE (doubles: first channel, channels, then for each
// spectrum 6 start values and the region), fits each by one solver call with tolerance 1e-6 on this thread,
// and prints seconds, and the sums of the fitted parameters.
#include "maths/peak_fit/residuals.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>

using namespace kestrel;

namespace {

constexpr int channels = 4096;
constexpr peak_fit_peak_t truth[] = {{1179.0, 2000.0, 13.0, 0, 0}, {1298.08, 268.0, 13.5, 0, 0}};
constexpr double margin = 3.0 * 2.3548 * 13.0;

std::vector<double> noisy(std::mt19937 &random) {
    std::vector<double> spectrum(channels);
    for (int x = 0; x < channels; ++x) {
        const double mean = peak_fit_calc_point(truth, x);
        spectrum[static_cast<std::size_t>(x)] =
            mean > 1e-12 ? std::poisson_distribution<int>(mean)(random) : 0;
    }
    return spectrum;
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3)
        return 2;
    const int count = std::atoi(argv[1]);
    const int x1 = static_cast<int>(truth[0].posn - margin), x2 = static_cast<int>(truth[1].posn + margin);
    std::mt19937 random(1);
    std::vector<std::vector<double>> spectra;
    std::vector<std::vector<double>> starts;
    std::uniform_real_distribution<double> off(-1.0, 1.0);
    for (int i = 0; i < count; ++i) {
        spectra.push_back(noisy(random));
        std::vector<double> x;
        for (const peak_fit_peak_t &p : truth)
            for (const double value : {p.posn + 3.0 * off(random), p.height * (1.0 + 0.1 * off(random)),
                                       p.sigma * (1.0 + 0.2 * off(random))})
                x.push_back(value);
        starts.push_back(x);
    }
    std::FILE *file = std::fopen(argv[2], "wb");
    if (!file)
        return 1;
    const double head[] = {static_cast<double>(x1), static_cast<double>(x2 - x1 + 1)};
    std::fwrite(head, sizeof head, 1, file);
    for (int i = 0; i < count; ++i) {
        const auto n = static_cast<std::size_t>(i);
        std::fwrite(starts[n].data(), sizeof(double), 6, file);
        std::fwrite(spectra[n].data() + x1, sizeof(double), static_cast<std::size_t>(x2 - x1 + 1), file);
    }
    std::fclose(file);

    peak_vector vector;
    vector.num_peaks = 2;
    vector.set_ranges(truth, 30.6, channels);
    peak_residuals residuals;
    residuals.vector = &vector;
    std::vector<double> residual, sums(6, 0.0);
    long calls = 0;
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < count; ++i) {
        const auto n = static_cast<std::size_t>(i);
        residuals.set_region(spectra[n], x1, x2);
        std::vector<double> x = starts[n];
        residuals.minimise(x, 1e-6, residual);
        calls += residuals.calls;
        for (std::size_t k = 0; k < 6; ++k)
            sums[k] += x[k];
    }
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    std::printf("%.9f %ld", seconds.count(), calls);
    for (const double sum : sums)
        std::printf(" %.9g", sum);
    std::printf("\n");
}
