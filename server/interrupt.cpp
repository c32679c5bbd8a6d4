#include "server/interrupt.h"

#include "server/output.h"

#include <atomic>
#include <chrono>
#include <pthread.h>
#include <thread>

namespace kestrel {

volatile std::sig_atomic_t sv_quit = 0;
void (*user_quit_handler)(int) = nullptr;

namespace {

const pthread_t command_thread = pthread_self(); // static initialisation runs on the main thread
std::atomic<unsigned> interrupts{0};             // that came, as other threads see them

} // namespace

bool sv_on_command_thread() {
    return pthread_equal(pthread_self(), command_thread) != 0;
}

void quit_handler(int signal) {
    // The kernel may choose any thread; the one that waits must wake.
    if (!sv_on_command_thread()) {
        pthread_kill(command_thread, signal);
        return;
    }
    sv_quit = sv_quit + 1;
    interrupts.fetch_add(1, std::memory_order_relaxed);
    if (user_quit_handler)
        user_quit_handler(0);
}

bool sv_interrupt_command_thread() {
    using steady = std::chrono::steady_clock;
    const unsigned before = interrupts;
    const auto end = steady::now() + std::chrono::milliseconds(100);
    if (pthread_kill(command_thread, SIGINT) != 0)
        return false;
    while (interrupts == before && steady::now() < end)
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    return interrupts != before;
}

int sv_poll_quit(int cn) {
    sv_flush_all(cn);
    return sv_quit;
}

} // namespace kestrel
