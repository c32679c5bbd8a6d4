// support: whether a descriptor is ready at this moment.
#pragma once

#include <cerrno>
#include <poll.h>

namespace kestrel {

// 1 when one of the events, an error or a hang-up is there now, 0 when not, -1 when the system cannot tell
// (errno). A signal is no answer: the system is asked again.
inline int poll_now(int fd, short events) {
    pollfd descriptor{fd, events, 0};
    int told = 0;
    do
        told = ::poll(&descriptor, 1, 0);
    while (told < 0 && errno == EINTR);
    return told;
}

} // namespace kestrel
