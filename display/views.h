// display: what a browser looks at: a box of a module, cut down to what its screen can show. Browsers that look at the
// same share one view, which is worked out once a tick.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel::display {

// From..to of each axis, both inside; larger numbers than there are mean the last. Rows are y fastest, then t.
struct view_request {
    std::string module;
    std::uint32_t x0 = 0, x1 = 0, y0 = 0, y1 = 0, t0 = 0, t1 = 0;
    std::uint32_t columns = 1, rows = 1; // no more are sent: the maximum of those that share one

    auto operator<=>(const view_request &) const = default;
};

// "NAME x0 x1 y0 y1 t0 t1 columns rows", the name with %XX for what is no letter; nothing for anything else.
std::optional<view_request> parse_view(std::string_view text);

// In front of the elements, little endian as the machine is; all before it is the web's.
struct view_head {
    double read_at_ms = 0; // since the epoch
    std::uint32_t element_size = 8, columns = 0, rows = 0, number = 0;
    std::uint32_t x0 = 0, x1 = 0, y0 = 0, y1 = 0, t0 = 0, t1 = 0;
    std::uint32_t num_x = 0, num_y = 0, num_t = 0, spare = 0;
};
static_assert(sizeof(view_head) == 64);

struct view {
    view_request request;
    std::uint32_t number = 0;                    // of the newest contents; 0: there are none
    std::chrono::steady_clock::time_point due{}; // of the next contents, in the mean
    std::shared_ptr<const std::string>
        contents; // view_head and elements; columns and rows 0: no such module, or no room
};

class view_table {
  public:
    // The view of that request; the next refresh works it out when it is new.
    std::shared_ptr<view> find(const view_request &request);
    // Works out all that somebody still has, but for those that have just changed; in turns, when that is more than a tick
    // has time for, and in a quarter of a processor's time at most, however large the views are.
    void refresh();

  private:
    std::map<view_request, std::weak_ptr<view>> views_;
    view_request last_;                                  // that was worked out
    std::chrono::steady_clock::time_point rest_until_{}; // the next refresh does nothing before
};

} // namespace kestrel::display
