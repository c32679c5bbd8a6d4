#include "sim/card/control.h"

#include "sim/card/card.h"
#include "sim/card/control_faults.h"
#include "sim/card/protocol.h"
#include "sim/card/readout.h"
#include "support/fd.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <list>
#include <mutex>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>

namespace kestrel {

namespace {

using clock_type = std::chrono::steady_clock;

constexpr std::size_t receive_block = 1 << 17;

struct connection {
    unique_fd socket;
    card *owner = nullptr;
    bool readout = false;
    std::vector<std::uint8_t> in, out;
    std::size_t sent = 0; // of `out`
    clock_type::time_point stalled{};
    bool last = false; // it closes when `out` is sent
    bool split = false;
};

struct listener {
    card *owner;
    bool readout;
    unique_fd socket;
};

unique_fd wake_fd;
std::thread control_thread;
std::atomic<bool> ending{false};
std::atomic<unsigned> asked{0}, looked{0}; // updates wanted and done
std::atomic<bool> port_failed{false};
std::list<listener> listeners; // these two belong to the thread once it runs
std::list<connection> connections;

bool is_stalled(const connection &k) {
    return k.stalled > clock_type::now();
}

unique_fd open_listener(const card &c, bool readout) {
    unique_fd s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int one = 1;
    ::setsockopt(s.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address = c.control;
    if (readout)
        address.sin_port = htons(static_cast<std::uint16_t>(cards.base_port + 2));
    if (!s || ::bind(s.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(s.get(), 16) != 0)
        return {};
    return s;
}

// Sends what it can. False when the connection is over.
bool flush(connection &k) {
    while (k.sent < k.out.size()) {
        const std::size_t wanted = k.split ? 1 : k.out.size() - k.sent;
        const ssize_t n = ::send(k.socket.get(), k.out.data() + k.sent, wanted, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return errno == EAGAIN;
        k.sent += static_cast<std::size_t>(n);
    }
    k.out.clear();
    k.sent = 0;
    k.split = false;
    return !k.last;
}

// One answer into the connection's output, spoiled if a rule says so.
void put_answer(connection &k, card_answer &answer, const control_rule *rule) {
    const answer_layout &layout = k.owner->wire().layout;
    if (rule) {
        const auto argument = static_cast<std::size_t>(std::max(rule->argument, 0));
        control_spoil(*rule, layout, answer.bytes);
        switch (rule->fault) {
        case control_fault::drop:
            answer.bytes.clear();
            break;
        case control_fault::stall:
            k.stalled = clock_type::now() + std::chrono::milliseconds(argument);
            break;
        case control_fault::cut:
            answer.bytes.resize(std::min(answer.bytes.size(), argument));
            k.last = true;
            break;
        case control_fault::split:
            k.split = true;
            break;
        case control_fault::stale:
            answer.bytes.insert(answer.bytes.end(), argument, 0x5a);
            break;
        default:
            break;
        }
    }
    k.out.insert(k.out.end(), answer.bytes.begin(), answer.bytes.end());
}

// Answers the requests that have arrived whole. False when the connection is over.
bool answer_requests(connection &k) {
    std::lock_guard guard(cards.lock);
    card &c = *k.owner;
    std::size_t taken = 0;
    while (!is_stalled(k) && !k.last) {
        const std::span<const std::uint8_t> in = std::span<const std::uint8_t>(k.in).subspan(taken);
        const std::optional<std::uint8_t> bus = c.wire().whole(in); // no other counts against the rules
        const control_rule *rule = bus ? control_faults.next(card_position(c), *bus) : nullptr;
        if (rule && rule->fault == control_fault::close) {
            k.last = true; // behind the answers to what came before
            break;
        }
        const bool refuse = rule && rule->fault == control_fault::refuse;
        card_answer answer;
        const taken_request got = c.wire().take(c, in, refuse, answer);
        if (got.result == take_result::incomplete)
            break;
        if (got.result == take_result::malformed) {
            ++c.counts.malformed;
            return false;
        }
        taken += got.bytes;
        ++c.counts.transactions;
        c.counts.refused += answer.refused;
        if (c.seen.size() > card_seen_max)
            c.seen.pop_front();
        put_answer(k, answer, rule);
    }
    k.in.erase(k.in.begin(), k.in.begin() + static_cast<std::ptrdiff_t>(taken));
    return true;
}

// False when the peer has gone.
bool receive(connection &k) {
    static std::array<std::uint8_t, receive_block> block; // of the one thread
    const ssize_t n = ::recv(k.socket.get(), block.data(), block.size(), 0);
    if (n > 0)
        k.in.insert(k.in.end(), block.begin(), block.begin() + n);
    return n > 0 || (n < 0 && (errno == EAGAIN || errno == EINTR));
}

// A turn of one connection. False when it is over.
bool serve(connection &k, short events) {
    if (events & (POLLERR | POLLNVAL))
        return false;
    if ((events & (POLLIN | POLLHUP)) && !receive(k))
        return false;
    if (is_stalled(k))
        return true;
    if (!flush(k))
        return false;
    if (!k.out.empty())
        return true;
    if (k.readout)
        return readout_serve(*k.owner, k.in, k.out) && flush(k);
    if (!k.in.empty() && !answer_requests(k))
        return false;
    return is_stalled(k) || flush(k);
}

void accept_one(listener &l) {
    unique_fd s(::accept4(l.socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!s)
        return;
    const int one = 1;
    ::setsockopt(s.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    connection &k = connections.emplace_back();
    k.socket = std::move(s);
    k.owner = l.owner;
    k.readout = l.readout;
    std::lock_guard guard(cards.lock);
    ++l.owner->counts.connections;
    ++l.owner->counts.open;
    if (k.readout)
        readout_opened(*l.owner);
}

void close_connection(std::list<connection>::iterator k) {
    {
        std::lock_guard guard(cards.lock);
        --k->owner->counts.open;
        if (k->readout)
            readout_closed(*k->owner);
    }
    connections.erase(k);
}

// Opens the ports of cards that live, closes all of those that do not.
void follow_power() {
    bool failed = false;
    for (listener &l : listeners) {
        std::unique_lock guard(cards.lock);
        const bool alive = l.owner->alive;
        guard.unlock();
        if (alive && !l.socket) {
            l.socket = open_listener(*l.owner, l.readout);
            failed = failed || !l.socket;
        }
        if (alive)
            continue;
        l.socket.reset();
        for (auto k = connections.begin(); k != connections.end();) {
            const auto next = std::next(k);
            if (k->owner == l.owner)
                close_connection(k);
            k = next;
        }
    }
    port_failed = failed;
}

short wanted(const connection &k) {
    if (is_stalled(k))
        return 0;
    const bool more = !k.out.empty();
    return static_cast<short>((more ? POLLOUT : 0) | (more && !k.readout ? 0 : POLLIN));
}

// Milliseconds until a stalled connection goes on; -1 when none waits.
int time_to_wait() {
    int least = -1;
    for (const connection &k : connections) {
        if (!is_stalled(k))
            continue;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(k.stalled - clock_type::now()).count();
        least = least < 0 ? static_cast<int>(left) : std::min(least, static_cast<int>(left));
    }
    return least;
}

void turn(std::vector<pollfd> &polled) {
    const unsigned goal = asked.load();
    if (looked.load() != goal) {
        follow_power();
        looked.store(goal);
        looked.notify_all();
    }
    polled.clear();
    polled.push_back({wake_fd.get(), POLLIN, 0});
    for (const listener &l : listeners)
        polled.push_back({l.socket.get(), POLLIN, 0}); // negative ones are ignored
    for (const connection &k : connections)
        polled.push_back({k.socket.get(), wanted(k), 0});
    if (::poll(polled.data(), polled.size(), time_to_wait()) < 0)
        return;
    const pollfd *at = polled.data();
    if (std::uint64_t count = 0; at++->revents) [[maybe_unused]]
        const ssize_t n = ::read(wake_fd.get(), &count, sizeof count);
    const std::size_t known = connections.size();
    for (listener &l : listeners) {
        if (at++->revents)
            accept_one(l);
    }
    auto k = connections.begin();
    for (std::size_t i = 0; i < known; ++i, ++at) {
        const auto next = std::next(k);
        if (!serve(*k, at->revents))
            close_connection(k);
        k = next;
    }
}

} // namespace

void control_wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(wake_fd.get(), &one, sizeof one);
}

bool control_update() {
    const unsigned mine = ++asked;
    control_wake();
    for (unsigned now = looked.load(); static_cast<int>(now - mine) < 0; now = looked.load())
        looked.wait(now);
    return !port_failed;
}

bool control_start(std::string &why) {
    wake_fd.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    for (const auto &c : cards.cards) {
        for (const bool readout : {false, true}) {
            if (readout && !c->kind->mini)
                continue;
            unique_fd s = open_listener(*c, readout);
            if (!s) {
                why = "card " + std::to_string(c->index) + " cannot listen: " + std::strerror(errno);
                return false;
            }
            listeners.push_back({c.get(), readout, std::move(s)});
        }
    }
    control_thread = std::thread([] {
        std::vector<pollfd> polled;
        while (!ending)
            turn(polled);
    });
    return true;
}

void control_stop() {
    ending = true;
    control_wake();
    if (control_thread.joinable())
        control_thread.join();
    connections.clear();
    listeners.clear();
}

} // namespace kestrel
