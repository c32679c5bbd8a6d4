// display: the modules of this machine as a reader sees them. A module is read with pread from its object, opened for
// reading: another process that cuts it short costs a short read, never a fatal signal, and nothing can be changed.
#pragma once

#include "modules/store/kestrel_module.h"
#include "support/fd.h"

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

    bool operator==(const seen_module &) const;
};

// Those with a header that is whole, by name. What `before` knew of changes is carried on.
std::vector<seen_module> look_at_modules(const std::vector<seen_module> &before);

// A module that is open for reading; the shape is that of this moment.
struct open_module {
    unique_fd fd;
    kestrel_module shape{};
};
// Without a descriptor when there is no such module, or none that can be read.
open_module open_for_reading(std::string_view name);

// Row (y, t), elements x0 .. x0 + out.size() - 1, as doubles; false when the object ends before. The caller has held the
// numbers to the shape. `scratch` is memory that is kept from row to row.
bool read_row(const open_module &module, std::size_t y, std::size_t t, std::size_t x0,
              std::vector<double> &out, std::vector<std::byte> &scratch);

} // namespace kestrel::display
