// display: the modules of this machine as a reader sees them.
#pragma once

#include "modules/store/read_module.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel::display {

struct seen_module {
    std::string name;
    std::string title{}, x_label{}, y_label{}, t_label{}, z_label{}; // control characters as "?"
    kestrel_module shape{};
    std::int64_t changed_ms =
        0; // since the epoch, when a look at its samples found others; 0: not since we look
    std::vector<std::string> frame_labels{};
};

// Those with a header that is whole, by name. What `before` knew of changes is carried on.
std::vector<seen_module> look_at_modules(const std::vector<seen_module> &before);

// Row (y, t), elements x0 .. x0 + out.size() - 1, as doubles; false when the object ends before. The caller has held the
// numbers to the shape. `scratch` is memory that is kept from row to row.
bool read_row(const open_module &module, std::size_t y, std::size_t t, std::size_t x0,
              std::vector<double> &out, std::vector<std::byte> &scratch);

} // namespace kestrel::display
