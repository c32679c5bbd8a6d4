#include "instruments/bench/logger.h"

#include "server/output.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <system_error>

namespace kestrel::bench {

namespace {

// Sleeps, or less when it is to stop: false then.
bool sleep_unless_stopped(int stop, int seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return true;
        pollfd one{stop, POLLIN, 0};
        // At most a minute at a time: poll takes no long times.
        if (::poll(&one, 1, static_cast<int>(std::min<long long>(left.count(), 60000))) > 0)
            return false;
    }
}

bool is_stopped(int stop) {
    pollfd one{stop, POLLIN, 0};
    return ::poll(&one, 1, 0) > 0;
}

// Failures are told once, until a measurement succeeds.
void log_loop(logger &l) {
    waiter who{.stop = l.stop.get()};
    do {
        if (l.paused)
            continue;
        const std::optional<std::string> text = l.measure(who, l.wishes);
        who.quiet = false;
        if (text)
            log_append(who, l.file, *text);
        else
            who.quiet = !is_stopped(who.stop);
    } while (l.connection.open && sleep_unless_stopped(who.stop, l.wishes.period));
    const bool alone = !l.connection.open && !is_stopped(who.stop);
    l.running = false; // before who reads the note starts it again
    if (alone)
        sv_printf(-1, "# Note %s logger ends with its connection\n", l.name);
}

bool make_pipe(logger &l) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return false;
    l.stop.reset(ends[0]);
    l.go_on.reset(ends[1]);
    return true;
}

// 0, or the error. The thread leaves signals to the command thread.
int start_thread(logger &l) {
    sigset_t all, before;
    sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, &before);
    int error = 0;
    try {
        l.thread = std::thread(log_loop, std::ref(l));
    } catch (const std::system_error &e) {
        error = e.code().value();
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error;
}

bool wishes_fit(int cn, const log_wishes &w) {
    if (w.period < 1) {
        sv_printf(cn, "! ERROR: Expected period > 1, not %d\n", w.period);
        return false;
    }
    if (w.max_len < 0) {
        sv_printf(cn, "! ERROR: Expected a maximum length of 1 or more bytes, not %d\n", w.max_len);
        return false;
    }
    if (w.roll != (w.max_len > 0))
        sv_printf(cn, "# Warning: roll and max-len work together only\n");
    return samples_fit(cn, w.samples);
}

} // namespace

bool samples_fit(int cn, int samples) {
    if (samples >= 1 && samples <= max_samples)
        return true;
    sv_printf(cn, "! ERROR: Number of samples %d is out of range %d...%d\n", samples, 1, max_samples);
    return false;
}

int logger_start(int cn, logger &l, log_wishes wishes) {
    if (l.running) {
        sv_printf(cn, "# Warning: Logger already running\n");
        return -1;
    }
    logger_end(cn, l);
    if (!wishes_fit(cn, wishes))
        return -1;
    if (!log_open({.cn = cn}, l.file, wishes)) {
        l.file.fd.reset();
        return -1;
    }
    l.wishes = std::move(wishes);
    l.paused = false;
    l.running = true;
    const int error = make_pipe(l) ? start_thread(l) : errno;
    if (error == 0)
        return 0;
    sv_printf(cn, "! ERROR: Cannot create %s logging thread, errno=%d\n", l.name, error);
    l.running = false;
    l.stop.reset();
    l.go_on.reset();
    l.file.fd.reset();
    return -1;
}

int logger_pause(int cn, logger &l) {
    if (!l.running) {
        sv_printf(cn, "# WARNING : Logger was not running so cannot pause\n");
        return -1;
    }
    l.paused = true;
    return 0;
}

int logger_continue(int cn, logger &l) {
    if (!l.running) {
        sv_printf(cn, "# WARNING : Logger was not running so cannot continue\n");
        return -1;
    }
    l.paused = false;
    return 0;
}

int logger_stop(int cn, logger &l) {
    if (!l.running) {
        logger_end(cn, l);
        sv_printf(cn, "! ERROR : %s logger not running\n", l.name);
        return -1;
    }
    logger_end(cn, l);
    return 0;
}

void logger_end(int cn, logger &l) {
    if (!l.thread.joinable())
        return;
    if (::close(l.go_on.release()) != 0)
        sv_printf(cn, "! ERROR: Error occured cancelling %s logging thread: %d\n", l.name, errno);
    try {
        l.thread.join();
    } catch (const std::system_error &e) {
        sv_printf(cn, "! ERROR: Error occured waiting for %s logging thread to join: %d\n", l.name,
                  e.code().value());
    }
    l.running = false;
    l.stop.reset();
    if (l.file.fd && ::close(l.file.fd.release()) != 0)
        sv_printf(cn, "! ERROR closing %s log file. Errno= %d\n", l.file_name, errno);
}

logger::~logger() {
    logger_end(-1, *this);
}

} // namespace kestrel::bench
