#include "pulsar3/lib/wire/connection.h"

#include "pulsar3/lib/wire/error.h"
#include "pulsar3/lib/wire/resolve.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <new>
#include <poll.h>
#include <sys/socket.h>

namespace kestrel {

namespace {

using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds interrupt_poll{100};     // how soon a wait to connect notices ^C
constexpr std::size_t late_bytes_max = 1 << 20; // a card that sends more than this unasked is not listened to

// Waits for the events, at most until the deadline. False with errno: ETIMEDOUT, EINTR or poll's own.
bool wait_for(int fd, short events, clock::time_point deadline) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - clock::now());
    pollfd waiting{fd, events, 0};
    const int n = ::poll(&waiting, 1, static_cast<int>(std::max<milliseconds::rep>(left.count(), 0)));
    if (n == 0)
        errno = ETIMEDOUT;
    return n > 0;
}

// A port of this machine that nobody listens at may be given to the connecting socket itself.
bool connected_to_itself(int fd) {
    sockaddr_in here{}, there{};
    socklen_t here_size = sizeof here, there_size = sizeof there;
    return ::getsockname(fd, reinterpret_cast<sockaddr *>(&here), &here_size) == 0 &&
           ::getpeername(fd, reinterpret_cast<sockaddr *>(&there), &there_size) == 0 &&
           here.sin_port == there.sin_port && here.sin_addr.s_addr == there.sin_addr.s_addr;
}

// Waits until a connection that was begun stands; ^C ends the wait.
bool finish_connecting(int fd, clock::time_point deadline) {
    while (!wait_for(fd, POLLOUT, std::min(deadline, clock::now() + interrupt_poll))) {
        if ((errno != ETIMEDOUT && errno != EINTR) || clock::now() >= deadline || plr3_interrupted())
            return false;
    }
    int error = 0;
    socklen_t size = sizeof error;
    return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0 &&
           !connected_to_itself(fd);
}

unique_fd connect_to(const in_addr &host, int port, clock::time_point deadline) {
    unique_fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in there{};
    there.sin_family = AF_INET;
    there.sin_port = htons(static_cast<std::uint16_t>(port));
    there.sin_addr = host;
    if (!fd || port > 0xFFFF)
        return {};
    const int rc = ::connect(fd.get(), reinterpret_cast<const sockaddr *>(&there), sizeof there);
    if (rc != 0 && errno != EINPROGRESS && errno != EINTR)
        return {};
    if (!finish_connecting(fd.get(), deadline) || ::fcntl(fd.get(), F_SETFL, 0) != 0)
        return {};
    return fd;
}

int tcp_protocol() {
    static const int number = [] {
        protoent entry, *found = nullptr;
        char text[1024];
        return ::getprotobyname_r("tcp", &entry, text, sizeof text, &found) == 0 && found ? found->p_proto
                                                                                          : -1;
    }();
    if (number < 0)
        plr3_message(-1, "Cannot get protocol TCP\n"); // and nothing is lost
    return number < 0 ? IPPROTO_TCP : number;
}

// Requests leave at once, and neither a send nor the first look for an answer blocks for longer than the time-out.
bool set_options(int fd) {
    const int on = 1;
    const timeval limit{fem_timeout.count(), 0};
    return ::setsockopt(fd, tcp_protocol(), TCP_NODELAY, &on, sizeof on) == 0 &&
           ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0 &&
           ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
}

void set_generation(FemHandle &h, ProtocolGeneration generation) {
    const protocol_limits &limits = generation == ProtocolFEM1 ? fem1_limits : fem2_limits;
    h.protocol_generation = generation;
    h.max_tx_bytes = limits.max_tx_bytes;
    h.max_rx_bytes = limits.max_rx_bytes;
    h.base_address = limits.base_address;
}

// Both ports within one time-out; a card whose first port is silent leaves half of it to the second.
bool connect_either(FemHandle &h, int port1, int port2) {
    const auto begin = clock::now();
    if (port1 > 0) {
        h.m_skt = connect_to(h.address, port1, begin + milliseconds(fem_timeout) / (port2 > 0 ? 2 : 1));
        h.port = port1;
        set_generation(h, ProtocolFEM1);
    }
    if (!h.m_skt && port2 > 0 && !plr3_interrupted()) {
        h.m_skt = connect_to(h.address, port2, begin + fem_timeout);
        h.port = port2;
        set_generation(h, ProtocolFEM2);
    }
    return static_cast<bool>(h.m_skt);
}

// After a fault: to the port and the protocol that the card had.
bool connect_anew(FemHandle &h) {
    h.m_skt = connect_to(h.address, h.port, clock::now() + fem_timeout);
    if (h.m_skt && !set_options(h.m_skt.get()))
        h.m_skt.reset();
    h.m_valid = h.m_skt ? 1 : 0;
    h.num_posted_writes = 0;
    return h.m_valid != 0;
}

int answer_failed(FemHandle &h, ssize_t rc) {
    if (rc == 0)
        plr3_fail(
            0,
            "responseTransaction: Reading protocol header response from server detected shutdown of connection");
    else
        plr3_fail(0, "responseTransaction: Reading protocol header response from server failed %d errno: %s",
                  static_cast<int>(rc), std::strerror(errno));
    return fem_give_up(h, fem_response_failed);
}

