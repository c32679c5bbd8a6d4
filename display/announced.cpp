#include "display/announced.h"

#include <deque>
#include <mutex>

namespace kestrel::display {

namespace {

constexpr std::size_t kept = 16;

std::mutex mutex;
std::deque<announcement> announcements;
std::uint64_t last = 0;

} // namespace

void announce(const std::string &module, const std::string &how) {
    const std::lock_guard guard(mutex);
    announcements.push_back({++last, module, how});
    if (announcements.size() > kept)
        announcements.pop_front();
}

std::vector<announcement> last_announcements() {
    const std::lock_guard guard(mutex);
    return {announcements.begin(), announcements.end()};
}

} // namespace kestrel::display
