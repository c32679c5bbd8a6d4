// files: the lock of files that several servers write.
#pragma once

#include "support/fd.h"

#include <string>

namespace kestrel {

// A lock file, made where it is missing and locked while this lives. It closes with its lock.
class lock_file {
  public:
    // Each 0, or -1 with errno and without a line. Another server that holds the lock does so for a few writes only; 10 s
    // are waited, or until ^C.
    int open(const std::string &path);
    int take(int cn);

  private:
    unique_fd fd_;
};

} // namespace kestrel
