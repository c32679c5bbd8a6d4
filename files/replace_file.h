// files: files that are never half there, and the lock of those that several servers write.
#pragma once

#include "support/fd.h"

#include <string>
#include <string_view>
#include <sys/types.h>

namespace kestrel {

// The step that failed, with errno.
enum class replace_step { none, open, write, close };

// Writes the bytes beside the file and puts them in its place: a crash leaves the old contents or the new ones, a failure
// the old ones.
replace_step replace_file(const std::string &path, std::string_view bytes, mode_t mode);

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
