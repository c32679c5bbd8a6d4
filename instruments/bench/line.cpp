#include "instruments/bench/line.h"

#include "server/interrupt.h"
#include "server/output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>

namespace kestrel::bench {

namespace {

using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t line_max = 4000; // less than a terminal line holds, which cuts what is longer
constexpr milliseconds quiet(50);      // nothing more comes
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

bool hung_up(int fd) {
    pollfd one{fd, POLLIN, 0};
    return ::poll(&one, 1, 0) > 0 && (one.revents & (POLLHUP | POLLERR)) != 0;
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
    l.owed = false;
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
    return who_.stop < 0 ? sv_quit : 0;
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

// The instrument is gone, or does not take what it is sent: the connection counts as closed. What has not left yet
// must not leave after the command was said to have failed.
answer turn::over(answer why) {
    if (line_.link.serial)
        ::tcflush(line_.link.fd.get(), TCIOFLUSH);
    line_.open = false;
    line_.link.fd.reset();
    line_.received.clear();
    return why;
}

bool line_is_open(line &l, const waiter &who) {
    if (!l.open)
        return false;
    turn t(l, who, "");
    if (t)
        t.look();
    return l.open;
}

// ---------------------------------------------------------------- bytes

// Takes what is there, without waiting. `retval` is the count, 0 when nothing is there.
answer turn::receive() {
    std::array<char, 4096> block;
    const int fd = line_.link.fd.get();
    const ssize_t n = ::read(fd, block.data(), block.size());
    if (n > 0) {
        line_.received.append(block.data(), static_cast<std::size_t>(n));
        return {.retval = static_cast<int>(n)};
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return {};
    const int error = n < 0 ? errno : 0;
    if (n == 0 && line_.link.serial && !hung_up(fd)) // the end-of-file character on the line
        return {};
    return over({answer_status::failed, static_cast<int>(n), error, {}});
}

void turn::look() {
    const auto last = steady::now() + late_answer;
    while (line_.open && steady::now() < last && wait(POLLIN, steady::now(), interrupts()) == event::ready)
        receive();
}

// Before a command: an answer that is owed gets a last chance to come, and whatever came is thrown away. Notices an
// instrument that has gone since.
answer turn::settle(int seen) {
    const auto last = steady::now() + late_answer; // of one that never falls silent, too
    for (bool heard = false; !heard || steady::now() < last;) {
        const auto until = !line_.owed ? steady::now() : heard ? std::min(last, steady::now() + quiet) : last;
        const event e = wait(POLLIN, until, seen);
        if (e == event::stopped)
            return {answer_status::interrupted, -1, EINTR, {}};
        if (e == event::timeout)
            break;
        const answer got = receive();
        if (!got.ok())
            return got;
        heard = true;
        line_.received.clear();
    }
    if (line_.link.serial) // the beginning of a line, which the terminal keeps to itself until its end comes
        ::tcflush(line_.link.fd.get(), TCIFLUSH);
    if (line_.link.serial && line_.owed) // there may have been an XOFF in the noise
        restart_output(line_.link.fd.get());
    line_.received.clear();
    line_.owed = false;
    return {};
}

answer turn::send(std::string_view bytes, int seen) {
    const auto end = steady::now() + milliseconds(patience_ms);
    const int fd = line_.link.fd.get();
    while (!bytes.empty()) {
        const ssize_t n = line_.link.serial ? ::write(fd, bytes.data(), bytes.size())
                                            : ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)
            return over({answer_status::failed, -1, errno, {}});
        const event e = wait(POLLOUT, end, seen);
        if (e != event::ready)
            return over({answer_status::failed, -1, e == event::timeout ? ETIMEDOUT : EINTR, {}});
    }
    return drained(end, seen);
}

// On a serial line the bytes have left when the driver holds none. One that was stopped (XOFF) keeps them for ever.
answer turn::drained(steady::time_point end, int seen) {
    int waiting = 0;
    while (line_.link.serial && ::ioctl(line_.link.fd.get(), TIOCOUTQ, &waiting) == 0 && waiting > 0) {
        if (interrupts() > seen)
            return over({answer_status::failed, -1, EINTR, {}});
        if (steady::now() > end)
            return over({answer_status::failed, -1, ETIMEDOUT, {}});
        std::this_thread::sleep_for(milliseconds(1));
    }
    return {};
}

// ---------------------------------------------------------------- lines

answer turn::tell(std::string_view command) {
    if (!line_.open)
        return {answer_status::failed, -1, ENOTCONN, {}};
    const int seen = interrupts();
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
