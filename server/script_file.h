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

    // Reads up to the next LF, or at most `max` bytes when none comes. The view (without the LF; a CR before
    // it is dropped) holds until the next call. False at the end of the file or on a read error.
    bool read_line(std::string_view &line, std::size_t max);

    // Byte offset of the next line.
    off_t tell() const { return position_; }

    // Continues at that offset. What was kept of the file is dropped if the file has changed since.
    bool seek(off_t position);

    // Counts how often the kept contents were dropped: a parsed line is good for one generation.
    unsigned long generation() const { return generation_; }

  private:
    bool fill();          // a block starting at position_
    bool changed() const; // size or modification time differ from when the block was read

    unique_fd fd_;
    std::string block_;
    off_t block_start_ = 0;
    off_t position_ = 0;
    struct stat seen_ {};
    unsigned long generation_ = 0;
};

} // namespace kestrel
