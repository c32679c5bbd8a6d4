#include "server/interrupt.h"

#include "server/output.h"
#include "server/session.h"

#include <cerrno>
#include <chrono>
#include <poll.h>
#include <pthread.h>

namespace kestrel {

volatile std::sig_atomic_t sv_quit = 0;
void (*user_quit_handler)(int) = nullptr;

namespace {

const pthread_t command_thread = pthread_self();

// SIGINT stays blocked outside ppoll while this lives, so that none falls between the check and the sleep.
class interrupts_held {
  public:
    interrupts_held() {
        sigset_t held;
        sigemptyset(&held);
        sigaddset(&held, SIGINT);
        pthread_sigmask(SIG_BLOCK, &held, &before_);
    }
    ~interrupts_held() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    interrupts_held(const interrupts_held &) = delete;
    interrupts_held &operator=(const interrupts_held &) = delete;
    const sigset_t *before() const { return &before_; }

  private:
    sigset_t before_;
};

} // namespace

void quit_handler(int signal) {
    // The kernel may choose any thread; the one that waits must wake.
    if (!pthread_equal(pthread_self(), command_thread)) {
        pthread_kill(command_thread, signal);
        return;
    }
    sv_quit = sv_quit + 1;
    if (user_quit_handler)
        user_quit_handler(0);
}

int sv_poll_quit(int cn) {
    sv_flush_all(cn);
    return sv_quit;
}

wait_result sv_wait_fd(int fd, short events, int timeout_ms) {
    using std::chrono::steady_clock;
    const auto end = steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    const interrupts_held held;
    for (;;) {
        if (sv_quit > 0)
            return wait_result::interrupted;
        timespec left{};
        if (timeout_ms >= 0) {
            const auto ns = std::chrono::nanoseconds(end - steady_clock::now()).count();
            left.tv_sec = ns > 0 ? ns / 1'000'000'000 : 0;
            left.tv_nsec = ns > 0 ? ns % 1'000'000'000 : 0;
        }
        pollfd p{fd, events, 0};
        const int n = ::ppoll(&p, 1, timeout_ms < 0 ? nullptr : &left, held.before());
        if (n > 0)
            return wait_result::ready;
        if (n == 0)
            return wait_result::timeout;
        if (errno != EINTR)
            return wait_result::ready; // the read or write that follows tells why
    }
}

} // namespace kestrel
