// `maths measure-peak`, `measure-flood` and `search-outliers`: numbers about the elements of a region.
#include "maths/reader.h"
#include "maths/results.h"
#include "parser/qualifiers.h"
#include "parser/tree.h"
#include "server/output.h"
#include "support/element.h"
#include "support/file_io.h"
#include "unified/convert.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>

namespace kestrel {

namespace {

// Calls f(value, x, y, t) with each element and its absolute place, in scan order. False when a read failed.
template <class T, class F> bool each_element(int cn, UMaths &reader, F f) {
    for (int plane = 0; plane < reader.dt; ++plane)
        for (int row = 0; row < reader.dy; ++row) {
            const std::byte *line = umaths_get_line(cn, row, plane, reader);
            if (!line)
                return false;
            for (int i = 0; i < reader.dx; ++i)
                f(load_element<T>(line, static_cast<std::size_t>(i)), reader.x + i, reader.y + row,
                  reader.t + plane);
        }
    return true;
}

double as_double(int48 value) {
    return static_cast<double>(value.value());
}
template <class T> double as_double(T value) {
    return static_cast<double>(value);
}

// ---------------------------------------------------------------- measure-peak

constexpr pt_format peak_format("%d %d %d %d %d %d %d + %s x y t threshold %g = %g");

struct axis_sums {
    double c = 0.0;
    double cc = 0.0;
    void add(double value, int index) {
        const double centre = index + 0.5;
        c += value * centre;
        cc += value * centre * centre;
    }
};

struct peak_sums {
    double total = 0.0;
    axis_sums x, y, t;
};

bool sum_peak(int cn, UMaths &reader, double threshold, peak_sums &sums) {
    bool read = false;
    with_element_type(reader.utype, [&](auto kind) {
        using T = decltype(kind);
        read = each_element<T>(cn, reader, [&](T element, int x, int y, int t) {
            const double value = as_double(element);
            if (!(value >= threshold))
                return;
            sums.total += value;
            sums.x.add(value, x);
            sums.y.add(value, y);
            sums.t.add(value, t);
        });
    });
    return read;
}

double report_axis(int cn, const char *variable, const char *letter, const char *name, const axis_sums &sums,
                   double total) {
    double mean = 0.0, deviation = 0.0;
    if (total > 0.0) {
        mean = sums.c / total;
        deviation = std::sqrt(std::max(0.0, sums.cc / total - mean * mean)); // rounding may go below zero
    }
    sv_printf(cn, "# %s mean   = %g\n", letter, mean);
    sv_printf(cn, "# %s stddev = %g\n", letter, deviation);
    if (variable) {
        set_var(cn, variable, (std::string(".") + name + "_mean").c_str(), mean);
        set_var(cn, variable, (std::string(".") + name + "_sd").c_str(), deviation);
    }
    return mean;
}

double umaths_measure_peak(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2,
                           const char *variable) {
    const pt_qualifiers<peak_format> q(quals);
    const double threshold = q.real("threshold");
    UMaths reader;
    if (umaths_start_any(cn, umaths_make_region(x1, y1, t1, x2, y2, t2), handle, reader, 0, 1) != 0)
        return -1.0;
    const bool chosen = q.count({"x", "y", "t"}) > 0;
    const bool x = chosen ? q.given("x") : reader.dx > 1;
    const bool y = chosen ? q.given("y") : reader.dy > 1;
    const bool t = chosen ? q.given("t") : reader.dt > 1;
    if (!x && !y && !t) {
        sv_printf(cn, "! Nothing to do ?\n");
        return 0.0;
    }
    peak_sums sums;
    if (!sum_peak(cn, reader, threshold, sums))
        return umaths_read_error(cn, reader);
    const double average =
        sums.total / (static_cast<double>(reader.dx) * static_cast<double>(reader.dy) * reader.dt);
    sv_printf(cn, "# Total    = %g\n", sums.total);
    sv_printf(cn, "# Average  = %g\n", average);
    set_var(cn, variable, ".total", sums.total);
    set_var(cn, variable, ".average", average);
    const double mean = x ? report_axis(cn, variable, "X", "x", sums.x, sums.total) : 0.0;
    if (y)
        report_axis(cn, variable, "Y", "y", sums.y, sums.total);
    if (t)
        report_axis(cn, variable, "T", "t", sums.t, sums.total);
    return mean;
}

} // namespace

extern constinit const PARSE_TREE row_maths_measure_peak = pt_command<umaths_measure_peak>(
    "measure-peak", peak_format, "Measure Peak positionin volume",
    "Unified handle/x1/y1/t1/x2/y2/t2/Optional variable to save results/Measure X position/"
    "Measure Y position/Measure T position/Threshold");

// ---------------------------------------------------------------- measure-flood

namespace {

constexpr pt_format flood_format("%d %d %d %d %d %d %d + %s mask %d quiet = %g");

struct flood_sums {
    double total = 0.0;
    double squares = 0.0;
    double minimum = 0.0;
    double maximum = 0.0;
};

// The minimum of integers begins here: where every element is larger, this is what is told.
constexpr std::int64_t integer_minimum_start = 0x7fffffff;

// The mask is a 32-bit number; for longer elements its top bit goes on, so that -1 is every bit.
template <class T> bool sum_flood(int cn, UMaths &reader, std::int64_t mask, flood_sums &sums) {
    if constexpr (std::is_floating_point_v<T>) {
        double lowest = std::numeric_limits<float>::max(), highest = -lowest;
        const bool read = each_element<T>(cn, reader, [&](T element, int, int, int) {
            const double value = element;
            sums.total += value;
            sums.squares += value * value;
            lowest = std::min(lowest, value);
            highest = std::max(highest, value);
        });
        sums.minimum = lowest;
        sums.maximum = highest;
        return read;
    } else {
        std::int64_t lowest = integer_minimum_start, highest = 0;
        const bool read = each_element<T>(cn, reader, [&](T element, int, int, int) {
            std::int64_t value;
            if constexpr (std::is_same_v<T, int48>)
                value = static_cast<std::int64_t>(element.value()) & mask;
            else
                value = static_cast<std::int64_t>(element) & mask;
            const double real = static_cast<double>(value);
            sums.total += real;
            sums.squares += real * real;
            lowest = std::min(lowest, value);
            highest = std::max(highest, value);
        });
        sums.minimum = static_cast<double>(lowest);
        sums.maximum = static_cast<double>(highest);
        return read;
    }
}

double umaths_measure_flood(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2,
                            const char *variable) {
    const pt_qualifiers<flood_format> q(quals);
    const bool quiet = q.given("quiet");
    const std::int64_t mask = q.number("mask", -1);
    UMaths reader;
    if (umaths_start_any(cn, umaths_make_region(x1, y1, t1, x2, y2, t2), handle, reader, quiet, 1) != 0)
        return -1.0;
    flood_sums sums;
    bool read = false;
    with_element_type(reader.utype,
                      [&](auto kind) { read = sum_flood<decltype(kind)>(cn, reader, mask, sums); });
    if (!read)
        return umaths_read_error(cn, reader);
    const double count = static_cast<double>(reader.dx) * static_cast<double>(reader.dy) * reader.dt;
    const double mean = sums.total / count;
    const double variance = sums.squares / count - mean * mean;
    const double rms = variance > 0.0 ? std::sqrt(variance) : -1.0;
    const double rms_percent = variance > 0.0 ? (mean > 0.0 ? rms * 100.0 / mean : 0.0) : -100.0;
    const double difference = mean > 0.0 ? (sums.maximum - sums.minimum) * 100.0 / mean : 0.0;
    if (!quiet) {
        sv_printf(cn, "# Total          = %g\n", sums.total);
        sv_printf(cn, "# Mean           = %g\n", mean);
        sv_printf(cn, "# RMS Noise      = %g\n", rms);
        sv_printf(cn, "# RMS Noise/Mean = %g%%\n", rms_percent);
        sv_printf(cn, "# Max            = %g\n", sums.maximum);
        sv_printf(cn, "# Min            = %g\n", sums.minimum);
        sv_printf(cn, "# (Max-Min)/Mean = %g%%\n", difference);
    }
    set_var(cn, variable, ".total", sums.total);
    set_var(cn, variable, ".mean", mean);
    set_var(cn, variable, ".rms", rms);
    set_var(cn, variable, ".rms_percent", rms_percent);
    set_var(cn, variable, ".max", sums.maximum);
    set_var(cn, variable, ".min", sums.minimum);
    set_var(cn, variable, ".diff_percent", difference);
    return mean;
}

} // namespace

extern constinit const PARSE_TREE row_maths_measure_flood = pt_command<umaths_measure_flood>(
    "measure-flood", flood_format, "Measure flood DNL in volume",
    "Unified handle/x1/y1/t1/x2/y2/t2/Optional variable to save results/"
    "Mask to AND with integer data, particualrly scope mode data/No messages");

// ---------------------------------------------------------------- search-outliers

namespace {

constexpr pt_format outliers_format("%d %d %d %d %d %d %d %s mask %d quiet append below %g above %g = %d");

struct outlier_search {
    int cn;
    bool quiet;
    std::optional<double> below, above;
    std::uint32_t mask;
    std::FILE *file;
    int found = 0;

