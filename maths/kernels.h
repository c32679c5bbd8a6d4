// maths: the loops over the elements of one row. Plain spans, no session; written so that the compiler
// vectorises them. A sum of floating-point numbers always adds the same numbers in the same order: sixteen
// partial sums, then those in order.
#pragma once

#include "maths/loops.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>

namespace kestrel {

// What sums of elements are kept in: exact for integers (64 bits), double for floating point.
template <class T> using sum_of = std::conditional_t<std::is_integral_v<T>, std::uint64_t, double>;

// Four rows of one length. Reading in several places at once gets more out of the memory, so the loops over
// large regions take rows by fours; each result is the one that the rows taken singly give.
template <class T> using four_rows = std::array<const T *, 4>;

double row_total(std::span<const float> row);
double row_total(std::span<const double> row);
std::uint64_t row_total(std::span<const std::uint32_t> row);

// The totals of four rows of `count` elements.
void row_totals(const four_rows<float> &rows, std::size_t count, double *totals);
void row_totals(const four_rows<double> &rows, std::size_t count, double *totals);
void row_totals(const four_rows<std::uint32_t> &rows, std::size_t count, std::uint64_t *totals);

// sums[i] += row[i]
void add_row(std::span<const float> row, double *sums);
void add_row(std::span<const std::uint32_t> row, std::uint64_t *sums);
// The same for four rows, one after the other.
void add_rows(const four_rows<float> &rows, std::size_t count, double *sums);
void add_rows(const four_rows<std::uint32_t> &rows, std::size_t count, std::uint64_t *sums);

// The sum of row[i] and of row[i] * (first + i), over the elements not below `threshold`; first is the
// coordinate of the row's first element.
moment row_moment(std::span<const float> row, double first);
moment row_moment(std::span<const std::uint32_t> row, double first);
// The moments of four rows, none left out.
void row_moments(const four_rows<float> &rows, std::size_t count, double first, moment *of);
void row_moments(const four_rows<std::uint32_t> &rows, std::size_t count, double first, moment *of);
moment row_moment_above(std::span<const float> row, double first, double threshold);
moment row_moment_above(std::span<const std::uint32_t> row, double first, double threshold);

// f[i] += row[i], fc[i] += row[i] * c, for a row whose elements all have the coordinate c.
void add_moments(std::span<const float> row, double c, double *f, double *fc);
void add_moments(std::span<const std::uint32_t> row, double c, double *f, double *fc);
// The same for four rows with the coordinates c, c + 1, c + 2 and c + 3, one after the other.
void add_moments(const four_rows<float> &rows, std::size_t count, double c, double *f, double *fc);
void add_moments(const four_rows<std::uint32_t> &rows, std::size_t count, double c, double *f, double *fc);
// The same for the elements not below thresholds[i].
void add_moments_above(std::span<const float> row, double c, const double *thresholds, double *f, double *fc);
void add_moments_above(std::span<const std::uint32_t> row, double c, const double *thresholds, double *f,
                       double *fc);

double row_maximum(std::span<const float> row);
double row_maximum(std::span<const std::uint32_t> row);
// maxima[i] = the larger of maxima[i] and row[i]
void add_maxima(std::span<const float> row, double *maxima);
void add_maxima(std::span<const std::uint32_t> row, double *maxima);

// sums[j] += the sum of elements j * factor ... j * factor + factor - 1, for `bins` bins.
void bin_row(std::span<const float> row, std::size_t factor, std::size_t bins, double *sums);
void bin_row(std::span<const std::uint32_t> row, std::size_t factor, std::size_t bins, std::uint64_t *sums);

} // namespace kestrel
