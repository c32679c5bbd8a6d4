// bench: how many lines a second servers answer, measured in short turns, one server after the other, so that
// what else the machine does meets all of them alike.
//   line_client ROUNDS LINES AT_ONCE  PORT GREETING LINE REPLY  PORT GREETING LINE REPLY ...
// A turn sends LINES lines, AT_ONCE together, and waits for the replies to these before it sends on. Every
// byte that comes must be REPLY's. An "@" in LINE and REPLY is a number, another one in each of the lines
// that are sent together. Prints a line a server: the median of its rates, in lines a second, and the median
// over the rounds of its rate as a ratio to the first server's.
#include "support/fd.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace kestrel {

namespace {

struct peer {
    unique_fd socket;
    std::string lines;   // what is sent together
    std::string replies; // and what must come for it
    std::vector<double> rates;
};

[[noreturn]] void fail(const char *what) {
    std::perror(what);
    std::exit(1);
}

// The text `count` times, with numbers from 1000 on for each "@" in it.
std::string repeated(const std::string &text, int count) {
    std::string all;
    for (int i = 0; i < count; ++i) {
        for (const char c : text)
            all += c == '@' ? std::to_string(1000 + i) : std::string(1, c);
    }
    return all;
}

unique_fd connect_to(int port) {
    unique_fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    if (!fd || ::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0)
        fail("line_client: connect");
    return fd;
}

void expect(int fd, const std::string &wanted) {
    static std::vector<char> block(1 << 16);
    for (std::size_t have = 0; have < wanted.size();) {
        const ssize_t n = ::recv(fd, block.data(), block.size(), 0);
        if (n <= 0)
            fail("line_client: recv");
        if (wanted.compare(have, static_cast<std::size_t>(n), block.data(), static_cast<std::size_t>(n)) !=
            0) {
            std::fprintf(stderr, "line_client: not the reply that was to come\n");
            std::exit(1);
        }
        have += static_cast<std::size_t>(n);
    }
}

void send_all(int fd, const std::string &bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
            fail("line_client: send");
        sent += static_cast<std::size_t>(n);
    }
}

// Lines a second of one turn.
double turn(const peer &p, int lines, int at_once) {
    using clock = std::chrono::steady_clock;
    const auto start = clock::now();
    for (int sent = 0; sent < lines; sent += at_once) {
        send_all(p.socket.get(), p.lines);
        expect(p.socket.get(), p.replies);
    }
    return lines / std::chrono::duration<double>(clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int line_client(int argc, char **argv) {
    if (argc < 8 || argc % 4 != 0) {
        std::fprintf(stderr, "line_client ROUNDS LINES AT_ONCE  PORT GREETING LINE REPLY ...\n");
        return 1;
    }
    const int rounds = std::max(std::atoi(argv[1]), 1);
    const int at_once = std::max(std::atoi(argv[3]), 1);
    const int lines = std::max(std::atoi(argv[2]), at_once) / at_once * at_once;
    std::vector<peer> peers;
    for (int i = 4; i < argc; i += 4) {
        peers.push_back({connect_to(std::atoi(argv[i])),
                         repeated(argv[i + 2], at_once),
                         repeated(argv[i + 3], at_once),
                         {}});
        expect(peers.back().socket.get(), argv[i + 1]);
    }
    for (const peer &p : peers)
        turn(p, lines, at_once);
    for (int round = 0; round < rounds; ++round)
        for (peer &p : peers)
            p.rates.push_back(turn(p, lines, at_once));
    for (const peer &p : peers) {
        std::vector<double> ratios;
        for (std::size_t i = 0; i < p.rates.size(); ++i)
            ratios.push_back(p.rates[i] / peers.front().rates[i]);
        std::printf("%.1f %.4f\n", median(p.rates), median(ratios));
    }
    return 0;
}

} // namespace kestrel

int main(int argc, char **argv) {
    return kestrel::line_client(argc, argv);
}
