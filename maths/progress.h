// maths: what a long command's loop does on the way: looks for ^C and shows how far it is.
#pragma once

#include <chrono>

namespace kestrel {

class umaths_progress {
  public:
    // To be called at every step; costs a look at the clock. False after "! Terminated by ^C".
    bool go_on(int cn, long long done, long long total);

  private:
    using clock = std::chrono::steady_clock;
    clock::time_point started_ = clock::now(), shown_ = started_;
    clock::time_point polled_{};
};

} // namespace kestrel
