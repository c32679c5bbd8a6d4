#include "maths/peak_fit/errors.h"

#include "maths/peak_fit/loops.h"
#include "maths/peak_fit/residuals.h"

#include <Eigen/Dense>

#include <cmath>

namespace kestrel {

namespace {

constexpr double step = 1e-6; // of a parameter, up and down, for its derivative

double step_of(double value) {
    return step * std::max(std::fabs(value), 1e-3);
}

// d model / d parameter, one column a parameter, each scaled to length 1; the lengths are left in `scale`.
Eigen::MatrixXd jacobian(peak_residuals &residuals, std::vector<double> x, Eigen::VectorXd &scale) {
    const auto rows = static_cast<Eigen::Index>(residuals.data.size());
    const auto columns = static_cast<Eigen::Index>(x.size());
    Eigen::MatrixXd j(rows, columns);
    std::vector<double> above(residuals.count()), below(residuals.count());
    for (Eigen::Index c = 0; c < columns; ++c) {
        double &value = x[static_cast<std::size_t>(c)];
        const double old = value, h = step_of(old);
        value = old + h;
        residuals.evaluate(x.data(), above.data());
        value = old - h;
        residuals.evaluate(x.data(), below.data());
        value = old;
        for (Eigen::Index r = 0; r < rows; ++r)
            j(r, c) = (below[static_cast<std::size_t>(r)] - above[static_cast<std::size_t>(r)]) / (2.0 * h);
    }
    scale = j.colwise().norm();
    for (Eigen::Index c = 0; c < columns; ++c)
        if (scale(c) > 0.0)
            j.col(c) /= scale(c);
    return j;
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

// A channel's variance is its expected count, taken as the mean of data and model: data alone would give an
// empty channel no variance.
Eigen::VectorXd variances(const peak_residuals &residuals, std::span<const double> residual) {
    Eigen::VectorXd variance(static_cast<Eigen::Index>(residuals.data.size()));
    for (std::size_t i = 0; i < residuals.data.size(); ++i)
        variance(static_cast<Eigen::Index>(i)) = std::max(residuals.data[i] - 0.5 * residual[i], 0.0);
    return variance;
}

Eigen::MatrixXd covariance(peak_residuals &residuals, const std::vector<double> &x) {
    Eigen::VectorXd scale;
    const Eigen::MatrixXd j = jacobian(residuals, x, scale);
    const Eigen::MatrixXd normal = inverse(j.transpose().lazyProduct(j));
    std::vector<double> residual(residuals.count());
    residuals.evaluate(x.data(), residual.data());
    const Eigen::MatrixXd by_variance = variances(residuals, residual).asDiagonal() * j;
    const Eigen::MatrixXd weighted = j.transpose().lazyProduct(by_variance);
    Eigen::MatrixXd result = normal * weighted * normal;
    for (Eigen::Index c = 0; c < scale.size(); ++c) {
        const double by = scale(c) > 0.0 ? 1.0 / scale(c) : 0.0;
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

// The Lorentzians that have their part of the Gaussians' heights, of half widths sigma times `ratio`.
Eigen::VectorXd tails_of(const peak_residuals &residuals, std::span<const peak_fit_peak_t> peaks,
                         double ratio) {
    const auto channels = static_cast<Eigen::Index>(residuals.data.size());
    Eigen::VectorXd shape(channels), result = Eigen::VectorXd::Zero(channels);
    for (const peak_fit_peak_t &p : peaks) {
        const double centre = p.posn - residuals.x1, width = ratio * p.sigma;
        peak_fit_best_loops().lorentz(shape.data(), centre, 1.0 / (width * width), residuals.data.size());
        result += p.height * shape;
    }
    return result;
}

} // namespace

peak_fit_tails peak_fit_find_tails(peak_residuals &residuals, const std::vector<double> &x) {
    std::array<peak_fit_peak_t, peak_fit_max_peaks> peaks{};
    residuals.vector->unpack(x.data(), peaks);
    const auto used = std::span<const peak_fit_peak_t>(peaks).first(residuals.vector->num_peaks);
    residuals.prepare();
    std::vector<double> left(residuals.count());
    residuals.evaluate(x.data(), left.data());
    const auto channels = static_cast<Eigen::Index>(residuals.data.size());
    const Eigen::Map<const Eigen::VectorXd> residual(left.data(), channels),
        data(residuals.data.data(), channels);
    const Eigen::VectorXd variance = variances(residuals, left);
    Eigen::VectorXd scale;
    const Eigen::MatrixXd j = jacobian(residuals, x, scale);
    const Eigen::MatrixXd normal = inverse(j.transpose().lazyProduct(j));
    peak_fit_tails found;
    for (const double ratio : {peak_fit_usual_tail, 3.0, 8.0, 20.0}) {
        // How the model changes when a small part of every Gaussian's height goes into its tails.
        Eigen::VectorXd d = tails_of(residuals, used, ratio) - (data - residual);
        d -= j * (normal * (j.transpose() * d));
        const double spread = std::sqrt(d.cwiseAbs2().dot(variance)), shown = d.dot(residual);
        if (!(spread > 0.0 && shown > 0.0))
            continue;
        found.score = std::max(found.score, shown / spread);
        if (ratio == peak_fit_usual_tail)
            found.part = shown / d.squaredNorm();
    }
    return found;
}

void peak_fit_error_bars(peak_residuals &residuals, const std::vector<double> &x,
                         std::span<peak_fit_sigmas> errors) {
    const peak_vector &vector = *residuals.vector;
    residuals.prepare();
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
