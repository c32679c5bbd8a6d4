// server: what the network loop waits for, in one epoll set: the sessions' sockets, of which silent ones cost
// nothing, and the few other descriptors. Used by the command thread. A closed socket leaves the set by itself:
// no other process keeps it open.
#pragma once

#include "server/session.h"
#include "support/fd.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <span>
#include <sys/epoll.h>
#include <sys/select.h>

namespace kestrel {

class session_watch {
  public:
    // Makes the set: false with errno.
    bool open();

    // The other descriptors that are watched for reading: those of this set, whatever they were before.
    void watch_others(const fd_set &set, int highest);

    // Watches a new session's socket for what it sends. False with errno when the kernel cannot.
    bool add(int cn, int fd);

    // From now on the session's socket is watched for room to send, or again for what it sends.
    void watch_for(int cn, int fd, bool room);

    struct ready_session {
        int cn;
        bool room; // it was watched for room to send
    };
    // Waits until a descriptor is ready, or that long; `now` is when it begins, and then when it ended. False with errno.
    using clock = std::chrono::steady_clock;
    bool wait(int timeout_ms, clock::time_point &now);
    // What the last wait found: the sessions, in order of slots, and which of the others.
    std::span<const ready_session> sessions() const { return {ready_.data(), ready_count_}; }
    const fd_set &others() const { return others_ready_; }
    bool any_other() const { return any_other_; }

  private:
    static constexpr std::chrono::microseconds awake_for{100};
    int look(std::span<epoll_event> events, int timeout_ms, clock::time_point &now);
    int look_awake(std::span<epoll_event> events, clock::time_point until);

    unique_fd set_;
    bool awake_ = false; // what was waited for last came at once
    std::array<bool, sv_max_clients> room_{};
    std::array<ready_session, sv_max_clients> ready_;
    std::size_t ready_count_ = 0;
    fd_set others_{};
    fd_set others_ready_{};
    bool any_other_ = false;
    int highest_other_ = -1;
};

} // namespace kestrel
