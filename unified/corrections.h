// unified: what is done to data between reading and conversion: the handle's correction, then dead time.
// Everything is computed in double precision, row by row.
#pragma once

#include "unified/handles/handles.h"

#include <span>
#include <vector>

namespace kestrel {

class corrector {
  public:
    // Takes what the box needs of the correction module (if the handle has one) and, with `dead_time`, the
    // frames' live times. 0, or -1 after a message.
    int prepare(int cn, int handle, const unified_box &box, bool dead_time);

    bool active() const { return type_ != corr_none || !live_times_.empty(); }

    // Corrects values that start at (x, y, t) of the handle and lie in one row of the box.
    void apply(std::span<double> row, int x, int y, int t) const;

  private:
    int take_module(int cn, const unified_correction &correction, const unified_box &box);
    int take_live_times(int cn, const unified_box &box);
    std::span<const double> coefficients(int order, int x, std::size_t count) const;
    void correct(std::span<double> row, int x) const;

    int type_ = corr_none;
    int order_ = 0;
    double scale_ = 1.0;
    int path_ = 0;
    unified_scale_hook hook_ = nullptr;
    unified_box box_;
    std::vector<double> coefficients_; // order_ + 1 rows of box_.dx
    std::vector<double> live_times_;   // seconds, a frame of the box
};

} // namespace kestrel
