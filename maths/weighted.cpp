// `maths weighted-sum`, `centroid` and `centroid-old`: first moments along one axis. The weighting coordinate
// is the element's absolute index plus 0.5, the centre of the pixel, as in measure-peak.
#include "maths/axis.h"
#include "maths/output.h"
#include "maths/row_groups.h"
#include "parser/call.h"
#include "parser/interpreter.h"
#include "parser/tree.h"
#include "server/output.h"
#include "server/session.h"
#include "support/element.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

namespace kestrel {

int umaths_axis_length(const UMaths &r, const reduced_axis &a) {
    return a.axis == axis_x ? r.dx : a.axis == axis_y ? r.dy : r.dt;
}

void umaths_size_rest(int dx, int dy, int dt, reduced_axis &a) {
    const int first = a.axis == axis_x ? dy : dx;
    const int second = a.axis == axis_t ? dy : dt;
    a.nx = first > 1 ? first : second;
    a.ny = first > 1 ? second : 1;
}

namespace {

int refuse_short_axis(int cn, region_axis axis) {
    sv_printf(cn, "%s",
              axis == axis_x   ? "! Why form SUM FX when dx == 1\n"
              : axis == axis_y ? "! Why form SUM FX when dy == 1\n"
                               : "! Why form SUM FX when dt == 1\n");
    return -1;
}

} // namespace

int umaths_check_axis(int cn, const UMaths &r, reduced_axis &out) {
    if (umaths_axis_length(r, out) == 1)
        return refuse_short_axis(cn, out.axis);
    umaths_size_rest(r.dx, r.dy, r.dt, out);
    return 0;
}

namespace {

// Sum of f and of f * c for each element of what remains.
struct moments {
    std::vector<double> f, fc;
    std::vector<double> threshold; // each line's own, when elements below one are left out
    explicit moments(std::size_t count) : f(count), fc(count) {}
    explicit moments(const reduced_axis &a)
        : moments(static_cast<std::size_t>(a.nx) * static_cast<std::size_t>(a.ny)) {}
};

// Where the line of sums begins that a row adds to: its plane's when the axis is y, its own when it is t.
std::size_t line_of(const UMaths &r, const reduced_axis &a, int row, int plane) {
    return static_cast<std::size_t>(a.axis == axis_y ? plane : row) * static_cast<std::size_t>(r.dx);
}

// Where the one sum of a row stands when the axis is x.
std::size_t place_of(const UMaths &r, int row, int plane) {
    return static_cast<std::size_t>(plane) * static_cast<std::size_t>(r.dy) + static_cast<std::size_t>(row);
}

double coordinate(const UMaths &r, const reduced_axis &a, int row, int plane) {
    return (a.axis == axis_y ? r.y + row : r.t + plane) + 0.5;
}

// Calls f(line, row, plane) with every row. False when a read failed.
template <class T, class F> bool each_row(int cn, UMaths &r, F f) {
    for (int plane = 0; plane < r.dt; ++plane)
        for (int row = 0; row < r.dy; ++row) {
            const std::span<const T> line = umaths_row<T>(cn, row, plane, r);
            if (line.empty())
                return false;
            f(line, row, plane);
        }
    return true;
}

template <class T> bool sum_row_moments(int cn, UMaths &r, moments &m) {
    const double first = r.x + 0.5;
    const auto rows = umaths_all_rows(cn, r);
    const std::size_t count = static_cast<std::size_t>(r.dx);
    std::vector<moment> all;
    if (!rows || !umaths_by_rows<T>(
                     cn, r, *rows, all,
                     [&](const four_rows<T> &four, moment *of) { row_moments(four, count, first, of); },
                     [&](std::span<const T> row) { return row_moment(row, first); }))
        return false;
    for (std::size_t i = 0; i < all.size(); ++i) {
        m.f[i] = all[i].f;
        m.fc[i] = all[i].fc;
    }
    return true;
}

template <class T> bool sum_moments(int cn, UMaths &r, const reduced_axis &a, moments &m) {
    if (a.axis == axis_x && umaths_all_held(r) && umaths_long_rows(r))
        return sum_row_moments<T>(cn, r, m);
    return each_row<T>(cn, r, [&](std::span<const T> line, int row, int plane) {
        if (a.axis == axis_x) {
            const moment one = row_moment(line, r.x + 0.5);
            m.f[place_of(r, row, plane)] = one.f;
            m.fc[place_of(r, row, plane)] = one.fc;
        } else {
            const std::size_t at = line_of(r, a, row, plane);
            add_moments(line, coordinate(r, a, row, plane), &m.f[at], &m.fc[at]);
        }
    });
}

// The same over the elements of at least `fraction` of the maximum of their own line along the axis.
template <class T>
bool sum_moments_above(int cn, UMaths &r, const reduced_axis &a, double fraction, moments &m) {
    if (a.axis == axis_x)
        return each_row<T>(cn, r, [&](std::span<const T> line, int row, int plane) {
            const moment one = row_moment_above(line, r.x + 0.5, fraction * row_maximum(line));
            m.f[place_of(r, row, plane)] = one.f;
            m.fc[place_of(r, row, plane)] = one.fc;
        });
    m.threshold.assign(m.f.size(), std::numeric_limits<double>::lowest());
    const bool read = each_row<T>(cn, r, [&](std::span<const T> line, int row, int plane) {
        add_maxima(line, &m.threshold[line_of(r, a, row, plane)]);
    });
    for (double &threshold : m.threshold)
        threshold *= fraction;
    return read && each_row<T>(cn, r, [&](std::span<const T> line, int row, int plane) {
               const std::size_t at = line_of(r, a, row, plane);
               add_moments_above(line, coordinate(r, a, row, plane), &m.threshold[at], &m.f[at], &m.fc[at]);
           });
}

// What each command writes of the two sums.
double weighted_sum(double, double fc) {
    return fc;
}
double mean(double f, double fc) {
    return f > 0.0 ? fc / f : 0.0;
}

// Writes result rows from `top` on, as many as there are sums.
template <class F>
void write_rows(const reduced_axis &a, int top, const moments &m, F value_of, const umaths_result_rows &out) {
    const std::size_t width = static_cast<std::size_t>(a.nx);
    for (std::size_t from = 0; from < m.f.size(); from += width, ++top) {
        float *line = out.row<float>(top, 0);
        for (std::size_t i = 0; i < width; ++i)
            line[i] = static_cast<float>(value_of(m.f[from + i], m.fc[from + i]));
    }
}

template <class F>
int write_all(int cn, const reduced_axis &a, const moments &m, F value_of, UMathsOutput &out) {
    const auto to = umaths_all_output(cn, out);
    if (!to)
        return -1;
    to->begin(0, 0, a.ny);
    write_rows(a, 0, m, value_of, *to);
    return 0;
}

// Along t, rows whose sums fit the cache together are summed over all frames and written before the next
// ones.
constexpr std::size_t cached_sums = 8192;

template <class T> void sum_frames(const UMaths &r, const umaths_rows &rows, int top, int count, moments &m) {
    const std::size_t width = static_cast<std::size_t>(r.dx);
    const auto place = [&](int row) { return static_cast<std::size_t>(row) * width; };
    const auto c = [&](int frame) { return r.t + frame + 0.5; };
    umaths_over_frames<T>(
        r, rows, top, count,
        [&](const four_rows<T> &lines, int row, int frame) {
            add_moments(lines, width, c(frame), &m.f[place(row)], &m.fc[place(row)]);
        },
        [&](std::span<const T> line, int row, int frame) {
            add_moments(line, c(frame), &m.f[place(row)], &m.fc[place(row)]);
        });
}

template <class T, class F>
int weigh_frames(int cn, UMaths &r, const reduced_axis &a, F value_of, UMathsOutput &out) {
    const auto rows = umaths_all_rows(cn, r);
    if (!rows)
        return umaths_read_error(cn, r);
    const auto to = umaths_all_output(cn, out);
    if (!to)
        return -1;
    const int at_once = std::clamp(static_cast<int>(cached_sums / static_cast<std::size_t>(r.dx)), 1, r.dy);
    const bool all = umaths_share(cn, r, (r.dy + at_once - 1) / at_once, [&](int part) {
        const int top = part * at_once, count = std::min(at_once, r.dy - top);
        moments m(static_cast<std::size_t>(count) * static_cast<std::size_t>(r.dx));
        to->begin(top, 0, count);
        sum_frames<T>(r, *rows, top, count, m);
        write_rows(a, top, m, value_of, *to);
    });
    return all ? 0 : -1;
}

template <class T, class F>
int weigh(int cn, UMaths &r, const reduced_axis &a, F value_of, UMathsOutput &out) {
    if (a.axis == axis_t && r.dx > 1 && umaths_all_held(r))
        return weigh_frames<T>(cn, r, a, value_of, out);
    moments m(a);
    if (!sum_moments<T>(cn, r, a, m))
        return umaths_read_error(cn, r);
    return write_all(cn, a, m, value_of, out);
}

// Opens the reader with all checks of the family; `refuse_double` is the command's own line.
int start(int cn, int handle, const umaths_region &region, const char *refuse_double, UMaths &r,
          reduced_axis &a) {
    if (umaths_start(cn, region, handle, r, 0) != 0)
        return -1;
    if (r.utype == el_double) {
        sv_printf(cn, "%s", refuse_double);
        return -1;
    }
    return umaths_check_axis(cn, r, a);
}

int start_output(int cn, const umaths_destination &to, const reduced_axis &a, UMaths &r, UMathsOutput &out) {
    if (umaths_start_output(cn, to, a.nx, a.ny, 1, out, RWMode::write, mod_element::float32) != 0)
        return -1;
    return umaths_stay_clear_of(cn, out.mod_head.head(), r);
}

constexpr pt_format weighted_format(text_join<"%d %d %d %d %d %d %d x y t ", umaths_output_words>);
constexpr pt_format
    centroid_format(text_join<"%d %d %d %d %d %d %d x y t threshold %g ", umaths_output_words>);

int umaths_weighted_sum(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2) {
    const pt_qualifiers<weighted_format> q(quals);
    reduced_axis a;
    if (umaths_choose_axis(cn, q, a) != 0)
        return -1;
    const umaths_destination to = umaths_destination_of(q);
    UMaths r;
    UMathsOutput out;
    if (start(cn, handle, umaths_make_region(x1, y1, t1, x2, y2, t2),
              "! Umaths weighted integrate cannot handle double data yet\n", r, a) != 0 ||
        start_output(cn, to, a, r, out) != 0)
        return -1;
    return r.utype == el_long ? weigh<std::uint32_t>(cn, r, a, weighted_sum, out)
                              : weigh<float>(cn, r, a, weighted_sum, out);
}

int umaths_centroid(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2) {
    const pt_qualifiers<centroid_format> q(quals);
    reduced_axis a;
    if (umaths_choose_axis(cn, q, a) != 0)
        return -1;
    const bool above = q.given("threshold");
    const double fraction = q.real("threshold");
    if (!(fraction >= 0.0 && fraction <= 1.0)) {
        sv_printf(cn, "! Relative threshold should be 0..1.0, not %g\n", fraction);
        return -1;
    }
    const umaths_destination to = umaths_destination_of(q);
    UMaths r;
    UMathsOutput out;
    if (start(cn, handle, umaths_make_region(x1, y1, t1, x2, y2, t2),
              "! Umaths centroid2 cannot handle double data yet\n", r, a) != 0 ||
        start_output(cn, to, a, r, out) != 0)
        return -1;
    const bool counts = r.utype == el_long;
    if (!above)
        return counts ? weigh<std::uint32_t>(cn, r, a, mean, out) : weigh<float>(cn, r, a, mean, out);
    moments m(a);
    if (!(counts ? sum_moments_above<std::uint32_t>(cn, r, a, fraction, m)
                 : sum_moments_above<float>(cn, r, a, fraction, m)))
        return umaths_read_error(cn, r);
    return write_all(cn, a, m, mean, out);
}

} // namespace

extern constinit const PARSE_TREE row_maths_weighted_sum = pt_command<umaths_weighted_sum>(
    "weighted-sum", weighted_format, "Weighted sum counts from volume to plane or line",
    text_join<"Unified handle/x1/y1/t1/x2/y2/t2/Weight along X axis/Weight along Y axis/Weight along T axis/",
              umaths_output_help>);

extern constinit const PARSE_TREE row_maths_centroid = pt_command<umaths_centroid>(
    "centroid", centroid_format, "Form Centroid from volume/plane to plane/line",
    text_join<"Unified handle/x1/y1/t1/x2/y2/t2/Centroid along X axis/Centroid along Y axis/"
              "Centroid along T axis/Threshold as fraction of max/",
              umaths_output_help>);

// ---------------------------------------------------------------- centroid-old: three commands, as if typed

namespace {

// A command line; it is cut at the length of a line, and then refused by whoever reads it.
struct command_text {
    char text[sv_line_max + 1] = {};
    std::size_t length = 0;

