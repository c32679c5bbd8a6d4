// `maths measure-mask`: integral non-linearity from the image of a mask with evenly spaced holes or slits.
#include "maths/reader.h"
#include "parser/qualifiers.h"
#include "parser/tree.h"
#include "server/output.h"
#include "support/element.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace kestrel {

namespace {

constexpr pt_format mask_format("%d x y = %d");

// The image's sums over the other axes.
template <class T> bool project(int cn, UMaths &r, bool along_x, std::vector<double> &profile) {
    for (int plane = 0; plane < r.dt; ++plane)
        for (int row = 0; row < r.dy; ++row) {
            const std::span<const T> line = umaths_row<T>(cn, row, plane, r);
            if (line.empty())
                return false;
            for (std::size_t i = 0; i < line.size(); ++i)
                profile[along_x ? i : static_cast<std::size_t>(row)] += static_cast<double>(line[i]);
        }
    return true;
}

// Where the profile crosses the level between the points before and at `i`, in pixels from the image's edge.
double crossing(std::span<const double> profile, std::size_t i, double level) {
    const double before = profile[i - 1], at = profile[i];
    return static_cast<double>(i) - 0.5 + (level - before) / (at - before);
}

// Centres of the bright spots: the middle of the two places where the profile crosses half of its height.
// What does not reach three quarters of it on the way is noise; what the image cuts off is left out.
std::vector<double> find_spots(std::span<const double> profile) {
    const auto [least, most] = std::minmax_element(profile.begin(), profile.end());
    const double half = *least + (*most - *least) * 0.5, bright = *least + (*most - *least) * 0.75;
    std::vector<double> centres;
    double rise = 0.0;
    bool risen = false, seen_bright = false;
    for (std::size_t i = 1; i < profile.size(); ++i) {
        if (profile[i - 1] < half && profile[i] >= half) {
            rise = crossing(profile, i, half);
            risen = true;
            seen_bright = false;
        }
        seen_bright = seen_bright || profile[i] >= bright;
        if (profile[i - 1] >= half && profile[i] < half) {
            if (risen && seen_bright)
                centres.push_back((rise + crossing(profile, i, half)) * 0.5);
            risen = false;
        }
    }
    return centres;
}

// The straight line of least squares through centre against number, written about the middle of both.
struct spot_line {
    double pitch = 0.0;
    double first = 0.0; // where it has spot 0
};

spot_line fit_line(std::span<const double> centres) {
    const double n = static_cast<double>(centres.size()), middle = (n - 1.0) / 2.0;
    double mean = 0.0, sxy = 0.0, sxx = 0.0;
    for (const double centre : centres)
        mean += centre / n;
    for (std::size_t i = 0; i < centres.size(); ++i) {
        const double x = static_cast<double>(i) - middle;
        sxy += x * (centres[i] - mean);
        sxx += x * x;
    }
    return {sxy / sxx, mean - sxy / sxx * middle};
}

void report(int cn, std::span<const double> centres) {
    const spot_line line = fit_line(centres);
    double squares = 0.0, largest = 0.0;
    std::size_t worst = 0;
    for (std::size_t i = 0; i < centres.size(); ++i) {
        const double residual = centres[i] - (line.first + line.pitch * static_cast<double>(i));
        sv_printf(cn, "# Spot %zu at %g, residual %g\n", i, centres[i], residual);
        squares += residual * residual;
        if (std::fabs(residual) > std::fabs(largest)) {
            largest = residual;
            worst = i;
        }
    }
    sv_printf(cn, "# Pitch        = %g\n", line.pitch);
    sv_printf(cn, "# First spot   = %g\n", line.first);
    sv_printf(cn, "# RMS residual = %g\n", std::sqrt(squares / static_cast<double>(centres.size())));
    sv_printf(cn, "# Max residual = %g at spot %zu\n", largest, worst);
}

int umaths_measure_mask(int quals, int cn, int handle) {
    const pt_qualifiers<mask_format> q(quals);
    const bool along_x = q.given("x");
    if (along_x == q.given("y")) {
        sv_printf(cn, "! Must specify exactly one of X, Y\n");
        return -1;
    }
    UMaths r;
    if (umaths_start(cn, umaths_whole(handle), handle, r, 0) != 0)
        return -1;
    std::vector<double> profile(static_cast<std::size_t>(along_x ? r.dx : r.dy));
    const bool read = r.utype == el_long    ? project<std::uint32_t>(cn, r, along_x, profile)
                      : r.utype == el_float ? project<float>(cn, r, along_x, profile)
                                            : project<double>(cn, r, along_x, profile);
    if (!read)
        return umaths_read_error(cn, r);
    if (!std::all_of(profile.begin(), profile.end(), [](double sum) { return std::isfinite(sum); })) {
        sv_printf(cn, "! The image holds values that are not numbers\n");
        return -1;
    }
    const std::vector<double> centres = find_spots(profile);
    if (centres.size() < 3) {
        sv_printf(cn, "! A straight line needs at least 3 spots, found %zu\n", centres.size());
        return -1;
    }
    report(cn, centres);
    return static_cast<int>(centres.size());
}

} // namespace

extern constinit const PARSE_TREE row_maths_measure_mask = pt_command<umaths_measure_mask>(
    "measure-mask", mask_format, "Measure integral non-linearity from mask image",
    "Unified handle/Along X axis/Along Y axis");

} // namespace kestrel
