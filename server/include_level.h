// server: which include file a session reads its lines from, and how deep that file lies in others.
#pragma once

#include "server/script_file.h"

namespace kestrel {

struct session_script {
    int include_lvl = 0;
    int include_top_path = -1;      // the session's own input, while include files run
    script_file *include = nullptr; // the running include file; null outside
};

int sv_get_include_lvl(int cn);

// The running include file; null outside.
script_file *sv_get_include(int cn);

// The session reads the file while this stands. What the session read before comes back, unless it has ended.
class include_level {
  public:
    include_level(int cn, script_file &file);
    ~include_level();
    include_level(const include_level &) = delete;
    include_level &operator=(const include_level &) = delete;

  private:
    int cn_;
    script_file *outer_;
    int outer_in_;
};

} // namespace kestrel
