#include "unified/corrections.h"

#include "modules/store/view.h"
#include "server/output.h"

#include <algorithm>

namespace kestrel {

namespace {

constexpr int live_time_row = 3; // of the times module: live times scaled by laps x starts, in seconds

std::size_t count_of(int n) {
    return static_cast<std::size_t>(n);
}

} // namespace

int corrector::prepare(int cn, int handle, const unified_box &box, bool dead_time) {
    const auto info = unified_info_of(handle);
    const auto correction = unified_correction_of(handle);
    if (!info || !correction)
        return -1;
    box_ = box;
    path_ = info->path;
    type_ = correction->type;
    order_ = correction->order;
    scale_ = correction->scaling;
    hook_ = correction->pre_post;
    if (type_ != corr_none && correction->module != nullptr && take_module(cn, *correction, box) != 0)
        return -1;
    if (type_ != corr_none && correction->module == nullptr)
        for (int k = 0; k <= order_; ++k) {
            const float *row = correction->data + count_of(k) * count_of(info->nx) + box.x;
            coefficients_.insert(coefficients_.end(), row, row + box.dx);
        }
    return dead_time ? take_live_times(cn, box) : 0;
}

int corrector::take_module(int cn, const unified_correction &correction, const unified_box &box) {
    module_view view;
    const std::string &name = correction.title;
    if (mod_look(cn, name.c_str(), correction.module, view) != 0)
        return -1;
    if (!view.holds(box.x + box.dx - 1, order_, correction.frame)) {
        sv_printf(
            cn, "! ERROR: correction module '%s' is (%d, %d, %d) and has no point %d of row %d, frame %d\n",
            name.c_str(), view.num_x, view.num_y, view.num_t, box.x + box.dx - 1, order_, correction.frame);
        return -1;
    }
    for (int k = 0; k <= order_; ++k)
        for (int x = box.x; x < box.x + box.dx; ++x)
            coefficients_.push_back(mod_get_element(view.at(x, k, correction.frame), view.data_type));
    return 0;
}

int corrector::take_live_times(int cn, const unified_box &box) {
    const char *name = unified_dtc_module().c_str();
    const module_link link(name);
    if (!link) {
        sv_printf(cn, "! ERROR: dead time correction: cannot link to module '%s'\n", name);
        return -1;
    }
    module_view view;
    if (mod_look(cn, name, link.head(), view) != 0)
        return -1;
    if (!view.holds(box.t + box.dt - 1, live_time_row, 0)) {
        sv_printf(cn, "! ERROR: dead time correction: module '%s' (%d, %d) has no live time of frame %d\n",
                  name, view.num_x, view.num_y, box.t + box.dt - 1);
        return -1;
    }
    for (int t = box.t; t < box.t + box.dt; ++t)
        live_times_.push_back(mod_get_element(view.at(t, live_time_row, 0), view.data_type));
    const auto without =
        std::count_if(live_times_.begin(), live_times_.end(), [](double l) { return !(l > 0); });
    if (without > 0)
        sv_printf(cn, "# Warning: %d of %d frames have no live time in module '%s', their data become 0\n",
                  static_cast<int>(without), box.dt, name);
    return 0;
}

std::span<const double> corrector::coefficients(int order, int x, std::size_t count) const {
    const std::size_t first = count_of(order) * count_of(box_.dx) + count_of(x - box_.x);
    return std::span(coefficients_).subspan(first, count);
}

void corrector::correct(std::span<double> row, int x) const {
    const std::size_t n = row.size();
    if (type_ == corr_mult1d || type_ == corr_div1d) {
        const auto c = coefficients(0, x, n);
        for (std::size_t i = 0; i < n; ++i)
            row[i] = type_ == corr_mult1d ? row[i] * c[i] : c[i] == 0.0 ? 0.0 : row[i] / c[i];
        return;
    }
    for (std::size_t i = 0; i < n; ++i) {
        const auto c = [&](int k) {
            return coefficients_[count_of(k) * count_of(box_.dx) + count_of(x - box_.x) + i];
        };
        const double v = row[i];
        if (type_ == corr_poly1d) { // Horner's rule
            double sum = c(order_);
            for (int k = order_ - 1; k >= 0; --k)
                sum = sum * v + c(k);
            row[i] = sum;
            continue;
        }
        // Clenshaw's recurrence: Math. Tables Aids Comput. 9 (1955) 118
        const double u = v * scale_;
        double b1 = 0.0;
        double b2 = 0.0;
        for (int k = order_; k >= 1; --k) {
            const double b = 2.0 * u * b1 - b2 + c(k);
            b2 = b1;
            b1 = b;
        }
        row[i] = u * b1 - b2 + c(0);
    }
}

void corrector::apply(std::span<double> row, int x, int y, int t) const {
    if (type_ != corr_none) {
        if (hook_ != nullptr)
            hook_(path_, 0, row, x, y, t);
        correct(row, x);
        if (hook_ != nullptr)
            hook_(path_, 1, row, x, y, t);
    }
    if (live_times_.empty())
        return;
    const double live = live_times_[count_of(t - box_.t)];
    for (double &value : row)
        value = live > 0.0 ? value / live : 0.0;
}

} // namespace kestrel
