// `maths smooth` and `smooth2d`: running means of a row, and of every frame of a module.
#include "maths/module_rows.h"
#include "maths/progress.h"
#include "parser/qualifiers.h"
#include "parser/tree.h"
#include "server/output.h"

#include <algorithm>
#include <vector>

namespace kestrel {

namespace {

// Takes the mean of the 2 half + 1 points around each point. Towards the ends of a line that is not a circle,
// of as many on either side as the nearer end leaves, so that a straight line stays what it is.
// The sums come from running sums over blocks of the window's width, forwards and backwards (as in van Herk,
// Pattern Recognition Letters 13, 1992, p. 517): no sum is got by subtraction, so a large or bad value spoils
// no point outside its reach.
class line_smoother {
  public:
    line_smoother(std::size_t count, std::size_t half, bool wrapped)
        : count_(count), half_(wrapped ? half : std::min(half, (count - 1) / 2)), wrapped_(wrapped),
          line_(wrapped ? count + 2 * half : count), forward_(line_.size()), backward_(line_.size()) {}

    // In place: `values` are `count` points.
    void smooth(std::span<double> values) {
        copy_line(values);
        sum_blocks();
        const std::size_t width = 2 * half_ + 1, offset = wrapped_ ? 0 : half_;
        for (std::size_t at = 0; at + width <= line_.size(); ++at) {
            const double head = at % width == 0 ? 0.0 : backward_[at];
            values[at + offset] = (head + forward_[at + width - 1]) / static_cast<double>(width);
        }
        if (!wrapped_)
            smooth_ends(values);
    }

  private:
    // A circle is laid out with its neighbours on both sides.
    void copy_line(std::span<const double> values) {
        for (std::size_t i = 0; i < line_.size(); ++i)
            line_[i] = values[wrapped_ ? (i + count_ - half_) % count_ : i];
    }

    void sum_blocks() {
        const std::size_t width = 2 * half_ + 1;
        for (std::size_t i = 0; i < line_.size(); ++i)
            forward_[i] = line_[i] + (i % width == 0 ? 0.0 : forward_[i - 1]);
        for (std::size_t i = line_.size(); i-- > 0;)
            backward_[i] =
                line_[i] + ((i + 1) % width == 0 || i + 1 == line_.size() ? 0.0 : backward_[i + 1]);
    }

    void smooth_ends(std::span<double> values) const {
        double left = 0.0, right = 0.0;
        for (std::size_t i = 0; i < half_; ++i) {
            const std::size_t last = count_ - 1;
            left += line_[2 * i] + (i > 0 ? line_[2 * i - 1] : 0.0);
            right += line_[last - 2 * i] + (i > 0 ? line_[last - 2 * i + 1] : 0.0);
            values[i] = left / static_cast<double>(2 * i + 1);
            values[last - i] = right / static_cast<double>(2 * i + 1);
        }
    }

