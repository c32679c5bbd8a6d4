#include "maths/dead_time_fit.h"

#include "support/dead_time.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <minpack.h>

namespace kestrel {

namespace {

// What the solver varies are numbers of about 1: the true rate at the highest reference by a first estimate of it, and
// the other parameters in units of that estimate. Each residual is in standard deviations of counting.
struct problem {
    const std::vector<dead_time_point> &points;
    double rate = 0;    // the estimate
    double highest = 0; // reference
    double time = 1;
    std::size_t parameters = 0;

    std::size_t residuals() const { return 2 * points.size(); }
    std::array<double, dead_time_parameters> physical(const double *p) const;
    void evaluate(const double *p, double *residual) const;
    std::vector<double> start() const;
};

// By which each parameter is to be multiplied.
std::array<double, dead_time_parameters> units(const problem &f) {
    const double second = 1 / f.rate, square = second * second;
    std::array<double, dead_time_parameters> unit{};
    unit[dt_k] = f.rate / f.highest;
    unit[dt_a] = unit[dt_c] = second;
    unit[dt_s] = 1;
    unit[dt_b] = unit[dt_d] = square;
    return unit;
}

std::array<double, dead_time_parameters> problem::physical(const double *p) const {
    std::array<double, dead_time_parameters> value = units(*this);
    for (std::size_t i = 0; i < value.size(); ++i)
        value[i] *= i < parameters ? p[i] : 0.0;
    return value;
}

void problem::evaluate(const double *p, double *residual) const {
    const auto v = physical(p);
    for (const dead_time_point &point : points) {
        const double x = v[dt_k] * point.reference;
        const double all = dead_time_seen(x, v[dt_a], v[dt_b]);
        const double window = v[dt_s] * x * dead_time_kept(x, v[dt_c], v[dt_d]);
        *residual++ = (all - point.all) / std::sqrt(point.all / time);
        *residual++ = (window - point.window) / std::sqrt(point.window / time);
    }
}

// From the points of the lowest and the highest reference.
std::vector<double> problem::start() const {
    const auto [low, high] = std::ranges::minmax_element(points, {}, &dead_time_point::reference);
    std::vector<double> p(parameters);
    p[dt_k] = 1;
    p[dt_s] = low->window / low->all;
    p[dt_a] = std::max(std::log(rate / high->all), 0.0);
    p[dt_c] = std::max(std::log(p[dt_s] * rate / high->window) / 2, 0.0);
    return p;
}

problem make_problem(const std::vector<dead_time_point> &points, bool rate_terms, double time) {
    const auto [low, high] = std::ranges::minmax_element(points, {}, &dead_time_point::reference);
    problem f{points};
    f.highest = high->reference;
    f.rate = low->all / low->reference * f.highest;
    f.time = time > 0 ? time : 1;
    f.parameters = rate_terms ? dead_time_parameters : dt_b;
    return f;
}

// MINPACK hands no pointer of the caller's to its callback.
thread_local const problem *problem_of_thread = nullptr;

void residuals_of_thread(int *, int *, double *x, double *fvec, int *) noexcept {
    problem_of_thread->evaluate(x, fvec);
}

// MINPACK's info: 1 to 3 when it is done (J. J. More, B. S. Garbow & K. E. Hillstrom, User Guide for MINPACK-1,
// ANL-80-74).
int minimise(const problem &f, std::vector<double> &p, std::vector<double> &residual) {
    int m = static_cast<int>(f.residuals()), n = static_cast<int>(p.size()), info = 0;
    int lwa = m * n + 5 * n + m;
    double tolerance = 1e-12;
    std::vector<int> integers(p.size());
    std::vector<double> work(static_cast<std::size_t>(lwa));
    problem_of_thread = &f;
    lmdif1_(residuals_of_thread, &m, &n, p.data(), residual.data(), &tolerance, &info, integers.data(),
            work.data(), &lwa);
    problem_of_thread = nullptr;
    return info;
}

Eigen::MatrixXd jacobian(const problem &f, std::vector<double> p) {
    constexpr double step = 1e-5;
    const auto rows = static_cast<Eigen::Index>(f.residuals());
    Eigen::MatrixXd j(rows, static_cast<Eigen::Index>(p.size()));
    Eigen::VectorXd above(rows), below(rows);
    for (std::size_t c = 0; c < p.size(); ++c) {
        const double old = p[c];
        p[c] = old + step;
        f.evaluate(p.data(), above.data());
        p[c] = old - step;
        f.evaluate(p.data(), below.data());
        p[c] = old;
        j.col(static_cast<Eigen::Index>(c)) = (above - below) / (2 * step);
    }
    return j;
}

// Standard deviations of what the solver varies; none where a combination of them is not determined.
std::optional<Eigen::VectorXd> deviations(const problem &f, const std::vector<double> &p) {
    constexpr double undetermined = 1e-13;
    Eigen::MatrixXd j = jacobian(f, p);
    const Eigen::VectorXd length = j.colwise().norm();
    if (!(length.minCoeff() > 0) || !j.allFinite())
        return std::nullopt;
    j.array().rowwise() /= length.transpose().array();
    const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(j.transpose() * j);
    if (!(solver.eigenvalues().minCoeff() > undetermined))
        return std::nullopt;
    const Eigen::MatrixXd inverse = solver.eigenvectors() * solver.eigenvalues().cwiseInverse().asDiagonal() *
                                    solver.eigenvectors().transpose();
    return inverse.diagonal().cwiseSqrt().cwiseQuotient(length);
}

} // namespace

std::optional<dead_time_fit_result> dead_time_fit(const std::vector<dead_time_point> &points, bool rate_terms,
                                                  double time) {
    if (points.size() < dead_time_fit_least(rate_terms))
        return std::nullopt;
    const problem f = make_problem(points, rate_terms, time);
    std::vector<double> p = f.start(), residual(f.residuals());
    const int info = minimise(f, p, residual);
    const std::optional<Eigen::VectorXd> deviation = deviations(f, p);
    if (info < 1 || info > 4 || !deviation)
        return std::nullopt;
    double sum = 0;
    for (const double r : residual)
        sum += r * r;
    dead_time_fit_result result;
    result.chi2 = sum / static_cast<double>(f.residuals() - p.size());
    result.value = f.physical(p.data());
    const double scale = time > 0 ? 1 : std::sqrt(result.chi2);
    const auto unit = units(f);
    for (std::size_t i = 0; i < p.size(); ++i)
        result.error[i] = (*deviation)(static_cast<Eigen::Index>(i)) * unit[i] * scale;
    return result;
}

} // namespace kestrel
