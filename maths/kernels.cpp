#include "maths/kernels.h"

#include <algorithm>
#include <array>

namespace kestrel {

namespace {

constexpr std::size_t lanes = 16;

// Sixteen partial sums of term(i), then those in order, then the tail.
template <class S, class Term> S sum_terms(std::size_t count, Term term) {
    std::array<S, lanes> part{};
    const std::size_t whole = count - count % lanes;
    for (std::size_t i = 0; i < whole; i += lanes)
        for (std::size_t k = 0; k < lanes; ++k)
            part[k] += term(i + k);
    S sum{};
    for (const S p : part)
        sum += p;
    for (std::size_t i = whole; i < count; ++i)
        sum += term(i);
    return sum;
}

template <class T> moment moment_of(std::span<const T> row, double first) {
    std::array<double, lanes> f{}, fc{};
    const std::size_t whole = row.size() - row.size() % lanes;
    for (std::size_t i = 0; i < whole; i += lanes) {
        const double base = first + static_cast<double>(i);
        for (std::size_t k = 0; k < lanes; ++k) {
            const double value = row[i + k];
            f[k] += value;
            fc[k] += value * (base + static_cast<double>(k));
        }
    }
    moment m;
    for (std::size_t k = 0; k < lanes; ++k) {
        m.f += f[k];
        m.fc += fc[k];
    }
    for (std::size_t i = whole; i < row.size(); ++i) {
        m.f += row[i];
        m.fc += row[i] * (first + static_cast<double>(i));
    }
    return m;
}

template <class T> moment moment_of_above(std::span<const T> row, double first, double threshold) {
    moment m;
    for (std::size_t i = 0; i < row.size(); ++i) {
        const double value = row[i];
        if (value < threshold)
            continue;
        m.f += value;
        m.fc += value * (first + static_cast<double>(i));
    }
    return m;
}

template <class T, class S> void add_each(std::span<const T> row, S *__restrict sums) {
    const T *__restrict from = row.data();
    for (std::size_t i = 0; i < row.size(); ++i)
        sums[i] += from[i];
}

template <class T>
void add_each_moment(std::span<const T> row, double c, double *__restrict f, double *__restrict fc) {
    const T *__restrict from = row.data();
    for (std::size_t i = 0; i < row.size(); ++i) {
        const double value = from[i];
        f[i] += value;
        fc[i] += value * c;
    }
}

template <class T>
void add_each_moment_above(std::span<const T> row, double c, const double *__restrict thresholds,
                           double *__restrict f, double *__restrict fc) {
    const T *__restrict from = row.data();
    for (std::size_t i = 0; i < row.size(); ++i) {
        const double value = from[i] < thresholds[i] ? 0.0 : static_cast<double>(from[i]);
        f[i] += value;
        fc[i] += value * c;
    }
}

template <class T> void take_maxima(std::span<const T> row, double *__restrict maxima) {
    const T *__restrict from = row.data();
    for (std::size_t i = 0; i < row.size(); ++i)
        maxima[i] = from[i] > maxima[i] ? static_cast<double>(from[i]) : maxima[i];
}

template <class T> double maximum_of(std::span<const T> row) {
    T largest = row[0];
    for (const T value : row)
        largest = value > largest ? value : largest;
    return static_cast<double>(largest);
}

template <class T, class S>
void bin_each(std::span<const T> row, std::size_t factor, std::size_t bins, S *sums) {
    for (std::size_t j = 0; j < bins; ++j) {
        S sum = row[j * factor];
        for (std::size_t k = 1; k < factor; ++k)
            sum += row[j * factor + k];
        sums[j] += sum;
    }
}

} // namespace

double row_total(std::span<const float> row) {
    return sum_terms<double>(row.size(), [&](std::size_t i) { return static_cast<double>(row[i]); });
}

double row_total(std::span<const double> row) {
    return sum_terms<double>(row.size(), [&](std::size_t i) { return row[i]; });
}

std::uint64_t row_total(std::span<const std::uint32_t> row) {
    std::uint64_t sum = 0;
    for (const std::uint32_t value : row)
        sum += value;
    return sum;
}

void row_totals(const four_rows<float> &rows, std::size_t count, double *totals) {
    umaths_loops().of_float.totals(rows.data(), count, totals);
}
void row_totals(const four_rows<double> &rows, std::size_t count, double *totals) {
    umaths_loops().totals_of_double(rows.data(), count, totals);
}
void row_totals(const four_rows<std::uint32_t> &rows, std::size_t count, std::uint64_t *totals) {
    umaths_loops().of_long.totals(rows.data(), count, totals);
}

void add_row(std::span<const float> row, double *sums) {
    add_each(row, sums);
}
void add_row(std::span<const std::uint32_t> row, std::uint64_t *sums) {
    add_each(row, sums);
}
void add_rows(const four_rows<float> &rows, std::size_t count, double *sums) {
    umaths_loops().of_float.add(rows.data(), count, sums);
}
void add_rows(const four_rows<std::uint32_t> &rows, std::size_t count, std::uint64_t *sums) {
    umaths_loops().of_long.add(rows.data(), count, sums);
}

moment row_moment(std::span<const float> row, double first) {
    return moment_of(row, first);
}
moment row_moment(std::span<const std::uint32_t> row, double first) {
    return moment_of(row, first);
}
void row_moments(const four_rows<float> &rows, std::size_t count, double first, moment *of) {
    umaths_loops().of_float.moments(rows.data(), count, first, of);
}
void row_moments(const four_rows<std::uint32_t> &rows, std::size_t count, double first, moment *of) {
    umaths_loops().of_long.moments(rows.data(), count, first, of);
}
moment row_moment_above(std::span<const float> row, double first, double threshold) {
    return moment_of_above(row, first, threshold);
}
moment row_moment_above(std::span<const std::uint32_t> row, double first, double threshold) {
    return moment_of_above(row, first, threshold);
}

void add_moments(std::span<const float> row, double c, double *f, double *fc) {
    add_each_moment(row, c, f, fc);
}
void add_moments(std::span<const std::uint32_t> row, double c, double *f, double *fc) {
    add_each_moment(row, c, f, fc);
}
void add_moments(const four_rows<float> &rows, std::size_t count, double c, double *f, double *fc) {
    umaths_loops().of_float.add_moments(rows.data(), count, c, f, fc);
}
void add_moments(const four_rows<std::uint32_t> &rows, std::size_t count, double c, double *f, double *fc) {
    umaths_loops().of_long.add_moments(rows.data(), count, c, f, fc);
}
void add_moments_above(std::span<const float> row, double c, const double *thresholds, double *f,
                       double *fc) {
    add_each_moment_above(row, c, thresholds, f, fc);
}
void add_moments_above(std::span<const std::uint32_t> row, double c, const double *thresholds, double *f,
                       double *fc) {
    add_each_moment_above(row, c, thresholds, f, fc);
}

double row_maximum(std::span<const float> row) {
    return maximum_of(row);
}
double row_maximum(std::span<const std::uint32_t> row) {
    return maximum_of(row);
}
void add_maxima(std::span<const float> row, double *maxima) {
    take_maxima(row, maxima);
}
void add_maxima(std::span<const std::uint32_t> row, double *maxima) {
    take_maxima(row, maxima);
}

void bin_row(std::span<const float> row, std::size_t factor, std::size_t bins, double *sums) {
    bin_each(row, factor, bins, sums);
}
void bin_row(std::span<const std::uint32_t> row, std::size_t factor, std::size_t bins, std::uint64_t *sums) {
    bin_each(row, factor, bins, sums);
}

} // namespace kestrel