    std::size_t count_, half_;
    bool wrapped_;
    std::vector<double> line_, forward_, backward_;
};

int check_width(int cn, int width, int most) {
    if (width >= 1 && width <= most && width % 2 == 1)
        return 0;
    sv_printf(cn, "! Width should be odd and in range 1 to %d, not %d\n", most, width);
    return -1;
}

bool smooth_rows(int cn, const module_view &from, int frame, std::vector<double> &plane, int half,
                 umaths_progress &progress) {
    const std::size_t nx = static_cast<std::size_t>(from.num_x);
    line_smoother smoother(nx, static_cast<std::size_t>(half), false);
    for (int y = 0; y < from.num_y; ++y) {
        if (!progress.go_on(cn, 2LL * frame, 2LL * from.num_t))
            return false;
        const std::span<double> row = std::span(plane).subspan(static_cast<std::size_t>(y) * nx, nx);
        umaths_get_elements(from, 0, y, frame, row);
        smoother.smooth(row);
    }
    return true;
}

// Columns are taken eight at a time: a line of the cache that is loaded for one holds its neighbours, too.
bool smooth_columns(int cn, const module_view &from, int frame, std::vector<double> &plane, int half,
                    umaths_progress &progress) {
    constexpr std::size_t at_once = 8;
    const std::size_t nx = static_cast<std::size_t>(from.num_x), ny = static_cast<std::size_t>(from.num_y);
    line_smoother smoother(ny, static_cast<std::size_t>(half), false);
    std::vector<double> columns(at_once * ny);
    for (std::size_t x = 0; x < nx; x += at_once) {
        const std::size_t taken = std::min(at_once, nx - x);
        if (!progress.go_on(cn, 2LL * frame + 1, 2LL * from.num_t))
            return false;
        for (std::size_t y = 0; y < ny; ++y)
            for (std::size_t k = 0; k < taken; ++k)
                columns[k * ny + y] = plane[y * nx + x + k];
        for (std::size_t k = 0; k < taken; ++k)
            smoother.smooth(std::span(columns).subspan(k * ny, ny));
        for (std::size_t y = 0; y < ny; ++y)
            for (std::size_t k = 0; k < taken; ++k)
                plane[y * nx + x + k] = columns[k * ny + y];
    }
    return true;
}

constexpr pt_format smooth_format("%s %d %d %d %d %d wrapped = %d");

// Points first to last of a row, averaged over `width` points, into another row.
int umaths_smooth(int quals, int cn, const char *name, int first, int last, int row, int to_row, int width) {
    const pt_qualifiers<smooth_format> q(quals);
    linked_module module;
    if (umaths_link_module(cn, name, module) != 0 || umaths_check_row(cn, "Row", module, row) != 0 ||
        umaths_check_row(cn, "Destination Row", module, to_row) != 0)
        return -1;
    const int nx = module.view.num_x;
    if (first < 0 || last >= nx || first > last) {
        sv_printf(cn, "! First and last should be in range 0 to %d, not %d, %d\n", nx - 1, first, last);
        return -1;
    }
    const int count = last - first + 1;
    if (check_width(cn, width, count) != 0)
        return -1;
    std::vector<double> values(static_cast<std::size_t>(count));
    umaths_get_elements(module.view, first, row, 0, values);
    line_smoother(values.size(), static_cast<std::size_t>(width / 2), q.given("wrapped")).smooth(values);
    umaths_put_elements(module.view, first, to_row, 0, values);
    return 0;
}

int umaths_smooth2d(int, int cn, const char *from_name, const char *to_name, int width) {
    linked_module from;
    result_module to;
    if (umaths_link_module(cn, from_name, from) != 0)
        return -1;
    const module_view &view = from.view;
    if (check_width(cn, width, std::max(view.num_x, view.num_y)) != 0 ||
        umaths_module_like(cn, to_name, view,
                           view.data_type == MOD_DOUBLE ? mod_element::float64 : mod_element::float32,
                           to) != 0)
        return -1;
    const std::size_t nx = static_cast<std::size_t>(view.num_x), ny = static_cast<std::size_t>(view.num_y);
    std::vector<double> plane(nx * ny);
    umaths_progress progress;
    for (int frame = 0; frame < view.num_t; ++frame) {
        if (!smooth_rows(cn, view, frame, plane, width / 2, progress) ||
            !smooth_columns(cn, view, frame, plane, width / 2, progress))
            return -1;
        to.keep();
        for (int y = 0; y < view.num_y; ++y)
            umaths_put_elements(to.view(), 0, y, frame,
                                std::span(plane).subspan(static_cast<std::size_t>(y) * nx, nx));
    }
    return 0;
}

} // namespace

extern constinit const PARSE_TREE row_maths_smooth = pt_command<umaths_smooth>(
    "smooth", smooth_format, "Smooth 1 row data in data module",
    "Module name/First point/Last point/Row number/Destination row/Width in points (odd)/"
    "Treat first to last as a circle");

extern constinit const PARSE_TREE row_maths_smooth2d =
    pt_command<umaths_smooth2d>("smooth2d", "%s %s %d = %d", "Smooth Entire 2D data module",
                                "Source module/Destination module/Width in points (odd)");

} // namespace kestrel
