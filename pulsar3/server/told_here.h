// pulsar3/server: what the library tells while a command works goes to who gave the command; otherwise it goes to who
// configured the path.
#pragma once

#include "pulsar3/lib/paths/system.h"
#include "server/session.h"

namespace kestrel {

class told_here {
  public:
    told_here(int path, int cn) : path_(plr3_path(path)), before_(path_ ? path_->message_to : -1) {
        if (path_)
            path_->message_to = cn;
    }
    told_here(const told_here &) = delete;
    told_here &operator=(const told_here &) = delete;
    ~told_here() {
        if (path_)
            path_->message_to = sv_is_valid(before_) ? before_ : -1; // its session may have ended meanwhile
    }

  private:
    PLR3Path *path_;
    int before_;
};

} // namespace kestrel