    void add(const char *format, ...) __attribute__((format(printf, 2, 3))) {
        va_list args;
        va_start(args, format);
        const int added = std::vsnprintf(text + length, sizeof text - length, format, args);
        va_end(args);
        length = std::min(sizeof text - 1, length + static_cast<std::size_t>(std::max(added, 0)));
    }
};

int run(int cn, const char *command) {
    return user_service(cn, command, 0, nullptr, nullptr);
}

// Runs the command; a failing one is shown below `complaint`.
int run_step(int cn, const command_text &command, const char *complaint) {
    if (run(cn, command.text) >= 0)
        return 0;
    sv_printf(cn, "%s\n! '%s'\n", complaint, command.text);
    return -1;
}

// The projection that keeps the other axes.
const char *kept_axes(region_axis axis, const umaths_region &r) {
    switch (axis) {
    case axis_x:
        return r.dy < 2 ? "t" : r.dt < 2 ? "y" : "yt";
    case axis_y:
        return r.dx == 1 ? "t" : r.dt < 2 ? "x" : "xt";
    default:
        return r.dx == 1 ? "y" : r.dy < 2 ? "x" : "xy";
    }
}

// A unified handle on a module, closed when it goes.
class opened_module {
  public:
    opened_module(int cn, const char *name, const char *suffix) : cn_(cn) {
        command_text open;
        open.add("module open '%s%s' header", name, suffix);
        handle_ = run(cn, open.text);
    }
    ~opened_module() {
        if (handle_ >= 0)
            unified_close_and_destroy(cn_, handle_);
    }
    opened_module(const opened_module &) = delete;
    opened_module &operator=(const opened_module &) = delete;
    int handle() const { return handle_; }