    void list(std::uint32_t value, int x, int y, int t) {
        std::fprintf(file, "%d\t%d\t%d\t%d\t%d\n", found, x, y, t, static_cast<int>(value));
        if (!quiet)
            sv_printf(cn, "# %d: (%d,%d,%d) = %d\n", found, x, y, t, static_cast<int>(value));
        ++found;
    }
    void list(double value, int x, int y, int t) {
        std::fprintf(file, "%d\t%d\t%d\t%d\t%g\n", found, x, y, t, value);
        if (!quiet)
            sv_printf(cn, "# %d: (%d,%d,%d) = %g\n", found, x, y, t, value);
        ++found;
    }
};

bool search(UMaths &reader, outlier_search &s) {
    if (reader.utype == el_long) {
        const double low = std::trunc(s.below.value_or(0.0)), high = std::trunc(s.above.value_or(0.0));
        return each_element<std::uint32_t>(s.cn, reader, [&](std::uint32_t element, int x, int y, int t) {
            const std::uint32_t value = element & s.mask;
            if ((s.below && value < low) || (s.above && value > high))
                s.list(value, x, y, t);
        });
    }
    const auto compare = [&](double value, int x, int y, int t) {
        if ((s.below && value < *s.below) || (s.above && value > *s.above))
            s.list(value, x, y, t);
    };
    return reader.utype == el_float ? each_element<float>(s.cn, reader, compare)
                                    : each_element<double>(s.cn, reader, compare);
}

int umaths_search_outliers(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2,
                           const char *name) {
    const pt_qualifiers<outliers_format> q(quals);
    outlier_search s{cn,
                     q.given("quiet"),
                     q.real_if_given("below"),
                     q.real_if_given("above"),
                     static_cast<std::uint32_t>(q.number("mask", -1)),
                     nullptr};
    UMaths reader;
    if (umaths_start(cn, umaths_make_region(x1, y1, t1, x2, y2, t2), handle, reader, s.quiet) != 0)
        return -1;
    unique_file file = open_stream(name, q.given("append") ? "a" : "w");
    if (!file) {
        sv_print(cn, std::string("! Cannot open file '") + name + "'\n");
        return -1;
    }
    s.file = file.get();
    if ((s.below || s.above) && !search(reader, s))
        return umaths_read_error(cn, reader);
    const bool failed = std::ferror(file.get()) != 0;
    if (std::fclose(file.release()) != 0 || failed) {
        sv_print(cn, std::string("! Error on write to file '") + name + "'\n");
        return -1;
    }
    return s.found;
}

} // namespace

extern constinit const PARSE_TREE row_maths_search_outliers = pt_command<umaths_search_outliers>(
    "search-outliers", outliers_format, "Search for outlieing values in volume",
    "Unified handle/x1/y1/t1/x2/y2/t2/File name/Mask to AND with integer data, particualrly scope mode data/"
    "No messages/Append to file/List values below this/List values above this");

} // namespace kestrel
