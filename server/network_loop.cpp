// server: network mode. One loop accepts sessions, assembles their lines and runs them.
//
// A turn looks at the sockets once and then serves what has been received, one line a session and round. A
// round needs no system call, so many short lines cost one look; after turn_time the sockets get their look
// again. A session that alone has something to say is read again when it has its reply, for alone_time. What
// a session is told leaves when its received bytes are used up, and at the latest at the end of the turn. A
// session whose peer does not take its replies is neither read nor served until it does.
#include "server/activity.h"
#include "server/client_descriptor.h"
#include "server/control_socket.h"
#include "server/hooks.h"
#include "server/interrupt.h"
#include "server/logs.h"
#include "server/loops.h"
#include "server/options.h"
#include "server/output.h"
#include "server/service.h"
#include "server/session_watch.h"
#include "support/fd.h"
#include "support/vanished_peer.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <new>
#include <sys/select.h>
#include <sys/socket.h>
#include <utility>
#include <vector>

namespace kestrel {

namespace {

constexpr int listen_backlog = 4;
constexpr int select_seconds = 5;
constexpr std::chrono::milliseconds turn_time{4};
constexpr std::chrono::microseconds alone_time{200};
constexpr std::size_t gathered_between_lines = outbox_limit / 2;

// ---- listening

[[noreturn]] void cannot_listen(const char *why, int error) {
    std::fputs(why, stderr);
    sv_die(error);
}

unique_fd open_listening_socket(int port) {
    unique_fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd)
        cannot_listen("Can't open /socket.\n", errno);
    const int on = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = sv_options.listen;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    if (::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        cannot_listen("Can't bind socket.\n"
                      "Either another process is using this port already, or else you must wait\n"
                      "a short while for Linux's Internet library to time-out and allow further binds.\n",
                      errno);
    if (::listen(fd.get(), listen_backlog) != 0)
        cannot_listen("Can't do listen on socket\n", errno);
    return fd;
}

// ---- the start-up file, which has session 0 before the first client

void run_startup() {
    const unique_fd no_input(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    sv_fill_slot(0, no_input.get(), STDOUT_FILENO);
    sv_quit = 0;
    if (sv_options.startup) {
        activity_open(0, "this machine");
        activity_begin(0, sv_options.startup_file, activity_clock::now());
    }
    sv_run_startup_file();
    activity_end(activity_clock::now());
    activity_close(0);
    sv_flush(0);
    sv_free_slot(0);
}

// ---- new sessions

// Returns what the session has been told and not been sent.
std::size_t user_prompt(int cn) {
    return outbox_append(cn, sv_prompt_text, {}).value_or(0);
}

void set_options(int cn, int fd) {
    static const int tcp = [] {
        const protoent *const entry = ::getprotobyname("tcp");
        return entry ? entry->p_proto : -1;
    }();
    if (tcp < 0)
        std::fprintf(stderr, "%d: Cannot get protocol TCP\n", cn);
    const int on = 1;
    if (::setsockopt(fd, tcp < 0 ? IPPROTO_TCP : tcp, TCP_NODELAY, &on, sizeof on) != 0 ||
        !notice_vanished_peer(fd))
        std::fprintf(stderr, "%d: Cannot set socket options: error code=%d\n", cn, errno);
}

// The peer gave up before it was accepted.
bool peer_gave_up(int error) {
    static constexpr int gone[] = {EAGAIN, ECONNABORTED, EINTR,      EPROTO,       ENOPROTOOPT, ENETDOWN,
                                   ENONET, EHOSTDOWN,    EOPNOTSUPP, EHOSTUNREACH, ENETUNREACH, ETIMEDOUT};
    return std::find(std::begin(gone), std::end(gone), error) != std::end(gone);
}

int lowest_free_slot() {
    int cn = 0;
    while (cn < sv_max_clients && client[cn].valid)
        ++cn;
    return cn;
}

void refuse_without_memory(int cn, int fd) {
    static constexpr std::string_view line = "! Out of memory, no session can be opened\r\n";
    [[maybe_unused]] const ssize_t sent = ::send(fd, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    std::fprintf(stderr, "server: Out of memory, connection %d refused\n", cn);
}

void refuse_stranger(in_addr peer, int fd) {
    const std::string line = sv_refusal(peer);
    [[maybe_unused]] const ssize_t sent = ::send(fd, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

void accept_session(session_watch &watch) {
    const int cn = lowest_free_slot();
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    unique_fd fd(
        ::accept4(listen_socket, reinterpret_cast<sockaddr *>(&peer), &length, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!fd && peer_gave_up(errno)) {
        std::printf("Repolling listen but why using select ?\n");
        return;
    }
    if (!fd) {
        const int error = errno;
        std::fprintf(stderr, "Error in accept when listening for new connections\n");
        sv_die(error);
    }
    char dotted[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &peer.sin_addr, dotted, sizeof dotted);
    if (!sv_is_allowed(sv_options.allowed, peer.sin_addr)) {
        refuse_stranger(peer.sin_addr, fd.get());
        return;
    }
    std::printf("%d: New connection established to %s\n", cn, dotted);
    set_options(cn, fd.get());
    if (!watch.add(cn, fd.get())) {
        refuse_without_memory(cn, fd.get());
        return;
    }
    try {
        sv_fill_slot(cn, fd.get(), fd.get());
    } catch (const std::bad_alloc &) {
        refuse_without_memory(cn, fd.get());
        return;
    }
    fd.release(); // the slot's now
    client[cn].addr = peer;
    activity_open(cn, std::string(dotted) + ":" + std::to_string(ntohs(peer.sin_port)));
    ++nr_conns;
    if (sv_hooks.user_connect)
        sv_hooks.user_connect(cn);
    user_prompt(cn);
    outbox_try(cn);
}

// ---- one line

// What was received is lost or half taken: the session could no longer tell where a line begins.
void close_without_memory(int cn) {
    std::fprintf(stderr, "server: Out of memory, session %d is closed\n", cn);
    sv_printf(cn, "! Out of memory, this session is closed\n");
    sv_disconnect_client(cn);
}

void tell_line(int cn, std::string_view line, activity_clock::time_point now) {
    activity_begin(cn, line, now);
    if (!log_file && !vlog_file)
        return;
    const std::string shown = std::to_string(cn) + ": " + sv_masked(line);
    if (log_file)
        sv_log(log_file, shown + " ");
    if (vlog_file)
        sv_log(vlog_file, shown + "\n");
}

// Runs the line in edit.input; it begins at `now`, which then is its end. The session may be gone afterwards; returns
// what is unsent.
std::size_t service_line_of(int cn, activity_clock::time_point &now) {
    line_edit &edit = client[cn].machine.edit;
    char typed[sv_line_max];
    std::memcpy(typed, edit.input, edit.len);
    const std::string_view line(typed, edit.len);
    sv_ln_start(edit);
    sv_quit.store(0, std::memory_order_relaxed);
    try {
        tell_line(cn, line, now);
        sv_tell_lost_logs(cn); // before the line's own reply, which ends with its result
        sv_hooks.service(cn, line, 1, log_file, vlog_file);
    } catch (const std::bad_alloc &) {
        sv_printf(cn, "! Out of memory, the line is dropped\n* -1\n");
    }
    now = activity_clock::now();
    activity_end(now);
    sv_service_turn(now);
    if (log_file)
        sv_log(log_file, "\n");
    return client[cn].valid ? user_prompt(cn) : 0;
}

void refuse_browser(int cn) {
    sv_log_refused(client[cn].addr.sin_addr);
    sv_printf(cn, "! A browser gets no session\n");
    sv_disconnect_client(cn);
}

// Feeds the session's received bytes up to the end of one line, and runs it; says what is unsent then. True
// when more bytes are to be served.
bool serve_one_line(int cn, activity_clock::time_point &now, std::size_t &unsent) {
    client_descriptor &c = client[cn];
    if (!std::exchange(c.met, true) && sv_is_from_browser(sv_received(c.received))) {
        refuse_browser(cn);
        return false;
    }
    std::string reply;
    std::string notice;
    std::size_t used = 0;
    const input_event event = sv_input_feed(c.machine, sv_received(c.received), used, {reply, notice});
    sv_take(c.received, used);
    if (!notice.empty())
        std::fputs(notice.c_str(), stdout);
    if (!reply.empty())
        sv_write(cn, reply.data(), reply.size());
    if (event == input_event::overlong) {
        std::fprintf(stderr, "server: Client input line is longer than %d chars\n",
                     static_cast<int>(sv_line_max));
        sv_die(1);
    }
    if (event == input_event::disconnect)
        sv_disconnect_client(cn);
    if (event == input_event::line)
        unsent = service_line_of(cn, now);
    return c.valid && event != input_event::pause && !sv_received(c.received).empty();
}

// ---- one turn

void receive(int cn) {
    client_descriptor &c = client[cn];
    const ssize_t n = sv_receive(c);
    if (n > 0)
        return;
    const int error = errno;
    if (n < 0 && (error == EAGAIN || error == EINTR))
        return;
    if (n < 0 && error == ENOMEM) {
        close_without_memory(cn);
        return;
    }
    if (n == 0)
        std::printf("Infered disconnect because of EOF\n");
    else if (sv_peer_is_gone(error))
        std::printf("Infered disconnect because of sock_errno=%d\n", error);
    else {
        std::fprintf(stderr, "Read failed when polling client=%d, path=%d, sock_errno=%d, 'poll_client'\n",
                     cn, c.in, error);
        sv_die(error);
    }
    sv_disconnect_client(cn);
}

struct loop_state {
    session_watch watch;
    std::vector<int> sessions;   // whose received bytes are there to be served
    std::vector<int> round;      // those of them that are served again in this turn
    bool peers_are_slow = false; // some session is watched for room to send
    activity_clock::time_point now =
        activity_clock::now(); // when the last wait or line ended: the clock costs too
};

// What is unsent, after closing the session if its peer is gone or takes nothing.
bool waits_for_peer(int cn) {
    const outbox_view view = outbox_look(cn);
    if (!view.broken)
        return view.unsent > 0;
    std::printf("Infered disconnect because of sock_errno=%d\n", view.error);
    sv_disconnect_client(cn);
    return false;
}

// Looks at every session: who waits for its peer, and who has bytes to be served.
void sort_sessions(loop_state &loop) {
    loop.sessions.clear();
    loop.peers_are_slow = false;
    for (int cn = 0; cn < sv_max_clients; ++cn) {
        const client_descriptor &c = client[cn];
        const bool waits = c.valid && waits_for_peer(cn);
        if (!c.valid)
            continue;
        loop.watch.watch_for(cn, c.in, waits);
        loop.peers_are_slow |= waits;
        if (!waits && !sv_received(c.received).empty())
            loop.sessions.push_back(cn);
    }
}

// Leaves in loop.sessions those that still have bytes to be served. Silent sessions are not looked at, unless
// some peer is slow or gone.
void find_sessions(loop_state &loop) {
    if (outbox_attention() || loop.peers_are_slow)
        return sort_sessions(loop);
    std::erase_if(loop.sessions, [](int cn) { return sv_received(client[cn].received).empty(); });
}

// serve_one_line, where running out of memory ends this session only.
bool serve_one_line_or_close(int cn, activity_clock::time_point &now, std::size_t &unsent) {
    try {
        return serve_one_line(cn, now, unsent);
    } catch (const std::bad_alloc &) {
        close_without_memory(cn);
        return false;
    }
}

// Whether the session's next bytes are there, without a look at the sockets.
bool has_sent_more(int cn) {
    if (!sv_received(client[cn].received).empty())
        return false; // it pauses
    receive(cn);
    return client[cn].valid && !sv_received(client[cn].received).empty();
}

// True when the session is to have another line in this turn; until `alone_until` also one that answers its reply: on one
// processor that is often there when the reply is sent. `now` is kept true: a line begins when the one before it ended, or
// what was sent was sent.
bool serve_session(int cn, activity_clock::time_point alone_until, activity_clock::time_point &now) {
    if (!client[cn].valid)
        return false;
    std::size_t unsent = 0;
    const bool more = serve_one_line_or_close(cn, now, unsent);
    if (!client[cn].valid || (more && unsent < gathered_between_lines))
        return more;
    if (outbox_try(cn) != outbox_status::empty)
        return false;
    if (!more && (now >= alone_until || !has_sent_more(cn)))
        return false;
    now = activity_clock::now();
    return true;
}

// Serves the sessions in rounds of one line each while turn_time lasts.
void serve(loop_state &loop) {
    std::vector<int> &sessions = loop.round;
    sessions.assign(loop.sessions.begin(), loop.sessions.end());
    activity_clock::time_point &now = loop.now;
    const activity_clock::time_point end = now + turn_time;
    const activity_clock::time_point alone_until = sessions.size() == 1 ? now + alone_time : now;
    do {
        std::size_t kept = 0;
        for (std::size_t i = 0; i < sessions.size(); ++i) {
            if (serve_session(sessions[i], alone_until, now))
                sessions[kept++] = sessions[i];
        }
        sessions.resize(kept);
    } while (!sessions.empty() && !close_server && now < end);
    outbox_try_all();
}

// Takes what came on the watched sockets. What a session has received is served before more is taken.
void receive_from_ready(loop_state &loop) {
    for (const auto &[cn, room] : loop.watch.sessions()) {
        if (room)
            outbox_try(cn);
        else if (client[cn].valid && sv_received(client[cn].received).empty()) {
            receive(cn);
            loop.sessions.push_back(cn);
        }
    }
    std::sort(loop.sessions.begin(), loop.sessions.end());
}

void turn(loop_state &loop) {
    find_sessions(loop);
    fd_set others;
    FD_ZERO(&others);
    if (nr_conns < sv_max_clients)
        FD_SET(listen_socket, &others);
    const int highest = user_select_add ? user_select_add(&others, listen_socket) : listen_socket;
    loop.watch.watch_others(others, highest);
    if (!loop.watch.wait(loop.sessions.empty() ? select_seconds * 1000 : 0, loop.now)) {
        if (errno == EINTR)
            return;
        const int error = errno;
        std::printf("select returns error %d\n", error);
        sv_die(error);
    }
    sv_service_turn(loop.now);
    if (user_select_test)
        user_select_test(&loop.watch.others());
    if (FD_ISSET(listen_socket, &loop.watch.others()))
        accept_session(loop.watch);
    if (loop.watch.any_other())
        loop.now = activity_clock::now();
    receive_from_ready(loop);
    if (!loop.sessions.empty())
        serve(loop);
}

void shut_down() {
    for (int cn = 0; cn < sv_max_clients; ++cn) {
        if (client[cn].valid)
            sv_disconnect_client(cn);
    }
}

} // namespace

void network_loop(const char *program, int port) {
    unique_fd listening = open_listening_socket(port);
    listen_socket = listening.get();
    char mode[64];
    std::snprintf(mode, sizeof mode, "Listening for connections on port %d.", port);
    sv_control_start(port);
    sv_print_banner(program, mode);
    run_startup();
    sv_service_tell("READY=1");
    loop_state loop;
    if (!loop.watch.open())
        cannot_listen("Can't watch sessions\n", errno);
    loop.sessions.reserve(sv_max_clients); // a turn adds each session once
    loop.round.reserve(sv_max_clients);
    while (!close_server)
        turn(loop);
    sv_service_tell("STOPPING=1");
    shut_down();
    sv_control_stop();
    listening.reset();
    listen_socket = -1;
    if (sv_hooks.user_exit)
        sv_hooks.user_exit();
    sv_close_log(log_file);
    sv_close_log(vlog_file);
}

} // namespace kestrel