  private:
    int cn_;
    int handle_ = -1;
};

constexpr pt_format old_format(text_join<"%d %d %d %d %d %d %d x y t ", umaths_output_words>);

int umaths_centroid_old(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2) {
    const pt_qualifiers<old_format> q(quals);
    reduced_axis a;
    if (umaths_choose_axis(cn, q, a) != 0)
        return -1;
    const umaths_destination to = umaths_destination_of(q);
    const bool to_module = to.module && !to.other; // the first command refuses anything else
    const std::string name = to.name;              // the commands below overwrite the keywords' values
    const umaths_region r = umaths_make_region(x1, y1, t1, x2, y2, t2);
    const int lengths[] = {r.dx, r.dy, r.dt};
    if (lengths[a.axis] == 1)
        return refuse_short_axis(cn, a.axis);
    umaths_size_rest(r.dx, r.dy, r.dt, a);
    command_text weigh, sum, divide;
    weigh.add("maths weighted-sum %d %d %d %d %d %d %d %c", handle, x1, y1, t1, x2, y2, t2, "xyt"[a.axis]);
    if (to_module)
        weigh.add(" module '%s_fx'", name.c_str());
    sum.add("maths integrate %d %d %d %d %d %d %d %s module '%s_f'", handle, x1, y1, t1, x2, y2, t2,
            kept_axes(a.axis, r), name.c_str());
    if (run_step(cn, weigh, "! ERROR Forming SUMFX from") != 0 ||
        run_step(cn, sum, "! ERROR Forming SUMF from") != 0)
        return -1;
    const opened_module fx(cn, name.c_str(), "_fx"), f(cn, name.c_str(), "_f");
    divide.add("maths binary-op %d %d 0 0 0 %d %d 0 div module '%s'", fx.handle(), f.handle(), a.nx - 1,
               a.ny - 1, name.c_str());
    if (q.given("start-x"))
        divide.add(" start-x %d", to.start_x);
    if (q.given("start-y"))
        divide.add(" start-y %d", to.start_y);
    return run_step(cn, divide, "! ERROR: Performing divide using");
}

} // namespace

extern constinit const PARSE_TREE row_maths_centroid_old = pt_command<umaths_centroid_old>(
    "centroid-old", old_format, "Form Centroid from volume/plane to plane/line",
    text_join<"Unified handle/x1/y1/t1/x2/y2/t2/Centroid along X axis/Centroid along Y axis/"
              "Centroid along T axis/",
              umaths_output_help>);

} // namespace kestrel
