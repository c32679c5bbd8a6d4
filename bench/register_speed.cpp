// The control connection's speed against bare loops of send and recv that move the same bytes with the same
// turn-arounds, to a card in a process of its own that does nothing but answer. Short turns of one and the other;
// medians of their ratios.
#include "pulsar3/lib/wire/error.h"
#include "pulsar3/lib/wire/fem.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <vector>

using namespace kestrel;

namespace {

using bytes = std::vector<std::byte>;

constexpr std::size_t words_at_once = 16384;
constexpr int turns = 41;

[[noreturn]] void give_up(const char *what) {
    std::fprintf(stderr, "register_speed: %s\n", what);
    std::exit(1);
}

void pin_to(int processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<std::size_t>(processor), &set);
    if (::sched_setaffinity(0, sizeof set, &set) != 0)
        give_up("cannot choose a processor");
}

// The card: answers to all whole requests that have come leave in one send.
class card {
  public:
    card(int generation, int fd) : generation_(generation), fd_(fd), in_(1 << 21) {}

    void serve() {
        for (;;) {
            const ssize_t got = ::recv(fd_, in_.data() + have_, in_.size() - have_, 0);
            if (got <= 0)
                return;
            have_ += static_cast<std::size_t>(got);
            std::size_t used = 0;
            while (const std::size_t size = whole_request(used)) {
                answer(used, size);
                used += size;
            }
            std::memmove(in_.data(), in_.data() + used, have_ - used);
            have_ -= used;
            if (!out_.empty() && ::send(fd_, out_.data(), out_.size(), MSG_NOSIGNAL) < 0)
                return;
            out_.clear();
        }
    }

  private:
    std::uint32_t word(std::size_t at) const {
        std::uint32_t value;
        std::memcpy(&value, in_.data() + at, sizeof value);
        return generation_ == 1 ? __builtin_bswap32(value) : value;
    }
    std::size_t whole_request(std::size_t at) const {
        const std::size_t head = generation_ == 1 ? 16 : 36;
        if (have_ < at + head)
            return 0;
        const bool data = generation_ == 1 || in_[at + 8] == std::byte{2};
        const std::size_t size = head + (data ? word(at + (generation_ == 1 ? 12 : 20)) : 0);
        return have_ < at + size ? 0 : size;
    }
    void answer(std::size_t at, std::size_t size) {
        const std::size_t begin = out_.size();
        if (generation_ == 1) {
            const bool read = in_[at + 7] == std::byte{1};
            const std::uint32_t count =
                __builtin_bswap32(read ? word(at + 16) : static_cast<std::uint32_t>(size - 16) / 4);
            const std::uint32_t payload = __builtin_bswap32(read ? 4 + 4 * word(at + 16) : 4);
            out_.insert(out_.end(), in_.begin() + static_cast<std::ptrdiff_t>(at),
                        in_.begin() + static_cast<std::ptrdiff_t>(at + 12));
            out_.resize(begin + 20 + (read ? 4 * word(at + 16) : 0));
            out_[begin + 7] |= std::byte{0x20};
            std::memcpy(&out_[begin + 12], &payload, 4);
            std::memcpy(&out_[begin + 16], &count, 4);
            return;
        }
        const std::uint32_t payload = in_[at + 8] == std::byte{1} ? 4 * word(at + 16) : 0;
        out_.insert(out_.end(), in_.begin() + static_cast<std::ptrdiff_t>(at),
                    in_.begin() + static_cast<std::ptrdiff_t>(at + 20));
        out_.resize(begin + 36 + payload);
        out_[begin + 11] = std::byte{0x20};
        std::memcpy(&out_[begin + 20], &payload, 4);
    }

    int generation_, fd_;
    bytes in_, out_;
    std::size_t have_ = 0;
};

void no_delay(int fd) {
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// Starts the card's process; it serves one connection after the other, each in a process of its own.
int start_card(int generation, int processor) {
    const unique_fd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in here{};
    here.sin_family = AF_INET;
    here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof here;
    auto *address = reinterpret_cast<sockaddr *>(&here);
    if (::bind(listener.get(), address, size) != 0 || ::listen(listener.get(), 8) != 0 ||
        ::getsockname(listener.get(), address, &size) != 0)
        give_up("cannot listen");
    if (::fork() == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::signal(SIGCHLD, SIG_IGN);
        pin_to(processor);
        for (;;) {
            const unique_fd fd(::accept(listener.get(), nullptr, nullptr));
            if (fd && ::fork() == 0) {
                ::prctl(PR_SET_PDEATHSIG, SIGKILL);
                no_delay(fd.get());
                card(generation, fd.get()).serve();
                std::_Exit(0);
            }
        }
    }
    return ntohs(here.sin_port);
}

// The bare loop: the bytes of a request, and so many bytes back.
struct bare {
    unique_fd fd;
    bytes request, answer;

    bare(int port, bytes what, std::size_t back)
        : fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), request(std::move(what)), answer(back) {
        sockaddr_in there{};
        there.sin_family = AF_INET;
        there.sin_port = htons(static_cast<std::uint16_t>(port));
        there.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd.get(), reinterpret_cast<sockaddr *>(&there), sizeof there) != 0)
            give_up("cannot connect");
        no_delay(fd.get());
    }
    void turn() {
        for (std::size_t done = 0; done < request.size();) {
            const ssize_t sent = ::send(fd.get(), request.data() + done, request.size() - done, MSG_NOSIGNAL);
            if (sent <= 0)
                give_up("cannot send");
            done += static_cast<std::size_t>(sent);
        }
        for (std::size_t done = 0; done < answer.size();) {
            const ssize_t got = ::recv(fd.get(), answer.data() + done, answer.size() - done, 0);
            if (got <= 0)
                give_up("cannot receive");
            done += static_cast<std::size_t>(got);
        }
    }
};

