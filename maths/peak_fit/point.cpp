#include "maths/peak_fit/point.h"

#include "server/output.h"

#include <algorithm>
#include <cmath>

namespace kestrel {

namespace {

bool all_finite(const std::vector<double> &spectrum) {
    return std::all_of(spectrum.begin(), spectrum.end(), [](double value) { return std::isfinite(value); });
}

// The spectrum with `neighbours` more on each side, as far as there are any. How many were added.
int sum_neighbours(const peak_spectra &spectra, int q, int s, int neighbours, std::vector<double> &sum) {
    const int from = std::max(0, q - neighbours), to = std::min(spectra.nq - 1, q + neighbours);
    spectra.get(q, s, sum);
    for (int other = from; other <= to; ++other)
        if (other != q)
            spectra.add(other, s, sum);
    return to - from;
}

} // namespace

peak_fit_counts &peak_fit_counts::operator+=(const peak_fit_counts &other) {
    errors += other.errors;
    insufficient += other.insufficient;
    near_ends += other.near_ends;
    high_at_ends += other.high_at_ends;
    stopped |= other.stopped;
    abandoned |= other.abandoned;
    return *this;
}

void peak_fit_count(peak_fit_counts &counts, peak_fit_status status, bool near_ends, bool high_at_ends) {
    counts.errors += status == peak_fit_status::failed;
    counts.insufficient += status == peak_fit_status::insufficient;
    counts.near_ends += near_ends;
    counts.high_at_ends += high_at_ends;
}

peak_fit_fitted peak_fit_point::fit(const peak_fit_request &request, const peak_spectra &spectra, int q,
                                    int s, int number) {
    spectra.get(q, s, spectrum);
    if (!all_finite(spectrum)) {
        peak_fit_fitted failed;
        failed.num_peaks = request.lines.num_peaks;
        return failed;
    }
    peak_fit_fitted fitted = solver.peak_fit_run_solver(request, number, spectrum);
    if (!(request.constraints & peak_fit_by_top_sum))
        return fitted;
    for (int n = 1, added = 0;
         fitted.status == peak_fit_status::insufficient && n <= peak_fit_most_neighbours; n *= 2) {
        const int more = sum_neighbours(spectra, q, s, n, spectrum);
        if (more == added || !all_finite(spectrum))
            break;
        added = more;
        if (request.tell)
            sv_printf(request.cn, "# Retrying with num_neb=%d\n", n);
        fitted = solver.peak_fit_run_solver(request, number, spectrum);
    }
    return fitted;
}

} // namespace kestrel
