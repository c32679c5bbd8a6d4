#include "stream/frame_ring.h"

#include <algorithm>

namespace kestrel::stream {

namespace {

std::size_t bytes_of(const waiting_frames &frames) {
    return frames.contents ? frames.contents->payload.size() : 0;
}

// The entry at `at` becomes one with its neighbour behind it, where neither has a payload.
void join(std::deque<waiting_frames> &waiting, std::size_t at) {
    if (at + 1 >= waiting.size() || waiting[at].contents || waiting[at + 1].contents)
        return;
    waiting[at].count += waiting[at + 1].count;
    waiting.erase(waiting.begin() + static_cast<std::ptrdiff_t>(at) + 1);
}

void drop(std::deque<waiting_frames> &waiting, std::size_t at) {
    waiting[at].contents.reset();
    join(waiting, at);
    if (at > 0)
        join(waiting, at - 1);
}

} // namespace

frame_ring::lane_number frame_ring::add_lane(const frame_account &known) {
    lanes_[next_lane_].account = known;
    return next_lane_++;
}

void frame_ring::remove_lane(lane_number lane) {
    for (const waiting_frames &w : lane_of(lane).waiting)
        bytes_ -= bytes_of(w);
    lanes_.erase(lane);
}

void frame_ring::acquire(lane_number number, std::shared_ptr<const frame_contents> contents) {
    lane_state &lane = lane_of(number);
    lane.waiting.push_back({lane.account.acquired++, 1, contents->time_us, std::move(contents)});
    bytes_ += bytes_of(lane.waiting.back());
    while (bytes_ > room_)
        drop_oldest();
}

void frame_ring::drop_oldest() {
    lane_state *from = nullptr;
    std::size_t at = 0;
    for (auto &[number, lane] : lanes_) {
        const auto oldest = std::ranges::find_if(lane.waiting, [](const auto &w) { return bytes_of(w) > 0; });
        if (oldest == lane.waiting.end() || (from && oldest->time_us >= from->waiting[at].time_us))
            continue;
        from = &lane;
        at = static_cast<std::size_t>(oldest - lane.waiting.begin());
    }
    bytes_ -= bytes_of(from->waiting[at]); // there is one: the bytes are some entry's
    drop(from->waiting, at);
}

std::optional<frame_ring::next_frame> frame_ring::next(lane_number number, std::uint64_t ahead) const {
    const lane_state &lane = lane_of(number);
    const std::uint64_t frame = lane.account.told() + ahead;
    const auto at = std::ranges::partition_point(
        lane.waiting, [frame](const waiting_frames &w) { return w.first + w.count <= frame; });
    return at == lane.waiting.end() ? std::nullopt
                                    : std::optional(next_frame{frame, at->time_us, at->contents});
}

void frame_ring::told(lane_number number, bool lost) {
    lane_state &lane = lane_of(number);
    ++(lost ? lane.account.lost : lane.account.sent);
    waiting_frames &front = lane.waiting.front();
    bytes_ -= bytes_of(front);
    front.contents.reset();
    ++front.first;
    if (--front.count == 0)
        lane.waiting.pop_front();
}

} // namespace kestrel::stream
