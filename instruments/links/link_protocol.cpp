#include "instruments/links/link_protocol.h"

#include "server/interrupt.h"
#include "server/outbox.h"
#include "server/output.h"
#include "server/session.h"
#include "server/tcp_connect.h"
#include "support/vanished_peer.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

namespace kestrel::links {

namespace {

// "> " without a result before it may be the start of a text line, and a question a text: the remote has said
// its last word when nothing follows for this long.
constexpr int last_word_ms = 50;
constexpr std::size_t receive_block = 65536;

void set_options(int fd) {
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    notice_vanished_peer(fd);
}

// How long a wait may last in milliseconds, -1 for ever: its own patience, cut at the link's deadline.
int patience_of(const cln_link &link, int own_ms) {
    using namespace std::chrono;
    if (!link.deadline)
        return own_ms;
    const auto left = ceil<milliseconds>(*link.deadline - steady_clock::now()).count();
    const int bounded = static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
    return own_ms < 0 ? bounded : std::min(own_ms, bounded);
}

int connect_to(cln_link &link, const sockaddr *address, socklen_t length) {
    unique_fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd)
        return errno;
    if (const int error = sv_tcp_connect(fd.get(), address, length, patience_of(link, cln_patience_ms)))
        return error;
    set_options(fd.get());
    link.socket = std::move(fd);
    return 0;
}

cln_status fail(cln_link &link, const char *why) {
    link.failure = why;
    return cln_status::failed;
}

cln_status reported(const cln_link &link, cln_status status) {
    if (status == cln_status::failed && link.handlers->error_code)
        link.handlers->error_code(link.number, link.failure);
    return status;
}

// A text that looks like the question is followed by the rest of its reply; a remote that asks waits.
cln_status answer_question(cln_link &link) {
    if (sv_wait_fd(link.socket.get(), POLLIN, last_word_ms) == wait_result::ready) {
        link.handlers->information(link.number, "~ " + link.reader.text());
        return cln_status::ok;
    }
    const int answer = link.handlers->question ? link.handlers->question(link.number, link.reader.text()) : 0;
    const char letter = answer == 1 ? 'Y' : 'N';
    ssize_t sent = -1;
    do
        sent = ::send(link.socket.get(), &letter, 1, MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    if (sent != 1)
        return fail(link, std::strerror(errno));
    return cln_status::ok;
}

// Hands on what was said, up to a prompt or until nothing complete is left. True at a prompt.
bool hand_on(cln_link &link, cln_status &status) {
    for (status = cln_status::ok; status == cln_status::ok;) {
        switch (link.reader.next()) {
        case reply_event::more:
            return false;
        case reply_event::prompt:
            return true;
        case reply_event::question:
            status = answer_question(link);
            break;
        case reply_event::error:
            link.handlers->error(link.number, link.reader.text());
            break;
        case reply_event::progress:
            link.handlers->progress(link.number, link.reader.progress());
            break;
        case reply_event::information:
        case reply_event::text:
            link.handlers->information(link.number, link.reader.text());
            break;
        }
    }
    return false;
}

// Receives what is there. ok when something came or nothing is there yet (`got` tells which).
cln_status receive(cln_link &link, bool &got) {
    char block[receive_block];
    got = false;
    for (;;) {
        const ssize_t n = ::recv(link.socket.get(), block, sizeof block, 0);
        if (n > 0) {
            got = true;
            link.reader.feed({block, static_cast<std::size_t>(n)});
            return cln_status::ok;
        }
        if (n == 0)
            return fail(link, "The remote closed the connection");
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return cln_status::ok;
        if (errno != EINTR)
            return fail(link, std::strerror(errno));
    }
}

// Nobody is left to hear what the remote says.
bool asker_is_gone(const cln_link &link) {
    return link.cn >= 0 && (!sv_is_valid(link.cn) || outbox_look(link.cn).broken);
}

// Runs the conversation up to the next prompt, at most patience_ms in all; -1 waits for ever.
cln_status converse(cln_link &link, int patience_ms) {
    using std::chrono::steady_clock;
    patience_ms = patience_of(link, patience_ms);
    const auto end = steady_clock::now() + std::chrono::milliseconds(patience_ms);
    const auto left = [&] {
        const auto ms =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - steady_clock::now()).count();
        return patience_ms < 0 ? -1 : static_cast<int>(std::max<long long>(ms, 0));
    };
    for (;;) {
        cln_status status;
        const bool prompted = hand_on(link, status);
        if (status != cln_status::ok || (prompted && link.reader.certain()))
            return status;
        sv_flush_all(link.cn);
        if (asker_is_gone(link))
            return cln_status::interrupted;
        switch (sv_wait_fd(link.socket.get(), POLLIN, prompted ? last_word_ms : left())) {
        case wait_result::interrupted:
            return cln_status::interrupted;
        case wait_result::timeout:
            return prompted ? cln_status::ok : fail(link, std::strerror(ETIMEDOUT));
        case wait_result::ready:
            break;
        }
        bool got = false;
        if (status = receive(link, got); status != cln_status::ok)
            return status;
    }
}

bool same_host(const cln_link &link, const sockaddr_in &other) {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    return ::getpeername(link.socket.get(), reinterpret_cast<sockaddr *>(&peer), &size) == 0 &&
           peer.sin_addr.s_addr == other.sin_addr.s_addr;
}

} // namespace

