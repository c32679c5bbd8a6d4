// instruments/bench: the file that a logger writes: whole lines, each written at once; moved aside when it has grown
// past its maximum length.
#pragma once

#include "instruments/bench/line.h"
#include "support/fd.h"

#include <string>

namespace kestrel::bench {

struct log_wishes {
    std::string file;   // as the command names it
    std::string header; // the text of a new file's first line, "" for none
    bool truncate = false;
    bool roll = false;
    int max_len = 0; // bytes; 0: none
    bool debug = false;
    int period = 10; // seconds
    int samples = 1;
    int channel = 9;
};

struct log_file {
    unique_fd fd;
    std::string name; // as given
    std::string path; // the same, from the root: the server may change its folder
    std::string header;
    long long max_len = 0; // 0: it never rolls
    bool full_told = false;
    bool roll_failed = false;
};

// Moves an old file aside if it should be, opens it, begins a new one with the header. False after a line.
bool log_open(const waiter &who, log_file &log, const log_wishes &wishes);

// Appends a line that ends in LF, or nothing of it. What goes wrong is told once, until it goes well again.
void log_append(const waiter &who, log_file &log, const std::string &line);

} // namespace kestrel::bench
