#include "sim/card/gate_link.h"

#include "sim/card/card.h"
#include "sim/card/timing.h"
#include "support/fd.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>

namespace kestrel {

namespace {

unique_fd listener, wake_fd;
std::thread gate_thread;
std::atomic<bool> ending{false};

// True when the socket has something; false when the program ends.
bool wait_for(int socket) {
    pollfd both[] = {{socket, POLLIN, 0}, {wake_fd.get(), POLLIN, 0}};
    while (!ending) {
        if (::poll(both, 2, -1) > 0 && both[0].revents != 0)
            return true;
    }
    return false;
}

bool obey(char event) {
    const std::lock_guard guard(cards.lock);
    switch (event) {
    case 'o':
        timing_gate(true);
        return true;
    case 'c':
        timing_gate(false);
        return true;
    case 'e':
        timing_next_frame();
        return true;
    default:
        return false; // no timing unit
    }
}

void serve(int unit) {
    char event = 0;
    while (wait_for(unit) && ::recv(unit, &event, 1, 0) == 1 && obey(event)) {
        if (::send(unit, &event, 1, MSG_NOSIGNAL) != 1)
            break;
    }
    obey('c');
}

void run_thread() {
    while (wait_for(listener.get())) {
        const unique_fd unit(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        const int one = 1;
        if (unit && ::setsockopt(unit.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) == 0)
            serve(unit.get());
    }
}

} // namespace

bool gate_link_start(int port, std::string &why) {
    if (port == 0)
        return true;
    listener.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    wake_fd.reset(::eventfd(0, EFD_CLOEXEC));
    const int one = 1;
    ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    if (!listener || !wake_fd ||
        ::bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(listener.get(), 1) != 0) {
        why = "cannot listen for a timing unit at port " + std::to_string(port) + ": " + std::strerror(errno);
        return false;
    }
    gate_thread = std::thread(run_thread);
    return true;
}

void gate_link_stop() {
    ending = true;
    const std::uint64_t one = 1;
    if (wake_fd) [[maybe_unused]]
        const ssize_t written = ::write(wake_fd.get(), &one, sizeof one);
    if (gate_thread.joinable())
        gate_thread.join();
}

} // namespace kestrel
