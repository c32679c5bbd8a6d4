// bench: the bare loop that the receivers of frames are measured against: recvmmsg with the kernel's merging of
// datagrams (GRO) into memory as large as a channel's, nothing looked at but the sizes.
//
//   bare_receiver HOST PORT CARD CARD-PORT MEBIBYTES
//
// Prints "ready", then, when datagrams came and none has for half a second, one line: bytes, datagrams, those that the
// kernel dropped, seconds from the first to the last, processor seconds.
#include "support/fd.h"
#include "support/mapping.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/uio.h>

namespace {

using namespace kestrel;
using clock_type = std::chrono::steady_clock;

constexpr unsigned batch = 16;
constexpr std::size_t piece = 65536;
constexpr int receive_buffer = 4 << 20;
constexpr timeval patience = {0, 500000};

struct alignas(cmsghdr) control_space {
    char bytes[CMSG_SPACE(sizeof(int)) + CMSG_SPACE(sizeof(std::uint32_t))];
};

sockaddr_in address(const char *host, const char *port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<std::uint16_t>(std::atoi(port)));
    ::inet_pton(AF_INET, host, &a.sin_addr);
    return a;
}

template <class T> void option(int fd, int level, int name, const T &value) {
    if (::setsockopt(fd, level, name, &value, sizeof value) != 0)
        std::perror("setsockopt");
}

unique_fd open_socket(char **argv) {
    unique_fd s(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in host = address(argv[1], argv[2]), card = address(argv[3], argv[4]);
    option(s.get(), SOL_SOCKET, SO_RCVBUF, receive_buffer);
    option(s.get(), SOL_SOCKET, SO_RXQ_OVFL, 1);
    option(s.get(), SOL_SOCKET, SO_RCVTIMEO, patience);
    option(s.get(), IPPROTO_UDP, UDP_GRO, 1);
    if (::bind(s.get(), reinterpret_cast<const sockaddr *>(&host), sizeof host) != 0 ||
        ::connect(s.get(), reinterpret_cast<const sockaddr *>(&card), sizeof card) != 0) {
        std::perror("bind");
        std::exit(1);
    }
    return s;
}

struct totals {
    std::uint64_t bytes = 0, datagrams = 0;
    std::uint32_t dropped = 0;
};

void count(msghdr &m, std::size_t bytes, totals &t) {
    int segment = 0;
    for (cmsghdr *c = CMSG_FIRSTHDR(&m); c; c = CMSG_NXTHDR(&m, c)) {
        if (c->cmsg_level == IPPROTO_UDP && c->cmsg_type == UDP_GRO)
            std::memcpy(&segment, CMSG_DATA(c), sizeof segment);
        else if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_RXQ_OVFL)
            std::memcpy(&t.dropped, CMSG_DATA(c), sizeof t.dropped);
    }
    t.bytes += bytes;
    const std::size_t size = segment > 0 ? static_cast<std::size_t>(segment) : bytes;
    t.datagrams += size == 0 ? 1 : (bytes + size - 1) / size;
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 6) {
        std::fprintf(stderr, "Usage: %s HOST PORT CARD CARD-PORT MEBIBYTES\n", argv[0]);
        return 1;
    }
    const unique_fd s = open_socket(argv);
    const std::size_t size = static_cast<std::size_t>(std::atoi(argv[5])) << 20;
    const unique_mapping memory =
        unique_mapping::map(-1, size + batch * piece, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS);
    std::memset(memory.address(), 0, memory.size());
    std::array<mmsghdr, batch> messages{};
    std::array<iovec, batch> pieces{};
    std::array<control_space, batch> controls{};
    totals t;
    clock_type::time_point first{}, last{};
    std::printf("ready\n");
    std::fflush(stdout);
    for (std::size_t at = 0;;) {
        for (unsigned i = 0; i < batch; ++i) {
            pieces[i] = {static_cast<char *>(memory.address()) + at + i * piece, piece};
            messages[i].msg_hdr = {nullptr, 0, &pieces[i], 1, controls[i].bytes, sizeof controls[i].bytes, 0};
        }
        const int n = ::recvmmsg(s.get(), messages.data(), batch, MSG_WAITFORONE, nullptr);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0 && t.datagrams > 0)
            break;
        if (n <= 0)
            continue;
        last = clock_type::now();
        if (t.datagrams == 0)
            first = last;
        for (int i = 0; i < n; ++i) {
            mmsghdr &m = messages[static_cast<std::size_t>(i)];
            count(m.msg_hdr, m.msg_len, t);
            at += m.msg_len;
        }
        at = at < size ? at : 0;
    }
    std::printf("%llu %llu %u %.6f %.6f\n", static_cast<unsigned long long>(t.bytes),
                static_cast<unsigned long long>(t.datagrams), t.dropped,
                std::chrono::duration<double>(last - first).count(),
                static_cast<double>(std::clock()) / CLOCKS_PER_SEC);
}
