#include "server/wait.h"

#include "server/interrupt.h"
#include "server/output.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>
#include <poll.h>

namespace kestrel {

namespace {

using clock = std::chrono::steady_clock;

// SIGINT stays blocked between looking at the count and going to sleep, so that none is missed.
class interrupts_blocked {
  public:
    interrupts_blocked() {
        sigset_t interrupt;
        sigemptyset(&interrupt);
        sigaddset(&interrupt, SIGINT);
        pthread_sigmask(SIG_BLOCK, &interrupt, &before);
    }
    ~interrupts_blocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    interrupts_blocked(const interrupts_blocked &) = delete;
    interrupts_blocked &operator=(const interrupts_blocked &) = delete;

    sigset_t before;
};

constexpr double longest_wait = 1e9; // seconds; a longer sleep is as good as this one

} // namespace

int sv_sleep(int cn, double seconds) {
    sv_flush_all(cn);
    if (!(seconds > 0.0))
        return sv_quit ? -1 : 0;
    const std::chrono::duration<double> wanted(std::min(seconds, longest_wait));
    const clock::time_point end = clock::now() + std::chrono::duration_cast<clock::duration>(wanted);
    const interrupts_blocked guard;
    for (;;) {
        if (sv_quit)
            return -1;
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(end - clock::now()).count();
        if (left <= 0)
            return 0;
        const timespec wait{left / 1'000'000'000, left % 1'000'000'000};
        ppoll(nullptr, 0, &wait, &guard.before);
    }
}

} // namespace kestrel
