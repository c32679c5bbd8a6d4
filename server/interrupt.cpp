#include "server/interrupt.h"

#include "server/output.h"

#include <atomic>
#include <chrono>
#include <pthread.h>
#include <thread>

namespace kestrel {

static_assert(std::atomic<int>::is_always_lock_free); // a signal handler counts in it
std::atomic<int> sv_quit{0};
void (*user_quit_handler)(int) = nullptr;
std::atomic<std::uint64_t> sv_running_line{0};

namespace {

const pthread_t command_thread = pthread_self(); // static initialisation runs on the main thread
std::atomic<std::uint64_t> meant{0};             // the line that the next interrupt is for, 0: any
std::atomic<unsigned> interrupts{0}, missed{0};  // that came; whose line had ended

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
    const std::uint64_t line = meant.exchange(0);
    if (line != 0 && line != sv_running_line.load(std::memory_order_relaxed)) {
        missed.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    sv_quit.fetch_add(1, std::memory_order_relaxed);
    interrupts.fetch_add(1, std::memory_order_relaxed);
    if (user_quit_handler)
        user_quit_handler(0);
}

interrupt_result sv_interrupt_line(std::uint64_t line) {
    using steady = std::chrono::steady_clock;
    const unsigned came = interrupts, late = missed;
    const auto end = steady::now() + std::chrono::milliseconds(100);
    meant = line;
    if (pthread_kill(command_thread, SIGINT) != 0)
        return interrupt_result::no_answer;
    while (interrupts == came && missed == late && steady::now() < end)
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    if (interrupts != came)
        return interrupt_result::came;
    return missed != late ? interrupt_result::line_has_ended : interrupt_result::no_answer;
}

int sv_poll_quit(int cn) {
    sv_flush_all(cn);
    return sv_quit;
}

} // namespace kestrel