bytes request_of(int generation, bool write, std::uint32_t words) {
    const std::array<std::uint32_t, 4> head1{0xDEADBEEF, write ? 0x01030302U : 0x01030301U, 0xA0000000U,
                                             write ? 4 * words : 4};
    const std::array<std::uint32_t, 9> head2{
        0xDEADBEEF, 0, write ? 0x00030102U : 0x00030101U, 0, words, 4 * words, 0, 0, 0};
    bytes request;
    const auto add = [&](std::uint32_t word) {
        if (generation == 1)
            word = __builtin_bswap32(word);
        const auto *at = reinterpret_cast<const std::byte *>(&word);
        request.insert(request.end(), at, at + sizeof word);
    };
    if (generation == 1)
        std::for_each(head1.begin(), head1.end(), add);
    else
        std::for_each(head2.begin(), head2.end(), add);
    for (std::uint32_t i = 0; write && i < words; ++i)
        add(i);
    if (generation == 1 && !write)
        add(words);
    return request;
}

double seconds(const std::function<void()> &work, int times) {
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < times; ++i)
        work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count() / times;
}

struct comparison {
    double ours, other, ratio; // s, s, medians
};

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + turns / 2, values.end());
    return values[turns / 2];
}

comparison compare(const std::function<void()> &ours, const std::function<void()> &other, int times) {
    std::vector<double> a, b, ratio;
    seconds(ours, times);
    seconds(other, times);
    for (int i = 0; i < turns; ++i) {
        a.push_back(seconds(ours, times));
        b.push_back(seconds(other, times));
        ratio.push_back(a.back() / b.back());
    }
    return {median(a), median(b), median(ratio)};
}

void check(int rc) {
    if (rc != 0)
        give_up(plr3_get_error_message());
}

void run(int generation, int processor) {
    const int port = start_card(generation, processor);
    const auto h = generation == 1 ? pulsar3FemInitialise("127.0.0.1", port, 0)
                                   : pulsar3FemInitialise("127.0.0.1", 0, port);
    if (!h)
        give_up(plr3_get_error_message());
    const std::size_t answer = generation == 1 ? 20 : 36;

    std::vector<std::uint32_t> words(words_at_once);
    for (std::uint32_t i = 0; i < words.size(); ++i)
        words[i] = i;
    bare block(port, request_of(generation, true, words_at_once), answer);
    const comparison w =
        compare([&] { check(pulsar3FemSetIntArray(*h, 0, 1, 0, words)); }, [&] { block.turn(); }, 200);
    std::printf(
        "generation %d  write 16384   %8.1f us   send, recv  %8.1f us   rate ratio %5.2f   goal 0.90   %s\n",
        generation, 1e6 * w.ours, 1e6 * w.other, 1 / w.ratio, 1 / w.ratio >= 0.9 ? "met" : "missed");

    std::uint32_t value = 0;
    bare one(port, request_of(generation, false, 1), answer + 4);
    const comparison r =
        compare([&] { check(pulsar3FemGetInt(*h, 0, 0, 0, value)); }, [&] { one.turn(); }, 1000);
    std::printf(
        "generation %d  read one      %8.2f us   send, recv  %8.2f us   time ratio %5.2f   goal 1.15   %s\n",
        generation, 1e6 * r.ours, 1e6 * r.other, r.ratio, r.ratio <= 1.15 ? "met" : "missed");
    if (generation == 1)
        return;
    const auto posted = [&] { check(pulsar3FemSetIntChans(*h, 0, 16, 0, 24, {&value, 1})); };
    const auto waiting = [&] {
        for (int chan = 0; chan < 16; ++chan)
            check(pulsar3FemSetInt(*h, chan, 0, 24, value));
    };
    const comparison p = compare(posted, waiting, 1000);
    std::printf(
        "generation %d  1000 x 16     %8.2f ms   one by one  %8.2f ms   rate ratio %5.2f   goal 5.00   %s\n",
        generation, 1e6 * p.ours, 1e6 * p.other, 1 / p.ratio, 1 / p.ratio >= 5 ? "met" : "missed");
}

} // namespace

int main() {
    pin_to(0);
    for (const int processor : {1, 0}) {
        std::printf("card on %s processor:\n", processor == 0 ? "the same" : "another");
        run(1, processor);
        run(2, processor);
        std::fflush(stdout);
    }
    return 0;
}
