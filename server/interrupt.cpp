#include "server/interrupt.h"

#include "server/output.h"

#include <pthread.h>

namespace kestrel {

volatile std::sig_atomic_t sv_quit = 0;
void (*user_quit_handler)(int) = nullptr;

namespace {

const pthread_t command_thread = pthread_self(); // static initialisation runs on the main thread

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
    if (user_quit_handler)
        user_quit_handler(0);
}

int sv_poll_quit(int cn) {
    sv_flush_all(cn);
    return sv_quit;
}

} // namespace kestrel
