#include "display/announced.h"

#include <algorithm>
#include <deque>
#include <mutex>

namespace kestrel::display {

namespace {

constexpr std::size_t kept = 100;

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

std::vector<announcement> announced_since(std::uint64_t number) {
    const std::lock_guard guard(mutex);
    std::vector<announcement> found;
    std::copy_if(announcements.begin(), announcements.end(), std::back_inserter(found),
                 [number](const announcement &a) { return a.number > number; });
    return found;
}

} // namespace kestrel::display
