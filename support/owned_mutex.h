// support: a mutex that one thread, the program's first, takes nearly always. While no other thread ever took any, it
// takes and gives them back without a locked operation; the first other one to come waits for it with membarrier(2), and
// from then on all are ordinary mutexes (D. Dice, M. Moir, W. Scherer, Quickly Reacquirable Locks (2003)).
#pragma once

#include "support/light_mutex.h"

#include <atomic>
#include <pthread.h>

namespace kestrel {

class owned_mutex {
  public:
    void lock() {
        if (pthread_self() == owner) {
            owner_has_it_.store(true, std::memory_order_relaxed);
            std::atomic_signal_fence(
                std::memory_order_seq_cst); // membarrier makes this one for the processor
            if (!shared_.load(std::memory_order_acquire))
                return;
            owner_has_it_.store(false, std::memory_order_release);
        } else {
            wait_for_owner();
        }
        mutex_.lock();
    }
    void unlock() {
        if (pthread_self() == owner && owner_has_it_.load(std::memory_order_relaxed))
            owner_has_it_.store(false, std::memory_order_release);
        else
            mutex_.unlock();
    }

  private:
    static const pthread_t owner;
    static std::atomic<bool> shared_; // another thread has taken one, or wants to

    void wait_for_owner() const;

    std::atomic<bool> owner_has_it_{false}; // without mutex_
    light_mutex mutex_;
};

} // namespace kestrel
