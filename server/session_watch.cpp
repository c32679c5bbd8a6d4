#include "server/session_watch.h"

#include <algorithm>
#include <cstdint>

namespace kestrel {

namespace {

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

std::span<const session_watch::ready_session> session_watch::ready() {
    const int count = ::epoll_wait(set_.get(), events_.data(), static_cast<int>(events_.size()), 0);
    const std::size_t some = static_cast<std::size_t>(std::max(count, 0));
    for (std::size_t i = 0; i < some; ++i) {
        const int cn = static_cast<int>(events_[i].data.u32);
        ready_[i] = {cn, room_[static_cast<std::size_t>(cn)]};
    }
    const std::span<ready_session> found(ready_.data(), some);
    std::sort(found.begin(), found.end(), [](auto &a, auto &b) { return a.cn < b.cn; });
    return found;
}

} // namespace kestrel
