#include "server/session_watch.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sched.h>
#include <sys/epoll.h>
#include <utility>

namespace kestrel {

namespace {

constexpr std::uint32_t other = 1U << 16; // added to descriptors that are not sessions

epoll_event event_of(int cn, bool room) {
    epoll_event event{};
    event.events = room ? EPOLLOUT : EPOLLIN;
    event.data.u32 = static_cast<std::uint32_t>(cn);
    return event;
}

} // namespace

bool session_watch::open() {
    set_.reset(::epoll_create1(EPOLL_CLOEXEC));
    return static_cast<bool>(set_);
}

bool session_watch::add(int cn, int fd) {
    room_[static_cast<std::size_t>(cn)] = false;
    epoll_event event = event_of(cn, false);
    return ::epoll_ctl(set_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

void session_watch::watch_for(int cn, int fd, bool room) {
    bool &watched = room_[static_cast<std::size_t>(cn)];
    epoll_event event = event_of(cn, room);
    if (watched != room && ::epoll_ctl(set_.get(), EPOLL_CTL_MOD, fd, &event) == 0)
        watched = room;
}

void session_watch::watch_others(const fd_set &set, int highest) {
    if (std::memcmp(&set, &others_, sizeof set) == 0)
        return;
    for (int fd = 0; fd <= std::max(highest, highest_other_); ++fd) {
        const bool wanted = FD_ISSET(fd, &set), watched = FD_ISSET(fd, &others_);
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u32 = other + static_cast<std::uint32_t>(fd);
        if (wanted != watched)
            ::epoll_ctl(set_.get(), wanted ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, fd, &event);
    }
    others_ = set;
    highest_other_ = highest;
}

// Looks again and again for a while, and leaves the processor to whoever wants it in between. 0: nothing came.
int session_watch::look_awake(std::span<epoll_event> events, clock::time_point until) {
    do {
        const int count = ::epoll_wait(set_.get(), events.data(), static_cast<int>(events.size()), 0);
        if (count != 0)
            return count;
        ::sched_yield();
    } while (clock::now() < until);
    return 0;
}

// To fall asleep and to be woken costs more than a line: where the next one came at once, the one after it is waited for
// awake.
int session_watch::look(std::span<epoll_event> events, int timeout_ms, clock::time_point &now) {
    const auto at_once = now + awake_for;
    int count = awake_ && timeout_ms != 0 ? look_awake(events, at_once) : 0;
    if (count == 0)
        count = ::epoll_wait(set_.get(), events.data(), static_cast<int>(events.size()), timeout_ms);
    now = clock::now();
    if (timeout_ms != 0)
        awake_ = count > 0 && now < at_once;
    return count;
}

bool session_watch::wait(int timeout_ms, clock::time_point &now) {
    epoll_event events[sv_max_clients];
    const int count = look(events, timeout_ms, now);
    ready_count_ = 0;
    if (std::exchange(any_other_, false))
        FD_ZERO(&others_ready_);
    for (int i = 0; i < count; ++i) {
        const std::uint32_t who = events[i].data.u32;
        if (who < other) {
            ready_[ready_count_++] = {static_cast<int>(who), room_[who]};
            continue;
        }
        FD_SET(who - other, &others_ready_);
        any_other_ = true;
    }
    std::sort(ready_.data(), ready_.data() + ready_count_, [](auto &a, auto &b) { return a.cn < b.cn; });
    return count >= 0;
}

} // namespace kestrel
