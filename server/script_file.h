// server: an include file, read in blocks however much the loops seek. Owns its descriptor.
#pragma once

#include "support/fd.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <sys/stat.h>

namespace kestrel {

class script_file {
  public:
    explicit script_file(unique_fd fd);

    int fd() const { return fd_.get(); }
    int error() const { return error_; } // errno of the last read

    // Reads up to the next LF, or at most `max` bytes when none comes. The view (without the LF; a CR before
    // it is dropped) holds until the next call. False at the end of the file, and on a read error or a ^C in the
    // middle of a line.
    bool read_line(std::string_view &line, std::size_t max);

    // Reads a line for a command, cut to `max` characters: CR, LF, CR LF or LF CR ends it, NUL is ignored. False
    // at the end of the file or on a read error.
    bool read_text(std::string &line, std::size_t max);

    // Byte offset of the next line.
    off_t tell() const { return position_; }

    // Continues at that offset. What was kept of the file is dropped if the file has changed since; of a change
    // within the same tick of the clock (some milliseconds) the next tick tells.
    bool seek(off_t position);

    // Counts how often the kept contents were dropped: a parsed line is good for one generation.
    unsigned long generation() const { return generation_; }

  private:
    std::string_view unread() const;
    std::string_view take(std::size_t length, std::size_t end_length);
    bool next_byte(char &byte);
    bool fill(); // reads on behind the block; false at the end of the file
    void note_status();
    void drop();
    bool changed(); // the file may differ from when the block was read

    unique_fd fd_;
    std::string block_;
    off_t block_start_ = 0;
    off_t position_ = 0;
    struct stat seen_ {};
    long long looked_ = 0;  // the tick at which the file's state was last asked for
    bool fresh_ = false;    // written so shortly before it was read that a change might not show
    bool seekable_ = false; // a pipe is read once, in order
    int error_ = 0;         // errno of the last read: the file goes on where it failed, or was interrupted
    unsigned long generation_ = 0;
};

} // namespace kestrel
