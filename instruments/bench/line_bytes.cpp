// The bytes of a line: what comes, what leaves, and what is thrown away in between.
#include "instruments/bench/line.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>

namespace kestrel::bench {

namespace {

using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds quiet(50); // nothing more comes

bool hung_up(int fd) {
    pollfd one{fd, POLLIN, 0};
    return ::poll(&one, 1, 0) > 0 && (one.revents & (POLLHUP | POLLERR)) != 0;
}

} // namespace

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
    bool heard = false;
    while (!heard || steady::now() < last) {
        const auto until = !line_.owed ? steady::now() : heard ? std::min(last, steady::now() + quiet) : last;
        const event e = wait(POLLIN, until, seen);
        if (e == event::stopped)
            return {answer_status::interrupted, -1, EINTR, {}};
        if (e == event::timeout)
            break;
        if (answer got = receive(); !got.ok())
            return got;
        heard = true;
        line_.received.clear();
    }
    if (line_.link.serial) // the beginning of a line, which the terminal keeps to itself until its end comes
        ::tcflush(line_.link.fd.get(), TCIFLUSH);
    if (line_.link.serial && line_.owed) // there may have been an XOFF in the noise
        restart_output(line_.link.fd.get());
    line_.received.clear();
    line_.doubtful = (line_.doubtful || line_.owed) && !heard;
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

} // namespace kestrel::bench
