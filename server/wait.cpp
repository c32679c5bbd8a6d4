#include "server/wait.h"

#include "server/interrupt.h"
#include "server/output.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <optional>
#include <poll.h>

namespace kestrel {

namespace {

using steady = std::chrono::steady_clock;

constexpr double longest_sleep = 1e9; // seconds; a longer sleep is as good as this one

// SIGINT stays blocked between looking at the count and going to sleep, so that none is missed.
class interrupts_blocked {
  public:
    interrupts_blocked() {
        sigset_t interrupt;
        sigemptyset(&interrupt);
        sigaddset(&interrupt, SIGINT);
        pthread_sigmask(SIG_BLOCK, &interrupt, &before_);
    }
    ~interrupts_blocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    interrupts_blocked(const interrupts_blocked &) = delete;
    interrupts_blocked &operator=(const interrupts_blocked &) = delete;
    const sigset_t *before() const { return &before_; }

  private:
    sigset_t before_;
};

timespec time_left(steady::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(end - steady::now()).count();
    return left > 0 ? timespec{left / 1'000'000'000, left % 1'000'000'000} : timespec{};
}

// Until one of `count` descriptors is ready, the time has come (without an end, never), or there are more
// than `seen` interrupts.
wait_result wait_until(pollfd *descriptors, nfds_t count, std::optional<steady::time_point> end,
                       int seen = 0) {
    const interrupts_blocked guard;
    for (;;) {
        if (sv_quit > seen)
            return wait_result::interrupted;
        const timespec left = end ? time_left(*end) : timespec{};
        const int n = ::ppoll(descriptors, count, end ? &left : nullptr, guard.before());
        if (n == 0)
            return wait_result::timeout;
        if (n > 0 || errno != EINTR)
            return wait_result::ready; // the read or write that follows tells what is wrong
    }
}

} // namespace

wait_result sv_wait_fd(int fd, short events, int timeout_ms) {
    return sv_wait_fd_again(fd, events, timeout_ms, 0);
}

wait_result sv_wait_fd_again(int fd, short events, int timeout_ms, int seen) {
    pollfd descriptor{fd, events, 0};
    if (timeout_ms < 0)
        return wait_until(&descriptor, 1, std::nullopt, seen);
    return wait_until(&descriptor, 1, steady::now() + std::chrono::milliseconds(timeout_ms), seen);
}

int sv_sleep(int cn, double seconds) {
    sv_flush_all(cn);
    if (!(seconds > 0.0))
        return sv_quit ? -1 : 0;
    const std::chrono::duration<double> wanted(std::min(seconds, longest_sleep));
    const auto end = steady::now() + std::chrono::duration_cast<steady::duration>(wanted);
    return wait_until(nullptr, 0, end) == wait_result::interrupted ? -1 : 0;
}

} // namespace kestrel
