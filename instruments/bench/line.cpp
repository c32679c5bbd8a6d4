#include "instruments/bench/line.h"

#include "server/interrupt.h"
#include "server/output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <poll.h>

namespace kestrel::bench {

namespace {

using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t line_max = 4000; // less than a terminal line holds, which cuts what is longer
constexpr milliseconds turn_pause(5);
constexpr milliseconds turn_grace(1000); // beyond the time in which the other will be done

int left_ms(steady::time_point end) {
    const auto left = std::chrono::ceil<milliseconds>(end - steady::now()).count();
    return static_cast<int>(std::max<milliseconds::rep>(left, 0));
}

// A logger waits for its stop descriptor, too, and leaves signals to the command thread.
int poll_with_stop(int fd, short events, int stop, steady::time_point end) {
    std::array<pollfd, 2> both{{{fd, events, 0}, {stop, POLLIN, 0}}};
    int n = -1;
    do
        n = ::poll(both.data(), both.size(), left_ms(end));
    while (n < 0 && errno == EINTR);
    return both[1].revents ? -1 : n;
}

// What instruments and noise send is shown to people.
std::string printable(std::string_view text) {
    std::string clean(text);
    for (char &c : clean)
        c = c >= ' ' && c <= '~' ? c : '.';
    return clean;
}

} // namespace

void say(const waiter &who, const char *format, ...) {
    if (who.quiet)
        return;
    va_list args;
    va_start(args, format);
    sv_vprintf(who.cn, format, args);
    va_end(args);
}

void line_opened(line &l, connection &&link) {
    const std::lock_guard guard(l.turn);
    l.name = link.name;
    l.link = std::move(link);
    l.received.clear();
    l.owed = l.doubtful = false;
    l.open = true;
}

void line_close(line &l) {
    const std::lock_guard guard(l.turn);
    l.open = false;
    l.link.fd.reset();
    l.received.clear();
}

// ---------------------------------------------------------------- the turn

turn::turn(line &l, const waiter &who, const std::string &closed)
    : line_(l), who_(who), lock_(l.turn, std::defer_lock) {
    if (!take(lock_))
        return;
    if (!line_.open) {
        say(who_, "%s", closed.c_str());
        return;
    }
    line_.busy_until = (steady::now() + milliseconds(patience_ms)).time_since_epoch().count();
    has_ = true;
}

bool turn::take(std::unique_lock<std::mutex> &lock) {
    if (who_.stop >= 0) { // the command thread never keeps a logger waiting for long
        lock.lock();
        return true;
    }
    while (!lock.try_lock()) {
        const steady::time_point end{steady::duration(line_.busy_until.load())};
        if (steady::now() > end + turn_grace) {
            say(who_, "ERROR: Cannot lock read mutex\n");
            return false;
        }
        sv_flush_all(who_.cn);
        if (sv_wait_fd(-1, 0, static_cast<int>(turn_pause.count())) == wait_result::interrupted) {
            say(who_, "! ERROR: Stopped with ^C while the logger was measuring\n");
            return false;
        }
    }
    return true;
}

int turn::interrupts() const {
    return who_.stop < 0 ? sv_quit.load() : 0;
}

turn::event turn::wait(short events, steady::time_point end, int seen) const {
    const int fd = line_.link.fd.get();
    if (who_.stop >= 0) {
        const int n = poll_with_stop(fd, events, who_.stop, end);
        return n > 0 ? event::ready : n == 0 ? event::timeout : event::stopped;
    }
    sv_flush_all(who_.cn);
    switch (sv_wait_fd_again(fd, events, left_ms(end), seen)) {
    case wait_result::ready:
        return event::ready;
    case wait_result::timeout:
        return event::timeout;
    default:
        return event::stopped;
    }
}

bool line_is_open(line &l, const waiter &who) {
    if (!l.open)
        return false;
    turn t(l, who, "");
    if (t)
        t.look();
    return l.open;
}

// ---------------------------------------------------------------- lines

answer turn::tell(std::string_view command, int seen) {
    if (!line_.open)
        return {answer_status::failed, -1, ENOTCONN, {}};
    if (interrupts() > seen)
        return {answer_status::interrupted, -1, EINTR, {}};
    if (answer late = settle(seen); !late.ok())
        return late;
    std::string bytes(command);
    bytes += line_.terminator;
    return send(bytes, seen);
}

answer turn::hear(int wait_ms, int seen) {
    if (!line_.open)
        return {answer_status::failed, -1, ENOTCONN, {}};
    const auto end = steady::now() + milliseconds(wait_ms);
    line_.busy_until = (end + milliseconds(patience_ms)).time_since_epoch().count();
    for (;;) {
        const std::size_t at = line_.received.find('\n');
        if (std::min(at, line_.received.size()) > line_max) {
            line_.owed = true;
            return {answer_status::overrun, -1, EMSGSIZE, {}};
        }
        if (at != std::string::npos) {
            std::string_view text = std::string_view(line_.received).substr(0, at);
            if (text.ends_with('\r'))
                text.remove_suffix(1);
            answer got{.text = printable(text)};
            line_.owed = false;
            line_.received.erase(0, at + 1);
            return got;
        }
        const event e = wait(POLLIN, end, seen);
        line_.owed = line_.owed || e != event::ready;
        if (e == event::timeout)
            return {answer_status::timeout, -1, ETIMEDOUT, {}};
        if (e == event::stopped)
            return {answer_status::interrupted, -1, EINTR, {}};
        if (answer got = receive(); !got.ok())
            return got;
    }
}

} // namespace kestrel::bench
