#include "sim/timing_unit/gates.h"

#include "support/fd.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <vector>

namespace kestrel {

namespace {

constexpr timeval patience{2, 0};

struct card_gate {
    int port;
    unique_fd socket;
};
std::vector<card_gate> gates;

// Sends the event and waits until it comes back.
bool follow(const card_gate &gate, char event) {
    char echo = 0;
    if (::send(gate.socket.get(), &event, 1, MSG_NOSIGNAL) != 1)
        return false;
    ssize_t got = -1;
    do
        got = ::recv(gate.socket.get(), &echo, 1, 0);
    while (got < 0 && errno == EINTR);
    return got == 1 && echo == event;
}

void tell(char event) {
    std::erase_if(gates, [event](const card_gate &gate) {
        if (follow(gate, event))
            return false;
        std::fprintf(stderr, "The cards at gate port %d no longer follow\n", gate.port);
        return true;
    });
}

} // namespace

bool gates_connect(int port, std::string &why) {
    unique_fd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    const int one = 1;
    if (!socket ||
        ::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0 ||
        ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0) {
        why = "cannot reach cards at gate port " + std::to_string(port) + ": " + std::strerror(errno);
        return false;
    }
    gates.push_back({port, std::move(socket)});
    return true;
}

void gates_open() {
    tell('o');
}
void gates_close() {
    tell('c');
}
void gates_end_frame() {
    tell('e');
}

} // namespace kestrel