// Throws away what has arrived; a connection that the card closed meanwhile is found here.
int throw_away_late_bytes(FemHandle &h) {
    std::array<std::byte, 4096> late;
    std::size_t thrown = 0;
    while (thrown < late_bytes_max) {
        const ssize_t got = ::recv(h.m_skt.get(), late.data(), late.size(), MSG_DONTWAIT);
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return 0;
        if (got == 0 || (got < 0 && errno != EINTR))
            return answer_failed(h, got);
        thrown += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    }
    plr3_fail(0, "responseTransaction: more than %zu bytes arrived unasked", late_bytes_max);
    return fem_give_up(h, fem_response_failed);
}

// Takes `bytes` off the front of a gathered message.
void advance(std::span<iovec> &parts, std::size_t bytes) {
    while (!parts.empty() && bytes >= parts.front().iov_len) {
        bytes -= parts.front().iov_len;
        parts = parts.subspan(1);
    }
    if (parts.empty())
        return;
    parts.front().iov_base = static_cast<std::byte *>(parts.front().iov_base) + bytes;
    parts.front().iov_len -= bytes;
}

msghdr message_of(std::span<iovec> parts) {
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    return message;
}

} // namespace

std::unique_ptr<FemHandle> pulsar3FemInitialise(const char *host, int port1, int port2) {
    std::unique_ptr<FemHandle> h(new (std::nothrow) FemHandle);
    const auto fail = [](const char *text) {
        plr3_fail(plr3_failed, "%s", text);
        return nullptr;
    };
    if (!h)
        return fail("pulsar3FemInitialise: Can't allocate FemHandle");
    h->host = host;
    const auto address = plr3_resolve(host);
    if (!address)
        return fail("pulsar3FemInitialise: Can't get gethostbyname");
    h->address = *address;
    if (!unique_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)))
        return fail("pulsar3FemInitialise: Can't create socket");
    if (!connect_either(*h, port1, port2))
        return fail(plr3_interrupted() ? "pulsar3FemInitialise: Interrupted"
                                       : "Connection to server refused. Is the server running?");
    if (!set_options(h->m_skt.get()))
        return fail("Cannot Set socket options");
    h->m_valid = 1;
    return h;
}

void pulsar3FemClose(std::unique_ptr<FemHandle> handle) {
    if (!handle)
        return;
    const std::scoped_lock lock(handle->mutex); // an access of another thread ends first
    handle->m_skt.reset();
    handle->m_valid = 0;
}

unique_fd plr3_connect(const in_addr &host, int port) {
    return connect_to(host, port, clock::now() + fem_timeout);
}

int fem_ready(FemHandle &h, const char *function) {
    if (!h.m_valid && !connect_anew(h))
        return plr3_fail(fem_not_connected, "%s: Not connected to the FEM", function);
    return throw_away_late_bytes(h);
}

int fem_send(FemHandle &h, std::span<iovec> parts, const char *function) {
    const auto deadline = clock::now() + fem_timeout;
    while (!parts.empty()) {
        const msghdr message = message_of(parts);
        const ssize_t sent = ::sendmsg(h.m_skt.get(), &message, MSG_NOSIGNAL);
        if (sent > 0)
            advance(parts, static_cast<std::size_t>(sent));
        const bool again = sent > 0 || (sent < 0 && errno == EINTR);
        if (parts.empty())
            break;
        if (again && clock::now() < deadline)
            continue;
        const char *const why = again || errno == EAGAIN ? std::strerror(ETIMEDOUT) : std::strerror(errno);
        plr3_fail(0, "%s: Sending to the FEM failed: %s", function, why);
        return fem_give_up(h, fem_send_failed);
    }
    return 0;
}

int fem_give_up(FemHandle &h, int status) {
    h.m_skt.reset();
    h.m_valid = 0;
    h.num_posted_writes = 0;
    return status;
}

fem_answer::fem_answer(FemHandle &h, std::span<iovec> parts)
    : h_(h), parts_(parts), deadline_(clock::now() + fem_timeout) {}

void fem_answer::next() {
    deadline_ = clock::now() + fem_timeout;
}

// The first look blocks, with the socket's own time-out: one call of the system for a short answer. The rest of an
// answer that comes in pieces has what is left of the time.
ssize_t fem_answer::receive() {
    msghdr message = message_of(parts_);
    if (!waited_) {
        waited_ = true;
        const ssize_t got = ::recvmsg(h_.m_skt.get(), &message, 0);
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            errno = ETIMEDOUT;
        return got;
    }
    if (!wait_for(h_.m_skt.get(), POLLIN, deadline_))
        return -1;
    return ::recvmsg(h_.m_skt.get(), &message, MSG_DONTWAIT);
}

int fem_answer::need(std::size_t bytes) {
    while (have_ < bytes) {
        const ssize_t got = receive();
        if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN))
            return answer_failed(h_, got);
        if (got > 0) {
            have_ += static_cast<std::size_t>(got);
            advance(parts_, static_cast<std::size_t>(got));
        }
    }
    return 0;
}

int responseTransaction(FemHandle &h, fem_answer &answer, const std::uint32_t &magic, std::size_t end) {
    if (const int rc = answer.need(end))
        return rc;
    const std::uint32_t got = h.protocol_generation == ProtocolFEM1 ? big_endian(magic) : magic;
    if (got == protocol_magic)
        return 0;
    plr3_fail(0, "responseTransaction: Corrupt header magic detected: got 0x%x expected 0x%x", got,
              protocol_magic);
    return fem_give_up(h, fem_response_failed);
}

} // namespace kestrel
