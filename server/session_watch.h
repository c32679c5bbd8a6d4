// server: the sessions' sockets in one epoll set, so that silent sessions cost nothing in a turn of the loop.
// Used by the command thread. A closed socket leaves the set by itself: no other process keeps it open.
#pragma once

#include "server/session.h"
#include "support/fd.h"

#include <array>
#include <span>
#include <sys/epoll.h>

namespace kestrel {

class session_watch {
  public:
    // Makes the set: false with errno.
    bool open();

    // Readable for select while a socket of the set is ready.
    int descriptor() const { return set_.get(); }

    // Watches a new session's socket for what it sends. False with errno when the kernel cannot.
    bool add(int cn, int fd);

    // From now on the session's socket is watched for room to send, or again for what it sends.
    void watch_for(int cn, int fd, bool room);

    struct ready_session {
        int cn;
        bool room; // it was watched for room to send
    };
    // The sessions whose sockets are ready, in order of slots; good until the next call.
    std::span<const ready_session> ready();

  private:
    unique_fd set_;
    std::array<bool, sv_max_clients> room_{};
    std::array<epoll_event, sv_max_clients> events_;
    std::array<ready_session, sv_max_clients> ready_;
};

} // namespace kestrel
