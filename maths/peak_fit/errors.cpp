#include "maths/peak_fit/errors.h"

#include "maths/peak_fit/loops.h"
#include "maths/peak_fit/residuals.h"

#include <Eigen/Dense>

#include <algorithm>
#include <cmath>

namespace kestrel {

namespace {

constexpr double step = 1e-6; // of a parameter, for a derivative

double step_of(double value) {
    return step * std::max(std::fabs(value), 1e-3);
}

double dot(std::span<const double> a, const double *b) {
    return peak_fit_best_loops().dot(a.data(), b, a.size());
}

// A solution with what is left of the data there, and d model / d parameter by channel, a column a parameter, each
// of length 1; the lengths are kept beside them.
struct solution {
    solution(peak_residuals &residuals, const std::vector<double> &x);

    std::span<const double> column(std::size_t c) const { return {&columns[c * stride], channels}; }
    std::vector<double> variances(std::span<const double> data) const;
    // Columns' products with each other, or with those of another matrix of the same shape.
    Eigen::MatrixXd products(const std::vector<double> &others) const;

    std::size_t channels, stride;
    std::vector<double> left, columns, lengths;
};

solution::solution(peak_residuals &residuals, const std::vector<double> &x)
    : channels(residuals.data.size()), stride(residuals.count()), left(stride), columns(stride * x.size()),
      lengths(x.size()) {
    residuals.prepare();
    residuals.evaluate(x.data(), left.data());
    std::vector<double> beside = x;
    for (std::size_t c = 0; c < x.size(); ++c) {
        double *const at = &columns[c * stride];
        const double h = step_of(x[c]);
        beside[c] = x[c] + h;
        residuals.evaluate(beside.data(), at);
        beside[c] = x[c];
        peak_fit_best_loops().difference(at, left.data(), -1.0 / h, channels);
        lengths[c] = std::sqrt(dot(column(c), at));
        if (lengths[c] > 0.0)
            peak_fit_best_loops().divide(at, lengths[c], channels);
    }
}

Eigen::MatrixXd solution::products(const std::vector<double> &others) const {
    const auto count = static_cast<Eigen::Index>(lengths.size());
    Eigen::MatrixXd result(count, count);
    for (Eigen::Index i = 0; i < count; ++i)
        for (Eigen::Index j = 0; j <= i; ++j)
            result(i, j) = result(j, i) =
                dot(column(static_cast<std::size_t>(i)), &others[static_cast<std::size_t>(j) * stride]);
    return result;
}

// A channel's variance is its expected count, taken as the mean of data and model: data alone would give an
// empty channel no variance.
std::vector<double> solution::variances(std::span<const double> data) const {
    std::vector<double> result(channels);
    for (std::size_t i = 0; i < channels; ++i)
        result[i] = std::max(data[i] - 0.5 * left[i], 0.0);
    return result;
}

// Inverse of a symmetric matrix of unit diagonal; directions that it does not determine are left out.
Eigen::MatrixXd inverse(const Eigen::MatrixXd &matrix) {
    constexpr double undetermined = 1e-12;
    const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(matrix);
    Eigen::VectorXd values = solver.eigenvalues();
    for (double &value : values)
        value = value > undetermined ? 1.0 / value : 0.0;
    return solver.eigenvectors() * values.asDiagonal() * solver.eigenvectors().transpose();
}

Eigen::MatrixXd covariance(peak_residuals &residuals, const std::vector<double> &x) {
    const solution s(residuals, x);
    const std::vector<double> variances = s.variances(residuals.data);
    std::vector<double> weighted = s.columns;
    for (std::size_t c = 0; c < x.size(); ++c)
        for (std::size_t i = 0; i < s.channels; ++i)
            weighted[c * s.stride + i] *= variances[i];
    const Eigen::MatrixXd normal = inverse(s.products(s.columns));
    Eigen::MatrixXd result = normal * s.products(weighted) * normal;
    for (Eigen::Index c = 0; c < result.rows(); ++c) {
        const double length = s.lengths[static_cast<std::size_t>(c)], by = length > 0.0 ? 1.0 / length : 0.0;
        result.row(c) *= by;
        result.col(c) *= by;
    }
    return result;
}

using quantity = double (*)(const peak_fit_peak_t &);

// Standard deviation of something that the parameters give.
double deviation(const peak_vector &vector, std::vector<double> x, const Eigen::MatrixXd &c, std::size_t peak,
                 quantity of) {
    Eigen::VectorXd gradient(c.rows());
    std::array<peak_fit_peak_t, peak_fit_max_peaks> peaks{};
    for (std::size_t i = 0; i < x.size(); ++i) {
        const double old = x[i], h = step_of(old);
        x[i] = old + h;
        vector.unpack(x.data(), peaks);
        const double above = of(peaks[peak]);
        x[i] = old - h;
        vector.unpack(x.data(), peaks);
        gradient(static_cast<Eigen::Index>(i)) = (above - of(peaks[peak])) / (2.0 * h);
        x[i] = old;
    }
    const double square = gradient.dot(c * gradient);
    return square > 0.0 && std::isfinite(square) ? std::sqrt(square) : 0.0;
}

// How the model changes when a small part of every Gaussian's height goes into a Lorentzian of the half width sigma
// times `ratio`, as far as no change of the parameters does the same.
std::vector<double> tail_direction(const peak_residuals &residuals, std::span<const peak_fit_peak_t> peaks,
                                   const solution &s, const Eigen::MatrixXd &normal, double ratio) {
    const peak_fit_loops &loops = peak_fit_best_loops();
    std::vector<double> shape(s.channels), direction(s.channels);
    for (std::size_t i = 0; i < s.channels; ++i)
        direction[i] = s.left[i] - residuals.data[i];
    for (const peak_fit_peak_t &p : peaks) {
        const double width = ratio * p.sigma;
        loops.lorentz(shape.data(), p.posn - residuals.x1, 1.0 / (width * width), s.channels);
        loops.subtract(direction.data(), shape.data(), -p.height, s.channels);
    }
    Eigen::VectorXd parts(normal.rows());
    for (Eigen::Index c = 0; c < parts.size(); ++c)
        parts(c) = dot(s.column(static_cast<std::size_t>(c)), direction.data());
    parts = (normal * parts).eval();
    for (Eigen::Index c = 0; c < parts.size(); ++c)
        loops.subtract(direction.data(), s.column(static_cast<std::size_t>(c)).data(), parts(c), s.channels);
    return direction;
}

} // namespace

peak_fit_tails peak_fit_find_tails(peak_residuals &residuals, const std::vector<double> &x) {
    std::array<peak_fit_peak_t, peak_fit_max_peaks> peaks{};
    residuals.vector->unpack(x.data(), peaks);
    const auto used = std::span<const peak_fit_peak_t>(peaks).first(residuals.vector->num_peaks);
    const solution s(residuals, x);
    const std::vector<double> variances = s.variances(residuals.data);
    const Eigen::MatrixXd normal = inverse(s.products(s.columns));
    peak_fit_tails found;
    for (const double ratio : {peak_fit_usual_tail, 3.0, 8.0, 20.0}) {
        const std::vector<double> d = tail_direction(residuals, used, s, normal, ratio);
        const double shown = dot(d, s.left.data());
        double square = 0.0;
        for (std::size_t i = 0; i < s.channels; ++i)
            square += d[i] * d[i] * variances[i];
        if (!(square > 0.0 && shown > 0.0))
            continue;
        found.score = std::max(found.score, shown / std::sqrt(square));
        if (ratio == peak_fit_usual_tail)
            found.part = shown / dot(d, d.data());
    }
    return found;
}

void peak_fit_error_bars(peak_residuals &residuals, const std::vector<double> &x,
                         std::span<peak_fit_sigmas> errors) {
    const peak_vector &vector = *residuals.vector;
    const Eigen::MatrixXd c = covariance(residuals, x);
    for (std::size_t i = 0; i < vector.num_peaks; ++i) {
        const auto of = [&](quantity q) { return deviation(vector, x, c, i, q); };
        errors[i] = {of([](const peak_fit_peak_t &p) { return p.posn; }),
                     of([](const peak_fit_peak_t &p) { return p.height; }),
                     of([](const peak_fit_peak_t &p) { return p.sigma; }),
                     of([](const peak_fit_peak_t &p) { return peak_fit_area(p); })};
    }
}

} // namespace kestrel
