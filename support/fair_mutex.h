// support: a mutex that serves its waiters in turn, so that a thread that takes it again and again starves nobody.
#pragma once

#include <atomic>

namespace kestrel {

class fair_mutex {
  public:
    void lock() {
        const unsigned mine = next_.fetch_add(1, std::memory_order_relaxed);
        for (;;) {
            const unsigned now = serving_.load(std::memory_order_acquire);
            if (now == mine)
                return;
            serving_.wait(now, std::memory_order_acquire);
        }
    }
    void unlock() {
        serving_.fetch_add(1, std::memory_order_release);
        serving_.notify_all();
    }

  private:
    std::atomic<unsigned> next_{0};
    std::atomic<unsigned> serving_{0};
};

} // namespace kestrel
