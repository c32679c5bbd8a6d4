// display: what servers have announced over the link: modules to show, and how. The command thread notes it, the web's
// thread tells the pages.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel::display {

struct announcement {
    std::uint64_t number = 0;
    std::string module;
    std::string how; // "config", "display1d", "display2d" or "shape"
};

void announce(const std::string &module, const std::string &how);
// The last few, oldest first.
std::vector<announcement> last_announcements();

} // namespace kestrel::display