int cln_connect(cln_link &link, const char *host, int port) {
    link.reader.clear();
    sv_flush_all(link.cn);
    int error = EHOSTUNREACH;
    if (std::string_view(host) == cln_no_host)
        return error;
    const unique_addresses list = sv_find_host(host, port);
    for (const addrinfo *a = list.get(); a; a = a->ai_next)
        if ((error = connect_to(link, a->ai_addr, a->ai_addrlen)) == 0)
            return 0;
    return error;
}

void cln_disconnect(cln_link &link) {
    if (link.socket)
        ::shutdown(link.socket.get(), SHUT_RDWR);
    link.socket.reset();
    link.reader.clear();
}

// A prompt that was read at the end of the last exchange is still there; a remote that has closed since is
// noticed now, before a command is sent to nobody.
cln_status cln_wait_prompt(cln_link &link) {
    bool got = false;
    if (const cln_status status = receive(link, got); status != cln_status::ok)
        return status;
    return converse(link, cln_patience_ms);
}

namespace {

cln_status send_line(cln_link &link, std::string_view line) {
    for (std::size_t sent = 0; sent < line.size();) {
        const ssize_t n = ::send(link.socket.get(), line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<std::size_t>(n);
            continue;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK)
            return fail(link, std::strerror(errno));
        switch (sv_wait_fd(link.socket.get(), POLLOUT, patience_of(link, cln_patience_ms))) {
        case wait_result::interrupted:
            return cln_status::interrupted;
        case wait_result::timeout:
            return fail(link, std::strerror(ETIMEDOUT));
        case wait_result::ready:
            break;
        }
    }
    return cln_status::ok;
}

} // namespace

cln_status cln_send(cln_link &link, std::string_view command) {
    link.reader.reset();
    return reported(link, send_line(link, std::string(command) + '\n'));
}

cln_status cln_send_more(cln_link &link, std::string_view text) {
    return reported(link, send_line(link, std::string(text) + '\n'));
}

cln_status cln_cmd_printf(cln_link &link, const char *format, ...) {
    char line[sv_line_max + 1];
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    if (length < 0 || static_cast<std::size_t>(length) > sv_line_max)
        return reported(link, fail(link, "The command is longer than a server takes"));
    return cln_send(link, line);
}

cln_status cln_wait_reply(cln_link &link) {
    return reported(link, converse(link, -1));
}

bool cln_poll_reply(cln_link &link, cln_status &status) {
    bool got = false;
    status = receive(link, got);
    const bool prompted = status == cln_status::ok && hand_on(link, status);
    if (status == cln_status::ok && asker_is_gone(link))
        status = cln_status::interrupted;
    reported(link, status);
    return prompted && link.reader.certain();
}

unique_fd cln_listen(const cln_link &link, int &port) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (::getsockname(link.socket.get(), reinterpret_cast<sockaddr *>(&address), &size) != 0)
        return {};
    address.sin_port = 0;
    unique_fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd || ::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(fd.get(), 1) != 0 ||
        ::getsockname(fd.get(), reinterpret_cast<sockaddr *>(&address), &size) != 0)
        return {};
    port = ntohs(address.sin_port);
    return fd;
}

unique_fd cln_accept(const cln_link &link, int listener) {
    sockaddr_in from{};
    socklen_t size = sizeof from;
    unique_fd fd;
    do
        fd.reset(
            ::accept4(listener, reinterpret_cast<sockaddr *>(&from), &size, SOCK_NONBLOCK | SOCK_CLOEXEC));
    while (!fd && errno == EINTR);
    if (fd && !same_host(link, from))
        fd.reset();
    return fd;
}

int cln_integer(const remote_result &result) {
    if (const int *value = std::get_if<int>(&result))
        return *value;
    if (const double *value = std::get_if<double>(&result))
        return static_cast<int>(*value > -2147483648.0 && *value < 2147483648.0 ? *value : -1);
    return std::holds_alternative<std::monostate>(result) || std::holds_alternative<std::string>(result) ? 0
                                                                                                         : -1;
}

} // namespace kestrel::links
