// bench: one run of MINPACK's lmdif1 a spectrum as anybody would write it, for bench/peak_fit_speed.py to measure
// against. Compiled there with -O3 -march=native and -lminpack; not part of the build.
//   plain_fit FILE    doubles: spectra, channels, then for each spectrum 6 start values and its channels
// Fits two Gaussians to each with tolerance 1e-6; prints the seconds and the sum of each parameter.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <minpack.h>
#include <vector>

static const double *data_of_fit;

static void residuals(int *m, int *, double *p, double *out, int *) {
    for (int i = 0; i < *m; ++i) {
        const double a = i - p[0], b = i - p[3];
        out[i] = data_of_fit[i] - p[1] * std::exp(-a * a / (2 * p[2] * p[2])) -
                 p[4] * std::exp(-b * b / (2 * p[5] * p[5]));
    }
}

int main(int argc, char **argv) {
    std::FILE *file = argc == 2 ? std::fopen(argv[1], "rb") : nullptr;
    double head[2];
    if (!file || std::fread(head, sizeof(double), 2, file) != 2)
        return 1;
    const std::size_t spectra = static_cast<std::size_t>(head[0]),
                      channels = static_cast<std::size_t>(head[1]);
    std::vector<double> rows(spectra * (6 + channels)), out(channels);
    if (std::fread(rows.data(), sizeof(double), rows.size(), file) != rows.size())
        return 1;
    int m = static_cast<int>(channels), n = 6, info = 0, integers[6], lwa = m * n + 5 * n + m;
    std::vector<double> work(static_cast<std::size_t>(lwa));
    double tolerance = 1e-6, sums[6] = {};
    const auto begin = std::chrono::steady_clock::now();
    for (std::size_t s = 0; s < spectra; ++s) {
        double *p = &rows[s * (6 + channels)];
        data_of_fit = p + 6;
        lmdif1_(residuals, &m, &n, p, out.data(), &tolerance, &info, integers, work.data(), &lwa);
        for (int k = 0; k < 6; ++k)
            sums[k] += p[k];
    }
    std::printf("%.9f", std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    for (const double sum : sums)
        std::printf(" %.9g", sum);
    std::printf("\n");
}
