// instruments/timing: the module `kairo_times`, a column for each frame: dead and live time in rows 0 and 1, in rows 2
// and 3 the same times laps x starts, all in seconds. The local module is a copy of the remote server's. Command thread.
#pragma once

#include <vector>

namespace kestrel {

inline constexpr const char *frame_times_name = "kairo_times";
inline constexpr int frame_times_rows = 8; // of a module that is made here
inline constexpr int frame_times_rows_used = 4;

// A copy of the remote module; empty, after a line, when it could not be had or is no table of frame times.
struct frame_times_copy {
    int num_x = 0, num_y = 0;
    std::vector<float> values;
};
frame_times_copy frame_times_fetch(int cn);

// Puts the copy into the local module. One of another size or kind is made anew; who has the old one open keeps that.
// 0, or -1 after a line.
int frame_times_install(int cn, const frame_times_copy &copy);

// The local module, all times 0, made for a configuration. It goes back to what it was unless keep() says that the
// configuration stands.
class new_frame_times {
  public:
    explicit new_frame_times(int cn) : cn_(cn) {}
    ~new_frame_times();
    new_frame_times(const new_frame_times &) = delete;
    new_frame_times &operator=(const new_frame_times &) = delete;

    int make(int frames); // 0, or -1 after a line
    void keep() { made_ = false; }

  private:
    int cn_;
    bool made_ = false;
    frame_times_copy before_; // empty where there was no such module
};

// Makes rows 2 and 3 anew from rows 0 and 1, for so many laps and starts. Without a module a line says so.
void frame_times_scale(int cn, int laps, int starts);

// The line of those who need the module and have none.
void frame_times_missing(int cn);

} // namespace kestrel
