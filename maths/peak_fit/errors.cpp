#include "maths/peak_fit/errors.h"

#include "maths/peak_fit/loops.h"
#include "maths/peak_fit/residuals.h"

#include <Eigen/Dense>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>

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
    // Columns' products with each other; each channel counts with its weight.
    Eigen::MatrixXd products() const;
    Eigen::MatrixXd products(std::span<const double> weights) const;

    std::size_t channels, stride;
    std::unique_ptr<double[]> left, columns;
    std::vector<double> lengths;

  private:
    template <class F> Eigen::MatrixXd symmetric(F element) const;
};

solution::solution(peak_residuals &residuals, const std::vector<double> &x)
    : channels(residuals.data.size()), stride(residuals.count()),
      left(std::make_unique_for_overwrite<double[]>(stride)),
      columns(std::make_unique_for_overwrite<double[]>(stride * x.size())), lengths(x.size()) {
    residuals.prepare();
    residuals.evaluate(x.data(), left.get());
    std::vector<double> beside = x;
    for (std::size_t c = 0; c < x.size(); ++c) {
        double *const at = &columns[c * stride];
        const double h = step_of(x[c]);
        beside[c] = x[c] + h;
        residuals.evaluate(beside.data(), at);
        beside[c] = x[c];
        peak_fit_best_loops().difference(at, left.get(), -1.0 / h, channels);
        lengths[c] = std::sqrt(dot(column(c), at));
        if (lengths[c] > 0.0)
            peak_fit_best_loops().divide(at, lengths[c], channels);
    }
}

template <class F> Eigen::MatrixXd solution::symmetric(F element) const {
    const auto count = static_cast<Eigen::Index>(lengths.size());
    Eigen::MatrixXd result(count, count);
    for (Eigen::Index i = 0; i < count; ++i)
        for (Eigen::Index j = 0; j <= i; ++j)
            result(i, j) = result(j, i) =
                element(column(static_cast<std::size_t>(i)), column(static_cast<std::size_t>(j)));
    return result;
}

Eigen::MatrixXd solution::products() const {
    return symmetric([](auto a, auto b) { return dot(a, b.data()); });
}

Eigen::MatrixXd solution::products(std::span<const double> weights) const {
    return symmetric([weights](auto a, auto b) {
        return peak_fit_best_loops().weighted_dot(a.data(), b.data(), weights.data(), a.size());
    });
}

// A channel's variance is its expected count, taken as the mean of data and model: data alone would give an
// empty channel no variance.
std::vector<double> solution::variances(std::span<const double> data) const {
    std::vector<double> result(channels);
    for (std::size_t i = 0; i < channels; ++i)
        result[i] = std::max(data[i] - 0.5 * left[i], 0.0);
    return result;
}

// Inverse of a symmetric matrix of unit diagonal; directions that it does not determine are left out. There are none
// where its determinant, which is no larger than e times its smallest eigenvalue, says so.
Eigen::MatrixXd inverse(const Eigen::MatrixXd &matrix) {
    constexpr double undetermined = 1e-12;
    const Eigen::LLT<Eigen::MatrixXd> factors(matrix);
    if (factors.info() == Eigen::Success) {
        const double root = factors.matrixLLT().diagonal().prod();
        if (root * root > 100 * undetermined)
            return factors.solve(Eigen::MatrixXd::Identity(matrix.rows(), matrix.cols()));
    }
    const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(matrix);
    Eigen::VectorXd values = solver.eigenvalues();
    for (double &value : values)
        value = value > undetermined ? 1.0 / value : 0.0;
    return solver.eigenvectors() * values.asDiagonal() * solver.eigenvectors().transpose();
}

Eigen::MatrixXd covariance(peak_residuals &residuals, const std::vector<double> &x) {
    const solution s(residuals, x);
    const std::vector<double> variances = s.variances(residuals.data);
    const Eigen::MatrixXd normal = inverse(s.products());
    Eigen::MatrixXd result = normal * s.products(variances) * normal;
    for (Eigen::Index c = 0; c < result.rows(); ++c) {
        const double length = s.lengths[static_cast<std::size_t>(c)], by = length > 0.0 ? 1.0 / length : 0.0;
        result.row(c) *= by;
        result.col(c) *= by;
    }
    return result;
}

// What errors are given of, a peak.
constexpr std::size_t quantities = 4;
using peak_quantities = std::array<double, quantities>;

peak_quantities quantities_of(const peak_fit_peak_t &p) {
    return {p.posn, p.height, p.sigma, peak_fit_area(p)};
}

// Their derivatives by the parameters, a column each, peak after peak.
Eigen::MatrixXd gradients(const peak_vector &vector, std::vector<double> x) {
    Eigen::MatrixXd result(x.size(), quantities * vector.num_peaks);
    std::array<peak_fit_peak_t, peak_fit_max_peaks> above{}, below{};
    for (std::size_t i = 0; i < x.size(); ++i) {
        const double old = x[i], h = step_of(old);
        x[i] = old + h;
        vector.unpack(x.data(), above);
        x[i] = old - h;
        vector.unpack(x.data(), below);
        x[i] = old;
        for (std::size_t peak = 0; peak < vector.num_peaks; ++peak) {
            const peak_quantities up = quantities_of(above[peak]), down = quantities_of(below[peak]);
            for (std::size_t q = 0; q < quantities; ++q)
                result(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(quantities * peak + q)) =
                    (up[q] - down[q]) / (2.0 * h);
        }
    }
    return result;
}

double deviation(const Eigen::VectorXd &gradient, const Eigen::MatrixXd &c) {
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
    const Eigen::MatrixXd normal = inverse(s.products());
    peak_fit_tails found;
    for (const double ratio : {peak_fit_usual_tail, 3.0, 8.0, 20.0}) {
        const std::vector<double> d = tail_direction(residuals, used, s, normal, ratio);
        const double shown = dot(d, s.left.get());
        const double square =
            peak_fit_best_loops().weighted_dot(d.data(), d.data(), variances.data(), s.channels);
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
    const Eigen::MatrixXd by_parameters = gradients(vector, x);
    for (std::size_t i = 0; i < vector.num_peaks; ++i) {
        const auto of = [&](std::size_t q) {
            return deviation(by_parameters.col(static_cast<Eigen::Index>(quantities * i + q)), c);
        };
        errors[i] = {of(0), of(1), of(2), of(3)};
    }
}

} // namespace kestrel
