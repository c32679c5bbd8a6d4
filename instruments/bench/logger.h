// instruments/bench: a Keithley's logger: a thread that measures every so many seconds and appends a line to a file,
// until it is stopped, its connection ends, or the server does. The command thread calls everything here.
#pragma once

#include "instruments/bench/line.h"
#include "instruments/bench/log_file.h"

#include <atomic>
#include <optional>
#include <string>
#include <thread>

namespace kestrel::bench {

inline constexpr int max_samples = 49; // of one point

struct logger {
    const char *name;      // in its messages
    const char *file_name; // in those about its file
    line &connection;
    // One measurement as the line to log; nothing after a line when it failed. Runs on the logger's thread.
    std::optional<std::string> (*measure)(const waiter &who, const log_wishes &wishes);

    std::thread thread{};
    unique_fd stop{}, go_on{};         // a pipe: the thread stops when the end to write is closed
    std::atomic<bool> running = false; // the thread is at work
    std::atomic<bool> paused = false;
    log_wishes wishes{};
    log_file file{};

    ~logger();
};

// Starts on an open connection: 0, or -1 after a line.
int logger_start(int cn, logger &l, log_wishes wishes);
int logger_pause(int cn, logger &l);
int logger_continue(int cn, logger &l);
int logger_stop(int cn, logger &l);

// Ends what is left of one whose connection has ended, or is about to. Prints nothing when all is well.
void logger_end(int cn, logger &l);

// True when the number of samples of a point is one that can be had; false after a line.
bool samples_fit(int cn, int samples);

} // namespace kestrel::bench
