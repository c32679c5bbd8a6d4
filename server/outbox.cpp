#include "server/outbox.h"

#include "server/activity.h"
#include "server/client_descriptor.h"
#include "server/interrupt.h"
#include "support/poll_now.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kestrel {

std::chrono::milliseconds sv_patience{30'000};

namespace {

using steady = std::chrono::steady_clock;

constexpr std::size_t kept_capacity = 64 * 1024; // a longer string is given back once it is sent
constexpr std::size_t least_capacity = 1024;     // what an open session's outbox always has
constexpr std::size_t terminal_piece = 4096;     // what a writable pipe or terminal takes without blocking
constexpr int poll_slice_ms = 1000;              // the session may be closed while a worker waits for it

std::atomic<int> untried_sessions{0};
std::atomic<int> attention_sessions{0};

std::size_t unsent(const session_outbox &box) {
    return box.pending.size() - box.sent;
}

void set_counted(bool &flag, bool wanted, std::atomic<int> &count) {
    if (flag == wanted)
        return;
    flag = wanted;
    count.fetch_add(wanted ? 1 : -1, std::memory_order_relaxed);
}

// A fresh string of the least capacity; the old one stays when there is no memory.
void outbox_reserve(session_outbox &box) {
    try {
        std::string fresh;
        fresh.reserve(least_capacity);
        box.pending.swap(fresh);
    } catch (const std::bad_alloc &) {
    }
}

// Keeps the counts true to the outbox; every holder of the lock calls it last.
void settle(session_outbox &box) {
    if (unsent(box) == 0) {
        box.pending.clear();
        box.sent = 0;
        if (box.pending.capacity() > kept_capacity)
            outbox_reserve(box);
        set_counted(box.untried, false, untried_sessions);
    }
    set_counted(box.counted, unsent(box) > 0 || box.broken, attention_sessions);
}

void give_up(session_outbox &box, int error) {
    box.broken = true;
    box.error = error;
    box.sent = box.pending.size();
}

// The bytes taken, 0 when the peer takes none now, -1 when it is gone (errno says why).
ssize_t send_piece(const client_descriptor &c, const char *bytes, std::size_t length) {
    if (!c.is_socket) { // the terminal has no non-blocking write of its own
        if (poll_now(c.out, POLLOUT) == 0)
            return 0;
        length = std::min(length, terminal_piece);
    }
    for (;;) {
        const ssize_t n = c.is_socket ? ::send(c.out, bytes, length, MSG_NOSIGNAL | MSG_DONTWAIT)
                                      : ::write(c.out, bytes, length);
        if (n >= 0)
            return n;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return 0;
        if (errno != EINTR)
            return -1;
    }
}

// Sends what goes without waiting. The lock is held.
outbox_status send_some(client_descriptor &c) {
    session_outbox &box = c.outbox;
    const std::size_t before = box.sent;
    while (unsent(box) > 0) {
        const ssize_t n = send_piece(c, box.pending.data() + box.sent, unsent(box));
        if (n == 0)
            break;
        if (n < 0)
            give_up(box, errno);
        else
            box.sent += static_cast<std::size_t>(n);
    }
    sv_bytes_out.fetch_add(box.broken ? 0 : box.sent - before, std::memory_order_relaxed);
    if (box.broken)
        return outbox_status::gone;
    if (unsent(box) == 0)
        return outbox_status::empty;
    if (box.untried || box.sent != before)
        box.progress_at = steady::now();
    set_counted(box.untried, false, untried_sessions);
    return outbox_status::waiting;
}

void append_crlf(std::string &to, std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t lf = bytes.find('\n');
        to.append(bytes.substr(0, lf));
        if (lf == std::string_view::npos)
            return;
        to.append("\r\n", 2);
        bytes.remove_prefix(lf + 1);
    }
}

bool out_of_patience(const client_descriptor &c) {
    return c.is_socket && steady::now() - c.outbox.progress_at >= sv_patience;
}

enum class append_result { done, long_enough, gone, no_memory };

append_result append(int cn, std::string_view bytes, outbox_form form, std::size_t &left) {
    client_descriptor &c = client[cn];
    const std::lock_guard lock(c.output_mutex);
    session_outbox &box = c.outbox;
    if (!c.valid || box.broken)
        return append_result::gone;
    const std::size_t before = box.pending.size();
    append_result result = append_result::done;
    try {
        if (form.open_line && *form.open_line && !form.redraws)
            box.pending += '\n';
        if (form.crlf)
            append_crlf(box.pending, bytes);
        else
            box.pending.append(bytes);
        if (form.open_line)
            *form.open_line = form.redraws ? 1 : 0;
    } catch (const std::bad_alloc &) {
        box.pending.resize(before);
        result = append_result::no_memory;
    }
    if (unsent(box) > 0)
        set_counted(box.untried, true, untried_sessions);
    if (unsent(box) > outbox_limit && result == append_result::done)
        result = append_result::long_enough;
    left = unsent(box);
    settle(box);
    return result;
}

// Without memory for the whole, pieces that fit the capacity that an outbox always has leave one by one.
std::optional<std::size_t> append_in_pieces(int cn, std::string_view bytes, outbox_form form) {
    std::size_t left = 0;
    constexpr std::size_t piece = least_capacity / 2 - 1;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        outbox_flush(cn);
        if (append(cn, bytes.substr(at, piece), form, left) == append_result::gone)
            return std::nullopt;
    }
    return left;
}

} // namespace

