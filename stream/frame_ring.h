// stream: the frames on their way to the broker: a bounded ring of payloads, and the account of every frame. No input or
// output here; one mutex of its owner guards it.
//
// A lane is what one card (or the scalers of all) gives in one run: frames 0, 1, 2, ... in this order, each of them once.
// Where the ring has no room for a payload, the oldest go; of such a frame only its number is kept until the broker
// has been told of it. So always: acquired = sent + lost + waiting.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrel::stream {

// Memory that is read into at once is not zeroed before.
template <class T> struct unzeroed : std::allocator<T> {
    template <class U> struct rebind { using other = unzeroed<U>; };
    template <class U> void construct(U *at) const { ::new (static_cast<void *>(at)) U; }
    template <class U, class... A> void construct(U *at, A &&...value) const {
        ::new (static_cast<void *>(at)) U(std::forward<A>(value)...);
    }
};

// What is told of a frame, and its counts. Shared: a frame that is being sent may lose its place in the ring meanwhile.
struct frame_contents {
    std::int64_t time_us = 0;    // since the epoch, when it was final
    std::string status, missing; // a channel each, "1,1,2": as in the status module, and the packets missing
    std::vector<std::byte, unzeroed<std::byte>> payload;
    std::uint32_t crc = 0;
};

// Neighbours whose payload was dropped lie together: `count` is 1 for all others.
struct waiting_frames {
    std::uint64_t first = 0, count = 1;
    std::int64_t time_us = 0;
    std::shared_ptr<const frame_contents> contents; // null: dropped
};

struct frame_account {
    std::uint64_t acquired = 0, sent = 0, lost = 0;
    std::uint64_t told() const { return sent + lost; }
    std::uint64_t waiting() const { return acquired - told(); }
    frame_account &operator+=(const frame_account &other) {
        acquired += other.acquired;
        sent += other.sent;
        lost += other.lost;
        return *this;
    }
};

class frame_ring {
  public:
    // `room`: bytes of payloads.
    explicit frame_ring(std::size_t room) : room_(room) {}

    using lane_number = std::uint64_t;
    // A new lane, whose first frames the broker knows already.
    lane_number add_lane(const frame_account &known = {});
    void remove_lane(lane_number lane);

    // The lane's next frame.
    void acquire(lane_number lane, std::shared_ptr<const frame_contents> contents);

    // The next frame to tell of, `ahead` frames behind the first that waits.
    struct next_frame {
        std::uint64_t frame = 0;
        std::int64_t time_us = 0;
        std::shared_ptr<const frame_contents> contents;
    };
    std::optional<next_frame> next(lane_number lane, std::uint64_t ahead) const;
    // The broker knows of the first that waits, with or without a payload.
    void told(lane_number lane, bool lost);

    const frame_account &account(lane_number lane) const { return lane_of(lane).account; }
    std::size_t bytes() const { return bytes_; }
    std::size_t room() const { return room_; }

  private:
    struct lane_state {
        frame_account account;
        std::deque<waiting_frames> waiting;
    };
    lane_state &lane_of(lane_number lane) { return lanes_.at(lane); }
    const lane_state &lane_of(lane_number lane) const { return lanes_.at(lane); }
    void drop_oldest();

    std::size_t room_, bytes_ = 0;
    std::map<lane_number, lane_state> lanes_;
    lane_number next_lane_ = 0;
};

} // namespace kestrel::stream
