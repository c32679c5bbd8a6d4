#include "support/owned_mutex.h"

#include <linux/membarrier.h>
#include <mutex>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace kestrel {

namespace {

bool membarrier(int command) {
    return ::syscall(SYS_membarrier, command, 0, 0) == 0;
}

} // namespace

const pthread_t owned_mutex::owner = pthread_self(); // static initialisation runs on the first thread
// Where the kernel does not offer the barrier, the mutexes are ordinary ones from the start.
std::atomic<bool> owned_mutex::shared_{!membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED)};

// Behind the barrier the owner has seen that the mutexes are shared, or its taking one is seen here.
void owned_mutex::wait_for_owner() const {
    static const bool told = [] {
        if (!shared_.exchange(true))
            membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED); // cannot fail once registered
        return true;
    }();
    static_cast<void>(told);
    while (owner_has_it_.load(std::memory_order_acquire))
        std::this_thread::yield();
}

} // namespace kestrel
