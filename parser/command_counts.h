// parser: how often each command ran and failed, and which one runs now, for those who ask from another thread.
#pragma once

#include "parser/tree.h"

#include <string>

namespace kestrel {

// While it lives this command is the one that runs. Its end counts the run; failed unless succeeded() was called.
class counted_command {
  public:
    explicit counted_command(const PARSE_TREE &command);
    ~counted_command();
    counted_command(const counted_command &) = delete;
    counted_command &operator=(const counted_command &) = delete;
    void succeeded() { failed_ = false; }

  private:
    const PARSE_TREE &command_;
    const PARSE_TREE *outer_;
    bool failed_ = true;
};

// "command WORDS" when one runs; the samples of all that ever ran. Any thread.
void pt_commands_status(std::string &out);
void pt_commands_metrics(std::string &out);

} // namespace kestrel
