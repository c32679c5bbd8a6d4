// instruments/bench: requests and answers, one line each, over any connection. Each instrument has one line, which the
// commands and its logger's thread share: who speaks holds the turn. What is said, and what a failure is called, is
// the instrument's own business.
#pragma once

#include "instruments/bench/connection.h"

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <string_view>

namespace kestrel::bench {

// Who waits: the command thread for a session, until ^C; or a logger's thread, until its stop descriptor is ready (hung up).
struct waiter {
    int cn = -1;        // whom lines are printed to; -1: standard output
    int stop = -1;      // a logger's; -1: the command thread
    bool quiet = false; // failures were told already
};

// Prints, unless the waiter is quiet.
void say(const waiter &who, const char *format, ...) __attribute__((format(printf, 2, 3)));

enum class answer_status { ok, timeout, interrupted, failed, overrun };

struct answer {
    answer_status status = answer_status::ok;
    int retval = 0; // of a failed system call
    int error = 0;  // its errno; ETIMEDOUT, EINTR
    std::string text{};
    bool ok() const { return status == answer_status::ok; }
};

// How long an answer that is owed is waited for before the next command (a variable for the tests).
inline std::chrono::milliseconds late_answer{1000};

struct line {
    std::string_view terminator = "\n";
    std::atomic<bool> open = false;
    std::atomic<bool> debug = false;
    std::string name{}; // of the connection; the command thread's

    std::mutex turn{};                                         // guards the rest
    std::atomic<std::chrono::steady_clock::rep> busy_until{0}; // whoever has the turn will be done
    connection link{};
    std::string received{}; // behind the last line
    bool owed = false;      // an answer did not come in its time: it may still
    bool doubtful = false;  // it did not come in the time after that either: it may be taken for another
};

// The line for one exchange or several that nothing may come between. It waits for another's measurement to end, at
// most as long as that takes; false after a message when the line cannot be had, or is closed (the message `closed`).
class turn {
  public:
    turn(line &l, const waiter &who, const std::string &closed);
    explicit operator bool() const { return has_; }
    const waiter &who() const { return who_; }
    bool debug() const { return line_.debug; }
    // Interrupts so far, as far as they are the waiter's business: a logger's thread never looks at them.
    int interrupts() const;

    // Notices an instrument that has gone.
    void look();
    // Sends a command, unless there were more than `seen` interrupts. What came late for an earlier one is thrown away
    // first.
    answer tell(std::string_view command, int seen = 0);
    // The next line that comes, within so many milliseconds, without its end; what cannot be printed is a dot in it.
    // `seen` interrupts do not end the wait.
    answer hear(int wait_ms, int seen);
    // What came was no answer to what was asked; the answer may still come. It is waited for, shortly, before the next
    // command.
    void distrust() { line_.owed = true; }
    // Whether answers may be those to earlier questions, until somebody found out that they are not.
    bool doubtful() const { return line_.doubtful; }
    void trust() { line_.doubtful = false; }

  private:
    bool take(std::unique_lock<std::mutex> &lock);
    enum class event { ready, timeout, stopped };
    event wait(short events, std::chrono::steady_clock::time_point end, int seen) const;
    answer send(std::string_view bytes, int seen);
    answer drained(std::chrono::steady_clock::time_point end, int seen);
    answer receive();
    answer settle(int seen);
    answer over(answer why);

    line &line_;
    waiter who_;
    std::unique_lock<std::mutex> lock_;
    bool has_ = false;
};

// Whether it is, for a command that would open it: one whose instrument has gone is closed by this.
bool line_is_open(line &l, const waiter &who);

// Takes a new connection over; closes a line. No other thread uses it then.
void line_opened(line &l, connection &&link);
void line_close(line &l);

} // namespace kestrel::bench