std::optional<std::size_t> outbox_append(int cn, std::string_view bytes, outbox_form form) {
    std::size_t left = 0;
    const append_result result = append(cn, bytes, form, left);
    if (result == append_result::gone)
        return std::nullopt;
    if (result == append_result::no_memory)
        return append_in_pieces(cn, bytes, form);
    if (result == append_result::done && sv_on_command_thread())
        return left;
    outbox_flush(cn);
    return 0;
}

outbox_status outbox_try(int cn) {
    client_descriptor &c = client[cn];
    const std::lock_guard lock(c.output_mutex);
    if (!c.valid)
        return outbox_status::gone;
    const outbox_status status = send_some(c);
    settle(c.outbox);
    return status;
}

void outbox_flush(int cn) {
    client_descriptor &c = client[cn];
    for (;;) {
        int fd = -1;
        {
            const std::lock_guard lock(c.output_mutex);
            if (!c.valid)
                return;
            const outbox_status status = send_some(c);
            if (status == outbox_status::waiting && out_of_patience(c))
                give_up(c.outbox, ETIMEDOUT);
            settle(c.outbox);
            if (status != outbox_status::waiting || c.outbox.broken)
                return;
            fd = c.out;
        }
        pollfd p{fd, POLLOUT, 0};
        ::poll(&p, 1, static_cast<int>(std::min<long long>(poll_slice_ms, sv_patience.count())));
    }
}

void outbox_try_all() {
    if (untried_sessions.load(std::memory_order_relaxed) == 0)
        return;
    for (int cn = 0; cn < sv_max_clients; ++cn) {
        if (client[cn].valid)
            outbox_try(cn);
    }
}

bool outbox_attention() {
    return attention_sessions.load(std::memory_order_relaxed) > 0;
}

outbox_view outbox_look(int cn) {
    client_descriptor &c = client[cn];
    const std::lock_guard lock(c.output_mutex);
    if (unsent(c.outbox) > 0 && !c.outbox.untried && out_of_patience(c)) {
        give_up(c.outbox, ETIMEDOUT);
        settle(c.outbox);
    }
    return {unsent(c.outbox), c.outbox.broken, c.outbox.error};
}

void outbox_discard(session_outbox &box) {
    box.sent = box.pending.size();
    box.broken = false;
    settle(box);
}

void outbox_open(session_outbox &box) {
    box.pending.reserve(least_capacity);
}

} // namespace kestrel
