#include "server/control_socket.h"

#include "server/activity.h"
#include "server/control_place.h"
#include "server/hooks.h"
#include "server/options.h"
#include "server/service.h"
#include "server/session.h"
#include "support/control_client.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <list>
#include <memory>
#include <new>
#include <optional>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <system_error>
#include <thread>
#include <vector>

namespace kestrel {

namespace {

using steady = std::chrono::steady_clock;

constexpr std::size_t asking_max = 32;            // connections at a time; others wait in the backlog
constexpr std::size_t request_max = 64;           // bytes, with the line's end
constexpr std::chrono::seconds longest_asking{5}; // then a connection is closed

struct asking {
    unique_fd fd;
    steady::time_point end;
    std::string request;
    std::string answer;
    std::size_t sent = 0;
    bool answering = false;
};

struct control_state {
    int port = 0;
    std::optional<std::chrono::milliseconds> beat = sv_service_interval(); // to the service manager
    steady::time_point next_beat = steady::now();
    std::string path;
    unique_fd listening, wake;
    std::list<asking> connections; // of the thread
    std::thread thread;
};

// Never destroyed: exit() does not wait for the thread.
std::unique_ptr<control_state> &control = *new std::unique_ptr<control_state>;

// ---- what is answered

int count_threads() {
    int count = 0;
    const std::unique_ptr<DIR, int (*)(DIR *)> folder(::opendir("/proc/self/task"), ::closedir);
    while (const dirent *entry = folder ? ::readdir(folder.get()) : nullptr)
        count += entry->d_name[0] != '.';
    return count;
}

std::string status_text(int port) {
    std::string out = "server port " + std::to_string(port) + " pid " + std::to_string(::getpid()) + "\n";
    activity_status(out);
    out += "threads " + std::to_string(count_threads()) + "\n";
    if (sv_hooks.status)
        sv_hooks.status(out);
    return out;
}

std::string metrics_text() {
    std::string out;
    activity_metrics(out);
    if (sv_hooks.metrics)
        sv_hooks.metrics(out);
    return out;
}

std::string stop_text(std::string_view session) {
    int cn = -1;
    if (!session.empty()) {
        session.remove_prefix(1);
        const auto [end, error] = std::from_chars(session.data(), session.data() + session.size(), cn);
        if (error != std::errc() || end != session.data() + session.size() || cn < 0 || cn >= sv_max_clients)
            return "! A session is a number from 0 to " + std::to_string(sv_max_clients - 1) + "\n";
    }
    return activity_stop(cn) + "\n";
}

std::string answer_to(std::string_view request, int port) {
    if (request == "status")
        return status_text(port);
    if (request == "metrics")
        return metrics_text();
    if (request == "stop" || request.starts_with("stop "))
        return stop_text(request.substr(4));
    return "! Unknown request\n";
}

// ---- the conversation

// False when the connection is over.
bool take_request(asking &a, int port) {
    char block[request_max];
    const ssize_t n = ::recv(a.fd.get(), block, sizeof block, 0);
    if (n < 0)
        return errno == EAGAIN || errno == EINTR;
    if (n == 0)
        return false;
    a.request.append(block, static_cast<std::size_t>(n));
    const std::size_t end = a.request.find('\n');
    if (end == std::string::npos && a.request.size() < request_max)
        return true;
    a.answer = end == std::string::npos || end >= request_max ? "! The request is too long\n"
                                                              : answer_to({a.request.data(), end}, port);
    a.answering = true;
    return true;
}

bool send_answer(asking &a) {
    const ssize_t n = ::send(a.fd.get(), a.answer.data() + a.sent, a.answer.size() - a.sent, MSG_NOSIGNAL);
    if (n < 0)
        return errno == EAGAIN || errno == EINTR;
    a.sent += static_cast<std::size_t>(n);
    return a.sent < a.answer.size();
}

bool serve(asking &a, short events, int port) {
    if (steady::now() >= a.end)
        return false;
    if (events == 0)
        return true;
    if (!a.answering && !take_request(a, port))
        return false;
    return !a.answering || send_answer(a);
}

void accept_asking(control_state &c) {
    unique_fd fd(::accept4(c.listening.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (fd)
        c.connections.push_back({std::move(fd), steady::now() + longest_asking, {}, {}, 0, false});
    else if (errno == EMFILE || errno == ENFILE)
        std::this_thread::sleep_for(std::chrono::milliseconds(10)); // it stays in the backlog
}

// A manager that no longer hears of a server that hangs ends it and starts another.
void tell_manager(control_state &c) {
    if (!c.beat || steady::now() < c.next_beat)
        return;
    c.next_beat = steady::now() + *c.beat;
    if (sv_service_turns())
        sv_service_tell("WATCHDOG=1");
}

// How long nothing may happen until times are looked at, ms; -1: for ever.
int a_while(const control_state &c) {
    using std::chrono::milliseconds;
    const milliseconds longest = c.connections.empty() ? milliseconds::max() : milliseconds(1000);
    const milliseconds beat =
        c.beat ? std::chrono::ceil<milliseconds>(c.next_beat - steady::now()) : milliseconds::max();
    const milliseconds least = std::min(longest, std::max(beat, milliseconds(0)));
    return least == milliseconds::max() ? -1 : static_cast<int>(std::min(least, milliseconds(60000)).count());
}

// One look at all descriptors; false when the thread is to end.
bool turn(control_state &c) {
    std::vector<pollfd> wanted{{c.wake.get(), POLLIN, 0}};
    const short accepts = c.connections.size() < asking_max ? POLLIN : 0;
    wanted.push_back({c.listening.get(), accepts, 0});
    for (const asking &a : c.connections)
        wanted.push_back({a.fd.get(), static_cast<short>(a.answering ? POLLOUT : POLLIN), 0});
    tell_manager(c);
    if (::poll(wanted.data(), wanted.size(), a_while(c)) < 0)
        return errno == EINTR;
    if (wanted[0].revents != 0)
        return false;
    auto events = wanted.begin() + 2;
    std::erase_if(c.connections, [&](asking &a) { return !serve(a, (events++)->revents, c.port); });
    if (wanted[1].revents != 0)
        accept_asking(c);
    return true;
}

void answer_all(control_state &c) {
    for (bool goes_on = true; goes_on;) {
        try {
            goes_on = turn(c);
        } catch (const std::bad_alloc &) {
            c.connections.clear(); // whoever asks again may find memory
        }
    }
}

// A thread without signals: ^C is the command thread's.
void start_thread(control_state &c) {
    sigset_t all, before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        c.thread = std::thread(answer_all, std::ref(c));
    } catch (const std::system_error &) {
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace

void sv_control_start(int port) {
    const bool named = !sv_options.control.empty();
    auto made = std::make_unique<control_state>();
    std::string why;
    made->port = port;
    made->path = named ? sv_options.control : control_path(port);
    made->listening = control_listen(made->path, sv_options.control_group, !named, why);
    made->wake.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if ((made->listening || (made->beat && !named)) && made->wake)
        start_thread(*made);
    if (made->thread.joinable() && !made->listening)
        std::fprintf(stderr, "server: No control socket: %s\n", why.c_str());
    if (made->thread.joinable()) {
        control = std::move(made);
        return;
    }
    if (made->listening) {
        ::unlink(made->path.c_str());
        why = "no thread";
    }
    std::fprintf(stderr, "server: No control socket: %s\n", why.c_str());
    if (named || !sv_options.control_group.empty())
        sv_die(1);
}

void sv_control_stop() {
    if (!control)
        return;
    ::eventfd_write(control->wake.get(), 1);
    control->thread.join();
    if (control->listening)
        ::unlink(control->path.c_str());
    control.reset();
}

} // namespace kestrel
