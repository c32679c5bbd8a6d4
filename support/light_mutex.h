// support: a mutex for a few instructions at a time, whose free lock and unlock are an atomic operation each and no call;
// who has to wait sleeps (U. Drepper, Futexes Are Tricky (2011), mutex 2).
#pragma once

#include <atomic>

namespace kestrel {

class light_mutex {
  public:
    void lock() {
        int before = open;
        if (state_.compare_exchange_strong(before, taken, std::memory_order_acquire))
            return;
        while (state_.exchange(waited_for, std::memory_order_acquire) != open)
            state_.wait(waited_for, std::memory_order_relaxed);
    }
    void unlock() {
        if (state_.exchange(open, std::memory_order_release) == waited_for)
            state_.notify_one();
    }

  private:
    static constexpr int open = 0, taken = 1, waited_for = 2;
    std::atomic<int> state_{open};
};

} // namespace kestrel
